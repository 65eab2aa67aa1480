// `kestrix blend`: a picture laid over a photograph through a painted mask, at an opacity and
// in each mode, across bit depths; and the wrong lines and files.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "cli/blend_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// The base, its negative as the top and a mask white on the left half, black on the right.
struct Scene {
    TempDir dir;
    cv::Mat base = crop(photo("chelsea.png")), top = cv::Scalar::all(255) - base;
    Scene() {
        cv::Mat mask(base.size(), CV_8UC1, cv::Scalar(0));
        mask.colRange(0, base.cols / 2).setTo(255);
        EXPECT_TRUE(cv::imwrite(dir / "base.png", base) && cv::imwrite(dir / "top.png", top) &&
                    cv::imwrite(dir / "mask.png", mask));
    }
    cv::Mat run(std::string const &line) {
        Outcome const r = kestrix(dir.path, "blend base.png top.png -o out.png " + line);
        EXPECT_EQ(r.status, 0) << line << ": " << r.err;
        return cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
    }
};

// Black in the mask keeps the base exactly; white mixes at the opacity (half and half,
// truncated). Darken at full opacity takes the darker of the two.
TEST(BlendCommand, MixesThroughTheMask) {
    Scene s;
    int const half = s.base.cols / 2;
    cv::Mat const out = s.run("--mask mask.png --opacity 0.5");
    ASSERT_EQ(out.size(), s.base.size());
    EXPECT_EQ(maxAbsDiff(out.colRange(half, out.cols), s.base.colRange(half, out.cols)), 0);
    cv::Mat mean;
    cv::addWeighted(s.base, 0.5, s.top, 0.5, 0.0, mean, CV_32F);
    cv::Mat outF;
    out.convertTo(outF, CV_32F);
    EXPECT_LE(maxAbsDiff(outF.colRange(0, half), mean.colRange(0, half)), 1.0);

    cv::Mat darker;
    cv::min(s.base, s.top, darker);
    EXPECT_EQ(maxAbsDiff(s.run("--mode darken"), darker), 0);
    cv::Mat lighter;
    cv::max(s.base, s.top, lighter);
    EXPECT_EQ(maxAbsDiff(s.run("--mode lighten --opacity 1"), lighter), 0);
}

// A 16-bit base takes an 8-bit top widened; the result stays 16-bit.
TEST(BlendCommand, KeepsTheBaseDepth) {
    Scene s;
    ASSERT_TRUE(cv::imwrite(s.dir / "base16.tif", to16(s.base)));
    Outcome const r = kestrix(s.dir.path, "blend base16.tif top.png -o out.tif");
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat const out = cv::imread(s.dir / "out.tif", cv::IMREAD_UNCHANGED);
    EXPECT_EQ(maxAbsDiff(out, to16(s.top)), 0);
}

TEST(BlendCommand, WrongLinesAndFiles) {
    Scene s;
    ASSERT_TRUE(cv::imwrite(s.dir / "small.png", s.base(cv::Rect(0, 0, 20, 10))));
    std::pair<char const *, char const *> const cases[] = {
        {"blend base.png",
         "kestrix: kestrix blend needs TOP, the picture to lay over INPUT (see kestrix blend "
         "--help)\n"},
        {"blend base.png top.png --mode multiply",
         "kestrix: bad value 'multiply' for --mode (expected normal, darken or lighten)\n"},
        {"blend base.png small.png",
         "kestrix: top 'small.png' is 20 x 10 pixels; the input is 161 x 123\n"},
        {"blend base.png top.png --mask small.png",
         "kestrix: mask 'small.png' is 20 x 10 pixels; the input is 161 x 123\n"},
    };
    for (auto const &[line, message] : cases) {
        Outcome const r = kestrix(s.dir.path, line);
        EXPECT_EQ(r.err, message) << line;
        EXPECT_NE(r.status, 0) << line;
    }
    EXPECT_EQ(s.dir.files(),
              (std::set<std::string>{"base.png", "top.png", "mask.png", "small.png"}));
}

}  // namespace
