// The recorder's signal names file, "Vectors.ini": per drive family a
// section framed by "<FAMILY>" and "<End_FAMILY>" whose lines are
// CODE=NAME, the signal code a slot is mapped to and the name shown for it.
//
//   auto names = CVectorsIni::Default();          // data/Vectors.ini
//   names->Name("Talvina", 2);                    // "Velocity"
//   names->Code("Talvina", "Velocity");           // 2
#pragma once

#include <map>
#include <memory>
#include <string>

namespace tessitor {

class CVectorsIni {
public:
    /// Reads the file at path; a missing or unreadable file has no sections.
    static CVectorsIni Load(const std::string& path);
    /// Reads text in the file's format.
    static CVectorsIni FromText(const std::string& text);
    /// The file of the data folder, read once.
    static std::shared_ptr<const CVectorsIni> Default();

    /// The name of code in family's section; "Signal %d" when not listed.
    std::string Name(const std::string& family, int code) const;
    /// The code named name in family's section (first match), or -1.
    int Code(const std::string& family, const std::string& name) const;
    /// Every code of family's section and its name, by code.
    const std::map<int, std::string>& Section(const std::string& family) const;

private:

    std::map<std::string, std::map<int, std::string>> m_mapSections;
};

} // namespace tessitor
