// Tests of the exact cubic halving: bit for bit against cv::resize, which the general resize
// path calls for the same geometry, on noise (where the order of the float additions shows
// in the last bit), on hard edges (where the cubic overshoots and saturates) and on sizes
// whose output widths fall on either side of the 8-column vector groups.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_halve.h"
#include "tests/support/images.h"
#include "tests/support/vector_paths.h"

namespace {

cv::Mat resizeHalf(cv::Mat const &src) {
    cv::Mat out;
    cv::resize(src, out, cv::Size(src.cols / 2, src.rows / 2), 0.0, 0.0, cv::INTER_CUBIC);
    return out;
}

bool same(cv::Mat const &a, cv::Mat const &b) {
    return a.size() == b.size() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

cv::Mat halved(cv::Mat const &src) {
    cv::Mat out(src.rows / 2, src.cols / 2, CV_16UC1, cv::Scalar(7));
    EXPECT_EQ(pxHalveCubic(src.ptr<std::uint16_t>(), int(src.step), {src.cols, src.rows},
                           out.ptr<std::uint16_t>(), int(out.step)),
              pxStsNoErr);
    return out;
}

TEST(PxHalve, MatchesCvResizeBitForBit) {
    // Output widths 1 .. 40 cover every remainder of the vector groups; tall and short planes
    // cross the row bands of both threads.
    kxtest::forEachVectorPath([] {
        int const heights[] = {2, 4, 6, 34, 130};
        std::uint64_t seed = 1;
        for (int w = 1; w <= 40; ++w)
            for (int H : heights) {
                cv::Mat const src = kxtest::noise(H, 2 * w, CV_16UC1, seed++, 0, 65536);
                ASSERT_TRUE(same(halved(src), resizeHalf(src))) << 2 * w << "x" << H;
            }
        // A photograph-like width with a long vector run.
        cv::Mat const wide = kxtest::noise(64, 6002, CV_16UC1, 99, 0, 65536);
        EXPECT_TRUE(same(halved(wide), resizeHalf(wide)));
    });
}

TEST(PxHalve, SaturatesOvershootLikeCvResize) {
    // Black and white cells: the negative lobes push sums below 0 and above 65535.
    kxtest::forEachVectorPath([] {
        for (int cell : {1, 2, 3}) {
            cv::Mat const board = kxtest::checkerboard(38, 54, CV_16UC1, cell, 0, 65535);
            EXPECT_TRUE(same(halved(board), resizeHalf(board))) << cell;
        }
        cv::Mat const bits = kxtest::noise(40, 70, CV_16UC1, 5, 0, 2) * 65535;
        EXPECT_TRUE(same(halved(bits), resizeHalf(bits)));
    });
}

TEST(PxHalve, ExactWeightsOnARamp) {
    // Across a row 0, 32, 64, ..: output j sits at source 2j + 0.5, and the cubic reproduces
    // a straight line, so inner pixels are 32 * (2j + 0.5) exactly; the first pixel sees the
    // replicated edge: (-3 * 0 + 19 * 0 + 19 * 32 - 3 * 64) / 32 = 13.
    cv::Mat src(2, 16, CV_16UC1);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 16; ++x)
            src.at<std::uint16_t>(y, x) = std::uint16_t(32 * x);
    cv::Mat const out = halved(src);
    EXPECT_EQ(out.at<std::uint16_t>(0, 0), 13);
    for (int j = 1; j < 7; ++j)
        EXPECT_EQ(out.at<std::uint16_t>(0, j), 32 * (2 * j) + 16) << j;
}

TEST(PxHalve, RejectsOddAndEmptyPlanes) {
    cv::Mat src(4, 6, CV_16UC1, cv::Scalar(1)), dst(2, 3, CV_16UC1);
    auto run = [&](IppiSize size) {
        return pxHalveCubic(src.ptr<std::uint16_t>(), int(src.step), size, dst.ptr<std::uint16_t>(),
                            int(dst.step));
    };
    EXPECT_EQ(run({5, 4}), pxStsSizeErr);
    EXPECT_EQ(run({6, 3}), pxStsSizeErr);
    EXPECT_NE(run({0, 4}), pxStsNoErr);
    EXPECT_EQ(pxHalveCubic(nullptr, int(src.step), {6, 4}, dst.ptr<std::uint16_t>(), int(dst.step)),
              pxStsNullPtrErr);
}

TEST(PxHalve, ResizeOfAShiftedRegionAgrees) {
    // pxResize at factor 0.5 over an even region of a larger plane, shifted so that the
    // output starts at the region's corner, gives what cv::resize gives for that region.
    cv::Mat const plane = kxtest::noise(41, 67, CV_16UC1, 3, 0, 65536);
    IppiRect const roi{3, 5, 60, 30};
    cv::Mat out(15, 30, CV_16UC1);
    int bytes = 0;
    ASSERT_EQ(pxResizeBufferSize(roi, {0, 0, 30, 15}, 1, pxInterCubic, &bytes), pxStsNoErr);
    std::vector<std::uint8_t> buffer(std::size_t(bytes) + 64);
    ASSERT_EQ(pxResize(plane.ptr<std::uint16_t>(), {plane.cols, plane.rows}, int(plane.step), roi,
                       out.ptr<std::uint16_t>(), int(out.step), {0, 0, 30, 15}, 0.5, 0.5, -1.5,
                       -2.5, pxInterCubic, buffer.data()),
              pxStsNoErr);
    EXPECT_TRUE(same(out, resizeHalf(plane(cv::Rect(3, 5, 60, 30)).clone())));
}

}  // namespace
