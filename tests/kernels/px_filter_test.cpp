// Tests of the neighbourhood kernels: box mean, 5x5 Gaussian, 3x3 extremes, erode, dilate.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_filter.h"
#include "tests/support/elementwise.h"

namespace {

// The awkward widths, and a region large enough to be split among threads.
IppiSize const kSizes[] = {{1, 3}, {7, 4}, {33, 3}, {4099, 3}, {4099, 9}};

// Full-range noise with, on wide planes, stripes at both ends of the range, where sums wrap.
template <class T>
cv::Mat noisyPlane(int rows, int cols, std::uint64_t seed) {
    cv::Mat plane = kxtest::fullRangeNoise<T>(rows, cols, 1, seed);
    if (cols > 64) {
        plane.colRange(20, 32).setTo(kxtest::topOf<T>());
        plane.colRange(40, 52).setTo(0);
    }
    return plane;
}

struct Window {
    IppiSize mask;
    IppiPoint anchor;
};

// kernel(call) on regions of noisy planes, against the window on each pixel: the sum of its
// pixels times their weights wt (by rows), or for op -1 / +1 the extreme of those weighted.
template <class T, class Kernel>
void checkFilter(int margin, bool inPlace, Window win, std::vector<double> const &wt, int op,
                 Kernel kernel) {
    double const tol = std::is_floating_point_v<T> ? 1e-5 : 0.5 + 1e-9;  // ties round either way
    for (IppiSize size : kSizes) {
        cv::Mat plane =
            noisyPlane<T>(size.height + 2 * margin, size.width + 2 * margin, size.width);
        cv::Mat const before = plane.clone();
        kxtest::PaddedMat dst(size.height, size.width, cv::DataType<T>::type);
        T *region = plane.ptr<T>(margin) + margin;
        int const step = int(plane.step);
        ASSERT_EQ(kernel(kxtest::KernelCall<T, T>{region, step, inPlace ? region : dst.ptr<T>(),
                                                  inPlace ? step : dst.step(), size}),
                  0);
        if (inPlace) {
            cv::Rect const inner(margin, margin, size.width, size.height);
            plane(inner).copyTo(dst.view);
            before(inner).copyTo(plane(inner));
        }
        int wrong = 0;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x) {
                double r = op < 0 ? kxtest::topOf<T>() : 0;
                for (int j = 0; j < win.mask.width * win.mask.height; ++j) {
                    double const v = before.at<T>(margin + y - win.anchor.y + j / win.mask.width,
                                                  margin + x - win.anchor.x + j % win.mask.width);
                    if (op == 0) r += wt[j] * v;
                    if (op != 0 && wt[j] != 0) r = op < 0 ? std::min(r, v) : std::max(r, v);
                }
                wrong += std::fabs(dst.view.at<T>(y, x) - r) > tol;
            }
        // Nothing outside the region may change.
        EXPECT_TRUE(wrong == 0 && dst.paddingIntact() && cv::norm(plane, before, cv::NORM_INF) == 0)
            << wrong << " wrong, width " << size.width << ", mask width " << win.mask.width;
    }
}

template <class T>
class PxFilter : public ::testing::Test {};
using FilterTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(PxFilter, FilterTypes);

