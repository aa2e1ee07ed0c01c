#include "core/datadir.h"

#include <cstdlib>
#include <filesystem>

namespace tessitor {

std::string DataFilePath(const std::string& name)
{
    if (const char* dir = std::getenv("TESSITOR_DATA"); dir && *dir)
        return std::string(dir) + "/" + name;
    std::error_code ec;
    std::string inSource = std::string(TESSITOR_SOURCE_DATA_DIR) + "/" + name;
    if (std::filesystem::exists(inSource, ec))
        return inSource;
    return std::string(TESSITOR_INSTALL_DATA_DIR) + "/" + name;
}

} // namespace tessitor
