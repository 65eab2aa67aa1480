// `kestrix hist`: the picture at its size and 8 bits whatever the input's depth, each
// channel's histogram in its own colour, and the wrong sizes.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <string>

#include "cli/hist_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// A pure red picture: the red histogram is one spike and green and blue sit in bin 0, so the
// picture has red where no other channel reaches, and nothing green or blue above the left
// end.
TEST(HistCommand, DrawsEachChannelInItsColourAtTheAskedSize) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "red.tif", cv::Mat(40, 30, CV_16UC3, cv::Scalar(0, 0, 40000))));
    ASSERT_TRUE(cv::imwrite(dir / "in.jpg", crop(photo("coffee.png"))));
    Outcome r = kestrix(dir.path, "hist red.tif -o red.png --size 300x120");
    ASSERT_TRUE(r.status == 0 && r.out + r.err == "") << r.err;
    cv::Mat const red = cv::imread(dir / "red.png", cv::IMREAD_UNCHANGED);
    ASSERT_TRUE(red.type() == CV_8UC3 && red.size() == cv::Size(300, 120));
    cv::Mat planes[3];
    cv::split(red.colRange(20, 300), planes);
    EXPECT_GT(cv::countNonZero(planes[2] > planes[1] + 60), 0);
    EXPECT_EQ(cv::countNonZero(planes[0] > planes[2] + 60), 0);
    EXPECT_EQ(cv::countNonZero(planes[1] > planes[2] + 60), 0);

    r = kestrix(dir.path, "hist in.jpg");
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat const coffee = cv::imread(dir / "hist.png", cv::IMREAD_UNCHANGED);
    EXPECT_TRUE(coffee.type() == CV_8UC3 && coffee.size() == cv::Size(512, 200));

    std::string const expected =
        " for --size (expected WxH with W and H whole numbers from 16 to 8192)";
    for (char const *size : {"300", "300x", "x120", "15x120", "300x8193", "300x120x2", "+300x120"})
        EXPECT_EQ(usageErrorOf(addHistOptions, "hist", std::string("--size ") + size),
                  "bad value '" + std::string(size) + "'" + expected);
}

}  // namespace
