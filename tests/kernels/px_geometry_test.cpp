// Tests of the geometry kernels: square-pixel resize, border replication and region copy.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_geometry.h"
#include "tests/support/images.h"

namespace {

using kxtest::PaddedMat;
using kxtest::topOf;

template <class T>
constexpr bool kFloat = std::is_floating_point_v<T>;

template <class T>
class PxGeometry : public ::testing::Test {};
using GeometryTypes = ::testing::Types<std::uint8_t, std::uint16_t, float>;
TYPED_TEST_SUITE(PxGeometry, GeometryTypes);

struct Mapping {
    double fx, fy, sx, sy;
};

// Half-pixel grids (x2, x1/2, x4 by x1/4 with shifts), then general factors and shifts.
Mapping const kMappings[] = {
    {2, 2, 0, 0},        {0.5, 0.5, 0, 0},         {2, 1, 0.5, 2},
    {4, 0.25, -1, 3},    {7.0 / 3, 7.0 / 3, 0, 0}, {7.0 / 3, 1.5, 0.3, -0.7},
    {0.4, 3, -1.25, 0.5}};

template <class T>
PxStatus resize(cv::Mat const &src, IppiRect srcRoi, cv::Mat &dst, IppiRect dstRoi, Mapping g,
                int interpolation) {
    int bytes = 0;
    EXPECT_EQ(pxResizeBufferSize(srcRoi, dstRoi, 1, interpolation, &bytes), pxStsNoErr);
    std::vector<std::uint8_t> buffer(std::max(bytes, 1));
    return pxResize(src.ptr<T>(), {src.cols, src.rows}, int(src.step), srcRoi, dst.ptr<T>(),
                    int(dst.step), dstRoi, g.fx, g.fy, g.sx, g.sy, interpolation, buffer.data());
}

// The source region as doubles, its edges replicated, and bilinear samples of it.
struct Samples {
    Samples(cv::Mat const &image, IppiRect r) {
        image(cv::Rect(r.x, r.y, r.width, r.height)).convertTo(d, CV_64F);
    }
    double at(int x, int y) const {
        return d.at<double>(std::clamp(y, 0, d.rows - 1), std::clamp(x, 0, d.cols - 1));
    }
    double linear(double u, double v) const {
        int const x = int(std::floor(u)), y = int(std::floor(v));
        double const a = u - x, b = v - y;
        return (1 - b) * ((1 - a) * at(x, y) + a * at(x + 1, y)) +
               b * ((1 - a) * at(x, y + 1) + a * at(x + 1, y + 1));
    }
    cv::Mat d;
};

// Runs pxResize into a padded target full of noise: pixels of dstRoi whose centres map inside
// the source region must be expect(u, v, got) (region coordinates, saturated) within tol, all
// others must keep their old value.
template <class T, class Expect>
void checkResize(cv::Mat const &src, IppiRect roi, cv::Size size, IppiRect dstRoi, Mapping g,
                 int interpolation, double tol, Expect expect) {
    PaddedMat dst(size.height, size.width, cv::DataType<T>::type);
    kxtest::fullRangeNoise<T>(size.height, size.width, 1, 99).copyTo(dst.view);
    cv::Mat const before = dst.view.clone();
    ASSERT_EQ(resize<T>(src, roi, dst.view, dstRoi, g, interpolation), pxStsNoErr);
    EXPECT_TRUE(dst.paddingIntact());
    cv::Rect const target(dstRoi.x, dstRoi.y, dstRoi.width, dstRoi.height);
    cv::Rect2d const source(roi.x, roi.y, roi.width, roi.height);
    int moved = 0, wrong = 0;
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            double const u = (x + 0.5 - g.sx) / g.fx - 0.5, v = (y + 0.5 - g.sy) / g.fy - 0.5;
            double const got = dst.view.at<T>(y, x);
            if (!target.contains({x, y}) || !source.contains({u + 0.5, v + 0.5}))
                moved += got != before.at<T>(y, x);
            else if (double want = expect(u - roi.x, v - roi.y, got); kFloat<T>)
                wrong += std::fabs(got - want) > tol;
            else
                wrong += std::fabs(got - std::clamp(want, 0.0, topOf<T>())) > tol;
        }
    EXPECT_EQ(moved, 0) << "pixels outside the written area changed";
    EXPECT_EQ(wrong, 0) << "on " << size;
}

