// tessitor app: back a drive up into an application file (save), restore
// it (download, with the version checks and the converter), show what a
// file holds and compare parameters (diff).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

#include "applicationeditor/datfile.h"
#include "applicationeditor/openexistapp.h"
#include "applicationeditor/productmethods.h"
#include "applicationeditor/saveexistapp.h"
#include "applicationeditor/versiondb.h"
#include "core/strformat.h"
#include "core/window.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/statusline.h"

namespace tessitor::cli {

namespace {

// Bytes a terminal or a script would choke on (the NUL of an empty name
// character, 8-bit codes) as \xHH.
std::string Printable(const std::string& text)
{
    std::string out;
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7F)
            out += StrFormat("\\x%02X", u);
        else
            out += c;
    }
    return out;
}

std::string JsonString(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            out += std::string("\\") + c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else if (u < 0x20 || u >= 0x7F)
            out += StrFormat("\\u%04x", u); // the byte's code, as the drive counts characters
        else
            out += c;
    }
    return out + "\"";
}

// A file a command reads must be there and readable: a failure naming the
// file (exit status 1), found before any link is opened.
void RequireReadable(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int error = errno;
    struct stat st {};
    if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode))
        error = EISDIR;
    else if (fd >= 0)
        error = 0;
    if (fd >= 0)
        ::close(fd);
    if (error != 0)
        throw Failure("tessitor: cannot read " + path + ": " + std::strerror(error));
}

struct ShownParameter {
    const CControlItem* pItem;
    std::string sText;
};

int ShowApplication(const std::string& path, bool json)
{
    RequireReadable(path);
    CDatFile file(path);
    std::string version = file.GetVersionString();
    CCommunicationInfo info = file.GetCommunicationInfo();
    std::string connection = info.m_sCommType.empty() ? std::string() : info.GetDisplayText();
    std::string program = file.GetUserProgram();

    std::string problem;
    std::vector<ShownParameter> parameters;
    std::shared_ptr<const CVersionDb> db;
    try {
        db = CVersionDb::Default();
    } catch (const std::runtime_error& e) {
        problem = std::string("The version database cannot be read: ") + e.what();
    }
    const VersionLayout* layout = db ? db->Find(version) : nullptr;
    if (db && !layout)
        problem = "The version database has no parameter layout for the version \"" + version + "\".";
    std::vector<std::uint8_t> image;
    if (layout)
        problem = layout->ImageFromText(file.GetParams(), image);
    if (problem.empty()) {
        std::size_t offset = 0;
        for (const CControlItem& item : layout->arItems) {
            parameters.push_back({&item, item.GetText(image.data() + offset, layout->bWordSwap)});
            offset += static_cast<std::size_t>(item.GetSize());
        }
    }

    std::vector<std::string> lines = CProductMethods::SplitProgramLines(program);
    if (json) {
        std::string listing; // as the drive lists it: lines separated by LF
        for (std::size_t i = 0; i < lines.size(); ++i)
            listing += (i ? "\n" : "") + lines[i];
        std::printf("{\n  \"version\": %s,\n  \"connection\": {\"type\": %s, \"text\": %s},\n  \"program\": %s,\n",
                    JsonString(version).c_str(), JsonString(info.m_sCommType).c_str(), JsonString(connection).c_str(),
                    JsonString(listing).c_str());
        std::printf("  \"layout\": %s,\n  \"parameters\": [", layout ? JsonString(layout->sName).c_str() : "null");
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            const CControlItem& item = *parameters[i].pItem;
            std::printf("%s\n    {\"name\": %s, \"mnemonic\": %s, \"index\": %s, \"value\": %s}", i ? "," : "",
                        JsonString(item.GetName()).c_str(), JsonString(item.m_sMnemonic).c_str(),
                        item.m_bIndexed ? std::to_string(item.m_nIndex).c_str() : "null",
                        JsonString(parameters[i].sText).c_str());
        }
        std::printf("%s]\n}\n", parameters.empty() ? "" : "\n  ");
    } else {
        std::printf("version: %s\n", version.c_str());
        std::printf("connection: %s\n", connection.empty() ? "none" : connection.c_str());
        std::printf("program: %zu line%s\n", lines.size(), lines.size() == 1 ? "" : "s");
        for (const std::string& line : lines)
            std::printf("    %s\n", Printable(line).c_str());
        if (problem.empty())
            std::printf("parameters: %zu (%s, %zu bytes)\n", parameters.size(), layout->sName.c_str(),
                        layout->ImageSize());
        for (const ShownParameter& p : parameters)
            std::printf("%s = %s\n", p.pItem->GetName().c_str(), Printable(p.sText).c_str());
    }
    std::fflush(stdout);
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 1;
    }
    return 0;
}


