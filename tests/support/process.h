// Runs a program for end-to-end tests: arguments, extra environment and
// standard input in; exit status, stdout and stderr out. A program that
// outlives its time-out is killed (status -1).
#pragma once

#include <string>
#include <vector>

namespace tessitor::test {

struct ProcessResult {
    int nStatus = -1; ///< exit status, or -1 when killed or not started
    std::string sOut;
    std::string sErr;
};

/// Runs args[0] with args, this environment plus env, and input on stdin.
/// Descriptors in closedFds (0, 1, 2) are closed in the program instead.
ProcessResult RunProcess(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                         const std::string& input = {}, int timeoutMs = 60000, const std::vector<int>& closedFds = {});

/// This process's environment with the NAME=VALUE entries of extra added,
/// each in place of an entry of the same name.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& extra);

/// The tessitor executable under test: $TESSITOR_BIN, else the one built here.
std::string TessitorPath();

} // namespace tessitor::test
