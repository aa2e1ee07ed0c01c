// The CAN link: a drive reached through a CAN adapter (canadapter.h), with
// the CANopen SDO client that reads and writes its object dictionary on the
// node's default SDO channel (requests 0x600 + node, responses 0x580 +
// node). Drive commands travel as one of four transfers (canclassify.h): an
// SDO upload or download of a fixed object, the binary interpreter on the
// second PDO pair (binaryinterpreter.h), or the OS command (0x1023/0x1024). Every failure is thrown as CCommunication::CExceptionComm: a
// missing response is code 1 (error source 4), an SDO abort carries its text
// ("SDO Abort:\n...") with error source 7, 8 or 9, a protocol violation its
// text with error source 4.
//
//   CCan link(info);                      // "CAN", maker "SLCAN", board "/dev/ttyACM0", node 5
//   if (int err = link.Connect()) ... link.ConnectError()
//   std::string name;
//   link.SdoUpload(0x1008, 0, name, 1000);   // the device name
//   link.SdoDownload(0x2000, 1, "text", 1000);
//   link.Identify();                          // "VR": the product and its processor type
//   std::string value;
//   link.SendCommandGetValue("KP[2]", value, 1000);   // "120", as on a serial line
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "can/canadapter.h"
#include "can/canmessage.h"
#include "communication/communication.h"
#include "communication/samplestore.h"

namespace tessitor {

class Window;

/// Progress messages of a segmented download to its progress window (a
/// record upload posts kMsgRecProgress every kRecordProgressSegments).
constexpr unsigned kMsgSdoProgress = 0x401; ///< a segment is written
constexpr unsigned kMsgSdoStart = 0x402;    ///< a segmented download begins: wParam bytes, lParam per segment
constexpr unsigned kMsgSdoDone = 0x403;     ///< the download is done
/// Segments of a record upload between two progress messages.
constexpr int kRecordProgressSegments = 20;

class CCan : public CCommunication {
public:
    explicit CCan(const CCommunicationInfo& info);
    /// Lets go of the adapter (closed with the last link that uses it).
    ~CCan() override;

    /// Opens the descriptor's adapter at its bit rate; 0 or an errno value
    /// (GetConnectError says it in words).
    int Connect() override;
    /// Tells the listeners, marks the link broken, lets go of the adapter.
    void Disconnect() override;
    /// "slcan:/dev/ttyACM0 node 5".
    std::string DeviceName() const override;
    /// There is no echo on CAN: the check is "SR" alone; 1 when it answers
    /// without a drive error, -2 with one, 0 (link broken) when it fails.
    std::int32_t CheckLink() override;
    /// A "BreNol" drive keeps its version text in 0x1000: read it first, so
    /// that "VR" then takes the transfer of the drive's family.
    void Identify() override;

    /// Every command by OS command, whatever its text.
    void SetOsCommandOnly(bool only) { m_bOsCommandOnly = only; }
    /// Set by every command that contains "MO=1", also when it fails.
    bool IsMotorOn() const { return m_bMotorOn; }
    /// How "BH" travels: "RP[8]=0" and "RP[9]=0", then the record upload of
    /// 0x2030 with the sub-index of mask's lowest bit (5000 ms); data gets
    /// the record as the drive answers "BH" on a serial line. pCancel (may
    /// be null) reading 1 ends it early.
    void UploadRecord(std::uint32_t mask, std::string& data, Window* progress,
                      const std::atomic<std::int32_t>* pCancel = nullptr);
    /// The recording in one record upload (UploadRecord), handed to store
    /// as one chunk; asked again, up to kRecordChunkSends times, while it
    /// does not decode. pProgress gets kMsgRecProgress every
    /// kRecordProgressSegments segments.
    int UploadRecordedData(std::int32_t length, std::uint32_t mask, CSampleStore& store, Window* pProgress,
                           const std::atomic<std::int32_t>* pAbort) override;

    /// Told of every frame this link's adapter sends and receives, from the
    /// next Connect on (the command line's --trace-frames).
    void SetFrameMonitor(CCanAdapter::Monitor monitor);
    std::uint8_t NodeId() const { return m_Info.mNodeID; }
    /// The node's SDO request COB-ID, 0x600 + node.
    std::uint16_t SdoRequestCobId() const { return static_cast<std::uint16_t>(kCobSdoRequest + NodeId()); }

    /// Reads object index/sub of the node as the server sends it (an
    /// expedited value cut to its indicated size), inside the transaction
    /// lock. Throws as the link does.
    void SdoUpload(std::uint16_t index, std::uint8_t sub, std::string& data, std::uint32_t timeoutMs);
    /// Writes data to object index/sub of the node, inside the transaction
    /// lock; progress (not owned, may be null) gets the download messages.
    void SdoDownload(std::uint16_t index, std::uint8_t sub, const std::string& data, std::uint32_t timeoutMs,
                     Window* progress = nullptr);

