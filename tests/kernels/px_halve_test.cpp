// Tests of the exact cubic halving: bit for bit against cv::resize, which the general resize
// path calls for the same geometry. On noise the order of the float additions shows in the
// last bit; on hard edges the cubic overshoots and saturates.
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

TEST(PxHalve, ExactWeightsOnARampAndOnlyEvenSides) {
    // Across a row 0, 32, 64, ..: output j sits at source 2j + 0.5, and the cubic reproduces
    // a straight line, so inner pixels are 32 * (2j + 0.5) exactly; the first pixel sees the
    // replicated edge: (-3 * 0 + 19 * 0 + 19 * 32 - 3 * 64) / 32 = 13.
    cv::Mat src(2, 16, CV_16UC1), out(1, 8, CV_16UC1);
    for (int x = 0; x < 16; ++x)
        src.col(x).setTo(32 * x);
    auto *s = src.ptr<std::uint16_t>(), *d = out.ptr<std::uint16_t>();
    ASSERT_EQ(pxHalveCubic(s, int(src.step), {16, 2}, d, 16), pxStsNoErr);
    EXPECT_EQ(out.at<std::uint16_t>(0, 0), 13);
    for (int j = 1; j < 7; ++j)
        EXPECT_EQ(out.at<std::uint16_t>(0, j), 32 * (2 * j) + 16) << j;
    EXPECT_EQ(pxHalveCubic(s, int(src.step), {5, 2}, d, 16), pxStsSizeErr);
    EXPECT_EQ(pxHalveCubic(s, int(src.step), {6, 1}, d, 16), pxStsSizeErr);
    EXPECT_EQ(pxHalveCubic(s, int(src.step), {6, 2}, d, 4), pxStsStepErr);
}

TEST(PxHalve, ResizeOfAShiftedRegionAgrees) {
    // pxResize at factor 0.5 over an even region of a larger plane, shifted so that the
    // output starts at the region's corner, gives what cv::resize gives for that region.
    cv::Mat const plane = kxtest::noise(41, 67, CV_16UC1, 3, 0, 65536);
    cv::Mat out(15, 30, CV_16UC1), want;
    std::vector<std::uint8_t> buffer(4096);  // more than pxResizeBufferSize asks for
    ASSERT_EQ(pxResize(plane.ptr<std::uint16_t>(), {67, 41}, int(plane.step), {3, 5, 60, 30},
                       out.ptr<std::uint16_t>(), int(out.step), {0, 0, 30, 15}, 0.5, 0.5, -1.5,
                       -2.5, pxInterCubic, buffer.data()),
              pxStsNoErr);
    cv::resize(plane(cv::Rect(3, 5, 60, 30)).clone(), want, out.size(), 0.0, 0.0, cv::INTER_CUBIC);
    EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0.0);
}

}  // namespace
