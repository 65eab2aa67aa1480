// `kestrix local`: local contrast of a photograph's luminance raised or lowered by the
// library's pyramid local filter, which changes small differences around each pixel and leaves
// large ones (edges, the overall tone) alone. Colour is kept.
#pragma once

#include <string>
#include <vector>

#include "cli/frame.h"

struct LocalSettings {
    enum class Variant { cv, simple, table };
    enum class Form { none, strength, curve, params };

    Form form = Form::none;
    float strength = 0;        // -1 .. 1: positive boosts small differences
    std::vector<float> curve;  // x0, g0, x1, g1, ...: gain g for differences of size x
    float params[4] = {};      // the four-parameter table form, each -1 .. 1
    int levels = 0;            // grey levels of the reference pyramids; 0 until given
    Variant variant = Variant::table;
    bool half = false;  // a preview: the luminance filtered at half size, then rebuilt
};

// Reads "x:g,x:g,..." into settings.curve: x rising strictly inside 0 .. 1, g in 0 .. 4.
// Throws the usage error of a bad --curve.
void readCurve(LocalSettings &settings, std::string const &value);

// Checks that exactly one table form is given and that --levels fits it, and fills the
// default number of levels. Throws UsageError otherwise.
void resolveLocal(LocalSettings &settings);

void addLocalOptions(CLI::App &app, LocalSettings &settings);

extern Command const localCommand;
