// Where a recorded-data upload puts what the drive sends: the recorder's
// store of one display signal. A link fetches the recording in chunks and
// hands each chunk to the store as the drive sent it; the store decodes it
// and appends the samples. So the recorder decodes one way on every link.
//
//   class CVector : public CSampleStore { ... AppendChunk decodes "BH" ... };
//   CVector vector;
//   if (link->UploadRecordedData(250, 0x3, vector, scopeWindow, &g_nAbort) == -5) ... corrupted
#pragma once

#include <string>

namespace tessitor {

/// Message an upload posts to its progress window after each chunk (both
/// parameters 0).
constexpr unsigned kMsgRecProgress = 0x401;

class CSampleStore {
public:
    virtual ~CSampleStore() = default;
    /// Decodes one chunk, the value of the drive's "BH" answer (hexadecimal
    /// text: data type, digits per sample, sample count, a reserved field,
    /// scale factor, then the samples), and appends its samples. Returns
    /// false, appending nothing, when the text does not decode; the link
    /// then asks the drive for the chunk again.
    virtual bool AppendChunk(const std::string& chunk) = 0;
};

} // namespace tessitor
