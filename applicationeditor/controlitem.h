// One element of a drive's parameter image: a parameter (mnemonic and
// index) with the type code that fixes its size in the image and the number
// format that tells integer from floating point, as the version database
// lists it. Reads and writes its value at its place in the image bytes.
#pragma once

#include <cstdint>
#include <string>

namespace tessitor {

/// Type codes of image elements.
enum ControlItemType : int {
    kItemInt16 = 0,  ///< 2 bytes, signed
    kItemUInt16 = 1, ///< 2 bytes, unsigned
    kItemInt32 = 2,  ///< 4 bytes: float with kFormatFloat, else signed
    kItemUInt32 = 3, ///< 4 bytes: float with kFormatFloat, else unsigned
    kItemFloat32 = 4, ///< 4 bytes: signed with kFormatInteger, else float
    kItemChar = 8,   ///< 1 byte, a character
    kItemDouble = 16, ///< 8 bytes, 64-bit float
};

/// Number formats.
enum ControlItemFormat : int {
    kFormatInteger = 1,
    kFormatFloat = 2,
};

class CControlItem {
public:
    std::string m_sMnemonic;   ///< two upper-case letters
    bool m_bIndexed = false;   ///< written "XX[n]"; false: "XX"
    int m_nIndex = 0;          ///< the index when m_bIndexed
    int m_nType = 0;           ///< ControlItemType, or another code (no size)
    int m_nFormat = kFormatInteger; ///< ControlItemFormat
    double m_dMin = 0;         ///< the values the drive accepts, inclusive
    double m_dMax = 0;
    double m_dDefault = 0;     ///< the value of a fresh drive
    std::string m_sDescription;

    /// Size in the image in bytes: 2, 4, 1 or 8 by type code; -1 for any other code.
    int GetSize() const;
    /// True when the element holds a floating-point number.
    bool IsFloat() const;
    /// True when value lies within m_dMin..m_dMax, allowing for the
    /// rounding of a 32-bit float image element.
    bool IsWithinLimits(double value) const;
    /// "KP[2]" or "UM", as the drive's command language writes it.
    std::string GetName() const;

    /// The value of the element at element (GetSize() bytes, little endian),
    /// the 16-bit words of 4- and 8-byte elements swapped first when
    /// bWordSwap; 0 for a type without size.
    double GetValue(const std::uint8_t* element, bool bWordSwap) const;
    /// The element's text form: "%d", "%u", "%5.3f", "%c" or "%5.3lf" by
    /// type code and number format; "" for a type without size.
    std::string GetText(const std::uint8_t* element, bool bWordSwap) const;
    /// Writes value at element in the same layout (integers rounded and held
    /// to their type's range); nothing for a type without size.
    void SetValue(double value, std::uint8_t* element, bool bWordSwap) const;

private:
    std::uint64_t Raw(const std::uint8_t* element, bool bWordSwap) const;
};

} // namespace tessitor
