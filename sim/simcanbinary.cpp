#include "sim/simcanbinary.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tessitor::sim {

namespace {

// The drive error of a query whose value is no number (a text or hex image).
constexpr int kErrCannotQuery = 32;

std::uint16_t WordOf(const SimCanFrame& frame)
{
    return static_cast<std::uint16_t>(frame.arData[2] | frame.arData[3] << 8);
}

std::uint32_t ValueOf(const SimCanFrame& frame)
{
    return static_cast<std::uint32_t>(frame.arData[4] | frame.arData[5] << 8 | frame.arData[6] << 16)
           | static_cast<std::uint32_t>(frame.arData[7]) << 24;
}

void Put(SimCanFrame& frame, std::uint16_t word, std::uint32_t value)
{
    frame.arData[2] = static_cast<std::uint8_t>(word & 0xFF);
    frame.arData[3] = static_cast<std::uint8_t>(word >> 8);
    for (int i = 0; i < 4; ++i)
        frame.arData[4 + i] = static_cast<std::uint8_t>(value >> (8 * i) & 0xFF);
}

std::string Mnemonic(const SimCanFrame& request)
{
    std::string letters;
    for (int i = 0; i < 2; ++i)
        letters += static_cast<char>(std::toupper(request.arData[i]));
    return letters;
}

// The parameter element the request names, or null.
const SimParamDef* FindParam(const SimParamList* list, const std::string& mnemonic, int index)
{
    if (!list)
        return nullptr;
    const SimParamDef* found = nullptr;
    for (const SimParamDef& param : list->arParams) {
        if (param.sMnemonic != mnemonic)
            continue;
        if (!param.bIndexed && index == 0)
            return &param; // a plain form wins over element 0
        if (param.bIndexed && param.nIndex == index)
            found = &param;
    }
    return found;
}

} // namespace

bool IsSimCanBinaryRequest(const SimCanFrame& request)
{
    return !request.bRemote && (request.nLength == kBinaryQueryLength || request.nLength == kBinaryValueLength);
}

std::string SimCanBinaryCommand(const SimCanFrame& request, const SimParamList* list)
{
    std::string command{static_cast<char>(request.arData[0]), static_cast<char>(request.arData[1])};
    std::uint16_t word = WordOf(request);
    int index = word & kBinaryIndexMask;
    const SimParamDef* param = FindParam(list, Mnemonic(request), index);
    if (index != 0 || (param && param->bIndexed))
        command += "[" + std::to_string(index) + "]";
    if (request.nLength == kBinaryValueLength) {
        std::uint32_t raw = ValueOf(request);
        char value[48];
        if (word & kBinaryFloatFlag) {
            float f;
            std::memcpy(&f, &raw, sizeof f);
            std::snprintf(value, sizeof value, "%.9g", static_cast<double>(f));
        } else {
            std::snprintf(value, sizeof value, "%d", static_cast<int>(static_cast<std::int32_t>(raw)));
        }
        command += "=";
        command += value;
    }
    return command;
}

SimCanFrame SimCanBinaryReply(const SimCanFrame& request, const SimReply& reply, const SimParamList* list, int nodeId)
{
    SimCanFrame frame;
    frame.nId = kCobBinaryReply + static_cast<std::uint32_t>(nodeId);
    frame.arData[0] = request.arData[0];
    frame.arData[1] = request.arData[1];
    auto index = static_cast<std::uint16_t>(WordOf(request) & kBinaryIndexMask);
    int error = reply.bError ? reply.nErrorNumber : 0;
    std::uint16_t word = index;
    std::uint32_t value = 0;
    if (!error && !reply.sValue.empty()) {
        const SimParamDef* param = FindParam(list, Mnemonic(request), index);
        const char* text = reply.sValue.c_str();
        char* end = nullptr;
        double number = std::strtod(text, &end);
        bool floating = param ? param->IsFloat() : std::strpbrk(text, ".eEnN") != nullptr;
        if (end == text || *end != '\0' || std::strncmp(text, "0x", 2) == 0 || std::strncmp(text, "0X", 2) == 0) {
            error = kErrCannotQuery;
        } else if (floating) {
            auto f = static_cast<float>(number);
            std::memcpy(&value, &f, sizeof value);
            word |= kBinaryFloatFlag;
        } else {
            // Unsigned 32-bit values keep their bits; the client reads them signed, as from the drive.
            value = static_cast<std::uint32_t>(static_cast<long long>(std::llround(number)));
        }
    }
    if (error) {
        word = static_cast<std::uint16_t>(index | kBinaryErrorFlag);
        value = static_cast<std::uint32_t>(error);
    }
    frame.nLength = (error || !reply.sValue.empty()) ? kBinaryValueLength : kBinaryQueryLength;
    Put(frame, word, value);
    return frame;
}

} // namespace tessitor::sim
