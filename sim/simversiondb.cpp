#include "sim/simversiondb.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "core/datadir.h"

namespace tessitor::sim {

namespace {

// T::Load of the data folder's file, read once per path and process.
template <class T>
std::shared_ptr<const T> LoadOnce(const char* file)
{
    static std::mutex cs;
    static std::map<std::string, std::shared_ptr<const T>> cache;
    std::string path = DataFilePath(file);
    std::lock_guard lock(cs);
    auto& entry = cache[path];
    if (!entry)
        entry = std::make_shared<const T>(T::Load(path));
    return entry;
}

[[noreturn]] void Malformed(const std::string& path, int line, const std::string& what)
{
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + what);
}

bool ParseNumber(const std::string& text, double& value)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return end && *end == '\0';
}

bool ParseInt(const std::string& text, int& value)
{
    double d = 0;
    if (!ParseNumber(text, d) || d != static_cast<int>(d))
        return false;
    value = static_cast<int>(d);
    return true;
}

// The range a type code can hold in the image, for checking the file's limits.
bool TypeRange(int type, int format, double& lo, double& hi)
{
    switch (type) {
    case 0: lo = -32768; hi = 32767; return true;
    case 1: lo = 0; hi = 65535; return true;
    case 2: case 4:
        if ((type == 2 && format == 2) || (type == 4 && format != 1)) {
            lo = -3.4e38; hi = 3.4e38;
        } else {
            lo = -2147483648.0; hi = 2147483647.0;
        }
        return true;
    case 3:
        if (format == 2) {
            lo = -3.4e38; hi = 3.4e38;
        } else {
            lo = 0; hi = 4294967295.0;
        }
        return true;
    case 8: lo = 0; hi = 255; return true;
    case 16: lo = -1.7e308; hi = 1.7e308; return true;
    default: return false;
    }
}

// Compares "a.b.c.d" numerically; missing numbers count as -1.
bool OlderVersion(const std::string& a, const std::string& b)
{
    int va[4] = {-1, -1, -1, -1}, vb[4] = {-1, -1, -1, -1};
    std::sscanf(a.c_str(), "%d.%d.%d.%d", &va[0], &va[1], &va[2], &va[3]);
    std::sscanf(b.c_str(), "%d.%d.%d.%d", &vb[0], &vb[1], &vb[2], &vb[3]);
    return std::lexicographical_compare(va, va + 4, vb, vb + 4);
}

} // namespace

bool SimParamDef::IsFloat() const
{
    switch (nType) {
    case 2: case 3: return nFormat == 2;
    case 4: return nFormat != 1;
    case 16: return true;
    default: return false;
    }
}

int SimParamDef::ImageSize() const
{
    switch (nType) {
    case 0: case 1: return 2;
    case 2: case 3: case 4: return 4;
    case 8: return 1;
    case 16: return 8;
    default: return -1;
    }
}

