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
// change below leaves alone), under a texture of +-10 levels: a 4-pixel checkerboard.
cv::Mat texturedStep() {
    cv::Mat m(96, 128, CV_8UC3);
    for (int r = 0; r < m.rows; ++r)
        for (int c = 0; c < m.cols; ++c) {
            int const v = (c < kEdge ? 70 : 170) + (((r / 4) + (c / 4)) % 2 ? 10 : -10);
            m.at<cv::Vec3b>(r, c) = cv::Vec3b(uchar(v), uchar(v + 5), uchar(v - 5));
        }
    return m;
}

// In the luminance, the texture: mean distance from a 9x9 mean on the left side; the step:
// 16 columns a side.
double textureOf(cv::Mat const &bgr) {
    cv::Mat const y = lumaOf(bgr);
    cv::Mat mean;
    cv::blur(y, mean, cv::Size(9, 9));
    return cv::mean(cv::abs(y - mean)(cv::Rect(8, 8, kEdge - 24, y.rows - 16)))[0];
}
double stepOf(cv::Mat const &bgr) {
    return edgeHeight(lumaOf(bgr), kEdge, 8, 24);
}

class LocalRuns : public testing::TestWithParam<char const *> {};

// At 16 bits, each form and variant. --time shows the library's own lines beside the
// program's, and nothing is printed without it.
TEST_P(LocalRuns, TextureFollowsTheStrengthStepStays) {
    TempDir dir;
    cv::Mat const in = to16(texturedStep());
    ASSERT_TRUE(cv::imwrite(dir / "in.png", in));
    for (char const *change : {"--strength 0.3", "--curve 0.05:2.5,0.2:1.5,0.4:1",
                               "--params 1,0.5,0,0", "--strength -0.3 --levels 16"}) {
        std::string const line =
            std::string("local in.png -o out.png --variant ") + GetParam() + " " + change;
        Outcome const r = kestrix(dir.path, line);
        ASSERT_EQ(r.status, 0) << line << ": " << r.err;
        EXPECT_EQ(r.out + r.err, "") << line;
        cv::Mat const out = cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(out.type(), CV_16UC3);
        if (change[11] == '-')
            EXPECT_LT(textureOf(out), 0.6 * textureOf(in)) << line;
        else
            EXPECT_GT(textureOf(out), 1.4 * textureOf(in)) << line;
        EXPECT_NEAR(stepOf(out), stepOf(in), 0.12 * stepOf(in)) << line;
    }
    Outcome const r = kestrix(
        dir.path, std::string("local in.png --strength 0.3 --time --variant ") + GetParam());
    for (char const *label : {"time to remap: ", "time to reconstruct: ", "time to filter: "})
        EXPECT_EQ(r.out.find(label) != std::string::npos, label[8] == 'f' || GetParam()[0] != 't')
            << label;
}

INSTANTIATE_TEST_SUITE_P(EachVariant, LocalRuns, testing::Values("cv", "simple", "table"));

TEST(LocalCommand, FormsLevelsAndWrongLines) {
    LocalSettings const curve = parseWith(addLocalOptions, "local", "--curve 0.02:2,0.1:1.5");
    EXPECT_EQ(curve.curve, (std::vector<float>{0.02f, 2.0f, 0.1f, 1.5f}));
    EXPECT_EQ(curve.levels, 32);

    std::pair<char const *, char const *> const cases[] = {
        {"",
         "kestrix local needs one of --strength, --curve or --params (see kestrix local "
         "--help)"},
        {"--strength 0.2 --params 0,0,0,0",
         "give only one of --strength, --curve and --params (see kestrix local --help)"},
        {"--params 0,0,0,0 --levels 16",
         "--levels does not apply to --params: the number of levels follows from its first "
         "value"},
        {"--curve 0.1:2,0.1:1",
         "bad value '0.1:2,0.1:1' for --curve (expected 1 to 16 points "
         "X:G, X rising strictly between 0 and 1, G in 0..4)"},
    };
    for (auto const &[line, message] : cases)
        EXPECT_EQ(usageErrorOf(addLocalOptions, "local", line), message) << line;
}

class HalfRuns : public testing::TestWithParam<char const *> {};

// --half: far nearer the full result than that is to the input (0.4 if enlarged). Its speed
// shows only on photographs larger than these.
TEST_P(HalfRuns, PreviewIsNearTheFullRun) {
    TempDir dir;
    cv::Mat const in = to16(photo("astronaut.png"));
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", in));
    for (int half : {0, 1}) {
        std::string const line = GetParam() + std::string(half ? " --half -o h.tif" : " -o f.tif");
        EXPECT_EQ(kestrix(dir.path, line + " -q in.tif").status, 0) << line;
    }
    cv::Mat const full = lumaOf(cv::imread(dir / "f.tif", cv::IMREAD_UNCHANGED));
    double const error = meanAbsDiff(full, lumaOf(cv::imread(dir / "h.tif", cv::IMREAD_UNCHANGED)));
    EXPECT_LT(error, 0.3 * meanAbsDiff(full, lumaOf(in))) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(SlowFilters, HalfRuns,
                         testing::Values("local --strength 0.3", "smooth --filter wls",
                                         "smooth --filter box --radius 20"));

}  // namespace