// The region lies inside a noisy image, so that the pixels around it differ from its edges.
TYPED_TEST(PxGeometry, ResizeNearestAndLinearMatchReference) {
    using T = TypeParam;
    for (int inter : {pxInterNearest, pxInterLinear})
        for (int w : kxtest::kAwkwardWidths)
            for (Mapping g : kMappings) {
                SCOPED_TRACE(::testing::Message()
                             << "interpolation " << inter << " width " << w << " mapping " << g.fx
                             << "," << g.fy << " " << g.sx << "," << g.sy);
                cv::Mat const image = kxtest::fullRangeNoise<T>(5, w + 2, 1, 1000 + w);
                Samples const s(image, {1, 1, w, 3});
                cv::Size const size(int(std::ceil((w + 2) * g.fx + std::fabs(g.sx))) + 3,
                                    int(std::ceil(5 * g.fy + std::fabs(g.sy))) + 3);
                // Integer results are rounded; float ones carry only arithmetic error.
                double const tol = inter == pxInterNearest ? 0.0 : kFloat<T> ? 1e-3 : 1.0;
                IppiRect const dstRoi{1, 1, size.width - 2, size.height - 2};
                checkResize<T>(image, {1, 1, w, 3}, size, dstRoi, g, inter, tol,
                               [&](double u, double v, double got) {
                                   if (inter == pxInterLinear) return s.linear(u, v);
                                   // A centre halfway between two pixels may take either.
                                   double const x = std::floor(u + 0.5), y = std::floor(v + 0.5);
                                   bool const tx = x - u == 0.5, ty = y - v == 0.5;
                                   for (int d = 0; d < 4; ++d)
                                       if ((tx || d % 2 == 0) && (ty || d < 2) &&
                                           s.at(int(x) - d % 2, int(y) - d / 2) == got)
                                           return got;
                                   return s.at(int(x), int(y));
                               });
            }
}

TYPED_TEST(PxGeometry, ResizeByTwoAndByHalfExactly) {
    using T = TypeParam;
    double const unit = kFloat<T> ? 1.0 / 256 : 1.0;
    // 4x4 -> 8x8 in a 10x10 target: on these values every bilinear sample is a whole number
    // of units, and the pixels beyond 8x8 stay. 5x5 -> 3x3 by half: only the first two rows
    // and columns map inside the source, each the mean of a 2x2 block.
    for (int n : {4, 5}) {
        cv::Mat src(n, n, cv::DataType<T>::type);
        for (int i = 0; i < n * n; ++i)
            src.at<T>(i / n, i % n) = T((n == 4 ? 16 : 4) * i * unit);
        Samples const s(src, {0, 0, n, n});
        Mapping const g = n == 4 ? Mapping{2, 2, 0, 0} : Mapping{0.5, 0.5, 0, 0};
        int const out = n == 4 ? 10 : 3;
        for (int inter : {pxInterNearest, pxInterLinear})
            checkResize<T>(src, {0, 0, n, n}, {out, out}, {0, 0, out, out}, g, inter, 0.0,
                           [&](double u, double v, double) {
                               return inter == pxInterLinear ? s.linear(u, v)
                                                             : s.at(int(u + 0.5), int(v + 0.5));
                           });
    }
}

