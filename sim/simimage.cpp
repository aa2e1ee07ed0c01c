#include "sim/simimage.h"

#include <cmath>
#include <cstring>
#include <utility>

namespace tessitor::sim {

namespace {

void PutLittle(std::vector<std::uint8_t>& out, std::uint64_t raw, int size)
{
    for (int i = 0; i < size; ++i)
        out.push_back(static_cast<std::uint8_t>(raw >> (8 * i)));
}

std::uint64_t GetLittle(const std::uint8_t* in, int size)
{
    std::uint64_t raw = 0;
    for (int i = 0; i < size; ++i)
        raw |= static_cast<std::uint64_t>(in[i]) << (8 * i);
    return raw;
}

// Exchanges the 16-bit words of a 4- or 8-byte element in place; its own inverse.
void SwapWords(std::uint8_t* element, int size)
{
    if (size == 4) {
        std::swap(element[0], element[2]);
        std::swap(element[1], element[3]);
    } else if (size == 8) {
        std::swap(element[0], element[6]);
        std::swap(element[1], element[7]);
        std::swap(element[2], element[4]);
        std::swap(element[3], element[5]);
    }
}

std::uint64_t RawOf(const SimParamDef& param, double value)
{
    switch (param.ImageSize()) {
    case 1: return static_cast<std::uint8_t>(static_cast<int>(value));
    case 2: return static_cast<std::uint16_t>(static_cast<std::int32_t>(value));
    case 4:
        if (param.IsFloat()) {
            float f = static_cast<float>(value);
            std::uint32_t bits;
            std::memcpy(&bits, &f, sizeof bits);
            return bits;
        }
        return static_cast<std::uint32_t>(static_cast<std::int64_t>(value));
    default: {
        std::uint64_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
    }
}

double ValueOf(const SimParamDef& param, std::uint64_t raw)
{
    switch (param.nType) {
    case 0: return static_cast<std::int16_t>(raw);
    case 1: return static_cast<std::uint16_t>(raw);
    case 8: return static_cast<std::uint8_t>(raw);
    case 16: {
        double d;
        std::memcpy(&d, &raw, sizeof d);
        return d;
    }
    default:
        if (param.IsFloat()) {
            auto bits = static_cast<std::uint32_t>(raw);
            float f;
            std::memcpy(&f, &bits, sizeof f);
            return f;
        }
        return param.nType == 3 ? static_cast<double>(static_cast<std::uint32_t>(raw))
                               : static_cast<double>(static_cast<std::int32_t>(raw));
    }
}

} // namespace

std::size_t ImageSize(const SimParamList& list)
{
    std::size_t size = 0;
    for (const SimParamDef& param : list.arParams)
        if (param.bSaved)
            size += static_cast<std::size_t>(param.ImageSize());
    return size;
}

std::vector<std::uint8_t> EncodeImage(const SimParamList& list, const std::vector<double>& values)
{
    std::vector<std::uint8_t> image;
    image.reserve(ImageSize(list));
    for (std::size_t i = 0; i < list.arParams.size(); ++i) {
        const SimParamDef& param = list.arParams[i];
        if (!param.bSaved)
            continue;
        int size = param.ImageSize();
        PutLittle(image, RawOf(param, values[i]), size);
        if (list.bWordSwap)
            SwapWords(image.data() + image.size() - size, size);
    }
    return image;
}

int DecodeImage(const SimParamList& list, const std::vector<std::uint8_t>& image, std::vector<double>& values)
{
    if (image.size() != ImageSize(list))
        return 4;
    std::vector<double> decoded = values;
    std::size_t offset = 0;
    for (std::size_t i = 0; i < list.arParams.size(); ++i) {
        const SimParamDef& param = list.arParams[i];
        if (!param.bSaved)
            continue;
        int size = param.ImageSize();
        std::uint8_t element[8];
        std::memcpy(element, image.data() + offset, static_cast<std::size_t>(size));
        if (list.bWordSwap)
            SwapWords(element, size);
        double value = ValueOf(param, GetLittle(element, size));
        if (!std::isfinite(value) || value < param.dMin || value > param.dMax)
            return 4;
        decoded[i] = value;
        offset += static_cast<std::size_t>(size);
    }
    values = decoded;
    return 0;
}

std::string HexText(const std::vector<std::uint8_t>& bytes)
{
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 0xF];
    }
    return text;
}

bool HexBytes(const std::string& text, std::vector<std::uint8_t>& bytes)
{
    if (text.size() % 2)
        return false;
    auto digit = [](char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    bytes.clear();
    for (std::size_t i = 0; i < text.size(); i += 2) {
        int hi = digit(text[i]), lo = digit(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        bytes.push_back(static_cast<std::uint8_t>(hi << 4 | lo));
    }
    return true;
}

} // namespace tessitor::sim
