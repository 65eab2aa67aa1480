// ConvPyr against the pyramid written plainly: whole planes, one cv::sepFilter2D after
// another, compared bit for bit at 1, 2 and 4 threads, on views, in place, at awkward sizes.
#include "kestrix1/filters/conv_pyr.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using Kernels = std::vector<cv::Mat>;

// Set 0: symmetric 5-tap kernels. Set 1: a 4-tap row, a 7-tap column and a 3-tap row, none
// symmetric, so that anchors and the reach of each filter show.
Kernels kernels(int set) {
    if (set == 0)
        return {cv::Mat(std::vector<float>{.05f, .25f, .4f, .25f, .05f}, true),
                cv::Mat(std::vector<float>{.1f, .5f, .8f, .5f, .1f}, true),
                cv::Mat(std::vector<float>{-.02f, .1f, .3f, .1f, -.02f}, true)};
    return {cv::Mat(std::vector<float>{.1f, .3f, .5f, .1f}, true).t(),
            cv::Mat(std::vector<float>{.3f, .1f, .7f, .9f, .2f, .05f, .15f}, true),
            cv::Mat(std::vector<float>{.6f, .3f, -.1f}, true).t()};
}

cv::Mat f(cv::Mat const &src, cv::Mat const &k) {
    cv::Mat dst(src.size(), CV_32F, cv::Scalar(0));
    cv::sepFilter2D(src, dst, CV_32F, k, k, cv::Point(-1, -1), 0.0, 0);
    return dst;
}

cv::Mat plain(cv::Mat const &in, Kernels const &k) {
    int const m = std::max(in.rows, in.cols);
    int const levels = m <= 1 ? 1 : int(std::floor(std::log2(double(m)))) + 1;
    std::vector<cv::Mat> down{in}, up(levels);
    for (int i = 1; i < levels; ++i) {
        cv::Mat t = f(down[i - 1], k[0]);
        cv::Mat o(int(std::ceil(t.rows / 2.0)), int(std::ceil(t.cols / 2.0)), CV_32F);
        for (int y = 0; y < o.rows; ++y)
            for (int x = 0; x < o.cols; ++x)
                o.at<float>(y, x) = t.at<float>(2 * y, 2 * x);
        down.push_back(o);
    }
    up[levels - 1] = f(down[levels - 1], k[2]);
    for (int i = levels - 2; i >= 0; --i) {
        cv::Mat z(down[i].size(), CV_32F, cv::Scalar(0));
        for (int y = 0; y < up[i + 1].rows; ++y)
            for (int x = 0; x < up[i + 1].cols; ++x)
                z.at<float>(2 * y, 2 * x) = up[i + 1].at<float>(y, x);
        cv::add(f(z, k[1]), f(down[i], k[2]), up[i]);
    }
    return up[0];
}

bool sameBits(cv::Mat const &a, cv::Mat const &b) {
    bool same = a.size() == b.size() && a.type() == b.type();
    for (int y = 0; same && y < a.rows; ++y)
        same = std::memcmp(a.ptr(y), b.ptr(y), a.cols * a.elemSize()) == 0;
    return same;
}

struct Case {
    int rows, cols, set;
    bool view, inPlace;  // in is a view amid other pixels; out is in
};
class ConvPyrPlanes : public testing::TestWithParam<Case> {};

TEST_P(ConvPyrPlanes, MatchPlainFiltersBitForBit) {
    Case const c = GetParam();
    Kernels const k = kernels(c.set);
    cv::Mat const parent = kxtest::noise(c.rows + 5, c.cols + 6, CV_32F, 11, -1.0, 1.0);
    cv::Rect const rect(4, 3, c.cols, c.rows);
    cv::Mat const want = plain(c.view ? parent(rect) : parent(rect).clone(), k);
    int const threads = omp_get_max_threads();
    for (int n : {1, 2, 4}) {
        omp_set_num_threads(n);
        cv::Mat whole = parent.clone(), in = c.view ? whole(rect) : whole(rect).clone(), out;
        uchar const *const pixels = in.data;
        ConvPyr(k[0], k[1], k[2]).proc(in, c.inPlace ? in : out);
        EXPECT_TRUE(sameBits(c.inPlace ? in : out, want)) << n << " threads";
        EXPECT_EQ(in.data, pixels);
    }
    omp_set_num_threads(threads);
}

// Levels: 1 x 1 has one; 3 x 5 goes 3 x 5, 2 x 3, 1 x 2; m = 3 has 2, 1023 has 10, 1024 has 11.
INSTANTIATE_TEST_SUITE_P(Sizes, ConvPyrPlanes,
                         testing::Values(Case{1, 1, 0, true, false}, Case{3, 5, 0, false, false},
                                         Case{5, 3, 1, true, false}, Case{17, 33, 0, true, true},
                                         Case{1, 9, 1, false, false}, Case{9, 1, 0, true, false},
                                         Case{3, 1, 1, false, true}, Case{2, 1023, 1, true, false},
                                         Case{1, 1024, 0, false, false},
                                         Case{301, 229, 1, true, false},
                                         Case{300, 131, 0, false, true}),
                         [](testing::TestParamInfo<Case> const &i) {
                             Case const c = i.param;
                             return std::to_string(c.rows) + "x" + std::to_string(c.cols) + "_set" +
                                    std::to_string(c.set) + (c.view ? "_view" : "") +
                                    (c.inPlace ? "_inPlace" : "");
                         });

TEST(ConvPyr, CopiesShareTheCallersKernels) {
    Kernels k = kernels(0);
    ConvPyr a(k[0], k[1], k[2]), b(a), c(k[2], k[2], k[2]);
    c = b;
    for (ConvPyr const *p : {&a, &b, &c})
        EXPECT_TRUE(p->kernelDown.data == k[0].data && p->kernelUp.data == k[1].data &&
                    p->kernelLevel.data == k[2].data);
    k[2] *= 3.0;
    cv::Mat const in = kxtest::noise(9, 14, CV_32F, 5, 0.0, 1.0);
    cv::Mat out;
    c.proc(in, out);
    EXPECT_TRUE(sameBits(out, plain(in, k)));
}

TEST(ConvPyr, ChecksArgumentsBeforeTouchingOut) {
    Kernels const k = kernels(0);
    cv::Mat out(2, 2, CV_8U, cv::Scalar(7)), in = kxtest::noise(4, 4, CV_32F, 3, 0.0, 1.0);
    EXPECT_TRUE(ConvPyr(k[0], k[1], k[2]).proc(cv::Mat(), out));
    for (int type : {CV_8UC1, CV_32FC3})
        EXPECT_EQ(kxtest::thrown([&] { ConvPyr(k[0], k[1], k[2]).proc(cv::Mat(3, 3, type), out); }),
                  "ERROR - ConvPyr::proc - in.type()!=CV_32FC1");
    Kernels const bad = {cv::Mat(3, 3, CV_32F), cv::Mat(1, 5, CV_64F), cv::Mat(0, 1, CV_32F)};
    char const *names[] = {"kernelDown", "kernelUp", "kernelLevel"};
    for (int i = 0; i < 3; ++i) {
        Kernels b = k;
        b[i] = bad[i];
        EXPECT_EQ(kxtest::thrown([&] { ConvPyr(b[0], b[1], b[2]).proc(in, out); }),
                  std::string("ERROR - ConvPyr::proc - ") + names[i] + " is not a CV_32FC1 vector");
    }
    EXPECT_TRUE(out.type() == CV_8U && cv::countNonZero(out == 7) == 4);
}

}  // namespace
