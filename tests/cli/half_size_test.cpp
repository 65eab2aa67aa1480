// --half: the preview of a slow filter is close to the full run on a photograph and faster,
// an unchanged half plane gives back the original exactly, and --half with colour planes is
// refused.
#include <gtest/gtest.h>

#include <chrono>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "cli/half_size.h"
#include "cli/smooth_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

double secondsOf(std::string const &cwd, std::string const &line) {
    auto const start = std::chrono::steady_clock::now();
    Outcome const r = kestrix(cwd, line);
    EXPECT_EQ(r.status, 0) << line << ": " << r.err;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class HalfRuns : public testing::TestWithParam<char const *> {};

// The preview's luminance stays far nearer the full result than the full result is to the
// input, and much nearer than the half-size result merely enlarged (--half without its
// detail would be about as far as the change itself).
TEST_P(HalfRuns, PreviewIsCloseToTheFullRunAndFaster) {
    TempDir dir;
    cv::Mat const in = to16(photo("astronaut.png"));
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", in));
    std::string const line = std::string(GetParam()) + " in.tif -q -o ";
    double const full = secondsOf(dir.path, line + "full.tif");
    double const half = secondsOf(dir.path, line + "half.tif --half");
    cv::Mat const a = lumaOf(cv::imread(dir / "full.tif", cv::IMREAD_UNCHANGED));
    cv::Mat const b = lumaOf(cv::imread(dir / "half.tif", cv::IMREAD_UNCHANGED));
    double const change = meanAbsDiff(a, lumaOf(in)), error = meanAbsDiff(a, b);
    EXPECT_LT(error, 0.3 * change) << GetParam() << ": change " << change;
    EXPECT_LT(half, 0.8 * full) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(SlowFilters, HalfRuns,
                         testing::Values("smooth --filter wls", "local --strength 0.3"));

TEST(HalfSize, UnchangedHalfGivesBackTheOriginalAndColourIsRefused) {
    cv::Mat y;
    lumaOf(to16(crop(photo("chelsea.png"), 161, 123))).convertTo(y, CV_16U);
    EXPECT_EQ(cv::norm(fullSizeFrom(y, halfSizeOf(y)), y, cv::NORM_INF), 0);
    EXPECT_EQ(usageErrorOf(addSmoothOptions, "smooth", "--filter dt --half --channels rgb"),
              "--half works on the luminance only: it does not apply to --channels rgb (see "
              "kestrix smooth --help)");
    EXPECT_EQ(usageErrorOf(addSmoothOptions, "smooth", "--filter dt --half --channels y"), "");
}

}  // namespace
