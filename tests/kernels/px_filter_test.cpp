// Tests of the neighbourhood kernels: box mean, 5x5 Gaussian, 3x3 extremes, erode, dilate.
// Regions lie inside noisy planes, whose pixels differ from the regions' edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_filter.h"
#include "tests/support/images.h"

namespace {

using kxtest::topOf;

// The widths every kernel must handle, and a region large enough to be split among threads.
IppiSize const kSizes[] = {{1, 3}, {7, 4}, {33, 3}, {4099, 3}, {4099, 9}};

// Full-range noise with, on wide planes, flat stripes at both ends of the range, where a sum
// could wrap or overflow.
template <class T>
cv::Mat noisyPlane(int rows, int cols, std::uint64_t seed) {
    cv::Mat plane = kxtest::fullRangeNoise<T>(rows, cols, 1, seed);
    if (cols > 64) {
        plane.colRange(20, 32).setTo(topOf<T>());
        plane.colRange(40, 52).setTo(0);
    }
    return plane;
}

struct Window {
    IppiSize mask;
    IppiPoint anchor;
};

// Runs kernel(src, srcStep, dst, dstStep, size) for every region size into a padded target,
// or with inPlace on the region itself, and compares with the window anchored on each pixel:
// the sum of its pixels times their weights wt (by rows), or for op -1 / +1 the minimum /
// maximum of the pixels whose weight is not 0. Integer results may round a tie either way.
template <class T, class Kernel>
void checkFilter(int margin, bool inPlace, Window win, std::vector<double> const &wt, int op,
                 Kernel kernel) {
    double const tol = std::is_floating_point_v<T> ? 1e-5 : 0.5 + 1e-9;
    for (IppiSize size : kSizes) {
        cv::Mat plane =
            noisyPlane<T>(size.height + 2 * margin, size.width + 2 * margin, size.width);
        cv::Mat const before = plane.clone();
        cv::Rect const inner(margin, margin, size.width, size.height);
        kxtest::PaddedMat dst(size.height, size.width, cv::DataType<T>::type);
        T *region = plane.ptr<T>(margin) + margin;
        int const step = int(plane.step);
        ASSERT_EQ(kernel(region, step, inPlace ? region : dst.ptr<T>(), inPlace ? step : dst.step(),
                         size),
                  0);
        if (inPlace) {
            plane(inner).copyTo(dst.view);
            before(inner).copyTo(plane(inner));
        }
        EXPECT_EQ(cv::norm(plane, before, cv::NORM_INF), 0.0) << "pixels outside the region";
        EXPECT_TRUE(dst.paddingIntact());
        int wrong = 0;
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x) {
                double r = op < 0 ? topOf<T>() : 0;
                for (int j = 0; j < win.mask.width * win.mask.height; ++j) {
                    int const u = margin + x - win.anchor.x + j % win.mask.width;
                    double const v =
                        before.at<T>(margin + y - win.anchor.y + j / win.mask.width, u);
                    if (op == 0) r += wt[j] * v;
                    if (op != 0 && wt[j] != 0) r = op < 0 ? std::min(r, v) : std::max(r, v);
                }
                wrong += std::fabs(dst.view.at<T>(y, x) - r) > tol;
            }
        EXPECT_EQ(wrong, 0) << size.width << "x" << size.height << ", mask " << win.mask.width
                            << "x" << win.mask.height << (inPlace ? " in place" : "") << ", op "
                            << op;
    }
}

template <class T>
class PxFilter : public ::testing::Test {};
using FilterTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(PxFilter, FilterTypes);

