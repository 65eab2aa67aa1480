#include "cli/mask_command.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"

namespace {

using json = nlohmann::json;
using Kind = MaskStep::Kind;

struct StepInfo {
    Kind kind;
    char const *name;
    std::initializer_list<char const *> fields;  // empty: a step without fields
};

StepInfo const kSteps[] = {
    {Kind::stroke, "stroke", {"points", "radius", "inner", "value", "flow", "gate", "picker"}},
    {Kind::gradient, "gradient", {"type", "from", "to", "value"}},
    {Kind::shape, "shape", {"at", "size", "tolerance", "value"}},
    {Kind::fill, "fill", {"value"}},
    {Kind::invert, "invert", {}},
    {Kind::picker, "picker", {"at"}},
    {Kind::merge, "merge", {"mode"}},
    {Kind::refine, "refine", {"radius", "strength", "offset", "contrast"}},
    {Kind::keep, "keep", {}},
    {Kind::drop, "drop", {}},
    {Kind::snapshot, "snapshot", {}},
    {Kind::undo, "undo", {}},
    {Kind::redo, "redo", {}},
};

char const *const kGradientTypes[] = {"linear", "radial", "angular", "mirrored", "corner"};
char const *const kMergeModes[] = {"replace", "min", "max"};

// Coordinates beyond this are refused: the painter's clipping works in 32-bit integers.
constexpr double kFarthest = 1e6;
// The brush table's length and the refinement's largest radius, in pixels.
constexpr int kLargestBrush = TDrawMask::kLutSize - 1;
constexpr double kLargestRefine = 512;

char const kAbout[] =
    "Paints a mask over a photograph by replaying a script of steps (brush strokes, gradients, "
    "colour-gated shapes, fills, inversion, refinement along the photograph's edges, undo and "
    "redo) through the library's mask painter, and writes it as an 8-bit grey PNG at the "
    "photograph's size: 255 where an effect would apply fully, 0 where not at all. A new mask "
    "is 255 everywhere. Reads an 8- or 16-bit PNG, TIFF or JPEG; --overlay also writes the "
    "photograph with the mask shown over it, darkened and tinted red where the mask is low.\n"
    "\n"
    "The script is a JSON list of steps, replayed in order, each step an object with one name "
    "and its fields, or just the name for steps without fields:\n"
    "  [\"snapshot\", {\"fill\": {\"value\": 0}},\n"
    "   {\"stroke\": {\"points\": [[120, 80], [160, 90]], \"radius\": 60, \"inner\": 20}},\n"
    "   {\"refine\": {\"radius\": 8, \"strength\": 0.6}}, \"keep\"]\n"
    "Coordinates are pixels of the photograph, [x, y] from the top left; points outside it are "
    "clipped. A wrong script is reported in one line naming the step (counted from 1) and the "
    "field, and nothing is written.\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used; with no -o the mask goes "
    "to mask.png.";

char const kFooter[] =
    "Steps (fields in brackets have the defaults shown; value is 0..255, default 255):\n"
    "stroke: points [[x, y], ...], radius 1..7999, [inner 0], [value], [flow 1], [gate "
    "false], [picker false]. A soft dot at each point, full within inner and falling to 0 at "
    "radius (inner = radius: a hard disc), painting towards value with strength flow 0..1. "
    "With gate, each dot keeps to colours like the one under its centre, or under the last "
    "picker with picker true.\n"
    "gradient: type linear|radial|angular|mirrored|corner, from [x, y], to [x, y], [value]. "
    "value at from, fading to the mask as it was at to.\n"
    "shape: at [x, y], [size 0.5], [tolerance 0.5], [value]. A soft disc of size 0..1 "
    "around a point that keeps to colours like the one there; tolerance 0..1 widens the "
    "colours it takes.\n"
    "fill: value. The whole mask set to value.\n"
    "invert. The mask turned over: 255 - m.\n"
    "picker: at [x, y]. The colour reference of strokes with picker true.\n"
    "merge: mode replace|min|max. How later gradients and shapes meet the mask under them: "
    "paint over it, or keep the lower or the higher of the two.\n"
    "refine: radius 0..512, [strength 0.5], [offset 0], [contrast 0]. The mask smoothed "
    "along the photograph's edges (strength 0..1: higher follows edges more closely), then "
    "shifted by offset -1..1 and steepened by contrast 0..1. The refinement is on trial: a "
    "later refine replaces it, keep makes it final, drop takes it back.\n"
    "keep, drop. Keep or drop the refinement on trial.\n"
    "snapshot, undo, redo. Record the mask; step back or forward through what was recorded "
    "(eight states at most). The photograph's first mask is recorded at the start.\n"
    "\n"
    "Exit status: 0 done, 1 the image or the script could not be read or the result not "
    "written, 2 the command line or the script is wrong.";

// ---- reading a script ---------------------------------------------------------------------

// The fields of one step, read with their checks; messages name the step and the field.
class Fields {
public:
    Fields(std::string where, json const &fields) : where_(std::move(where)), fields_(fields) {}

