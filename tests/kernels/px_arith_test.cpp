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

// Every operation out of place and over its second operand, on operands of both signs (the
// source without zeros, for the divisions); squares and sums with a constant likewise.
TEST(PxArithmetic, OperationsTakeOperandsInOrderInEveryForm) {
    struct {
        Binary outOfPlace;
        BinaryInPlace inPlace;
        float (*op)(float a, float b);  // for source a and second operand b
    } const cases[] = {{pxAdd, pxAdd, [](float a, float b) { return a + b; }},
                       {pxSub, pxSub, [](float a, float b) { return b - a; }},
                       {pxMul, pxMul, [](float a, float b) { return a * b; }},
                       {pxDiv, pxDiv, [](float a, float b) { return b / a; }}};
    for (int w : kxtest::kAwkwardWidths) {
        PaddedMat a = floats(3, w, w, 0.5, 4.0, 24), dst(3, w, CV_32F, 40);
        cv::Mat const a0 = a.view.clone();
        IppiSize const z{w, 3};
        for (auto const &c : cases) {
            SCOPED_TRACE(::testing::Message() << "operation " << &c - cases << " width " << w);
            PaddedMat b = floats(3, w, w + 1, -8.0, 8.0, 8);
            cv::Mat const b0 = b.view.clone();
            ASSERT_EQ(c.outOfPlace(a.ptr<float>(), a.step(), b.ptr<float>(), b.step(),
                                   dst.ptr<float>(), dst.step(), z),
                      pxStsNoErr);
            int wrong = 0;
            for (int i = 0; i < 3 * w; ++i)
                wrong += dst.view.at<float>(i / w, i % w) !=
                         c.op(a0.at<float>(i / w, i % w), b0.at<float>(i / w, i % w));
            EXPECT_EQ(wrong, 0);
            ASSERT_EQ(c.inPlace(a.ptr<float>(), a.step(), b.ptr<float>(), b.step(), z), 0);
            EXPECT_TRUE(dst.paddingIntact() && b.paddingIntact());
            EXPECT_EQ(cv::norm(b.view, dst.view, cv::NORM_INF), 0.0) << "in place";
        }
        ASSERT_EQ(pxSqr(a.ptr<float>(), a.step(), dst.ptr<float>(), dst.step(), z), 0);
        EXPECT_EQ(cv::norm(dst.view, a0.mul(a0), cv::NORM_INF), 0.0);
        ASSERT_EQ(pxAddC(a.ptr<float>(), a.step(), -2.5f, dst.ptr<float>(), dst.step(), z), 0);
        EXPECT_EQ(cv::norm(dst.view, a0 - 2.5, cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::norm(a.view, a0, cv::NORM_INF), 0.0) << "source changed";
        // In place: (a - 2.5)^2.
        ASSERT_EQ(pxAddC(a.ptr<float>(), a.step(), z, -2.5f), 0);
        ASSERT_EQ(pxSqr(a.ptr<float>(), a.step(), z), 0);
        EXPECT_TRUE(a.paddingIntact() && dst.paddingIntact());
        EXPECT_EQ(cv::norm(a.view, dst.view.mul(dst.view), cv::NORM_INF), 0.0);
    }
    std::vector<float> a(12, 1.0f), d(12, 5.0f);
    EXPECT_EQ(pxAdd(nullptr, 16, a.data(), 16, d.data(), 16, {4, 3}), pxStsNullPtrErr);
    EXPECT_EQ(pxDiv(a.data(), 16, a.data(), 16, d.data(), 18, {4, 3}), pxStsStepErr);
    EXPECT_EQ(pxSqr(a.data(), 16, d.data(), 16, {4, -1}), pxStsSizeErr);
    EXPECT_EQ(std::count(d.begin(), d.end(), 5.0f), 12) << "changed on a failing call";
}

TEST(PxInvert3x3, AdjugateOverDeterminantAtAnyStridesAndZerosWhenSingular) {
    // A zero in the first pivot position; the inverse has simple fractions.
    float const m[9] = {0, 1, 2, 1, 0, 3, 4, -3, 8};
    float const inv[9] = {-4.5, 7, -1.5, -2, 4, -1, 1.5, -2, 0.5};
    float buffer[9];
    // Packed row-major, transposed through the strides, and rows with a gap between them.
    int const layouts[][2] = {{12, 4}, {4, 12}, {20, 4}};
    for (auto const &in : layouts)
        for (auto const &out : layouts) {
            std::vector<float> src(40, -7.0f), dst(40, -7.0f);
            for (int k = 0; k < 9; ++k)
                src[(k / 3 * in[0] + k % 3 * in[1]) / 4] = m[k];
            std::vector<float> const srcBefore = src;
            ASSERT_EQ(pxInvert3x3(src.data(), in[0], in[1], buffer, dst.data(), out[0], out[1]), 0);
            for (int k = 0; k < 9; ++k)
                EXPECT_NEAR(dst[(k / 3 * out[0] + k % 3 * out[1]) / 4], inv[k], 1e-5)
                    << k << " of " << in[0] << "/" << in[1] << " -> " << out[0] << "/" << out[1];
            EXPECT_EQ(src, srcBefore);
            EXPECT_EQ(std::count(dst.begin(), dst.end(), -7.0f), 40 - 9) << "stray";
        }
    // Rank 2, two proportional rows, all zero: a status and zeros.
    float const singular[][9] = {
        {1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 2, 3, 2, 4, 6, 0, 0, 1}, {0, 0, 0, 0, 0, 0, 0, 0, 0}};
    for (auto const &s : singular) {
        float d[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
        EXPECT_EQ(pxInvert3x3(s, 12, 4, buffer, d, 12, 4), pxStsSingularErr);
        EXPECT_EQ(std::count(d, d + 9, 0.0f), 9);
    }
    EXPECT_EQ(pxInvert3x3(m, 12, 4, nullptr, buffer, 12, 4), pxStsNullPtrErr);
}

}  // namespace
