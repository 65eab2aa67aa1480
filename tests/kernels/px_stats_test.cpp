// Tests of the statistics kernels: even levels, even histograms and region extremes.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "kestrix1/kernels/px_stats.h"
#include "tests/support/images.h"

namespace {

template <class T>
class PxStats : public ::testing::Test {};
using StatsTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxStats, StatsTypes);

// Histograms of full-range noise against counts by the rule of px_stats.h, then extremes that
// sit at the ends of the last two rows, where a loop that stops short would miss them.
TYPED_TEST(PxStats, HistogramsAndExtremesMatchReference) {
    using T = TypeParam;
    using Lim = std::numeric_limits<T>;
    // One channel, then three: uneven bins, bins past the type's ends, values counted by none.
    int const levels[2][3] = {{7}, {257, 17, 5}};
    int const lower[2][3] = {{100}, {Lim::min(), -1000, Lim::min() - 5000}};
    int const upper[2][3] = {{60000}, {Lim::max() + 1, 1000, Lim::max() + 5000}};
    for (int channels : {1, 3})
        for (int w : kxtest::kAwkwardWidths) {
            SCOPED_TRACE(::testing::Message() << channels << " channels, width " << w);
            int const h = w > 1000 ? 9 : 4;  // the widest region is split among threads
            kxtest::PaddedMat img(h, w, kxtest::typeOf<T>(channels));
            kxtest::fullRangeNoise<T>(h, w, channels, w).copyTo(img.view);
            int const *n = levels[channels / 3], *lo = lower[channels / 3],
                      *hi = upper[channels / 3];
            std::vector<int> hist[3];
            int *out[3];
            for (int c = 0; c < channels; ++c)
                out[c] = (hist[c] = std::vector<int>(n[c] - 1, -1)).data();
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
            cv::Mat const flat = img.view.clone().reshape(1, h * w);
            cv::Mat mins, maxs;
            cv::reduce(flat, mins, 0, cv::REDUCE_MIN);
            cv::reduce(flat, maxs, 0, cv::REDUCE_MAX);
            for (int c = 0; c < channels; ++c)
                EXPECT_TRUE(mn[c] == mins.at<T>(c) && mx[c] == maxs.at<T>(c)) << "channel " << c;
            EXPECT_TRUE(channels > 1 || (mn[1] == 7 && mx[1] == 7)) << "past its channels";
        }
}

// The levels' truncated steps, and one failing call per kind for the three kernels.
TEST(PxEvenLevels, TruncatedStepsAndFailingCallsThatWriteNothing) {
    int l[5] = {42};
    ASSERT_EQ(pxEvenLevels(l, 5, -3, 7), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(l, l + 5), (std::vector<int>{-3, -1, 2, 4, 7}));
    EXPECT_EQ(pxEvenLevels(l, 1, 0, 10), pxStsBadArgErr);
    EXPECT_EQ(pxEvenLevels(nullptr, 5, 0, 10), pxStsNullPtrErr);
    cv::Mat img = kxtest::noise(2, 3, CV_16U, 1, 0, 65536);
    std::vector<int> hist(4, -1);
    auto const *p = img.ptr<std::uint16_t>();
    std::uint16_t lo = 9, hi = 9;
    EXPECT_EQ(pxHistogramEven(p, 6, {3, 2}, hist.data(), 1, 0, 100), pxStsBadArgErr);
    EXPECT_EQ(pxHistogramEven(p, 4, {3, 2}, hist.data(), 5, 0, 100), pxStsStepErr);
    EXPECT_EQ(pxMinMax(p, 6, {3, 2}, &lo, nullptr, 1), pxStsNullPtrErr);
    EXPECT_EQ(pxMinMax(p, 6, {3, 2}, &lo, &hi, 2), pxStsBadArgErr);
    EXPECT_TRUE(hist == std::vector<int>(4, -1) && lo == 9 && hi == 9);
}

}  // namespace
