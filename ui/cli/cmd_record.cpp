// tessitor record: arm the drive's recorder, start a motion, wait for the
// recording, upload it and save it as a scope data file; record list and
// record map show the trigger list and the slots, and map the slots.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include "core/strformat.h"
#include "core/window.h"
#include "recorder/recbrenol.h"
#include "recorder/rectalvina.h"
#include "recorder/scopefile.h"
#include "recorder/vectorsini.h"
#include "ui/cli/clicontext.h"
#include "ui/cli/statusline.h"

namespace tessitor::cli {

namespace {

constexpr char kSlotLabel[] = "RC bit %d:";
constexpr char kNoSlotSignal[] = "none";
// How often the wait for a recording looks at the clock and the recorder.
constexpr auto kWaitTick = std::chrono::milliseconds(50);

struct RecordOptions {
    std::vector<std::string> arSignals;
    std::string sTrigger = "(No Trigger)";
    std::string sLevelMode = "rising";
    double dLevel1 = 0;
    double dLevel2 = 0;
    unsigned nGap = 1;
    unsigned nLength = 1000;
    std::string sPreTrigger = "0%";
    std::vector<std::string> arRun;
    std::string sOut = CRecorder::kDefaultScopeFile;
    std::string sCsv;
    double dWait = 60;
    std::vector<std::string> arMap;
};

std::int32_t LevelMode(const std::string& text)
{
    static const std::pair<const char*, std::int32_t> kModes[] = {
        {"rising", kLevelRising}, {"falling", kLevelFalling}, {"window", kLevelWindow}, {"event", kLevelEvent},
        {"2", kLevelRising},      {"3", kLevelFalling},      {"4", kLevelWindow},      {"5", kLevelEvent},
    };
    for (const auto& [name, mode] : kModes)
        if (text == name)
            return mode;
    throw UsageError("bad --level-mode '" + text + "': rising, falling, window, event, or 2, 3, 4, 5");
}

// The recorder's progress as one line on stderr, on a terminal only.
class CRecordProgress : public Window {
public:
    explicit CRecordProgress(int nChunks) : m_nChunks(nChunks) {}

    void Show(const std::string& text) { m_Line.Show(text); }
    void PostMessage(unsigned message, std::uintptr_t wParam, std::intptr_t lParam) override
    {
        SendMessage(message, wParam, lParam);
    }
    std::intptr_t SendMessage(unsigned message, std::uintptr_t, std::intptr_t) override
    {
        switch (message) {
        case kMsgRecWaitTrigger:
            Show("recorder armed, waiting for the trigger");
            break;
        case kMsgRecUpload:
            m_bUploading = true;
            m_nChunk = 0;
            Show(Uploaded());
            break;
        case kMsgRecProgress:
            if (m_bUploading) {
                ++m_nChunk;
                Show(Uploaded());
            } else {
                Show("triggered, recording");
            }
            break;
        case kMsgRecFinished:
            Show("saving");
            break;
        default:
            break;
        }
        return 0;
    }

private:
    std::string Uploaded() const
    {
        return m_nChunks > 0 ? StrFormat("uploading %d of %d chunks", m_nChunk, m_nChunks)
                             : StrFormat("uploading, %d blocks", m_nChunk);
    }