    [[noreturn]] void fail(std::string const &what) const { throw UsageError(where_ + what); }
    [[noreturn]] void bad(char const *field, std::string const &expected) const {
        fail("field '" + std::string(field) + "' must be " + expected);
    }

    json const *find(char const *field, bool required) const {
        auto const at = fields_.find(field);
        if (at != fields_.end()) return &*at;
        if (required) fail("field '" + std::string(field) + "' is missing");
        return nullptr;
    }

    double number(char const *field, double lo, double hi, double fallback, bool required) const {
        json const *v = find(field, required);
        if (!v) return fallback;
        char text[80];
        std::snprintf(text, sizeof text, "a number from %g to %g", lo, hi);
        if (!v->is_number() || !(v->get<double>() >= lo && v->get<double>() <= hi))
            bad(field, text);
        return v->get<double>();
    }

    int whole(char const *field, int lo, int hi, int fallback, bool required) const {
        json const *v = find(field, required);
        if (!v) return fallback;
        double const d = v->is_number() ? v->get<double>() : 0.5;
        if (!v->is_number() || d != std::floor(d) || d < lo || d > hi)
            bad(field, "a whole number from " + std::to_string(lo) + " to " + std::to_string(hi));
        return int(d);
    }

    bool flag(char const *field) const {
        json const *v = find(field, false);
        if (v && !v->is_boolean()) bad(field, "true or false");
        return v && v->get<bool>();
    }

    template <std::size_t N>
    int choice(char const *field, char const *const (&names)[N]) const {
        json const *v = find(field, true);
        std::string list;
        for (std::size_t i = 0; i < N; ++i) {
            if (v->is_string() && v->get<std::string>() == names[i]) return int(i);
            list += (i == 0 ? "" : i + 1 == N ? " or " : ", ") + std::string(names[i]);
        }
        bad(field, list);
    }

    cv::Point point(json const &v, char const *field, char const *expected) const {
        if (!v.is_array() || v.size() != 2 || !v[0].is_number() || !v[1].is_number() ||
            !(std::fabs(v[0].get<double>()) <= kFarthest) ||
            !(std::fabs(v[1].get<double>()) <= kFarthest))
            bad(field, expected);
        return {int(std::lround(v[0].get<double>())), int(std::lround(v[1].get<double>()))};
    }

    cv::Point point(char const *field) const {
        return point(*find(field, true), field, "a point [x, y] of numbers within 1e6");
    }

