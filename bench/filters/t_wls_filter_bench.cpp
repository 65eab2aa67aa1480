// TWLSFilter::Proc on the luminance of a photograph at 1 and 4 megapixels, with the settings
// of `kestrix smooth --filter wls` (lambda 0.5, alpha 1.2, the logarithm of Y as the guide):
//
// - FirstCall: the first call of a size (analysis, factorisation, solve) beside CHOLMOD
//   called the plain way on the same matrix: its default ordering, analysis, factorisation,
//   solve and release for every call. The peer is timed on the solve alone, the matrix
//   already built, so the ratio favours it slightly.
// - SecondCall: a call of a size already analysed (what a slider's next move costs), beside
//   cv::ximgproc::fastGlobalSmootherFilter, the fast approximate solution of a similar
//   problem, with its mean and largest difference from the exact solution in 8-bit levels
//   (meanDiff, maxDiff), so that users can choose.
//
// Each case also reports the peak resident memory of the process during its calls (peakMB,
// the benchmark's own inputs of some 300 MB included) and how far it rose above what the
// process held before them (addedMB);
// the kestrix1 cases report the factor's values (factorMB) and the factorisation's Gflop.
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>
#include <suitesparse/cholmod.h>

#include "bench/support/bench.h"
#include "kestrix1/filters/t_wls_filter.h"
#include "kestrix1/kernels/sparse_solver.h"

