// Application files and transfers: loading and saving an application with
// a 64 kB image and a 2000-line program, each beside the floor of the same
// bytes read or written (and renamed) plainly; and the parameter image up
// and down over a paced 115200 serial line to the virtual drive, beside the
// wire limit of the bytes the drive must send.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "applicationeditor/datfile.h"
#include "applicationeditor/productmethods.h"
#include "bench/pacedserialdrive.h"

using namespace tessitor;

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A folder of its own, removed at the end.
struct BenchDir {
    BenchDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tessitor-bench-XXXXXX").string();
        path = ::mkdtemp(pattern.data()) ? pattern : ".";
    }
    ~BenchDir() { std::filesystem::remove_all(path); }
    std::filesystem::path path;
};

// Writes the application the benchmarks load and save.
void MakeApplication(const std::string& file)
{
    std::vector<std::uint8_t> image(64 * 1024);
    for (std::size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<std::uint8_t>(i * 31);
    std::string program;
    for (int line = 0; line < 2000; ++line)
        program += (line ? "\n" : "") + std::string("KP[2]=") + std::to_string(line) + " ' gain step";
    CDatFile app(file);
    app.SetVersionString("Talvina 2.1.0.0");
    app.SetParams(CDatFile::EncodeParams(image));
    CCommunicationInfo info;
    app.SetCommunicationInfo(info);
    app.SetUserProgram(program);
}

// The plain save: the same bytes to a temporary file, fsync, rename.
void PlainSave(const std::string& text, const std::string& file)
{
    std::string temp = file + ".plain";
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || ::fsync(fd) != 0)
        std::perror(temp.c_str());
    ::close(fd);
    std::rename(temp.c_str(), file.c_str());
}

std::string PlainLoad(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

static void BM_AppLoad(benchmark::State& state)
{
    BenchDir dir;
    std::string file = (dir.path / "app.dat").string();
    MakeApplication(file);
    double app = 0, plain = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        CDatFile loaded(file);
        benchmark::DoNotOptimize(loaded.GetParams());
        app += Since(start);
        start = Clock::now();
        benchmark::DoNotOptimize(PlainLoad(file));
        plain += Since(start);
    }
    state.counters["loads/s"] = static_cast<double>(state.iterations()) / app;
    state.counters["of_plain_read"] = plain / app;
}
BENCHMARK(BM_AppLoad)->UseRealTime()->MinTime(1.0);

static void BM_AppSave(benchmark::State& state)
{
    BenchDir dir;
    std::string file = (dir.path / "app.dat").string();
    std::string plainFile = (dir.path / "plain.dat").string();
    MakeApplication(file);
    CDatFile app(file);
    std::string text = app.FileText();
    double saving = 0, plain = 0;
    for (auto _ : state) {
        app.SetVersionString("Talvina 2.1.0.0"); // modified, so Update writes
        auto start = Clock::now();
        app.Update(true);
        saving += Since(start);
        start = Clock::now();
        PlainSave(text, plainFile);
        plain += Since(start);
    }
    state.counters["saves/s"] = static_cast<double>(state.iterations()) / saving;
    state.counters["of_plain_write"] = plain / saving;
    state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_AppSave)->UseRealTime()->MinTime(1.0);

// The image of the virtual drive up (range 0) or down (range 1) over a
// line paced at 115200 baud; of_wire_limit is the time the drive's own
// bytes (echo, answer, terminator) need on that line over the time taken.
static void BM_AppImagePaced115200(benchmark::State& state)
{
    const unsigned baud = 115200;
    const bool down = state.range(0) == 1;
    bench::CPacedSerialDrive drive(baud);
    CRs232& link = drive.link;
    if (!drive.bConnected) {
        state.SkipWithError("cannot open the pseudo-terminal");
        return;
    }
    link.Identify();
    auto methods = CreateProductMethods(link);
    std::string hex = methods->UploadImage();
    // One chunk each way: "IM[0]" CR echoed and answered, or "IM[0]=hex" CR echoed and ";".
    double driveBytes = down ? 6.0 + static_cast<double>(hex.size()) + 1 + 1 : 6.0 + static_cast<double>(hex.size()) + 1;
    auto start = Clock::now();
    for (auto _ : state) {
        if (down)
            methods->DownloadImage(hex);
        else
            benchmark::DoNotOptimize(methods->UploadImage());
    }
    double seconds = Since(start);
    double wire = driveBytes / (baud / 10.0);
    state.counters["transfers/s"] = static_cast<double>(state.iterations()) / seconds;
    state.counters["of_wire_limit"] = wire * static_cast<double>(state.iterations()) / seconds;
    state.counters["image_bytes"] = static_cast<double>(hex.size() / 2);
    link.Disconnect();
}
BENCHMARK(BM_AppImagePaced115200)->Arg(0)->Arg(1)->UseRealTime()->MinTime(2.0);
