#include "cli/detail_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

// The effect's amounts and thresholds reach full strength at +-1.5; the light and colour
// settings are sensible well inside +-2.
constexpr float kDetailLimit = 1.5f;
constexpr float kLightLimit = 2.0f;
constexpr int kMaxScale = 64;

[[noreturn]] void badValue(std::string const &option, std::string const &value,
                           std::string const &expected) {
    throw UsageError("bad value '" + value + "' for " + option + " (expected " + expected + ")");
}

// Splits "a,b,c" into its fields; an empty field stays as an empty string so that it fails
// as a number.
std::vector<std::string> fields(std::string const &text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (;;) {
        std::size_t const comma = text.find(',', start);
        out.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) return out;
        start = comma + 1;
    }
}

bool toFloat(std::string const &text, float &value) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    double const v = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(v)) return false;
    value = float(v);
    return true;
}

bool toInt(std::string const &text, int &value) {
    if (text.empty()) return false;
    char *end = nullptr;
    errno = 0;
    long const v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < -(1L << 30) || v > (1L << 30)) return false;
    value = int(v);
    return true;
}

// Reads between `least` and `most` comma-separated numbers, each within +-limit, into out.
void readFloats(std::string const &option, std::string const &value, std::size_t least,
                std::size_t most, float limit, float *out) {
    std::string const limitText = limit == kDetailLimit ? "-1.5..1.5" : "-2..2";
    std::string const expected =
        least == most
            ? (least == 1 ? "a number in " + limitText
                          : std::to_string(least) + " comma-separated numbers in " + limitText)
            : "1 to " + std::to_string(most) + " comma-separated numbers in " + limitText;
    std::vector<std::string> const parts = fields(value);
    if (parts.size() < least || parts.size() > most) badValue(option, value, expected);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        float v = 0;
        if (!toFloat(parts[i], v) || std::fabs(v) > limit) badValue(option, value, expected);
        out[i] = v;
    }
}

struct Preset {
    char const *name;
    float amount[3][3];
    float threshold[3][3];
    float light[6];
    float colorMix[3];
};

// The fine level gets a small dead zone (negative threshold) so that sensor noise is not
// lifted with the texture; the shadow band of the coarser levels gets a little more, because
// flat shadows gain most from local contrast; the light curve opens the shadows a touch and
// holds the highlights so that the added contrast does not clip.
Preset const kPresets[] = {
    {"natural",
     {{0.10f, 0.0f, 0.0f}, {0.14f, 0.05f, 0.0f}, {0.16f, 0.05f, 0.0f}},
     {{-0.05f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f}},
     {0.0f, 0.0f, -0.10f, 0.15f, 0.0f, 0.0f},
     {0.0f, 0.0f, 0.0f}},
    {"strong",
     {{0.25f, 0.0f, 0.0f}, {0.35f, 0.10f, 0.0f}, {0.35f, 0.10f, 0.0f}},
     {{-0.15f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.0f}},
     {0.0f, 0.05f, -0.20f, 0.30f, 0.0f, 0.0f},
     {0.0f, 0.0f, 0.0f}},
    {"neutral", {}, {}, {}, {}},
};

// Reads the value of option i: either "--name=value" or the next argument.
std::string takeValue(std::vector<std::string> const &args, std::size_t &i, std::string const &name,
                      std::string const &inlineValue, bool hasInline) {
    if (hasInline) return inlineValue;
    if (i + 1 >= args.size()) throw UsageError("option " + name + " needs a value");
    return args[++i];
}

}  // namespace

void applyPreset(DetailOptions &options, std::string const &name) {
    for (Preset const &p : kPresets) {
        if (name != p.name) continue;
        std::memcpy(options.amount, p.amount, sizeof options.amount);
        std::memcpy(options.threshold, p.threshold, sizeof options.threshold);
        std::memcpy(options.light, p.light, sizeof options.light);
        std::memcpy(options.colorMix, p.colorMix, sizeof options.colorMix);
        options.preset = name;
        return;
    }
    badValue("--preset", name, "natural, strong or neutral");
}