// The status and the transfers of a save or a download as one line on
// stderr, on a terminal only: "Program downloading... 1200 of 4096 bytes".
class CAppProgress : public Window {
public:
    CAppProgress() = default;
    CAppProgress(const CAppProgress&) = delete;
    CAppProgress& operator=(const CAppProgress&) = delete;

    void SetPhase(const std::string& text)
    {
        m_sPhase = text;
        Show(text);
    }
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        SendMessage(message, wParam, lParam);
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        switch (message) {
        case kMsgAppStatus:
            SetPhase(reinterpret_cast<const char*>(lParam));
            break;
        case kMsgTransferStart:
            Show(m_sPhase);
            break;
        case kMsgTransferStep:
            Show(lParam > 0 ? StrFormat("%s %zu of %ld bytes", m_sPhase.c_str(), static_cast<std::size_t>(wParam),
                                        static_cast<long>(lParam))
                            : StrFormat("%s %zu bytes", m_sPhase.c_str(), static_cast<std::size_t>(wParam)));
            break;
        case kMsgTransferEnd:
            Show("");
            break;
        default:
            break;
        }
        return 0;
    }

private:
    void Show(const std::string& text) { m_Line.Show(text); }

    CStatusLine m_Line;
    std::string m_sPhase;
};

int SaveApplication(CCliContext& context, const std::string& path)
{
    CCommunication& link = context.Connect();
    auto methods = CreateProductMethods(link);
    CAppProgress progress;
    progress.SetPhase("Parameters uploading...");
    CSaveExistApp save(link, *methods, &progress);
    // Ctrl-C stops the upload at its next chunk; the file then keeps its old parameters.
    CSignalThread::CStopRequest stop([&save] { save.AbortFlag() = 1; });
    CSaveExistApp::Result result = save.Save(path);
    progress.SetPhase("");
    if (result == CSaveExistApp::Result::kAborted)
        std::fprintf(stderr, "tessitor: the save was stopped; %s holds the drive's version only\n", path.c_str());
    if (result != CSaveExistApp::Result::kSaved)
        return 1;
    context.Disconnect();
    return 0;
}

int DownloadApplication(CCliContext& context, const std::string& path)
{
    RequireReadable(path);
    CCommunication& link = context.Connect();
    auto methods = CreateProductMethods(link);
    CAppProgress progress;
    COpenExistApp dialog(link, methods.get(), &progress);
    // Ctrl-C is the "&Break" button.
    CSignalThread::CStopRequest stop([&dialog] { dialog.AbortFlag() = 1; });
    COpenExistApp::Result result = dialog.Download(path);
    progress.SetPhase("");
    switch (result) {
    case COpenExistApp::Result::kDownloaded:
        if (!dialog.GetConvertedPath().empty())
            std::fprintf(stderr, "tessitor: downloaded %s, converted from %s\n", dialog.GetConvertedPath().c_str(),
                         path.c_str());
        context.Disconnect();
        return 0;
    case COpenExistApp::Result::kDeclined:
        std::fprintf(stderr, "tessitor: not converted, nothing downloaded\n");
        return 1;
    case COpenExistApp::Result::kNothing:
        throw UsageError("'" + path + "' is not an application file (.dat)");
    default:
        return 1;
    }
}

// The parameters of an image by name, in the image's order, as text.
using ParameterList = std::vector<std::pair<std::string, std::string>>;

