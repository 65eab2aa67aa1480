// Tests of the sparse direct solve against a dense Cholesky, its texts and the kept analysis.
#include <gtest/gtest.h>
#include <omp.h>
#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/sparse_solver.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

// One thread: BLAS threads waiting on cores busy with other tests slow a solve tenfold.
int const oneThread = (omp_set_num_threads(1), 0);

// An upper triangle in 1-based compressed rows.
struct Csr {
    int n = 0;
    std::vector<float> a;
    std::vector<int> ia{1}, ja;
    void add(int col0, float v) { ja.push_back(col0 + 1), a.push_back(v); }
    void endRow() { ia.push_back(int(ja.size()) + 1), ++n; }
};

// The weighted least squares matrix of a guide: weights -lambda / (|dL|^alpha + 1e-4) right
// (0 at row ends) and below (one entry with right in a one-column image), 1 - their sum.
Csr smoothingMatrix(cv::Mat const &guide, float lambda, float alpha) {
    int const w = guide.cols, n = int(guide.total());
    float const *g = guide.ptr<float>();
    auto f = [&](float d) { return -lambda / (std::pow(std::abs(d), alpha) + 1e-4f); };
    auto wx = [&](int i) { return i >= 0 && i % w + 1 < w ? f(g[i + 1] - g[i]) : 0.0f; };
    auto wy = [&](int i) { return i >= 0 && i + w < n ? f(g[i + w] - g[i]) : 0.0f; };
    Csr m;
    for (int i = 0; i < n; m.endRow(), ++i) {
        m.add(i, 1 - wx(i) - wy(i) - wx(i - 1) - wy(i - w));
        if (i + 1 < n) m.add(i + 1, w == 1 ? wy(i) : wx(i));
        if (w > 1 && i + w < n) m.add(i + w, wy(i));
    }
    return m;
}

int solve(Csr &m, std::vector<float> &b) {
    std::vector<float> x(m.n);
    return pardisoSolverIC(m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(), 1, 2);
}

// Against cv::solve by the Cholesky of the dense matrix in double.
void expectDenseSolution(Csr m) {
    cv::Mat A(m.n, m.n, CV_64F, 0.0), B = kxtest::noise(m.n, 1, CV_64F, 5, -1, 1), X;
    for (int i = 0; i < m.n; ++i)
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            A.at<double>(i, m.ja[k] - 1) = A.at<double>(m.ja[k] - 1, i) = m.a[k];
    ASSERT_TRUE(cv::solve(A, B, X, cv::DECOMP_CHOLESKY));
    std::vector<float> b(B.begin<double>(), B.end<double>());
    ASSERT_EQ(solve(m, b), 0);
    EXPECT_LE(cv::norm(cv::Mat(b), cv::Mat_<float>(X), cv::NORM_INF), 1e-6);
}

// Image grids, one row and one column among them, and a pattern that is no grid.
TEST(SparseSolver, MatchesDenseCholesky) {
    for (cv::Size z :
         {cv::Size(13, 9), cv::Size(17, 1), cv::Size(1, 17), cv::Size(23, 19), cv::Size(1, 1)})
        expectDenseSolution(
            smoothingMatrix(kxtest::noise(z.height, z.width, CV_32F, 3, 0, 1), 2, 1.2f));
    Csr m;
    for (int i = 0; i < 60; m.endRow(), ++i)
        for (int j = i; j < 60; ++j)
            if (j == i || (i * 7 + j * 13) % 11 == 0) m.add(j, j == i ? 20.0f : -0.5f - j % 3);
    expectDenseSolution(m);
}

TEST(SparseSolver, TextsOfFailedAnalysisAndFactorisation) {
    Csr const m = smoothingMatrix(kxtest::noise(4, 5, CV_32F, 1, 0, 1), 1, 1);
    Csr notPositive = m, lower = m, beyond = m, unsorted = m, none;
    notPositive.a[18] = -1.0f, lower.ja[4] = 1, beyond.ja.back() = 21, unsorted.ja[1] = 6;
    std::vector<float> b(20, 1.0f);
    EXPECT_EQ(kxtest::thrown([&] { solve(notPositive, b); }), "pardisoSolverIC - 22");
    for (Csr *bad : {&lower, &beyond, &unsorted, &none})
        EXPECT_EQ(kxtest::thrown([&] { solve(*bad, b); }), "pardisoSolverIC - 11");
    expectDenseSolution(m);  // nothing left behind that spoils the next solve
}

TEST(SparseSolver, AnalysisIsKeptPerPattern) {
    kxSparseForget();
    long const before = kxSparseAnalyses();
    Csr const m = smoothingMatrix(kxtest::noise(9, 13, CV_32F, 1, 0, 1), 1, 1);
    expectDenseSolution(m);
    expectDenseSolution(smoothingMatrix(kxtest::noise(9, 13, CV_32F, 2, 0, 1), 3, 1.5f));
    EXPECT_EQ(kxSparseAnalyses(), before + 1);
    expectDenseSolution(smoothingMatrix(kxtest::noise(13, 9, CV_32F, 2, 0, 1), 3, 1.5f));
    // The same pattern with the entries that link image rows not zero: those are kept.
    Csr linked = m;
    for (int i = 12; i + 1 < linked.n; i += 13)
        linked.a[linked.ia[i]] = -0.5f;
    expectDenseSolution(linked);
    EXPECT_EQ(kxSparseAnalyses(), before + 3);
}

// A photograph's log luminance at 1 MP as the guide: the solve in double leaves a relative
// residual of at most 1e-6 (the float result adds its rounding, about 1e-7 of x per value,
// which |A| near 1e4 where the photograph is flat magnifies in A x).
TEST(SparseSolver, SmallResidualOnMegapixelPhoto) {
    cv::Mat grey, y, guide;
    cv::resize(kxtest::photo("coffee.png"), grey, cv::Size(1224, 816), 0, 0, cv::INTER_CUBIC);
    cv::cvtColor(grey, grey, cv::COLOR_BGR2GRAY);
    grey.convertTo(y, CV_32F, 1.0 / 255, 1e-4);
    cv::log(y, guide);
    Csr m = smoothingMatrix(guide, 1, 1.2f);
    std::vector<float> x(y.begin<float>(), y.end<float>());
    ASSERT_EQ(solve(m, x), 0);
    EXPECT_LE(kxSparseLastResidual(), 1e-6);
}

}  // namespace
