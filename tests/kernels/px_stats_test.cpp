// Tests of the statistics kernels: even levels, even histograms and region extremes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <vector>

#include "kestrix1/kernels/px_stats.h"
#include "tests/support/images.h"

namespace {

TEST(PxEvenLevels, TruncatedSteps) {
    int l[5] = {42};
    EXPECT_EQ(pxEvenLevels(l, 1, 0, 10), pxStsBadArgErr);
    EXPECT_EQ(pxEvenLevels(nullptr, 5, 0, 10), pxStsNullPtrErr);
    ASSERT_EQ(pxEvenLevels(l, 5, -3, 7), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(l, l + 5), (std::vector<int>{-3, -1, 2, 4, 7}));
}

template <class T>
class PxStats : public ::testing::Test {};
using StatsTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxStats, StatsTypes);

// Histograms of full-range noise against counts by the rule of px_stats.h, then the extremes
// of a narrow band of noise whose rows end in the ends of the range, where a loop that stops
// one short would miss them; one and three channels over every awkward width.
TYPED_TEST(PxStats, HistogramsAndExtremesMatchReference) {
    using T = TypeParam;
    using Lim = std::numeric_limits<T>;
    // {nLevels, lower, upper}: for one channel, then for three. Uneven bins, bins past the
    // ends of the type, and values outside [lower, upper) that no bin counts.
    std::array<int, 3> const bins[4] = {{7, 100, 60000},
                                        {257, Lim::min(), Lim::max() + 1},
                                        {17, -1000, 1000},
                                        {5, Lim::min() - 5000, Lim::max() + 5000}};
    for (int channels : {1, 3})
        for (int w : kxtest::kAwkwardWidths) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, width " << w);
            int const h = w > 1000 ? 9 : 4;  // the widest region is split among threads
            kxtest::PaddedMat img(h, w, kxtest::typeOf<T>(channels));
            kxtest::fullRangeNoise<T>(h, w, channels, w).copyTo(img.view);
            std::vector<int> hist[3];
            int *out[3], n[3], lo[3], hi[3];
            for (int c = 0; c < channels; ++c) {
                std::array<int, 3> const b = bins[channels == 1 ? 0 : c + 1];
                hist[c].assign(b[0] - 1, -1);
                out[c] = hist[c].data(), n[c] = b[0], lo[c] = b[1], hi[c] = b[2];
            }
            T *p = img.ptr<T>();
            ASSERT_EQ(channels == 1
                          ? pxHistogramEven(p, img.step(), {w, h}, out[0], n[0], lo[0], hi[0])
                          : pxHistogramEven(p, img.step(), {w, h}, out, n, lo, hi),
                      pxStsNoErr);
            for (int c = 0; c < channels; ++c) {
                std::vector<int> want(n[c] - 1, 0);
                auto level = [&](int k) {
                    return lo[c] + (std::int64_t(hi[c]) - lo[c]) * k / (n[c] - 1);
                };
                for (int y = 0; y < h; ++y)
                    for (int i = c; i < w * channels; i += channels)
                        for (int k = 0; k + 1 < n[c]; ++k)
                            want[k] += level(k) <= img.view.ptr<T>(y)[i] &&
                                       img.view.ptr<T>(y)[i] < level(k + 1);
                EXPECT_EQ(hist[c], want) << "channel " << c;
            }
            kxtest::noise(h, w, img.view.type(), w, 100, 200).copyTo(img.view);
            img.view.ptr<T>(h - 2)[w * channels - 1] = Lim::min();
            img.view.ptr<T>(h - 1)[w * channels - 1] = Lim::max();
            T mn[3] = {7, 7, 7}, mx[3] = {7, 7, 7};
            ASSERT_EQ(pxMinMax(p, img.step(), {w, h}, mn, mx, channels), pxStsNoErr);
            std::vector<cv::Mat> planes;
            cv::split(img.view, planes);
            for (int c = 0; c < channels; ++c) {
                double a, b;
                cv::minMaxLoc(planes[c], &a, &b);
                EXPECT_TRUE(mn[c] == a && mx[c] == b) << "channel " << c;
            }
            EXPECT_TRUE(channels > 1 || (mn[1] == 7 && mx[1] == 7)) << "past its channels";
        }
}

TEST(PxStatsArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat img = kxtest::noise(2, 3, CV_16U, 1, 0, 65536);
    std::vector<int> hist(4, -1);
    auto const *p = img.ptr<std::uint16_t>();
    std::uint16_t lo = 9, hi = 9;
    EXPECT_EQ(pxHistogramEven(p, 6, {3, 2}, hist.data(), 1, 0, 100), pxStsBadArgErr);
    EXPECT_EQ(pxHistogramEven(p, 4, {3, 2}, hist.data(), 5, 0, 100), pxStsStepErr);
    int *three[3] = {hist.data(), nullptr, hist.data()};
    int const n[3] = {5, 5, 5}, lo3[3] = {0, 0, 0}, hi3[3] = {9, 9, 9};
    EXPECT_EQ(pxHistogramEven(p, 18, {3, 2}, three, n, lo3, hi3), pxStsNullPtrErr);
    EXPECT_EQ(pxMinMax(p, 6, {3, 2}, &lo, nullptr, 1), pxStsNullPtrErr);
    EXPECT_EQ(pxMinMax(p, 6, {3, 2}, &lo, &hi, 2), pxStsBadArgErr);
    EXPECT_TRUE(std::count(hist.begin(), hist.end(), -1) == 4 && lo == 9 && hi == 9);
}

}  // namespace
