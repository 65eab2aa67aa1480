// Tests of the sparse direct solve against a dense Cholesky, its texts and the kept analysis.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include <omp.h>
#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/sparse_solver.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

// An upper triangle in 1-based compressed rows.
struct Csr {
    int n = 0;
    std::vector<float> a;
    std::vector<int> ia{1}, ja;
    void add(int col0, float v) { ja.push_back(col0 + 1), a.push_back(v); }
    void endRow() { ia.push_back(int(ja.size()) + 1), ++n; }
};

// The weighted least squares matrix of a w x h guide: 1 plus the neighbour weights on the
// diagonal, -lambda / (|dL|^alpha + 1e-4) to the right and below, an explicit zero at each
// row end, right and below one entry in a one-column image.
Csr smoothingMatrix(cv::Mat const &guide, float lambda, float alpha) {
    int const w = guide.cols, n = int(guide.total());
    std::vector<float> wx(n, 0.0f), wy(n, 0.0f), diag(n, 1.0f);
    auto weight = [&](float d) { return -lambda / (std::pow(std::abs(d), alpha) + 1e-4f); };
    for (int i = 0; i < n; ++i) {
        float const *g = guide.ptr<float>() + i;
        if (i % w + 1 < w) wx[i] = weight(g[1] - g[0]);
        if (i + w < n) wy[i] = weight(g[w] - g[0]);
        diag[i] -= wx[i] + wy[i];
        if (i + 1 < n) diag[i + 1] -= wx[i];
        if (i + w < n) diag[i + w] -= wy[i];
    }
    Csr m;
    for (int i = 0; i < n; ++i) {
        m.add(i, diag[i]);
        if (w == 1 && i + 1 < n) m.add(i + 1, wy[i]);
        if (w > 1 && i + 1 < n) m.add(i + 1, wx[i]);
        if (w > 1 && i + w < n) m.add(i + w, wy[i]);
        m.endRow();
    }
    return m;
}

// b by the dense Cholesky of the symmetric matrix, in double.
std::vector<double> denseSolve(Csr const &m, std::vector<float> const &b) {
    cv::Mat A(m.n, m.n, CV_64F, 0.0), B(m.n, 1, CV_64F), X;
    for (int i = 0; i < m.n; ++i) {
        B.at<double>(i) = b[i];
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            A.at<double>(i, m.ja[k] - 1) = A.at<double>(m.ja[k] - 1, i) = m.a[k];
    }
    EXPECT_TRUE(cv::solve(A, B, X, cv::DECOMP_CHOLESKY));
    return {X.begin<double>(), X.end<double>()};
}

// On one thread: tests run beside others, and BLAS threads that wait on busy cores slow a
// solve down tenfold.
int solve(Csr &m, std::vector<float> &b) {
    std::vector<float> x(m.n);
    int const threads = omp_get_max_threads();
    omp_set_num_threads(1);
    struct Restore {
        int n;
        ~Restore() { omp_set_num_threads(n); }
    } const restore{threads};
    return pardisoSolverIC(m.n, m.a.data(), m.ia.data(), m.ja.data(), b.data(), x.data(), 1, 2);
}

void expectDenseSolution(Csr m) {
    cv::Mat const rhs = kxtest::noise(1, m.n, CV_32F, 5, -1.0, 1.0);
    std::vector<float> b(rhs.begin<float>(), rhs.end<float>());
    std::vector<double> const want = denseSolve(m, b);
    ASSERT_EQ(solve(m, b), 0);
    for (int i = 0; i < m.n; ++i)
        EXPECT_NEAR(b[i], want[i], 1e-6 * (1 + std::abs(want[i]))) << i;
}

class GridSolve : public testing::TestWithParam<cv::Size> {};

TEST_P(GridSolve, MatchesDenseCholesky) {
    cv::Size const s = GetParam();
    expectDenseSolution(
        smoothingMatrix(kxtest::noise(s.height, s.width, CV_32F, 3, 0, 1), 2, 1.2f));
}

INSTANTIATE_TEST_SUITE_P(Sizes, GridSolve,
                         testing::Values(cv::Size(13, 9), cv::Size(17, 1), cv::Size(1, 17),
                                         cv::Size(23, 19), cv::Size(1, 1)));

// A pattern that is no grid: every row couples to a few pseudo-random later columns.
TEST(SparseSolver, OtherPatternMatchesDenseCholesky) {
    Csr m;
    int const n = 60;
    for (int i = 0; i < n; ++i) {
        m.add(i, 8.0f);
        for (int j = i + 1; j < n; ++j)
            if ((i * 7 + j * 13) % 11 == 0) m.add(j, -0.5f - float(j % 3) * 0.25f);
        m.endRow();
    }
    expectDenseSolution(m);
}

