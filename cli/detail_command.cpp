#include "cli/detail_command.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>

#include "cli/decompose.h"
#include "kestrix1/effects/t_details3.h"
#include "kestrix1/image/tp_image.h"

namespace {

// The effect's amounts and thresholds reach full strength at +-1.5; the light and colour
// settings are sensible well inside +-2.
constexpr float kDetailLimit = 1.5f;
constexpr float kLightLimit = 2.0f;
constexpr int kMaxScale = 64;

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

char const kAbout[] =
    "Brings out local contrast in a photograph at three scales and adjusts its light, the way "
    "a photo editor's detail panel does. Reads an 8- or 16-bit PNG, TIFF or JPEG (grey, RGB or "
    "RGB with alpha) and writes the same format at the same bit depth. Colour is kept: only the "
    "luminance changes. An alpha channel is carried through untouched (cropped and scaled with "
    "--roi and --scale). Grey images come out grey.\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used. With no -o the result "
    "goes to detail.png, detail.tif or detail.jpg in the current folder, after the input's "
    "format. The output is written to a temporary file beside it and renamed, so a failed run "
    "never leaves a partial file.\n"
    "\n"
    "Detail per scale: A = amount, S = extra amount in the shadows, M = extra amount in the "
    "midtones, each -1.5 .. 1.5 (0 leaves the scale as it is, 1.5 is the most, negative values "
    "soften). Thresholds: positive values protect small differences from the boost by a soft "
    "step, negative values (a dead zone) drop them, which calms noise.";

char const kFooter[] =
    "How the image is split (*): the luminance Y is smoothed three times in a row with the "
    "library's edge-aware domain-transform filter (recursive form, three iterations each): "
    "Y1 = DT(Y), Y2 = DT(Y1), Y3 = DT(Y2), with spatial sigmas of 2, 8 and 32 pixels times "
    "sqrt(max(1, (width + height) / 1024)) and range sigmas of 25%, 15% and 10% of full scale, "
    "so that strong edges stay in the coarser planes and do not halo. The base plane is Y3 and "
    "the detail planes are the differences of neighbours, centred on 32768 in units of half a "
    "luminance step:\n"
    "  D0 = (Y - Y1) / 2 + 32768, D1 = (Y1 - Y2) / 2 + 32768, D2 = (Y2 - Y3) / 2 + 32768.\n"
    "Each smoothed plane is rounded to the parity of Y, so that "
    "Y3 + 2 (D0 + D1 + D2 - 3 * 32768) = Y holds exactly.\n"
    "\n"
    "Exit status: 0 done, 1 the image could not be read, processed or written, 2 the command "
    "line is wrong.";

void readRoi(DetailSettings &s, std::string const &value) {
    std::vector<double> r;
    bool ok = commaSeparated(value, r) && r.size() == 4;
    for (std::size_t k = 0; ok && k < 4; ++k)
        ok = r[k] == std::floor(r[k]) && r[k] >= (k < 2 ? 0 : 1) && r[k] <= 1 << 30;
    if (!ok) badValue("--roi", value, "x,y,width,height with x, y >= 0 and width, height >= 1");
    s.roiX = int(r[0]);
    s.roiY = int(r[1]);
    s.roiW = int(r[2]);
    s.roiH = int(r[3]);
}

// The half-size chroma under a region of the full image: the half-size area that the region
// covers, reduced to half the result's size.
cv::Mat chromaOfRegion(cv::Mat const &half, cv::Rect region, cv::Size result) {
    int const x0 = region.x / 2;
    int const y0 = region.y / 2;
    int const x1 = std::min(half.cols, TPImage::half(region.x + region.width));
    int const y1 = std::min(half.rows, TPImage::half(region.y + region.height));
    cv::Mat out;
    cv::Size const size(TPImage::half(result.width), TPImage::half(result.height));
    cv::resize(half(cv::Rect(x0, y0, x1 - x0, y1 - y0)), out, size, 0, 0, cv::INTER_AREA);
    return out;
}

// The area of the image that --roi and --scale ask for, and the result's size: a region
// reaching past the image is cut at its edge, in whole result pixels.
void region(DetailSettings const &s, cv::Size image, cv::Rect &area, cv::Size &result) {
    area = cv::Rect(cv::Point(), image);
    result = image;
    if (!s.hasRoi() && s.scale == 1) return;
    int const x = s.hasRoi() ? s.roiX : 0;
    int const y = s.hasRoi() ? s.roiY : 0;
    int const w = s.hasRoi() ? s.roiW : image.width;
    int const h = s.hasRoi() ? s.roiH : image.height;
    int const rw = x < image.width ? std::min(w, (image.width - x) / s.scale) : 0;
    int const rh = y < image.height ? std::min(h, (image.height - y) / s.scale) : 0;
    std::string const size = std::to_string(image.width) + " x " + std::to_string(image.height);
    if ((rw < 1 || rh < 1) && !s.hasRoi())
        throw UsageError("--scale " + std::to_string(s.scale) + " leaves nothing of the " + size +
                         " image");
    if (rw < 1 || rh < 1)
        throw UsageError("the region " + std::to_string(x) + "," + std::to_string(y) + "," +
                         std::to_string(w) + "," + std::to_string(h) + " at scale " +
                         std::to_string(s.scale) + " lies outside the " + size + " image");
    area = cv::Rect(x, y, rw * s.scale, rh * s.scale);
    result = cv::Size(rw, rh);
}

void runDetail(DetailSettings const &s, Job &job) {
    Photo &photo = job.photo();
    cv::Rect area;
    cv::Size result;
    region(s, photo.bgr.size(), area, result);

    TPImage image;
    job.fill(image);
    TProgress &progress = *job.progress();

    // The split takes the first third of the bar, the effect's setup the rest.
    Stopwatch watch;
    DetailPlanes planes;
    progress.start(0.3f);
    if (!decompose(image.m_Y, planes, &progress)) throw FileError("cancelled");
    progress.end();
    job.time("time to decompose: ", watch);

    TDetails3 effect;
    watch = Stopwatch();
    progress.start(0.7f);
    if (!effect.setup(planes.base, planes.detail[0], planes.detail[1], planes.detail[2], image.m_Dr,
                      image.m_Db, &progress))
        throw FileError("cancelled");
    progress.end();
    job.time("time to setup: ", watch);

    std::memcpy(effect.detailAmount, s.amount, sizeof s.amount);
    std::memcpy(effect.detailThreshold, s.threshold, sizeof s.threshold);
    std::copy(s.light, s.light + 6, effect.lightParam);
    std::copy(s.colorMix, s.colorMix + 3, effect.colorMix);
    effect.baseDirty = true;
    std::fill(effect.levelDirty, effect.levelDirty + 3, true);

    cv::Rect_<int> const roi(area.x, area.y, result.width, result.height);
    watch = Stopwatch();
    effect.proc(roi, s.scale, cv::Mat());
    job.time("time to proc: ", watch);
    if (job.timing()) {
        // What a slider on one level costs once the rest is cached; the result is the same.
        effect.levelDirty[0] = true;
        watch = Stopwatch();
        effect.proc(roi, s.scale, cv::Mat());
        job.time("time to proc after a change of the fine level: ", watch);
        watch = Stopwatch();
        effect.proc(roi, s.scale, cv::Mat());
        job.time("time to proc with nothing changed: ", watch);
    }

    cv::Mat const &y = effect.getRoiY();
    if (area.size() == image.m_Y.size()) {
        image.m_Y = y;
    } else {
        TPImage part(result.width, result.height);
        part.m_Y = y;
        part.m_Dr = chromaOfRegion(image.m_Dr, area, result);
        part.m_Db = chromaOfRegion(image.m_Db, area, result);
        image = part;
        if (!photo.alpha.empty())
            photo.alpha = TPImage::MatRoi(photo.alpha, area.x, area.y, result.width, result.height,
                                          s.scale, false, false);
    }
    job.finish(image);
}

}  // namespace

