// Tests of the neighbourhood kernels: box mean, 5x5 Gaussian, 3x3 extremes, erode, dilate.
//
// Every kernel reads a region inside a larger noisy plane, so its window reads the plane's
// own pixels around the region; the references read the same pixels, which differ from the
// region's edges, and catch a kernel that replicates its edges instead. Wide planes also
// carry flat stripes at both ends of the range, where a sum could wrap or overflow.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_filter.h"
#include "tests/support/images.h"

namespace {

using kxtest::PaddedMat;
using kxtest::topOf;

template <class T>
constexpr bool kFloat = std::is_floating_point_v<T>;

// The widths every kernel must handle, and a region large enough to be split among threads.
IppiSize const kSizes[] = {{1, 3}, {7, 4}, {33, 3}, {4099, 3}, {4099, 9}};

// A noisy plane with a region of `size` at (margin, margin).
template <class T>
struct Framed {
    Framed(IppiSize size, int margin, std::uint64_t seed) : size(size), margin(margin) {
        plane =
            kxtest::fullRangeNoise<T>(size.height + 2 * margin, size.width + 2 * margin, 1, seed);
        if (plane.cols > 64) {
            plane.colRange(20, 32).setTo(topOf<T>());
            plane.colRange(40, 52).setTo(0);
        }
    }
    T *region() { return plane.ptr<T>(margin) + margin; }
    int step() const { return static_cast<int>(plane.step); }
    cv::Mat inner() { return plane(cv::Rect(margin, margin, size.width, size.height)); }