ParameterList Parameters(const std::string& version, const std::string& hex, const std::string& where)
{
    std::shared_ptr<const CVersionDb> db;
    try {
        db = CVersionDb::Default();
    } catch (const std::runtime_error& e) {
        throw Failure(std::string("The version database cannot be read: ") + e.what());
    }
    const VersionLayout* layout = db->Find(version);
    if (!layout)
        throw Failure(where + ": the version database has no parameter layout for the version \"" + version + "\".");
    std::vector<std::uint8_t> image;
    if (std::string problem = layout->ImageFromText(hex, image); !problem.empty())
        throw Failure(where + ": " + problem);
    ParameterList list;
    std::size_t offset = 0;
    for (const CControlItem& item : layout->arItems) {
        list.emplace_back(item.GetName(), Printable(item.GetText(image.data() + offset, layout->bWordSwap)));
        offset += static_cast<std::size_t>(item.GetSize());
    }
    return list;
}

// Exit status of a diff that found differences (0: none; 1 and 2 keep their meanings).
constexpr int kExitDifferent = 3;

int DiffApplications(CCliContext& context, const std::string& first, const std::string& second)
{
    for (const std::string& path : {first, second})
        if (!path.empty())
            RequireReadable(path);
    CDatFile a(first);
    std::string versionA = a.GetVersionString(), versionB, hexB, whereB = second;
    if (second.empty()) {
        CCommunication& link = context.Connect();
        auto methods = CreateProductMethods(link);
        CAppProgress progress;
        progress.SetPhase("Parameters uploading...");
        versionB = link.GetVersionText();
        hexB = methods->UploadImage(&progress);
        progress.SetPhase("");
        whereB = "the drive";
    } else {
        CDatFile b(second);
        versionB = b.GetVersionString();
        hexB = b.GetParams();
    }
    ParameterList left = Parameters(versionA, a.GetParams(), first);
    ParameterList right = Parameters(versionB, hexB, whereB);
    if (second.empty())
        context.Disconnect();

    std::map<std::string, std::string> rightByName(right.begin(), right.end());
    std::map<std::string, std::string> leftByName(left.begin(), left.end());
    std::vector<std::string> lines;
    if (versionA != versionB)
        lines.push_back("version: " + versionA + " | " + versionB);
    for (const auto& [name, value] : left) {
        auto found = rightByName.find(name);
        if (found == rightByName.end())
            lines.push_back(name + ": " + value + " | (none)");
        else if (found->second != value)
            lines.push_back(name + ": " + value + " | " + found->second);
    }
    for (const auto& [name, value] : right)
        if (!leftByName.count(name))
            lines.push_back(name + ": (none) | " + value);
    for (const std::string& line : lines)
        PrintLine(line);
    return lines.empty() ? 0 : kExitDifferent;
}

} // namespace

void RegisterAppCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("app", "Application files: a drive's parameters, program and connection");
    sub->require_subcommand(1);
    sub->footer("Examples:\n  tessitor app show drive.dat\n  tessitor --serial /dev/ttyUSB0 app save drive.dat\n"
                "  tessitor --last app diff drive.dat");

    struct ShowOptions {
        std::string sPath;
        bool bJson = false;
    };
    auto show = std::make_shared<ShowOptions>();
    CLI::App* showCmd = sub->add_subcommand("show", "Print what an application file (.dat) holds");
    showCmd->add_option("FILE", show->sPath, "The application file")->required();
    showCmd->add_flag("--json", show->bJson, "One JSON object instead of text");
    showCmd->footer("Prints the version, the connection, the user program (each line indented) and every\n"
                    "parameter of the image as 'MNEMONIC[INDEX] = value', decoded through the version\n"
                    "database in the image's order; a character parameter that is not printable shows as\n"
                    "\\xHH.\n\n"
                    "Exit status: 0 shown; 1 FILE cannot be read, or its version has no layout in the\n"
                    "database, or its image does not fit it (\"Size of this DAT file mismatch of the\n"
                    "Version.\"; what could be read is printed all the same); 2 wrong usage.\n\n"
                    "Examples:\n  tessitor app show drive.dat\n  tessitor app show drive.dat --json");
    context.SetAction(showCmd, [show] { return ShowApplication(show->sPath, show->bJson); }, CommandUse::kFileOnly);

    auto paths = std::make_shared<std::vector<std::string>>(2);
    CLI::App* saveCmd = sub->add_subcommand("save", "Save the drive's version, parameters, connection and program into a file");
    saveCmd->add_option("FILE", (*paths)[0], "The application file (.dat)")->required();
    saveCmd->footer("Uploads the drive's parameter image and user program and stores them, with the\n"
                    "drive's version and the connection, into FILE. An existing FILE keeps its other\n"
                    "groups and fields in their order; it is replaced through a temporary file, so a\n"
                    "failure leaves it whole. Progress shows on a terminal; Ctrl-C stops the upload.\n\n"
                    "Exit status: 0 saved; 1 the drive, the link or the file failed (a read-only FILE:\n"
                    "\"Can't open file to write: ...\", FILE unchanged); 2 wrong usage.\n\n"
                    "Examples:\n  tessitor --sim app save drive.dat\n"
                    "  tessitor --serial /dev/ttyUSB0 app save drive.dat");
    context.SetAction(saveCmd, [&context, paths] { return SaveApplication(context, (*paths)[0]); },
                      CommandUse::kConnection);

    CLI::App* downloadCmd = sub->add_subcommand("download", "Check an application file against the drive and download it");
    downloadCmd->add_option("FILE", (*paths)[0], "The application file (.dat)")->required();
    downloadCmd->footer(
        "Compares the drive's version (\"VR\") with the file's: another product (\"Incompatible\n"
        "products\") or another first number (\"Incompatible versions\") is refused; another\n"
        "second number asks \"Difference versions: ... Do you want to make convert?\" (--yes /\n"
        "--no answer it without a terminal; without either, no). Yes runs the converter\n"
        "(tessitor-convert, or [Tools] Converter in the settings), which writes FILE-A.B.C.D.dat\n"
        "beside FILE, and that file is downloaded. Then the user program (when the file has one)\n"
        "and the parameter image go to the drive; the drive takes the image only with its motor\n"
        "off. Progress shows on a terminal; Ctrl-C is the Break button: the transfer stops at\n"
        "its next chunk or program line. A .mdb file (application database) is not supported.\n\n"
        "Exit status: 0 downloaded; 1 FILE cannot be read, refused, not converted, stopped, or\n"
        "the drive or the link failed (the drive untouched unless the program had gone down);\n"
        "2 wrong usage.\n\n"
        "Examples:\n  tessitor --serial /dev/ttyUSB0 app download drive.dat\n"
        "  tessitor --last app download drive.dat --yes");
    context.SetAction(downloadCmd, [&context, paths] { return DownloadApplication(context, (*paths)[0]); },
                      CommandUse::kConnection);

    CLI::App* diffCmd = sub->add_subcommand("diff", "List the parameters that differ: a file against the drive, or two files");
    diffCmd->add_option("FILE", (*paths)[0], "The application file (.dat)")->required();
    diffCmd->add_option("FILE2", (*paths)[1], "A second file; without it, the connected drive");
    diffCmd->footer("Decodes both parameter images through the version database and prints one line\n"
                    "for each parameter whose value differs, in the first image's order:\n"
                    "  NAME: VALUE-IN-FILE | VALUE-IN-FILE2-OR-DRIVE\n"
                    "\"(none)\" stands for a parameter the other version does not have; a line\n"
                    "\"version: A | B\" comes first when the versions differ. Without FILE2 the\n"
                    "drive's image is uploaded (a connection option is needed).\n\n"
                    "Exit status: 0 no differences; 3 differences listed; 1 a file cannot be read, or\n"
                    "the drive failed; 2 wrong usage.\n\n"
                    "Examples:\n  tessitor --sim app diff drive.dat\n  tessitor app diff old.dat new.dat");
    context.SetAction(diffCmd, [&context, paths] { return DiffApplications(context, (*paths)[0], (*paths)[1]); },
                      CommandUse::kConnection);
}

} // namespace tessitor::cli
