// HistMatch, HistTransfer and Normalization against values worked out by hand and plain code.
#include "kestrix1/hist/hist_match.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <opencv2/imgproc.hpp>

#include "kestrix1/hist/hist_transfer.h"
#include "kestrix1/hist/normalization.h"
#include "tests/support/images.h"
#include "tests/support/vector_paths.h"

using u16 = std::uint16_t;

TEST(HistMatch, CdfOfAConstantPlaneStepsAtItsBin) {
    cv::Mat cdf, grad, flat(9, 13, CV_16UC1, cv::Scalar(40000));  // bin 40000 256 / 65535 = 156
    HistMatch::computeCDF(flat, cdf, 256);
    HistMatch::computeGradientCDF(flat, grad, 256);  // no detail: all at 32768, bin 128
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(cdf.at<float>(i) == (i >= 156) && grad.at<float>(i) == (i >= 128)) << i;
}

TEST(HistMatch, MatchSearchesForwardAndKeepsThePreviousValue) {
    cv::Mat cdf, curve;
    HistMatch::computeCDF(kxtest::ramp(64, 1024, CV_16UC1), cdf, 256);
    HistMatch::match(cdf, cdf, curve);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(curve.at<float>(i), i / 256.0f);
    // 0.2 finds j = 1, 0.5 equals to[1], 0.9 and 1.0 lie above all of `to` and keep 1 / 4.
    std::vector<float> const from{0.2f, 0.5f, 0.9f, 1.0f}, to{0.1f, 0.5f, 0.6f, 0.8f};
    HistMatch::match(cv::Mat(from), cv::Mat(to), curve);
    EXPECT_EQ(cv::countNonZero(curve != 0.25f), 0);
}

TEST(HistMatch, RemapIsThePlainPiecewiseLinearTable) {
    cv::Mat const in = kxtest::fullRangeNoise<u16>(7, 33, 1, 5);
    cv::Mat wide(9, 40, CV_16UC1), curve(256, 1, CV_32FC1), out = wide.colRange(2, 35);
    for (bool identity : {true, false}) {  // i / 256: the values are the levels, no change
        for (int i = 0; i < 256; ++i)
            curve.at<float>(i) = identity ? i / 256.0f : std::sqrt(i / 255.0f);
        HistMatch::remap(in, curve, out);  // a row step above the width
        auto value = [&](int k) { return std::int64_t(curve.at<float>(k) * 65535.0); };
        for (int p = 0; p < 7 * 33; ++p) {
            std::int64_t const v = in.at<u16>(p / 33, p % 33);
            int const k = int(std::min<std::int64_t>(254, ((v + 1) * 256 - 1) / 65535));
            std::int64_t const l0 = k * 65535 >> 8, l1 = (k + 1) * 65535 >> 8;
            ASSERT_EQ(out.at<u16>(p / 33, p % 33),  // from the last level on v stays
                      v >= l1 ? v : value(k) + (v - l0) * (value(k + 1) - value(k)) / (l1 - l0));
        }
    }
}

TEST(HistTransfer, FilterHistAndClipLevelFollowThePlainFormulas) {
    cv::Mat const noise = kxtest::noise(1, 37, CV_32SC1, 7, 0, 100000);
    for (float sigma : {0.0f, 0.1f, 0.5f, 5.0f}) {  // 5: R limited to n
        std::vector<int> bins(noise.begin<int>(), noise.end<int>());
        double const s = float(sigma * 0.25 * 37);
        int const R = std::min(int(3 * float(s)), 37);  // OpenCV's weights, ends reflected
        cv::Mat want, one(1, 1, CV_64F, 1.0), kernel = cv::getGaussianKernel(2 * R + 1, s, CV_64F);
        cv::sepFilter2D(cv::Mat_<double>(noise), want, CV_64F, kernel, one, {-1, -1}, 0,
                        cv::BORDER_REFLECT);
        HistTransfer::filterHist(bins.data(), 37, sigma);
        for (int b = 0; b < 37; ++b)
            EXPECT_NEAR(bins[b], int(want.at<double>(b)), 1) << sigma << " " << b;
    }
    EXPECT_EQ(HistTransfer::clipLevel(0.0f, 1000.0f, 0.3f), 1000);
    EXPECT_EQ(HistTransfer::clipLevel(0.05f, 1000.0f, 0.3f), 300);
    EXPECT_EQ(HistTransfer::clipLevel(1.0f, 1000.0f, 0.3f), 5);  // 1000 x 1.5 / 256
}

TEST(HistTransfer, EqualHistogramsGiveTheIdentityOrTheRangesScale) {
    cv::Mat const noise = kxtest::noise(1, 256, CV_32SC1, 3, 0, 5000);
    std::vector<int> noisy(noise.begin<int>(), noise.end<int>()), zero(256, 0), flat(256, 9);
    std::vector<short> t(65536);
    for (std::vector<int> h : {noisy, zero, flat}) {  // a range half as wide: half the values
        int const top = h == flat ? 16383 : 32767;
        HistTransfer::transfer1D(h.data(), h.data(), -32768, 32767, t.data(), -top - 1, top, 0.25f);
        for (int v = -32768; v < 32768; ++v)
            ASSERT_NEAR(t[v + 32768], h == flat ? v / 2.0 : v, h == flat) << v;
    }
}

TEST(Normalization, MatchesThePlainFormulaAtItsLimitsAndEveryThreadCount) {
    int const rows = 9, cols = 4099;
    auto noise = [&](int seed) { return kxtest::fullRangeNoise<u16>(rows, cols, 1, seed); };
    cv::Mat ab[2] = {noise(1), noise(2)}, d0[2] = {noise(3), noise(4)}, d[2];
    // q = 1024 / 1025 (a = b = 0); limited to 4 and to 0.5; exactly 1 (a = b + 1).
    u16 a4[] = {0, 65535, 0, 101}, b4[] = {0, 0, 65535, 100}, d4[] = {32768, 0, 65535, 12345};
    for (auto [from, to] : {std::pair{a4, ab[0]}, {b4, ab[1]}, {d4, d0[0]}, {d4, d0[1]}})
        cv::Mat(1, 4, CV_16UC1, from).copyTo(to(cv::Rect(0, 0, 4, 1)));
    kxtest::forEachVectorPath([&] {
        for (float strength : {0.0f, 1.0f, 0.7f, 2.5f})
            for (int threads : {1, 2, 4}) {
                omp_set_num_threads(threads);
                d[0] = d0[0].clone(), d[1] = d0[1].clone();
                Normalization::normalizeDBDR(ab[0], ab[1], d[0], d[1], strength);
                for (int p = 0, k = 0; p < 2 * rows * cols; ++p, k = p / (rows * cols)) {
                    int const y = p / cols % rows, x = p % cols;
                    double const q =
                        (ab[0].at<u16>(y, x) + 1024.0) / (ab[1].at<u16>(y, x) + 1025.0);
                    double const w = std::clamp(q, 0.5, 4.0) * strength;
                    double const want = std::nearbyint(d0[k].at<u16>(y, x) * w + (1 - w) * 32769.0);
                    ASSERT_EQ(d[k].at<u16>(y, x), std::clamp(want, 0.0, 65535.0)) << strength << p;
                }
            }
    });
}
