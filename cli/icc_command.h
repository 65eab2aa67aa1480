// `kestrix icc`: a photograph converted from one ICC colour space to another by Little CMS,
// run over the picture's rows in parallel by the library's ColorManagement. The profiles are
// .icc or .icm files, or the two that kestrix makes itself: sRGB and ProPhoto RGB (ROMM RGB:
// its primaries, D50 white and a plain gamma of 1.8).
//
// The work is at 16 bits: an 8-bit picture is widened first, and a PNG or TIFF is written at
// 16 bits (a JPEG, which holds 8 bits only, at 8). A profile that cannot be read, is not an
// ICC profile or is not of RGB ends the run with one line and no output.
#pragma once

#include <string>

#include "cli/frame.h"

struct IccSettings {
    // A built-in profile's name or the path of a profile file; both required.
    std::string from, to;
    // The Little CMS rendering intent (INTENT_PERCEPTUAL and so on, 0 .. 3).
    int intent = 0;
};

// Checks that --from and --to are both given; throws UsageError otherwise.
void resolveIcc(IccSettings const &settings);

void addIccOptions(CLI::App &app, IccSettings &settings);

extern Command const iccCommand;
