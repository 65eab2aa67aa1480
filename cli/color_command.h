// `kestrix color`: the colours of a photograph changed family by family (the hue, saturation
// and lightness of its reds, yellows, greens, cyans, blues and magentas, or of all colours at
// once) by the library's selective colour filter in a pixel space of the user's choice, and
// then warmed, tinted or evened out as a whole through its three-dimensional colour table.
// Luminance is kept unless a lightness is asked for.
#pragma once

#include <string>

#include "cli/frame.h"

struct ColorSettings {
    enum class Space { ydrdb, hls, hsv };

    // Amounts per family, in the order red, yellow, green, cyan, blue, magenta, then kAll for
    // the whole picture. Each -1 .. 1, 0 leaves the family alone.
    static constexpr int kFamilies = 6;
    static constexpr int kAll = 6;
    float hue[kFamilies + 1] = {};         // half-turns of the colour circle: 1 is the opposite
    float saturation[kFamilies + 1] = {};  // positive richer, negative more muted
    float lightness[kFamilies + 1] = {};   // positive brighter, negative darker
    Space space = Space::ydrdb;

    // The colour table's amounts: warm / cool, magenta / green, the floor of weak colours
    // (positive lifts them, negative cuts them to grey) and the narrowing of that floor.
    float warmth = 0, tint = 0, chromaFloor = 0, floorNarrow = 0;

    // What a run does, settled by resolveColor.
    bool families = false;  // some hue, saturation or lightness amount is not 0
    bool lightens = false;  // some lightness amount is not 0: Y changes
    bool table = false;     // some colour-table amount is not 0
};

// Reads "FAMILY=AMOUNT[,FAMILY=AMOUNT...]" given to `option` (--hue, --saturation or
// --lightness) into amounts[0..6]; FAMILY is red, yellow, green, cyan, blue, magenta or all,
// AMOUNT in -1..1, and a family named again takes the later amount. Throws the usage error
// of a bad value.
void readFamilies(std::string const &option, std::string const &value, float *amounts);

// Checks that --chroma-floor-narrow comes with a floor to narrow and settles what the run
// does. Throws UsageError otherwise.
void resolveColor(ColorSettings &settings);

// Adds the options of `kestrix color` to `app`; resolveColor runs once the line is parsed.
void addColorOptions(CLI::App &app, ColorSettings &settings);

extern Command const colorCommand;
