#include "applicationeditor/application.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "core/atomicfile.h"
#include "core/strformat.h"
#include "core/trace.h"

namespace tessitor {

namespace {

// End tags are "<end_" + name + ">", in lower case for groups and fields alike.
constexpr char kEndPrefix[] = "end_";

std::string EndTag(const std::string& name)
{
    return StrFormat("<%s%s>", kEndPrefix, name.c_str());
}

// The text between the first "<" and the first ">"; false when either is
// missing or the "<" stands behind the ">". gt receives the ">" position.
bool TagName(const std::string& line, std::string& name, std::size_t& gt)
{
    std::size_t lt = line.find('<');
    gt = line.find('>');
    if (lt == std::string::npos || gt == std::string::npos || lt > gt)
        return false;
    name = line.substr(lt + 1, gt - lt - 1);
    return true;
}

} // namespace

CApplication::CApplication(std::string fileName) : m_sFileName(std::move(fileName))
{
    m_nLoaded = LoadData();
}

CApplication::~CApplication()
{
    if (m_bModified)
        Update(true);
}

void CApplication::Update(bool bSave)
{
    if (!bSave) {
        m_nLoaded = LoadData(); // merges: the groups held are not emptied first
        return;
    }
    if (!m_bModified)
        return;
    if (Save()) {
        m_bModified = false;
        m_nLoaded = 1;
    } else {
        m_nLoaded = 0;
    }
}

int CApplication::LoadData()
{
    // A folder opens here like a file and reads as empty; it is no file to load.
    std::error_code ignored;
    std::ifstream in;
    int error = EISDIR;
    if (!std::filesystem::is_directory(m_sFileName, ignored)) {
        in.open(m_sFileName, std::ios::binary);
        error = errno;
    }
    int loaded = 0;
    if (in.is_open()) {
        loaded = LoadFrom(in);
    } else {
        Trace::Write("CApplication:: Unable to open file for Read on LoadDatat the file will be create in first "
                     "Update .\n");
        Trace::Printf("CApplication::LoadData: %s: %s\n", m_sFileName.c_str(), std::strerror(error));
    }
    m_bModified = false;
    return loaded;
}

int CApplication::LoadFrom(std::istream& in)
{
    std::string line;
    bool haveLine = ReadLine(in, line);
    while (haveLine) {
        std::string group;
        std::size_t gt = 0;
        if (!TagName(line, group, gt)) {
            haveLine = ReadLine(in, line);
            continue;
        }
        const std::string groupEnd = EndTag(group);
        haveLine = ReadLine(in, line);
        while (haveLine) {
            if (line.find(groupEnd) != std::string::npos) {
                haveLine = ReadLine(in, line);
                break;
            }
            std::string field;
            if (!TagName(line, field, gt)) {
                // A line without a tag ends the group; the next line may start one.
                haveLine = ReadLine(in, line);
                break;
            }
            const std::string fieldEnd = EndTag(field);
            std::string value;
            std::size_t end = line.find(fieldEnd, gt + 1);
            if (end != std::string::npos) {
                value = line.substr(gt + 1, end - gt - 1);
            } else {
                // Lines of a multi-line value are joined with "\n\r", not with
                // the "\n" they were written with: files have always read back so.
                value = line.substr(gt + 1);
                while (ReadLine(in, line)) {
                    end = line.find(fieldEnd);
                    value += "\n\r";
                    if (end != std::string::npos) {
                        value += line.substr(0, end);
                        break;
                    }
                    value += line;
                }
            }
            SetValue(group, field, value);
            haveLine = ReadLine(in, line);
        }
    }
    return 1;
}

std::string CApplication::FileText() const
{
    std::string text;
    for (const auto& group : m_arGroups) {
        text += "<" + group->GetName() + ">\n";
        for (const auto& field : group->Fields())
            text += "\t<" + field->m_sName + ">" + field->m_sValue + EndTag(field->m_sName) + "\n";
        text += EndTag(group->GetName()) + "\n";
    }
    // Every "\n" becomes CR LF, values' own line breaks included, as a
    // text-mode write does: the files travel to and from Windows.
    std::string crlf;
    crlf.reserve(text.size() + text.size() / 16);
    for (char c : text) {
        if (c == '\n')
            crlf += '\r';
        crlf += c;
    }
    return crlf;
}

const CItemGroup* CApplication::FindGroup(const std::string& name) const
{
    for (const auto& group : m_arGroups)
        if (EqualNoCase(group->GetName(), name))
            return group.get();
    return nullptr;
}

std::string CApplication::GetValue(const std::string& group, const std::string& field) const
{
    const CItemGroup* g = FindGroup(group);
    const CItemField* f = g ? g->FindField(field) : nullptr;
    return f ? f->m_sValue : std::string();
}

std::int32_t CApplication::GetInt(const std::string& group, const std::string& field) const
{
    int value = 0;
    if (std::sscanf(GetValue(group, field).c_str(), "%d", &value) != 1)
        return 0;
    return value;
}

int CApplication::SetValue(const std::string& group, const std::string& field, const std::string& value)
{
    auto* g = const_cast<CItemGroup*>(FindGroup(group));
    if (!g) {
        m_arGroups.push_back(std::make_unique<CItemGroup>(group));
        g = m_arGroups.back().get();
    }
    g->AddField(field).m_sValue = value;
    m_bModified = true;
    return 1;
}

void CApplication::SetInt(const std::string& group, const std::string& field, std::int32_t value)
{
    SetValue(group, field, StrFormat("%d", value));
}

void CApplication::RemoveAll()
{
    m_arGroups.clear();
    m_bModified = true;
}

bool CApplication::IsReadOnly() const
{
    return CAtomicFile(m_sFileName).IsReadOnly();
}

bool CApplication::Save()
{
    CAtomicFile file(m_sFileName);
    if (!file.Create() || !file.Write(FileText()) || !file.Commit()) {
        Trace::Write("CApplication:: Unable to open file for Update.\n");
        Trace::Printf("CApplication::Update: %s: %s\n", file.Target().c_str(), file.Error().c_str());
        return false;
    }
    return true;
}

} // namespace tessitor
