#include "cli/half_size.h"

#include <algorithm>
#include <cmath>

#include "cli/smooth_command.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"

namespace {

// The rebuild is a protected member of the working image, for hosts that derive from it.
struct Rebuild : TPImage {
    using TPImage::reconstructFull;
};

// The local gain compares the squared gradients of the effect's result with those of the
// original at half size, c = kEpsilon x 65535 added to both. 0.1 makes c the square of about
// 81 in 16-bit units, a third of one 8-bit level: gradients too faint to show count as flat,
// where the detail is put back as it is, while any visible structure has its own gain. On
// photographs of data/ the preview was as close to the full run from 0.01 to 1, and further
// from it at 10 and more.
constexpr float kEpsilon = 0.1f;
// With no stored edge plane nothing was halved, so 1 puts back all of the original's finest
// detail where the effect kept the structure (an effect that changes nothing gives back the
// original exactly). Measured against full runs of guided and local: 1 is closest; 0 (plain
// enlargement) is 3 to 6 times further, 0.7 and 1.5 about twice as far, and 2 doubles the
// fine detail and is further still.
constexpr float kGain = 1.0f;

}  // namespace

char const kHalfHelp[] =
    "a fast preview of slow settings: the filter runs on a half-size copy of the luminance (a "
    "quarter of the pixels; sizes given in pixels, where the command has them, are halved to "
    "match) and the full size is rebuilt with the photograph's own finest detail. What it costs: "
    "texture of one or two pixels is not filtered (where the filter would flatten it, at least "
    "half of it comes back) and edges are drawn from the half-size result, so thin lines and "
    "sharp edges come out a little softer or rougher than in a full run";

cv::Mat halfSizeOf(cv::Mat const &full) {
    cv::Mat half(TPImage::half(full.rows), TPImage::half(full.cols), full.type());
    downSize2X(full, half, 4);  // cubic, as the rebuild reduces the original
    return half;
}

cv::Mat fullSizeFrom(cv::Mat const &original, cv::Mat const &changedHalf) {
    cv::Mat result(original.size(), CV_16UC1);
    Rebuild::reconstructFull(original, changedHalf, result, kEpsilon, kGain);
    return result;
}

SmoothSettings halfSizeSettings(SmoothSettings s, float leastSigmaS) {
    if (s.radius > 0) s.radius = std::max(1, int(std::lround(s.radius / 2.0)));
    if (s.sigmaS > 0) s.sigmaS = std::max(leastSigmaS, s.sigmaS / 2);
    if (s.lambda > 0) s.lambda /= 2;
    return s;
}

CLI::Option *addHalfOption(CLI::App &app, bool &half) {
    return app.add_flag("--half", half, kHalfHelp);
}
