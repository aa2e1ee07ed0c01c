// tessitor demo: the main job end to end on a virtual drive, no hardware:
// connect through the real serial link, identify, read and set parameters,
// record a move into a scope file, back the drive up into an application
// file, change a parameter and restore the application.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "applicationeditor/openexistapp.h"
#include "applicationeditor/saveexistapp.h"
#include "recorder/recorder.h"
#include "recorder/scopefile.h"

#include "communication/drivestatus.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

constexpr std::uint32_t kDemoTimeoutMs = 2000;

std::string Value(CCommunication& link, const std::string& command)
{
    std::string value;
    link.SendCommandGetValue(command, value, kDemoTimeoutMs);
    return value;
}

// Records Position and Velocity from the start of a move into path and
// prints how the move went.
void RecordMove(CCommunication& link, const std::string& path)
{
    std::unique_ptr<CRecorder> rec = CRecorder::Create(&link);
    if (!rec)
        throw Failure("tessitor: this drive has no recorder");
    rec->AddDisplay("Position");
    rec->AddDisplay("Velocity");
    rec->SelectTrigger(rec->FindTriggerRow("Begin Motion"));
    rec->Settings().sGap = "3";
    rec->Settings().sLength = "800";
    rec->SetScopeFile(path);
    rec->AbortFlag() = 0;
    rec->StartPhase(CRecorder::kPhaseClear);
    if (!rec->WaitPhase())
        throw Failure("tessitor: " + rec->LastError());
    Value(link, "PA=4000");
    Value(link, "BG");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    rec->StartPhase(CRecorder::kPhaseWait);
    while (!rec->IsDone()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            rec->AbortFlag() = 1;
            rec->WaitPhase();
            throw Failure("tessitor: the move did not trigger the recorder within 10 s");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (int phase = CRecorder::kPhaseWait; phase <= CRecorder::kPhaseFinish; ++phase) {
        if (phase != CRecorder::kPhaseWait)
            rec->StartPhase(phase);
        if (!rec->WaitPhase())
            throw Failure("tessitor: " + rec->LastError());
    }
    CScopeFile file = CScopeFile::FromRecorder(*rec);
    double peak = 0;
    for (std::size_t row = 0; row < file.Rows(); ++row)
        peak = std::max(peak, std::abs(file.Value(row, 3)));
    std::printf("   %s: %zu samples, position %.0f to %.0f counts, peak velocity %.0f counts/s\n", path.c_str(),
                file.Rows(), file.Value(0, 2), file.Value(file.Rows() - 1, 2), peak);
}

// Where the demo leaves its files: dir, or a new folder under the temporary one.
std::string DemoFolder(const std::string& dir)
{
    if (!dir.empty()) {
        std::error_code error;
        std::filesystem::create_directories(dir, error);
        if (error)
            throw Failure("tessitor: cannot make " + dir + ": " + error.message());
        return dir;
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "tessitor-demo-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw Failure("tessitor: cannot make a folder for the demo's files under " + pattern);
    return pattern;
}

int RunDemo(CCliContext& context, const std::string& dir)
{
    const std::string folder = DemoFolder(dir);
    // The same embedded drive as --sim, connected and identified the same way.
    context.m_Options.m_bSim = true;
    CCommunication* link = &context.Connect();
    std::printf("Tessitor demo: a virtual %s drive, reached through the serial link\n\n",
                context.m_Options.m_sProduct.c_str());
    std::printf("1. Connect and identify\n");
    std::printf("   %s\n", link->GetInfo().GetDisplayText().c_str());
    std::printf("   VR  %s (processor %s)\n", link->GetVersionText().c_str(), link->GetProcessorType().c_str());
    std::int32_t check = link->CheckLink();
    std::printf("   link check: %s\n\n", check == 1 ? "ok" : "failed");

    std::printf("2. Parameters\n");
    for (const char* name : {"KP[1]", "KI[1]", "KP[2]", "KI[2]", "KP[3]", "PL", "SP", "AC"})
        std::printf("   %-6s = %s\n", name, Value(*link, name).c_str());
    Value(*link, "KP[3]=120");
    std::printf("   KP[3]=120, read back %s\n", Value(*link, "KP[3]").c_str());
    try {
        Value(*link, "KP[7]=1");
    } catch (CCommunication::CExceptionComm& e) {
        std::printf("   KP[7]=1 is refused: %s\n", e.FillMessage().c_str());
    }
    std::printf("\n");

    std::printf("3. Record a move: motor on, one revolution (PA=4000, BG), Position and Velocity\n");
    Value(*link, "MO=1");
    RecordMove(*link, folder + "/Scope.sdv");
    unsigned long sr = std::strtoul(Value(*link, "SR").c_str(), nullptr, 10);
    std::printf("   position %s counts; SR %lu: %s\n\n", Value(*link, "PX").c_str(), sr,
                CDriveStatus::Decode(sr).Text().c_str());

    std::printf("4. Motor off\n");
    Value(*link, "MO=0");
    sr = std::strtoul(Value(*link, "SR").c_str(), nullptr, 10);
    std::printf("   SR %lu: %s\n\n", sr, CDriveStatus::Decode(sr).Text().c_str());

    std::string application = folder + "/drive.dat";
    std::printf("5. Save the application (version, parameters, connection, program)\n");
    auto methods = CreateProductMethods(*link);
    CSaveExistApp::Result saved = CSaveExistApp(*link, *methods).Save(application);
    if (saved == CSaveExistApp::Result::kOldFormat) {
        // Its message has said why; the rest of the demo needs a binary image.
        std::printf("   skipped: %s takes no binary parameter image\n", link->GetVersionText().c_str());
        methods.reset();
        context.Disconnect();
        return 0;
    }
    if (saved != CSaveExistApp::Result::kSaved)
        return 1;
    std::printf("   %s, KP[3] = %s in it\n\n", application.c_str(), Value(*link, "KP[3]").c_str());

    std::printf("6. Change a parameter\n");
    Value(*link, "KP[3]=250");
    std::printf("   KP[3]=250, read back %s\n\n", Value(*link, "KP[3]").c_str());

    std::printf("7. Download the application\n");
    if (COpenExistApp(*link, methods.get()).Download(application) != COpenExistApp::Result::kDownloaded)
        return 1;
    std::printf("   KP[3] is back: %s\n\n", Value(*link, "KP[3]").c_str());

    methods.reset();
    context.Disconnect();
    std::printf("Done: connect, identify, record, save and restore, with no hardware. The files are in %s\n"
                "(tessitor app show %s).\n",
                folder.c_str(), application.c_str());
    return 0;
}

} // namespace

void RegisterDemoCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("demo", "Show the main job end to end on a virtual drive");
    sub->footer("Runs in a few seconds with no hardware: a virtual drive on a pseudo-terminal,\n"
                "reached through the serial link: identify it, read and set parameters, record a move\n"
                "into Scope.sdv, save the drive into drive.dat, change KP[3], download drive.dat and\n"
                "read KP[3] back. --product chooses the drive (default Talvina).\n\n"
                "Example:\n  tessitor demo --product Vosk");
    auto dir = std::make_shared<std::string>();
    sub->add_option("--dir", *dir, "Folder for the scope file and the application file (default: a new one under $TMPDIR, else /tmp)");
    context.SetAction(sub, [&context, dir] { return RunDemo(context, *dir); }, CommandUse::kProduct);
}

} // namespace tessitor::cli
