#include "cli/transfer_command.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <vector>

#include "kestrix1/blocks/tmr.h"
#include "kestrix1/hist/color_transfer.h"
#include "kestrix1/hist/lum_transfer.h"
#include "kestrix1/hist/m_hist.h"
#include "kestrix1/image/tp_image.h"

namespace {

using Mode = TransferSettings::Mode;
using Recipe = TransferSettings::Recipe;
using Planes = std::vector<cv::Mat>;

constexpr int kDefaultRounds = 2, kMostRounds = 10;
// A saved reference is a few hundred kB at most; anything far larger is not one.
constexpr std::size_t kLargestSavedReference = 16u << 20;
// The histograms' fixed bounds and bin width, in the library's signed 16-bit scale.
constexpr int kHistLow = -32768, kHistHigh = 32767, kHistStep = 64;

struct ModeInfo {
    Mode mode;
    char const *name;
};

ModeInfo const kModes[] = {
    {Mode::colour, "colour"}, {Mode::colour, "color"}, {Mode::tone, "tone"},
    {Mode::detail, "detail"}, {Mode::base, "base"},
};

enum class Filter { manifold, dt, bilateral, fixed };

struct RecipeInfo {
    Recipe recipe;
    char const *name;
    Filter filter;
    // True when the recipe's result has the base of its first argument and the detail of its
    // second; false when the other way round.
    bool firstGivesBase;
    float sigmaS, sigmaR;  // defaults
    float leastSigmaS;     // below this the filter cannot work as designed
    // The member for the recipes of two lists in and one out; null for the others.
    bool (TMR::*run)(Planes const &, Planes const &, Planes &);
};

// Defaults: a base that keeps the main shapes and tones of a photograph of a few megapixels
// and leaves texture and small objects to the detail. The bilateral grid's cells are sigma-s
// pixels wide and need at least two, and its range is 16384 sigma-r, a quarter of the scale
// at 1; the manifolds are blurred at a quarter of sigma-s, which must stay at least a pixel.
RecipeInfo const kRecipes[] = {
    {Recipe::proc, "proc", Filter::fixed, true, 0, 0, 0, &TMR::proc},
    {Recipe::proc1, "proc1", Filter::manifold, true, 25.0f, 0.5f, 4.0f, &TMR::proc1},
    {Recipe::proc2, "proc2", Filter::manifold, false, 25.0f, 0.5f, 4.0f, &TMR::proc2},
    {Recipe::proc3, "proc3", Filter::dt, true, 30.0f, 0.25f, 1.0f, &TMR::proc3},
    {Recipe::proc4, "proc4", Filter::dt, true, 30.0f, 0.25f, 1.0f, nullptr},
    {Recipe::proc5, "proc5", Filter::dt, true, 30.0f, 0.25f, 1.0f, &TMR::proc5},
    {Recipe::proc6, "proc6", Filter::manifold, true, 25.0f, 0.5f, 4.0f, &TMR::proc6},
    {Recipe::c1, "c1", Filter::bilateral, true, 16.0f, 0.5f, 2.0f, nullptr},
    {Recipe::c2, "c2", Filter::bilateral, false, 16.0f, 0.5f, 2.0f, nullptr},
};

constexpr float kMaxSigmaS = 1000.0f;

RecipeInfo const &infoOf(Recipe recipe) {
    return *std::find_if(std::begin(kRecipes), std::end(kRecipes),
                         [recipe](RecipeInfo const &i) { return i.recipe == recipe; });
}

char const *nameOf(Mode mode) {
    for (ModeInfo const &m : kModes)
        if (m.mode == mode) return m.name;
    return "";
}

char const kAbout[] =
    "Gives a photograph something of a reference picture (--reference): its colours, its tones "
    "and texture, its fine detail or its smooth base (--mode). Reads an 8- or 16-bit PNG, "
    "TIFF or JPEG and writes the same format at the same bit depth; an alpha channel is "
    "carried through untouched.\n"
    "\n"
    "--mode colour: the colours of the photograph take on the distribution of the reference's "
    "(its palette, cast and saturation) by histogram matching of R, G and B seen from twelve "
    "directions of the colour cube. Only the reference's histograms are needed: "
    "--save-reference keeps them in an XML file, which --reference then takes in place of the "
    "picture.\n"
    "--mode tone: the luminance takes on the reference's distribution of tones and of fine "
    "contrast; colour is kept.\n"
    "--mode detail: the photograph keeps its smooth base (shapes, light and colour) and takes "
    "the fine detail of the reference in its place.\n"
    "--mode base: the photograph keeps its own detail over the smooth base of the reference.\n"
    "\n"
    "A reference of another size serves colour and tone as it is; for detail and base it is "
    "resized to the photograph's width and height (its proportions are not kept). A transfer "
    "of a photograph to itself gives it back nearly unchanged.\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used; with no -o the result goes "
    "to transfer.png, transfer.tif or transfer.jpg after the input's format.";

char const kFooter[] =
    "Colour: the histograms are of R, G and B on a 16-bit scale, whatever the depth of the "
    "file, in 1024 bins under each of twelve fixed rotations of the colour cube; each rotation "
    "matches the three turned axes one by one and turns back, so that after twelve rounds the "
    "colours as a whole follow the reference's, not just each channel. Very high peaks (large "
    "areas of one colour) are cut before matching so that they do not take over the curves. "
    "--save-reference FILE.xml writes the reference's histograms (a few hundred kB at most, "
    "whatever the picture's size) for colour only; a saved reference serves --mode colour only. A "
    "damaged "
    "or foreign file given as --reference is refused with one line and nothing is written.\n"
    "\n"
    "Tone: each round matches the histogram of the luminance's fine detail to the reference's "
    "by driving a local Laplacian filter, then the histogram of its tones; --rounds 1 .. 10 "
    "(default 2) repeats the pair, each round a little closer.\n"
    "\n"
    "Detail and base split both pictures into a base and the detail around it with an "
    "edge-aware filter and recombine them, on the R, G and B planes. --recipe chooses the "
    "library's recipe, --sigma-s its filter's reach in pixels and --sigma-r the size of "
    "difference it takes for an edge, a fraction of full scale (see each recipe's default):\n"
    "c2 (default): the difference of the two pictures smoothed by the bilateral grid and "
    "added to the picture whose detail is kept; fast. Defaults --sigma-s 16 --sigma-r 0.5.\n"
    "c1: both pictures smoothed by the bilateral grid, the base of one with the detail of "
    "the other. Same defaults.\n"
    "proc: both smoothed by adaptive manifolds with settings of their own (no --sigma-s or "
    "--sigma-r).\n"
    "proc1: the same by blocks, with --sigma-s and --sigma-r. proc2: the difference smoothed "
    "by adaptive manifolds along the edges of the picture whose detail is kept. proc6: both "
    "bases by manifolds, block by block, their difference smoothed by the domain transform. "
    "Defaults --sigma-s 25 --sigma-r 0.5.\n"
    "proc3: the domain transform in three sweeps of blocks. proc4: the domain transform "
    "splits the picture that gives the detail, then its detail is added to the other's base. "
    "proc5: the base taken under the edges of the picture that gives the detail. Defaults "
    "--sigma-s 30 --sigma-r 0.25.\n"
    "c2 and c1 suit two pictures of one scene (two exposures, a flash and an available-light "
    "shot); between pictures of different scenes their result shows the strong edges of both, "
    "and proc2 and proc6, whose base follows the edges of the picture whose detail is kept, "
    "keep its shapes better. "
    "The manifolds' random directions start from a fixed seed, so a run repeats exactly.\n"
    "\n"
    "--strength S (0 .. 1, default 1) mixes the transfer into the photograph: 0.5 goes half "
    "way.\n"
    "\n"
    "Exit status: 0 done, 1 an image or the saved reference could not be read, processed or "
    "written, 2 the command line is wrong.";

// ---- planes -------------------------------------------------------------------------------

// R, G, B of an 8- or 16-bit BGR image as 16-bit planes.
Planes rgbPlanes(cv::Mat const &bgr) {
    cv::Mat wide;
    bgr.convertTo(wide, CV_16U, bgr.depth() == CV_8U ? 257.0 : 1.0);
    Planes planes;
    cv::split(wide, planes);
    std::swap(planes[0], planes[2]);
    return planes;
}

// 16-bit R, G, B planes back into `bgr` at its depth.
void putRgb(Planes const &rgb, cv::Mat &bgr) {
    cv::Mat wide;
    cv::merge(Planes{rgb[2], rgb[1], rgb[0]}, wide);
    wide.convertTo(bgr, bgr.depth(), bgr.depth() == CV_8U ? 1.0 / 257.0 : 1.0);
}

// `strength` of the way from `before` to `after`, rounded and saturated; `after` itself at 1.
cv::Mat mixed(cv::Mat const &after, cv::Mat const &before, float strength) {
    if (strength >= 1.0f) return after;
    cv::Mat out;
    cv::addWeighted(after, strength, before, 1.0 - strength, 0.0, out, CV_16U);
    return out;
}

Planes mixed(Planes const &after, Planes const &before, float strength) {
    Planes out(after.size());
    for (std::size_t i = 0; i < after.size(); ++i)
        out[i] = mixed(after[i], before[i], strength);
    return out;
}

// ---- the saved reference ------------------------------------------------------------------

bool whole(cv::Mat const &m, int rows, int cols, int type) {
    return m.rows == rows && m.cols == cols && m.type() == type;
}

// The bounds and bin widths are the same for every rotation and channel; any other value is
// not the library's.
bool allEqual(cv::Mat const &m, int value) {
    return whole(m, 12, 1, CV_32SC3) && cv::countNonZero(m.reshape(1) != value) == 0;
}

// The text as save writes it: the XML declaration, the storage's root closed at the end, and
// nothing the parser would stop at. What is cut short or was never such a text stops here,
// before the parser sees it.
bool looksSaved(std::string const &text) {
    std::string const head = "<?xml", tail = "</opencv_storage>";
    std::size_t const last = text.find_last_not_of(" \t\r\n");
    return text.size() <= kLargestSavedReference && text.compare(0, head.size(), head) == 0 &&
           last != std::string::npos && last + 1 >= tail.size() &&
           text.compare(last + 1 - tail.size(), tail.size(), tail) == 0 &&
           text.find('\0') == std::string::npos;
}

void writeSavedReference(MHist &reference, std::string const &path) {
    std::string text;
    reference.save(text);
    writeFile(path, std::vector<unsigned char>(text.begin(), text.end()));
}

// ---- the run ------------------------------------------------------------------------------

void transferColour(TransferSettings const &s, Job &job) {
    Photo &photo = job.photo();
    TProgress &progress = *job.progress();
    Stopwatch watch;
    MHist reference;
    if (s.savedReference)
        reference = readSavedReference(s.reference);
    else
        reference.compute(rgbPlanes(readPhoto(s.reference).bgr));
    job.time("time to measure the reference: ", watch);
    progress.prog(1, 3);

    Stopwatch transfer;
    Planes const in = rgbPlanes(photo.bgr);
    MHist image;
    image.compute(in);
    ColorTransfer colour;
    colour.updateF(reference, image);
    Planes out;
    colour.proc(in, out);
    job.time("time to transfer the colours: ", transfer);
    progress.prog(2, 3);

    if (!s.saveReference.empty()) writeSavedReference(reference, s.saveReference);
    putRgb(mixed(out, in, s.strength), photo.bgr);
    // A grey photograph takes the reference's colours.
    photo.grey = false;
    job.finish();
}

void transferTone(TransferSettings const &s, Job &job) {
    TPImage image, reference;
    job.fill(image);
    Stopwatch watch;
    fillWorkingImage(readPhoto(s.reference).bgr, reference);
    LumTransfer tone;
    tone.setup(reference.m_Y, s.rounds);
    job.time("time to measure the reference: ", watch);
    job.progress()->prog(1, 3);

    Stopwatch transfer;
    cv::Mat y;
    tone.proc(image.m_Y, y);
    image.m_Y = mixed(y, image.m_Y, s.strength);
    job.time("time to transfer the tones: ", transfer);
    job.finish(image);
}

// The recipe of a two-plane-list form: the base of `base` with the detail of `detail`.
Planes runRecipe(TransferSettings const &s, Planes const &base, Planes const &detail,
                 TProgress &progress) {
    RecipeInfo const &info = infoOf(s.recipe);
    Planes const &first = info.firstGivesBase ? base : detail;
    Planes const &second = info.firstGivesBase ? detail : base;
    TMR tmr;
    tmr.setup(s.sigmaS, s.sigmaR);
    // The manifolds draw their random directions from OpenCV's generator of this thread; a
    // fixed start makes a run repeat exactly.
    cv::theRNG().state = 0x6b657374u;
    Planes out;
    if (info.run) {
        (tmr.*info.run)(first, second, out);
        return out;
    }
    if (s.recipe == Recipe::proc4) {
        // The recipe filters its first list under the edges of its second and adds the third,
        // a detail list centred on mid-grey: that of `detail`, found by the same recipe with
        // nothing to add (its own base subtracted).
        Planes const neutral(detail.size(), cv::Mat(detail[0].size(), CV_16UC1, cv::Scalar(32768)));
        Planes detailBase, detailPlanes(detail.size());
        tmr.proc4(detail, detail, neutral, detailBase);
        for (std::size_t i = 0; i < detail.size(); ++i)
            cv::addWeighted(detail[i], 1.0, detailBase[i], -1.0, 32768.0, detailPlanes[i], CV_16U);
        tmr.proc4(base, base, detailPlanes, out);
        return out;
    }
    // c1 and c2: plane by plane, in place in a copy of the first.
    for (std::size_t i = 0; i < first.size(); ++i) {
        out.push_back(first[i].clone());
        progress.start(1.0f / 3.0f);
        bool const done = s.recipe == Recipe::c1 ? tmr.procC1(out[i], second[i], &progress)
                                                 : tmr.procC2(out[i], second[i]);
        if (!done || !progress.end()) throw FileError("cancelled");
    }
    return out;
}

void transferLayer(TransferSettings const &s, Job &job) {
    Photo &photo = job.photo();
    cv::Mat referenceBgr = readPhoto(s.reference).bgr;
    if (referenceBgr.size() != photo.bgr.size()) {
        bool const smaller = referenceBgr.total() > photo.bgr.total();
        cv::resize(referenceBgr, referenceBgr, photo.bgr.size(), 0, 0,
                   smaller ? cv::INTER_AREA : cv::INTER_CUBIC);
    }
    Planes const in = rgbPlanes(photo.bgr), reference = rgbPlanes(referenceBgr);
    bool const detail = s.mode == Mode::detail;
    Stopwatch watch;
    TProgress &progress = *job.progress();
    progress.start(0.9f);
    Planes const out =
        detail ? runRecipe(s, in, reference, progress) : runRecipe(s, reference, in, progress);
    progress.end();
    job.time(detail ? "time to transfer the detail: " : "time to transfer the base: ", watch);
    putRgb(mixed(out, in, s.strength), photo.bgr);
    // A grey photograph may take colour from the reference's base or detail.
    photo.grey = false;
    job.finish();
}

void runTransfer(TransferSettings const &s, Job &job) {
    if (sameFile(s.reference, job.output()))
        throw UsageError("output '" + job.output() + "' is the reference; choose another with -o");
    if (!s.saveReference.empty() &&
        (sameFile(s.saveReference, job.output()) || sameFile(s.saveReference, s.reference) ||
         (!job.input().empty() && sameFile(s.saveReference, job.input()))))
        throw UsageError("--save-reference '" + s.saveReference +
                         "' is the input, the reference or the output; choose another");
    switch (s.mode) {
        case Mode::colour:
            transferColour(s, job);
            break;
        case Mode::tone:
            transferTone(s, job);
            break;
        default:
            transferLayer(s, job);
            break;
    }
}

bool endsWithXml(std::string const &path) {
    std::string ext = path.size() >= 4 ? path.substr(path.size() - 4) : "";
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return ext == ".xml";
}

}  // namespace

