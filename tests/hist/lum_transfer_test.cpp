// LumTransfer on a photograph's luminance: a transfer to itself, thread counts, zero rounds.
#include "kestrix1/hist/lum_transfer.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <iostream>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "tests/support/images.h"

TEST(LumTransfer, ToItselfStaysCloseAtEveryThreadCountAndZeroRoundsWriteNothing) {
    cv::Mat y, first, out, kept(401, 601, CV_16UC1, cv::Scalar(7));
    cv::cvtColor(kxtest::photo("coffee.png"), y, cv::COLOR_BGR2GRAY);
    y.convertTo(y, CV_16UC1, 257.0);
    cv::resize(y, y, cv::Size(601, 401), 0, 0, cv::INTER_AREA);  // smooth 16-bit values
    std::ostringstream quiet;  // the filter prints its timing lines
    std::streambuf *const saved = std::cout.rdbuf(quiet.rdbuf());
    LumTransfer lt, copy;
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        lt.setup(y, 2);
        (copy = lt).proc(y, out);  // a deep copy: each object frees its own filter
        if (first.empty()) first = out.clone();
        EXPECT_EQ(cv::norm(first, out, cv::NORM_INF), 0) << threads;
    }
    uchar const *const data = kept.data;
    lt.setup(y, 0);
    lt.proc(y, kept);
    std::cout.rdbuf(saved);
    EXPECT_TRUE(kept.data == data && cv::countNonZero(kept != 7) == 0);
    // Measured: mean 181 and at most 2398 codes of 65535 (0.7 and 9 of 8 bits, highlights).
    cv::absdiff(first, y, out);
    EXPECT_TRUE(cv::mean(out)[0] < 250 && cv::norm(out, cv::NORM_INF) < 3000);
}
