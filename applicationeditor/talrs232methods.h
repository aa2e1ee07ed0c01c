// Tal family methods over a link that carries the drive's command text: a
// serial line, or a network device that relays the same text.
#pragma once

#include "applicationeditor/talmethods.h"

namespace tessitor {

class CTalRs232Methods final : public CTalMethods {
public:
    using CTalMethods::CTalMethods;

protected:
    std::string UploadImageChunk(std::size_t n) override { return UploadImageChunkByCommand(n); }
    void DownloadImageChunk(std::size_t n, const std::string& hex) override { DownloadImageChunkByCommand(n, hex); }
};

} // namespace tessitor
