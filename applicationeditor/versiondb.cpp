#include "applicationeditor/versiondb.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "applicationeditor/datfile.h"
#include "core/datadir.h"

namespace tessitor {

namespace {

[[noreturn]] void Malformed(const std::string& path, int line, const std::string& what)
{
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + what);
}

bool Number(const std::string& text, double& value)
{
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return !text.empty() && end && *end == '\0';
}

bool Integer(const std::string& text, int& value)
{
    double d = 0;
    if (!Number(text, d) || d != static_cast<int>(d))
        return false;
    value = static_cast<int>(d);
    return true;
}

// "-" no index, "N" one index, "F..L" a range.
bool IndexRange(const std::string& text, bool& indexed, int& first, int& last)
{
    indexed = text != "-";
    if (!indexed) {
        first = last = 0;
        return true;
    }
    std::size_t dots = text.find("..");
    if (dots == std::string::npos) {
        if (!Integer(text, first))
            return false;
        last = first;
        return first >= 0;
    }
    return Integer(text.substr(0, dots), first) && Integer(text.substr(dots + 2), last) && 0 <= first
           && first <= last;
}

struct Version {
    char szProduct[65] = {};
    int anNumbers[4] = {-1, -1, -1, -1};
};

Version ParseVersion(const std::string& text)
{
    Version v;
    std::sscanf(text.c_str(), "%64s %d.%d.%d.%d", v.szProduct, &v.anNumbers[0], &v.anNumbers[1], &v.anNumbers[2],
                &v.anNumbers[3]);
    return v;
}

} // namespace

std::size_t VersionLayout::ImageSize() const
{
    std::size_t size = 0;
    for (const CControlItem& item : arItems)
        size += static_cast<std::size_t>(item.GetSize());
    return size;
}

std::string VersionLayout::ImageFromText(const std::string& text, std::vector<std::uint8_t>& image) const
{
    std::size_t size = ImageSize();
    int result = CDatFile::DecodeParams(text, image, size);
    if (result < 0)
        return "The parameter image of this DAT file holds a character that is not a hexadecimal digit.";
    if (result == 0 || image.size() < size)
        return kSizeMismatchText;
    image.resize(size);
    return {};
}

CVersionDb CVersionDb::Load(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error(path + ": cannot be read");
    CVersionDb db;
    VersionLayout* open = nullptr;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::istringstream fields(line);
        std::string word;
        if (!(fields >> word) || word[0] == '#')
            continue;
        if (word == "list") {
            if (open)
                Malformed(path, number, "\"list\" before the \"end\" of list " + open->sName);
            open = &db.m_arLayouts.emplace_back();
            if (!(fields >> open->sName))
                Malformed(path, number, "a list needs a name");
            continue;
        }
        if (!open)
            Malformed(path, number, "\"" + word + "\" outside a list");
        if (word == "end") {
            open = nullptr;
        } else if (word == "version") {
            std::string product, numbers;
            if (!(fields >> product >> numbers) || ParseVersion(product + " " + numbers).anNumbers[3] < 0)
                Malformed(path, number, "a version is PRODUCT A.B.C.D");
            open->arVersions.push_back(product + " " + numbers);
        } else if (word == "wordswap") {
            int swap = -1;
            if (!(fields >> swap) || (swap != 0 && swap != 1))
                Malformed(path, number, "wordswap is 0 or 1");
            open->bWordSwap = swap == 1;
        } else {
            std::string index, type, format, lo, hi, def, access;
            CControlItem item;
            int first = 0, last = 0;
            if (word.size() != 2 || !(fields >> index >> type >> format >> lo >> hi >> def >> access)
                || !IndexRange(index, item.m_bIndexed, first, last) || !Integer(type, item.m_nType)
                || !Integer(format, item.m_nFormat) || !Number(lo, item.m_dMin) || !Number(hi, item.m_dMax)
                || !Number(def, item.m_dDefault))
                Malformed(path, number, "a parameter row is MN INDEX TYPE FORMAT MIN MAX DEFAULT ACCESS DESCRIPTION");
            if (item.GetSize() < 0)
                Malformed(path, number, "type code " + type + " has no size in the image");
            if (access.find('s') == std::string::npos)
                continue; // a run-time value, not part of the image
            item.m_sMnemonic = word;
            std::getline(fields >> std::ws, item.m_sDescription);
            for (int i = first; i <= last; ++i) {
                item.m_nIndex = i;
                open->arItems.push_back(item);
            }
        }
    }
    if (open)
        Malformed(path, number, "list " + open->sName + " has no \"end\"");
    return db;
}

std::shared_ptr<const CVersionDb> CVersionDb::Default()
{
    static const std::shared_ptr<const CVersionDb> db =
        std::make_shared<const CVersionDb>(Load(DataFilePath("versions.txt")));
    return db;
}

const VersionLayout* CVersionDb::Find(const std::string& version) const
{
    for (const VersionLayout& layout : m_arLayouts)
        for (const std::string& listed : layout.arVersions)
            if (listed == version)
                return &layout;
    Version wanted = ParseVersion(version);
    if (wanted.anNumbers[1] < 0)
        return nullptr;
    for (const VersionLayout& layout : m_arLayouts)
        for (const std::string& listed : layout.arVersions) {
            Version v = ParseVersion(listed);
            if (std::string(v.szProduct) == wanted.szProduct && v.anNumbers[0] == wanted.anNumbers[0]
                && v.anNumbers[1] == wanted.anNumbers[1])
                return &layout;
        }
    return nullptr;
}

} // namespace tessitor
