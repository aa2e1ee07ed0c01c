// The connection options of `tessitor`: which drive a command reaches. One
// table names the kinds of connection (--serial, --can, --conn, --last,
// --tcp, --sim), another the options that go with some of them; Resolve
// turns the one given into a descriptor and what the link needs beside it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "communication/communication.h"
#include "communication/communicationinfo.h"
#include "communication/linkfactory.h"

namespace tessitor {
class Settings;
}

namespace tessitor::cli {

/// A connection the options name, ready to be opened.
struct ResolvedConnection {
    CCommunicationInfo info;
    LinkOptions options;
    bool bRememberable = true; ///< false for a virtual drive, which --last cannot reach again
};

class CConnectionOptions {
public:
    /// Lowest and highest --baud: termios' lowest rate and its highest.
    static constexpr std::uint32_t kMinBaud = 50;
    static constexpr std::uint32_t kMaxBaud = 4000000;

    /// Adds the connection options (group "Connection") and --yes/--no
    /// (group "Answers") to app.
    void AddTo(CLI::App& app);

    /// The connection the options name; options.nTimeoutMs is --timeout.
    /// Throws UsageError when none or more than one is given or an option
    /// does not go with it, Failure when a host name cannot be resolved or
    /// the settings cannot be read.
    ResolvedConnection Resolve();
    /// Stores r as the last connection that succeeded (SaveLastConnection),
    /// unless --last could not reach it again; a settings file that cannot
    /// be written is reported on stderr.
    static void Remember(const ResolvedConnection& r);
    /// The descriptor of a one-line form as written or as a $'...' word;
    /// throws UsageError saying what is wrong with a malformed one.
    static CCommunicationInfo ReadConnLine(const std::string& text);

    /// True when an option naming a connection (--serial, --tcp, ...) was given.
    bool AnyGiven() const;
    /// The options of group "Connection" given on the command line.
    std::vector<std::string> GivenConnectionOptions() const;
    /// True when option (e.g. "--product") was given on the command line.
    bool Given(const std::string& option) const;
    /// The time-out of each command, in milliseconds.
    std::uint32_t TimeoutMs() const { return m_nTimeoutMs; }

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

    // The CAN options live in cmd_can.cpp.
    /// Shows every CAN frame of a CAN link on stderr when --trace-frames asks.
    void PrepareCanLink(CCommunication& link);

private:
    // A kind of connection: its option and the function that resolves it.
    struct Kind {
        const char* pszOption;
        ResolvedConnection (CConnectionOptions::*pResolve)(Settings&);
    };
    static const std::vector<Kind>& Kinds();
    bool KindGiven(const Kind& kind) const;

    void AddCanOptionsTo(CLI::App& app, const char* group);
    void ResolveCan(CCommunicationInfo& info);
    ResolvedConnection ResolveCanKind(Settings& settings);
    ResolvedConnection ResolveSerial(Settings& settings);
    ResolvedConnection ResolveConnLine(Settings& settings);
    ResolvedConnection ResolveLast(Settings& settings);
    ResolvedConnection ResolveTcp(Settings& settings);
    ResolvedConnection ResolveSim(Settings& settings);

    std::vector<CLI::Option*> m_arOptions;
};

/// A CLI11 check for a whole number in min..max: "not a number" otherwise.
CLI::Validator NumberIn(std::uint64_t min, std::uint64_t max);

} // namespace tessitor::cli