    std::vector<cv::Point> points(char const *field) const {
        json const &v = *find(field, true);
        char const expected[] = "a list of one or more points [x, y] of numbers within 1e6";
        if (!v.is_array() || v.empty()) bad(field, expected);
        std::vector<cv::Point> out;
        for (json const &p : v)
            out.push_back(point(p, field, expected));
        return out;
    }

private:
    std::string where_;
    json const &fields_;
};

MaskStep readStep(json const &step, std::string const &where) {
    std::string const expected =
        "a step is a name like \"invert\" or an object with one name like {\"fill\": {...}}";
    if (!step.is_string() && !(step.is_object() && step.size() == 1))
        throw UsageError(where + ": " + expected);
    std::string const name = step.is_string() ? step.get<std::string>() : step.begin().key();
    auto const info = std::find_if(std::begin(kSteps), std::end(kSteps),
                                   [&name](StepInfo const &s) { return name == s.name; });
    if (info == std::end(kSteps)) {
        std::string names;
        for (StepInfo const &s : kSteps)
            names += std::string(names.empty() ? "" : ", ") + s.name;
        throw UsageError(where + ": unknown step '" + name + "' (expected " + names + ")");
    }
    std::string const at = where + " (" + name + "): ";
    static json const none = json::object();
    json const &fields = step.is_string() ? none : step.begin().value();
    if (!fields.is_object())
        throw UsageError(at + "expects an object of fields, {} when there are none");
    if (step.is_string() && info->fields.size() > 0)
        throw UsageError(at + "needs its fields: {\"" + name + "\": {...}}");
    for (auto const &f : fields.items())
        if (std::find_if(info->fields.begin(), info->fields.end(),
                         [&f](char const *n) { return f.key() == n; }) == info->fields.end())
            throw UsageError(at + "has no field '" + f.key() + "'");

    Fields const in(at, fields);
    MaskStep s;
    s.kind = info->kind;
    switch (s.kind) {
    case Kind::stroke:
        s.points = in.points("points");
        s.radius = in.whole("radius", 1, kLargestBrush, 0, true);
        s.inner = in.whole("inner", 0, s.radius, 0, false);
        s.value = in.whole("value", 0, 255, 255, false);
        s.flow = float(in.number("flow", 0, 1, 1, false));
        s.gate = in.flag("gate");
        s.picker = in.flag("picker");
        break;
    case Kind::gradient:
        s.type = in.choice("type", kGradientTypes);
        s.points = {in.point("from"), in.point("to")};
        s.value = in.whole("value", 0, 255, 255, false);
        break;
    case Kind::shape:
        s.points = {in.point("at")};
        s.size = float(in.number("size", 0, 1, 0.5, false));
        s.tolerance = float(in.number("tolerance", 0, 1, 0.5, false));
        s.value = in.whole("value", 0, 255, 255, false);
        break;
    case Kind::fill:
        s.value = in.whole("value", 0, 255, 0, true);
        break;
    case Kind::picker:
        s.points = {in.point("at")};
        break;
    case Kind::merge:
        s.type = in.choice("mode", kMergeModes);
        break;
    case Kind::refine:
        s.refineRadius = float(in.number("radius", 0, kLargestRefine, 0, true));
        s.strength = float(in.number("strength", 0, 1, 0.5, false));
        s.offset = float(in.number("offset", -1, 1, 0, false));
        s.contrast = float(in.number("contrast", 0, 1, 0, false));
        break;
    default:
        break;
    }
    return s;
}

// ---- the run ------------------------------------------------------------------------------

std::string readScript(std::string const &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FileError("cannot open script '" + path + "': " + std::strerror(errno));
    std::string text(std::istreambuf_iterator<char>(in), {});
    if (in.bad()) throw FileError("cannot read script '" + path + "'");
    return text;
}

void runMask(MaskSettings const &s, Job &job) {
    Photo &photo = job.photo();
    if (!s.overlay.empty() && (sameFile(s.overlay, job.output()) || sameFile(s.overlay, s.script) ||
                               (!job.input().empty() && sameFile(s.overlay, job.input()))))
        throw UsageError("--overlay '" + s.overlay +
                         "' is the input, the script or the mask; choose another");
    if (sameFile(job.output(), s.script))
        throw UsageError("output '" + job.output() + "' is the script; choose another with -o");

    TPImage image;
    job.fill(image);
    Stopwatch watch;
    // The working image is the photograph at full size, so coordinates need no scaling and
    // the painter's full size stays its working size.
    TDrawMask painter;
    painter.setInImage(&image, false);
    TProgress &progress = *job.progress();
    progress.start(1.0f);
    if (!replayMask(s.steps, painter, &progress) || !progress.end()) throw FileError("cancelled");
    job.time("time to paint the mask: ", watch);

    cv::Mat const mask = painter.renderedMask();
    if (!s.overlay.empty()) {
        Stopwatch shown;
        Photo overlay;
        overlay.bgr = maskOverlay(photo.bgr, mask);
        overlay.format = s.overlayFormat;
        if (overlay.format == ImageFormat::jpeg && overlay.bgr.depth() != CV_8U)
            overlay.bgr.convertTo(overlay.bgr, CV_8U, 1.0 / 257.0);  // JPEG holds 8 bits
        writePhoto(s.overlay, overlay);
        job.time("time to draw and write the overlay: ", shown);
    }
    cv::cvtColor(mask, photo.bgr, cv::COLOR_GRAY2BGR);
    photo.alpha.release();
    photo.grey = true;
    photo.format = ImageFormat::png;
    job.finish();
}

}  // namespace

std::vector<MaskStep> parseMaskScript(std::string const &text, std::string const &name) {
    std::string const script = "script '" + name + "'";
    json root;
    try {
        root = json::parse(text);
    } catch (json::parse_error const &e) {
        std::string const what = e.what();
        std::size_t const bracket = what.find("] ");
        throw UsageError(script + " is not JSON: " +
                         (bracket == std::string::npos ? what : what.substr(bracket + 2)));
    }
    if (!root.is_array()) throw UsageError(script + " must be a list of steps: [...]");
    std::vector<MaskStep> steps;
    for (std::size_t i = 0; i < root.size(); ++i)
        steps.push_back(readStep(root[i], script + ", step " + std::to_string(i + 1)));
    return steps;
}

