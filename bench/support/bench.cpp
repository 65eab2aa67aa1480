#include "bench/support/bench.h"

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

// Prints the usual console table, then the ratio of kestrix1 to each peer of a case.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const &runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            std::string const name = r.run_name.function_name;
            std::size_t const slash = name.rfind('/');
            if (slash == std::string::npos) continue;
            // With --benchmark_repetitions, the best run of each side: on a shared machine
            // the slower runs measure the neighbours as much as the code.
            double &best = times_[name.substr(0, slash)][name.substr(slash + 1)];
            double const t = r.GetAdjustedRealTime();
            if (best <= 0 || t < best) best = t;
            if (order_.empty() || order_.back() != name.substr(0, slash))
                order_.push_back(name.substr(0, slash));
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::FILE *out = stdout;
        std::fprintf(out, "\nkestrix1 time / peer time (below 1 means kestrix1 is faster)\n");
        for (std::string const &c : order_) {
            auto const &who = times_[c];
            auto const self = who.find("kestrix1");
            if (self == who.end()) continue;
            for (auto const &[peer, t] : who) {
                if (peer == "kestrix1" || t <= 0) continue;
                std::fprintf(out, "  %-44s vs %-14s %6.2f\n", c.c_str(), peer.c_str(),
                             self->second / t);
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> times_;
    std::vector<std::string> order_;
};

}  // namespace

}  // namespace kxbench

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    kxbench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