    IppiSize size;
    int margin;
    cv::Mat plane;
};

struct Window {
    IppiSize mask;
    IppiPoint anchor;
};

// Runs kernel(src, srcStep, dst, dstStep, size) for every region size into a padded target,
// or with inPlace on the region itself, and compares with the window anchored on each pixel:
// the sum of its pixels times their weights wt (by rows), or for op -1 / +1 the minimum /
// maximum of the pixels whose weight is not 0. Integer results may round a tie either way:
// within a half.
template <class T, class Kernel>
void checkFilter(int margin, bool inPlace, Window win, std::vector<double> const &wt, int op,
                 Kernel kernel) {
    double const tol = kFloat<T> ? 1e-5 : 0.5 + 1e-9;
    for (IppiSize size : kSizes) {
        Framed<T> src(size, margin, size.width + margin);
        PaddedMat dst(size.height, size.width, cv::DataType<T>::type);
        cv::Mat const before = src.plane.clone();
        T *out = inPlace ? src.region() : dst.ptr<T>();
        ASSERT_EQ(kernel(src.region(), src.step(), out, inPlace ? src.step() : dst.step(), size),
                  0);
        if (inPlace) {
            src.inner().copyTo(dst.view);
            before(cv::Rect(margin, margin, size.width, size.height)).copyTo(src.inner());
        }
        EXPECT_EQ(cv::norm(src.plane, before, cv::NORM_INF), 0.0) << "pixels outside the region";
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
        EXPECT_EQ(wrong, 0) << size.width << "x" << size.height;
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
            SCOPED_TRACE(::testing::Message() << "mask " << win.mask.width << "x" << win.mask.height
                                              << (inPlace ? " in place" : ""));
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
}

TYPED_TEST(PxFilter, BoxInPlaceOnLargeRegionsMatchesTwoRegionForm) {
    using T = TypeParam;
    // About 10 MB: too much for the in-place form to keep a copy of, so it has to carry
    // original rows from one strip to the next. The window reaches further down than up.
    IppiSize const size{4099, int((10 << 20) / (4099 * sizeof(T)))}, mask{3, 5};
    Framed<T> plane(size, 4, 17);
    cv::Mat const before = plane.plane.clone();
    cv::Mat expected(size.height, size.width, cv::DataType<T>::type);
    ASSERT_EQ(pxFilterBox(before.ptr<T>(4) + 4, int(before.step), expected.ptr<T>(),
                          int(expected.step), size, mask, {1, 1}),
              pxStsNoErr);
    ASSERT_EQ(pxFilterBoxInPlace(plane.region(), plane.step(), size, mask, {1, 1}), pxStsNoErr);
    expected.copyTo(before(cv::Rect(4, 4, size.width, size.height)));
    EXPECT_EQ(cv::norm(plane.plane, before, cv::NORM_INF), 0.0);
}

// Erode and dilate over masks with holes and off-centre anchors, and the 3x3 extremes.
template <class T>
class PxMorphology : public ::testing::Test {};
using MorphologyTypes = ::testing::Types<std::uint8_t, std::uint16_t>;
TYPED_TEST_SUITE(PxMorphology, MorphologyTypes);

TYPED_TEST(PxMorphology, ErodeDilateAndExtremesMatchReference) {
    using T = TypeParam;
    using Kernel =
        PxStatus (*)(T const *, int, T *, int, IppiSize, std::uint8_t const *, IppiSize, IppiPoint);
    // A 4x3 mask with holes, anchored off centre, and a single off-centre entry.
    std::vector<std::uint8_t> const holes{0, 1, 0, 0, 1, 1, 0, 3, 0, 0, 1, 1},
        single{0, 0, 0, 0, 0, 9};
    for (auto [mask, win] : {std::pair{holes, Window{{4, 3}, {2, 1}}}, {single, {{3, 2}, {0, 0}}}})
        for (int op : {-1, 1}) {
            Kernel const kernel = op > 0 ? Kernel(pxDilate) : Kernel(pxErode);
            checkFilter<T>(3, false, win, {mask.begin(), mask.end()}, op,
                           [&](T *s, int ss, T *d, int ds, IppiSize z) {
                               return kernel(s, ss, d, ds, z, mask.data(), win.mask, win.anchor);
                           });
        }
    if constexpr (std::is_same_v<T, std::uint16_t>)
        for (int op : {-1, 1})
            checkFilter<T>(1, true, {{3, 3}, {1, 1}}, std::vector<double>(9, 1.0), op,
                           [&](T *, int, T *d, int ds, IppiSize z) {
                               return op > 0 ? pxMax3x3(d, ds, z) : pxMin3x3(d, ds, z);
                           });
}

TEST(PxFilterArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    Framed<std::uint8_t> src({8, 4}, 3, 1);
    cv::Mat out = kxtest::noise(4, 8, CV_8U, 2, 0, 256);
    cv::Mat const before = out.clone(), planeBefore = src.plane.clone();
    std::uint8_t *d = out.ptr(), *none = nullptr, *s = src.region();
    std::uint8_t const full[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1}, zeros[9] = {};
    int const ds = int(out.step), ss = src.step();
    IppiSize const size{8, 4}, m{3, 3};
    EXPECT_EQ(pxFilterBox(s, ss, none, ds, size, m, {1, 1}), pxStsNullPtrErr);
    EXPECT_EQ(pxFilterBox(s, ss, d, ds, {0, 4}, m, {1, 1}), pxStsSizeErr);
    EXPECT_EQ(pxFilterBox(s, ss, d, 7, size, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxFilterBox(s, ss, d, ds, size, m, {3, 1}), pxStsBadArgErr);
    EXPECT_EQ(pxFilterBoxInPlace(s, ss, size, m, {-1, 0}), pxStsBadArgErr);
    EXPECT_EQ(pxFilterBoxInPlace(s, 5, size, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxFilterGauss5x5(s, ss, d, ds, {8, -1}), pxStsSizeErr);
    EXPECT_EQ(pxFilterGauss5x5(s, ss, none, ds, size), pxStsNullPtrErr);
    EXPECT_EQ(pxErode(s, ss, d, ds, size, nullptr, m, {1, 1}), pxStsNullPtrErr);
    EXPECT_EQ(pxErode(s, ss, d, ds, size, zeros, m, {1, 1}), pxStsBadArgErr);
    EXPECT_EQ(pxDilate(s, ss, d, ds, size, full, m, {1, 3}), pxStsBadArgErr);
    EXPECT_EQ(pxDilate(s, ss, d, 4, size, full, m, {1, 1}), pxStsStepErr);
    EXPECT_EQ(pxMin3x3(nullptr, 16, {2, 2}), pxStsNullPtrErr);
    EXPECT_EQ(pxMax3x3(reinterpret_cast<std::uint16_t *>(d + 18), 2, {2, 2}), pxStsStepErr);
    EXPECT_EQ(cv::norm(out, before, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(src.plane, planeBefore, cv::NORM_INF), 0.0);
}

}  // namespace