bool replayMask(std::vector<MaskStep> const &steps, TDrawMask &painter, TProgress *progress) {
    Kind last = Kind::invert;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        MaskStep const &s = steps[i];
        auto const value = static_cast<unsigned char>(s.value);
        // The painter takes a gradient or shape right after one of its kind as the same one
        // moved; in a script each stands on its own, so an empty stroke closes the first.
        if (i > 0 && s.kind == last && (s.kind == Kind::gradient || s.kind == Kind::shape)) {
            painter.cmdDrawStart();
            painter.cmdDrawEnd();
        }
        switch (s.kind) {
        case Kind::stroke:
            painter.setMaskBlendValue(value);
            painter.cmdDrawStart();
            for (cv::Point const &p : s.points)
                painter.cmdDrawADot(p, 255, s.radius, s.inner, s.flow, s.gate, s.picker);
            painter.cmdDrawEnd();
            break;
        case Kind::gradient:
            painter.setMaskBlendValue(value);
            painter.cmdDrawGradientMask(s.points[0], s.points[1], s.type);
            break;
        case Kind::shape:
            // The painter's fourth float is the colour gate's strictness.
            painter.setMaskBlendValue(value);
            painter.cmdDrawSuperMask(s.points[0], s.size, 0.0f, 0.0f, 1.0f - s.tolerance, false);
            break;
        case Kind::fill:  // the painter fills with 255 minus its blend value
            painter.setMaskBlendValue(static_cast<unsigned char>(255 - s.value));
            painter.cmdSetValue(value);
            break;
        case Kind::invert:
            painter.cmdInvert();
            break;
        case Kind::picker:
            painter.cmdSetColorPicker(s.points[0]);
            break;
        case Kind::merge:
            painter.setMergeMode(s.type);
            break;
        case Kind::refine:
            painter.cmdPostFilter(s.refineRadius, s.strength, s.offset, s.contrast);
            break;
        case Kind::keep:
        case Kind::drop:
            painter.applyButtonClicked(s.kind == Kind::drop);
            break;
        case Kind::snapshot:
            painter.snapshot();
            break;
        case Kind::undo:
            painter.undo();
            break;
        case Kind::redo:
            painter.redo();
            break;
        }
        painter.proc();
        last = s.kind;
        if (progress && !progress->prog(int(i) + 1, int(steps.size()))) return false;
    }
    painter.proc();
    return true;
}

cv::Mat maskOverlay(cv::Mat const &bgr, cv::Mat const &mask) {
    // out = a photo + (1 - a) (0.3 grey + 0.35 red), a = mask / 255: outside the mask the
    // photograph loses its colours, darkens and turns red, whatever its own colours.
    double const full = bgr.depth() == CV_8U ? 255.0 : 65535.0;
    cv::Mat photo, grey, a, a3, out;
    bgr.convertTo(photo, CV_32F, 1.0 / full);
    cv::cvtColor(photo, grey, cv::COLOR_BGR2GRAY);
    cv::cvtColor(grey, grey, cv::COLOR_GRAY2BGR);
    mask.convertTo(a, CV_32F, 1.0 / 255.0);
    cv::merge(std::vector<cv::Mat>{a, a, a}, a3);
    cv::Mat const outside = grey * 0.3 + cv::Scalar(0, 0, 0.35);
    out = photo.mul(a3) + outside.mul(cv::Scalar::all(1) - a3);
    out.convertTo(out, bgr.depth(), full);
    return out;
}

void addMaskOptions(CLI::App &app, MaskSettings &s) {
    addValue(app, "--script", "FILE",
             "the steps to replay, a JSON list (see above and below); required",
             [&s](std::string const &v) { s.script = v; })
        ->group("Mask");
    addValue(app, "--overlay", "FILE",
             "also write the photograph with the mask shown over it (darkened and tinted red "
             "where the mask is low): a .png or .tif at the photograph's depth, or an 8-bit .jpg",
             [&s](std::string const &v) {
                 if (!formatFromExtension(v, s.overlayFormat))
                     badValue("--overlay", v, "a file name ending in .png, .tif or .jpg");
                 s.overlay = v;
             })
        ->group("Mask");
    app.final_callback([&s] {
        if (s.script.empty())
            throw UsageError("kestrix mask needs --script FILE (see kestrix mask --help)");
        s.steps = parseMaskScript(readScript(s.script), s.script);
    });
}

Command const maskCommand = [] {
    Command c = commandOf<MaskSettings>("mask", "paint a mask over a photograph from a script",
                                        kAbout, kFooter, addMaskOptions, runMask);
    c.outputFormat = ImageFormat::png;
    return c;
}();
