// Fuzzes the decoding of the drive's "BH" answer: any text must either be
// refused, appending nothing, or decode to the samples its header promises.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "recorder/vector.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<double> samples;
    tessitor::BhHeader header;
    if (!tessitor::CVector::Decode(text, samples, &header)) {
        if (!samples.empty())
            std::abort();
        return 0;
    }
    const bool widthKnown = header.nDigits == 4 || header.nDigits == 8;
    const bool appends = header.nDataType == 3 || (header.nDataType <= 2 && widthKnown);
    if (samples.size() != (appends ? header.nCount : 0u))
        std::abort();
    return 0;
}
