#include "sim/simdrive.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>

#include "sim/simcommand.h"
#include "sim/simimage.h"
#include "sim/simmotor.h"
#include "sim/simprogram.h"
#include "sim/simrecorder.h"
#include "sim/simversiondb.h"

namespace tessitor::sim {

namespace {

// Drive error numbers (data/drive_errors.txt).
enum DriveError {
    kErrMotorMustBeOff = 1,
    kErrBadCommand = 2,
    kErrBadIndex = 3,
    kErrOutOfRange = 4,
    kErrNotSupported = 5,
    kErrReadOnly = 7,
    kErrMotorMustBeOn = 9,
    kErrTooLong = 10,
    kErrRecorderBusy = 17,
    kErrBadLength = 18,
    kErrBadGap = 19,
    kErrBadMask = 20,
    kErrSlotNotMapped = 21,
    kErrFlashEmpty = 26,
    kErrBadNumber = 30,
    kErrNotInteger = 31,
    kErrCannotQuery = 32,
    kErrCannotAssign = 33,
    kErrSyntax = 35,
    kErrWrongUnitMode = 36,
};

// Status register bits ("SR"); bits 16-17 carry the recorder state.
constexpr unsigned kSrFault = 1u << 0;
constexpr int kSrUnitModeShift = 1;
constexpr unsigned kSrMotorOn = 1u << 4;
constexpr unsigned kSrProgramRunning = 1u << 5;
constexpr unsigned kSrMotion = 1u << 6;
constexpr unsigned kSrInTarget = 1u << 7;
constexpr unsigned kSrCurrentLimit = 1u << 8;
constexpr unsigned kSrProgramCompiled = 1u << 9;
constexpr int kSrRecorderShift = 16;

// Digital input bits ("IP").
constexpr unsigned kInForwardLimit = 1u << 10;
constexpr unsigned kInReverseLimit = 1u << 11;
constexpr unsigned kInAbort = 1u << 12;
constexpr unsigned kInEnable = 1u << 13;

// The longest command line the drive takes.
constexpr std::size_t kMaxLine = 8190;

// Bytes of the parameter image per chunk of "IM[n]" and "IM[n]=hex".
constexpr std::size_t kImageChunk = 2048;

// Commands the drive knows that carry no parameter of the version database.
const char* const kBuiltins[] = {"VR", "SR", "EC", "BG", "ST", "SV", "LD", "LS", "CC",
                                 "XQ", "HX", "CP", "BH", "IM", "DL"};

bool IsBuiltin(const std::string& mnemonic)
{
    for (const char* b : kBuiltins)
        if (mnemonic == b)
            return true;
    return false;
}

bool StartsWithNoCase(const std::string& text, const char* prefix)
{
    for (std::size_t i = 0; prefix[i]; ++i)
        if (i >= text.size() || std::toupper(static_cast<unsigned char>(text[i])) != prefix[i])
            return false;
    return true;
}

bool IsDownloadLine(const std::string& command)
{
    return StartsWithNoCase(command, "DL") && !command.empty() && command.back() == '\\';
}

std::string Upper(const std::string& text)
{
    std::string upper = text;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return upper;
}

double Quantise(const SimParamDef& param, double value)
{
    if (param.nType == 16)
        return value;
    if (param.IsFloat())
        return static_cast<float>(value);
    return std::trunc(value);
}

std::string FormatValue(const SimParamDef& param, double value)
{
    char buffer[64];
    if (param.nType == 16)
        std::snprintf(buffer, sizeof buffer, "%.15g", value);
    else if (param.IsFloat())
        std::snprintf(buffer, sizeof buffer, "%.7g", static_cast<double>(static_cast<float>(value)));
    else
        std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(std::llround(value)));
    return buffer;
}

} // namespace

struct CSimDrive::Impl {
    enum class Motion { kJog, kAbsolute, kRelative };

    std::string sProduct;
    std::string sFamily;
    std::string sVersion;
    std::string sReportedVersion; // what "VR" answers when not empty
    std::shared_ptr<const CSimVersionDb> pDb;
    const SimParamList* pList = nullptr;
    std::vector<double> arValues;
    std::map<std::string, std::vector<std::size_t>> mapElements;
    std::vector<std::uint8_t> arFlash;
    std::vector<std::uint8_t> arImageChunks; // "IM[n]=hex" received so far
    int nLastError = 0;

