// `kestrix local`: fine texture grows with a positive strength and fades with a negative one
// while a large step keeps its height, in each variant and each table form; colour and depth
// are kept, and a wrong line gets one clear message.
#include <gtest/gtest.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <string>

#include "cli/local_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

constexpr int kEdge = 64;

// Grey 70 left of column kEdge and 170 from it on (a step of 40% of full scale, which every
// change below leaves alone), with a fine texture of +-10 levels (a
// 4-pixel checkerboard) over both sides.
cv::Mat texturedStep() {
    cv::Mat m(96, 128, CV_8UC3);
    for (int r = 0; r < m.rows; ++r)
        for (int c = 0; c < m.cols; ++c) {
            int const v = (c < kEdge ? 70 : 170) + (((r / 4) + (c / 4)) % 2 ? 10 : -10);
            m.at<cv::Vec3b>(r, c) = cv::Vec3b(uchar(v), uchar(v + 5), uchar(v - 5));
        }
    return m;
}

// The texture's amplitude: the mean absolute difference from a 9x9 mean, on the left side.
double textureOf(cv::Mat const &m) {
    cv::Mat grey, mean;
    cv::cvtColor(m, grey, cv::COLOR_BGR2GRAY);
    grey.convertTo(grey, CV_32F);
    cv::blur(grey, mean, cv::Size(9, 9));
    return cv::mean(cv::abs(grey - mean)(cv::Rect(8, 8, kEdge - 24, m.rows - 16)))[0];
}

double stepOf(cv::Mat const &m) {
    cv::Mat grey;
    cv::cvtColor(m, grey, cv::COLOR_BGR2GRAY);
    return cv::mean(grey.colRange(kEdge + 8, kEdge + 24))[0] -
           cv::mean(grey.colRange(kEdge - 24, kEdge - 8))[0];
}

class LocalRuns : public testing::TestWithParam<char const *> {};

TEST_P(LocalRuns, TextureFollowsTheStrengthStepStays) {
    TempDir dir;
    cv::Mat const in = texturedStep();
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
    std::string const variant = GetParam();
    auto run = [&](std::string const &change) {
        std::string const line = "local in.png -o out.png --variant " + variant + " " + change;
        Outcome const r = kestrix(dir.path, line);
        EXPECT_EQ(r.status, 0) << line << ": " << r.err;
        EXPECT_EQ(r.out + r.err, "") << line;
        return cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
    };
    for (char const *raise : {"--strength 0.3", "--curve 0.05:2.5,0.2:1.5,0.4:1",
                              "--params 1,0.5,0,0"}) {
        cv::Mat const out = run(raise);
        EXPECT_GT(textureOf(out), 1.4 * textureOf(in)) << raise;
        EXPECT_NEAR(stepOf(out), stepOf(in), 0.1 * stepOf(in)) << raise;
    }
    cv::Mat const calm = run("--strength -0.3 --levels 16");
    EXPECT_LT(textureOf(calm), 0.6 * textureOf(in));
    EXPECT_NEAR(stepOf(calm), stepOf(in), 0.1 * stepOf(in));
}

INSTANTIATE_TEST_SUITE_P(EachVariant, LocalRuns, testing::Values("cv", "simple", "table"));

// Only luminance changes: the colour-difference planes stay as they were; 16 bits stay 16 bits; --time
// shows the library's own lines with the program's.
TEST(LocalCommand, ColourDepthAndTiming) {
    TempDir dir;
    cv::Mat const in16 = to16(texturedStep());
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in16));
    Outcome const r = kestrix(dir.path, "local in.png --strength 0.3 --variant cv --time");
    ASSERT_EQ(r.status, 0) << r.err;
    for (char const *label : {"time to remap: ", "time to build pyramid using cv method: ",
                              "time to filter: "})
        EXPECT_NE(r.out.find(label), std::string::npos) << label;
    cv::Mat const out = cv::imread(dir / "local.png", cv::IMREAD_UNCHANGED);
    ASSERT_EQ(out.type(), CV_16UC3);
    TPImage before, after;
    fillWorkingImage(roundTrip(in16), before);
    fillWorkingImage(out, after);
    double const moved = meanAbsDiff(after.m_Y, before.m_Y);
    EXPECT_GT(moved, 300.0);
    EXPECT_LT(meanAbsDiff(after.m_Dr, before.m_Dr), 0.01 * moved);
    EXPECT_LT(meanAbsDiff(after.m_Db, before.m_Db), 0.01 * moved);
}

TEST(LocalCommand, FormsLevelsAndWrongLines) {
    LocalSettings const curve =
        parseWith(addLocalOptions, "local", "--curve 0.02:2,0.1:1.5 --variant simple");
    EXPECT_EQ(curve.curve, (std::vector<float>{0.02f, 2.0f, 0.1f, 1.5f}));
    EXPECT_EQ(curve.levels, 32);
    EXPECT_TRUE(curve.variant == LocalSettings::Variant::simple);
    EXPECT_EQ(parseWith(addLocalOptions, "local", "--strength -1 --levels 8").levels, 8);

    std::string const curveExpected =
        "(expected 1 to 16 points X:G, X rising strictly between 0 and 1, G in 0..4)";
    std::pair<char const *, std::string> const cases[] = {
        {"", "kestrix local needs one of --strength, --curve or --params (see kestrix local "
             "--help)"},
        {"--strength 0.2 --params 0,0,0,0",
         "give only one of --strength, --curve and --params (see kestrix local --help)"},
        {"--params 0,0,0,0 --levels 16",
         "--levels does not apply to --params: the number of levels follows from its first "
         "value"},
        {"--strength 1.5", "bad value '1.5' for --strength (expected a number in -1..1)"},
        {"--params 0,0,2,0", "bad value '0,0,2,0' for --params (expected 4 comma-separated "
                             "numbers in -1..1)"},
        {"--strength 0.2 --levels 4",
         "bad value '4' for --levels (expected a whole number from 8 to 256)"},
        {"--strength 0.2 --variant fast",
         "bad value 'fast' for --variant (expected cv, simple or table)"},
        {"--curve 0.1:2,0.1:1", "bad value '0.1:2,0.1:1' for --curve " + curveExpected},
        {"--curve 0:2", "bad value '0:2' for --curve " + curveExpected},
        {"--curve 1:2", "bad value '1:2' for --curve " + curveExpected},
        {"--curve 0.1:5", "bad value '0.1:5' for --curve " + curveExpected},
        {"--curve 0.1;2", "bad value '0.1;2' for --curve " + curveExpected},
        {"--curve 0.1:2,", "bad value '0.1:2,' for --curve " + curveExpected},
    };
    for (auto const &[line, message] : cases)
        EXPECT_EQ(usageErrorOf(addLocalOptions, "local", line), message) << line;
}

}  // namespace
