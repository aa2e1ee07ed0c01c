#include "communication/producttable.h"

#include <fstream>
#include <sstream>

#include "core/datadir.h"

namespace tessitor {

CProductTable CProductTable::Load(const std::string& path)
{
    CProductTable table;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string name, type;
        if (fields >> name >> type)
            table.m_arRows.emplace_back(name, type);
    }
    return table;
}

std::shared_ptr<const CProductTable> CProductTable::Default()
{
    static const std::shared_ptr<const CProductTable> table =
        std::make_shared<const CProductTable>(Load(DataFilePath("products.txt")));
    return table;
}

std::string CProductTable::ProcessorType(const std::string& product) const
{
    for (const auto& [name, type] : m_arRows)
        if (name == product)
            return type;
    return {};
}

} // namespace tessitor
