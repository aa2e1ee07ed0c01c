// The scope view's drawing: a redraw of 8 displays x 4096 samples against
// the 16 ms of one frame at 60 Hz, and a 1 000 000-sample trace zoomed and
// panned, each beside the floor measured in the same run: the same view
// with its axes and grids but no samples. Runs on Qt's offscreen platform,
// where drawing happens on this thread; its CPU time is the figure, since
// the wall clock of a shared machine counts other people's work too.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <cmath>
#include <ctime>

#include "ui/gui/scopeview.h"

using namespace tessitor;
using namespace tessitor::gui;

namespace {

constexpr double kFrameMs = 1000.0 / 60;

CScopeFile Recording(int displays, int samples)
{
    CScopeFile file(0.0001);
    for (int display = 0; display < displays; ++display) {
        std::vector<double> values(static_cast<std::size_t>(samples));
        for (int i = 0; i < samples; ++i)
            values[static_cast<std::size_t>(i)] = std::sin(i * 0.001 * (display + 1)) * 1000 + (i % 7) * 3;
        file.AddSignal("Signal " + std::to_string(display + 1), std::move(values));
    }
    return file;
}

double ThreadCpuMs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Mean CPU milliseconds of one call of step over the benchmark's iterations.
template <typename Step>
double MeanMs(benchmark::State& state, Step step)
{
    double total = 0;
    std::int64_t count = 0;
    for (auto _ : state) {
        double start = ThreadCpuMs();
        step(count);
        total += ThreadCpuMs() - start;
        ++count;
    }
    return count ? total / static_cast<double>(count) : 0;
}

double FloorMs(int displays)
{
    CScopeView empty;
    empty.resize(1200, 900);
    empty.show();
    empty.Show(Recording(displays, 0));
    constexpr int kTurns = 20;
    double start = ThreadCpuMs();
    for (int i = 0; i < kTurns; ++i)
        empty.replot(QCustomPlot::rpImmediateRefresh);
    return (ThreadCpuMs() - start) / kTurns;
}

void BM_Redraw8x4096(benchmark::State& state)
{
    CScopeView view;
    view.resize(1200, 900);
    view.show();
    view.Show(Recording(8, 4096));
    double ms = MeanMs(state, [&](std::int64_t) { view.replot(QCustomPlot::rpImmediateRefresh); });
    double floor = FloorMs(8);
    state.counters["redraw_ms"] = ms;
    state.counters["of_frame"] = ms / kFrameMs;
    state.counters["floor_ms"] = floor;
    state.counters["floor_ratio"] = floor > 0 ? ms / floor : 0;
}
BENCHMARK(BM_Redraw8x4096)->Unit(benchmark::kMillisecond)->UseRealTime();

// Zoomed to 1/range_div of the trace and panned by a tenth of the view a step.
void BM_MillionSamplesPan(benchmark::State& state)
{
    const double divisor = static_cast<double>(state.range(0));
    CScopeView view;
    view.resize(1200, 400);
    view.show();
    view.Show(Recording(1, 1000000));
    QCPAxis* time = view.Trace(0)->keyAxis();
    const double total = time->range().size();
    const double width = total / divisor;
    double ms = MeanMs(state, [&](std::int64_t step) {
        double start = std::fmod(static_cast<double>(step) * width / 10, total - width);
        time->setRange(start, start + width);
        view.replot(QCustomPlot::rpImmediateRefresh);
    });
    double floor = FloorMs(1);
    state.counters["redraw_ms"] = ms;
    state.counters["of_frame"] = ms / kFrameMs;
    state.counters["floor_ratio"] = floor > 0 ? ms / floor : 0;
}
BENCHMARK(BM_MillionSamplesPan)->Arg(1)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
