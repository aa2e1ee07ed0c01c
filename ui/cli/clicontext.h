// What the commands of `tessitor` share: the connection options, the
// chosen command's action, the open link (opened, identified, remembered
// and closed in one place, and closed on SIGINT/SIGTERM too), and the way
// values reach stdout.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "communication/communication.h"
#include "ui/cli/clierrors.h"
#include "ui/cli/connectionoptions.h"
#include "ui/cli/signalthread.h"

namespace tessitor {
struct CanAdapterChoice;
}

namespace tessitor::cli {

/// What a command takes from the connection options.
enum class CommandUse {
    kNothing,    ///< no connection options at all
    kProduct,    ///< --product only (a virtual drive of its own)
    kConnection, ///< a connection, and the options that go with it
    kFileOnly,   ///< a file's command in a group of drive commands: takes the group's
                 ///< connection options and leaves the drive alone, so one line can
                 ///< be repeated with only the subcommand changed
};

class CCliContext {
public:
    CConnectionOptions m_Options;

    /// Registers the action run when sub is the command given, and what it
    /// takes from the connection options.
    void SetAction(CLI::App* sub, std::function<int()> action, CommandUse use = CommandUse::kProduct);
    /// What sub takes from the connection options (kNothing when unknown).
    CommandUse UseOf(const CLI::App* sub) const;
    /// Runs the action of the deepest command given, after refusing
    /// connection options that command does not take.
    int Run();

    /// Opens the link the options name (closing one still open), identifies
    /// the drive unless bIdentify is false and, when it answered (or was not
    /// asked), remembers the connection. Throws Failure with the device's
    /// name when the link cannot be opened.
    CCommunication& Connect(bool bIdentify = true);
    /// Closes and forgets the open link, if any.
    void Disconnect();
    /// The open link; null before Connect.
    CCommunication* Link() const { return m_pLink.get(); }

    /// The value of command, empty for an assignment (a control byte in
    /// command is refused as wrong usage before anything is sent). A communication failure is thrown as
    /// Failure naming the command and the device; a drive's refusal as
    /// Failure with the drive's message.
    std::string Value(const std::string& command);
    /// Runs the link check; a failure thrown by it gives 0 and its message.
    std::int32_t CheckLink(std::string& failure);
    /// The message of a communication failure of command on the open link,
    /// naming the command and the device.
    std::string Describe(CCommunication::CExceptionComm& e, const std::string& command) const;

private:
    std::vector<std::pair<CLI::App*, std::function<int()>>> m_arActions;
    std::map<const CLI::App*, CommandUse> m_mapUses;
    std::shared_ptr<void> m_pEmbeddedDrive; // keeps the --sim drive alive across reconnects
    std::unique_ptr<CCommunication> m_pLink;
    std::unique_ptr<CSignalThread::CCleanup> m_pCloseOnSignal;
};

/// Refuses command as wrong usage when it holds a control byte: a CR or LF
/// inside it would carry a second command to the drive.
void RefuseControlBytes(const std::string& command);
/// True when e is a drive's refusal of a command (serial, TCP or CAN), as
/// opposed to a failure of the link; its message stands as the drive gave it.
bool IsDriveRefusal(const CCommunication::CExceptionComm& e);
/// "link check: ok (1)" and the like, for a result of CheckLink.
std::string LinkCheckText(std::int32_t result);
/// Writes line and a line feed to stdout and flushes; throws Failure when
/// stdout fails.
void PrintLine(const std::string& line);
/// PrintLine for text from a drive or a file: escaped (Escaped) when stdout
/// is a terminal, so that the terminal obeys none of it.
void PrintValue(const std::string& value);

// One registration function per command, each in its own file.
void RegisterSendCommand(CLI::App& app, CCliContext& context);
void RegisterTermCommand(CLI::App& app, CCliContext& context);
void RegisterInfoCommand(CLI::App& app, CCliContext& context);
void RegisterConnCommand(CLI::App& app, CCliContext& context);
void RegisterSimCommand(CLI::App& app, CCliContext& context);
void RegisterDemoCommand(CLI::App& app, CCliContext& context);
void RegisterSdoCommand(CLI::App& app, CCliContext& context);
void RegisterCanCommand(CLI::App& app, CCliContext& context);
/// `can scan`, with the CAN options' readings of --can and --bitrate.
void RegisterCanScanCommand(CLI::App& can, CCliContext& context, CanAdapterChoice (*parseCan)(const std::string&),
                            std::uint8_t (*bitRateIndex)(unsigned));
void RegisterAppCommand(CLI::App& app, CCliContext& context);
void RegisterRecordCommand(CLI::App& app, CCliContext& context);

} // namespace tessitor::cli