    mutable std::mutex csDrive;
    std::shared_ptr<CSimClock> pClock;
    double dClockOrigin = 0;
    std::uint64_t nSteps = 0;

    CSimMotor motor;
    CSimRecorder recorder;
    CSimProgram program;
    Motion eNextMotion = Motion::kJog;
    bool bBeginMotion = false;

    Impl(const std::string& product, const std::string& version);

    // Parameters.
    int FindElement(const SimCommand& command, std::size_t& element) const;
    double Value(const char* mnemonic, int index = 0) const;
    void Store(const char* mnemonic, int index, double value);
    void ApplyMotorParams();

    // Commands.
    SimReply Run(const std::string& line);
    int RunCommand(const std::string& line, std::string& value);
    int Query(const SimCommand& command, std::string& value);
    int Assign(const SimCommand& command);
    int Builtin(const SimCommand& command, std::string& value);
    int Image(const SimCommand& command, std::string& value);
    int CheckProgramCommand(const std::string& line) const;
    int CheckAssignment(const SimParamDef& param, const std::string& text, double& value) const;
    bool LiveValue(const SimParamDef& param, double& value) const;
    unsigned StatusWord() const;
    char Terminator(const std::string& command) const;

    // Time.
    void Advance();
    void Step();
    bool InputStopsMotion() const;
    SimSnapshot Snapshot() const;
};

CSimDrive::Impl::Impl(const std::string& product, const std::string& version)
    : sProduct(product), pClock(std::make_shared<CSimSteadyClock>())
{
    sFamily = CSimProducts::Default()->Family(product);
    if (sFamily.empty())
        throw std::invalid_argument("unknown product \"" + product + "\" (see products.txt)");
    pDb = CSimVersionDb::Default();
    sVersion = version.empty() ? pDb->NewestVersion(product) : product + " " + version;
    pList = pDb->FindVersion(sVersion);
    if (!pList)
        throw std::invalid_argument(version.empty() ? "the version database has no version of " + product
                                                    : "the version database has no version " + sVersion);
    for (std::size_t i = 0; i < pList->arParams.size(); ++i) {
        const SimParamDef& param = pList->arParams[i];
        arValues.push_back(param.dDefault);
        mapElements[param.sMnemonic].push_back(i);
    }
    arFlash = EncodeImage(*pList, arValues);
    ApplyMotorParams();
    dClockOrigin = pClock->Now();
}

int CSimDrive::Impl::FindElement(const SimCommand& command, std::size_t& element) const
{
    auto it = mapElements.find(command.sMnemonic);
    if (it == mapElements.end())
        return pDb->KnowsMnemonic(command.sMnemonic) ? kErrNotSupported : kErrBadCommand;
    for (std::size_t i : it->second) {
        const SimParamDef& param = pList->arParams[i];
        if (param.bIndexed == command.bIndexed && (!param.bIndexed || param.nIndex == command.nIndex)) {
            element = i;
            return 0;
        }
    }
    return kErrBadIndex;
}

double CSimDrive::Impl::Value(const char* mnemonic, int index) const
{
    auto it = mapElements.find(mnemonic);
    if (it == mapElements.end())
        return 0;
    for (std::size_t i : it->second)
        if (!pList->arParams[i].bIndexed || pList->arParams[i].nIndex == index)
            return arValues[i];
    return 0;
}

void CSimDrive::Impl::Store(const char* mnemonic, int index, double value)
{
    auto it = mapElements.find(mnemonic);
    if (it == mapElements.end())
        return;
    for (std::size_t i : it->second)
        if (!pList->arParams[i].bIndexed || pList->arParams[i].nIndex == index)
            arValues[i] = value;
}

