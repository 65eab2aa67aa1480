// `kestrix smooth`: edge-preserving smoothing of a photograph by one of the library's filters
// (guided filter, domain transform, bilateral grid, adaptive manifolds, weighted least
// squares) or a plain box blur for comparison, of its luminance
// alone or of each colour plane, along the edges of the photograph itself or of a second
// picture of the same size (joint filtering).
#pragma once

#include <string>

#include "cli/frame.h"

struct SmoothSettings {
    enum class Filter { none, guided, dt, bilateral, manifold, wls, box };
    enum class Channels { y, rgb };

    Filter filter = Filter::none;
    Channels channels = Channels::y;
    // Negative until given; each filter then takes its own default (see resolveSmooth).
    int radius = -1;    // guided: window radius in pixels; box: half the box's side
    float eps = -1;     // guided: regulariser, as a fraction of full scale (squared inside)
    float sigmaS = -1;  // dt, bilateral, manifold: spatial sigma in pixels
    float sigmaR = -1;  // dt, bilateral, manifold: range sigma, fraction of full scale
    float lambda = -1;  // wls: strength of the smoothing
    float alpha = -1;   // wls: how sharply the smoothing stops at a step of the log luminance
    std::string guide;  // a picture of the input's size whose edges steer the filter
    bool half = false;  // a preview: the luminance filtered at half size, then rebuilt
};

// Checks that every given parameter belongs to the chosen filter and fills in the filter's
// defaults. Throws UsageError when --filter is missing or a parameter belongs to another
// filter.
void resolveSmooth(SmoothSettings &settings);

// Adds the options of `kestrix smooth` to `app`; resolveSmooth runs once the line is parsed.
void addSmoothOptions(CLI::App &app, SmoothSettings &settings);

// Bytes that --filter wls needs for a w x h photograph, mostly the sparse Cholesky factor of
// its system (about kWlsFactorPerPixelLog pixels x log2(pixels) doubles), and the throw of a
// FileError when that is more than `physicalBytes` (the machine's memory when 0), before any
// work starts: "the photograph is W x H pixels: --filter wls would need about X GB of
// memory, more than this machine's Y GB (try a smaller copy, or another filter)".
double wlsBytes(int w, int h);
void requireWlsFits(int w, int h, double physicalBytes = 0);

extern Command const smoothCommand;
