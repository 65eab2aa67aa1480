// Tests of the statistics kernels: even levels, even histograms and region extremes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kestrix1/kernels/px_stats.h"
#include "tests/support/images.h"

namespace {

using kxtest::PaddedMat;

TEST(PxEvenLevels, TruncatedSteps) {
    int l[5] = {42};
    EXPECT_EQ(pxEvenLevels(l, 1, 0, 10), pxStsBadArgErr);
    EXPECT_EQ(pxEvenLevels(nullptr, 5, 0, 10), pxStsNullPtrErr);
    EXPECT_EQ(l[0], 42);
    ASSERT_EQ(pxEvenLevels(l, 5, 0, 10), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(l, l + 5), (std::vector<int>{0, 2, 5, 7, 10}));
    ASSERT_EQ(pxEvenLevels(l, 4, -5, 5), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(l, l + 4), (std::vector<int>{-5, -2, 1, 5}));
}

// One channel's histogram: {nLevels, lower, upper}.
struct Bins {
    int n, lower, upper;
};

// Counts of every channel by the rule of px_stats.h, with the levels computed here, against
// the kernel over full-range noise of every awkward width.
template <class T>
void checkHistogram(std::vector<Bins> const &bins) {
    int const channels = int(bins.size());
    for (int w : kxtest::kAwkwardWidths) {
        int const h = w > 1000 ? 9 : 4;  // the widest region is split among threads
        PaddedMat img(h, w, kxtest::typeOf<T>(channels));
        kxtest::fullRangeNoise<T>(h, w, channels, w).copyTo(img.view);
        std::vector<std::vector<int>> hist(3);
        int *out[3], n[3], lo[3], hi[3];
        for (int c = 0; c < channels; ++c) {
            hist[c].assign(bins[c].n - 1, -1);
            out[c] = hist[c].data(), n[c] = bins[c].n, lo[c] = bins[c].lower, hi[c] = bins[c].upper;
        }
        ASSERT_EQ(channels == 1 ? pxHistogramEven(img.ptr<T>(), img.step(), {w, h}, out[0], n[0],
                                                  lo[0], hi[0])
                                : pxHistogramEven(img.ptr<T>(), img.step(), {w, h}, out, n, lo, hi),
                  pxStsNoErr);
        for (int c = 0; c < channels; ++c) {
            Bins const b = bins[c];
            std::vector<int> want(b.n - 1, 0);
            auto level = [&](int k) {
                return b.lower + (std::int64_t(b.upper) - b.lower) * k / (b.n - 1);
            };
            for (int y = 0; y < h; ++y)
                for (int i = c; i < w * channels; i += channels)
                    for (int k = 0; k + 1 < b.n; ++k)
                        want[k] += level(k) <= img.view.ptr<T>(y)[i] &&
                                   img.view.ptr<T>(y)[i] < level(k + 1);
            EXPECT_EQ(hist[c], want) << "channel " << c << " width " << w;
        }
    }
}

TEST(PxHistogramEven, MatchesReferenceCountsAndRejectsBadArguments) {
    checkHistogram<std::uint16_t>({{257, 0, 65536}});
    // Uneven bins, and values outside [lower, upper) that no bin counts.
    checkHistogram<std::uint16_t>({{7, 100, 60000}});
    checkHistogram<std::uint16_t>({{257, 0, 65536}, {2, 0, 65536}, {5, 30000, 30010}});
    checkHistogram<std::int16_t>({{1025, -32768, 32768}});
    checkHistogram<std::int16_t>({{1025, -32768, 32768}, {17, -1000, 1000}, {4, -7, 7}});
    // Failing calls leave the counts alone.
    cv::Mat img = kxtest::noise(2, 3, CV_16U, 1, 0, 65536);
    std::vector<int> hist(4, -1);
    std::uint16_t const *p = img.ptr<std::uint16_t>();
    EXPECT_EQ(pxHistogramEven(p, 6, {3, 2}, hist.data(), 1, 0, 100), pxStsBadArgErr);
    EXPECT_EQ(pxHistogramEven(p, 6, {3, 2}, hist.data(), 5, 100, 100), pxStsBadArgErr);
    EXPECT_EQ(pxHistogramEven(p, 6, {3, 2}, static_cast<int *>(nullptr), 5, 0, 100),
              pxStsNullPtrErr);
    EXPECT_EQ(pxHistogramEven(p, 4, {3, 2}, hist.data(), 5, 0, 100), pxStsStepErr);
    EXPECT_EQ(pxHistogramEven(p, 6, {0, 2}, hist.data(), 5, 0, 100), pxStsSizeErr);
    int *three[3] = {hist.data(), nullptr, hist.data()};
    int const n[3] = {5, 5, 5}, lo[3] = {0, 0, 0}, hi[3] = {9, 9, 9};
    EXPECT_EQ(pxHistogramEven(p, 18, {3, 2}, three, n, lo, hi), pxStsNullPtrErr);
    EXPECT_EQ(std::count(hist.begin(), hist.end(), -1), 4);
}

template <class T>
class PxMinMax : public ::testing::Test {};
using MinMaxTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxMinMax, MinMaxTypes);

TYPED_TEST(PxMinMax, PerChannelExtremes) {
    using T = TypeParam;
    for (int channels : {1, 3})
        for (int w : kxtest::kAwkwardWidths) {
            // A narrow band of noise, with the ends of the range in the last element of a row,
            // where a loop that stops one short would miss them.
            PaddedMat img(3, w, kxtest::typeOf<T>(channels));
            kxtest::noise(3, w, img.view.type(), w, 100, 200).copyTo(img.view);
            img.view.ptr<T>(1)[w * channels - 1] = std::numeric_limits<T>::min();
            img.view.ptr<T>(2)[w * channels - 1] = std::numeric_limits<T>::max();
            T lo[3] = {7, 7, 7}, hi[3] = {7, 7, 7};
            ASSERT_EQ(pxMinMax(img.ptr<T>(), img.step(), {w, 3}, lo, hi, channels), 0);
            std::vector<cv::Mat> planes;
            cv::split(img.view, planes);
            for (int c = 0; c < channels; ++c) {
                double mn, mx;
                cv::minMaxLoc(planes[c], &mn, &mx);
                EXPECT_TRUE(lo[c] == mn && hi[c] == mx) << "channel " << c << " width " << w;
            }
            EXPECT_TRUE(channels > 1 || (lo[1] == 7 && hi[1] == 7)) << "past its channels";
        }
    T v[4] = {1, 2, 3, 4}, lo = 9, hi = 9;
    EXPECT_EQ(pxMinMax(v, 8, {4, 1}, &lo, &hi, 2), pxStsBadArgErr);
    EXPECT_EQ(pxMinMax(v, 8, {4, 1}, &lo, nullptr, 1), pxStsNullPtrErr);
    EXPECT_EQ(pxMinMax(v, 6, {4, 1}, &lo, &hi, 1), pxStsStepErr);
    EXPECT_EQ(pxMinMax(v, 8, {4, 0}, &lo, &hi, 1), pxStsSizeErr);
    EXPECT_TRUE(lo == 9 && hi == 9) << "changed on a failing call";
}

}  // namespace
