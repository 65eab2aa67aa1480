// `kestrix mask`: a mask painted over a photograph by a script of steps (brush strokes,
// gradients, colour-gated shapes, fills, inversion, refinement along the photograph's edges,
// undo and redo), replayed through the library's mask painter and written as an 8-bit grey
// PNG at the photograph's size: 255 where an effect would apply fully, 0 where not at all.
#pragma once

#include <string>
#include <vector>

#include "cli/frame.h"

class TDrawMask;

// One step of a mask script. Coordinates are pixels of the photograph.
struct MaskStep {
    enum class Kind {
        stroke,    // brush dots, one per point
        gradient,  // a gradient between two points
        shape,     // a soft disc that keeps to the colour under its centre
        fill,      // the whole mask set to one value
        invert,
        picker,    // the colour reference of gated strokes that ask for it
        merge,     // how later gradients and shapes meet what lies under them
        refine,    // the mask smoothed along the photograph's edges, on trial
        keep,      // the refinement kept
        drop,      // the refinement dropped: the unrefined mask comes back
        snapshot,  // the mask recorded for undo and redo
        undo,
        redo,
    };
    Kind kind = Kind::invert;
    std::vector<cv::Point> points;  // stroke: the dots' centres; gradient: from, to; shape and
                                    // picker: the point
    int radius = 0, inner = 0;      // stroke: outer and inner radius
    int value = 255;                // the mask value painted or filled, 0..255
    float flow = 1.0f;              // stroke: strength of each dot, 0..1
    bool gate = false;              // stroke: dots keep to colours like the reference
    bool picker = false;            // stroke: the reference is the picker's point, not the dot
    int type = 0;                   // gradient: 0..4; merge: the painter's mode 0, 1 or 2
    float size = 0.5f, tolerance = 0.5f;                                // shape
    float refineRadius = 0, strength = 0.5f, offset = 0, contrast = 0;  // refine
};

// The steps of a script: the text of a JSON list of steps (see `kestrix mask --help`).
// `name` names the script in messages. Throws UsageError with one line naming the step (counted
// from 1) and the field at fault.
std::vector<MaskStep> parseMaskScript(std::string const &text, std::string const &name);

// Replays `steps` on `painter`, which has its image: each step is queued and run at once, so
// that the blend value and the merge mode a step sets hold for that step only. `progress` may
// be null; a cancel stops the replay and returns false.
bool replayMask(std::vector<MaskStep> const &steps, TDrawMask &painter, TProgress *progress);

struct MaskSettings {
    std::string script;   // the script's file
    std::string overlay;  // empty: no overlay
    ImageFormat overlayFormat = ImageFormat::png;
    std::vector<MaskStep> steps;  // read from the script once the line is parsed
};

// Adds the options of `kestrix mask` to `app`; the script is read once the line is parsed.
void addMaskOptions(CLI::App &app, MaskSettings &settings);

// The photograph `bgr` (8 or 16 bits) with `mask` shown over it, at the photograph's depth:
// as it is where the mask is 255, grey, darker and red where it is lower.
cv::Mat maskOverlay(cv::Mat const &bgr, cv::Mat const &mask);

extern Command const maskCommand;
