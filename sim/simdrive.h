// The virtual drive's model: one simulated Ortiva drive that takes command
// lines of the drive language and answers them. Front ends (pseudo-terminal,
// TCP device, CAN) only carry text to Execute and format the answer for
// their wire; they never interpret commands themselves. Thread-safe: every
// call locks the drive, so several front ends may share one drive.
//
// This model is written apart from the client's code on purpose: it must
// not share the client's transaction or parsers, or a shared bug would hide.
#pragma once

#include <memory>
#include <string>

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
    ~CSimDrive();

    /// Runs one command line (without CR; a "DL" line keeps its backslash).
    SimReply Execute(const std::string& command);
    /// "<product> a.b.c.d", as "VR" answers.
    std::string VersionString() const;
    /// "DSP", "STP" or "BreNol".
    std::string Family() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_pImpl;
};

} // namespace tessitor::sim
