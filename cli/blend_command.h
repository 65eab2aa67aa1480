// `kestrix blend`: lays a second picture (TOP) over a photograph (INPUT), at an opacity and,
// with --mask, only where and as strongly as a painted mask allows, in the normal, darken or
// lighten mode: the host's way to apply an edited copy of a photograph to part of it, for
// example through a mask painted with `kestrix mask`.
#pragma once

#include <string>

#include "cli/frame.h"

struct BlendSettings {
    std::string top;   // the picture laid over the input; required
    std::string mask;  // a grey picture of the input's size, white where TOP shows; may be empty
    float opacity = 1.0f;  // 0 .. 1
    int mode = 0;          // 0 normal, 1 darken, 2 lighten
};

// Adds TOP and the options of `kestrix blend` to `app`.
void addBlendOptions(CLI::App &app, BlendSettings &settings);

extern Command const blendCommand;