    // The SDO client. cobId is the node's request COB-ID; each wait for a
    // response frame gets timeoutMs unchanged.
    /// Sends the initiate-upload request (byte 0 = 0x40).
    void SDO_InitUploadRequest(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub);
    /// Reads one object as text: an expedited value is always its four data
    /// bytes, whatever n says; a response of another kind leaves text empty.
    void SDO_UpLoad(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, std::string& text,
                    std::uint32_t timeoutMs);
    /// The segment loop of a text upload; the received toggle is not checked.
    void SDO_UpLoadSegments(std::uint16_t cobId, std::string& text, std::uint32_t timeoutMs);
    /// Reads a recorded-data record (command is what asked for it, for the
    /// trace); it must come segmented. record gets the bytes of all segments.
    /// pCancel (may be null) reading 1 stops it between two segments, record
    /// then incomplete.
    void SDO_UpLoadRecord(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, const std::string& command,
                          std::string& record, std::uint32_t timeoutMs, Window* progress,
                          const std::atomic<std::int32_t>* pCancel = nullptr);
    /// The segment loop of a record upload: toggles checked, progress posted
    /// every kRecordProgressSegments segments, pCancel as above.
    void SDO_Rx_Array(std::uint16_t cobId, std::string& record, std::uint32_t timeoutMs, Window* progress,
                      const std::atomic<std::int32_t>* pCancel);
    /// Writes length bytes: expedited up to 4, else segmented with progress.
    void SDO_DownLoad(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, const std::uint8_t* data,
                      std::uint32_t length, std::uint32_t timeoutMs, Window* progress);
    /// Sends frame and waits once for the response (left in frame).
    void SDO_TxConfirmed(std::uint16_t cobId, CanMessage& frame, std::uint32_t timeoutMs);
    /// Throws when frame is an abort; any other response confirms.
    void SDO_Rx_confirm(const CanMessage& frame);
    /// Throws the abort whose code the 4 bytes hold (little endian).
    [[noreturn]] void SDO_Abort(const std::uint8_t* code);
    /// text = the abort's text; for 0x08000000 the drive's own error ("EC")
    /// is added. show: also show a non-empty text in a message box.
    void SdoAbortMessage(std::uint32_t code, std::string& text, int show);

    // The adapter layer, in the system's slot order. A missing frame throws
    // code 1, a device that is gone code 3, both with error source 4.
    /// The next frame of the node's second transmit PDO (0x280 + node).
    virtual void ReceivePdoFrame(CanMessage& frame, std::uint32_t timeoutMs);
    /// The next SDO response of the node (0x580 + node).
    virtual void ReceiveSdoFrame(CanMessage& frame, std::uint32_t timeoutMs);
    /// Sends one frame; a request's stale answers are dropped first.
    virtual void SendFrame(const CanMessage& frame);

protected:
    int Exchange(const std::string& command, std::string& reply, std::uint32_t timeoutMs,
                 std::int32_t checkEcho) override;
    /// The value of a reply: after "=" for the binary interpreter (a float
    /// in its fewest digits), the text up to a padding zero otherwise; ";"
    /// (no value) for an assignment or an empty reply, as a serial line gives.
    std::string ReplyValue(const std::string& command, const std::string& reply) const override;

private:
    void RunCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs);
    void BinaryCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs);
    void OsCommand(const std::string& command, std::string& reply, std::uint32_t timeoutMs);

    /// The adapter while connected, for a frame with a buffer; else throws.
    std::shared_ptr<CCanAdapter> AdapterFor(const CanMessage& frame);
    void ReceiveFrom(std::uint16_t function, CanMessage& frame, std::uint32_t timeoutMs);
    void CheckConnected();
    /// One upload segment request with toggle and its response; an abort
    /// is logged with abortLog and thrown.
    std::array<std::uint8_t, 8> UploadSegment(std::uint16_t cobId, int toggle, std::uint32_t timeoutMs,
                                              const char* abortLog);
    /// The initiate-upload exchange shared by the uploads; response in frame.
    void InitiateUpload(std::uint16_t cobId, std::uint16_t index, std::uint8_t sub, std::uint8_t* response,
                        std::uint32_t timeoutMs, const char* abortLog);

    mutable std::mutex m_csAdapter;
    std::shared_ptr<CCanAdapter> m_pAdapter;
    CCanAdapter::Monitor m_fnMonitor;
    int m_nMonitorId = 0;
    std::string m_sDeviceName;
    std::string m_sWaitingFor; // what the waits are for, for the front end
    std::atomic<bool> m_bOsCommandOnly{false};
    std::atomic<bool> m_bMotorOn{false};
};

} // namespace tessitor
