// The box blur of TImage planes against OpenCV doing the same steps (shrink, box with a
// reflected edge, enlarge), across the radius where shrinking starts; its reversed progress;
// its texts.
#include "kestrix1/image/t_filter_box.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/t_image.h"
#include "tests/support/throws.h"

namespace {

TImage randomImage(TImage::IMTYPE type, int w, int h) {
    TImage im(type, TSize(w, h));
    cv::Mat m = im.toMat();
    cv::RNG(5).fill(m, cv::RNG::UNIFORM, 0, type == TImage::Y16U ? 65536 : 256);
    return im;
}

// The blur as OpenCV calls: the box of cv::blur rounds as the library's box kernel does.
cv::Mat reference(cv::Mat const &in, int radius, int passes) {
    int const f = radius / 54 + 1, r = radius / f;
    cv::Mat m = in.clone();
    if (f > 1) cv::resize(in, m, {in.cols / f, in.rows / f}, 0, 0, cv::INTER_LINEAR);
    for (int p = 0; p < passes; ++p)
        cv::blur(m, m, {2 * r + 1, 2 * r + 1}, {-1, -1}, cv::BORDER_REFLECT_101);
    if (f > 1) cv::resize(m, m, in.size(), 0, 0, cv::INTER_LINEAR);
    return m;
}

class BoxRadius : public testing::TestWithParam<int> {};

// 53 blurs at full size, 54 shrinks by 2, 200 by 4; 16-bit, and the first plane of an 8-bit
// pair, whose second plane stays as it was.
TEST_P(BoxRadius, MatchesOpenCvSteps) {
    int const radius = GetParam();
    for (auto type : {TImage::Y16U, TImage::C8U2}) {
        TImage const in = randomImage(type, 301, 217);
        TImage out(type, TSize(301, 217));
        out.toMat(1).setTo(9);
        EXPECT_FALSE(tFilterBox(&in, &out, radius, 2, nullptr));
        EXPECT_LE(cv::norm(out.toMat(), reference(in.toMat(), radius, 2), cv::NORM_INF), 0) << type;
        if (type == TImage::C8U2) {
            EXPECT_EQ(cv::countNonZero(out.toMat(1) != 9), 0);
        }
    }
}
INSTANTIATE_TEST_SUITE_P(AroundTheShrink, BoxRadius, testing::Values(1, 53, 54, 200));

struct Answers {
    int calls = 0;
    bool answer = false;
};
bool answer(int, void *user) {
    auto *a = static_cast<Answers *>(user);
    ++a->calls;
    return a->answer;
}

// A true answer ends the blur after the first pass, out unwritten; a false one lets it run
// and the last call's answer is the result. No radius or no pass copies the input.
TEST(TFilterBox, ReversedProgressAndCopies) {
    TImage const in = randomImage(TImage::Y16U, 40, 30);
    TImage out(TImage::Y16U, TSize(40, 30));
    out.toMat().setTo(3);
    Answers stop{0, true}, go{0, false};
    TProgress stopping(answer, &stop), going(answer, &go);
    EXPECT_TRUE(tFilterBox(&in, &out, 5, 3, &stopping));
    EXPECT_EQ(stop.calls, 1);
    EXPECT_EQ(cv::countNonZero(out.toMat() != 3), 0);
    EXPECT_FALSE(tFilterBox(&in, &out, 5, 3, &going));
    EXPECT_EQ(go.calls, 4);

    TImage copy(TImage::Y16U);
    EXPECT_FALSE(tFilterBox(&in, &copy, 0, 3, nullptr));
    EXPECT_EQ(cv::norm(copy.toMat(), in.toMat(), cv::NORM_INF), 0);
    EXPECT_TRUE(tFilterBox(&in, &copy, 7, 0, &stopping));

    // A plane smaller than the shrink keeps one pixel: the mean of the resize.
    TImage const tiny = randomImage(TImage::Y16U, 3, 2);
    TImage tinyOut(TImage::Y16U, TSize(3, 2));
    EXPECT_FALSE(tFilterBox(&tiny, &tinyOut, 300, 1, nullptr));
}

TEST(TFilterBox, Texts) {
    TImage const y16 = randomImage(TImage::Y16U, 8, 8);
    TImage c8(TImage::C8U2, TSize(8, 8)), m8(TImage::M8U, TSize(8, 8)),
        small(TImage::Y16U, TSize(4, 8));
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&y16, &c8, 3, 1, nullptr); }),
              "tFilterBox - in_p->type() != out_p->type()");
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&m8, &m8, 3, 1, nullptr); }),
              "tFilterBox - type not supported");
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&y16, &small, 3, 1, nullptr); }),
              "ERROR - TImage::copyFrom - size is not equal");
}

}  // namespace
