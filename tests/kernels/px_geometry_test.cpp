// Tests of the geometry kernels: square-pixel resize, border replication and region copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_geometry.h"
#include "tests/support/elementwise.h"

namespace {

// The value at (u, v) of a region d of T, its edges replicated, by the plain form of an
// interpolation (the cubic is Keys' with a = -0.75, that of cv::resize), saturated as T. A
// nearest centre halfway between two pixels may take either: `got` settles it.
template <class T>
double plainValue(cv::Mat const &d, int interpolation, double u, double v, double got) {
    auto at = [&](int x, int y) {
        return double(d.at<T>(std::clamp(y, 0, d.rows - 1), std::clamp(x, 0, d.cols - 1)));
    };
    int const x = int(std::floor(u + 0.5)), y = int(std::floor(v + 0.5));
    int const x0 = int(std::ceil(u - 0.5)), y0 = int(std::ceil(v - 0.5));  // x, y but for ties
    if (interpolation == pxInterNearest)
        return at(x0, y0) == got || at(x, y0) == got || at(x0, y) == got ? got : at(x, y);
    auto weight = [cubic = interpolation == pxInterCubic](double t) {
        t = std::fabs(t);
        if (!cubic) return std::max(0.0, 1 - t);
        return t < 1   ? (1.25 * t - 2.25) * t * t + 1
               : t < 2 ? ((3.75 - 0.75 * t) * t - 6) * t + 3
                       : 0;
    };
    double r = 0;
    for (int j = -2; j <= 2; ++j)
        for (int i = -2; i <= 2; ++i)
            r += weight(u - x - i) * weight(v - y - j) * at(x + i, y + j);
    return std::clamp<double>(r, std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max());
}

template <class T>
class PxGeometry : public ::testing::Test {};
using GeometryTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(PxGeometry, GeometryTypes);

// A region of noise resized into the inner part of a noisy target: pixels whose centres map
// inside the region take the plain value, all others keep theirs.
TYPED_TEST(PxGeometry, ResizeMatchesThePlainInterpolations) {
    using T = TypeParam;
    constexpr bool fp = std::is_floating_point_v<T>;
    // Half-pixel grids (x2, x1/2, x4 by x1/4 with shifts), then general factors and shifts.
    double const mappings[][4] = {
        {2, 2, 0, 0},        {0.5, 0.5, 0, 0},         {2, 1, 0.5, 2},
        {4, 0.25, -1, 3},    {7.0 / 3, 7.0 / 3, 0, 0}, {7.0 / 3, 1.5, 0.3, -0.7},
        {0.4, 3, -1.25, 0.5}};
    for (int inter : {pxInterNearest, pxInterLinear, pxInterCubic})
        for (int w : kxtest::kAwkwardWidths)
            for (auto const &g : mappings) {
                cv::Mat const image = kxtest::fullRangeNoise<T>(5, w + 2, 1, 1000 + w);
                cv::Mat const region = image(cv::Rect(1, 1, w, 3));
                int const cols = int(std::ceil((w + 2) * g[0] + std::fabs(g[2]))) + 3;
                int const rows = int(std::ceil(5 * g[1] + std::fabs(g[3]))) + 3;
                kxtest::PaddedMat dst(rows, cols, cv::DataType<T>::type);
                kxtest::fullRangeNoise<T>(rows, cols, 1, 99).copyTo(dst.view);
                cv::Mat const before = dst.view.clone();
                IppiRect const dstRoi{1, 1, cols - 2, rows - 2};
                int bytes = 0;
                ASSERT_EQ(pxResizeBufferSize({1, 1, w, 3}, dstRoi, 1, inter, &bytes), pxStsNoErr);
                std::vector<std::uint8_t> buffer(bytes);
                ASSERT_EQ(pxResize(image.ptr<T>(), {w + 2, 5}, int(image.step), {1, 1, w, 3},
                                   dst.ptr<T>(), dst.step(), dstRoi, g[0], g[1], g[2], g[3], inter,
                                   buffer.data()),
                          pxStsNoErr);
                // Integer results are rounded; float ones carry only arithmetic error.
                double const tol = inter == pxInterNearest ? 0 : fp ? 1e-3 : 1;
                int moved = 0, wrong = 0;
                for (int y = 0; y < rows; ++y)
                    for (int x = 0; x < cols; ++x) {
                        double const u = (x + 0.5 - g[2]) / g[0] - 1.5;  // in the region
                        double const v = (y + 0.5 - g[3]) / g[1] - 1.5, got = dst.view.at<T>(y, x);
                        if (x < 1 || y < 1 || x > cols - 2 || y > rows - 2 ||
                            !cv::Rect2d(0, 0, w, 3).contains({u + 0.5, v + 0.5}))
                            moved += got != before.at<T>(y, x);
                        else
                            wrong += std::fabs(got - plainValue<T>(region, inter, u, v, got)) > tol;
                    }
                EXPECT_TRUE(moved == 0 && wrong == 0 && dst.paddingIntact())
                    << moved << " moved, " << wrong << " wrong: interpolation " << inter
                    << ", width " << w << ", mapping " << &g - mappings;
            }
}

// Border replication, copied and in place, and a copy of three channels.
TYPED_TEST(PxGeometry, ReplicateBorderAndCopy) {
    using T = TypeParam;
    int const top = 2, left = 3, h = 4, type = cv::DataType<T>::type;
    for (int w : kxtest::kAwkwardWidths) {
        kxtest::PaddedMat src(h, w, type), dst(h + 4, w + 4, type, 40);
        kxtest::fullRangeNoise<T>(h, w, 1, w).copyTo(src.view);
        cv::Mat want;
        cv::copyMakeBorder(src.view, want, top, 2, left, 1, cv::BORDER_REPLICATE);
        IppiSize const outer{w + 4, h + 4};
        ASSERT_EQ(pxCopyReplicateBorder(src.ptr<T>(), src.step(), {w, h}, dst.ptr<T>(), dst.step(),
                                        outer, top, left),
                  pxStsNoErr);
        EXPECT_EQ(cv::norm(dst.view, want, cv::NORM_INF), 0.0) << "width " << w;
        // The same frame drawn in place around a copy of src.
        dst.view.setTo(0);
        src.view.copyTo(dst.view(cv::Rect(left, top, w, h)));
        ASSERT_EQ(pxReplicateBorderInPlace(dst.view.ptr<T>(top) + left, dst.step(), {w, h}, outer,
                                           top, left),
                  pxStsNoErr);
        EXPECT_TRUE(cv::norm(dst.view, want, cv::NORM_INF) == 0 && dst.paddingIntact()) << w;
    }
    kxtest::forEachWidth<T>(
        3, 4, false, 0, [](double v, auto...) { return v; },
        [](auto c) { return pxCopy(c.s, c.ss, c.d, c.ds, c.z, 3); });
}

// One call per kind of failure, and the documented ranges of channels and interpolation.
TEST(PxGeometryArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat dst = kxtest::noise(8, 8, CV_16U, 4, 0, 65536);
    cv::Mat const before = dst.clone();
    std::uint8_t b[64];  // never reached
    auto *d = dst.ptr<std::uint16_t>();
    IppiRect const r{0, 0, 4, 4}, dr{0, 0, 8, 8};
    int const ds = int(dst.step), lin = pxInterLinear;
    EXPECT_EQ(pxResize(d, {4, 4}, ds, r, d, ds, dr, 2, 2, 0, 0, lin, nullptr), pxStsNullPtrErr);
    EXPECT_EQ(pxResize(d, {4, 4}, ds, r, d, 7, dr, 2, 2, 0, 0, lin, b), pxStsStepErr);
    EXPECT_EQ(pxResize(d, {4, 4}, ds, {4, 0, 3, 3}, d, ds, dr, 2, 2, 0, 0, lin, b),
              pxStsSizeErr);  // a region outside the image
    EXPECT_EQ(pxResize(d, {4, 4}, ds, r, d, ds, dr, 2, 2, 0, 0, 3, b), pxStsBadArgErr);
    int bytes = -1;
    EXPECT_TRUE(pxResizeBufferSize(r, dr, 3, lin, &bytes) == pxStsBadArgErr && bytes == -1);
    EXPECT_EQ(pxCopy(d, ds, d, ds, {1, 1}, 0), pxStsBadArgErr);
    EXPECT_EQ(cv::norm(dst, before, cv::NORM_INF), 0.0);
}

}  // namespace
