// Tests of the weighted-least-squares smoother against its system built and solved densely.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "kestrix1/filters/t_wls_filter.h"
#include "kestrix1/kernels/sparse_solver.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using Floats = std::vector<float>;

// The system from its definition: the identity, and for each pair of neighbours (p, q) the
// weight a = -lambda / (|L_q - L_p|^alpha + 0.0001) at (p, q) and (q, p), -a on both diagonals.
cv::Mat plainSystem(Floats const &L, int w, int h, float lambda, float alpha) {
    cv::Mat A = cv::Mat::eye(w * h, w * h, CV_64F);
    auto pair = [&](int p, int q) {
        double const a = -lambda / (float(std::pow(std::fabs(L[q] - L[p]), double(alpha))) + 1e-4f);
        A.at<double>(p, q) += a, A.at<double>(q, p) += a;
        A.at<double>(p, p) -= a, A.at<double>(q, q) -= a;
    };
    for (int p = 0; p < w * h; ++p) {
        if ((p + 1) % w) pair(p, p + 1);
        if (p + w < w * h) pair(p, p + w);
    }
    return A;
}

// The matrix handed to the solver is the plain system's upper triangle, with an entry for each
// right neighbour (explicit zeros at row ends) and each lower one, a one-column image's two in
// one; the result is the dense Cholesky solution.
TEST(WlsFilter, MatchesADenseCholeskyOfThePlainSystem) {
    for (auto [w, h] : {std::pair{13, 9}, {1, 17}, {17, 1}, {2, 3}, {1, 1}}) {
        int const n = w * h;
        cv::Mat const g0 = kxtest::noise(h, w, CV_32F, 7, 0.0, 1.0);
        cv::Mat const L0 = kxtest::checkerboard(h, w, CV_32F, 3, -2.0, -0.2) +
                           kxtest::noise(h, w, CV_32F, 8, 0.0, 0.05);
        Floats g(g0.begin<float>(), g0.end<float>()), L(L0.begin<float>(), L0.end<float>());
        TWLSFilter f;
        EXPECT_EQ(f.Proc(g.data(), w, h, 0.7f, 1.2f, L.data(), false), 1);

        cv::Mat const A = plainSystem(L, w, h, 0.7f, 1.2f);
        cv::Mat stored = cv::Mat::zeros(n, n, CV_64F), b, u;
        ASSERT_EQ(f.rowStart[n] - 1, 2 * n - 1 + (w > 1 ? n - w : 0));
        for (int r = 0; r < n; ++r)
            for (int k = f.rowStart[r] - 1; k < f.rowStart[r + 1] - 1; ++k)
                stored.at<double>(r, f.columnIndex[k] - 1) =
                    stored.at<double>(f.columnIndex[k] - 1, r) = f.matrixValues[k];
        EXPECT_LE(cv::norm(stored, A, cv::NORM_INF), 1e-5 * cv::norm(A, cv::NORM_INF));

        g0.convertTo(b, CV_64F);
        ASSERT_TRUE(cv::solve(A, b.reshape(1, n), u, cv::DECOMP_CHOLESKY));
        for (int i = 0; i < n; ++i)  // the float matrix's condition is near 1e4
            ASSERT_NEAR(g[i], u.at<double>(i), 2e-4) << w << "x" << h << " " << i;
    }
}

// lambda 0 makes the system the identity: g comes back bit for bit, the guide its log. Buffers and
// the solver's analysis are made once per size, kept for empty sizes, and dropped with the size
// when they cannot be made. Copies share the arrays, which live while any copy holds them.
TEST(WlsFilter, LambdaZeroBuffersPerSizeAndCopies) {
    cv::Mat const g0 = kxtest::noise(20, 24, CV_32F, 3, -1.0, 2.0);
    Floats g(g0.begin<float>(), g0.end<float>()), L(g.size(), 0.3f);
    auto f = std::make_unique<TWLSFilter>();
    f->Proc(g.data(), 24, 20, 0.0f, 1.2f, L.data(), true);
    EXPECT_TRUE(std::equal(g.begin(), g.end(), g0.begin<float>()));
    EXPECT_NEAR(L[7], std::log(0.3001), 1e-7);
    float *const values = f->matrixValues;
    long const analyses = kxSparseAnalyses();
    f->Proc(g.data(), 24, 20, 2.0f, 1.5f, L.data(), false);
    f->realloc(0, 5);
    EXPECT_EQ(f->Proc(nullptr, 7, 0, 1.0f, 1.0f, nullptr, true), 1);
    EXPECT_TRUE(kxSparseAnalyses() == analyses && f->matrixValues == values &&
                f->maxNonZeros == 1440);

    TWLSFilter copy(*f), assigned;
    assigned = *f;
    EXPECT_TRUE(copy.weightX == f->weightX && assigned.columnIndex == f->columnIndex);
    EXPECT_EQ(kxtest::thrown([&] { f->realloc(1 << 16, 1 << 15); }),
              "TWLSFilter::realloc - failed");
    EXPECT_TRUE(f->numPixels == 0 && f->weightY == nullptr && f->columnIndex == nullptr);
    f.reset();
    assigned.Proc(g.data(), 24, 20, 1.0f, 1.2f, L.data(), false);
    EXPECT_TRUE(copy.matrixValues[0] == assigned.matrixValues[0] && copy.width == 24);
}

}  // namespace
