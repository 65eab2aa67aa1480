// The box blur of TImage planes against OpenCV doing the same steps (shrink, box with a
// reflected edge, enlarge) across the radius where shrinking starts; its reversed progress;
// its texts.
#include "kestrix1/image/t_filter_box.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/t_image.h"
#include "tests/support/throws.h"

namespace {

// 53 blurs at full size, 54 shrinks by 2, 200 by 4; 16-bit, and the first plane of an 8-bit
// pair, whose second plane stays as it was. cv::blur rounds as the library's box does.
TEST(TFilterBox, MatchesOpenCvStepsAroundTheShrink) {
    for (int radius : {1, 53, 54, 200})
        for (auto type : {TImage::Y16U, TImage::C8U2}) {
            int const f = radius / 54 + 1, r = radius / f;
            TImage in(type, TSize(301, 217)), out(type, TSize(301, 217));
            cv::Mat m = in.toMat();
            cv::randu(m, 0, type == TImage::Y16U ? 65536 : 256);
            out.toMat(1).setTo(9);
            EXPECT_FALSE(tFilterBox(&in, &out, radius, 2, nullptr));
            cv::resize(m, m, {m.cols / f, m.rows / f}, 0, 0, cv::INTER_LINEAR);
            for (int pass = 0; pass < 2; ++pass)
                cv::blur(m, m, {2 * r + 1, 2 * r + 1}, {-1, -1}, cv::BORDER_REFLECT_101);
            cv::resize(m, m, {301, 217}, 0, 0, cv::INTER_LINEAR);
            EXPECT_EQ(cv::norm(out.toMat(), m, cv::NORM_INF), 0) << radius << " " << type;
            EXPECT_TRUE(type != TImage::C8U2 || cv::countNonZero(out.toMat(1) != 9) == 0);
        }
}

// A true answer ends the blur after that pass with out unwritten; otherwise the last call's
// answer is the result. No radius copies the input; a plane smaller than the shrink keeps one
// pixel. Then the texts.
TEST(TFilterBox, ReversedProgressCopiesAndTexts) {
    TImage in(TImage::Y16U, TSize(40, 30)), out(TImage::Y16U, TSize(40, 30)), copy(TImage::Y16U);
    in.toMat().setTo(5000), out.toMat().setTo(3);
    // Counts its calls in user[0] and answers true from the call after user[1] on.
    auto answer = [](int, void *user) {
        return ++static_cast<int *>(user)[0] > static_cast<int *>(user)[1];
    };
    int stop[2] = {0, 0}, go[2] = {0, 3};
    TProgress stopping(answer, stop), going(answer, go);
    EXPECT_TRUE(tFilterBox(&in, &out, 5, 3, &stopping) && stop[0] == 1);
    EXPECT_EQ(cv::countNonZero(out.toMat() != 3), 0);
    EXPECT_TRUE(tFilterBox(&in, &out, 5, 3, &going) && go[0] == 4);
    EXPECT_FALSE(tFilterBox(&in, &copy, 0, 3, nullptr));
    EXPECT_EQ(cv::countNonZero(copy.toMat() != 5000), 0);
    TImage tiny(TImage::Y16U, TSize(3, 2)), c8(TImage::C8U2, TSize(4, 4)),
        m8(TImage::M8U, TSize(4, 4));
    EXPECT_FALSE(tFilterBox(&tiny, &tiny, 300, 1, nullptr));
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&in, &c8, 3, 1, nullptr); }),
              "tFilterBox - in_p->type() != out_p->type()");
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&m8, &m8, 3, 1, nullptr); }),
              "tFilterBox - type not supported");
    EXPECT_EQ(kxtest::thrown([&] { tFilterBox(&in, &tiny, 3, 1, nullptr); }),
              "ERROR - TImage::copyFrom - size is not equal");
}

}  // namespace
