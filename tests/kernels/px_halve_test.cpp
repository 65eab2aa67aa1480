// Tests of the exact cubic halving: bit for bit against cv::resize, on noise and hard edges.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_halve.h"
#include "tests/support/images.h"
#include "tests/support/vector_paths.h"

namespace {

// Whether pxHalveCubic, and pxResize at factor 0.5 (which hands it such planes), give what
// cv::resize gives.
bool halvesLikeResize(cv::Mat const &src) {
    IppiSize const size{src.cols, src.rows};
    cv::Mat out(src.rows / 2, src.cols / 2, CV_16UC1), general = out.clone(), want;
    std::vector<std::uint8_t> buffer(1 << 16);  // more than pxResizeBufferSize asks for
    auto const *s = src.ptr<std::uint16_t>();
    EXPECT_EQ(pxHalveCubic(s, int(src.step), size, out.ptr<std::uint16_t>(), int(out.step)) +
                  pxResize(s, size, int(src.step), {0, 0, size.width, size.height},
                           general.ptr<std::uint16_t>(), int(general.step),
                           {0, 0, out.cols, out.rows}, 0.5, 0.5, 0, 0, pxInterCubic, buffer.data()),
              pxStsNoErr);
    cv::resize(src, want, out.size(), 0.0, 0.0, cv::INTER_CUBIC);
    return cv::norm(out, want, cv::NORM_INF) == 0 && cv::norm(general, want, cv::NORM_INF) == 0;
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
    // Only even sides halve, into a step that holds the half row.
    std::uint16_t p[12] = {};
    EXPECT_EQ(pxHalveCubic(p, 12, {5, 2}, p, 16), pxStsSizeErr);
    EXPECT_EQ(pxHalveCubic(p, 12, {6, 2}, p, 4), pxStsStepErr);
}

}  // namespace
