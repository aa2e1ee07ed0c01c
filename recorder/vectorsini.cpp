#include "recorder/vectorsini.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "core/datadir.h"
#include "core/strformat.h"

namespace tessitor {

CVectorsIni CVectorsIni::Load(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return FromText(text.str());
}

CVectorsIni CVectorsIni::FromText(const std::string& text)
{
    CVectorsIni ini;
    std::istringstream in(text);
    std::string line;
    std::string family; // the open section, empty outside one
    while (std::getline(in, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == ';')
            continue;
        if (line.front() == '<' && line.back() == '>') {
            std::string tag = line.substr(1, line.size() - 2);
            if (tag.rfind("End_", 0) == 0)
                family.clear();
            else
                family = tag;
            continue;
        }
        std::size_t equals = line.find('=');
        if (family.empty() || equals == std::string::npos)
            continue;
        std::string code = Trim(line.substr(0, equals));
        char* end = nullptr;
        long number = std::strtol(code.c_str(), &end, 10);
        if (code.empty() || *end != '\0')
            continue;
        ini.m_mapSections[family].emplace(static_cast<int>(number), Trim(line.substr(equals + 1)));
    }
    return ini;
}

std::shared_ptr<const CVectorsIni> CVectorsIni::Default()
{
    static const std::shared_ptr<const CVectorsIni> ini =
        std::make_shared<const CVectorsIni>(Load(DataFilePath("Vectors.ini")));
    return ini;
}

const std::map<int, std::string>& CVectorsIni::Section(const std::string& family) const
{
    static const std::map<int, std::string> s_empty;
    auto it = m_mapSections.find(family);
    return it == m_mapSections.end() ? s_empty : it->second;
}

std::string CVectorsIni::Name(const std::string& family, int code) const
{
    const auto& section = Section(family);
    auto it = section.find(code);
    return it == section.end() ? StrFormat("Signal %d", code) : it->second;
}

int CVectorsIni::Code(const std::string& family, const std::string& name) const
{
    for (const auto& [code, text] : Section(family))
        if (text == name)
            return code;
    return -1;
}

} // namespace tessitor
