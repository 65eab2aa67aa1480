// `kestrix smooth`: each filter, on luminance and on colour planes, smooths noise while it
// keeps an edge, follows a second picture's edges when given one, keeps colour and depth, and
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
    cv::Mat m(64, 96, CV_16SC3, cv::Scalar(100, 80, 60)), noise(m.size(), CV_16SC3);
    m.colRange(kEdge, m.cols).setTo(cv::Scalar(150, 170, 190));
    cv::RNG(7).fill(noise, cv::RNG::UNIFORM, -12, 13);
    cv::Mat(m + noise).convertTo(m, CV_8UC3);
    return m;
}

// Noise: the deviation of a plane on the left, flat side; the edge's height: four columns on
// each side of it.
double noiseOf(cv::Mat const &plane) {
    cv::Scalar mean, dev;
    cv::meanStdDev(plane(cv::Rect(8, 8, kEdge - 24, plane.rows - 16)), mean, dev);
    return dev[0];
}
double stepOf(cv::Mat const &bgr) {
    return edgeHeight(lumaOf(bgr), kEdge, 2, 6);
}

class SmoothRuns : public testing::TestWithParam<char const *> {};

// Noise falls to half or less while the edge keeps most of its height, at 16 bits; luminance
// alone leaves the colour noise alone. With a flat guide the same filter has no edge to
// follow and blurs it. Nothing is printed without --time.
TEST_P(SmoothRuns, SmoothsButKeepsTheEdgeItIsShown) {
    TempDir dir;
    cv::Mat const in = to16(noisyEdge());
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", in));
    ASSERT_TRUE(cv::imwrite(dir / "flat.tif", cv::Mat(in.size(), CV_16UC3, cv::Scalar::all(9999))));
    for (char const *extra : {"--channels y", "--channels rgb", "--guide flat.tif"}) {
        std::string const line =
            std::string("smooth in.tif -o out.tif ") + GetParam() + " " + extra;
        Outcome const r = kestrix(dir.path, line);
        ASSERT_EQ(r.status, 0) << line << ": " << r.err;
        EXPECT_EQ(r.out + r.err, "") << line;
        cv::Mat const out = cv::imread(dir / "out.tif", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(out.type(), CV_16UC3);
        if (extra[2] == 'g') {
            EXPECT_LT(stepOf(out), 0.6 * stepOf(in)) << line;
            continue;
        }
        EXPECT_LT(noiseOf(lumaOf(out)), 0.5 * noiseOf(lumaOf(in))) << line;
        EXPECT_GT(stepOf(out), 0.8 * stepOf(in)) << line;
        // Colour noise stays with --channels y and goes with rgb.
        double const colourNoise = noiseOf(lumaOf(out, 0, -1, 1)) / noiseOf(lumaOf(in, 0, -1, 1));
        EXPECT_TRUE(extra[11] == 'y' ? colourNoise > 0.7 : colourNoise < 0.5) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(EachFilter, SmoothRuns,
                         testing::Values("--filter guided", "--filter dt",
                                         "--filter bilateral --sigma-s 8",
                                         "--filter manifold --sigma-s 12 --sigma-r 0.15",
                                         "--filter wls"));

// --time prints the program's line; the random manifolds repeat exactly from run to run; the
// filter's defaults, and the wrong lines.
TEST(SmoothCommand, TimingRepeatsDefaultsAndWrongLines) {
    TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir / "in.png", crop(photo("chelsea.png"))));
    Outcome const r = kestrix(dir.path, "smooth in.png -o t.png --filter guided --time");
    EXPECT_EQ(r.out.rfind("time to smooth: ", 0), 0u) << r.out;
    for (char const *name : {"m1.png", "m2.png"})
        ASSERT_EQ(
            kestrix(dir.path, std::string("smooth in.png --filter manifold -o ") + name).status, 0);
    EXPECT_EQ(slurp(dir / "m1.png"), slurp(dir / "m2.png"));

    SmoothSettings const s = parseWith(addSmoothOptions, "smooth", "--filter bilateral");
    EXPECT_TRUE(s.sigmaS == 16.0f && s.sigmaR == 0.1f && s.radius == 0);
    SmoothSettings const w = parseWith(addSmoothOptions, "smooth", "--filter wls --alpha 2");
    EXPECT_TRUE(w.lambda == 0.5f && w.alpha == 2.0f);

    std::pair<char const *, char const *> const cases[] = {
        {"",
         "kestrix smooth needs --filter guided, dt, bilateral, manifold, wls or box (see kestrix "
         "smooth --help)"},
        {"--filter box --sigma-r 0.1",
         "--sigma-r does not apply to --filter box (see kestrix smooth --help)"},
        {"--filter guided --radius 300",
         "bad value '300' for --radius (--filter guided needs at most 200)"},
        {"--filter dt --lambda 1",
         "--lambda does not apply to --filter dt (see kestrix smooth --help)"},
        {"--filter dt --eps 0.1",
         "--eps does not apply to --filter dt (see kestrix smooth --help)"},
        {"--filter manifold --sigma-s 3.5",
         "bad value '3.5' for --sigma-s (--filter manifold needs at least 4)"},
        {"--filter dt --channels lab", "bad value 'lab' for --channels (expected y or rgb)"},
        {"--filter dt --half --channels rgb",
         "--half works on the luminance only: it does not apply to --channels rgb (see kestrix "
         "smooth --help)"},
    };
    for (auto const &[line, message] : cases)
        EXPECT_EQ(usageErrorOf(addSmoothOptions, "smooth", line), message) << line;
}

// A whole photograph through --filter wls. The smoothing matrix's rows sum to one, so the
// mean luminance stays. Fine texture falls by half or more, where a Gaussian blur (sigma 1)
// takes a tenth of it; yet the strongest steps keep more of their height than under that
// blur.
TEST(SmoothCommand, WlsOnAPhotograph) {
    TempDir dir;
    std::string const in = std::string(KX_DATA_DIR) + "/coffee.png";
    Outcome const r = kestrix(dir.path, "smooth '" + in + "' -o out.png --filter wls");
    ASSERT_EQ(r.status, 0) << r.err;
    cv::Mat const a = lumaOf(roundTrip(photo("coffee.png")));
    cv::Mat const b = lumaOf(cv::imread(dir / "out.png", cv::IMREAD_UNCHANGED));
    ASSERT_EQ(b.size(), a.size());
    EXPECT_NEAR(cv::mean(b)[0], cv::mean(a)[0], 0.5);

    auto gradient = [](cv::Mat const &y) {
        cv::Mat gx, gy, g;
        cv::Sobel(y, gx, CV_64F, 1, 0);
        cv::Sobel(y, gy, CV_64F, 0, 1);
        cv::magnitude(gx, gy, g);
        return g;
    };
    cv::Mat const ga = gradient(a), texture = ga<40, strong = ga> 400;
    auto kept = [&](cv::Mat const &y, cv::Mat const &where) {
        return cv::mean(gradient(y), where)[0] / cv::mean(ga, where)[0];
    };
    cv::Mat blurred;
    cv::GaussianBlur(a, blurred, cv::Size(), 1.0);
    EXPECT_LT(kept(b, texture), 0.6);
    EXPECT_GT(kept(blurred, texture), 0.8);
    EXPECT_GT(kept(b, strong), kept(blurred, strong));
}

// A photograph whose factor would not fit is refused with one line before any work.
TEST(SmoothCommand, WlsRefusesWhatDoesNotFitInMemory) {
    EXPECT_NO_THROW(requireWlsFits(1224, 816, 2e9));
    std::string why;
    try {
        requireWlsFits(6000, 4000, 8e9);
    } catch (FileError const &e) {
        why = e.what();
    }
    EXPECT_EQ(why.substr(0, 68) + why.substr(why.size() - 86),
              "the photograph is 6000 x 4000 pixels: --filter wls would need about  GB of memory, "
              "more than this machine's 8.0 GB (try a smaller copy, or another filter)");
}

}  // namespace