void CSimDrive::Impl::ApplyMotorParams()
{
    SimMotorParams p;
    p.nUnitMode = static_cast<int>(Value("UM"));
    for (int i = 0; i < 3; ++i) {
        p.arKp[i] = Value("KP", i + 1);
        p.arKi[i] = Value("KI", i + 1);
    }
    // Families without feed-forward parameters run without it.
    p.arFf[0] = mapElements.count("FF") ? Value("FF", 1) : 1.0;
    p.arFf[1] = mapElements.count("FF") ? Value("FF", 2) : 0.0;
    p.dPeakCurrent = Value("PL");
    p.dContCurrent = Value("CL");
    p.dSpeedLimit = Value("VH");
    p.dAccel = Value("AC");
    p.dDecel = Value("DC");
    p.dStopDecel = Value("SD");
    p.dSpeed = Value("SP");
    p.dMaxVelError = Value("ER", 2);
    p.dMaxPosError = Value("ER", 3);
    p.dTargetWindow = Value("TR", 1);
    p.dTargetTime = Value("TR", 2) / 1000.0;
    p.dResistance = Value("MP", 1);
    p.dInductance = Value("MP", 2) / 1000.0;
    p.dTorqueConstant = Value("MP", 3);
    p.dInertia = Value("MP", 4) * 1e-4;
    p.dViscous = Value("MP", 5) / 1000.0;
    p.dCountsPerRev = Value("MP", 6);
    p.dCoulomb = Value("MP", 7) / 1000.0;
    p.nPolePairs = static_cast<int>(Value("MP", 8));
    motor.SetParams(p);
}

char CSimDrive::Impl::Terminator(const std::string& command) const
{
    if (sFamily == "DSP" || sFamily == "STP")
        return ';';
    std::string upper = Upper(command);
    bool listing = upper == "LS" || upper == "CC" || IsDownloadLine(command);
    return listing ? '\x08' : ';';
}

SimReply CSimDrive::Impl::Run(const std::string& line)
{
    SimReply reply;
    reply.cTerminator = Terminator(line);
    std::string value;
    int error = RunCommand(line, value);
    if (error) {
        nLastError = error;
        reply.bError = true;
        reply.nErrorNumber = error;
    } else {
        reply.sValue = value;
    }
    return reply;
}

int CSimDrive::Impl::RunCommand(const std::string& line, std::string& value)
{
    if (line.size() > kMaxLine)
        return kErrTooLong;
    // A line starting with a backslash is the link check: nothing to do.
    if (line.empty() || line[0] == '\\')
        return 0;
    if (IsDownloadLine(line))
        return program.AddLine(line.substr(2, line.size() - 3));
    SimCommand command;
    if (int error = ParseSimCommand(line, command))
        return error;
    if (IsBuiltin(command.sMnemonic))
        return Builtin(command, value);
    return command.bAssign ? Assign(command) : Query(command, value);
}

bool CSimDrive::Impl::LiveValue(const SimParamDef& param, double& value) const
{
    const std::string& m = param.sMnemonic;
    if (m == "PX") value = std::round(motor.Position());
    else if (m == "VX") value = motor.Velocity();
    else if (m == "PE") value = std::round(motor.PositionError());
    else if (m == "IQ") value = motor.ActiveCurrent();
    else if (m == "ID") value = 0;
    else if (m == "DV") {
        value = param.nIndex == 1 ? motor.CurrentCommand()
              : param.nIndex == 2 ? motor.VelocityCommand()
                                  : std::round(motor.PositionCommand());
    }
    else if (m == "VB") value = motor.BusVoltage();
    else if (m == "MF") value = motor.Fault();
    else if (m == "MO") value = motor.MotorOn() ? 1 : 0;
    else if (m == "TM") value = static_cast<double>((nSteps / 10) % 4294967296ull);
    else if (m == "RR") value = recorder.State();
    else if (m == "RP" && param.nIndex == 10) value = recorder.TriggerIndex();
    else if (m == "RP" && param.nIndex == 11) value = recorder.SamplesRecorded();
    else if (m == "RP" && param.nIndex == 12) value = Value("RG") * kServoPeriod * 1e6;
    else if (m == "RP" && param.nIndex == 13) value = recorder.Completed();
    else return false;
    return true;
}

int CSimDrive::Impl::Query(const SimCommand& command, std::string& value)
{
    std::size_t element = 0;
    if (int error = FindElement(command, element))
        return error;
    const SimParamDef& param = pList->arParams[element];
    if (!param.bRead)
        return kErrCannotQuery;
    double v = arValues[element];
    LiveValue(param, v);
    value = FormatValue(param, v);
    return 0;
}