void applyPreset(DetailSettings &settings, std::string const &name) {
    for (Preset const &p : kPresets) {
        if (name != p.name) continue;
        std::memcpy(settings.amount, p.amount, sizeof settings.amount);
        std::memcpy(settings.threshold, p.threshold, sizeof settings.threshold);
        std::memcpy(settings.light, p.light, sizeof settings.light);
        std::memcpy(settings.colorMix, p.colorMix, sizeof settings.colorMix);
        settings.preset = name;
        return;
    }
    badValue("--preset", name, "natural, strong or neutral");
}

void addDetailOptions(CLI::App &app, DetailSettings &s) {
    applyPreset(s, "natural");
    // Options are read in the order they are added here: the preset first, --light before
    // the single light settings.
    addValue(app, "--preset", "NAME",
             "natural (default): clear, moderate local contrast, shadows opened a little; "
             "strong: more of the same; neutral: every setting 0, which gives back the input up "
             "to rounding. Applied first; the settings below change single values on top of it.",
             [&s](std::string const &v) { applyPreset(s, v); })
        ->group("Preset");

    char const *const levels[3] = {"fine", "medium", "coarse"};
    char const *const levelHelp[3] = {"texture: an edge-aware scale of about 2 pixels (*)",
                                      "structure: about 8 pixels (*)",
                                      "local contrast: about 32 pixels (*)"};
    for (int n = 0; n < 3; ++n)
        addNumbers(app, std::string("--") + levels[n], "A[,S,M]", levelHelp[n], s.amount[n], 1, 3,
                   -kDetailLimit, kDetailLimit)
            ->group("Detail per scale");
    for (int n = 0; n < 3; ++n)
        addNumbers(app, std::string("--") + levels[n] + "-threshold", "T[,S,M]",
                   std::string("threshold of the ") + levels[n] + " scale", s.threshold[n], 1, 3,
                   -kDetailLimit, kDetailLimit)
            ->group("Detail per scale");

    addNumbers(app, "--light", "E,C,H,S,W,B", "the six settings below at once, in this order",
               s.light, 6, 6, -kLightLimit, kLightLimit)
        ->group("Light, each -2 .. 2, 0 neutral");
    struct Light {
        char const *name, *help;
    } const lights[6] = {{"--exposure", "brighter (positive) or darker overall"},
                         {"--contrast", "global contrast of the tone curve"},
                         {"--highlights", "lifts (positive) or holds back the upper tones"},
                         {"--shadows", "lifts (positive) or deepens the lower tones"},
                         {"--whites", "moves the white end of the tone curve"},
                         {"--blacks", "moves the black end of the tone curve"}};
    for (int k = 0; k < 6; ++k)
        addNumbers(app, lights[k].name, "V", lights[k].help, &s.light[k], 1, 1, -kLightLimit,
                   kLightLimit)
            ->group("Light, each -2 .. 2, 0 neutral");

    addNumbers(app, "--color-mix", "R,N,B",
               "luminance mix by colour, each -2 .. 2: positive R brightens reds, positive B "
               "brightens blues, positive N darkens both (brightens greens); 0,0,0 leaves "
               "luminance alone",
               s.colorMix, 3, 3, -kLightLimit, kLightLimit)
        ->group("Colour");

    addValue(app, "--roi", "X,Y,W,H",
             "render only the region at (X, Y) of the full image, W x H result pixels; the "
             "output then has the region's size",
             [&s](std::string const &v) { readRoi(s, v); })
        ->group("Preview of a region");
    addWhole(app, "--scale", "N",
             "zoom-out 1 .. 64: the region covers N*W x N*H image pixels, reduced by N (clipped "
             "at the image's edge)",
             s.scale, 1, kMaxScale)
        ->group("Preview of a region");
}

Command const detailCommand = commandOf<DetailSettings>(
    "detail", "bring out local contrast at three scales and adjust the light", kAbout, kFooter,
    addDetailOptions, runDetail);
