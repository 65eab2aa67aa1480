// `kestrix detail`: one photograph through the detail effect, as a photo editor's detail panel
// drives it. Its luminance is split into a base and three detail planes (cli/decompose.h), the
// effect mixes them back with the settings below, and only the luminance changes.
#pragma once

#include <string>

#include "cli/frame.h"

struct DetailSettings {
    // Per level (0 fine, 1 medium, 2 coarse): base amount, shadow-band change, middle-band
    // change; and the matching thresholds. Both on the effect's own scale, -1.5 .. 1.5.
    float amount[3][3] = {};
    float threshold[3][3] = {};
    // Exposure, contrast, highlights, shadows, whites, blacks, in the effect's order.
    float light[6] = {};
    // Luminance mix of reds, of neither (greens), of blues.
    float colorMix[3] = {};
    std::string preset = "natural";

    // Region in full-size pixels and its zoom-out; a width of 0 means the whole image.
    int roiX = 0, roiY = 0, roiW = 0, roiH = 0;
    int scale = 1;

    bool hasRoi() const { return roiW > 0; }
};

// Sets the effect's parameters to the named preset ("natural", "strong", "neutral").
// Throws the usage error of a bad --preset for any other name.
void applyPreset(DetailSettings &settings, std::string const &name);

// Adds the options of `kestrix detail` to `app`. The preset is read first and the single
// settings on top of it, whatever their order on the line; a single light setting wins over
// --light.
void addDetailOptions(CLI::App &app, DetailSettings &settings);

extern Command const detailCommand;