MHist readSavedReference(std::string const &path) {
    std::vector<unsigned char> const bytes = readFile(path);
    std::string const text(bytes.begin(), bytes.end());
    std::string const expected = " (expected histograms saved with --save-reference)";
    std::string const damaged = "reference '" + path + "' is damaged or not XML" + expected;
    if (!looksSaved(text)) throw FileError(damaged);
    MHist h;
    try {
        h.load(text);
    } catch (cv::Exception const &) {
        throw FileError(damaged);
    }
    auto bad = [&](char const *item) {
        throw FileError("reference '" + path + "' has no valid '" + item + "'" + expected);
    };
    double least = 0;
    if (!whole(h.Hist, 12, 3 * 1024, CV_32SC1)) bad("Hist");
    cv::minMaxIdx(h.Hist, &least);
    if (least < 0) bad("Hist");
    if (!allEqual(h.MaxVal, kHistHigh)) bad("MaxVal");
    if (!allEqual(h.MinVal, kHistLow)) bad("MinVal");
    if (!allEqual(h.Step, kHistStep)) bad("Step");
    // A count of pixels, and a bin that cannot hold more than all of them.
    if (!(h.TotalPixels >= 1.0f && std::isfinite(h.TotalPixels))) bad("TotalPixels");
    if (!(h.HistMax >= 0.0f && h.HistMax <= h.TotalPixels)) bad("HistMax");
    return h;
}

