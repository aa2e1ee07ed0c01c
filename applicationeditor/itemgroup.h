// The parts of an application file: a group is a named, ordered list of
// named text fields. Names are kept in the case first stored and found
// without regard to case.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace tessitor {

/// One field: "<name>value<end_name>" in the file.
struct CItemField {
    std::string m_sName;  ///< the field's tag name
    std::string m_sValue; ///< may hold line breaks
};

/// One group of fields, in the order of first insertion.
class CItemGroup {
public:
    explicit CItemGroup(std::string name) : m_sName(std::move(name)) {}

    const std::string& GetName() const { return m_sName; }
    /// The first field whose name equals name without regard to case, or null.
    CItemField* FindField(const std::string& name);
    const CItemField* FindField(const std::string& name) const;
    /// The field name, appended (with an empty value) when missing.
    CItemField& AddField(const std::string& name);
    const std::vector<std::unique_ptr<CItemField>>& Fields() const { return m_arFields; }

private:
    std::string m_sName;
    std::vector<std::unique_ptr<CItemField>> m_arFields;
};

/// True when a and b are equal without regard to (ASCII) letter case.
bool EqualNoCase(const std::string& a, const std::string& b);

} // namespace tessitor
