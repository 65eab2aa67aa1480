#include "bench/support/bench.h"

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/parallel.h"

namespace kxbench {

void add(std::string const &caseName, std::string const &who, MakeOp make, std::int64_t bytes) {
    benchmark::RegisterBenchmark((caseName + "/" + who).c_str(),
                                 [make, bytes](benchmark::State &state) {
                                     Op const op = make();
                                     op();
                                     for (auto _ : state)
                                         op();
                                     state.SetBytesProcessed(state.iterations() * bytes);
                                 })
        ->UseRealTime()
        ->MinTime(0.5)
        ->Unit(benchmark::kMillisecond);
}

Inputs const &inputs() {
    static Inputs const made = [] {
        Inputs in;
        cv::Mat const small = cv::imread(KX_DATA_DIR "/coffee.png", cv::IMREAD_COLOR);
        if (small.empty()) throw std::runtime_error("missing data/coffee.png");
        cv::resize(small, in.bgr8, cv::Size(6000, 4000), 0, 0, cv::INTER_CUBIC);
        cv::Mat bgr16;
        in.bgr8.convertTo(bgr16, CV_32F, 257.0);
        std::vector<cv::Mat> c;
        cv::split(bgr16, c);  // B, G, R
        cv::Mat const y = 0.299 * c[2] + 0.587 * c[1] + 0.114 * c[0];
        y.convertTo(in.y16, CV_16U);
        in.y16.convertTo(in.y32f, CV_32F, 1.0 / 65535.0);
        cv::Mat half;
        cv::resize(bgr16, half, cv::Size(3000, 2000), 0, 0, cv::INTER_AREA);
        cv::split(half, c);
        cv::Mat const yh = 0.299 * c[2] + 0.587 * c[1] + 0.114 * c[0];
        cv::Mat const dr = (c[2] - yh) * 0.5 + 32768.0;
        cv::Mat const db = (c[0] - yh) * 0.5 + 32768.0;
        dr.convertTo(in.dr16, CV_16U);
        db.convertTo(in.db16, CV_16U);
        return in;
    }();
    return made;
}

void copyPlane(cv::Mat const &src, cv::Mat &dst) {
    dst.create(src.size(), src.type());
    size_t const rowBytes = src.cols * src.elemSize();
    parallelRows(src.rows, std::int64_t(src.rows) * src.cols,
                 [&](int y) { std::memcpy(dst.ptr(y), src.ptr(y), rowBytes); });
}

namespace {

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::size_t const n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The median time in ms of a parallel copy of the standard 24-megapixel float plane: printed
// beside the ratios, it tells a slow or busy machine from a slow filter.
double planeCopyMs(int runs) {
    cv::Mat const &src = inputs().y32f;
    cv::Mat dst;
    copyPlane(src, dst);  // allocates and touches the output
    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        auto const t0 = std::chrono::steady_clock::now();
        copyPlane(src, dst);
        ms.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                .count());
    }
    return median(ms);
}

// Prints the usual console table, then for each case the median time of kestrix1 and of each
// peer over the repetitions of the run, their ratio, and the time of a plane copy.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    using ConsoleReporter::ConsoleReporter;

    void ReportRuns(std::vector<Run> const &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const &r : runs) {
            bool const single = r.run_type == Run::RT_Iteration;
            // With --benchmark_report_aggregates_only only the aggregates arrive.
            bool const median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.error_occurred || !(single || median)) continue;
            std::string const name = r.run_name.function_name;
            std::size_t const slash = name.rfind('/');
            if (slash == std::string::npos) continue;
            std::string const c = name.substr(0, slash);
            Times &t = times_[c][name.substr(slash + 1)];
            double const ms =
                r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e3;
            (single ? t.runs : t.median).push_back(ms);
            repetitions_ = std::max<std::int64_t>(repetitions_, r.repetitions);
            // A case whose sides were registered apart is still listed once.
            if (std::find(order_.begin(), order_.end(), c) == order_.end()) order_.push_back(c);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        if (order_.empty()) return;
        std::FILE *out = stdout;
        std::fprintf(
            out,
            "\nkestrix1 beside its peers, medians of %lld repetition%s in ms, and kestrix1 "
            "time / peer time (below 1: kestrix1 is faster)\n",
            static_cast<long long>(repetitions_), repetitions_ == 1 ? "" : "s");
        for (std::string const &c : order_) {
            auto const &who = times_[c];
            auto const self = who.find("kestrix1");
            if (self == who.end()) continue;
            double const mine = self->second.value();
            if (who.size() == 1) std::fprintf(out, "  %-40s %10.4g\n", c.c_str(), mine);
            for (auto const &[peer, t] : who) {
                if (peer == "kestrix1") continue;
                std::fprintf(out, "  %-40s %10.4g  vs %-12s %10.4g   %6.2f\n", c.c_str(), mine,
                             peer.c_str(), t.value(), mine / t.value());
            }
        }
        std::fprintf(out,
                     "plane copy, 6000 x 4000 float (96 MB), on all threads: %.3g ms (median of "
                     "9)\n",
                     planeCopyMs(9));
    }

private:
    // The times of one side of a case: each repetition's, or the median alone.
    struct Times {
        std::vector<double> runs, median;
        double value() const { return runs.empty() ? median.back() : kxbench::median(runs); }
    };
    std::map<std::string, std::map<std::string, Times>> times_;
    std::int64_t repetitions_ = 1;
    std::vector<std::string> order_;
};

}  // namespace

}  // namespace kxbench

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // A reporter passed in ignores --benchmark_color: colour only on a terminal.
    kxbench::RatioReporter reporter(isatty(fileno(stdout))
                                        ? benchmark::ConsoleReporter::OO_Defaults
                                        : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
