// ConvPyr against the same cv::sepFilter2D calls on whole planes: views, in place, 1 to 4 threads.
#include "kestrix1/filters/conv_pyr.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using K = std::vector<cv::Mat>;
auto const col = [](std::vector<float> taps) { return cv::Mat(taps, true); };
// Down, up, level: a symmetric 5-tap column, a 5-tap column, a 4-tap row (anchors, reaches).
K const k = {col({.05f, .25f, .4f, .25f, .05f}), col({.3f, .1f, .7f, .9f, .2f}),
             col({.6f, .3f, -.1f, .2f}).t()};

cv::Mat f(cv::Mat const &src, int i, cv::Mat dst = {}) {
    cv::sepFilter2D(src, dst, CV_32F, k[i], k[i], cv::Point(-1, -1), 0.0, 0);
    return dst;
}

// The even rows and columns of m: the first channel of a two-channel view.
cv::Mat evens(cv::Mat const &m) {
    return cv::Mat((m.rows + 1) / 2, (m.cols + 1) / 2, CV_32FC2, m.data, 2 * m.step);
}

cv::Mat plain(cv::Mat const &in, int levels) {
    if (levels == 1) return f(in, 2);
    cv::Mat coarse, z(in.size(), CV_32F, cv::Scalar(0)), zEven = evens(z);
    cv::extractChannel(evens(f(in, 0)), coarse, 0);
    cv::insertChannel(plain(coarse, levels - 1), zEven, 0);
    return f(z, 1) + f(in, 2);
}

class ConvPyrPlanes : public testing::TestWithParam<std::tuple<cv::Size, bool, int>> {};

TEST_P(ConvPyrPlanes, MatchPlainFilters) {
    auto const [size, inPlace, threads] = GetParam();
    int const m = std::max(size.width, size.height), levels = m <= 1 ? 1 : int(std::log2(m)) + 1;
    cv::Mat const parent = kxtest::noise(size.height + 5, size.width + 6, CV_32F, 11, -1.0, 1.0);
    cv::Rect const r(cv::Point(4, 3), size);
    cv::Mat whole = parent.clone(), in = whole(r), out;
    ConvPyr first(k[0], k[1], k[2]), copy(first), p(k[1], k[1], k[1]);
    p = copy;  // a copy assigned: it must filter with k
    omp_set_num_threads(threads);
    p.proc(in, inPlace ? in : out);
    EXPECT_EQ(cv::norm(inPlace ? whole(r) : out, plain(parent(r), levels), cv::NORM_INF), 0.0);
}

// Levels: 1 x 1 has one; 3 x 5 goes 3 x 5, 2 x 3, 1 x 2; m = 3 has 2, 1023 10 and 1024 11.
INSTANTIATE_TEST_SUITE_P(
    Sizes, ConvPyrPlanes,
    testing::Combine(testing::Values(cv::Size(1, 1), cv::Size(5, 3), cv::Size(33, 17),
                                     cv::Size(1, 9), cv::Size(9, 1), cv::Size(1, 3),
                                     cv::Size(1023, 2), cv::Size(1024, 1), cv::Size(1031, 1019)),
                     testing::Bool(), testing::Values(1, 2, 4)));

TEST(ConvPyr, ChecksArgumentsBeforeTouchingOut) {
    cv::Mat out(2, 2, CV_8U, cv::Scalar(7)), in(4, 4, CV_32F);
    K const bad = {cv::Mat(3, 3, CV_32F), cv::Mat(1, 5, CV_64F), cv::Mat(0, 1, CV_32F)};
    std::string const what[] = {"in.type()!=CV_32FC1", "kernelDown", "kernelUp", "kernelLevel"};
    for (int i = 0; i < 4; ++i) {
        K b = k;
        if (i > 0) b[i - 1] = bad[i - 1];
        EXPECT_EQ(kxtest::thrown([&] { ConvPyr(b[0], b[1], b[2]).proc(i ? in : out, out); }),
                  "ERROR - ConvPyr::proc - " + what[i] + (i ? " is not a CV_32FC1 vector" : ""));
    }
    EXPECT_TRUE(ConvPyr(bad[0], bad[1], bad[2]).proc(cv::Mat(), out) && cv::sum(out)[0] == 28);
}

}  // namespace
