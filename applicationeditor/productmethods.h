// The product-family command methods of one drive link: what the
// application operations ask of a drive (a command and its reply, the
// parameter image and the user program up and down), done the way the
// drive's family and the link's transport need. One object per link, made
// by CreateProductMethods; the link is not owned.
//
//   auto methods = CreateProductMethods(*link);       // link identified ("VR")
//   std::string hex = methods->UploadImage(&progress); // "Params" of the file
//   methods->DownloadImage(hex, &progress);
//
// The image travels in chunks of kImageChunkBytes, "IM[n]" up and
// "IM[n]=hex" down, so no command or reply comes near the 8192-byte limit.
// Failures are thrown as CCommunication::CExceptionComm.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "communication/communication.h"

namespace tessitor {

class Window;
struct VersionLayout;

/// Progress of a transfer, sent to the progress window (synchronously):
/// kMsgTransferStart once (wParam bytes in all, 0 when not known; lParam
/// bytes per step), kMsgTransferStep after each step (wParam bytes done,
/// lParam bytes in all), kMsgTransferEnd once (both 0) when it succeeded.
constexpr unsigned kMsgTransferStep = 0x401;
constexpr unsigned kMsgTransferStart = 0x402;
constexpr unsigned kMsgTransferEnd = 0x403;

/// Image bytes per "IM[n]" chunk (4096 hexadecimal digits a command or reply).
constexpr std::size_t kImageChunkBytes = 2048;
/// The largest image an upload accepts before it calls the drive's answers bad.
constexpr std::size_t kMaxImageBytes = 1u << 20;
/// Time-out of "CP", "CC" and "VR" as the application operations send them [ms].
constexpr std::uint32_t kMethodsCommandTimeoutMs = 5000;

/// What a transfer throws when it finds its abort flag set: a
/// CExceptionComm (source kErrSrcLink) of its own type, so that the one who
/// set the flag can tell it from a failure of the link.
class CTransferAborted : public CCommunication::CExceptionComm {
public:
    explicit CTransferAborted(CCommunication* link)
        : CCommunication::CExceptionComm(-1, link, kErrSrcLink, "The transfer was stopped by the user.")
    {
    }
};

class CProductMethods {
public:
    /// link must outlive this object and be connected when it is used.
    explicit CProductMethods(CCommunication& link) : m_Link(link) {}
    virtual ~CProductMethods() = default;
    CProductMethods(const CProductMethods&) = delete;
    CProductMethods& operator=(const CProductMethods&) = delete;

    /// "Tal" (DSP and STP drives) or "NolBre" (the older BreNol drives).
    virtual const char* GetFamily() const = 0;

    /// Sends command and returns its value (the reply without echo and
    /// terminator; "" for an assignment); a drive's refusal is thrown.
    std::string SendCommand(const std::string& command, std::uint32_t timeoutMs);

    /// The drive's parameter image as upper-case hexadecimal text, two
    /// digits a byte: the "Params" of an application file.
    std::string UploadImage(Window* pProgress = nullptr);
    /// Writes the image given as "Params" text. When the drive's version is
    /// in the version database the text must decode to its image size
    /// (else kSizeMismatchText is thrown, source kErrSrcLink) and nothing
    /// is sent; the drive takes the image only when its last chunk arrives.
    void DownloadImage(const std::string& hex, Window* pProgress = nullptr);

    /// The user program as the drive lists it ("LS"), lines separated by LF.
    std::string UploadProgram();
    /// Clears the drive's program ("CP") and sends text one "DL" line at a
    /// time; lines may end with LF, CR LF or the "\n\r" a file read gives.
    /// The Tal family then compiles it ("CC"); on the NolBre family the
    /// caller sends "CC" (CompileProgram) when it wants the program compiled.
    void DownloadProgram(const std::string& text, Window* pProgress = nullptr);
    /// "CC": the drive checks and compiles its program; returns its answer.
    std::string CompileProgram();

    /// The flag the transfers check before each chunk and each program
    /// line (not owned; null: none); when it reads nonzero they stop there
    /// and throw CTransferAborted. What went to the drive before stays.
    void SetAbortFlag(const std::atomic<std::int32_t>* pAbort) { m_pAbort = pAbort; }

    CCommunication& GetLink() const { return m_Link; }
    /// The layout of the drive's version (the link's "VR" answer) in the
    /// version database, or null when it is not listed.
    const VersionLayout* GetDriveLayout() const;

    /// The lines of a program text: every LF starts a line, and CRs at
    /// either end of a line are dropped (CR LF ends, "\n\r" joins).
    static std::vector<std::string> SplitProgramLines(const std::string& text);

protected:
    /// Chunk n of the image as hexadecimal text; shorter than a whole chunk
    /// (possibly empty) only at the end of the image.
    virtual std::string UploadImageChunk(std::size_t n) = 0;
    /// Writes chunk n (hexadecimal text, at most kImageChunkBytes bytes).
    virtual void DownloadImageChunk(std::size_t n, const std::string& hex) = 0;
    /// What the family does after the last "DL" line.
    virtual void FinishProgramDownload() = 0;

    /// The chunk exchanges of links that carry the drive's command text
    /// (serial line, network device): "IM[n]" and "IM[n]=hex".
    std::string UploadImageChunkByCommand(std::size_t n);
    void DownloadImageChunkByCommand(std::size_t n, const std::string& hex);

    /// One command through the link; a drive's refusal is thrown with
    /// shownAs (default: the command) in its message.
    std::string Query(const std::string& command, std::uint32_t timeoutMs, const std::string& shownAs = {});
    /// The transport's part of Query: the command's value, "" for none.
    /// Links that carry the command text: the raw transaction, the value
    /// taken from behind the echo (an empty one too, and a listing's 0x08).
    virtual std::string CommandValue(const std::string& command, std::uint32_t timeoutMs);
    /// A time-out for a command or reply of bytes: 2 s plus twice its wire
    /// time at the descriptor's baud rate.
    std::uint32_t TransferTimeoutMs(std::size_t bytes) const;
    /// Throws CTransferAborted when the abort flag is set.
    void CheckAbort();

    CCommunication& m_Link;
    const std::atomic<std::int32_t>* m_pAbort = nullptr;
};

/// The methods object for link, chosen by the drive family its
/// identification found ("DSP"/"STP": Tal; "BreNol" or not identified:
/// NolBre) and by its transport (a CAN link: the CAN classes; any other:
/// those of links that carry the command text).
std::unique_ptr<CProductMethods> CreateProductMethods(CCommunication& link);

} // namespace tessitor
