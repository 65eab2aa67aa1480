// `kestrix smooth`: each filter, on luminance and on colour planes, really smooths while it
// keeps an edge, follows a second picture's edges when given one, keeps the file's depth, and
// refuses a wrong line with one clear message.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "cli/smooth_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

constexpr int kEdge = 48;

// A vertical edge between two colours at column kEdge, under seeded noise of +-12.
cv::Mat noisyEdge() {
    cv::Mat m(64, 96, CV_8UC3);
    m.colRange(0, kEdge).setTo(cv::Scalar(100, 80, 60));
    m.colRange(kEdge, m.cols).setTo(cv::Scalar(150, 170, 190));
    cv::Mat noise(m.size(), CV_16SC3);
    cv::RNG rng(7);
    rng.fill(noise, cv::RNG::UNIFORM, -12, 13);
    cv::Mat wide;
    m.convertTo(wide, CV_16SC3);
    cv::Mat(wide + noise).convertTo(m, CV_8UC3);
    return m;
}

cv::Mat grey(cv::Mat const &bgr) {
    cv::Mat g;
    cv::cvtColor(bgr, g, cv::COLOR_BGR2GRAY);
    return g;
}

// Noise left in the luminance: the standard deviation of the left flat area.
double noiseOf(cv::Mat const &m) {
    cv::Scalar mean, dev;
    cv::meanStdDev(grey(m)(cv::Rect(8, 8, kEdge - 24, m.rows - 16)), mean, dev);
    return dev[0];
}

// Height of the edge in the luminance: four columns right of it minus four columns left.
double stepOf(cv::Mat const &m) {
    return cv::mean(grey(m).colRange(kEdge + 2, kEdge + 6))[0] -
           cv::mean(grey(m).colRange(kEdge - 6, kEdge - 2))[0];
}

class SmoothRuns : public testing::TestWithParam<char const *> {};

// Noise falls to well under half while the edge keeps most of its height; with a flat guide
// the same filter has no edge to follow and blurs it.
TEST_P(SmoothRuns, SmoothsButKeepsTheEdgeItIsShown) {
    TempDir dir;
    cv::Mat const in = noisyEdge();
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
    ASSERT_TRUE(cv::imwrite(dir / "flat.png", cv::Mat(in.size(), CV_8UC3, cv::Scalar::all(128))));
    std::string const options = GetParam();
    for (char const *channels : {"y", "rgb"}) {
        std::string const line = "smooth in.png -o out.png " + options + " --channels " + channels;
        Outcome const r = kestrix(dir.path, line);
        ASSERT_EQ(r.status, 0) << line << ": " << r.err;
        EXPECT_EQ(r.out + r.err, "") << line;
        cv::Mat const out = cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(out.type(), CV_8UC3);
        EXPECT_LT(noiseOf(out), 0.45 * noiseOf(in)) << line;
        EXPECT_GT(stepOf(out), 0.8 * stepOf(in)) << line;
    }
    std::string const line = "smooth in.png -o blur.png " + options + " --guide flat.png";
    ASSERT_EQ(kestrix(dir.path, line).status, 0) << line;
    EXPECT_LT(stepOf(cv::imread(dir / "blur.png")), 0.6 * stepOf(in)) << line;
}

INSTANTIATE_TEST_SUITE_P(EachFilter, SmoothRuns,
                         testing::Values("--filter guided", "--filter dt",
                                         "--filter bilateral --sigma-s 8",
                                         "--filter manifold --sigma-s 12 --sigma-r 0.15"));

// Luminance only leaves the colour-difference planes as they were; 16 bits stay 16 bits;
// --time prints the program's timing lines; the random manifolds repeat from run to run.
TEST(SmoothCommand, ColourKeptDepthKeptAndTiming) {
    TempDir dir;
    cv::Mat const in16 = to16(crop(photo("chelsea.png")));
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", in16));
    Outcome const r = kestrix(dir.path, "smooth in.tif -o out.tif --filter guided --time");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("time to smooth: "), std::string::npos) << r.out;
    cv::Mat const out = cv::imread(dir / "out.tif", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(out.type(), CV_16UC3);
    TPImage before, after;
    fillWorkingImage(roundTrip(in16), before);
    fillWorkingImage(out, after);
    double const moved = meanAbsDiff(after.m_Y, before.m_Y);
    EXPECT_GT(moved, 100.0);
    // Not exactly: a smoothed Y moves some pixels' R, G or B past the ends of the range.
    EXPECT_LT(meanAbsDiff(after.m_Dr, before.m_Dr), 0.05 * moved);
    EXPECT_LT(meanAbsDiff(after.m_Db, before.m_Db), 0.05 * moved);

    for (char const *name : {"m1.tif", "m2.tif"})
        ASSERT_EQ(kestrix(dir.path, std::string("smooth in.tif --filter manifold --channels rgb -o ") +
                                        name).status, 0);
    EXPECT_EQ(slurp(dir / "m1.tif"), slurp(dir / "m2.tif"));
}

TEST(SmoothCommand, DefaultsAndWrongLines) {
    SmoothSettings const bilateral = parseWith(addSmoothOptions, "smooth", "--filter bilateral");
    EXPECT_EQ(bilateral.sigmaS, 16.0f);
    EXPECT_EQ(bilateral.sigmaR, 0.1f);
    SmoothSettings const guided =
        parseWith(addSmoothOptions, "smooth", "--eps 0.05 --filter guided --channels rgb");
    EXPECT_EQ(guided.radius, 8);
    EXPECT_EQ(guided.eps, 0.05f);
    EXPECT_TRUE(guided.channels == SmoothSettings::Channels::rgb);

    std::pair<char const *, char const *> const cases[] = {
        {"", "kestrix smooth needs --filter guided, dt, bilateral or manifold (see kestrix "
             "smooth --help)"},
        {"--filter box", "bad value 'box' for --filter (expected guided, dt, bilateral or manifold)"},
        {"--filter dt --eps 0.1", "--eps does not apply to --filter dt (see kestrix smooth --help)"},
        {"--filter guided --sigma-s 4",
         "--sigma-s does not apply to --filter guided (see kestrix smooth --help)"},
        {"--filter manifold --sigma-s 3.5",
         "bad value '3.5' for --sigma-s (--filter manifold needs at least 4)"},
        {"--filter dt --sigma-r 0", "bad value '0' for --sigma-r (expected a number in 0.005..1)"},
        {"--filter dt --channels lab", "bad value 'lab' for --channels (expected y or rgb)"},
    };
    for (auto const &[line, message] : cases)
        EXPECT_EQ(usageErrorOf(addSmoothOptions, "smooth", line), message) << line;

    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "a.png", crop(photo("chelsea.png"), 40, 30)));
    ASSERT_TRUE(cv::imwrite(dir / "b.png", crop(photo("chelsea.png"), 41, 30)));
    Outcome const r = kestrix(dir.path, "smooth a.png --filter dt --guide b.png");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "kestrix: guide 'b.png' is 41 x 30 pixels; the input is 40 x 30\n");
    EXPECT_EQ(dir.files(), (std::set<std::string>{"a.png", "b.png"}));
}

}  // namespace
