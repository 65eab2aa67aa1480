// `kestrix color` in each space at 8 and 16 bits, its colour table and its wrong lines: colour
// changes where luminance stays, and no change gives the round trip.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "cli/color_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

// Mean |R - Y| + |B - Y| of a BGR image.
double chromaOf(cv::Mat const &bgr) {
    return cv::mean(cv::abs(lumaOf(bgr, -0.114, -0.587, 0.701)))[0] +
           cv::mean(cv::abs(lumaOf(bgr, 0.886, -0.587, -0.299)))[0];
}

double meanLumaDiff(cv::Mat const &a, cv::Mat const &b) {
    return cv::mean(cv::abs(lumaOf(a) - lumaOf(b)))[0];
}

// Runs `kestrix color IN -o out.png LINE` in `dir` and reads the result.
cv::Mat colorOf(TempDir const &dir, std::string const &line, std::string const &in = "in.png") {
    std::string const full = "color " + in + " -o out.png " + line;
    Outcome const r = kestrix(dir.path, full);
    EXPECT_EQ(r.status, 0) << full << ": " << r.err;
    EXPECT_EQ(r.err, "") << full;
    return cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
}

class ColorRuns : public testing::TestWithParam<std::tuple<char const *, int>> {};

TEST_P(ColorRuns, ChangesColourAndKeepsLuminance) {
    auto const [space, depth] = GetParam();
    double const full = depth == 8 ? 255.0 : 65535.0;
    auto atDepth = [depth](cv::Mat const &m8) { return depth == 8 ? m8 : to16(m8); };
    TempDir dir;
    cv::Mat const in = atDepth(crop(photo("astronaut.png")));
    // A soft red whose opposite, at its own luminance 110.9, is (R, G, B) = (61.9, 131.9, 131.9);
    // taller than the 256 rows that the hls and hsv spaces convert at once.
    ASSERT_TRUE(cv::imwrite(dir / "red.png", atDepth(cv::Mat(300, 26, CV_8UC3, {90, 90, 160}))));
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
    std::string const with = std::string("--space ") + space + " ";
    cv::Mat const same = roundTrip(in);

    EXPECT_EQ(maxAbsDiff(colorOf(dir, with), same), 0.0);
    cv::Mat out = colorOf(dir, with + "--hue red=0.2,blue=-0.3 --saturation yellow=0.4,green=-0.5");
    EXPECT_GT(meanAbsDiff(out, same), 0.01 * full);
    EXPECT_LT(meanLumaDiff(out, same), 0.002 * full);
    out = colorOf(dir, with + "--saturation all=0.5");
    EXPECT_GT(chromaOf(out), 1.25 * chromaOf(same));
    out = colorOf(dir, with + "--lightness all=0.4 --saturation all=0.1");
    EXPECT_GT(cv::mean(lumaOf(out))[0], cv::mean(lumaOf(same))[0] + 0.01 * full);

    out = colorOf(dir, with + "--hue red=1", "red.png");
    cv::Scalar const opposite = cv::Scalar(131.9, 131.9, 61.9) * (full / 255.0);
    EXPECT_LT(cv::norm(cv::mean(out) - opposite, cv::NORM_INF), 2.0 * full / 255.0);
}

INSTANTIATE_TEST_SUITE_P(EachSpaceAndDepth, ColorRuns,
                         testing::Combine(testing::Values("ydrdb", "hls", "hsv"),
                                          testing::Values(8, 16)),
                         [](auto const &info) {
                             return std::get<0>(info.param) +
                                    std::to_string(std::get<1>(info.param));
                         });

// Warmth adds red against blue, the floor lifts weak colours and the cut-off greys them, a
// narrowed floor lifts less; all at the input's luminance.
TEST(ColorCommand, TableWarmsAndSetsAFloorForWeakColours) {
    TempDir dir;
    // A muted photograph: a quarter of its colour over its grey.
    cv::Mat in;
    cv::Matx33f const grey = cv::Matx31f::ones() * cv::Matx13f(0.114f, 0.587f, 0.299f);
    cv::transform(to16(crop(photo("chelsea.png"))), in, 0.75f * grey + 0.25f * cv::Matx33f::eye());
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
    cv::Mat const same = roundTrip(in);
    auto redOverBlue = [](cv::Mat const &bgr) { return cv::mean(lumaOf(bgr, -1, 0, 1))[0]; };

    cv::Mat const warm = colorOf(dir, "--warmth 0.5");
    EXPECT_GT(redOverBlue(warm), redOverBlue(same) + 1500.0);
    EXPECT_LT(meanLumaDiff(warm, same), 150.0);
    double const lift = chromaOf(colorOf(dir, "--chroma-floor 1"));
    double const narrow = chromaOf(colorOf(dir, "--chroma-floor 1 --chroma-floor-narrow 1"));
    double const cut = chromaOf(colorOf(dir, "--chroma-floor -1"));
    EXPECT_GT(lift, 1.1 * narrow);
    EXPECT_GT(narrow, chromaOf(same));
    EXPECT_LT(cut, 0.9 * chromaOf(same));
}

TEST(ColorCommand, ReadsFamiliesAndRefusesWrongLines) {
    ColorSettings const s = parseWith(
        addColorOptions, "color",
        "--hue red=0.1,blue=-0.2 --hue red=0.3 --saturation all=1 --space hsv --warmth -0.5");
    EXPECT_TRUE(s.hue[0] == 0.3f && s.hue[4] == -0.2f && s.saturation[ColorSettings::kAll] == 1.0f);
    EXPECT_EQ(std::count(s.hue, s.hue + 7, 0.0f), 5);
    EXPECT_TRUE(s.space == ColorSettings::Space::hsv && s.families && !s.lightens && s.table);

    TempDir dir;
    std::ofstream(dir / "notes.png") << "not a picture\n";
    std::string const families =
        " for --hue (expected FAMILY=AMOUNT[,FAMILY=AMOUNT...] with FAMILY red, yellow, green, "
        "cyan, blue, magenta or all and AMOUNT in -1..1)";
    std::pair<char const *, std::string> const cases[] = {
        {"--hue reds=0.1", "2 bad value 'reds=0.1'" + families},
        {"--hue red=1.5", "2 bad value 'red=1.5'" + families},
        {"--hue red=0.1,", "2 bad value 'red=0.1,'" + families},
        {"--lightness", "2 option --lightness needs a value"},
        {"--space lab", "2 bad value 'lab' for --space (expected ydrdb, hls or hsv)"},
        {"--chroma-floor-narrow 1.5",
         "2 bad value '1.5' for --chroma-floor-narrow (expected a number in 0..1)"},
        {"--chroma-floor-narrow 0.5",
         "2 --chroma-floor-narrow needs --chroma-floor, the floor it narrows (see kestrix color "
         "--help)"},
        {"missing.png --hue red=0.1", "1 cannot open 'missing.png': No such file or directory"},
        {"notes.png --hue red=0.1", "1 'notes.png' is not a PNG, TIFF or JPEG image"},
    };
    for (auto const &[line, want] : cases) {
        Outcome const r = kestrix(dir.path, std::string("color ") + line);
        EXPECT_EQ(r.status, want[0] - '0') << line;
        EXPECT_EQ(r.err, "kestrix: " + want.substr(2) + "\n") << line;
    }
    EXPECT_EQ(dir.files(), std::set<std::string>{"notes.png"});
}

}  // namespace
