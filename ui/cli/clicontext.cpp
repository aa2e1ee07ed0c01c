#include "ui/cli/clicontext.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "communication/lastconnection.h"
#include "communication/linkfactory.h"
#include "core/strformat.h"
#include "core/trace.h"
#include "sim/simserialserver.h"
#include "ui/cli/textforms.h"

namespace tessitor::cli {
namespace {

// "conn decode" for the subcommand decode of conn.
std::string CommandPath(const CLI::App* sub)
{
    std::string path = sub->get_name();
    for (const CLI::App* parent = sub->get_parent(); parent && parent->get_parent(); parent = parent->get_parent())
        path = parent->get_name() + " " + path;
    return path;
}

} // namespace

void RefuseControlBytes(const std::string& command)
{
    if (size_t at = FindControlByte(command); at != std::string::npos)
        throw UsageError(StrFormat("the command '%s' holds the control byte 0x%02X at %zu; nothing was sent",
                                   CutMiddle(command).c_str(), static_cast<unsigned char>(command[at]), at + 1));
}

void PrintValue(const std::string& value)
{
    static const bool terminal = ::isatty(STDOUT_FILENO) != 0;
    PrintLine(terminal ? Escaped(value) : value);
}

void PrintLine(const std::string& text)
{
    std::string line = text + "\n";
    if (std::fwrite(line.data(), 1, line.size(), stdout) != line.size() || std::fflush(stdout) != 0) {
        int error = errno;
        std::clearerr(stdout); // reported here, not once more at exit
        throw Failure(std::string("tessitor: cannot write to standard output: ") + std::strerror(error));
    }
}

bool IsDriveRefusal(const CCommunication::CExceptionComm& e)
{
    return e.m_nErrorSource == kErrSrcDrive || e.m_nErrorSource == kErrSrcCanDrive;
}

std::string LinkCheckText(std::int32_t result)
{
    const char* meaning = result == 1 ? "ok" : result == -2 ? "bad reply" : "broken";
    return StrFormat("link check: %s (%d)", meaning, result);
}

void CCliContext::SetAction(CLI::App* sub, std::function<int()> action, CommandUse use)
{
    m_arActions.emplace_back(sub, std::move(action));
    m_mapUses[sub] = use;
}

CommandUse CCliContext::UseOf(const CLI::App* sub) const
{
    auto found = m_mapUses.find(sub);
    return found == m_mapUses.end() ? CommandUse::kNothing : found->second;
}

int CCliContext::Run()
{
    // Subcommands are registered after their parents, so the last parsed
    // one is the deepest command the user gave.
    const std::pair<CLI::App*, std::function<int()>>* chosen = nullptr;
    for (const auto& entry : m_arActions)
        if (entry.first->parsed())
            chosen = &entry;
    if (!chosen)
        throw UsageError("a command is required");
    if (m_Options.m_bYes && m_Options.m_bNo)
        throw UsageError("--yes and --no contradict each other: give one of them");
    CommandUse use = UseOf(chosen->first);
    if (use != CommandUse::kConnection && use != CommandUse::kFileOnly)
        for (const std::string& option : m_Options.GivenConnectionOptions())
            if (!(use == CommandUse::kProduct && option == "--product"))
                throw UsageError("'" + CommandPath(chosen->first) + "' takes no " + option);
    return chosen->second();
}

CCommunication& CCliContext::Connect(bool bIdentify)
{
    Disconnect();
    ResolvedConnection r = m_Options.Resolve();
    if (m_Options.m_bSim) {
        if (!m_pEmbeddedDrive) {
            std::shared_ptr<sim::CSimDrive> drive;
            try {
                drive = std::make_shared<sim::CSimDrive>(m_Options.m_sProduct);
                // Ready to move, so one-line examples need no "MO=1" of their own.
                drive->Execute("MO=1");
            } catch (const std::invalid_argument& e) {
                throw UsageError(e.what());
            }
            auto server = std::make_shared<sim::CSimSerialServer>(drive);
            server->Start();
            m_pEmbeddedDrive = server;
        }
        r.options.sSerialPath = std::static_pointer_cast<sim::CSimSerialServer>(m_pEmbeddedDrive)->SlavePath();
    }

    m_pLink = CreateLink(r.info, r.options);
    m_pLink->SetCheckEcho(m_Options.m_bNoEchoCheck ? 0 : 1);
    m_pLink->SetEchoMode(m_Options.m_bNoEchoCheck ? 1 : 0);
    m_Options.PrepareCanLink(*m_pLink);
    // Registered before the port opens: a signal while it opens still
    // closes it, and the port gets its settings back.
    m_pCloseOnSignal = std::make_unique<CSignalThread::CCleanup>([this] {
        if (m_pLink->IsConnected())
            m_pLink->Disconnect();
    });
    if (int error = m_pLink->Connect()) {
        std::string why = ConnectFaultText(*m_pLink, error);
        Disconnect();
        throw Failure(CutMiddle(why, kMaxQuotedBytes * 3));
    }
    if (!bIdentify) {
        CConnectionOptions::Remember(r);
    } else {
        m_pLink->Identify();
        if (m_pLink->IsIdentified())
            CConnectionOptions::Remember(r);
        else
            Trace::Printf("tessitor: %s did not identify itself; the connection is not remembered\n",
                          m_pLink->DeviceName().c_str());
    }
    return *m_pLink;
}

void CCliContext::Disconnect()
{
    // The clean-up goes first: it waits for a signal's clean-up running now.
    m_pCloseOnSignal.reset();
    if (m_pLink && m_pLink->IsConnected())
        m_pLink->Disconnect();
    m_pLink.reset();
}

std::string CCliContext::Describe(CCommunication::CExceptionComm& e, const std::string& command) const
{
    std::string message = e.FillMessage();
    if (IsDriveRefusal(e))
        return message;
    std::string device = m_pLink ? m_pLink->DeviceName() : std::string("the drive");
    return message + " (" + CutMiddle(command) + " on " + device + ")";
}

std::int32_t CCliContext::CheckLink(std::string& failure)
{
    failure.clear();
    if (!m_pLink)
        return 0;
    try {
        return m_pLink->CheckLink();
    } catch (CCommunication::CExceptionComm& e) {
        failure = Describe(e, "the link check");
        return 0;
    }
}

std::string CCliContext::Value(const std::string& command)
{
    RefuseControlBytes(command);
    if (!m_pLink)
        throw Failure("tessitor: no link is open");
    std::string value;
    try {
        if (m_pLink->SendCommandGetValue(command, value, m_Options.TimeoutMs()) != 0)
            throw CCommunication::CExceptionComm(3, m_pLink.get(), kErrSrcSetup);
    } catch (CCommunication::CExceptionComm& e) {
        throw Failure(Describe(e, command));
    }
    // An assignment has no value: the drive answers with the terminator
    // alone, which the value extraction hands back as ";".
    return value == ";" ? std::string() : value;
}

} // namespace tessitor::cli
