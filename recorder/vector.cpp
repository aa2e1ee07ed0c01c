#include "recorder/vector.h"

#include <bit>

#include "core/strformat.h"

namespace tessitor {

namespace {

// Data types of a "BH" answer.
constexpr std::uint32_t kBhLastIntegerType = 2;
constexpr std::uint32_t kBhFloatType = 3;
constexpr std::uint32_t kBhShortDigits = 4;
constexpr std::uint32_t kBhLongDigits = 8;

} // namespace

bool CVector::Decode(const std::string& text, std::vector<double>& samples, BhHeader* header)
{
    if (text.size() < kHeaderChars)
        return false;
    BhHeader h;
    std::uint32_t scaleBits = 0;
    if (!ReadHex(text, 0, 2, h.nDataType) || !ReadHex(text, 2, 2, h.nDigits) || !ReadHex(text, 4, 4, h.nCount)
        || !ReadHex(text, 8, 4, h.nFourth) || !ReadHex(text, 12, 8, scaleBits))
        return false;
    h.fScale = std::bit_cast<float>(scaleBits);
    const std::size_t digits = h.nDigits;
    if (text.size() - kHeaderChars != static_cast<std::size_t>(h.nCount) * digits)
        return false;
    for (std::size_t i = kHeaderChars; i < text.size(); ++i)
        if (HexDigit(text[i]) < 0)
            return false;
    if (header)
        *header = h;

    samples.reserve(samples.size() + h.nCount);
    for (std::size_t n = 0; n < h.nCount; ++n) {
        std::uint32_t raw = 0;
        ReadHex(text, kHeaderChars + n * digits, digits, raw);
        if (h.nDataType <= kBhLastIntegerType) {
            std::int32_t integer;
            if (h.nDigits == kBhShortDigits)
                integer = static_cast<std::int16_t>(raw & 0xFFFF);
            else if (h.nDigits == kBhLongDigits)
                integer = static_cast<std::int32_t>(raw);
            else
                continue;
            // The drive's own scaling is single precision; the product is
            // widened only afterwards, so a file shows what the drive meant.
            float value = static_cast<float>(integer) * h.fScale;
            samples.push_back(static_cast<double>(value));
        } else if (h.nDataType == kBhFloatType) {
            samples.push_back(static_cast<double>(std::bit_cast<float>(raw)));
        }
    }
    return true;
}

bool CVector::AppendChunk(const std::string& chunk)
{
    std::vector<double> decoded;
    if (!Decode(chunk, decoded))
        return false;
    std::lock_guard lock(m_csSamples);
    m_arSamples.insert(m_arSamples.end(), decoded.begin(), decoded.end());
    return true;
}

void CVector::Clear()
{
    std::lock_guard lock(m_csSamples);
    m_arSamples.clear();
}

std::vector<double> CVector::Samples() const
{
    std::lock_guard lock(m_csSamples);
    return m_arSamples;
}

std::size_t CVector::Size() const
{
    std::lock_guard lock(m_csSamples);
    return m_arSamples.size();
}

} // namespace tessitor