void resolveTransfer(TransferSettings &s) {
    if (s.mode == Mode::none)
        throw UsageError(
            "kestrix transfer needs --mode colour, tone, detail or base (see kestrix transfer "
            "--help)");
    if (s.reference.empty())
        throw UsageError(
            "kestrix transfer needs --reference FILE, a picture or histograms saved with "
            "--save-reference (see kestrix transfer --help)");
    std::string const mode = nameOf(s.mode);
    auto misplaced = [&mode](char const *option) {
        throw UsageError(std::string(option) + " does not apply to --mode " + mode +
                         " (see kestrix transfer --help)");
    };
    bool const layer = s.mode == Mode::detail || s.mode == Mode::base;
    if (s.mode != Mode::colour && !s.saveReference.empty()) misplaced("--save-reference");
    if (s.mode != Mode::tone && s.rounds >= 0) misplaced("--rounds");
    if (!layer && s.recipeGiven) misplaced("--recipe");
    if (!layer && s.sigmaS >= 0) misplaced("--sigma-s");
    if (!layer && s.sigmaR >= 0) misplaced("--sigma-r");
    s.savedReference = endsWithXml(s.reference);
    if (s.savedReference && s.mode != Mode::colour)
        throw UsageError("--mode " + mode + " needs a picture as --reference; '" + s.reference +
                         "' holds saved colour histograms");
    if (s.rounds < 0) s.rounds = kDefaultRounds;
    RecipeInfo const &r = infoOf(s.recipe);
    if (r.filter == Filter::fixed && (s.sigmaS >= 0 || s.sigmaR >= 0))
        throw UsageError(std::string(s.sigmaS >= 0 ? "--sigma-s" : "--sigma-r") +
                         " does not apply to --recipe " + r.name +
                         ", whose settings are fixed (see kestrix transfer --help)");
    if (s.sigmaS >= 0 && s.sigmaS < r.leastSigmaS) {
        std::ostringstream text;
        text << "bad value '" << s.sigmaS << "' for --sigma-s (--recipe " << r.name
             << " needs at least " << r.leastSigmaS << ")";
        throw UsageError(text.str());
    }
    if (s.sigmaS < 0) s.sigmaS = r.sigmaS;
    if (s.sigmaR < 0) s.sigmaR = r.sigmaR;
}

