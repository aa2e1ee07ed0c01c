// The drive link: the one door through which everything reaches a drive.
// CCommunication runs the command transaction that every transport shares
// (connected check, lock, time-out latch, length limit, time-out choice,
// terminator, state flag) and calls the transport's Exchange below it.
// Every failure is thrown as CCommunication::CExceptionComm.
//
//   std::unique_ptr<CCommunication> link = CreateLink(info);   // linkfactory.h
//   if (int err = link->Connect()) { ... system error number ... }
//   link->Identify();                                          // "VR"
//   std::string value;
//   link->SendCommandGetValue("PX", value, 1000);              // value = "1234"
//   link->Disconnect();
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "communication/communicationinfo.h"
#include "communication/driveerrortable.h"
#include "communication/samplestore.h"

namespace tessitor {

class Window;

/// Coded results shared by every transport (0 = success).
enum CommResult : int {
    COM_OK = 0,
    COM_TIMEOUT = 1,
    COM_ERROR = 2,
    COM_READ_ERROR = 3,
    COM_WRITE_ERROR = 4,
    COM_BUFFER_TOO_BIG = 5,
    COM_BUFFER_NULL = 6,
    COM_DEVICE_NULL = 7,
    COM_BAD_INFO = 9,
    COM_BAD_ECHO = 10,
    COM_BAD_DATA = 11,
    COM_NOT_IMPLEMENTED = 12,
};

/// Which layer raised an exception (the exception's error source).
enum CommErrorSource : int {
    kErrSrcSetup = 0,     ///< set-up of the link: general table
    kErrSrcTransport = 1, ///< a transport's coded result
    kErrSrcLink = 2,      ///< the link refused the command itself (text supplied)
    kErrSrcDrive = 3,     ///< the drive answered "?" (text supplied)
    kErrSrcCan = 4,       ///< a CAN transfer's coded result or protocol violation
    kErrSrcCanDrive = 6,  ///< the drive refused a command over CAN (text supplied)
    kErrSrcSdoAbort = 7,  ///< an SDO abort (text supplied)
    kErrSrcSdoInternal = 8, ///< the SDO abort 0x06040047
    kErrSrcSdoAlla = 9,   ///< the SDO abort whose code bytes read "ALLA"
    kErrSrcTcp = 10,      ///< the TCP socket layer (text supplied)
    kErrSrcTcpLink = 11,  ///< the TCP link's coded result
};

/// Size of a command and of a reply on every transport, in bytes.
constexpr std::size_t kMaxCommandBytes = 8192;

class CCommunication {
public:
    /// The one exception for every communication failure.
    class CExceptionComm : public std::exception {
    public:
        CExceptionComm(std::int32_t code, CCommunication* link, std::int32_t source, std::string message = {});

        std::int32_t m_nErrorCode;   ///< -1 when the message is the raiser's own text
        CCommunication* m_pCom;      ///< the failing link (not owned; may be null)
        std::int32_t m_nErrorSource; ///< CommErrorSource
        std::string m_sMessage;      ///< empty unless supplied or filled

        /// Fills the message from code and source (see the .cpp) and returns it.
        const std::string& FillMessage();
        /// Shows the message in the "Communication Device Error" box through
        /// Ui::Current() and returns the button; only one box is open at a
        /// time, a report that finds one open returns IDNO at once.
        int ReportError(Window* parent);
        /// The filled message, without changing this exception.
        const char* what() const noexcept override;

    private:
        mutable std::string m_sWhat;
    };

    /// Told when a link disconnects or is destroyed; never owned by the link.
    class CListenerComm {
    public:
        virtual ~CListenerComm() = default;
        virtual void OnCommunicationDestroy(CCommunication* pCom) = 0;
        virtual void OnCommunicationDisconnect(CCommunication* pCom) = 0;
    };

    class CNetManager;

    /// Largest chunk of a recorded-data upload, in samples.
    static constexpr std::int32_t kRecordChunkSamples = 100;
    /// Sends of one chunk before an upload gives up with -5.
    static constexpr int kRecordChunkSends = 10;

    explicit CCommunication(const CCommunicationInfo& info);
    /// Tells the listeners (OnCommunicationDestroy, last to first) unless
    /// the derived link already did: each link's own destructor calls
    /// NotifyDestroy() first, while the link is still whole.
    virtual ~CCommunication();
    CCommunication(const CCommunication&) = delete;
    CCommunication& operator=(const CCommunication&) = delete;

    // The transport contract, in the system's slot order.
    /// Stores a link option (the serial link keeps it; others ignore it).
    virtual void SetOption(std::int32_t option) { m_nOption = option; }
    /// A small query of the link; the serial link answers 1.
    virtual std::int32_t QueryOption() { return 1; }
    /// Opens the device the descriptor names; 0 or a system error number.
    virtual int Connect() = 0;
    /// Closes the device; the base part tells the listeners, last to first.
    virtual void Disconnect();
    /// Echo probe and "SR": 1 healthy, -2 answered badly, 0 broken.
    virtual std::int32_t CheckLink();
    /// Sends command and stores its value; -1 without sending while the
    /// link is broken, else 0. Drive errors are thrown with their text.
    virtual int SendCommandGetValue(const std::string& command, std::string& value, std::uint32_t timeoutMs);
    /// Sends command and stores the whole reply (echo included); 0.
    virtual int SendCommandGetReply(const std::string& command, std::string& reply, std::uint32_t timeoutMs);
    /// Uploads a recording: length samples of the signals in mask, in
    /// chunks of at most kRecordChunkSamples, each handed to store. After
    /// each chunk posts kMsgRecProgress to pProgress (may be null). Before
    /// each chunk checks *pAbort (may be null) and returns 0 at once when
    /// it reads 1. Returns 0, or -5 when a chunk did not decode in
    /// kRecordChunkSends sends; samples already appended stay. Link
    /// failures are thrown.
    virtual int UploadRecordedData(std::int32_t length, std::uint32_t mask, CSampleStore& store, Window* pProgress,
                                   const std::atomic<std::int32_t>* pAbort);

