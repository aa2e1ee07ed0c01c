#include "applicationeditor/itemgroup.h"

#include <algorithm>
#include <cctype>

namespace tessitor {

bool EqualNoCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

CItemField* CItemGroup::FindField(const std::string& name)
{
    for (auto& field : m_arFields)
        if (EqualNoCase(field->m_sName, name))
            return field.get();
    return nullptr;
}

const CItemField* CItemGroup::FindField(const std::string& name) const
{
    return const_cast<CItemGroup*>(this)->FindField(name);
}

CItemField& CItemGroup::AddField(const std::string& name)
{
    if (CItemField* field = FindField(name))
        return *field;
    m_arFields.push_back(std::make_unique<CItemField>(CItemField{name, {}}));
    return *m_arFields.back();
}

} // namespace tessitor