    CStatusLine m_Line;
    bool m_bUploading = false;
    int m_nChunks;
    int m_nChunk = 0;
};

std::unique_ptr<CRecorder> MakeRecorder(CCommunication& link)
{
    std::unique_ptr<CRecorder> rec = CRecorder::Create(&link);
    if (rec)
        return rec;
    const std::string& family = link.GetProcessorType();
    throw ConnectError("This drive has no recorder: " + link.GetVersionText() + " is of the family \""
                       + (family.empty() ? std::string("unknown") : family)
                       + "\"; the recorder serves the families DSP, STP and BreNol.");
}

std::string SlotName(const CRecorder::SignalSlot& slot)
{
    return slot.nCode == CRecorder::kNoCode ? kNoSlotSignal : slot.sName;
}

void PrintSlots(const CRecorder& rec)
{
    for (int slot = 0; slot < CRecorder::kSlots; ++slot)
        std::printf("  %-11s %s\n", StrFormat(kSlotLabel, slot).c_str(), SlotName(rec.Slots()[slot]).c_str());
}

std::string RowList(const CRecorder& rec)
{
    std::string rows;
    for (const auto& row : rec.TriggerSources())
        rows += "\n  " + row->sName;
    return rows;
}

std::string SignalList(const CRecorder& rec)
{
    std::string names;
    for (const CRecorder::SignalSlot& slot : rec.Slots())
        if (slot.IsUsable())
            names += "\n  " + slot.sName;
    return names;
}

// Sends the start of a motion or anything else the user asked for once the
// recorder is armed.
void RunCommands(CCommunication& link, const std::vector<std::string>& commands, std::uint32_t timeoutMs)
{
    for (const std::string& command : commands) {
        std::string value;
        if (link.SendCommandGetValue(command, value, timeoutMs) != 0)
            throw CCommunication::CExceptionComm(3, &link, kErrSrcSetup);
    }
}

// Leaves the drive's recorder stopped, as it was before the command.
void StopDriveRecorder(CCommunication& link)
{
    try {
        std::string value;
        link.SendCommandGetValue("RR=0", value, CRecorder::kStartTimeoutMs);
    } catch (const CCommunication::CExceptionComm&) {
        // The failure that brought us here is the one to report.
    }
}

int Failed(const CRecorder& rec)
{
    if (!rec.LastError().empty())
        std::fprintf(stderr, "%s\n", rec.LastError().c_str());
    return 1;
}

int Record(CCliContext& context, const RecordOptions& options)
{
    const std::int32_t levelMode = LevelMode(options.sLevelMode);
    if (options.sPreTrigger.empty() || options.sPreTrigger.back() != '%')
        throw UsageError("bad --pretrigger '" + options.sPreTrigger + "': a percentage with its sign, e.g. 25%");
    if (!(options.dWait > 0))
        throw UsageError("--wait must be more than 0 seconds");

    CCommunication& link = context.Connect();
    std::unique_ptr<CRecorder> rec = MakeRecorder(link);

    int row = rec->FindTriggerRow(options.sTrigger);
    if (row < 0)
        throw UsageError("no trigger row '" + options.sTrigger + "'; the rows are:" + RowList(*rec));
    std::vector<std::string> signals = options.arSignals;
    for (const CRecorder::SignalSlot& slot : rec->Slots())
        if (options.arSignals.empty() && slot.IsUsable() && signals.size() < 2)
            signals.push_back(slot.sName);
    for (const std::string& signal : signals) {
        if (rec->SlotMask(signal) == 0)
            throw UsageError("no slot records '" + signal + "'; the signals are:" + SignalList(*rec));
        rec->AddDisplay(signal);
    }

    rec->SelectTrigger(row);
    CRecordSettings& settings = rec->Settings();
    settings.nLevelMode = levelMode;
    settings.dLevel1 = options.dLevel1;
    settings.dLevel2 = options.dLevel2;
    settings.sGap = std::to_string(options.nGap);
    settings.sLength = std::to_string(options.nLength);
    settings.sPreTrigger = options.sPreTrigger;
    rec->SetScopeFile(options.sOut);

    // Serial and TCP links upload each display in chunks of at most 100
    // samples; the CAN link in one record whose blocks are not counted ahead.
    int chunks = 0;
    if (link.GetInfo().GetKind() != kKindCan) {
        int perDisplay = static_cast<int>((options.nLength + CCommunication::kRecordChunkSamples - 1)
                                          / CCommunication::kRecordChunkSamples);
        chunks = perDisplay * static_cast<int>(signals.size());
    }
    CRecordProgress progress(chunks);
    rec->SetWindows(&progress, &progress);
    std::atomic<std::int32_t>& stop = rec->AbortFlag();
    stop = 0;
    // Ctrl-C stops the recorder at its next check instead of leaving it
    // armed; the request ends before the recorder does.
    std::optional<CSignalThread::CStopRequest> stopOnSignal;
    stopOnSignal.emplace([&stop] { stop = 1; });

    rec->StartPhase(CRecorder::kPhaseClear);
    if (!rec->WaitPhase())
        return Failed(*rec);
    progress.Show(rec->GetStartMode() == 2 ? "recording" : "recorder armed");
    try {
        RunCommands(link, options.arRun, context.m_Options.TimeoutMs());
    } catch (const CCommunication::CExceptionComm&) {
        progress.Show("");
        StopDriveRecorder(link);
        throw;
    }

    rec->StartPhase(CRecorder::kPhaseWait);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(options.dWait);
    while (!rec->IsDone() && stop == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            stop = 1;
            rec->WaitPhase();
            progress.Show("");
            StopDriveRecorder(link);
            std::fprintf(stderr, "No recording within %g s: the recorder was stopped (RR=0).\n", options.dWait);
            return 1;
        }
        std::this_thread::sleep_for(kWaitTick);
    }
    for (int phase = CRecorder::kPhaseWait; phase <= CRecorder::kPhaseFinish; ++phase) {
        if (phase != CRecorder::kPhaseWait)
            rec->StartPhase(phase);
        if (!rec->WaitPhase() || stop != 0) {
            progress.Show("");
            if (stop != 0) {
                StopDriveRecorder(link);
                std::fprintf(stderr, "Recording interrupted: the recorder was stopped (RR=0).\n");
                return 1;
            }
            return Failed(*rec);
        }
    }
    progress.Show("");

