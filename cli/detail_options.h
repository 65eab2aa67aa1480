// The settings of `kestrix detail`: every parameter of the detail effect, the region to
// render, the files, and how the run reports itself; with the presets and the parser that
// fills them from the command line.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

// A wrong command line: the message is one line for the user, the exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct DetailOptions {
    // Per level (0 fine, 1 medium, 2 coarse): base amount, shadow-band change, middle-band
    // change; and the matching thresholds. Both on the effect's own scale, -1.5 .. 1.5.
    float amount[3][3] = {};
    float threshold[3][3] = {};
    // Exposure, contrast, highlights, shadows, whites, blacks, in the effect's order.
    float light[6] = {};
    // Luminance mix of reds, of neither (greens), of blues.
    float colorMix[3] = {};

    // Region in full-size pixels and its zoom-out; roi width 0 means the whole image.
    int roiX = 0, roiY = 0, roiW = 0, roiH = 0;
    int scale = 1;

    std::string input;   // empty: the default photograph
    std::string output;  // empty: detail.<extension of the input's format>
    std::string preset = "natural";
    bool quiet = false;
    bool time = false;
    bool help = false;

    bool hasRoi() const { return roiW > 0; }
};

// Sets the effect's parameters to the named preset ("natural", "strong", "neutral").
// Throws UsageError for any other name.
void applyPreset(DetailOptions &options, std::string const &name);

// Parses the arguments after the word `detail`. The preset is applied first and the single
// settings on top of it, whatever their order on the line. Throws UsageError.
DetailOptions parseDetailOptions(std::vector<std::string> const &args);

// The text of `kestrix detail --help`.
std::string detailHelp();
