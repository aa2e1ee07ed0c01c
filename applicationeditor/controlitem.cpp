#include "applicationeditor/controlitem.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

#include "core/strformat.h"

namespace tessitor {

namespace {

// Exchanges the halves of a 4-byte element or reverses the four words of an
// 8-byte one; 1- and 2-byte elements stand as they are. Its own inverse.
void SwapWords(std::uint8_t* bytes, int size)
{
    if (size == 4) {
        std::swap(bytes[0], bytes[2]);
        std::swap(bytes[1], bytes[3]);
    } else if (size == 8) {
        std::swap(bytes[0], bytes[6]);
        std::swap(bytes[1], bytes[7]);
        std::swap(bytes[2], bytes[4]);
        std::swap(bytes[3], bytes[5]);
    }
}

float FloatOf(std::uint64_t raw)
{
    auto bits = static_cast<std::uint32_t>(raw);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

double DoubleOf(std::uint64_t raw)
{
    double d;
    std::memcpy(&d, &raw, sizeof d);
    return d;
}

// value rounded and held to [lo, hi], as raw two's complement bits.
std::uint64_t IntegerBits(double value, double lo, double hi)
{
    if (std::isnan(value))
        value = 0;
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(std::clamp(std::round(value), lo, hi)));
}

} // namespace

int CControlItem::GetSize() const
{
    switch (m_nType) {
    case kItemInt16:
    case kItemUInt16: return 2;
    case kItemInt32:
    case kItemUInt32:
    case kItemFloat32: return 4;
    case kItemChar: return 1;
    case kItemDouble: return 8;
    default: return -1;
    }
}

bool CControlItem::IsFloat() const
{
    switch (m_nType) {
    case kItemInt32:
    case kItemUInt32: return m_nFormat == kFormatFloat;
    case kItemFloat32: return m_nFormat != kFormatInteger;
    case kItemDouble: return true;
    default: return false;
    }
}

bool CControlItem::IsWithinLimits(double value) const
{
    // A limit written in decimal is rarely exact in a 32-bit float.
    double slack = IsFloat() ? 1e-6 * std::max({1.0, std::fabs(m_dMin), std::fabs(m_dMax)}) : 0.0;
    return value >= m_dMin - slack && value <= m_dMax + slack;
}

std::string CControlItem::GetName() const
{
    return m_bIndexed ? StrFormat("%s[%d]", m_sMnemonic.c_str(), m_nIndex) : m_sMnemonic;
}

std::uint64_t CControlItem::Raw(const std::uint8_t* element, bool bWordSwap) const
{
    int size = GetSize();
    std::uint8_t bytes[8] = {};
    std::memcpy(bytes, element, static_cast<std::size_t>(size));
    if (bWordSwap)
        SwapWords(bytes, size);
    std::uint64_t raw = 0;
    for (int i = 0; i < size; ++i)
        raw |= static_cast<std::uint64_t>(bytes[i]) << (8 * i);
    return raw;
}

double CControlItem::GetValue(const std::uint8_t* element, bool bWordSwap) const
{
    if (GetSize() < 0)
        return 0;
    std::uint64_t raw = Raw(element, bWordSwap);
    switch (m_nType) {
    case kItemInt16: return static_cast<std::int16_t>(raw);
    case kItemUInt16: return static_cast<std::uint16_t>(raw);
    case kItemChar: return static_cast<std::uint8_t>(raw);
    case kItemDouble: return DoubleOf(raw);
    case kItemUInt32:
        return IsFloat() ? FloatOf(raw) : static_cast<double>(static_cast<std::uint32_t>(raw));
    default: return IsFloat() ? FloatOf(raw) : static_cast<double>(static_cast<std::int32_t>(raw));
    }
}

std::string CControlItem::GetText(const std::uint8_t* element, bool bWordSwap) const
{
    if (GetSize() < 0)
        return {};
    std::uint64_t raw = Raw(element, bWordSwap);
    switch (m_nType) {
    case kItemInt16: return StrFormat("%d", static_cast<int>(static_cast<std::int16_t>(raw)));
    case kItemUInt16: return StrFormat("%u", static_cast<unsigned>(static_cast<std::uint16_t>(raw)));
    case kItemChar: return StrFormat("%c", static_cast<int>(static_cast<std::uint8_t>(raw)));
    case kItemDouble: return StrFormat("%5.3lf", DoubleOf(raw));
    default:
        if (IsFloat())
            return StrFormat("%5.3f", static_cast<double>(FloatOf(raw)));
        if (m_nType == kItemUInt32)
            return StrFormat("%u", static_cast<std::uint32_t>(raw));
        return StrFormat("%d", static_cast<std::int32_t>(raw));
    }
}

void CControlItem::SetValue(double value, std::uint8_t* element, bool bWordSwap) const
{
    int size = GetSize();
    if (size < 0)
        return;
    std::uint64_t raw = 0;
    if (m_nType == kItemDouble) {
        std::memcpy(&raw, &value, sizeof raw);
    } else if (IsFloat()) {
        float f = static_cast<float>(value);
        std::uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        raw = bits;
    } else {
        switch (m_nType) {
        case kItemInt16: raw = IntegerBits(value, std::numeric_limits<std::int16_t>::min(), 32767); break;
        case kItemUInt16: raw = IntegerBits(value, 0, 65535); break;
        case kItemChar: raw = IntegerBits(value, 0, 255); break;
        case kItemUInt32: raw = IntegerBits(value, 0, 4294967295.0); break;
        default: raw = IntegerBits(value, std::numeric_limits<std::int32_t>::min(), 2147483647); break;
        }
    }
    for (int i = 0; i < size; ++i)
        element[i] = static_cast<std::uint8_t>(raw >> (8 * i));
    if (bWordSwap)
        SwapWords(element, size);
}

} // namespace tessitor