TYPED_TEST(PxGeometry, ResizeCubic) {
    using T = TypeParam;
    double const top = topOf<T>();
    // A third of the size samples the source exactly at pixel centres 1, 4, 7, ...
    cv::Mat const image = kxtest::fullRangeNoise<T>(9, 33, 1, 5);
    Samples const s(image, {0, 0, 33, 9});
    checkResize<T>(image, {0, 0, 33, 9}, {11, 3}, {0, 0, 11, 3}, {1.0 / 3, 1.0 / 3, 0, 0},
                   pxInterCubic, kFloat<T> ? 1e-5 : 0.0, [&](double u, double v, double) {
                       return s.at(int(std::lround(u)), int(std::lround(v)));
                   });
    // On smooth data any interpolation lands within 3% of the range of the bilinear value;
    // half a pixel of misplacement costs several per cent here. The target is larger than
    // the mapped source.
    cv::Mat smooth(12, 40, CV_64F), typed;
    for (int i = 0; i < 480; ++i)
        smooth.at<double>(i / 40, i % 40) =
            top * (0.5 + 0.4 * std::sin(0.35 * (i % 40) + 0.2 * (i / 40)));
    smooth.convertTo(typed, cv::DataType<T>::type);
    Samples const sm(typed, {0, 0, 40, 12});
    for (Mapping g : kMappings)
        checkResize<T>(typed, {0, 0, 40, 12}, {100, 40}, {0, 0, 100, 40}, g, pxInterCubic,
                       0.03 * top, [&](double u, double v, double) { return sm.linear(u, v); });
    // A step between the ends of the range overshoots: integer results saturate instead of
    // wrapping, so rows stay non-decreasing; float results keep the overshoot.
    cv::Mat const step = kxtest::stepEdge(4, 8, cv::DataType<T>::type, 0, top, 4);
    for (Mapping g : {Mapping{4, 1, 0, 0}, Mapping{3.5, 1, 0.3, 0}}) {
        int const w = int(8 * g.fx);  // cv::resize serves x4, the general resampler x3.5
        PaddedMat dst(4, w, cv::DataType<T>::type);
        ASSERT_EQ(resize<T>(step, {0, 0, 8, 4}, dst.view, {0, 0, w, 4}, g, pxInterCubic), 0);
        cv::Mat const row = dst.view.row(1);
        double lo, hi;
        cv::minMaxLoc(row, &lo, &hi);
        EXPECT_EQ(lo < 0.0 && hi > 1.0, kFloat<T>) << lo << " " << hi;
        EXPECT_TRUE(kFloat<T> || (lo == 0.0 && hi == top)) << lo << " " << hi;
        for (int x = 1; x < row.cols && !kFloat<T>; ++x)
            EXPECT_GE(row.at<T>(x), row.at<T>(x - 1)) << x;
    }
}

TYPED_TEST(PxGeometry, ResizeRejectsBadArguments) {
    using T = TypeParam;
    cv::Mat const src = kxtest::fullRangeNoise<T>(4, 4, 1, 3);
    cv::Mat dst = kxtest::fullRangeNoise<T>(8, 8, 1, 4);
    cv::Mat const before = dst.clone();
    std::vector<std::uint8_t> buf(4096);
    T const *s = src.ptr<T>();
    T *d = dst.ptr<T>(), *none = nullptr;
    IppiRect const r{0, 0, 4, 4}, dr{0, 0, 8, 8};
    int const ss = int(src.step), ds = int(dst.step), lin = pxInterLinear;
    std::uint8_t *b = buf.data();
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, ds, dr, 2, 2, 0, 0, lin, nullptr), pxStsNullPtrErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, none, ds, dr, 2, 2, 0, 0, lin, b), pxStsNullPtrErr);
    EXPECT_EQ(pxResize(s, {0, 4}, ss, r, d, ds, dr, 2, 2, 0, 0, lin, b), pxStsSizeErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, {4, 0, 3, 3}, d, ds, dr, 2, 2, 0, 0, lin, b),
              pxStsSizeErr);  // a region outside the image
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, ds, {0, 0, 0, 8}, 2, 2, 0, 0, lin, b), pxStsSizeErr);
    EXPECT_EQ(pxResize(s, {4, 4}, 3, r, d, ds, dr, 2, 2, 0, 0, lin, b), pxStsStepErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, 7, dr, 2, 2, 0, 0, lin, b), pxStsStepErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, ds, dr, 0, 2, 0, 0, lin, b), pxStsBadArgErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, ds, dr, 2, -1, 0, 0, lin, b), pxStsBadArgErr);
    EXPECT_EQ(pxResize(s, {4, 4}, ss, r, d, ds, dr, 2, 2, 0, 0, 3, b), pxStsBadArgErr);
    EXPECT_EQ(cv::norm(dst, before, cv::NORM_INF), 0.0);
    int bytes = -1;
    EXPECT_EQ(pxResizeBufferSize(r, dr, 3, lin, &bytes), pxStsBadArgErr);
    EXPECT_EQ(pxResizeBufferSize(r, dr, 1, 8, &bytes), pxStsBadArgErr);
    EXPECT_EQ(pxResizeBufferSize(r, {0, 0, 0, 1}, 1, lin, &bytes), pxStsSizeErr);
    EXPECT_EQ(bytes, -1);
}