int CSimDrive::Impl::CheckAssignment(const SimParamDef& param, const std::string& text, double& value) const
{
    if (!param.bWrite)
        return param.bRead ? kErrReadOnly : kErrCannotAssign;
    bool integer = false;
    if (int error = ParseSimNumber(text, value, integer))
        return error;
    if (!param.IsFloat() && value != std::trunc(value))
        return kErrNotInteger;
    if (value < param.dMin || value > param.dMax) {
        if (param.sMnemonic == "RL")
            return kErrBadLength;
        if (param.sMnemonic == "RG")
            return kErrBadGap;
        if (param.sMnemonic == "RC")
            return kErrBadMask;
        return kErrOutOfRange;
    }
    return 0;
}

int CSimDrive::Impl::Assign(const SimCommand& command)
{
    std::size_t element = 0;
    if (int error = FindElement(command, element))
        return error;
    const SimParamDef& param = pList->arParams[element];
    double value = 0;
    if (int error = CheckAssignment(param, command.sValue, value))
        return error;
    value = Quantise(param, value);
    if (param.bMotorOff && motor.MotorOn())
        return kErrMotorMustBeOff;

    const std::string& m = param.sMnemonic;
    bool recorderSetting = m == "RC" || m == "RG" || m == "RL" || m == "RV"
                           || (m == "RP" && param.nIndex != 8 && param.nIndex != 9);
    if (recorderSetting && recorder.Busy())
        return kErrRecorderBusy;
    if (m == "RV" && value != -1 && !FindSignal(sFamily, static_cast<int>(value)))
        return kErrOutOfRange;
    if (m == "RC") {
        for (int slot = 0; slot < kRecorderSlots; ++slot)
            if ((static_cast<unsigned>(value) >> slot & 1u) && !FindSignal(sFamily, static_cast<int>(Value("RV", slot))))
                return kErrSlotNotMapped;
    }
    if (m == "TC" && motor.Params().nUnitMode != 1)
        return kErrWrongUnitMode;
    if (m == "RR") {
        if (value == 1)
            return kErrOutOfRange;
        if (value == 0) {
            recorder.Stop();
        } else {
            if (recorder.Busy())
                return kErrRecorderBusy;
            SimRecorderSetup setup;
            setup.sFamily = sFamily;
            for (int slot = 0; slot < kRecorderSlots; ++slot)
                setup.arSlotCodes[slot] = static_cast<int>(Value("RV", slot));
            setup.nMask = static_cast<unsigned>(Value("RC"));
            setup.nGap = static_cast<int>(Value("RG"));
            setup.nLength = static_cast<int>(Value("RL"));
            setup.nStartMode = static_cast<int>(value);
            setup.nSource = static_cast<unsigned>(Value("RP", 1));
            setup.nPreTrigger = static_cast<int>(Value("RP", 2));
            setup.nTriggerType = static_cast<int>(Value("RP", 3));
            setup.dLevel = Value("RP", 4);
            setup.dLowLevel = Value("RP", 5);
            setup.nEdges = static_cast<unsigned>(Value("RP", 6));
            setup.nEvents = static_cast<unsigned>(Value("RP", 7));
            if (int error = recorder.Start(setup, Snapshot()))
                return error;
        }
    }

    arValues[element] = value;
    if (m == "MO") {
        motor.SetMotorOn(value != 0);
    } else if (m == "PX") {
        motor.SetPosition(value);
    } else if (m == "TC") {
        motor.SetTorqueCommand(value);
    } else if (m == "JV") {
        eNextMotion = Motion::kJog;
    } else if (m == "PA") {
        eNextMotion = Motion::kAbsolute;
    } else if (m == "PR") {
        eNextMotion = Motion::kRelative;
    } else if (param.bSaved) {
        ApplyMotorParams();
    }
    return 0;
}

