// An application file: named groups of named text fields bound to one file
// in a small tagged text format ("<Group>", "\t<Field>value<end_Field>",
// "<end_Group>"), written with CR LF line ends and read with CR LF or LF.
//
//   CApplication app("drive.dat");           // loads; a missing file is empty
//   app.SetValue("Version", "LOAD_VERSION_STRING", "Talvina 2.1.0.0");
//   app.Update(true);                         // writes, since it was modified
//
// Saving goes through a temporary file in the same folder renamed over the
// old one, so a failed or interrupted save leaves the old file whole; a
// read-only file is refused, never replaced.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "applicationeditor/itemgroup.h"

namespace tessitor {

class CApplication {
public:
    /// Stores fileName and loads it (IsLoaded() tells whether it was read).
    explicit CApplication(std::string fileName);
    /// Saves first when modified (Update(true)).
    virtual ~CApplication();
    CApplication(const CApplication&) = delete;
    CApplication& operator=(const CApplication&) = delete;

    /// false: loads the file again, merging its values into those held;
    /// true: writes the whole file when modified, else does nothing.
    void Update(bool bSave);

    /// Reads the file into the groups held (values replaced in place, new
    /// ones appended) and clears modified; 1, or 0 when it cannot be opened.
    int LoadData();
    /// LoadData's reader on an open stream: stores what it finds; always 1.
    int LoadFrom(std::istream& in);
    /// The whole file as Update(true) writes it, CR LF line ends.
    std::string FileText() const;

    /// The value, or "" when the group or the field is missing.
    std::string GetValue(const std::string& group, const std::string& field) const;
    /// The value read with "%d"; 0 when missing, empty or not a number.
    std::int32_t GetInt(const std::string& group, const std::string& field) const;
    /// Stores value, appending the group and the field when missing; sets modified; 1.
    int SetValue(const std::string& group, const std::string& field, const std::string& value);
    /// SetValue with the value formatted "%d".
    void SetInt(const std::string& group, const std::string& field, std::int32_t value);
    /// Drops every group and field and sets modified.
    void RemoveAll();

    /// True when Update(true) would be refused: the file exists and is
    /// read-only (no write permission bit, or not writable by this user).
    bool IsReadOnly() const;

    const std::string& GetFileName() const { return m_sFileName; }
    /// The result of the last load; 1 after a successful save, 0 after a failed one.
    int IsLoaded() const { return m_nLoaded; }
    bool IsModified() const { return m_bModified; }
    const std::vector<std::unique_ptr<CItemGroup>>& Groups() const { return m_arGroups; }

private:
    const CItemGroup* FindGroup(const std::string& name) const;
    /// Writes FileText() through a temporary file; false when refused or failed.
    bool Save();

    const std::string m_sFileName;
    std::vector<std::unique_ptr<CItemGroup>> m_arGroups;
    bool m_bModified = false;
    int m_nLoaded = 0;
};

} // namespace tessitor