TYPED_TEST(PxFilter, BoxAndGaussMatchReference) {
    using T = TypeParam;
    // Odd and even areas (2 and 4 pixels among them), centred and off-centre anchors.
    for (Window win : {Window{{3, 3}, {1, 1}}, Window{{5, 3}, {0, 2}}, Window{{1, 4}, {0, 3}},
                       Window{{2, 2}, {1, 0}}, Window{{2, 1}, {1, 0}}})
        for (bool inPlace : {false, true}) {
            int const area = win.mask.width * win.mask.height;
            checkFilter<T>(5, inPlace, win, std::vector<double>(area, 1.0 / area), 0,
                           [&](T *s, int ss, T *d, int ds, IppiSize z) {
                               return inPlace ? pxFilterBoxInPlace(d, ds, z, win.mask, win.anchor)
                                              : pxFilterBox(s, ss, d, ds, z, win.mask, win.anchor);
                           });
        }
    if constexpr (!std::is_same_v<T, std::uint16_t>) {
        int const binomial[5] = {1, 4, 6, 4, 1};
        std::vector<double> wt;
        for (int j = 0; j < 25; ++j)
            wt.push_back(binomial[j % 5] * binomial[j / 5] / 256.0);
        checkFilter<T>(2, false, {{5, 5}, {2, 2}}, wt, 0,
                       [](T *s, int ss, T *d, int ds, IppiSize z) {
                           return pxFilterGauss5x5(s, ss, d, ds, z);
                       });
    }
    // About 10 MB: too much for the in-place form to keep a copy of, so it has to carry
    // original rows from one strip to the next. The window reaches further down than up.
    IppiSize const size{4099, int((10 << 20) / (4099 * sizeof(T)))}, mask{3, 5};
    cv::Mat plane = noisyPlane<T>(size.height + 8, size.width + 8, 17), want = plane.clone();
    cv::Rect const inner(4, 4, size.width, size.height);
    cv::Mat box = want(inner);
    ASSERT_EQ(pxFilterBox(plane.ptr<T>(4) + 4, int(plane.step), box.ptr<T>(), int(box.step), size,
                          mask, {1, 1}),
              pxStsNoErr);
    ASSERT_EQ(pxFilterBoxInPlace(plane.ptr<T>(4) + 4, int(plane.step), size, mask, {1, 1}), 0);
    EXPECT_EQ(cv::norm(plane, want, cv::NORM_INF), 0.0);
}

// Erode and dilate over masks with holes and off-centre anchors, and the 3x3 extremes.
TYPED_TEST(PxFilter, ErodeDilateAndExtremesMatchReference) {
    using T = TypeParam;
    if constexpr (!std::is_floating_point_v<T>) {
        // A 4x3 mask with holes, anchored off centre, and a single off-centre entry.
        std::vector<std::uint8_t> const holes{0, 1, 0, 0, 1, 1, 0, 3, 0, 0, 1, 1},
            single{0, 0, 0, 0, 0, 9};
        for (auto [mask, win] :
             {std::pair{holes, Window{{4, 3}, {2, 1}}}, {single, {{3, 2}, {0, 0}}}})
            for (int op : {-1, 1})
                checkFilter<T>(3, false, win, {mask.begin(), mask.end()}, op,
                               [&](T *s, int ss, T *d, int ds, IppiSize z) {
                                   std::uint8_t const *m = mask.data();
                                   return op > 0
                                              ? pxDilate(s, ss, d, ds, z, m, win.mask, win.anchor)
                                              : pxErode(s, ss, d, ds, z, m, win.mask, win.anchor);
                               });
        if constexpr (std::is_same_v<T, std::uint16_t>)
            for (int op : {-1, 1})
                checkFilter<T>(1, true, {{3, 3}, {1, 1}}, std::vector<double>(9, 1.0), op,
                               [&](T *, int, T *d, int ds, IppiSize z) {
                                   return op > 0 ? pxMax3x3(d, ds, z) : pxMin3x3(d, ds, z);
                               });
    }
}

TEST(PxFilterArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat plane = kxtest::noise(10, 14, CV_8U, 1, 0, 256);
    cv::Mat const before = plane.clone();
    std::uint8_t *s = plane.ptr(3) + 3, zeros[9] = {}, ones[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    int const ss = int(plane.step);
    IppiSize const size{8, 4}, m{3, 3};
    EXPECT_EQ(pxFilterBox(s, ss, s, 7, size, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxFilterBox(s, ss, s, ss, size, m, {3, 1}), pxStsBadArgErr);  // outside the mask
    EXPECT_EQ(pxFilterBoxInPlace(s, ss, size, {0, 3}, {0, 0}), pxStsBadArgErr);
    EXPECT_EQ(pxFilterGauss5x5(s, ss, s, ss, {8, -1}), pxStsSizeErr);
    EXPECT_EQ(pxErode(s, ss, s, ss, size, nullptr, m, {1, 1}), pxStsNullPtrErr);
    EXPECT_EQ(pxErode(s, ss, s, ss, size, ones, {3, 0}, {0, 0}), pxStsBadArgErr);
    EXPECT_EQ(pxDilate(s, ss, s, ss, size, zeros, m, {1, 1}), pxStsBadArgErr);  // an empty mask
    EXPECT_EQ(pxDilate(s, ss, s, 4, size, ones, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxMin3x3(nullptr, 16, {2, 2}), pxStsNullPtrErr);
    EXPECT_EQ(cv::norm(plane, before, cv::NORM_INF), 0.0);
}

}  // namespace