// "IM" and "IM=hex" carry the whole image; "IM[n]" answers chunk n and
// "IM[n]=hex" writes it, the image taking effect when its last chunk arrives.
int CSimDrive::Impl::Image(const SimCommand& command, std::string& value)
{
    if (!command.bAssign) {
        std::vector<std::uint8_t> image = EncodeImage(*pList, arValues);
        std::size_t first = command.bIndexed ? static_cast<std::size_t>(command.nIndex) * kImageChunk : 0;
        if (command.bIndexed && (command.nIndex < 0 || first > image.size()))
            return kErrBadIndex;
        std::size_t count = command.bIndexed ? std::min(kImageChunk, image.size() - first) : image.size();
        value = HexText({image.begin() + static_cast<std::ptrdiff_t>(first),
                         image.begin() + static_cast<std::ptrdiff_t>(first + count)});
        return 0;
    }
    if (motor.MotorOn())
        return kErrMotorMustBeOff;
    std::vector<std::uint8_t> bytes;
    if (!HexBytes(command.sValue, bytes))
        return kErrBadNumber;
    std::vector<std::uint8_t> image;
    if (command.bIndexed) {
        // Chunks come in order from 0; chunk 0 starts the image anew.
        if (command.nIndex == 0)
            arImageChunks.clear();
        if (command.nIndex < 0 || static_cast<std::size_t>(command.nIndex) * kImageChunk != arImageChunks.size())
            return kErrBadIndex;
        bool whole = bytes.size() == kImageChunk;
        arImageChunks.insert(arImageChunks.end(), bytes.begin(), bytes.end());
        if (arImageChunks.size() < ImageSize(*pList) && whole)
            return 0;
        image.swap(arImageChunks);
    } else {
        image.swap(bytes);
    }
    if (int error = DecodeImage(*pList, image, arValues))
        return error;
    ApplyMotorParams();
    return 0;
}

int CSimDrive::Impl::Builtin(const SimCommand& command, std::string& value)
{
    const std::string& m = command.sMnemonic;
    if (m == "IM")
        return Image(command, value);
    if (command.bIndexed)
        return kErrBadIndex;
    if (m == "BH") {
        if (!command.bAssign)
            return kErrCannotQuery;
        double mask = 0;
        bool integer = false;
        if (int error = ParseSimNumber(command.sValue, mask, integer))
            return error;
        if (mask != std::trunc(mask) || mask < 0 || mask > 0xFFFF)
            return kErrBadMask;
        return recorder.Upload(static_cast<unsigned>(mask), static_cast<int>(Value("RP", 8)),
                               static_cast<int>(Value("RP", 9)), value);
    }
    if (command.bAssign)
        return kErrCannotAssign;
    if (m == "VR") {
        value = sReportedVersion.empty() ? sVersion : sReportedVersion;
    } else if (m == "SR") {
        value = std::to_string(StatusWord());
    } else if (m == "EC") {
        value = std::to_string(nLastError);
    } else if (m == "BG") {
        if (!motor.MotorOn())
            return kErrMotorMustBeOn;
        int mode = motor.Params().nUnitMode;
        if (mode == 1 || (eNextMotion != Motion::kJog && mode != 3))
            return kErrWrongUnitMode;
        if (eNextMotion == Motion::kJog)
            motor.BeginJog(Value("JV"));
        else if (eNextMotion == Motion::kAbsolute)
            motor.BeginMove(Value("PA"));
        else
            motor.BeginMove(motor.MoveBase() + Value("PR"));
        recorder.NotifyBeginMotion();
        bBeginMotion = true;
    } else if (m == "ST") {
        motor.Stop();
    } else if (m == "SV") {
        if (motor.MotorOn())
            return kErrMotorMustBeOff;
        arFlash = EncodeImage(*pList, arValues);
    } else if (m == "LD") {
        if (motor.MotorOn())
            return kErrMotorMustBeOff;
        if (arFlash.empty())
            return kErrFlashEmpty;
        if (int error = DecodeImage(*pList, arFlash, arValues))
            return error;
        ApplyMotorParams();
    } else if (m == "LS") {
        value = program.Listing();
    } else if (m == "CC") {
        if (int error = program.Compile([this](const std::string& line) { return CheckProgramCommand(line); }))
            return error;
        value = std::to_string(program.LineCount());
    } else if (m == "XQ") {
        return program.Run();
    } else if (m == "HX") {
        program.Halt();
    } else if (m == "CP") {
        return program.Clear();
    } else if (m == "DL") {
        return kErrSyntax; // a download line must end with a backslash
    }
    return 0;
}

