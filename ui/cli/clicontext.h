// What the commands of `tessitor` share: the connection options, the
// chosen command's action, and the one place that connects a link.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "communication/communication.h"
#include "communication/linkfactory.h"

namespace tessitor::cli {

/// Wrong usage found after parsing (a malformed one-line form, options that
/// do not go together): message on stderr, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A link that could not be opened: the message, exit status 1.
class ConnectError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class CConnectionOptions {
public:
    /// Adds --serial, --baud, --conn, --last, --tcp, --target, --sim,
    /// --product, --timeout and --no-echo-check to app.
    void AddTo(CLI::App& app);

    /// The descriptor the options name, and what the link needs beside it.
    /// Throws UsageError when the options are missing or contradict.
    std::pair<CCommunicationInfo, LinkOptions> Resolve();
    /// A connected link, identified unless bIdentify is false; the
    /// descriptor is stored as the last connection that succeeded.
    std::unique_ptr<CCommunication> Connect(bool bIdentify = true);
    /// The time-out of each command, in milliseconds.
    std::uint32_t TimeoutMs() const { return m_nTimeoutMs; }
    /// True when any option names a connection.
    bool AnyGiven() const;

    std::string m_sSerialPath;
    std::uint32_t m_nBaud = 115200;
    std::string m_sConnLine;
    bool m_bLast = false;
    std::string m_sTcp;
    std::string m_sTarget;
    bool m_bSim = false;
    std::string m_sProduct = "Talvina";
    std::uint32_t m_nTimeoutMs = 1000;
    bool m_bNoEchoCheck = false;
    bool m_bYes = false;
    bool m_bNo = false;
    std::string m_sCan;          ///< slcan:PATH or socketcan:IFACE
    unsigned m_nNode = 0;        ///< 0 = not given
    unsigned m_nBitrateKbit = 1000;
    bool m_bTraceFrames = false;

private:
    // The CAN options live in cmd_can.cpp.
    void AddCanOptionsTo(CLI::App& app, const char* group);
    void ResolveCan(CCommunicationInfo& info);
    void PrepareCanLink(CCommunication& link);

    std::shared_ptr<void> m_pEmbeddedDrive; // keeps the --sim drive alive
};

class CCliContext {
public:
    CConnectionOptions m_Options;

    /// Registers the action run when sub is the command given.
    void SetAction(CLI::App* sub, std::function<int()> action);
    /// Runs the action of the deepest command given; 2 when none.
    int Run();

private:
    std::vector<std::pair<CLI::App*, std::function<int()>>> m_arActions;
};

// One registration function per command, each in its own file.
void RegisterSendCommand(CLI::App& app, CCliContext& context);
void RegisterTermCommand(CLI::App& app, CCliContext& context);
void RegisterInfoCommand(CLI::App& app, CCliContext& context);
void RegisterConnCommand(CLI::App& app, CCliContext& context);
void RegisterSimCommand(CLI::App& app, CCliContext& context);
void RegisterDemoCommand(CLI::App& app, CCliContext& context);
void RegisterSdoCommand(CLI::App& app, CCliContext& context);
void RegisterCanCommand(CLI::App& app, CCliContext& context);
void RegisterAppCommand(CLI::App& app, CCliContext& context);
void RegisterRecordCommand(CLI::App& app, CCliContext& context);

} // namespace tessitor::cli
