// Tests of the exact cubic halving: bit for bit against cv::resize, on noise (where the order
// of the float additions shows in the last bit) and on hard edges (where the cubic saturates).
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
        // Every remainder of the vector groups, and row bands of both threads.
        std::uint64_t seed = 1;
        for (int w = 1; w <= 40; ++w)
            for (int h : {2, 4, 6, 34, 130})
                ASSERT_TRUE(halvesLikeResize(kxtest::noise(h, 2 * w, CV_16UC1, seed++, 0, 65536)))
                    << 2 * w << "x" << h;
        EXPECT_TRUE(halvesLikeResize(kxtest::noise(64, 6002, CV_16UC1, 99, 0, 65536)));
        for (int cell : {1, 2, 3})
            EXPECT_TRUE(halvesLikeResize(kxtest::checkerboard(38, 54, CV_16UC1, cell, 0, 65535)));
        EXPECT_TRUE(halvesLikeResize(kxtest::noise(40, 70, CV_16UC1, 5, 0, 2) * 65535));
    });
}

TEST(PxHalve, ResizeOfAShiftedRegionAgreesAndOnlyEvenSidesHalve) {
    // pxResize at factor 0.5 over an even region, shifted to start at its corner, halves it.
    cv::Mat const plane = kxtest::noise(41, 67, CV_16UC1, 3, 0, 65536);
    cv::Mat out(15, 30, CV_16UC1), want;
    std::vector<std::uint8_t> buffer(4096);  // more than pxResizeBufferSize asks for
    auto const *s = plane.ptr<std::uint16_t>();
    ASSERT_EQ(
        pxResize(s, {67, 41}, int(plane.step), {3, 5, 60, 30}, out.ptr<std::uint16_t>(),
                 int(out.step), {0, 0, 30, 15}, 0.5, 0.5, -1.5, -2.5, pxInterCubic, buffer.data()),
        pxStsNoErr);
    cv::resize(plane(cv::Rect(3, 5, 60, 30)).clone(), want, out.size(), 0.0, 0.0, cv::INTER_CUBIC);
    EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0.0);
    auto *d = out.ptr<std::uint16_t>();
    EXPECT_EQ(pxHalveCubic(s, int(plane.step), {5, 2}, d, 16), pxStsSizeErr);
    EXPECT_EQ(pxHalveCubic(s, int(plane.step), {6, 2}, d, 4), pxStsStepErr);
}

}  // namespace