int CSimDrive::Impl::CheckProgramCommand(const std::string& line) const
{
    SimCommand command;
    if (int error = ParseSimCommand(line, command))
        return error;
    if (IsBuiltin(command.sMnemonic))
        return command.bIndexed ? kErrBadIndex : (command.bAssign ? kErrCannotAssign : 0);
    std::size_t element = 0;
    if (int error = FindElement(command, element))
        return error;
    const SimParamDef& param = pList->arParams[element];
    if (!command.bAssign)
        return param.bRead ? 0 : kErrCannotQuery;
    double value = 0;
    return CheckAssignment(param, command.sValue, value);
}

unsigned CSimDrive::Impl::StatusWord() const
{
    unsigned sr = 0;
    if (motor.Fault())
        sr |= kSrFault;
    sr |= static_cast<unsigned>(motor.Params().nUnitMode & 7) << kSrUnitModeShift;
    if (motor.MotorOn())
        sr |= kSrMotorOn;
    if (program.Running())
        sr |= kSrProgramRunning;
    if (motor.MotionActive())
        sr |= kSrMotion;
    if (motor.InTarget())
        sr |= kSrInTarget;
    if (motor.CurrentLimited())
        sr |= kSrCurrentLimit;
    if (program.Compiled())
        sr |= kSrProgramCompiled;
    sr |= static_cast<unsigned>(recorder.State()) << kSrRecorderShift;
    return sr;
}

SimSnapshot CSimDrive::Impl::Snapshot() const
{
    SimSnapshot s{};
    auto set = [&s](SimSignal signal, double value) { s[static_cast<std::size_t>(signal)] = value; };
    auto inputs = static_cast<unsigned>(Value("IP"));
    auto outputs = static_cast<unsigned>(Value("OP"));
    double ratio = mapElements.count("GR") ? Value("GR", 1) / Value("GR", 2) : 1.0;
    set(SimSignal::kPosition, std::round(motor.Position()));
    set(SimSignal::kVelocity, motor.Velocity());
    set(SimSignal::kPositionCommand, std::round(motor.PositionCommand()));
    set(SimSignal::kVelocityCommand, motor.VelocityCommand());
    set(SimSignal::kCurrentCommand, motor.CurrentCommand());
    set(SimSignal::kActiveCurrent, motor.ActiveCurrent());
    set(SimSignal::kReactiveCurrent, 0);
    set(SimSignal::kPositionError, std::round(motor.PositionError()));
    set(SimSignal::kPhaseA, motor.PhaseCurrent(0));
    set(SimSignal::kPhaseB, motor.PhaseCurrent(1));
    set(SimSignal::kBusVoltage, motor.BusVoltage());
    set(SimSignal::kAnalog1, Value("AN", 1));
    set(SimSignal::kAnalog2, Value("AN", 2));
    set(SimSignal::kMotorVoltage, motor.Voltage());
    set(SimSignal::kStatus, StatusWord());
    set(SimSignal::kDigitalInputs, inputs);
    set(SimSignal::kAuxPosition, std::round(motor.Position() * ratio));
    set(SimSignal::kAuxVelocity, motor.Velocity() * ratio);
    set(SimSignal::kInput1, inputs & 1u);
    set(SimSignal::kInput2, inputs >> 1 & 1u);
    set(SimSignal::kOutput1, outputs & 1u);
    set(SimSignal::kOutput2, outputs >> 1 & 1u);
    set(SimSignal::kAbort, (inputs & kInAbort) ? 1 : 0);
    set(SimSignal::kForwardLimit, (inputs & kInForwardLimit) ? 1 : 0);
    set(SimSignal::kReverseLimit, (inputs & kInReverseLimit) ? 1 : 0);
    set(SimSignal::kEnable, (inputs & kInEnable) ? 1 : 0);
    set(SimSignal::kBeginMotion, bBeginMotion ? 1 : 0);
    return s;
}

bool CSimDrive::Impl::InputStopsMotion() const
{
    // Limit switches and the abort input stop a motion as a real drive does.
    auto inputs = static_cast<unsigned>(Value("IP"));
    double direction = motor.ProfileVelocity();
    return motor.MotionActive()
           && ((inputs & kInAbort) || ((inputs & kInForwardLimit) && direction > 0)
               || ((inputs & kInReverseLimit) && direction < 0));
}

