// --half: on a photograph the preview of a slow filter is near the full run and faster; with
// colour planes it is refused.
#include <gtest/gtest.h>

#include <chrono>
#include <opencv2/imgcodecs.hpp>

#include "cli/smooth_command.h"
#include "tests/cli/cli_support.h"

namespace {

using namespace kxcli;

class HalfRuns : public testing::TestWithParam<char const *> {};

// The preview stays far nearer the full result than that is to the input (the half-size
// result merely enlarged would be about 0.4 of the way for local contrast).
TEST_P(HalfRuns, PreviewIsNearTheFullRunAndFaster) {
    TempDir dir;
    cv::Mat const in = to16(photo("astronaut.png"));
    ASSERT_TRUE(cv::imwrite(dir / "in.tif", in));
    double seconds[2];
    for (int half : {0, 1}) {
        auto const start = std::chrono::steady_clock::now();
        std::string const line = GetParam() + std::string(half ? " --half -o h.tif" : " -o f.tif");
        EXPECT_EQ(kestrix(dir.path, line + " -q in.tif").status, 0) << line;
        seconds[half] =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    cv::Mat const full = lumaOf(cv::imread(dir / "f.tif", cv::IMREAD_UNCHANGED));
    double const error = meanAbsDiff(full, lumaOf(cv::imread(dir / "h.tif", cv::IMREAD_UNCHANGED)));
    EXPECT_LT(error, 0.3 * meanAbsDiff(full, lumaOf(in))) << GetParam();
    EXPECT_LT(seconds[1], 0.8 * seconds[0]) << GetParam();
    EXPECT_EQ(usageErrorOf(addSmoothOptions, "smooth", "--filter dt --half --channels rgb"),
              "--half works on the luminance only: it does not apply to --channels rgb (see "
              "kestrix smooth --help)");
}

INSTANTIATE_TEST_SUITE_P(SlowFilters, HalfRuns,
                         testing::Values("smooth --filter wls", "local --strength 0.3"));

}  // namespace