// Border replication, copied and in place, and plain copies of 1, 3 and 4 channels.
TYPED_TEST(PxGeometry, ReplicateBorderAndCopy) {
    using T = TypeParam;
    int const top = 2, left = 3, h = 4, type = cv::DataType<T>::type;
    for (int w : kxtest::kAwkwardWidths) {
        PaddedMat src(h, w, type), dst(h + top + 2, w + left + 1, type, 40), in(h + 4, w + 4, type);
        kxtest::fullRangeNoise<T>(h, w, 1, w).copyTo(src.view);
        IppiSize const outer{w + 4, h + 4};
        ASSERT_EQ(pxCopyReplicateBorder(src.ptr<T>(), src.step(), {w, h}, dst.ptr<T>(), dst.step(),
                                        outer, top, left),
                  pxStsNoErr);
        // The same frame drawn in place around a copy of src.
        in.view.setTo(0);
        src.view.copyTo(in.view(cv::Rect(left, top, w, h)));
        ASSERT_EQ(pxReplicateBorderInPlace(in.view.ptr<T>(top) + left, in.step(), {w, h}, outer,
                                           top, left),
                  pxStsNoErr);
        EXPECT_TRUE(dst.paddingIntact() && in.paddingIntact());
        cv::Mat want;
        cv::copyMakeBorder(src.view, want, top, 2, left, 1, cv::BORDER_REPLICATE);
        EXPECT_EQ(cv::norm(dst.view, want, cv::NORM_INF), 0.0) << "width " << w;
        EXPECT_EQ(cv::norm(in.view, want, cv::NORM_INF), 0.0) << "in place, width " << w;
        for (int channels : {1, 3, 4}) {
            int const ctype = CV_MAKETYPE(cv::DataType<T>::depth, channels);
            PaddedMat from(3, w, ctype), to(3, w, ctype, 8);
            kxtest::fullRangeNoise<T>(3, w, channels, channels * w).copyTo(from.view);
            ASSERT_EQ(pxCopy(from.ptr<T>(), from.step(), to.ptr<T>(), to.step(), {w, 3}, channels),
                      pxStsNoErr);
            EXPECT_TRUE(to.paddingIntact());
            EXPECT_EQ(cv::norm(from.view, to.view, cv::NORM_INF), 0.0);
        }
    }
    // Frames that do not fit, and for the in-place form a step shorter than the outer row.
    cv::Mat small(5, 7, type, cv::Scalar(3));
    T *p = small.ptr<T>(), *inner = small.ptr<T>(1) + 1;
    int const st = int(small.step), e = int(sizeof(T));
    EXPECT_EQ(pxCopyReplicateBorder(p, st, {4, 3}, p + 21, st, {7, 5}, 3, 1), pxStsSizeErr);
    EXPECT_EQ(pxCopyReplicateBorder(p, st, {4, 3}, p + 21, 6 * e, {7, 5}, 1, 1), pxStsStepErr);
    EXPECT_EQ(pxReplicateBorderInPlace(inner, st, {4, 3}, {7, 5}, 1, 4), pxStsSizeErr);
    EXPECT_EQ(pxReplicateBorderInPlace(inner, 5 * e, {4, 3}, {7, 5}, 1, 1), pxStsStepErr);
    EXPECT_EQ(pxReplicateBorderInPlace(static_cast<T *>(nullptr), st, {4, 3}, {7, 5}, 1, 1),
              pxStsNullPtrErr);
    EXPECT_EQ(pxCopy(p, st, p, st, {1, 1}, 0), pxStsBadArgErr);
    EXPECT_EQ(cv::countNonZero(small != 3), 0);
}

}  // namespace