    CScopeFile file = CScopeFile::FromRecorder(*rec);
    if (!options.sCsv.empty() && !file.SaveCsv(options.sCsv)) {
        std::fprintf(stderr, "The CSV file cannot be written: %s\n", file.Error().c_str());
        return 1;
    }
    stopOnSignal.reset();
    rec.reset();
    context.Disconnect();
    std::printf("%s: %zu samples\n", options.sOut.c_str(), file.Rows());
    return 0;
}

int List(CCliContext& context)
{
    CCommunication& link = context.Connect();
    std::unique_ptr<CRecorder> rec = MakeRecorder(link);
    std::printf("Trigger list:\n");
    for (const auto& row : rec->TriggerSources())
        std::printf("  %s\n", row->sName.c_str());
    std::printf("Slots:\n");
    PrintSlots(*rec);
    rec.reset();
    context.Disconnect();
    return 0;
}

int Map(CCliContext& context, const std::vector<std::string>& assignments)
{
    // The assignments are checked before anything is sent.
    std::vector<std::pair<int, std::int32_t>> mapping;
    auto names = CVectorsIni::Default();
    for (const std::string& assignment : assignments) {
        std::size_t equals = assignment.find('=');
        char* end = nullptr;
        long slot = std::strtol(assignment.c_str(), &end, 10);
        if (equals == std::string::npos || end != assignment.c_str() + equals || equals == 0 || slot < 0
            || slot >= CRecorder::kSlots)
            throw UsageError("bad mapping '" + assignment + "': SLOT=NAME with SLOT 0..15, e.g. 2=Velocity");
        std::string name = assignment.substr(equals + 1);
        std::int32_t code = name == kNoSlotSignal ? -1 : names->Code(CRecTalvina::kFamily, name);
        if (code < 0 && name != kNoSlotSignal) {
            std::string known = "\n  none";
            for (const auto& [number, text] : names->Section(CRecTalvina::kFamily))
                known += "\n  " + text;
            throw UsageError("no signal '" + name + "' in Vectors.ini; the signals are:" + known);
        }
        mapping.emplace_back(static_cast<int>(slot), code);
    }

    CCommunication& link = context.Connect();
    std::unique_ptr<CRecorder> rec = MakeRecorder(link);
    auto* talvina = dynamic_cast<CRecTalvina*>(rec.get());
    if (!mapping.empty() && !talvina) {
        std::fprintf(stderr, "The slots of the %s family are fixed; they cannot be mapped.\n", rec->FamilyName());
        return 1;
    }
    for (const auto& [slot, code] : mapping)
        talvina->MapSlot(slot, code);
    PrintSlots(*rec);
    rec.reset();
    context.Disconnect();
    return 0;
}

} // namespace

