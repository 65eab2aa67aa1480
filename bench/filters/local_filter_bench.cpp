// LocalFilter on the 24-megapixel luminance plane, per reference level, beside one Laplacian
// pyramid build and collapse of the same plane with OpenCV (cv::pyrDown, cv::pyrUp and
// cv::addWeighted around 32768, 8 levels).
//
// A filter run with n references builds n reference pyramids and blends n - 1 intervals, plus
// once the input's pyramid and the collapse. The kestrix1 figure is the time of one whole
// proc3 or proc5 call with n = 16 divided by 16: the per-reference cost with the fixed part
// spread over the references, as a host with the 33 to 64 references of the setups would
// see it at a smaller share. The reported time is set by hand to that quotient, so the ratio
// printed at the end is per reference level against one OpenCV pyramid round trip.
//
// OpenCV keeps its default thread pool (all cores, as OpenMP's default team): after
// cv::setNumThreads the pool's idle workers keep yielding the cores, and every OpenMP team
// of the process then waits on them.
//
// LocalFilter_PeakMemory runs proc5 or proc3 once and reports the peak resident memory it adds
// (from the kernel's high-water mark, reset just before the call) beside the bound of three
// full pyramids plus two work pyramids of 16-bit samples.
#include <omp.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/local_filter.h"

namespace {

using kxbench::inputs;
using kxbench::Op;

constexpr int kReferences = 16;

// One case timed by hand: each iteration's wall time divided by `share`.
void addShared(std::string const &name, kxbench::MakeOp make, int share) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [make, share](benchmark::State &state) {
                                     Op const op = make();
                                     op();
                                     for (auto _ : state) {
                                         auto const t0 = std::chrono::steady_clock::now();
                                         op();
                                         std::chrono::duration<double> const dt =
                                             std::chrono::steady_clock::now() - t0;
                                         state.SetIterationTime(dt.count() / share);
                                     }
                                 })
        ->UseManualTime()
        ->MinTime(0.5)
        ->Unit(benchmark::kMillisecond);
}

// proc3 prints its timing lines; the benchmark keeps them off the console.
struct QuietCout {
    std::ostringstream sink;
    std::streambuf *saved = std::cout.rdbuf(sink.rdbuf());
    ~QuietCout() { std::cout.rdbuf(saved); }
};

Op procOp(bool (LocalFilter::*proc)(cv::Mat const &, cv::Mat &, TProgress *)) {
    auto filter = std::make_shared<LocalFilter>();
    filter->setup(0.3f, 8, kReferences);
    filter->setupLUT(kReferences);
    cv::Mat const src = inputs().y16;
    cv::Mat out(src.size(), src.type());
    return [filter, src, out, proc]() mutable {
        QuietCout quiet;
        ((*filter).*proc)(src, out, nullptr);
    };
}

Op pyramidOp() {
    cv::Mat const src = inputs().y16;
    auto levels = std::make_shared<std::vector<cv::Mat>>(8);
    auto up = std::make_shared<cv::Mat>();
    auto out = std::make_shared<cv::Mat>();
    return [src, levels, up, out] {
        std::vector<cv::Mat> &L = *levels;
        L[0] = src;
        for (int i = 1; i < 8; ++i)
            cv::pyrDown(L[i - 1], L[i]);
        for (int i = 0; i < 7; ++i) {
            cv::pyrUp(L[i + 1], *up, L[i].size());
            cv::addWeighted(L[i], 1.0, *up, -1.0, 32768.0, i == 0 ? *out : L[i]);
        }
        L[0] = *out;
        cv::Mat r = L[7];
        for (int i = 6; i >= 0; --i) {
            cv::pyrUp(r, *up, L[i].size());
            cv::addWeighted(L[i], 1.0, *up, 1.0, -32768.0, L[i]);
            r = L[i];
        }
    };
}

// kB of a line of /proc/self/status.
long statusKb(char const *key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::stol(line.substr(std::strlen(key)));
    return -1;
}

void peakMemory(benchmark::State &state,
                bool (LocalFilter::*proc)(cv::Mat const &, cv::Mat &, TProgress *)) {
    cv::Mat const src = inputs().y16;
    LocalFilter filter;
    filter.setup(0.3f, 8, kReferences);
    filter.setupLUT(kReferences);
    cv::Mat out(src.size(), src.type());
    out.setTo(0);
    double pyramidBytes = 0;
    for (cv::Size s = src.size(); s.width >= 2 && s.height >= 2;
         s = cv::Size((s.width + 1) / 2, (s.height + 1) / 2))
        pyramidBytes += 2.0 * s.area();
    double extra = -1;
    for (auto _ : state) {
        std::ofstream("/proc/self/clear_refs") << "5";
        long const base = statusKb("VmRSS:");
        {
            QuietCout quiet;
            (filter.*proc)(src, out, nullptr);
        }
        long const peak = statusKb("VmHWM:");
        if (base > 0 && peak > 0) extra = (peak - base) / 1024.0;
    }
    state.counters["extra_MiB"] = extra;
    state.counters["bound_MiB"] = 5 * pyramidBytes / (1 << 20);
    state.counters["pyramid_MiB"] = pyramidBytes / (1 << 20);
}

int const registered = [] {
    benchmark::RegisterBenchmark("LocalFilter_PeakMemory/proc5", peakMemory, &LocalFilter::proc5)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("LocalFilter_PeakMemory/proc3", peakMemory, &LocalFilter::proc3)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    addShared(
        "LocalFilter_proc3_PerLevel/kestrix1", [] { return procOp(&LocalFilter::proc3); },
        kReferences);
    addShared("LocalFilter_proc3_PerLevel/opencv", pyramidOp, 1);
    addShared(
        "LocalFilter_proc5_PerLevel/kestrix1", [] { return procOp(&LocalFilter::proc5); },
        kReferences);
    addShared("LocalFilter_proc5_PerLevel/opencv", pyramidOp, 1);
    return 0;
}();

}  // namespace