CSimVersionDb CSimVersionDb::Load(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read the version database " + path);
    CSimVersionDb db;
    SimParamList* list = nullptr;
    std::map<std::string, std::string> versionOwner;
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        ++lineNo;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::istringstream fields(line);
        std::string word;
        if (!(fields >> word) || word[0] == '#')
            continue;
        if (word == "list") {
            if (list)
                Malformed(path, lineNo, "\"list\" inside the list " + list->sName);
            SimParamList fresh;
            if (!(fields >> fresh.sName))
                Malformed(path, lineNo, "\"list\" without a name");
            db.m_arLists.push_back(fresh);
            list = &db.m_arLists.back();
            continue;
        }
        if (!list)
            Malformed(path, lineNo, "\"" + word + "\" outside a list");
        if (word == "end") {
            if (list->arVersions.empty())
                Malformed(path, lineNo, "the list " + list->sName + " names no version");
            list = nullptr;
        } else if (word == "version") {
            std::string product, number, extra;
            if (!(fields >> product >> number) || (fields >> extra))
                Malformed(path, lineNo, "expected \"version PRODUCT A.B.C.D\"");
            int a, b, c, d;
            char tail;
            if (std::sscanf(number.c_str(), "%d.%d.%d.%d%c", &a, &b, &c, &d, &tail) != 4)
                Malformed(path, lineNo, "bad version number " + number);
            std::string version = product + " " + number;
            if (versionOwner.count(version))
                Malformed(path, lineNo, version + " is already in the list " + versionOwner[version]);
            versionOwner[version] = list->sName;
            list->arVersions.push_back(version);
        } else if (word == "wordswap") {
            std::string flag;
            if (!(fields >> flag) || (flag != "0" && flag != "1"))
                Malformed(path, lineNo, "expected \"wordswap 0\" or \"wordswap 1\"");
            list->bWordSwap = flag == "1";
        } else {
            if (word.size() != 2 || !std::isupper(static_cast<unsigned char>(word[0]))
                || !std::isupper(static_cast<unsigned char>(word[1])))
                Malformed(path, lineNo, "bad mnemonic \"" + word + "\"");
            std::string index, type, format, lo, hi, def, access;
            if (!(fields >> index >> type >> format >> lo >> hi >> def >> access))
                Malformed(path, lineNo, "a parameter row needs 8 fields");
            SimParamDef param;
            param.sMnemonic = word;
            std::getline(fields >> std::ws, param.sDescription);
            if (!ParseInt(type, param.nType) || !ParseInt(format, param.nFormat)
                || (param.nFormat != 1 && param.nFormat != 2))
                Malformed(path, lineNo, "bad type or number format");
            double typeLo = 0, typeHi = 0;
            if (!TypeRange(param.nType, param.nFormat, typeLo, typeHi))
                Malformed(path, lineNo, "unknown type code " + type);
            if (!ParseNumber(lo, param.dMin) || !ParseNumber(hi, param.dMax) || !ParseNumber(def, param.dDefault))
                Malformed(path, lineNo, "bad limit or default");
            for (char c : access) {
                switch (c) {
                case 'r': param.bRead = true; break;
                case 'w': param.bWrite = true; break;
                case 'o': param.bMotorOff = true; break;
                case 's': param.bSaved = true; break;
                default: Malformed(path, lineNo, std::string("unknown access letter ") + c);
                }
            }
            bool runtimeOnly = param.bRead && !param.bWrite && !param.bSaved;
            if (!runtimeOnly) {
                if (param.dMin > param.dMax || param.dDefault < param.dMin || param.dDefault > param.dMax)
                    Malformed(path, lineNo, "the default is outside MIN..MAX");
                if (param.dMin < typeLo || param.dMax > typeHi)
                    Malformed(path, lineNo, "MIN..MAX does not fit the type");
                if (!param.IsFloat() && (param.dMin != static_cast<long long>(param.dMin)
                                         || param.dMax != static_cast<long long>(param.dMax)
                                         || param.dDefault != static_cast<long long>(param.dDefault)))
                    Malformed(path, lineNo, "an integer parameter has a fractional limit or default");
            }
            int first = 0, last = 0;
            if (index == "-") {
                param.bIndexed = false;
            } else if (auto dots = index.find(".."); dots != std::string::npos) {
                if (!ParseInt(index.substr(0, dots), first) || !ParseInt(index.substr(dots + 2), last)
                    || first < 0 || last < first)
                    Malformed(path, lineNo, "bad index range " + index);
                param.bIndexed = true;
            } else {
                if (!ParseInt(index, first) || first < 0)
                    Malformed(path, lineNo, "bad index " + index);
                last = first;
                param.bIndexed = true;
            }
            for (int i = first; i <= last; ++i) {
                for (const SimParamDef& other : list->arParams)
                    if (other.sMnemonic == param.sMnemonic
                        && (other.bIndexed != param.bIndexed || other.nIndex == i))
                        Malformed(path, lineNo, "parameter " + word + " listed twice");
                SimParamDef element = param;
                element.nIndex = param.bIndexed ? i : 0;
                list->arParams.push_back(element);
            }
        }
    }
    if (list)
        Malformed(path, lineNo, "the list " + list->sName + " has no \"end\"");
    return db;
}

std::shared_ptr<const CSimVersionDb> CSimVersionDb::Default()
{
    return LoadOnce<CSimVersionDb>("versions.txt");
}

const SimParamList* CSimVersionDb::FindVersion(const std::string& version) const
{
    for (const SimParamList& list : m_arLists)
        for (const std::string& v : list.arVersions)
            if (v == version)
                return &list;
    return nullptr;
}

std::string CSimVersionDb::NewestVersion(const std::string& product) const
{
    std::string best;
    for (const SimParamList& list : m_arLists)
        for (const std::string& v : list.arVersions) {
            auto blank = v.find(' ');
            if (v.substr(0, blank) != product)
                continue;
            if (best.empty() || OlderVersion(best.substr(blank + 1), v.substr(blank + 1)))
                best = v;
        }
    return best;
}

bool CSimVersionDb::KnowsMnemonic(const std::string& mnemonic) const
{
    for (const SimParamList& list : m_arLists)
        for (const SimParamDef& param : list.arParams)
            if (param.sMnemonic == mnemonic)
                return true;
    return false;
}

CSimProducts CSimProducts::Load(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        throw std::runtime_error("cannot read the product table " + path);
    CSimProducts table;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string name, family;
        if (!(fields >> name) || name[0] == '#')
            continue;
        if (fields >> family)
            table.m_arRows.emplace_back(name, family);
    }
    return table;
}

std::shared_ptr<const CSimProducts> CSimProducts::Default()
{
    return LoadOnce<CSimProducts>("products.txt");
}

std::string CSimProducts::Family(const std::string& product) const
{
    for (const auto& [name, family] : m_arRows)
        if (name == product)
            return family;
    return {};
}

std::vector<std::string> CSimProducts::Names() const
{
    std::vector<std::string> names;
    for (const auto& row : m_arRows)
        names.push_back(row.first);
    return names;
}

} // namespace tessitor::sim