void RegisterRecordCommand(CLI::App& app, CCliContext& context)
{
    auto options = std::make_shared<RecordOptions>();
    CLI::App* sub = app.add_subcommand("record", "Record drive signals and save them as a scope data file");
    sub->require_subcommand(0, 1);
    sub->add_option("--signal", options->arSignals,
                    "A signal to record, one display each, in order (default: the first two mapped slots)")
        ->type_name("NAME")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--trigger", options->sTrigger,
                    "Trigger list row: \"Begin Motion\", \"Digital Input 3\", a signal name, ... "
                    "(default \"(No Trigger)\")")
        ->type_name("ROW");
    sub->add_option("--level-mode", options->sLevelMode,
                    "rising (2), falling (3), window (4) or event (5) (default rising)")
        ->type_name("MODE");
    sub->add_option("--level1", options->dLevel1, "Low level: of a falling edge, and the window's low side")
        ->type_name("X");
    sub->add_option("--level2", options->dLevel2, "High level: of a rising edge, and the window's high side")
        ->type_name("X");
    sub->add_option("--gap", options->nGap, "Record every Nth sample of the drive (RG) (default 1)")
        ->type_name("N")
        ->check(NumberIn(1, std::numeric_limits<unsigned>::max()));
    sub->add_option("--length", options->nLength, "Samples per signal (RL) (default 1000)")
        ->type_name("N")
        ->check(NumberIn(1, std::numeric_limits<unsigned>::max()));
    sub->add_option("--pretrigger", options->sPreTrigger,
                    "Part of the recording before the trigger, with its % sign (default 0%)")
        ->type_name("PERCENT%");
    sub->add_option("--run", options->arRun, "A command to send once the recorder is armed (repeatable)")
        ->type_name("CMD")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    sub->add_option("--out", options->sOut, "The scope data file to write (default Scope.sdv)")->type_name("FILE.sdv");
    sub->add_option("--csv", options->sCsv, "Also write the columns as CSV with a header line")->type_name("FILE");
    sub->add_option("--wait", options->dWait,
                    "Longest wait for the trigger and the recording; then the recorder is stopped (RR=0), "
                    "exit status 1 (default 60)")
        ->type_name("SECONDS");
    sub->footer("Arms the drive's recorder, sends the --run commands, waits for the trigger and the\n"
                "recording, uploads each signal and writes a MAT file (version 5) with the variables\n"
                "data (columns Index, Time(sec) and each signal), columns (their names) and settings\n"
                "(how it was recorded); see docs/scope-file.md. On a terminal stderr shows the phase.\n"
                "On success stdout gets one line: the file and its sample count. Ctrl-C stops the\n"
                "drive's recorder (RR=0) and exits with status 1.\n\n"
                "Levels: a rising edge crosses --level2, a falling edge --level1; the window trigger\n"
                "fires outside --level1..--level2, which must differ. --pretrigger takes the percentage\n"
                "with its sign, e.g. 25%: the sign is dropped and 25 is sent (RP[2]=25).\n\n"
                "Exit status: 0 saved; 1 the drive has no recorder, refused the set-up, did not record\n"
                "within --wait, or the upload or the file failed; 2 wrong usage (an unknown trigger row\n"
                "or signal lists those there are).\n\n"
                "Examples:\n"
                "  tessitor --sim record --trigger \"Begin Motion\" --signal Position --signal Velocity \\\n"
                "      --gap 3 --run MO=1 --run PA=4000 --run BG --out move.sdv\n"
                "  tessitor record --serial /dev/ttyUSB0 --trigger Velocity --level2 5000 --length 2000 \\\n"
                "      --pretrigger 25% --run MO=1 --run JV=20000 --run BG --csv jog.csv\n"
                "  tessitor --sim record list\n"
                "  tessitor --sim record map 8=\"Analog Input 1\" 9=none");

    CLI::App* list = sub->add_subcommand("list", "Print the trigger list rows and the slots with their signals");
    list->footer("Example:\n  tessitor record list --serial /dev/ttyUSB0");
    CLI::App* map = sub->add_subcommand("map", "Show the slots, or map them to signals (RV[n]=code), Talvina family");
    map->add_option("SLOT=NAME", options->arMap, "Slot 0..15 and a signal name of Vectors.ini, or none");
    map->footer("Without arguments prints the slots. Names are those of the Talvina section of\n"
                "Vectors.ini; 'none' leaves the slot without a signal. The BreNol family's slots are\n"
                "fixed: mapping them fails with exit status 1.\n\n"
                "Example:\n  tessitor --sim record map 8=\"Analog Input 1\" 9=none");

    context.SetAction(sub, [&context, options] { return Record(context, *options); }, CommandUse::kConnection);
    context.SetAction(list, [&context] { return List(context); }, CommandUse::kConnection);
    context.SetAction(map, [&context, options] { return Map(context, options->arMap); }, CommandUse::kConnection);
}

} // namespace tessitor::cli