namespace {

float const kLambda = 0.5f, kAlpha = 1.2f;
// The fast global smoother's settings closest to the exact solution on this photograph at
// 1 MP (mean difference), with the logarithm of Y stretched to 8 bits as its guide.
double const kFgsLambda = 32.0, kFgsSigma = 2.0;

struct Photo {
    cv::Mat y;        // CV_32F luminance, 0..1
    cv::Mat guide8;   // ln(Y + 0.0001) stretched to 0..255
    cv::Mat exact;    // the filter's solution
    TWLSFilter wls;   // holds the matrix of the last call
};

Photo &photo(cv::Size size) {
    static std::map<int, Photo> photos;
    Photo &p = photos[size.width];
    if (p.y.empty()) {
        cv::resize(kxbench::inputs().y32f, p.y, size, 0, 0, cv::INTER_AREA);
        cv::Mat logY;
        cv::log(p.y + 1e-4f, logY);
        cv::normalize(logY, p.guide8, 0, 255, cv::NORM_MINMAX, CV_8U);
    }
    return p;
}

// One call of the filter on the photograph, its solution in p.exact.
void proc(Photo &p) {
    p.exact = p.y.clone();
    cv::Mat guide = p.y.clone();
    p.wls.Proc(p.exact.ptr<float>(), p.y.cols, p.y.rows, kLambda, kAlpha, guide.ptr<float>(),
               true);
}

// The matrix of the filter's last call as CHOLMOD's lower triangle (0-based compressed
// columns), every entry kept, and the photograph as the right-hand side.
struct PlainSystem {
    std::vector<SuiteSparse_long> p, i;
    std::vector<double> x, b;
};

PlainSystem plainSystem(Photo &p) {
    TWLSFilter const &f = p.wls;
    int const n = f.numPixels, nnz = f.rowStart[n] - 1;
    PlainSystem s;
    s.p.assign(f.rowStart, f.rowStart + n + 1);
    s.i.assign(f.columnIndex, f.columnIndex + nnz);
    for (auto &v : s.p)
        --v;
    for (auto &v : s.i)
        --v;
    s.x.assign(f.matrixValues, f.matrixValues + nnz);
    s.b.assign(p.y.begin<float>(), p.y.end<float>());
    return s;
}

// Everything anew, CHOLMOD's default ordering.
void plainCholmod(PlainSystem &s, std::vector<float> &out) {
    cholmod_common c;
    cholmod_l_start(&c);
    c.supernodal = CHOLMOD_SUPERNODAL;
    std::size_t const n = s.b.size();
    cholmod_sparse a{};
    a.nrow = a.ncol = n, a.nzmax = s.x.size(), a.p = s.p.data(), a.i = s.i.data();
    a.x = s.x.data(), a.stype = -1, a.itype = CHOLMOD_LONG, a.xtype = CHOLMOD_REAL;
    a.dtype = CHOLMOD_DOUBLE, a.sorted = a.packed = 1;
    cholmod_dense b{};
    b.nrow = b.d = b.nzmax = n, b.ncol = 1, b.x = s.b.data();
    b.xtype = CHOLMOD_REAL, b.dtype = CHOLMOD_DOUBLE;
    cholmod_factor *L = cholmod_l_analyze(&a, &c);
    cholmod_l_factorize(&a, L, &c);
    cholmod_dense *x = cholmod_l_solve(CHOLMOD_A, L, &b, &c);
    double const *xx = static_cast<double const *>(x->x);
    out.assign(xx, xx + n);
    cholmod_l_free_dense(&x, &c);
    cholmod_l_free_factor(&L, &c);
    cholmod_l_finish(&c);
}

// Resident memory now (VmRSS) or at its peak since the last reset (VmHWM), in MB (Linux).
double statusMB(char const *key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

enum class Way { first, second, plain, fgs };

void run(benchmark::State &state, cv::Size size, Way way) {
    Photo &p = photo(size);
    proc(p);  // untimed: the exact solution, the matrix, a kept analysis
    PlainSystem plain;
    std::vector<float> plainOut;
    cv::Mat approx;
    if (way == Way::plain) plain = plainSystem(p);
    resetPeak();
    double const before = statusMB("VmRSS:");
    for (auto _ : state) {
        auto const t0 = std::chrono::steady_clock::now();
        if (way == Way::plain) {
            plainCholmod(plain, plainOut);
        } else if (way == Way::fgs) {
            cv::ximgproc::fastGlobalSmootherFilter(p.guide8, p.y, approx, kFgsLambda, kFgsSigma);
        } else {
            if (way == Way::first) kxSparseForget();
            proc(p);
        }
        std::chrono::duration<double> const dt = std::chrono::steady_clock::now() - t0;
        state.SetIterationTime(dt.count());
    }
    state.counters["peakMB"] = statusMB("VmHWM:");
    state.counters["addedMB"] = statusMB("VmHWM:") - before;
    if (way == Way::first || way == Way::second) {
        double values, flops;
        kxSparseLastAnalysis(values, flops);
        state.counters["factorMB"] = values * 8 / 1048576.0;
        state.counters["Gflop"] = flops / 1e9;
    }
    if (way == Way::fgs) {
        cv::Mat diff = cv::abs(approx - p.exact) * 255.0;
        double maxDiff;
        cv::minMaxLoc(diff, nullptr, &maxDiff);
        state.counters["meanDiff"] = cv::mean(diff)[0];
        state.counters["maxDiff"] = maxDiff;
    }
}

int const registered = [] {
    struct Size {
        char const *name;
        cv::Size size;
        int plainRuns;
    };
    for (Size const &z : {Size{"1MP", {1224, 816}, 2}, Size{"4MP", {2448, 1632}, 1}}) {
        auto reg = [&](char const *what, char const *who, Way way, int runs) {
            std::string const name = std::string("WLS_") + z.name + "_" + what + "/" + who;
            benchmark::RegisterBenchmark(name.c_str(), run, z.size, way)
                ->UseManualTime()
                ->Iterations(runs)
                ->Unit(benchmark::kMillisecond);
        };
        reg("FirstCall", "kestrix1", Way::first, 2);
        reg("FirstCall", "cholmod", Way::plain, z.plainRuns);
        reg("SecondCall", "kestrix1", Way::second, 2);
        reg("SecondCall", "fgs", Way::fgs, 3);
    }
    return 0;
}();

}  // namespace
