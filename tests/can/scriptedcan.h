// A CAN link whose adapter layer is a script: every frame the link sends is
// recorded, and each wait for a response takes the next canned frame (or
// times out when the script has none left). For exact wire behaviour of the
// SDO client without a bus.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "can/can.h"
#include "can/sdoprotocol.h"
#include "core/window.h"

namespace tessitor::test {

/// A "CAN" descriptor of an SLCAN adapter on path for node, at 1000 kbit/s.
inline CCommunicationInfo SlcanInfo(const std::string& path, std::uint8_t node)
{
    CCommunicationInfo info;
    info.m_sCommType = "CAN";
    info.sManufacture = "SLCAN";
    info.sBoardType = path;
    info.mNodeID = node;
    info.mBaudRateIndex = 7;
    return info;
}

/// The exception action throws (a failure of the test when it throws none).
inline CCommunication::CExceptionComm Caught(const std::function<void()>& action)
{
    try {
        action();
    } catch (const CCommunication::CExceptionComm& e) {
        return e;
    }
    ADD_FAILURE() << "nothing was thrown";
    return CCommunication::CExceptionComm(0, nullptr, 0);
}

class CScriptedCan : public CCan {
public:
    explicit CScriptedCan(std::uint8_t node = 5) : CCan(SlcanInfo("/dev/null", node)) { SetConnected(true); }

    /// Queues the next response (arrives on 0x580 + node).
    void Answer(const sdo::Frame& frame) { m_arAnswers.push_back(frame); }
    /// Queues a response made of a command byte and bytes 1..7.
    void Answer(std::uint8_t command, std::initializer_list<std::uint8_t> rest = {})
    {
        sdo::Frame frame{command};
        std::copy(rest.begin(), rest.end(), frame.begin() + 1);
        Answer(frame);
    }
    /// An abort response with code.
    void AnswerAbort(std::uint32_t code)
    {
        Answer(sdo::kAbortCommand, {0, 0, 0, static_cast<std::uint8_t>(code), static_cast<std::uint8_t>(code >> 8),
                                    static_cast<std::uint8_t>(code >> 16), static_cast<std::uint8_t>(code >> 24)});
    }

    /// Queues the next binary interpreter reply (0x280 + node) of length bytes.
    void AnswerPdo(std::initializer_list<std::uint8_t> bytes)
    {
        sdo::Frame frame{};
        std::copy(bytes.begin(), bytes.end(), frame.begin());
        m_arPdoAnswers.emplace_back(frame, static_cast<std::uint16_t>(bytes.size()));
    }
    /// Answered whenever the script has no SDO response left (a drive that
    /// stays busy); none: a time-out.
    std::optional<sdo::Frame> m_optRepeat;

    std::vector<sdo::Frame> m_arSent;
    std::vector<std::uint16_t> m_arSentIds;

    void SendFrame(const CanMessage& frame) override
    {
        sdo::Frame bytes{};
        std::copy(frame.pData, frame.pData + 8, bytes.begin());
        m_arSent.push_back(bytes);
        m_arSentIds.push_back(frame.wCobId);
    }
    void ReceivePdoFrame(CanMessage& frame, std::uint32_t /*timeoutMs*/) override
    {
        if (m_arPdoAnswers.empty())
            throw CExceptionComm(COM_TIMEOUT, this, kErrSrcCan);
        std::copy(m_arPdoAnswers.front().first.begin(), m_arPdoAnswers.front().first.end(), frame.pData);
        frame.wCobId = static_cast<std::uint16_t>(kCobTpdo2 + NodeId());
        frame.wLength = m_arPdoAnswers.front().second;
        m_arPdoAnswers.pop_front();
    }
    void ReceiveSdoFrame(CanMessage& frame, std::uint32_t /*timeoutMs*/) override
    {
        if (m_arAnswers.empty() && m_optRepeat)
            m_arAnswers.push_back(*m_optRepeat);
        if (m_arAnswers.empty())
            throw CExceptionComm(COM_TIMEOUT, this, kErrSrcCan);
        std::copy(m_arAnswers.front().begin(), m_arAnswers.front().end(), frame.pData);
        frame.wCobId = static_cast<std::uint16_t>(kCobSdoResponse + NodeId());
        frame.wLength = 8;
        m_arAnswers.pop_front();
    }

private:
    std::deque<sdo::Frame> m_arAnswers;
    std::deque<std::pair<sdo::Frame, std::uint16_t>> m_arPdoAnswers;
};

/// A window that keeps the messages it gets, in order.
class CRecordingWindow : public Window {
public:
    struct Message {
        unsigned nMessage;
        std::uintptr_t wParam;
        std::intptr_t lParam;
        bool bPosted;
        bool operator==(const Message&) const = default;
    };
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.push_back({message, wParam, lParam, true});
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        m_arMessages.push_back({message, wParam, lParam, false});
        return 0;
    }
    std::vector<Message> m_arMessages;
};

} // namespace tessitor::test
