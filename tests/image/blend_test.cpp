// Blending under opacity and mask, and byte scaling: every type, mode and mask case against a
// plain loop of the formula, on an odd size; the texts; what is left alone.
#include "kestrix1/image/blend.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <opencv2/core.hpp>

#include "tests/support/throws.h"

namespace {

cv::Mat randomPlane(int type, cv::Size size, int seed) {
    cv::Mat m(size, type);
    double const top = type == CV_8UC1 ? 256 : type == CV_16UC1 ? 65536 : 1;
    cv::RNG(seed).fill(m, cv::RNG::UNIFORM, 0, top);
    return m;
}

// The formula one pixel at a time, in float, truncated for the integer types.
template <class T>
cv::Mat reference(cv::Mat const &b, cv::Mat const &t, cv::Mat const &mask, float opacity,
                  int mode) {
    cv::Mat out(b.size(), b.type());
    for (int y = 0; y < b.rows; ++y)
        for (int x = 0; x < b.cols; ++x) {
            T const bv = b.at<T>(y, x), tv = t.at<T>(y, x);
            float const c = float(mode == 0 ? tv : mode == 1 ? std::min(bv, tv) : std::max(bv, tv));
            float const a =
                mask.empty() ? opacity : float(mask.at<uchar>(y, x)) * float(opacity / 255.0);
            out.at<T>(y, x) = T(c * a + float(bv) * (1.0f - a));
        }
    return out;
}

struct Case {
    int type;
    int mode;
    bool masked;
};

class BlendAlpha : public testing::TestWithParam<Case> {};

// The same pixels as the plain loop, at 1, 2 and 4 threads; opacity 0 without a mask gives
// in0 back.
TEST_P(BlendAlpha, MatchesThePlainFormula) {
    Case const c = GetParam();
    cv::Size const size(67, 41);
    cv::Mat const b = randomPlane(c.type, size, 1), t = randomPlane(c.type, size, 2);
    cv::Mat const mask = c.masked ? randomPlane(CV_8UC1, size, 3) : cv::Mat();
    for (float opacity : {0.0f, 0.37f, 1.0f}) {
        cv::Mat want;
        if (c.type == CV_8UC1) want = reference<uchar>(b, t, mask, opacity, c.mode);
        if (c.type == CV_16UC1) want = reference<ushort>(b, t, mask, opacity, c.mode);
        if (c.type == CV_32FC1) want = reference<float>(b, t, mask, opacity, c.mode);
        for (int threads : {1, 2, 4}) {
            omp_set_num_threads(threads);
            cv::Mat out;
            blendAlpha(b, t, mask, out, opacity, c.mode);
            EXPECT_EQ(cv::norm(out, want, cv::NORM_INF), 0) << opacity << " " << threads;
        }
        if (opacity == 0.0f && !c.masked) {
            EXPECT_EQ(cv::norm(want, b, cv::NORM_INF), 0);
        }
    }
    omp_set_num_threads(omp_get_num_procs());
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (int type : {CV_8UC1, CV_16UC1, CV_32FC1})
        for (int mode : {0, 1, 2})
            for (bool masked : {false, true})
                cases.push_back({type, mode, masked});
    return cases;
}
INSTANTIATE_TEST_SUITE_P(TypesModesMasks, BlendAlpha, testing::ValuesIn(allCases()));

TEST(Blend, TextsAndWhatIsLeftAlone) {
    cv::Mat const a(5, 7, CV_16UC1, cv::Scalar(100)), b(5, 7, CV_16UC1, cv::Scalar(200));
    cv::Mat out;
    auto blend = [&](cv::Mat const &x, cv::Mat const &y, cv::Mat const &m) {
        return kxtest::thrown([&] { blendAlpha(x, y, m, out, 0.5f, 0); });
    };
    EXPECT_EQ(blend(a, cv::Mat(5, 7, CV_8UC1), {}), "ERROR - blendAlpha - in0.type()!=in1.type()");
    EXPECT_EQ(blend(a, cv::Mat(5, 8, CV_16UC1), {}),
              "ERROR - blendAlpha - in0.size() !=in1.size()");
    EXPECT_EQ(blend(cv::Mat(5, 7, CV_16SC1), cv::Mat(5, 7, CV_16SC1), {}),
              "ERROR - blendAlpha - in0 type");
    EXPECT_EQ(blend(a, b, cv::Mat(5, 6, CV_8UC1)),
              "ERROR - blendAlpha - mask must be empty or CV_8UC1 of in0's size");
    EXPECT_TRUE(out.empty());

    // Empty inputs do nothing; an unknown mode creates out and writes nothing into it.
    blendAlpha(cv::Mat(), b, cv::Mat(), out, 0.5f, 0);
    EXPECT_TRUE(out.empty());
    out = cv::Mat(5, 7, CV_16UC1, cv::Scalar(7));
    blendAlpha(a, b, cv::Mat(), out, 0.5f, 3);
    EXPECT_EQ(cv::countNonZero(out != 7), 0);

    // In place over in0: darken at one half changes only where in1 is darker.
    cv::Mat base = (cv::Mat_<ushort>(1, 3) << 100, 200, 300),
            top = (cv::Mat_<ushort>(1, 3) << 300, 100, 300);
    blendAlpha(base, top, cv::Mat(), base, 0.5f, 1);
    EXPECT_EQ(cv::norm(base, cv::Mat_<ushort>({1, 3}, {100, 150, 300}), cv::NORM_INF), 0);
}

// Rounded to nearest with halves to even, saturated, with its own steps; nothing for an
// empty size.
TEST(Blend, ScalesBytes) {
    unsigned char const in[2][4] = {{0, 1, 3, 5}, {100, 200, 255, 7}};
    unsigned char out[2][3] = {};
    blendC(&in[0][0], 4, &out[0][0], 3, 3, 2, 0.5f);
    unsigned char const half[2][3] = {{0, 0, 2}, {50, 100, 128}};
    EXPECT_EQ(std::memcmp(out, half, sizeof out), 0);
    blendC(&in[0][0], 4, &out[0][0], 3, 3, 2, 3.0f);
    EXPECT_EQ(out[0][1], 3);
    EXPECT_EQ(out[1][1], 255);
    blendC(&in[0][0], 4, &out[0][0], 3, 0, 2, 0.0f);
    EXPECT_EQ(out[1][1], 255);
}

}  // namespace
