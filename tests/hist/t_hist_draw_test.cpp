// THistDraw: the picture's form, and a one-colour image drawn as one peak per channel.
#include "kestrix1/hist/t_hist_draw.h"

#include <gtest/gtest.h>

#include "kestrix1/image/tp_image.h"

TEST(THistDraw, OneColourGivesOnePeakPerChannelOverADarkBackground) {
    cv::Mat const bgra(21, 37, CV_8UC4, cv::Scalar(50, 100, 200, 255));
    TPImage image;
    image.convertFrom(bgra.data, 37, 21, int(bgra.step));
    THistDraw draw;
    draw.setHistSize(300, 120);
    cv::Mat out(5, 5, CV_8UC1), painted;
    draw.getHistMat(out, image);
    ASSERT_TRUE(out.size() == cv::Size(300, 120) && out.type() == CV_8UC3);
    EXPECT_EQ(out.at<cv::Vec3b>(0, 0), cv::Vec3b(40, 40, 40));
    int const values[3] = {50, 100, 200};  // blue, green, red, as the picture's channels
    for (int c = 0; c < 3; ++c) {
        std::vector<cv::Point> bottom, top;  // painted in the last and in the first row
        cv::extractChannel(out, painted, c);
        cv::findNonZero(painted.row(out.rows - 1) == 220, bottom);
        cv::findNonZero(painted.row(0) == 220, top);
        ASSERT_TRUE(!bottom.empty() && !top.empty() && bottom.size() < 8) << c;
        EXPECT_EQ(bottom.back().x - bottom[0].x + 1, int(bottom.size())) << "one column " << c;
        EXPECT_NEAR(top[0].x, values[c] * 299 / 255.0, 2) << "the bin at rint(value 299 / 255)";
    }
}