// Box means over odd and even areas (2 and 4 among them) with off-centre anchors, the
// Gaussian, erode and dilate over masks with holes, and the 3x3 extremes.
TYPED_TEST(PxFilter, EveryKernelMatchesReference) {
    using T = TypeParam;
    for (Window win : {Window{{3, 3}, {1, 1}}, Window{{5, 3}, {0, 2}}, Window{{1, 4}, {0, 3}},
                       Window{{2, 2}, {1, 0}}, Window{{2, 1}, {1, 0}}})
        for (bool inPlace : {false, true}) {
            int const area = win.mask.width * win.mask.height;
            checkFilter<T>(5, inPlace, win, std::vector<double>(area, 1.0 / area), 0, [&](auto c) {
                return inPlace ? pxFilterBoxInPlace(c.d, c.ds, c.z, win.mask, win.anchor)
                               : pxFilterBox(c.s, c.ss, c.d, c.ds, c.z, win.mask, win.anchor);
            });
        }
    if constexpr (!std::is_same_v<T, std::uint16_t>) {
        int const binomial[5] = {1, 4, 6, 4, 1};
        std::vector<double> wt;
        for (int j = 0; j < 25; ++j)
            wt.push_back(binomial[j % 5] * binomial[j / 5] / 256.0);
        checkFilter<T>(2, false, {{5, 5}, {2, 2}}, wt, 0,
                       [](auto c) { return pxFilterGauss5x5(c.s, c.ss, c.d, c.ds, c.z); });
    }
    if constexpr (!std::is_floating_point_v<T>) {
        // A 4x3 mask with holes, anchored off centre, and a single off-centre entry.
        std::vector<std::uint8_t> const holes{0, 1, 0, 0, 1, 1, 0, 3, 0, 0, 1, 1},
            single{0, 0, 0, 0, 0, 9};
        for (int op : {-1, 1}) {
            for (auto [mask, win] :
                 {std::pair{holes, Window{{4, 3}, {2, 1}}}, {single, {{3, 2}, {0, 0}}}})
                checkFilter<T>(3, false, win, {mask.begin(), mask.end()}, op, [&](auto c) {
                    auto *m = mask.data();
                    return op > 0 ? pxDilate(c.s, c.ss, c.d, c.ds, c.z, m, win.mask, win.anchor)
                                  : pxErode(c.s, c.ss, c.d, c.ds, c.z, m, win.mask, win.anchor);
                });
            if constexpr (std::is_same_v<T, std::uint16_t>)
                checkFilter<T>(
                    1, true, {{3, 3}, {1, 1}}, std::vector<double>(9, 1.0), op, [&](auto c) {
                        return op > 0 ? pxMax3x3(c.d, c.ds, c.z) : pxMin3x3(c.d, c.ds, c.z);
                    });
        }
    }
    // 10 MB, too much to copy: the in-place form carries original rows from strip to strip.
    IppiSize const size{4099, int((10 << 20) / (4099 * sizeof(T)))}, mask{3, 5};
    cv::Mat plane = noisyPlane<T>(size.height + 8, size.width + 8, 17), want = plane.clone();
    int const step = int(plane.step);  // that of want too
    T *p = plane.ptr<T>(4) + 4;
    ASSERT_EQ(pxFilterBox(p, step, want.ptr<T>(4) + 4, step, size, mask, {1, 1}), pxStsNoErr);
    ASSERT_EQ(pxFilterBoxInPlace(p, step, size, mask, {1, 1}), pxStsNoErr);
    EXPECT_EQ(cv::norm(plane, want, cv::NORM_INF), 0.0);
}

// One call per kind of failure, and the documented rule that a mask needs a non-zero entry.
TEST(PxFilterArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat plane = kxtest::noise(10, 14, CV_8U, 1, 0, 256);
    cv::Mat const before = plane.clone();
    std::uint8_t *s = plane.ptr(3) + 3, zeros[9] = {};
    int const ss = int(plane.step);
    IppiSize const size{8, 4}, m{3, 3};
    EXPECT_EQ(pxFilterBox(s, ss, s, 7, size, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxFilterBox(s, ss, s, ss, size, m, {3, 1}), pxStsBadArgErr);  // outside the mask
    EXPECT_EQ(pxFilterGauss5x5(s, ss, s, ss, {8, -1}), pxStsSizeErr);
    EXPECT_EQ(pxErode(s, ss, s, ss, size, nullptr, m, {1, 1}), pxStsNullPtrErr);
    EXPECT_EQ(pxDilate(s, ss, s, ss, size, zeros, m, {1, 1}), pxStsBadArgErr);
    EXPECT_EQ(cv::norm(plane, before, cv::NORM_INF), 0.0);
}

}  // namespace
