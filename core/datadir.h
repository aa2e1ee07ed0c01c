// Where the data files (product table, drive error texts, version database,
// Vectors.ini) are found: $TESSITOR_DATA, else the source tree's data/ for a
// program run from its build tree, else the installed share/tessitor.
#pragma once

#include <string>

namespace tessitor {

/// Full path of a file under the data folder; the file need not exist.
std::string DataFilePath(const std::string& name);

} // namespace tessitor
