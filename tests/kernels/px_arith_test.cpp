// Tests of the float arithmetic kernels and the 3x3 matrix inverse.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestrix1/kernels/px_arith.h"
#include "tests/support/images.h"

namespace {

using kxtest::PaddedMat;

// A float region of values in [lo, hi) with `extra` bytes after each row, so that operands
// have different steps.
PaddedMat floats(int rows, int cols, std::uint64_t seed, double lo, double hi, int extra) {
    PaddedMat m(rows, cols, CV_32F, extra);
    kxtest::noise(rows, cols, CV_32F, seed, lo, hi).copyTo(m.view);
    return m;
}

using Binary = PxStatus (*)(float const *, int, float const *, int, float *, int, IppiSize);
using BinaryInPlace = PxStatus (*)(float const *, int, float *, int, IppiSize);

TEST(PxArithmetic, BinaryOperationsTakeOperandsInOrder) {
    struct {
        Binary outOfPlace;
        BinaryInPlace inPlace;
        float (*op)(float a, float b);  // for source a and second operand b
    } const cases[] = {{pxAdd, pxAdd, [](float a, float b) { return a + b; }},
                       {pxSub, pxSub, [](float a, float b) { return b - a; }},
                       {pxMul, pxMul, [](float a, float b) { return a * b; }},
                       {pxDiv, pxDiv, [](float a, float b) { return b / a; }}};
    for (auto const &c : cases)
        for (int w : kxtest::kAwkwardWidths) {
            SCOPED_TRACE(::testing::Message() << "operation " << &c - cases << " width " << w);
            // Operands of both signs, and a source without zeros for the divisions.
            PaddedMat a = floats(3, w, w, 0.5, 4.0, 24), b = floats(3, w, w + 1, -8.0, 8.0, 8);
            PaddedMat dst(3, w, CV_32F, 40);
            cv::Mat const a0 = a.view.clone(), b0 = b.view.clone();
            ASSERT_EQ(c.outOfPlace(a.ptr<float>(), a.step(), b.ptr<float>(), b.step(),
                                   dst.ptr<float>(), dst.step(), {w, 3}),
                      pxStsNoErr);
            int wrong = 0;
            for (int i = 0; i < 3 * w; ++i)
                wrong += dst.view.at<float>(i / w, i % w) !=
                         c.op(a0.at<float>(i / w, i % w), b0.at<float>(i / w, i % w));
            EXPECT_EQ(wrong, 0);
            // The in-place form overwrites the second operand and leaves the source.
            ASSERT_EQ(c.inPlace(a.ptr<float>(), a.step(), b.ptr<float>(), b.step(), {w, 3}), 0);
            EXPECT_TRUE(dst.paddingIntact() && b.paddingIntact());
            EXPECT_EQ(cv::norm(b.view, dst.view, cv::NORM_INF), 0.0) << "in place";
            EXPECT_EQ(cv::norm(a.view, a0, cv::NORM_INF), 0.0) << "source changed";
        }
}

TEST(PxArithmetic, SquareAndAddConstant) {
    for (int w : kxtest::kAwkwardWidths) {
        PaddedMat a = floats(4, w, 3 * w, -3.0, 3.0, 24), dst(4, w, CV_32F, 8);
        cv::Mat const a0 = a.view.clone();
        ASSERT_EQ(pxSqr(a.ptr<float>(), a.step(), dst.ptr<float>(), dst.step(), {w, 4}), 0);
        EXPECT_EQ(cv::norm(dst.view, a0.mul(a0), cv::NORM_INF), 0.0);
        ASSERT_EQ(pxAddC(a.ptr<float>(), a.step(), 2.5f, dst.ptr<float>(), dst.step(), {w, 4}), 0);
        EXPECT_EQ(cv::norm(dst.view, a0 + 2.5, cv::NORM_INF), 0.0);
        // In place: (a + 2.5)^2.
        ASSERT_EQ(pxAddC(a.ptr<float>(), a.step(), {w, 4}, 2.5f), 0);
        ASSERT_EQ(pxSqr(a.ptr<float>(), a.step(), {w, 4}), 0);
        EXPECT_TRUE(a.paddingIntact() && dst.paddingIntact());
        EXPECT_EQ(cv::norm(a.view, dst.view.mul(dst.view), cv::NORM_INF), 0.0);
    }
    std::vector<float> a(12, 1.0f), b(12, 2.0f), d(12, 5.0f);
    EXPECT_EQ(pxAdd(nullptr, 16, b.data(), 16, d.data(), 16, {4, 3}), pxStsNullPtrErr);
    EXPECT_EQ(pxSub(a.data(), 16, b.data(), 16, nullptr, 16, {4, 3}), pxStsNullPtrErr);
    EXPECT_EQ(pxMul(a.data(), 16, b.data(), 12, d.data(), 16, {4, 3}), pxStsStepErr);
    EXPECT_EQ(pxDiv(a.data(), 16, b.data(), 16, d.data(), 18, {4, 3}), pxStsStepErr);
    EXPECT_EQ(pxDiv(a.data(), 16, b.data(), 16, {0, 3}), pxStsSizeErr);
    EXPECT_EQ(pxSqr(a.data(), 16, d.data(), 16, {4, -1}), pxStsSizeErr);
    EXPECT_EQ(pxAddC(a.data(), 15, 1.0f, d.data(), 16, {4, 3}), pxStsStepErr);
    EXPECT_EQ(pxSub(a.data(), 16, b.data(), 8, {4, 3}), pxStsStepErr);
    EXPECT_EQ(std::count(d.begin(), d.end(), 5.0f), 12) << "changed on a failing call";
    EXPECT_EQ(std::count(b.begin(), b.end(), 2.0f), 12) << "changed on a failing call";
}

// A matrix at the given strides in bytes inside a buffer of floats.
struct Strided {
    Strided(int s1, int s2, double const *m = nullptr) : s1(s1), s2(s2) {
        for (int k = 0; m && k < 9; ++k)
            at(k / 3, k % 3) = float(m[k]);
    }
    float &at(int i, int j) { return data[(i * s1 + j * s2) / 4]; }
    PxStatus invertInto(Strided &dst, float *buffer) {
        return pxInvert3x3(data.data(), s1, s2, buffer, dst.data.data(), dst.s1, dst.s2);
    }
    int s1, s2;
    std::vector<float> data = std::vector<float>(40, -7.0f);
};

TEST(PxInvert3x3, KnownAndRandomInversesAndSingularMatrices) {
    // A zero in the first pivot position; the inverse has simple fractions.
    double const a[9] = {0, 1, 2, 1, 0, 3, 4, -3, 8};
    double const inv[9] = {-4.5, 7, -1.5, -2, 4, -1, 1.5, -2, 0.5};
    float buffer[9];
    // Packed row-major, transposed through the strides, and rows with a gap between them.
    int const layouts[][2] = {{12, 4}, {4, 12}, {20, 4}};
    for (auto const &in : layouts)
        for (auto const &out : layouts) {
            SCOPED_TRACE(::testing::Message()
                         << in[0] << "/" << in[1] << " -> " << out[0] << "/" << out[1]);
            Strided src(in[0], in[1], a), dst(out[0], out[1]);
            std::vector<float> const srcBefore = src.data;
            ASSERT_EQ(src.invertInto(dst, buffer), pxStsNoErr);
            for (int k = 0; k < 9; ++k)
                EXPECT_NEAR(dst.at(k / 3, k % 3), inv[k], 1e-5) << k;
            EXPECT_EQ(src.data, srcBefore);
            EXPECT_EQ(std::count(dst.data.begin(), dst.data.end(), -7.0f), 40 - 9) << "stray";
        }
    // Rank 2, two proportional rows, all zero: a status and zeros.
    double const singular[][9] = {
        {1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 2, 3, 2, 4, 6, 0, 0, 1}, {0, 0, 0, 0, 0, 0, 0, 0, 0}};
    for (auto const &m : singular) {
        Strided src(12, 4, m), dst(12, 4);
        EXPECT_EQ(src.invertInto(dst, buffer), pxStsSingularErr);
        EXPECT_EQ(std::count(dst.data.begin(), dst.data.begin() + 9, 0.0f), 9);
    }
    float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, d[9] = {};
    EXPECT_EQ(pxInvert3x3(nullptr, 12, 4, buffer, d, 12, 4), pxStsNullPtrErr);
    EXPECT_EQ(pxInvert3x3(m, 12, 4, nullptr, d, 12, 4), pxStsNullPtrErr);
    EXPECT_EQ(pxInvert3x3(m, 12, 4, buffer, nullptr, 12, 4), pxStsNullPtrErr);
    // Random diagonally dominant matrices (well conditioned, signs and sizes varying) times
    // their inverses give the identity.
    cv::RNG rng(2024);
    for (int trial = 0; trial < 200; ++trial) {
        double r[9];
        for (int k = 0; k < 9; ++k)
            r[k] = rng.uniform(-1.0, 1.0) + (k % 4 == 0 ? 4.0 : 0.0);
        if (trial % 2) std::swap_ranges(r, r + 3, r + 6);  // the largest pivot not on top
        Strided src(12, 4, r), dst(4, 12);
        ASSERT_EQ(src.invertInto(dst, buffer), 0);
        for (int k = 0; k < 9; ++k) {
            double p = 0;
            for (int j = 0; j < 3; ++j)
                p += double(src.at(k / 3, j)) * dst.at(j, k % 3);
            ASSERT_NEAR(p, k / 3 == k % 3 ? 1.0 : 0.0, 1e-5) << "trial " << trial;
        }
    }
}

}  // namespace
