// --half: a fast preview of a slow effect on the luminance. The effect runs on a copy of Y
// at half the width and height, a quarter of the pixels, and the full size is rebuilt from
// that result with the photograph's own finest detail put back where the effect kept the
// local structure.
#pragma once

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>
#include <string>

struct SmoothSettings;

// What --help says of --half, the cost in quality included.
extern char const kHalfHelp[];

// Half-size copy of a full-size 16-bit plane, reduced the way the rebuild expects.
cv::Mat halfSizeOf(cv::Mat const &full);

// The full-size result: `changedHalf` is the effect's result on halfSizeOf(original).
cv::Mat fullSizeFrom(cv::Mat const &original, cv::Mat const &changedHalf);

// Settings in pixels halved, so that a filter at half size reaches as far over the picture
// as at full size: radius and sigma-s by 2 (sigma-s kept at least at `leastSigmaS`, the
// filter's own least), and wls's lambda by 2 (on photographs closer to the full run than
// by 4, which its reach growing as the root of lambda would suggest).
SmoothSettings halfSizeSettings(SmoothSettings settings, float leastSigmaS);

// Adds the flag --half to a command.
CLI::Option *addHalfOption(CLI::App &app, bool &half);