TEST(SparseSolver, TextsOfFailedAnalysisAndFactorisation) {
    struct Case {
        char const *what, *text;
        Csr m;
    };
    Csr notPositive = smoothingMatrix(kxtest::noise(4, 5, CV_32F, 1, 0, 1), 1, 1);
    notPositive.a[notPositive.ia[7] - 1] = -1.0f;  // a negative diagonal entry
    Csr lower = notPositive, beyond = notPositive, unsorted = notPositive, empty;
    lower.ja[4] = 1;  // row 2 reaching back to column 1
    beyond.ja.back() = 21;
    std::swap(unsorted.ja[1], unsorted.ja[2]);
    for (Case c : {Case{"not positive definite", "pardisoSolverIC - 22", notPositive},
                   Case{"below the diagonal", "pardisoSolverIC - 11", lower},
                   Case{"column beyond n", "pardisoSolverIC - 11", beyond},
                   Case{"columns not ascending", "pardisoSolverIC - 11", unsorted},
                   Case{"no rows", "pardisoSolverIC - 11", empty}}) {
        std::vector<float> b(std::max(c.m.n, 1), 1.0f);
        EXPECT_EQ(kxtest::thrown([&] { solve(c.m, b); }), c.text) << c.what;
    }
}

TEST(SparseSolver, AnalysisIsKeptPerPattern) {
    kxSparseForget();
    long const before = kxSparseAnalyses();
    Csr const m1 = smoothingMatrix(kxtest::noise(9, 13, CV_32F, 1, 0, 1), 1, 1);
    Csr const m2 = smoothingMatrix(kxtest::noise(9, 13, CV_32F, 2, 0, 1), 3, 1.5f);
    expectDenseSolution(m1);
    expectDenseSolution(m2);
    EXPECT_EQ(kxSparseAnalyses(), before + 1);
    expectDenseSolution(smoothingMatrix(kxtest::noise(13, 9, CV_32F, 2, 0, 1), 3, 1.5f));
    expectDenseSolution(m1);
    EXPECT_EQ(kxSparseAnalyses(), before + 3);
    // The same pattern with the entries that link image rows not zero: those stay in.
    Csr linked = m1;
    for (int i = 12; i + 1 < linked.n; i += 13)
        linked.a[linked.ia[i]] = -0.5f;
    expectDenseSolution(linked);
    EXPECT_EQ(kxSparseAnalyses(), before + 4);
    // A failed factorisation leaves nothing behind that spoils the next solve.
    Csr bad = m1;
    bad.a[0] = -1.0f;
    std::vector<float> b(bad.n, 1.0f);
    EXPECT_EQ(kxtest::thrown([&] { solve(bad, b); }), "pardisoSolverIC - 22");
    expectDenseSolution(m1);
}

// A photograph's log luminance at 1224 x 816 as the guide. As the solution is rounded to float
// and the matrix has entries near 1e4 where the photograph is flat, the residual is measured
// against |A| |x| + |b| (the normwise backward error, in the maximum norm), which float
// rounding alone keeps near 1e-7.
TEST(SparseSolver, SmallResidualOnMegapixelPhoto) {
    cv::Mat grey, y;
    cv::cvtColor(kxtest::photo("coffee.png"), grey, cv::COLOR_BGR2GRAY);
    cv::resize(grey, grey, cv::Size(1224, 816), 0, 0, cv::INTER_CUBIC);
    grey.convertTo(y, CV_32F, 1.0 / 255, 1e-4);
    cv::Mat guide;
    cv::log(y, guide);
    Csr m = smoothingMatrix(guide, 1, 1.2f);
    std::vector<float> b(y.begin<float>(), y.end<float>());
    std::vector<float> const rhs = b;
    ASSERT_EQ(solve(m, b), 0);
    std::vector<double> r(rhs.begin(), rhs.end()), rowSum(m.n, 0.0);
    for (int i = 0; i < m.n; ++i)
        for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
            int const j = m.ja[k] - 1;
            r[i] -= double(m.a[k]) * b[j], rowSum[i] += std::abs(m.a[k]);
            if (j != i) r[j] -= double(m.a[k]) * b[i], rowSum[j] += std::abs(m.a[k]);
        }
    auto maxAbs = [](auto const &v) {
        double t = 0;
        for (double e : v)
            t = std::max(t, std::abs(e));
        return t;
    };
    EXPECT_LE(maxAbs(r) / (maxAbs(rowSum) * maxAbs(b) + maxAbs(rhs)), 1e-6);
}

}  // namespace
