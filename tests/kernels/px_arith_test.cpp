// Tests of the float arithmetic kernels and the 3x3 matrix inverse.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kestrix1/kernels/px_arith.h"
#include "tests/support/elementwise.h"

namespace {

// Every form on the checked region b; a is negative (results of both signs, no zero divisor).
TEST(PxArithmetic, EveryFormTakesOperandsInOrder) {
    cv::Mat const a = kxtest::noise(8, 4100, CV_32F, 7, -4.0, -0.25);
    float const *pa = a.ptr<float>();
    int const as = int(a.step);
    auto both = [](auto want, auto outOfPlace, auto inPlace) {
        kxtest::forEachWidth<float>(1, 8, false, 0, want, outOfPlace);
        kxtest::forEachWidth<float>(1, 8, true, 0, want, inPlace);
    };
    both([&](double b, int y, int i, auto) { return a.at<float>(y, i) + float(b); },
         [&](auto c) { return pxAdd(pa, as, c.s, c.ss, c.d, c.ds, c.z); },
         [&](auto c) { return pxAdd(pa, as, c.d, c.ds, c.z); });
    both([&](double b, int y, int i, auto) { return float(b) - a.at<float>(y, i); },
         [&](auto c) { return pxSub(pa, as, c.s, c.ss, c.d, c.ds, c.z); },
         [&](auto c) { return pxSub(pa, as, c.d, c.ds, c.z); });
    both([&](double b, int y, int i, auto) { return a.at<float>(y, i) * float(b); },
         [&](auto c) { return pxMul(pa, as, c.s, c.ss, c.d, c.ds, c.z); },
         [&](auto c) { return pxMul(pa, as, c.d, c.ds, c.z); });
    both([&](double b, int y, int i, auto) { return float(b) / a.at<float>(y, i); },
         [&](auto c) { return pxDiv(pa, as, c.s, c.ss, c.d, c.ds, c.z); },
         [&](auto c) { return pxDiv(pa, as, c.d, c.ds, c.z); });
    both([](double b, auto...) { return float(b) * float(b); },
         [](auto c) { return pxSqr(c.s, c.ss, c.d, c.ds, c.z); },
         [](auto c) { return pxSqr(c.d, c.ds, c.z); });
    both([](double b, auto...) { return float(b) - 2.5f; },
         [](auto c) { return pxAddC(c.s, c.ss, -2.5f, c.d, c.ds, c.z); },
         [](auto c) { return pxAddC(c.d, c.ds, c.z, -2.5f); });
    std::vector<float> b(12, 1.0f), d(12, 5.0f);
    EXPECT_EQ(pxAdd(nullptr, 16, b.data(), 16, d.data(), 16, {4, 3}), pxStsNullPtrErr);
    EXPECT_EQ(pxDiv(b.data(), 16, b.data(), 16, d.data(), 18, {4, 3}), pxStsStepErr);
    EXPECT_EQ(pxSqr(b.data(), 16, d.data(), 16, {4, -1}), pxStsSizeErr);
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
            ASSERT_EQ(pxInvert3x3(src.data(), in[0], in[1], buffer, dst.data(), out[0], out[1]), 0);
            for (int k = 0; k < 9; ++k)
                EXPECT_NEAR(dst[(k / 3 * out[0] + k % 3 * out[1]) / 4], inv[k], 1e-5) << k;
            EXPECT_EQ(std::count(dst.begin(), dst.end(), -7.0f), 40 - 9) << "stray";
        }
    // Rank 2: a status and zeros.
    float const singular[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    float d[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    EXPECT_EQ(pxInvert3x3(singular, 12, 4, buffer, d, 12, 4), pxStsSingularErr);
    EXPECT_EQ(std::count(d, d + 9, 0.0f), 9);
    EXPECT_EQ(pxInvert3x3(m, 12, 4, nullptr, buffer, 12, 4), pxStsNullPtrErr);
}

}  // namespace
