// The sparse direct solve on the weighted least squares system of a photograph, at 1 and 4
// megapixels: the first call of a size (analysis, factorisation, solve), a second call of the
// same size (the analysis kept), beside CHOLMOD called the plain way for every call (its
// default ordering, analysis, factorisation, solve, release).
//
// Besides the time, each case reports the peak resident memory of the process during the
// case (MB) and, for kestrix1, the factor's values (MB) and the factorisation's Gflop.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <suitesparse/cholmod.h>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/kernels/sparse_solver.h"

namespace {

// The upper triangle of the smoothing matrix of a w x h guide in 1-based compressed rows, as
// the filter builds it: diagonal, right neighbour (an explicit zero at each row end), below.
struct System {
    int n = 0;
    std::vector<float> a, b;
    std::vector<int> ia, ja;
};

System smoothingSystem(cv::Size size, float lambda, float alpha) {
    cv::Mat y, guide;
    cv::resize(kxbench::inputs().y32f, y, size, 0, 0, cv::INTER_AREA);
    cv::log(y + 1e-4, guide);
    int const w = size.width, n = int(y.total());
    float const *g = guide.ptr<float>();
    auto weight = [&](float d) { return -lambda / (std::pow(std::abs(d), alpha) + 1e-4f); };
    std::vector<float> wx(n, 0.0f), wy(n, 0.0f), diag(n, 1.0f);
    for (int i = 0; i < n; ++i) {
        if (i % w + 1 < w) wx[i] = weight(g[i + 1] - g[i]);
        if (i + w < n) wy[i] = weight(g[i + w] - g[i]);
        diag[i] -= wx[i] + wy[i];
        if (i + 1 < n) diag[i + 1] -= wx[i];
        if (i + w < n) diag[i + w] -= wy[i];
    }
    System s;
    s.n = n;
    s.b.assign(y.begin<float>(), y.end<float>());
    s.ia.push_back(1);
    for (int i = 0; i < n; ++i) {
        s.a.push_back(diag[i]), s.ja.push_back(i + 1);
        if (i + 1 < n) s.a.push_back(wx[i]), s.ja.push_back(i + 2);
        if (i + w < n) s.a.push_back(wy[i]), s.ja.push_back(i + w + 1);
        s.ia.push_back(int(s.ja.size()) + 1);
    }
    return s;
}

// The solve done the plain way: everything anew, CHOLMOD's default ordering.
void plainCholmod(System &s, std::vector<float> &x) {
    cholmod_common c;
    cholmod_l_start(&c);
    c.supernodal = CHOLMOD_SUPERNODAL;
    std::vector<SuiteSparse_long> p(s.ia.begin(), s.ia.end()), i(s.ja.begin(), s.ja.end());
    for (auto &v : p)
        --v;
    for (auto &v : i)
        --v;
    std::vector<double> ax(s.a.begin(), s.a.end()), bx(s.b.begin(), s.b.end());
    cholmod_sparse a{};
    a.nrow = a.ncol = s.n, a.nzmax = ax.size(), a.p = p.data(), a.i = i.data(), a.x = ax.data();
    a.stype = -1, a.itype = CHOLMOD_LONG, a.xtype = CHOLMOD_REAL, a.dtype = CHOLMOD_DOUBLE;
    a.sorted = a.packed = 1;
    cholmod_dense b{};
    b.nrow = b.d = s.n, b.ncol = 1, b.nzmax = s.n, b.x = bx.data();
    b.xtype = CHOLMOD_REAL, b.dtype = CHOLMOD_DOUBLE;
    cholmod_factor *L = cholmod_l_analyze(&a, &c);
    cholmod_l_factorize(&a, L, &c);
    cholmod_dense *sol = cholmod_l_solve(CHOLMOD_A, L, &b, &c);
    double const *sx = static_cast<double const *>(sol->x);
    for (int k = 0; k < s.n; ++k)
        x[k] = float(sx[k]);
    cholmod_l_free_dense(&sol, &c);
    cholmod_l_free_factor(&L, &c);
    cholmod_l_finish(&c);
}

// Peak resident memory since the last reset, in MB (Linux).
void resetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}
double peakMB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0;
}

enum class Way { first, second, plain };

void run(benchmark::State &state, cv::Size size, Way way) {
    System s = smoothingSystem(size, 1.0f, 1.2f);
    std::vector<float> b(s.n), x(s.n);
    auto solve = [&] {
        b = s.b;
        if (way == Way::plain) return plainCholmod(s, b);
        if (way == Way::first) kxSparseForget();
        pardisoSolverIC(s.n, s.a.data(), s.ia.data(), s.ja.data(), b.data(), x.data(), 1, 2);
    };
    if (way == Way::second) solve();
    resetPeak();
    for (auto _ : state) {
        auto const t0 = std::chrono::steady_clock::now();
        solve();
        std::chrono::duration<double> const dt = std::chrono::steady_clock::now() - t0;
        state.SetIterationTime(dt.count());
    }
    state.counters["peakMB"] = peakMB();
    if (way != Way::plain) {
        double values, flops;
        kxSparseLastAnalysis(values, flops);
        state.counters["factorMB"] = values * 8 / 1048576.0;
        state.counters["Gflop"] = flops / 1e9;
    }
}

int const registered = [] {
    struct Size {
        char const *name;
        cv::Size size;
        int plainRuns;
    };
    for (Size const &z : {Size{"1MP", {1224, 816}, 2}, Size{"4MP", {2448, 1632}, 1}}) {
        std::string const c = std::string("SparseSolve_") + z.name;
        auto reg = [&](std::string const &name, Way way, int runs) {
            benchmark::RegisterBenchmark(name.c_str(), run, z.size, way)
                ->UseManualTime()
                ->Iterations(runs)
                ->Unit(benchmark::kMillisecond);
        };
        reg(c + "_FirstCall/kestrix1", Way::first, 2);
        reg(c + "_FirstCall/cholmod", Way::plain, z.plainRuns);
        reg(c + "_SecondCall/kestrix1", Way::second, 2);
        reg(c + "_SecondCall/cholmod", Way::plain, z.plainRuns);
    }
    return 0;
}();

}  // namespace
