// tessitor demo: the main job end to end on a virtual drive, no hardware:
// connect through the real serial link, identify, read and set parameters,
// switch the motor on, run a move and watch the response, switch it off.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

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

// What the low bits of "SR" say, in words.
std::string StatusText(unsigned long sr)
{
    std::string text = (sr & 0x10) ? "motor on" : "motor off";
    if (sr & 0x01)
        text += ", fault";
    if (sr & 0x40)
        text += ", moving";
    if (sr & 0x80)
        text += ", in target";
    if (sr & 0x100)
        text += ", current limited";
    return text;
}

int RunDemo(CCliContext& context)
{
    using Clock = std::chrono::steady_clock;
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

    std::printf("3. Motion: motor on, move one revolution (PA=4000, BG)\n");
    Value(*link, "MO=1");
    Value(*link, "PA=4000");
    Value(*link, "BG");
    std::printf("   %6s %8s %12s %10s\n", "t [ms]", "PX", "VX", "IQ [A]");
    auto start = Clock::now();
    for (int i = 0; i <= 12; ++i) {
        std::this_thread::sleep_until(start + std::chrono::milliseconds(25 * i));
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        std::string px = Value(*link, "PX"), vx = Value(*link, "VX"), iq = Value(*link, "IQ");
        std::printf("   %6.0f %8s %12.1f %10.3f\n", ms, px.c_str(), std::atof(vx.c_str()), std::atof(iq.c_str()));
    }
    unsigned long sr = std::strtoul(Value(*link, "SR").c_str(), nullptr, 10);
    std::printf("   position %s counts; SR %lu: %s\n\n", Value(*link, "PX").c_str(), sr, StatusText(sr).c_str());

    std::printf("4. Motor off\n");
    Value(*link, "MO=0");
    sr = std::strtoul(Value(*link, "SR").c_str(), nullptr, 10);
    std::printf("   SR %lu: %s\n\n", sr, StatusText(sr).c_str());

    context.Disconnect();
    std::printf("Done: connect, identify, parameters and a motion, with no hardware.\n");
    return 0;
}

} // namespace

void RegisterDemoCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("demo", "Show the main job end to end on a virtual drive");
    sub->footer("Runs in a few seconds with no hardware: a virtual drive on a pseudo-terminal,\n"
                "reached through the serial link. --product chooses the drive (default Talvina).\n\n"
                "Example:\n  tessitor demo --product Vosk");
    context.SetAction(sub, [&context] { return RunDemo(context); }, CommandUse::kProduct);
}

} // namespace tessitor::cli