    /// One raw transaction; 0 or a thrown CExceptionComm. force lets the
    /// command through while the time-out latch is set.
    int SendCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs, std::int32_t force);

    /// Looks for "?" in reply; 1 with message filled when the byte before it
    /// is a nonzero drive error number, else 0.
    int CheckDriveError(const std::string& command, const std::string& reply, std::string& message) const;
    /// Text of drive error n, or "Unknown Error".
    std::string GetDriveErrorText(int n) const { return m_pErrorTexts->Text(n); }
    /// The value part of a reply to command: echo, CR, value, terminator.
    static std::string ExtractValue(const std::string& command, const std::string& reply);

    /// The version text when "VR" got no answer or a refusal.
    static constexpr char kUnknownVersion[] = "Unknown version";

    /// Asks "VR", stores the version text and the processor type, and warns
    /// about "BreNol" products unless the user turned the warning off.
    virtual void Identify();
    const std::string& GetVersionText() const { return m_sVersion; }
    /// True when the last Identify got the drive's version.
    bool IsIdentified() const { return !m_sVersion.empty() && m_sVersion != kUnknownVersion; }
    /// "DSP", "STP", "BreNol", or "" before identification / for unknown products.
    const std::string& GetProcessorType() const { return m_sProcessorType; }
    void SetProcessorType(const std::string& type) { m_sProcessorType = type; }

    void AddListenerCom(CListenerComm* pListener);
    void RemoveListenerCom(CListenerComm* pListener);

    const CCommunicationInfo& GetInfo() const { return m_Info; }
    /// The device this link reaches, as a user names it in messages: a
    /// device path, "host:port target", a CAN node. Default: the
    /// descriptor's display text.
    virtual std::string DeviceName() const { return m_Info.GetDisplayText(); }
    /// Why the last Connect failed, in the link's own words (the device and
    /// what went wrong); empty after a success.
    const std::string& GetConnectError() const { return m_sConnectError; }
    bool IsConnected() const { return m_nConnected != 0; }
    bool IsLinkBroken() const { return m_nLinkBroken != 0; }
    bool IsTimeoutLatched() const { return m_nTimeoutLatch != 0; }
    bool IsStateChanged() const { return m_nStateChanged != 0; }
    /// Nonzero: the transport checks that each reply begins with the echo.
    void SetCheckEcho(std::int32_t check) { m_nCheckEcho = check; }
    /// 1 = "Don't Check Echo": the link check sends no echo probe.
    void SetEchoMode(std::int32_t mode) { m_nEchoMode = mode; }

protected:
    /// Calls OnCommunicationDestroy on every listener, last to first, once.
    void NotifyDestroy();
    /// One chunk of a recording into chunk: the value of "BH=mask" for
    /// samples first..last. send counts this chunk's sends from 1. This
    /// one sets the window with "RP[8]" and "RP[9]" on the first send and
    /// sends "BH" through the transaction; links with a request of their
    /// own for it override it. Failures are thrown.
    virtual void ReadRecordChunk(std::uint32_t mask, std::uint32_t first, std::uint32_t last, int send,
                                 std::string& chunk);
    /// The transport's own exchange of one command (terminator appended by
    /// the caller); returns a CommResult, never throws for wire failures.
    virtual int Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                         std::int32_t checkEcho) = 0;
    /// Switches the reply terminator between ";" and 0x08.
    virtual void ToggleTerminator() {}
    /// The value in this transport's reply to command; the byte-stream
    /// links take it from behind the echo (ExtractValue).
    virtual std::string ReplyValue(const std::string& command, const std::string& reply) const
    {
        return ExtractValue(command, reply);
    }

    /// The time-out a command gets: 50 s for "SG"/"SV", 5 s for "BH"/"bh"
    /// and "DL" lines, else timeoutMs.
    static std::uint32_t EffectiveTimeout(const std::string& command, std::uint32_t timeoutMs);
    /// Sets the state-changed flag for "MO=1", "XQ" and "DL" lines.
    void NoteStateChange(const std::string& command);

    /// The transaction lock, for a link's own transfers outside SendCommand.
    std::recursive_mutex& TransactionLock() { return m_csTransaction; }
    void SetConnected(bool connected) { m_nConnected = connected ? 1 : 0; }
    void SetConnectError(std::string text) { m_sConnectError = std::move(text); }
    void SetLinkBroken(bool broken) { m_nLinkBroken = broken ? 1 : 0; }

    CCommunicationInfo m_Info;

private:
    std::atomic<std::int32_t> m_nConnected{0};
    std::recursive_mutex m_csTransaction;
    std::recursive_mutex m_csValueSend;
    std::atomic<std::int32_t> m_nTimeoutLatch{0};
    std::atomic<std::int32_t> m_nStateChanged{0};
    std::int32_t m_nCheckEcho = 1;
    std::int32_t m_nEchoMode = 0;
    std::atomic<std::int32_t> m_nLinkBroken{0};
    std::int32_t m_nOption = 0;
    std::string m_sVersion;
    std::string m_sProcessorType;
    std::string m_sConnectError;
    std::shared_ptr<const CDriveErrorTable> m_pErrorTexts;
    std::vector<CListenerComm*> m_arListenersCom;
    std::mutex m_csListeners;
    bool m_bDestroyNotified = false;
};

} // namespace tessitor
