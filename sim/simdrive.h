// The virtual drive's model: one simulated Ortiva drive that takes command
// lines of the drive language and answers them. Front ends (pseudo-terminal,
// TCP device, CAN) only carry text to Execute and format the answer for
// their wire; they never interpret commands themselves. Thread-safe: every
// call locks the drive, so several front ends may share one drive.
//
// This model is written apart from the client's code on purpose: it must
// not share the client's transaction or parsers, or a shared bug would hide.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/simclock.h"

namespace tessitor::sim {

/// The drive's answer to one command line.
struct SimReply {
    bool bError = false;   ///< the drive refuses: "?" follows the error byte
    int nErrorNumber = 0;  ///< drive error number when bError (1..255, never 8, 13, 59, 63)
    std::string sValue;    ///< the value text (empty for assignments)
    char cTerminator = ';'; ///< ";" or 0x08 (listings of families that end them so)
};

class CSimDrive {
public:
    /// A fresh drive of product (a name of data/products.txt); throws
    /// std::invalid_argument for a product that is not listed.
    explicit CSimDrive(const std::string& product = "Talvina");
    /// A fresh drive of product at version ("a.b.c.d", a version of
    /// data/versions.txt); throws std::invalid_argument when not listed.
    CSimDrive(const std::string& product, const std::string& version);
    ~CSimDrive();
    CSimDrive(const CSimDrive&) = delete;
    CSimDrive& operator=(const CSimDrive&) = delete;

    /// The servo period: the motor, its loops and the recorder step at it [s].
    static constexpr double kServoPeriod = 100e-6;

    /// Runs one command line (without CR; a "DL" line keeps its backslash).
    SimReply Execute(const std::string& command);
    /// "<product> a.b.c.d", as "VR" answers.
    std::string VersionString() const;
    /// Makes "VR" answer text instead of VersionString(), the parameters
    /// staying those of the drive's own version: a firmware that reports
    /// another version, for the version checks of clients. "" undoes it.
    void SetReportedVersion(const std::string& text);
    /// "DSP", "STP" or "BreNol".
    std::string Family() const;

    /// Replaces the clock the drive advances its motor and recorder by
    /// (default: the machine's monotonic clock). The drive's time goes on
    /// from where it was.
    void SetClock(std::shared_ptr<CSimClock> clock);
    /// Simulated time since power-up [s], as of the last command.
    double Time() const;
    /// The answer of a drive that refuses command with error (1..255): the
    /// error is remembered for "EC" and the terminator chosen as for the
    /// command. For faults injected by a front end.
    SimReply Refuse(const std::string& command, int error);
    /// The recording of the one slot in mask as "BH" text in one piece, for
    /// the CAN face's record upload: samples "RP[8]" to "RP[9]", or to the
    /// last sample recorded when "RP[9]" is 0, with no window limit. A
    /// refusal is remembered for "EC" as a command's is.
    SimReply Record(unsigned mask);
    /// The terminator that ends the reply to command on this drive.
    char TerminatorFor(const std::string& command) const;

    /// The parameter image kept by "SV" (the drive's flash).
    std::vector<std::uint8_t> Flash() const;
    /// Replaces the flash (e.g. one kept in a file between runs); false
    /// when its size does not fit this drive's version.
    bool SetFlash(const std::vector<std::uint8_t>& image);

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
