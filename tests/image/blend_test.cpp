// Blending under opacity and mask, and byte scaling: every type, mode and mask case against a
// plain loop of the formula; the texts; what is left alone.
#include "kestrix1/image/blend.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <tuple>

#include "tests/support/throws.h"

namespace {

// The formula one pixel at a time, in float, truncated for the integer types.
template <class T>
cv::Mat reference(cv::Mat const &b, cv::Mat const &t, cv::Mat const &mask, float opacity,
                  int mode) {
    cv::Mat out(b.size(), b.type());
    for (int i = 0; i < int(b.total()); ++i) {
        T const bv = b.at<T>(i), tv = t.at<T>(i);
        float const c = float(mode == 0 ? tv : mode == 1 ? std::min(bv, tv) : std::max(bv, tv));
        float const a = mask.empty() ? opacity : float(mask.at<uchar>(i)) * float(opacity / 255.0);
        out.at<T>(i) = T(c * a + float(bv) * (1.0f - a));
    }
    return out;
}

class BlendAlpha : public testing::TestWithParam<std::tuple<int, int, bool>> {};

// On an odd size, at 1, 2 and 4 threads.
TEST_P(BlendAlpha, MatchesThePlainFormula) {
    auto const [type, mode, masked] = GetParam();
    cv::Mat b(41, 67, type), t(41, 67, type), mask;
    double const top = type == CV_8UC1 ? 256 : type == CV_16UC1 ? 65536 : 1;
    cv::randu(b, 0, top), cv::randu(t, 0, top);
    if (masked) cv::randu(mask = cv::Mat(b.size(), CV_8UC1), 0, 256);
    for (float opacity : {0.0f, 0.37f, 1.0f}) {
        cv::Mat const want = type == CV_8UC1    ? reference<uchar>(b, t, mask, opacity, mode)
                             : type == CV_16UC1 ? reference<ushort>(b, t, mask, opacity, mode)
                                                : reference<float>(b, t, mask, opacity, mode);
        for (int threads : {1, 2, 4}) {
            omp_set_num_threads(threads);
            cv::Mat out, same = b.clone();  // and in place over the base
            blendAlpha(b, t, mask, out, opacity, mode);
            blendAlpha(same, t, mask, same, opacity, mode);
            EXPECT_EQ(cv::norm(out, want, cv::NORM_INF) + cv::norm(same, want, cv::NORM_INF), 0)
                << opacity << " " << threads;
        }
    }
    omp_set_num_threads(omp_get_num_procs());
}
INSTANTIATE_TEST_SUITE_P(TypesModesMasks, BlendAlpha,
                         testing::Combine(testing::Values(CV_8UC1, CV_16UC1, CV_32FC1),
                                          testing::Values(0, 1, 2), testing::Bool()));

TEST(Blend, TextsWhatIsLeftAloneAndBytes) {
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
    // Empty inputs and unknown modes write nothing.
    blendAlpha(cv::Mat(), b, cv::Mat(), out, 0.5f, 0);
    blendAlpha(a, b, cv::Mat(), out = cv::Mat(5, 7, CV_16UC1, cv::Scalar(7)), 0.5f, 3);
    EXPECT_EQ(cv::countNonZero(out != 7), 0);
    // Bytes: halves to even, saturated, each buffer with its own step.
    unsigned char const in[2][4] = {{0, 1, 3, 5}, {100, 200, 255, 7}};
    unsigned char got[2][3] = {}, want[2][3] = {{0, 0, 2}, {50, 100, 255}};
    blendC(&in[0][0], 4, &got[0][0], 3, 3, 2, 0.5f);
    blendC(&in[1][2], 4, &got[1][2], 3, 1, 1, 3.0f);
    EXPECT_EQ(std::memcmp(got, want, sizeof got), 0);
}

}  // namespace
