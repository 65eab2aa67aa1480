#include "cli/local_command.h"

#include <opencv2/core.hpp>

#include "cli/half_size.h"
#include "kestrix1/filters/local_filter.h"
#include "kestrix1/image/tp_image.h"

namespace {

using Form = LocalSettings::Form;
using Variant = LocalSettings::Variant;

constexpr int kDefaultLevels = 32;
constexpr int kLeastLevels = 8, kMostLevels = 256;
constexpr int kMostCurvePoints = 16;
constexpr float kMostGain = 4.0f;
// Table entries over which a curve's corners are rounded: about 0.4% of full scale.
constexpr float kCurveSmoothing = 128.0f;
// Pyramid depth is set from the image's size by the filter itself.
constexpr int kPyramidLevels = 8;

char const kAbout[] =
    "Raises (positive --strength) or lowers (negative) the local contrast of a photograph: "
    "small differences between a pixel and its surroundings are enlarged or reduced at every "
    "scale at once, while large differences, such as the edges of objects and the overall "
    "tone, stay as they are, so there are no halos. Only the luminance changes; colour is "
    "kept. Reads an 8- or 16-bit PNG, TIFF or JPEG and writes the same format and depth.\n"
    "\n"
    "Give one of --strength, --curve or --params. With no INPUT the sample photograph built "
    "into kestrix is used; with no -o the result goes to local.png, local.tif or local.jpg "
    "after the input's format.";

char const kFooter[] =
    "How it works: a Laplacian pyramid of the luminance is remapped around a set of reference "
    "grey levels (--levels), each through a curve that says what happens to a difference of a "
    "given size, and every coefficient is taken from the two references nearest its own grey "
    "level (Paris, Hasinoff and Kautz's local Laplacian filter). More levels follow the tones "
    "more closely and cost time in proportion.\n"
    "\n"
    "--strength S: differences up to |S| of full scale are scaled by up to 2 (S > 0) or "
    "flattened (S < 0); beyond that nothing changes.\n"
    "\n"
    "--curve X:G,...: gain G for differences of size X (a fraction of full scale), linear "
    "between the points and the last gain beyond: 0.02:2,0.1:1.5,0.3:1 doubles fine detail "
    "and leaves large steps alone.\n"
    "\n"
    "--params P0,P1,P2,P3: four settings for growing sizes of difference, from fine texture to "
    "broad structure, each -1 .. 1; the number of levels follows from the first.\n"
    "\n"
    "Exit status: 0 done, 1 the image could not be read, processed or written, 2 the command "
    "line is wrong.";

// A form chosen twice is a usage error rather than a silent last-one-wins.
void choose(LocalSettings &s, Form form) {
    if (s.form != Form::none && s.form != form)
        throw CLI::ValidationError(
            "give only one of --strength, --curve and --params (see kestrix local --help)");
    s.form = form;
}

void runLocal(LocalSettings const &s, Job &job) {
    TPImage image;
    job.fill(image);

    Stopwatch watch;
    LocalFilter filter(kPyramidLevels, s.levels);
    switch (s.form) {
        case Form::strength:
            filter.setup(s.strength, kPyramidLevels, s.levels);
            if (s.variant == Variant::table) filter.setupLUT(s.levels);
            break;
        case Form::curve: {
            cv::Mat points(int(s.curve.size() / 2), 2, CV_32F);
            std::copy(s.curve.begin(), s.curve.end(), points.ptr<float>());
            filter.setup(points, s.levels, kCurveSmoothing);
            break;
        }
        case Form::params: {
            float params[4];
            std::copy(s.params, s.params + 4, params);
            filter.setup(params);
            break;
        }
        case Form::none:
            break;
    }
    job.time("time to set up: ", watch);

    watch = Stopwatch();
    cv::Mat const in = s.half ? halfSizeOf(image.m_Y) : image.m_Y;
    cv::Mat result(in.size(), CV_16UC1);
    bool done = false;
    switch (s.variant) {
        case Variant::cv:
            done = filter.proc3(in, result, job.progress());
            break;
        case Variant::simple:
            done = filter.proc4(in, result, job.progress());
            break;
        case Variant::table:
            done = filter.proc5(in, result, job.progress());
            break;
    }
    if (!done) throw FileError("cancelled");
    image.m_Y = s.half ? fullSizeFrom(image.m_Y, result) : result;
    job.time("time to filter: ", watch);

    job.finish(image);
}

}  // namespace

