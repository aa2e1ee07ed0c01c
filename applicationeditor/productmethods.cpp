#include "applicationeditor/productmethods.h"

#include <algorithm>
#include <cctype>

#include "applicationeditor/canmethods.h"
#include "applicationeditor/datfile.h"
#include "applicationeditor/nolbrers232methods.h"
#include "applicationeditor/talrs232methods.h"
#include "applicationeditor/versiondb.h"
#include "core/strformat.h"
#include "core/window.h"

namespace tessitor {

namespace {

// The whole listing of a program can take one full reply.
constexpr std::size_t kListingBytes = kMaxCommandBytes;

void Progress(Window* window, unsigned message, std::size_t wParam, std::size_t lParam)
{
    if (window)
        window->SendMessage(message, wParam, static_cast<std::intptr_t>(lParam));
}

bool IsHexText(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

} // namespace

std::string CProductMethods::Query(const std::string& command, std::uint32_t timeoutMs, const std::string& shownAs)
{
    try {
        return CommandValue(command, timeoutMs);
    } catch (CCommunication::CExceptionComm& e) {
        // A refusal names the command as the user should read it.
        std::string quoted = "'" + command + "'";
        if (std::size_t at = e.m_sMessage.find(quoted); !shownAs.empty() && at != std::string::npos)
            e.m_sMessage.replace(at, quoted.size(), "'" + shownAs + "'");
        throw;
    }
}

std::string CProductMethods::CommandValue(const std::string& command, std::uint32_t timeoutMs)
{
    std::string reply;
    m_Link.SendCommand(command, reply, timeoutMs, 0);
    std::string message;
    if (m_Link.CheckDriveError(command, reply, message))
        throw CCommunication::CExceptionComm(-1, &m_Link, kErrSrcDrive, message);
    // Echo, carriage return, value, terminator; an empty value is a value too.
    if (reply.size() < command.size() + 2)
        return {};
    return reply.substr(command.size() + 1, reply.size() - command.size() - 2);
}

std::uint32_t CProductMethods::TransferTimeoutMs(std::size_t bytes) const
{
    std::uint32_t baud = std::max<std::uint32_t>(m_Link.GetInfo().wBaudRate, 4800);
    return 2000 + static_cast<std::uint32_t>(2 * bytes * 10 * 1000 / baud);
}

void CProductMethods::CheckAbort()
{
    if (m_pAbort && m_pAbort->load() != 0)
        throw CTransferAborted(&m_Link);
}

std::string CProductMethods::SendCommand(const std::string& command, std::uint32_t timeoutMs)
{
    return Query(command, timeoutMs);
}

const VersionLayout* CProductMethods::GetDriveLayout() const
{
    return CVersionDb::Default()->Find(m_Link.GetVersionText());
}

std::string CProductMethods::UploadImage(Window* pProgress)
{
    const VersionLayout* layout = GetDriveLayout();
    std::size_t total = layout ? layout->ImageSize() : 0;
    Progress(pProgress, kMsgTransferStart, total, kImageChunkBytes);
    std::string hex;
    for (std::size_t n = 0;; ++n) {
        CheckAbort();
        std::string chunk = UploadImageChunk(n);
        if (chunk.size() > 2 * kImageChunkBytes || chunk.size() % 2 || !IsHexText(chunk)
            || hex.size() + chunk.size() > 2 * kMaxImageBytes)
            throw CCommunication::CExceptionComm(COM_BAD_DATA, &m_Link, kErrSrcTransport);
        hex += chunk;
        Progress(pProgress, kMsgTransferStep, hex.size() / 2, total);
        if (chunk.size() < 2 * kImageChunkBytes)
            break;
    }
    std::transform(hex.begin(), hex.end(), hex.begin(), [](char c) { return std::toupper(static_cast<unsigned char>(c)); });
    Progress(pProgress, kMsgTransferEnd, 0, 0);
    return hex;
}

void CProductMethods::DownloadImage(const std::string& hex, Window* pProgress)
{
    std::vector<std::uint8_t> image;
    std::string refusal;
    if (const VersionLayout* layout = GetDriveLayout())
        refusal = layout->ImageFromText(hex, image);
    else if (CDatFile::DecodeParams(hex, image, kMaxImageBytes) != 1 || image.empty())
        refusal = kSizeMismatchText;
    if (!refusal.empty())
        throw CCommunication::CExceptionComm(-1, &m_Link, kErrSrcLink, refusal);

    Progress(pProgress, kMsgTransferStart, image.size(), kImageChunkBytes);
    for (std::size_t offset = 0, n = 0; offset < image.size(); offset += kImageChunkBytes, ++n) {
        CheckAbort();
        std::size_t count = std::min(kImageChunkBytes, image.size() - offset);
        DownloadImageChunk(n, CDatFile::EncodeParams({image.begin() + static_cast<std::ptrdiff_t>(offset),
                                                      image.begin() + static_cast<std::ptrdiff_t>(offset + count)}));
        Progress(pProgress, kMsgTransferStep, offset + count, image.size());
    }
    Progress(pProgress, kMsgTransferEnd, 0, 0);
}

std::string CProductMethods::UploadImageChunkByCommand(std::size_t n)
{
    return Query(StrFormat("IM[%zu]", n), TransferTimeoutMs(2 * kImageChunkBytes + 16));
}

void CProductMethods::DownloadImageChunkByCommand(std::size_t n, const std::string& hex)
{
    // A refusal names the chunk, not its thousands of digits.
    Query(StrFormat("IM[%zu]=%s", n, hex.c_str()), TransferTimeoutMs(hex.size() + 16), StrFormat("IM[%zu]=...", n));
}

std::string CProductMethods::UploadProgram()
{
    return Query("LS", TransferTimeoutMs(kListingBytes));
}

std::vector<std::string> CProductMethods::SplitProgramLines(const std::string& text)
{
    std::vector<std::string> lines;
    if (text.empty())
        return lines;
    std::size_t start = 0;
    for (;;) {
        std::size_t lf = text.find('\n', start);
        std::string line = text.substr(start, lf == std::string::npos ? std::string::npos : lf - start);
        // Program lines hold no control characters: a CR at either end is
        // what is left of a CR LF end or of the "\n\r" a file read joins with.
        std::size_t first = line.find_first_not_of('\r');
        lines.push_back(first == std::string::npos ? std::string()
                                                   : line.substr(first, line.find_last_not_of('\r') - first + 1));
        if (lf == std::string::npos)
            return lines;
        start = lf + 1;
    }
}

void CProductMethods::DownloadProgram(const std::string& text, Window* pProgress)
{
    std::vector<std::string> lines = SplitProgramLines(text);
    std::size_t total = 0;
    for (const std::string& line : lines)
        total += line.size() + 1;
    Progress(pProgress, kMsgTransferStart, total, 0);
    Query("CP", kMethodsCommandTimeoutMs);
    std::size_t done = 0;
    for (const std::string& line : lines) {
        CheckAbort();
        // No carriage return: the link sends a "DL" line that ends with a backslash as it stands.
        Query("DL" + line + "\\", kMethodsCommandTimeoutMs);
        done += line.size() + 1;
        Progress(pProgress, kMsgTransferStep, done, total);
    }
    FinishProgramDownload();
    Progress(pProgress, kMsgTransferEnd, 0, 0);
}

std::string CProductMethods::CompileProgram()
{
    return Query("CC", kMethodsCommandTimeoutMs);
}

std::unique_ptr<CProductMethods> CreateProductMethods(CCommunication& link)
{
    const std::string& type = link.GetProcessorType();
    bool tal = type == "DSP" || type == "STP";
    if (auto* can = dynamic_cast<CCan*>(&link)) {
        if (tal)
            return std::make_unique<CTalCANMethods>(*can);
        return std::make_unique<CNolBreCANMethods>(*can);
    }
    // Serial lines and network devices carry the same command text.
    if (tal)
        return std::make_unique<CTalRs232Methods>(link);
    return std::make_unique<CNolBreRs232Methods>(link);
}

} // namespace tessitor