void CSimDrive::Impl::Step()
{
    motor.Step(kServoPeriod);
    ++nSteps;
    if (InputStopsMotion())
        motor.Stop();
    if (recorder.Busy())
        recorder.Sample(Snapshot());
    bBeginMotion = false;
    if (program.Running()) {
        int error = program.Tick(kServoPeriod, [this](const std::string& line) {
            std::string ignored;
            return RunCommand(line, ignored);
        });
        if (error)
            nLastError = error;
    }
}

void CSimDrive::Impl::Advance()
{
    double now = pClock->Now() - dClockOrigin;
    auto target = static_cast<std::uint64_t>(std::max(0.0, now) / kServoPeriod);
    while (nSteps < target) {
        // Nothing moves and nothing samples: let the time pass in one go.
        bool quiet = !recorder.Busy() && !program.Running() && !bBeginMotion;
        if (quiet && motor.AtRest()) {
            motor.Rest(static_cast<double>(target - nSteps) * kServoPeriod);
            nSteps = target;
            break;
        }
        // A jog or a hold the loops have settled in: the positions run on in
        // closed form, so a command costs the same after a second or an hour.
        if (quiet && motor.Cruising() && !InputStopsMotion()) {
            motor.Cruise(target - nSteps, kServoPeriod);
            nSteps = target;
            break;
        }
        Step();
    }
}

CSimDrive::CSimDrive(const std::string& product) : m_pImpl(std::make_unique<Impl>(product, ""))
{
}

CSimDrive::CSimDrive(const std::string& product, const std::string& version)
    : m_pImpl(std::make_unique<Impl>(product, version))
{
}

CSimDrive::~CSimDrive() = default;

SimReply CSimDrive::Execute(const std::string& command)
{
    std::lock_guard lock(m_pImpl->csDrive);
    m_pImpl->Advance();
    return m_pImpl->Run(command);
}

std::string CSimDrive::VersionString() const
{
    return m_pImpl->sVersion;
}

void CSimDrive::SetReportedVersion(const std::string& text)
{
    std::lock_guard lock(m_pImpl->csDrive);
    m_pImpl->sReportedVersion = text;
}

std::string CSimDrive::Family() const
{
    return m_pImpl->sFamily;
}

void CSimDrive::SetClock(std::shared_ptr<CSimClock> clock)
{
    std::lock_guard lock(m_pImpl->csDrive);
    m_pImpl->Advance();
    double elapsed = static_cast<double>(m_pImpl->nSteps) * kServoPeriod;
    m_pImpl->pClock = std::move(clock);
    m_pImpl->dClockOrigin = m_pImpl->pClock->Now() - elapsed;
}

double CSimDrive::Time() const
{
    std::lock_guard lock(m_pImpl->csDrive);
    return static_cast<double>(m_pImpl->nSteps) * kServoPeriod;
}

SimReply CSimDrive::Refuse(const std::string& command, int error)
{
    std::lock_guard lock(m_pImpl->csDrive);
    m_pImpl->nLastError = error;
    SimReply reply;
    reply.bError = true;
    reply.nErrorNumber = error;
    reply.cTerminator = m_pImpl->Terminator(command);
    return reply;
}

SimReply CSimDrive::Record(unsigned mask)
{
    std::lock_guard lock(m_pImpl->csDrive);
    m_pImpl->Advance();
    SimReply reply;
    auto last = static_cast<int>(m_pImpl->Value("RP", 9));
    int error = m_pImpl->recorder.Upload(mask, static_cast<int>(m_pImpl->Value("RP", 8)), last == 0 ? -1 : last,
                                         reply.sValue, std::numeric_limits<int>::max());
    if (error) {
        m_pImpl->nLastError = error;
        reply.bError = true;
        reply.nErrorNumber = error;
        reply.sValue.clear();
    }
    return reply;
}

char CSimDrive::TerminatorFor(const std::string& command) const
{
    return m_pImpl->Terminator(command);
}

std::vector<std::uint8_t> CSimDrive::Flash() const
{
    std::lock_guard lock(m_pImpl->csDrive);
    return m_pImpl->arFlash;
}

bool CSimDrive::SetFlash(const std::vector<std::uint8_t>& image)
{
    std::lock_guard lock(m_pImpl->csDrive);
    std::vector<double> probe = m_pImpl->arValues;
    if (DecodeImage(*m_pImpl->pList, image, probe) != 0)
        return false;
    m_pImpl->arFlash = image;
    return true;
}

} // namespace tessitor::sim