void readCurve(LocalSettings &s, std::string const &value) {
    std::vector<float> curve;
    bool ok = true;
    std::size_t start = 0;
    while (ok) {
        std::size_t const comma = value.find(',', start);
        std::string const point = value.substr(start, comma - start);
        std::size_t const colon = point.find(':');
        std::vector<double> xg;
        ok = colon != std::string::npos &&
             commaSeparated(point.substr(0, colon) + "," + point.substr(colon + 1), xg) &&
             xg.size() == 2 && xg[0] > (curve.empty() ? 0.0 : curve[curve.size() - 2]) &&
             xg[0] < 1.0 && xg[1] >= 0.0 && xg[1] <= kMostGain;
        if (ok) curve.insert(curve.end(), {float(xg[0]), float(xg[1])});
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (!ok || curve.size() > 2 * kMostCurvePoints)
        badValue("--curve", value,
                 "1 to 16 points X:G, X rising strictly between 0 and 1, G in 0..4");
    choose(s, Form::curve);
    s.curve = curve;
}

void resolveLocal(LocalSettings &s) {
    if (s.form == Form::none)
        throw UsageError(
            "kestrix local needs one of --strength, --curve or --params (see kestrix local "
            "--help)");
    if (s.form == Form::params && s.levels != 0)
        throw UsageError(
            "--levels does not apply to --params: the number of levels follows from its first "
            "value");
    if (s.levels == 0) s.levels = kDefaultLevels;
}

void addLocalOptions(CLI::App &app, LocalSettings &s) {
    addValue(app, "--strength", "S",
             "-1 .. 1: positive raises local contrast, negative smooths detail; 0.2 is a clear "
             "but natural boost",
             [&s](std::string const &v) {
                 std::vector<double> n;
                 if (!commaSeparated(v, n) || n.size() != 1 || n[0] < -1.0 || n[0] > 1.0)
                     badValue("--strength", v, "a number in -1..1");
                 choose(s, Form::strength);
                 s.strength = float(n[0]);
             })
        ->group("The change, one of");
    addValue(app, "--curve", "X:G,...", "gain G for differences of size X, see below",
             [&s](std::string const &v) { readCurve(s, v); })
        ->group("The change, one of");
    addValue(app, "--params", "P0,P1,P2,P3", "the four-setting form, each -1 .. 1, see below",
             [&s](std::string const &v) {
                 std::vector<double> n;
                 bool ok = commaSeparated(v, n) && n.size() == 4;
                 for (double p : n)
                     ok = ok && p >= -1.0 && p <= 1.0;
                 if (!ok) badValue("--params", v, "4 comma-separated numbers in -1..1");
                 choose(s, Form::params);
                 std::copy(n.begin(), n.end(), s.params);
             })
        ->group("The change, one of");
    addWhole(app, "--levels", "N", "reference grey levels, 8 .. 256 (default 32)", s.levels,
             kLeastLevels, kMostLevels)
        ->group("Method");
    addValue(app, "--variant", "NAME",
             "table (default): the fastest, tables per level prepared at set-up; simple: "
             "pyramids by shifts; cv: pyramids by OpenCV. All three give nearly the same result",
             [&s](std::string const &v) {
                 if (v == "cv")
                     s.variant = Variant::cv;
                 else if (v == "simple")
                     s.variant = Variant::simple;
                 else if (v == "table")
                     s.variant = Variant::table;
                 else
                     badValue("--variant", v, "cv, simple or table");
             })
        ->group("Method");
    addHalfOption(app, s.half)->group("Method");
    app.final_callback([&s] { resolveLocal(s); });
}

Command const localCommand =
    commandOf<LocalSettings>("local", "raise or lower local contrast without halos", kAbout,
                             kFooter, addLocalOptions, runLocal);
