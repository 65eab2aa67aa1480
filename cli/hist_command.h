// `kestrix hist`: the histogram display of a photograph, the red, green and blue histograms
// drawn as filled columns by the library's histogram painter, written as an 8-bit PNG.
#pragma once

#include <string>

#include "cli/frame.h"

struct HistSettings {
    int width = 512, height = 200;  // of the picture
};

// Reads "WxH" given to --size into settings; throws the usage error of a bad value.
void readHistSize(HistSettings &settings, std::string const &value);

void addHistOptions(CLI::App &app, HistSettings &settings);

extern Command const histCommand;