void addTransferOptions(CLI::App &app, TransferSettings &s) {
    addValue(app, "--reference", "FILE",
             "the reference: a PNG, TIFF or JPEG picture, or (--mode colour) a .xml file of "
             "histograms written by --save-reference; required",
             [&s](std::string const &v) { s.reference = v; })
        ->group("Transfer");
    addValue(app, "--mode", "MODE",
             "colour (or color), tone, detail or base: what the photograph takes from the "
             "reference (required; see above)",
             [&s](std::string const &v) {
                 for (ModeInfo const &m : kModes)
                     if (v == m.name) {
                         s.mode = m.mode;
                         return;
                     }
                 badValue("--mode", v, "colour, tone, detail or base");
             })
        ->group("Transfer");
    addNumbers(app, "--strength", "S",
               "0 .. 1: how much of the transfer goes into the result (default 1, all of it)",
               &s.strength, 1, 1, 0.0f, 1.0f)
        ->group("Transfer");
    addValue(app, "--save-reference", "FILE.xml",
             "colour: also write the reference's colour histograms to FILE.xml, for later use "
             "as --reference",
             [&s](std::string const &v) {
                 if (!endsWithXml(v)) badValue("--save-reference", v, "a file name ending in .xml");
                 s.saveReference = v;
             })
        ->group("Colour");
    addWhole(app, "--rounds", "N", "tone: rounds of matching, 1 .. 10 (default 2)", s.rounds, 1,
             kMostRounds)
        ->group("Tone");
    addValue(
        app, "--recipe", "NAME", "detail, base: c2 (default), c1, proc, proc1 .. proc6 (see below)",
        [&s](std::string const &v) {
            for (RecipeInfo const &r : kRecipes)
                if (v == r.name) {
                    s.recipe = r.recipe;
                    s.recipeGiven = true;
                    return;
                }
            badValue("--recipe", v, "c1, c2, proc, proc1, proc2, proc3, proc4, proc5 or proc6");
        })
        ->group("Detail and base");
    addNumbers(app, "--sigma-s", "S",
               "detail, base: the filter's spatial reach in pixels, 1 .. 1000", &s.sigmaS, 1, 1,
               1.0f, kMaxSigmaS)
        ->group("Detail and base");
    addNumbers(app, "--sigma-r", "R",
               "detail, base: differences larger than about R are edges, as a fraction of full "
               "scale, 0.005 .. 1",
               &s.sigmaR, 1, 1, 0.005f, 1.0f)
        ->group("Detail and base");
    app.final_callback([&s] { resolveTransfer(s); });
}

Command const transferCommand = commandOf<TransferSettings>(
    "transfer", "give a photograph the colours, tones, detail or base of a reference", kAbout,
    kFooter, addTransferOptions, runTransfer);