DetailOptions parseDetailOptions(std::vector<std::string> const &args) {
    DetailOptions options;

    // Single settings are remembered as (option, value) and applied after the preset.
    std::vector<std::pair<std::string, std::string>> settings;
    std::string preset = options.preset;
    bool inputSeen = false;
    bool onlyPositional = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string const &arg = args[i];
        if (onlyPositional || arg.size() < 2 || arg[0] != '-') {
            if (inputSeen) throw UsageError("more than one input file: '" + arg + "'");
            options.input = arg;
            inputSeen = true;
            continue;
        }
        if (arg == "--") {
            onlyPositional = true;
            continue;
        }
        std::string name = arg;
        std::string inlineValue;
        bool hasInline = false;
        std::size_t const eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            inlineValue = arg.substr(eq + 1);
            hasInline = true;
        }
        auto value = [&] { return takeValue(args, i, name, inlineValue, hasInline); };
        auto noValue = [&] {
            if (hasInline) throw UsageError("option " + name + " takes no value");
        };

        if (name == "-h" || name == "--help") {
            noValue();
            options.help = true;
        } else if (name == "-q" || name == "--quiet") {
            noValue();
            options.quiet = true;
        } else if (name == "--time") {
            noValue();
            options.time = true;
        } else if (name == "-o" || name == "--output") {
            options.output = value();
            if (options.output.empty()) badValue(name, options.output, "a file name");
        } else if (name == "--preset") {
            preset = value();
        } else if (name == "--roi") {
            std::string const v = value();
            std::vector<std::string> const parts = fields(v);
            int r[4] = {};
            bool ok = parts.size() == 4;
            for (std::size_t k = 0; ok && k < 4; ++k)
                ok = toInt(parts[k], r[k]);
            if (!ok || r[0] < 0 || r[1] < 0 || r[2] < 1 || r[3] < 1)
                badValue(name, v, "x,y,width,height with x, y >= 0 and width, height >= 1");
            options.roiX = r[0];
            options.roiY = r[1];
            options.roiW = r[2];
            options.roiH = r[3];
        } else if (name == "--scale") {
            std::string const v = value();
            int s = 0;
            if (!toInt(v, s) || s < 1 || s > kMaxScale)
                badValue(name, v, "a whole number from 1 to " + std::to_string(kMaxScale));
            options.scale = s;
        } else if (name == "--fine" || name == "--medium" || name == "--coarse" ||
                   name == "--fine-threshold" || name == "--medium-threshold" ||
                   name == "--coarse-threshold" || name == "--exposure" || name == "--contrast" ||
                   name == "--highlights" || name == "--shadows" || name == "--whites" ||
                   name == "--blacks" || name == "--light" || name == "--color-mix") {
            settings.emplace_back(name, value());
        } else {
            throw UsageError("unknown option '" + arg + "' (see kestrix detail --help)");
        }
    }

    applyPreset(options, preset);

    char const *const levels[3] = {"--fine", "--medium", "--coarse"};
    char const *const lights[6] = {"--exposure", "--contrast", "--highlights",
                                   "--shadows",  "--whites",   "--blacks"};
    for (auto const &[name, v] : settings) {
        bool done = false;
        for (int n = 0; n < 3 && !done; ++n) {
            if (name == levels[n]) {
                // The band changes default to 0 when only the base amount is given.
                float a[3] = {};
                readFloats(name, v, 1, 3, kDetailLimit, a);
                std::memcpy(options.amount[n], a, sizeof a);
                done = true;
            } else if (name == std::string(levels[n]) + "-threshold") {
                float t[3] = {};
                readFloats(name, v, 1, 3, kDetailLimit, t);
                std::memcpy(options.threshold[n], t, sizeof t);
                done = true;
            }
        }
        for (int k = 0; k < 6 && !done; ++k) {
            if (name == lights[k]) {
                readFloats(name, v, 1, 1, kLightLimit, &options.light[k]);
                done = true;
            }
        }
        if (done) continue;
        if (name == "--light")
            readFloats(name, v, 6, 6, kLightLimit, options.light);
        else
            readFloats(name, v, 3, 3, kLightLimit, options.colorMix);
    }
    return options;
}

