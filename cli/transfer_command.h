// `kestrix transfer`: a photograph takes on something of a reference picture: its colours
// (iterated histogram matching over twelve rotations of the colour cube), its tones and
// texture (histogram matching of luminance and of its fine detail), its fine detail or its
// smooth base (a base and detail recipe of the multi-resolution processor). A colour reference
// may be the reference's histograms saved earlier with --save-reference, so that the reference
// picture itself need not be kept.
//
// Colour, detail and base work on the file's own R, G and B, widened to 16 bits, not on the
// working image, so that colour keeps its full resolution; tone works on the working image's
// luminance and keeps its colour planes. Only colour histograms are saved: --save-reference
// with another mode is a usage error, and so is a saved reference given to another mode.
#pragma once

#include <string>

#include "cli/frame.h"

class MHist;

struct TransferSettings {
    enum class Mode { none, colour, tone, detail, base };
    // The multi-resolution processor's recipes, by their member names.
    enum class Recipe { proc, proc1, proc2, proc3, proc4, proc5, proc6, c1, c2 };

    Mode mode = Mode::none;
    std::string reference;        // a photograph, or histograms saved with --save-reference
    bool savedReference = false;  // reference names a .xml file
    std::string saveReference;    // where to save the reference's colour histograms; may be empty
    float strength = 1.0f;        // 0 .. 1: the share of the transfer in the result
    // Negative until given; the mode or the recipe then supplies its default.
    int rounds = -1;  // tone: rounds of matching
    Recipe recipe = Recipe::c2;
    bool recipeGiven = false;
    float sigmaS = -1, sigmaR = -1;  // detail, base: the recipe's filter
};

// Checks that every given option belongs to the mode and the recipe and fills in their
// defaults. Throws UsageError otherwise.
void resolveTransfer(TransferSettings &settings);

// Adds the options of `kestrix transfer` to `app`; resolveTransfer runs once the line is
// parsed.
void addTransferOptions(CLI::App &app, TransferSettings &settings);

// The colour histograms saved at `path` by --save-reference. The text is checked before the
// library parses it and every item after: a file that is missing, cut short, not XML or not
// such histograms throws FileError with one line naming it.
MHist readSavedReference(std::string const &path);

extern Command const transferCommand;
