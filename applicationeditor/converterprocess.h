// The external converter, started the way the open dialog starts it: one
// command line ("%s /c \"%s\" /h %08x /tv \"%s\" /auto" and the like),
// split into arguments as the original platform's command-line parser
// splits it, and a pipe whose write end the converter inherits; the
// number after "/h" is that descriptor. The converter writes the path of
// its result there and closes it, which is the event the dialog waits for.
//
//   CConverterProcess converter;
//   int fd = converter.OpenReportPipe();
//   std::string line = StrFormat("%s /c \"%s\" /h %08x ...", program, file, fd, ...);
//   if (!converter.Start(program, line)) ... "Error create process:\n" + line
//   converter.WaitReport(path, &abortFlag);
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tessitor {

class CConverterProcess {
public:
    CConverterProcess() = default;
    /// Closes the pipe; a converter still running is stopped (SIGTERM) and reaped.
    ~CConverterProcess();
    CConverterProcess(const CConverterProcess&) = delete;
    CConverterProcess& operator=(const CConverterProcess&) = delete;

    /// Makes the report pipe; returns the descriptor the converter will
    /// write to (the "/h" value), -1 when no pipe can be made.
    int OpenReportPipe();
    /// Starts commandLine, whose first part is program (a path; a bare name
    /// is looked up in PATH). The converter inherits the report pipe's
    /// write end under the same number and nothing else of this process.
    /// False when it cannot be started; Error() says why.
    bool Start(const std::string& program, const std::string& commandLine);
    /// Waits, with no time limit, until the converter closes the report
    /// descriptor, and returns what it wrote there (the converted path; ""
    /// when it wrote nothing) in report. Checks *pAbort (may be null) every
    /// 100 ms: when it reads nonzero the converter is stopped and false
    /// returned.
    bool WaitReport(std::string& report, const std::atomic<std::int32_t>* pAbort);
    /// Why Start failed.
    const std::string& Error() const { return m_sError; }

    /// The arguments of commandLine as the original platform's parser gives
    /// them: blanks and tabs separate; a double quote starts or ends a
    /// quoted part; 2n backslashes before a quote give n backslashes and the
    /// quote acts, 2n+1 give n and a literal quote; "" inside a quoted part
    /// is a literal quote; other backslashes are literal. The first argument
    /// is the program: a quoted one ends at the next quote, else at the
    /// first blank; when program is given and the line begins with it, it
    /// is taken whole, blanks and all (the system also tried the longer
    /// names first).
    static std::vector<std::string> SplitCommandLine(const std::string& commandLine,
                                                     const std::string& program = {});
    /// The converter to run: the settings' [Tools] Converter when set, else
    /// tessitor-convert beside the running program when it is there, else
    /// "tessitor-convert" (found through PATH).
    static std::string DefaultProgram();

private:
    void Stop();

    int m_hRead = -1;
    int m_hWrite = -1;
    pid_t m_nPid = -1;
    std::string m_sError;
};

/// Settings section and key of the converter's path.
inline constexpr char kToolsSection[] = "Tools";
inline constexpr char kConverterKey[] = "Converter";
/// Name of this project's converter program.
inline constexpr char kConverterProgram[] = "tessitor-convert";

} // namespace tessitor
