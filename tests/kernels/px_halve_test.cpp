// Tests of the exact cubic halving: bit for bit against cv::resize, which the general resize
// path calls for the same geometry, on noise (where the order of the float additions shows
// in the last bit), on hard edges (where the cubic overshoots and saturates) and on sizes
// whose output widths fall on either side of the 8-column vector groups.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_halve.h"
#include "tests/support/images.h"
#include "tests/support/vector_paths.h"

namespace {

// Whether pxHalveCubic gives what cv::resize gives.
bool halvesLikeResize(cv::Mat const &src) {
    cv::Mat out(src.rows / 2, src.cols / 2, CV_16UC1, cv::Scalar(7)), want;
    EXPECT_EQ(pxHalveCubic(src.ptr<std::uint16_t>(), int(src.step), {src.cols, src.rows},
                           out.ptr<std::uint16_t>(), int(out.step)),
              pxStsNoErr);
    cv::resize(src, want, out.size(), 0.0, 0.0, cv::INTER_CUBIC);
    return cv::norm(out, want, cv::NORM_INF) == 0.0;
}

TEST(PxHalve, MatchesCvResizeBitForBitAndSaturatesLikeIt) {
    kxtest::forEachVectorPath([] {
        // Output widths 1 .. 40 cover every remainder of the vector groups; tall and short
        // planes cross the row bands of both threads.
        std::uint64_t seed = 1;
        for (int w = 1; w <= 40; ++w)
            for (int h : {2, 4, 6, 34, 130})
                ASSERT_TRUE(halvesLikeResize(kxtest::noise(h, 2 * w, CV_16UC1, seed++, 0, 65536)))
                    << 2 * w << "x" << h;
        // A photograph-like width with a long vector run.
        EXPECT_TRUE(halvesLikeResize(kxtest::noise(64, 6002, CV_16UC1, 99, 0, 65536)));
        // Black and white cells: the negative lobes push sums below 0 and above 65535.
        for (int cell : {1, 2, 3})
            EXPECT_TRUE(halvesLikeResize(kxtest::checkerboard(38, 54, CV_16UC1, cell, 0, 65535)));
        EXPECT_TRUE(halvesLikeResize(kxtest::noise(40, 70, CV_16UC1, 5, 0, 2) * 65535));
    });
}

TEST(PxHalve, ExactWeightsOnARampAndOddOrEmptyPlanes) {
    // Across a row 0, 32, 64, ..: output j sits at source 2j + 0.5, and the cubic reproduces
    // a straight line, so inner pixels are 32 * (2j + 0.5) exactly; the first pixel sees the
    // replicated edge: (-3 * 0 + 19 * 0 + 19 * 32 - 3 * 64) / 32 = 13.
    cv::Mat src(2, 16, CV_16UC1), out(1, 8, CV_16UC1);
    for (int x = 0; x < 16; ++x)
        src.col(x).setTo(32 * x);
    auto run = [&](IppiSize size) {
        return pxHalveCubic(src.ptr<std::uint16_t>(), int(src.step), size, out.ptr<std::uint16_t>(),
                            int(out.step));
    };
    ASSERT_EQ(run({16, 2}), pxStsNoErr);
    EXPECT_EQ(out.at<std::uint16_t>(0, 0), 13);
    for (int j = 1; j < 7; ++j)
        EXPECT_EQ(out.at<std::uint16_t>(0, j), 32 * (2 * j) + 16) << j;
    EXPECT_EQ(run({5, 2}), pxStsSizeErr);
    EXPECT_EQ(run({6, 1}), pxStsSizeErr);
    EXPECT_NE(run({0, 2}), pxStsNoErr);
    EXPECT_EQ(pxHalveCubic(nullptr, int(src.step), {6, 2}, out.ptr<std::uint16_t>(), 16),
              pxStsNullPtrErr);
}

TEST(PxHalve, ResizeOfAShiftedRegionAgrees) {
    // pxResize at factor 0.5 over an even region of a larger plane, shifted so that the
    // output starts at the region's corner, gives what cv::resize gives for that region.
    cv::Mat const plane = kxtest::noise(41, 67, CV_16UC1, 3, 0, 65536);
    IppiRect const roi{3, 5, 60, 30};
    cv::Mat out(15, 30, CV_16UC1), want;
    int bytes = 0;
    ASSERT_EQ(pxResizeBufferSize(roi, {0, 0, 30, 15}, 1, pxInterCubic, &bytes), pxStsNoErr);
    std::vector<std::uint8_t> buffer(std::size_t(bytes) + 64);
    ASSERT_EQ(pxResize(plane.ptr<std::uint16_t>(), {plane.cols, plane.rows}, int(plane.step), roi,
                       out.ptr<std::uint16_t>(), int(out.step), {0, 0, 30, 15}, 0.5, 0.5, -1.5,
                       -2.5, pxInterCubic, buffer.data()),
              pxStsNoErr);
    cv::resize(plane(cv::Rect(3, 5, 60, 30)).clone(), want, out.size(), 0.0, 0.0, cv::INTER_CUBIC);
    EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0.0);
}

}  // namespace