std::string detailHelp() {
    return R"(Usage: kestrix detail [INPUT] [-o OUTPUT] [options]

Brings out local contrast in a photograph at three scales and adjusts its light, the way
a photo editor's detail panel does. Reads an 8- or 16-bit PNG, TIFF or JPEG (grey, RGB or
RGB with alpha) and writes the same format at the same bit depth. Colour is kept: only
the luminance changes. An alpha channel is carried through untouched (cropped and scaled
with --roi and --scale). Grey images come out grey.

With no INPUT the bundled sample photograph is used and the result goes to detail.png in
the current folder. With INPUT and no -o, the result goes to detail.png, detail.tif or
detail.jpg in the current folder, after the input's format. The output is written to a
temporary file beside it and renamed, so a failed run never leaves a partial file.

Files:
  -o, --output FILE      where to write; its extension must name the input's format
                         (.png; .tif or .tiff; .jpg or .jpeg) and it must not be the input

Presets (applied first; the settings below change single values on top of them):
  --preset NAME          natural (default): clear, moderate local contrast, shadows
                         opened a little; strong: more of the same; neutral: every
                         setting 0, which gives back the input up to rounding

Detail, per scale. A = amount, S = extra amount in the shadows, M = extra amount in the
midtones, each -1.5 .. 1.5 (0 leaves the scale as it is, 1.5 is the most, negative
values soften). Thresholds: positive values protect small differences from the boost by
a soft step, negative values (a dead zone) drop them, which calms noise.
  --fine A[,S,M]         texture: edge-aware scale of about 2 pixels (*)
  --medium A[,S,M]       structure: about 8 pixels (*)
  --coarse A[,S,M]       local contrast: about 32 pixels (*)
  --fine-threshold T[,S,M], --medium-threshold T[,S,M], --coarse-threshold T[,S,M]

Light, each -2 .. 2, 0 neutral:
  --exposure V           brighter (positive) or darker overall
  --contrast V           global contrast of the tone curve
  --highlights V         lifts (positive) or holds back the upper tones
  --shadows V            lifts (positive) or deepens the lower tones
  --whites V             moves the white end of the tone curve
  --blacks V             moves the black end of the tone curve
  --light E,C,H,S,W,B    all six at once, in this order

Colour:
  --color-mix R,N,B      luminance mix by colour, each -2 .. 2: positive R brightens
                         reds, positive B brightens blues, positive N darkens both
                         (brightens greens); 0,0,0 leaves luminance alone

Preview of a region:
  --roi X,Y,W,H          render only the region at (X, Y) of the full image, W x H result
                         pixels; the output then has the region's size
  --scale N              zoom-out 1 .. 64: the region covers N*W x N*H image pixels,
                         reduced by N (clipped at the image's edge)

Reporting:
  -q, --quiet            no progress bar (there is one on stderr only when stderr is a
                         terminal)
  --time                 print the time of the decomposition, of the effect's setup and
                         of each of its passes on stdout
  -h, --help             this text

How the image is split (*): the luminance Y is smoothed three times in a row with the
library's edge-aware domain-transform filter (recursive form, three iterations each):
Y1 = DT(Y), Y2 = DT(Y1), Y3 = DT(Y2), with spatial sigmas of 2, 8 and 32 pixels times
sqrt(max(1, (width + height) / 1024)) and range sigmas of 25%, 15% and 10% of full
scale, so that strong edges stay in the coarser planes and do not halo. The base plane is
Y3 and the detail planes are the differences of neighbours, centred on 32768 in units of
half a luminance step: D0 = (Y - Y1) / 2 + 32768, D1 = (Y1 - Y2) / 2 + 32768,
D2 = (Y2 - Y3) / 2 + 32768. Each smoothed plane is rounded to the parity of Y, so that
Y3 + 2 (D0 + D1 + D2 - 3 * 32768) = Y holds exactly.

Exit status: 0 done, 1 the image could not be read, processed or written, 2 the command
line is wrong.
)";
}
