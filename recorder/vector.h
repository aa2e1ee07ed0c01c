// One recorded display signal and the decoding of the drive's "BH" answer
// into it. The decoding is free of I/O: a link hands each uploaded chunk to
// AppendChunk (CSampleStore), and a chunk that does not decode is asked for
// again by the link.
//
//   CVector vector;
//   link->UploadRecordedData(250, 0x1, vector, scopeWindow, &rec.AbortFlag());
//   vector.Samples();   // 250 doubles, scaled as the drive said
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "communication/samplestore.h"

namespace tessitor {

/// The header of one "BH" answer, each field as the drive sent it.
struct BhHeader {
    std::uint32_t nDataType = 0;  ///< 0, 1, 2 integer samples; 3 single-precision floats
    std::uint32_t nDigits = 0;    ///< hex digits per sample: 4 or 8
    std::uint32_t nCount = 0;     ///< samples in this answer
    std::uint32_t nFourth = 0;    ///< kept, not used in the decoding
    float fScale = 0;             ///< integer samples are multiplied by it
};

class CVector : public CSampleStore {
public:
    /// Characters of the header before the first sample.
    static constexpr std::size_t kHeaderChars = 20;

    /// Decodes text and appends its samples to samples; false, appending
    /// nothing, when the text is shorter than the header, its sample text is
    /// not exactly count x digits characters long, or it holds a character
    /// that is not a hex digit. header (may be null) gets the header read.
    static bool Decode(const std::string& text, std::vector<double>& samples, BhHeader* header = nullptr);

    /// Decodes and appends one chunk (see Decode). Thread-safe.
    bool AppendChunk(const std::string& chunk) override;
    /// Empties the store.
    void Clear();
    /// A copy of the samples so far.
    std::vector<double> Samples() const;
    /// Number of samples so far.
    std::size_t Size() const;

private:
    mutable std::mutex m_csSamples;
    std::vector<double> m_arSamples;
};

} // namespace tessitor
