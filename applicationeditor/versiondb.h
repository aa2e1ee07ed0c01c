// The version database (data/versions.txt) as the client reads it: for
// each parameter-layout version of a drive, the ordered elements of its
// parameter image and whether the image is word-swapped. The file's format
// is described at its top; this reader shares no code with the virtual
// drive's, so a mistake in one cannot hide in the other.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "applicationeditor/controlitem.h"

namespace tessitor {

/// One parameter layout and the versions that carry it.
struct VersionLayout {
    std::string sName;                    ///< the list's name ("DSP-2.1")
    std::vector<std::string> arVersions;  ///< "<product> a.b.c.d"
    bool bWordSwap = false;               ///< 16-bit words of 4- and 8-byte elements exchanged
    std::vector<CControlItem> arItems;    ///< the image's elements, in image order

    /// The image's size in bytes: the sum of the element sizes, no padding.
    std::size_t ImageSize() const;
    /// Decodes the "Params" text of an application file into exactly
    /// ImageSize() bytes. Returns "" or the reason in the user's words:
    /// "Size of this DAT file mismatch of the Version." for a text too long
    /// or too short (one byte too many is taken, its last byte ignored, as
    /// the decoding's capacity rule has it), or a text naming a bad digit.
    std::string ImageFromText(const std::string& text, std::vector<std::uint8_t>& image) const;
};

class CVersionDb {
public:
    /// Reads path; throws std::runtime_error naming the file and the line
    /// when it cannot be read or is malformed.
    static CVersionDb Load(const std::string& path);
    /// The database of the data folder, read once per process.
    static std::shared_ptr<const CVersionDb> Default();

    /// The layout of version ("<product> a.b.c.d"): the list that names it
    /// exactly, else the first list with a version of the same product and
    /// the same first two numbers (the third and fourth never change the
    /// layout); null when none.
    const VersionLayout* Find(const std::string& version) const;
    const std::vector<VersionLayout>& Layouts() const { return m_arLayouts; }

private:
    std::vector<VersionLayout> m_arLayouts;
};

} // namespace tessitor
