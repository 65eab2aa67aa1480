// `kestrix blend`: a picture laid over a photograph through a painted mask, at an opacity and
// in each mode, across bit depths; and the wrong lines and files.
#include <gtest/gtest.h>

#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// The top is the base's negative; the mask is white on the left half. Black keeps the base,
// white mixes at the opacity; a 16-bit base takes the 8-bit top widened.
TEST(BlendCommand, MixesThroughTheMaskAtEachDepthAndRefusesWrongInput) {
    TempDir dir;
    cv::Mat const base = crop(photo("chelsea.png")), top = cv::Scalar::all(255) - base;
    cv::Mat mask(base.size(), CV_8UC1, cv::Scalar(0)), mixed = base.clone(), darker, out;
    cv::Rect const left(0, 0, base.cols / 2, base.rows);
    mask(left).setTo(255), mixed(left).setTo(cv::Scalar::all(127));  // (b + 255 - b) / 2
    cv::min(base, top, darker);
    ASSERT_TRUE(cv::imwrite(dir / "base.png", base) && cv::imwrite(dir / "top.png", top) &&
                cv::imwrite(dir / "mask.png", mask) && cv::imwrite(dir / "b16.tif", to16(base)) &&
                cv::imwrite(dir / "small.png", base(cv::Rect(0, 0, 20, 10))));
    std::tuple<char const *, cv::Mat, double> const runs[] = {
        {"base.png top.png --mask mask.png --opacity 0.5 -o o.png", mixed, 1},
        {"base.png top.png --mode darken -o o.png", darker, 0},
        {"base.png top.png --mode lighten -o o.png", cv::max(base, top), 0},
        {"b16.tif top.png -o o.tif", to16(top), 0}};
    for (auto const &[line, want, most] : runs) {
        Outcome const r = kestrix(dir.path, std::string("blend ") + line);
        out = cv::imread(dir / (want.depth() ? "o.tif" : "o.png"), cv::IMREAD_UNCHANGED);
        EXPECT_TRUE(r.status == 0 && maxAbsDiff(out, want) <= most) << line << ": " << r.err;
    }

    std::set<std::string> const files = dir.files();
    std::pair<char const *, char const *> const wrong[] = {
        {"base.png",
         "kestrix blend needs TOP, the picture to lay over INPUT (see kestrix blend --help)"},
        {"base.png small.png", "top 'small.png' is 20 x 10 pixels; the input is 161 x 123"},
        {"base.png base.png --mask small.png",
         "mask 'small.png' is 20 x 10 pixels; the input is 161 x 123"},
    };
    for (auto const &[line, message] : wrong) {
        Outcome const r = kestrix(dir.path, std::string("blend ") + line);
        EXPECT_TRUE(r.err == std::string("kestrix: ") + message + "\n" && r.status) << line;
    }
    EXPECT_EQ(dir.files(), files);
}

}  // namespace
