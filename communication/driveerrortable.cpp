#include "communication/driveerrortable.h"

#include <cstdlib>
#include <fstream>

#include "core/datadir.h"

namespace tessitor {

CDriveErrorTable CDriveErrorTable::Load(const std::string& path)
{
    CDriveErrorTable table;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        char* end = nullptr;
        long number = std::strtol(line.c_str(), &end, 10);
        if (end == line.c_str() || number < 1 || number > 255)
            continue;
        std::string text(end);
        text.erase(0, text.find_first_not_of(" \t"));
        if (table.m_arTexts.size() <= static_cast<size_t>(number))
            table.m_arTexts.resize(static_cast<size_t>(number) + 1);
        table.m_arTexts[static_cast<size_t>(number)] = text;
    }
    return table;
}

std::shared_ptr<const CDriveErrorTable> CDriveErrorTable::Default()
{
    static const std::shared_ptr<const CDriveErrorTable> table =
        std::make_shared<const CDriveErrorTable>(Load(DataFilePath("drive_errors.txt")));
    return table;
}

std::string CDriveErrorTable::Text(int n) const
{
    if (n >= 1 && n < Size())
        return m_arTexts[static_cast<size_t>(n)];
    return "Unknown Error";
}

} // namespace tessitor
