// `kestrix blend`: a picture laid over a photograph through a painted mask, at an opacity and
// in each mode, across bit depths; and the wrong lines and files.
#include <gtest/gtest.h>

#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// The base, its negative as the top, and a mask white on the left half and black on the
// right. Black keeps the base exactly, white mixes at the opacity; darken and lighten at full
// opacity take the darker and the lighter; a 16-bit base takes the 8-bit top widened.
TEST(BlendCommand, MixesThroughTheMaskAtEachDepthAndRefusesWrongInput) {
    TempDir dir;
    cv::Mat const base = crop(photo("chelsea.png")), top = cv::Scalar::all(255) - base;
    cv::Mat mask(base.size(), CV_8UC1, cv::Scalar(0)), darker, lighter, mean, out;
    int const half = base.cols / 2;
    mask.colRange(0, half).setTo(255);
    ASSERT_TRUE(cv::imwrite(dir / "base.png", base) && cv::imwrite(dir / "top.png", top) &&
                cv::imwrite(dir / "mask.png", mask) && cv::imwrite(dir / "b16.tif", to16(base)));
    auto run = [&](std::string const &line, std::string const &out = "out.png") {
        Outcome const r = kestrix(dir.path, "blend " + line + " -o " + out);
        EXPECT_EQ(r.status, 0) << line << ": " << r.err;
        return cv::imread(dir / out, cv::IMREAD_UNCHANGED);
    };
    out = run("base.png top.png --mask mask.png --opacity 0.5");
    EXPECT_EQ(maxAbsDiff(out.colRange(half, out.cols), base.colRange(half, out.cols)), 0);
    cv::addWeighted(base, 0.5, top, 0.5, 0.0, mean, CV_32F);
    out.convertTo(out, CV_32F);
    EXPECT_LE(maxAbsDiff(out.colRange(0, half), mean.colRange(0, half)), 1.0);
    cv::min(base, top, darker), cv::max(base, top, lighter);
    EXPECT_EQ(maxAbsDiff(run("base.png top.png --mode darken"), darker), 0);
    EXPECT_EQ(maxAbsDiff(run("base.png top.png --mode lighten"), lighter), 0);
    EXPECT_EQ(maxAbsDiff(run("b16.tif top.png", "out.tif"), to16(top)), 0);

    // Wrong lines and files: one line each, and nothing written.
    ASSERT_TRUE(cv::imwrite(dir / "small.png", base(cv::Rect(0, 0, 20, 10))));
    std::set<std::string> const files = dir.files();
    std::pair<char const *, char const *> const cases[] = {
        {"base.png",
         "kestrix blend needs TOP, the picture to lay over INPUT (see kestrix blend --help)"},
        {"base.png base.png --mode multiply",
         "bad value 'multiply' for --mode (expected normal, darken or lighten)"},
        {"base.png small.png", "top 'small.png' is 20 x 10 pixels; the input is 161 x 123"},
        {"base.png base.png --mask small.png",
         "mask 'small.png' is 20 x 10 pixels; the input is 161 x 123"},
    };
    for (auto const &[line, message] : cases) {
        Outcome const r = kestrix(dir.path, std::string("blend ") + line);
        EXPECT_EQ(r.err, std::string("kestrix: ") + message + "\n") << line;
        EXPECT_NE(r.status, 0) << line;
    }
    EXPECT_EQ(dir.files(), files);
}

}  // namespace
