// tessitor-convert: converts an application file to the parameter layout of
// another version of the same drive, as the open dialog asks when the
// drive's version differs from the file's in its second number. Started by
// the dialog with "PROGRAM /c \"FILE\" /h FD /tv \"VERSION\" /auto"; it
// writes the converted file's path to descriptor FD and closes it, which
// tells the dialog it has finished. Run by hand, it prints the path.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "applicationeditor/appconverter.h"
#include "applicationeditor/datfile.h"
#include "core/strformat.h"

using namespace tessitor;

namespace {

constexpr char kUsage[] =
    "tessitor-convert - convert an application file to another version of its drive\n"
    "\n"
    "Usage: tessitor-convert /c FILE /tv VERSION [/h FD] [/auto] [/adv_convert]\n"
    "\n"
    "  /c FILE        the application file (.dat) to convert\n"
    "  /tv VERSION    the version to convert to, as the drive reports it (\"Talvina 2.0.0.0\")\n"
    "  /h FD          descriptor (hexadecimal) to write the converted file's path to, then close;\n"
    "                 without it the path is printed on stdout\n"
    "  /auto          no questions: replace an earlier result of the same name\n"
    "  /adv_convert   a value outside the new limits is held to the nearest limit instead of\n"
    "                 being reset to the new default\n"
    "  /co FILE /olddb DB   convert an application database entry (not supported yet)\n"
    "\n"
    "Parameters are matched by mnemonic and index through the version database and their\n"
    "values carried over; new parameters get their defaults, parameters the new version no\n"
    "longer has are dropped; each such change is listed on stderr. The connection, the user\n"
    "program and any other groups of the file are kept. The result is written beside FILE,\n"
    "named FILE-A.B.C.D.dat after the new version.\n"
    "\n"
    "Exit status: 0 converted; 1 the conversion failed (the reason on stderr); 2 wrong usage.\n"
    "\n"
    "Example:\n"
    "  tessitor-convert /c drive.dat /tv \"Talvina 2.0.0.0\"\n";

struct Options {
    std::string sFile;
    std::string sTargetVersion;
    std::string sOldDb;
    bool bOldDb = false;
    int hReport = -1;
    bool bAuto = false;
    bool bAdvanced = false;
};

// The one way out: the report descriptor is closed (with the path when
// there is one) so the waiting dialog wakes in every case.
[[noreturn]] void Finish(const Options& options, int status, const std::string& path = {})
{
    if (options.hReport >= 0) {
        std::size_t done = 0;
        while (done < path.size()) {
            ssize_t wrote = ::write(options.hReport, path.data() + done, path.size() - done);
            if (wrote < 0 && errno == EINTR)
                continue;
            if (wrote <= 0)
                break;
            done += static_cast<std::size_t>(wrote);
        }
        ::close(options.hReport);
    } else if (!path.empty()) {
        std::printf("%s\n", path.c_str());
    }
    std::exit(status);
}

[[noreturn]] void UsageError(const Options& options, const std::string& message)
{
    std::fprintf(stderr, "tessitor-convert: %s\nRun with /? for more information.\n", message.c_str());
    Finish(options, 2);
}

bool Is(const std::string& arg, const char* name)
{
    return EqualNoCase(arg, name);
}

Options Parse(int argc, char** argv)
{
    Options options;
    std::vector<std::string> args(argv + 1, argv + argc);
    // The report descriptor first, so that even wrong usage closes it.
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (Is(args[i], "/h")) {
            char* end = nullptr;
            unsigned long fd = std::strtoul(args[i + 1].c_str(), &end, 16);
            if (*end == '\0' && !args[i + 1].empty() && fd <= 0x7fffffff
                && ::fcntl(static_cast<int>(fd), F_GETFD) != -1)
                options.hReport = static_cast<int>(fd);
        }
    }
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size())
                UsageError(options, arg + " needs a value");
            return args[++i];
        };
        if (Is(arg, "/?") || Is(arg, "--help") || Is(arg, "-h")) {
            std::fputs(kUsage, stdout);
            Finish(options, 0);
        } else if (Is(arg, "/c")) {
            options.sFile = value();
        } else if (Is(arg, "/co")) {
            options.sFile = value();
            options.bOldDb = true;
        } else if (Is(arg, "/olddb")) {
            options.sOldDb = value();
            options.bOldDb = true;
        } else if (Is(arg, "/h")) {
            std::string fd = value();
            if (options.hReport < 0)
                UsageError(options, "/h " + fd + " is not an open descriptor");
        } else if (Is(arg, "/tv")) {
            options.sTargetVersion = value();
        } else if (Is(arg, "/auto")) {
            options.bAuto = true;
        } else if (Is(arg, "/adv_convert")) {
            options.bAdvanced = true;
        } else {
            UsageError(options, "unknown argument '" + arg + "'");
        }
    }
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    Options options = Parse(argc, argv);
    if (options.bOldDb) {
        std::fprintf(stderr, "tessitor-convert: application databases (*.mdb) are not supported yet\n");
        Finish(options, 1);
    }
    if (options.sFile.empty() || options.sTargetVersion.empty())
        UsageError(options, "give the file with /c and the version to convert to with /tv");

    std::error_code error;
    if (!std::filesystem::is_regular_file(options.sFile, error)) {
        std::fprintf(stderr, "tessitor-convert: %s: no such application file\n", options.sFile.c_str());
        Finish(options, 1);
    }
    std::string output = CAppConverter::OutputPath(options.sFile, options.sTargetVersion);
    if (!options.bAuto && std::filesystem::exists(output, error)) {
        std::fprintf(stderr, "tessitor-convert: %s exists; give /auto to replace it\n", output.c_str());
        Finish(options, 1);
    }
    try {
        CDatFile source(options.sFile);
        CDatFile target(output);
        CAppConverter::Report report =
            CAppConverter().Convert(source, options.sTargetVersion, target, options.bAdvanced);
        for (const auto* lines : {&report.arChanged, &report.arAdded, &report.arDropped})
            for (const std::string& line : *lines)
                std::fprintf(stderr, "tessitor-convert: %s\n", line.c_str());
        target.Update(true);
        if (!target.IsLoaded()) {
            std::fprintf(stderr, "tessitor-convert: cannot write %s: %s\n", output.c_str(),
                         target.IsReadOnly() ? "the file is read-only" : std::strerror(errno));
            Finish(options, 1);
        }
    } catch (const std::runtime_error& e) {
        std::fprintf(stderr, "tessitor-convert: %s: %s\n", options.sFile.c_str(), e.what());
        Finish(options, 1);
    }
    Finish(options, 0, output);
}
