#include "cli/smooth_command.h"

#include <unistd.h>
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <vector>

#include "cli/half_size.h"
#include "kestrix1/filters/a_filter.h"
#include "kestrix1/filters/bilateral_filter.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/filters/t_wls_filter.h"
#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/image/t_filter_box.h"
#include "kestrix1/image/t_image.h"
#include "kestrix1/image/tp_image.h"

namespace {

using Filter = SmoothSettings::Filter;
using Channels = SmoothSettings::Channels;

struct FilterInfo {
    Filter filter;
    char const *name;
    // Defaults: a clearly visible smoothing of a photograph of a few megapixels that keeps
    // its main edges.
    int radius;
    float eps, sigmaS, sigmaR;
    float leastSigmaS;  // below this the filter cannot work as designed
    float lambda, alpha;
};

// The bilateral grid's cells are sigma-s pixels wide and need at least two; the manifolds
// are blurred at a quarter of sigma-s, which must stay at least one pixel.
// The least squares defaults are for the natural log of the luminance: alpha 1.2 makes a step
// of a few percent in brightness already hold the smoothing back, and lambda 0.5 flattens
// texture of a few pixels while a gradient over tens of pixels survives.
FilterInfo const kFilters[] = {
    {Filter::guided, "guided", 8, 0.1f, 0, 0, 0, 0, 0},
    {Filter::dt, "dt", 0, 0, 16.0f, 0.1f, 1.0f, 0, 0},
    {Filter::bilateral, "bilateral", 0, 0, 16.0f, 0.1f, 2.0f, 0, 0},
    {Filter::manifold, "manifold", 0, 0, 16.0f, 0.2f, 4.0f, 0, 0},
    {Filter::wls, "wls", 0, 0, 0, 0, 0, 0.5f, 1.2f},
    {Filter::box, "box", 8, 0, 0, 0, 0, 0, 0},
};

constexpr int kMaxGuidedRadius = 200, kMaxBoxRadius = 1000;

// Memory of a --filter wls run, which grows with the Cholesky factor of a w x h grid's system:
// c N log2 N nonzeros under nested dissection (c = 1.75 measured at 1224 x 816). The factor
// is about a third of the peak; the solver's work memory, the filter's arrays and the planes
// of the run make the rest. Fitted to the peak resident memory of whole runs on photographs,
// 0.82 GB at 1224 x 816 (estimate 0.83) and 3.06 GB at 2448 x 1632 (estimate 3.6), so the
// estimate errs on the safe side as photographs grow. The estimate in bytes is
// 8 kWlsFactorPerPixelLog N log2 N + kWlsBytesPerPixel N.
constexpr double kWlsFactorPerPixelLog = 5.0;
constexpr double kWlsBytesPerPixel = 32.0;

constexpr float kMaxSigmaS = 1000.0f;

FilterInfo const &infoOf(Filter filter) {
    return *std::find_if(std::begin(kFilters), std::end(kFilters),
                         [filter](FilterInfo const &i) { return i.filter == filter; });
}

char const kAbout[] =
    "Smooths a photograph while keeping its edges, with one of the library's edge-aware "
    "filters. Reads an 8- or 16-bit PNG, TIFF or JPEG and writes the same format at the same "
    "bit depth; an alpha channel is carried through untouched.\n"
    "\n"
    "With --channels y (the default) only the luminance is smoothed and colour is kept. With "
    "--channels rgb each colour plane is smoothed, which also calms colour noise. The "
    "photograph steers the filter with its own edges, or --guide names a second picture of the "
    "same size whose edges are followed instead (joint filtering, for example a flash shot "
    "guiding a noisy available-light one).\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used; with no -o the result "
    "goes to smooth.png, smooth.tif or smooth.jpg after the input's format.";

char const kFooter[] =
    "--filter guided: He, Sun and Tang's guided filter: a local linear model of the guide in each "
    "window of side 2R + 1. Differences well below --eps are smoothed away, edges well above "
    "it stay. Defaults: --radius 8 --eps 0.1.\n"
    "\n"
    "--filter dt: Gastal and Oliveira's domain transform, recursive form, three iterations. "
    "Defaults: --sigma-s 16 --sigma-r 0.1.\n"
    "\n"
    "--filter bilateral: the bilateral filter on a coarse grid: --sigma-s is the grid's cell in "
    "pixels (at least 2, rounded), --sigma-r its cell along the value axis. Defaults: "
    "--sigma-s 16 --sigma-r 0.1.\n"
    "\n"
    "--filter manifold: Gastal and Oliveira's adaptive manifolds. With --channels rgb it follows "
    "colour edges, not just luminance ones. Its random directions start from a fixed seed, so "
    "a run repeats exactly. Needs --sigma-s of at least 4. Defaults: --sigma-s 16 --sigma-r 0.2.\n"
    "\n"
    "With --channels y every filter follows the luminance (of the input, or of --guide); with "
    "--channels rgb guided, dt and manifold follow the three colour planes, bilateral the "
    "luminance and wls its logarithm.\n"
    "\n"
    "--filter wls: Farbman, Fattal, Lischinski and Szeliski's weighted least squares: the image "
    "closest to the input that is smooth wherever the log luminance is flat, found by an exact "
    "sparse solve. No halos, but the slowest filter by far: about 2 s and 1 GB of memory for "
    "a 1-megapixel photograph, 10 s and 3 GB for 4 megapixels on a current PC, both growing a "
    "little faster than the pixel count. For a fast preview, smooth a smaller copy. A "
    "photograph too large for this machine's memory is refused before the solve. --lambda is "
    "the strength (0.1 light, 10 strong), --alpha how sharply it stops at steps (1 soft, 2 "
    "hard). Defaults: --lambda 0.5 --alpha 1.2.\n"
    "\n"
    "--filter box: a plain box blur of side 2R + 1 that keeps no edge, to compare the others "
    "with. Beyond a radius of 53 it blurs a reduced copy and enlarges it again, so that even "
    "--radius 1000 takes well under a second. Default: --radius 8.\n"
    "\n"
    "Exit status: 0 done, 1 the image could not be read, processed or written, 2 the command "
    "line is wrong.";

// ---- the filters over 16-bit planes -------------------------------------------------------

std::vector<cv::Mat> toFloat(std::vector<cv::Mat> const &planes16) {
    std::vector<cv::Mat> out(planes16.size());
    for (std::size_t i = 0; i < planes16.size(); ++i)
        planes16[i].convertTo(out[i], CV_32F, 1.0 / 65535.0);
    return out;
}

void fromFloat(cv::Mat const &f, cv::Mat &plane16) {
    f.convertTo(plane16, CV_16U, 65535.0);
}

cv::Mat merged(std::vector<cv::Mat> const &planes) {
    cv::Mat m;
    cv::merge(planes, m);
    return m;
}

// What a run filters: 16-bit planes, the planes that steer them and the single plane that
// steers the filters that take one.
struct Work {
    std::vector<cv::Mat> planes;
    std::vector<cv::Mat> guides;
    cv::Mat luma;
};

void runGuided(SmoothSettings const &s, Work &w) {
    std::vector<cv::Mat> const guides = toFloat(w.guides);
    float const eps = s.eps * s.eps;
    for (cv::Mat &plane : w.planes) {
        TGFilter filter;
        cv::Mat p;
        plane.convertTo(p, CV_32F, 1.0 / 65535.0);
        filter.setup(guides, p, s.radius, eps);
        if (guides.size() == 3) {
            filter.proc16U(guides, plane);
        } else {
            cv::Mat q(p.size(), CV_32F);
            filter.proc(guides, q);
            fromFloat(q, plane);
        }
    }
}

void runDt(SmoothSettings const &s, Work &w) {
    DTFilter filter;
    filter.setup(s.sigmaS, s.sigmaR, 3, DTFilter::L1);
    cv::Mat const in = merged(toFloat(w.planes));
    cv::Mat const guide = merged(toFloat(w.guides));
    cv::Mat out;
    filter.proc(in, guide, out, 0);
    std::vector<cv::Mat> result;
    cv::split(out, result);
    for (std::size_t i = 0; i < w.planes.size(); ++i)
        fromFloat(result[i], w.planes[i]);
}

bool runBilateral(SmoothSettings const &s, Work &w, TProgress &progress) {
    int const cell = std::max(2, int(std::lround(s.sigmaS)));
    int const range = std::max(1, int(std::lround(s.sigmaR * 65535.0f)));
    BilateralFilter filter;
    float const share = 1.0f / float(w.planes.size());
    for (cv::Mat &plane : w.planes) {
        progress.start(share);
        if (!filter.proc(w.luma, plane, cell, range, &progress)) return false;
        progress.end();
    }
    return true;
}

void runManifold(SmoothSettings const &s, Work &w) {
    // The filter splits its manifolds along random directions drawn from OpenCV's generator of
    // the calling thread; a fixed start makes a run repeat exactly.
    cv::theRNG().state = 0x6b657374u;
    AFilter filter;
    std::vector<cv::Mat> const guides = toFloat(w.guides);
    filter.setup(s.sigmaR, s.sigmaS, 0, 1, guides);
    std::vector<cv::Mat> out;
    filter.proc(toFloat(w.planes), out);
    for (std::size_t i = 0; i < w.planes.size(); ++i)
        fromFloat(out[i], w.planes[i]);
}

// The guide is the log of the luminance in 0..1 (of the input, or of --guide). The first plane
// takes its logarithm in place; the others reuse it, and the solver's analysis with it.
void runWls(SmoothSettings const &s, Work &w) {
    cv::Mat const &luma = w.luma.empty() ? w.planes[0] : w.luma;
    requireWlsFits(luma.cols, luma.rows);
    cv::Mat guide;
    luma.convertTo(guide, CV_32F, 1.0 / 65535.0);
    TWLSFilter filter;
    bool logGuide = true;
    for (cv::Mat &plane : w.planes) {
        cv::Mat g;
        plane.convertTo(g, CV_32F, 1.0 / 65535.0);
        filter.Proc(g.ptr<float>(), g.cols, g.rows, s.lambda, s.alpha, guide.ptr<float>(),
                    logGuide);
        logGuide = false;
        fromFloat(g, plane);
    }
}

// One pass of the library's box blur on each plane.
void runBox(SmoothSettings const &s, Work &w) {
    for (cv::Mat &plane : w.planes) {
        TSize const size(plane.cols, plane.rows);
        TImage in(TImage::Y16U, size), out(TImage::Y16U, size);
        in.fromMat(plane);
        tFilterBox(&in, &out, s.radius, 1, nullptr);
        out.toMat().copyTo(plane);
    }
}

// ---- the run ------------------------------------------------------------------------------

std::vector<cv::Mat> planes16(cv::Mat const &bgr) {
    cv::Mat wide;
    bgr.convertTo(wide, CV_16U, bgr.depth() == CV_8U ? 257.0 : 1.0);
    std::vector<cv::Mat> planes;
    cv::split(wide, planes);
    return planes;
}

cv::Mat readGuide(std::string const &path, cv::Size size) {
    Photo const guide = readPhoto(path);
    if (guide.bgr.size() != size)
        throw FileError("guide '" + path + "' is " + std::to_string(guide.bgr.cols) + " x " +
                        std::to_string(guide.bgr.rows) + " pixels; the input is " +
                        std::to_string(size.width) + " x " + std::to_string(size.height));
    return guide.bgr;
}

void runSmooth(SmoothSettings const &s, Job &job) {
    Photo &photo = job.photo();
    cv::Mat const guideBgr = s.guide.empty() ? cv::Mat() : readGuide(s.guide, photo.bgr.size());

    TPImage image;
    job.fill(image);
    Work w;
    w.luma = image.m_Y;
    if (!guideBgr.empty()) {
        TPImage guideImage;
        fillWorkingImage(guideBgr, guideImage);
        w.luma = guideImage.m_Y;
    }
    bool const rgb = s.channels == Channels::rgb;
    if (rgb) {
        w.planes = planes16(photo.bgr);
        w.guides = guideBgr.empty() ? w.planes : planes16(guideBgr);
    } else {
        w.planes = {image.m_Y.clone()};
    }
    if (!rgb || s.filter == Filter::bilateral) w.guides = {w.luma};
    // The bilateral filter follows its own plane when nothing else is asked for.
    if (!rgb && guideBgr.empty()) w.luma = cv::Mat();

    Stopwatch watch;
    if (s.half)  // the luminance alone, at half size, and its guide with it
        for (cv::Mat *m : {&w.planes[0], &w.guides[0], &w.luma})
            if (!m->empty()) *m = halfSizeOf(*m);
    SmoothSettings const p = s.half ? halfSizeSettings(s, infoOf(s.filter).leastSigmaS) : s;
    TProgress &progress = *job.progress();
    switch (s.filter) {
        case Filter::guided:
            runGuided(p, w);
            break;
        case Filter::dt:
            runDt(p, w);
            break;
        case Filter::bilateral:
            if (!runBilateral(p, w, progress)) throw FileError("cancelled");
            break;
        case Filter::manifold:
            runManifold(p, w);
            break;
        case Filter::wls:
            runWls(p, w);
            break;
        case Filter::box:
            runBox(p, w);
            break;
        case Filter::none:
            break;
    }
    if (s.half) w.planes[0] = fullSizeFrom(image.m_Y, w.planes[0]);
    job.time("time to smooth: ", watch);

    if (rgb) {
        cv::Mat out;
        cv::merge(w.planes, out);
        if (photo.bgr.depth() == CV_8U)
            out.convertTo(photo.bgr, CV_8U, 1.0 / 257.0);
        else
            photo.bgr = out;
        job.finish();
    } else {
        image.m_Y = w.planes[0];
        job.finish(image);
    }
}

void readFilter(SmoothSettings &s, std::string const &value) {
    for (FilterInfo const &f : kFilters)
        if (value == f.name) {
            s.filter = f.filter;
            return;
        }
    badValue("--filter", value, "guided, dt, bilateral, manifold, wls or box");
}

}  // namespace

void resolveSmooth(SmoothSettings &s) {
    if (s.filter == Filter::none)
        throw UsageError(
            "kestrix smooth needs --filter guided, dt, bilateral, manifold, wls or box (see "
            "kestrix smooth --help)");
    FilterInfo const &f = infoOf(s.filter);
    bool const guided = s.filter == Filter::guided;
    bool const wls = s.filter == Filter::wls;
    bool const box = s.filter == Filter::box;
    bool const sigmas = !guided && !wls && !box;
    auto misplaced = [&f](char const *option) {
        throw UsageError(std::string(option) + " does not apply to --filter " + f.name +
                         " (see kestrix smooth --help)");
    };
    if (!sigmas && s.sigmaS >= 0) misplaced("--sigma-s");
    if (!sigmas && s.sigmaR >= 0) misplaced("--sigma-r");
    if (!wls && s.lambda >= 0) misplaced("--lambda");
    if (!wls && s.alpha >= 0) misplaced("--alpha");
    if (!guided && !box && s.radius >= 0) misplaced("--radius");
    if (box && !s.guide.empty()) misplaced("--guide");
    if (!guided && s.eps >= 0) misplaced("--eps");
    if (s.half && s.channels == Channels::rgb)
        throw UsageError(
            "--half works on the luminance only: it does not apply to --channels rgb (see "
            "kestrix smooth --help)");
    if (s.sigmaS >= 0 && s.sigmaS < f.leastSigmaS) {
        std::ostringstream text;
        text << "bad value '" << s.sigmaS << "' for --sigma-s (--filter " << f.name
             << " needs at least " << f.leastSigmaS << ")";
        throw UsageError(text.str());
    }
    if (guided && s.radius > kMaxGuidedRadius)
        throw UsageError("bad value '" + std::to_string(s.radius) +
                         "' for --radius (--filter guided needs at most " +
                         std::to_string(kMaxGuidedRadius) + ")");
    if (s.radius < 0) s.radius = f.radius;
    if (s.eps < 0) s.eps = f.eps;
    if (s.sigmaS < 0) s.sigmaS = f.sigmaS;
    if (s.sigmaR < 0) s.sigmaR = f.sigmaR;
    if (s.lambda < 0) s.lambda = f.lambda;
    if (s.alpha < 0) s.alpha = f.alpha;
}

double wlsBytes(int w, int h) {
    double const n = double(w) * h;
    return 8.0 * kWlsFactorPerPixelLog * n * std::log2(std::max(n, 2.0)) + kWlsBytesPerPixel * n;
}

void requireWlsFits(int w, int h, double physicalBytes) {
    if (physicalBytes <= 0)
        physicalBytes = double(sysconf(_SC_PHYS_PAGES)) * double(sysconf(_SC_PAGESIZE));
    double const need = wlsBytes(w, h);
    if (need <= physicalBytes) return;
    std::ostringstream text;
    text.setf(std::ios::fixed);
    text.precision(1);
    text << "the photograph is " << w << " x " << h << " pixels: --filter wls would need about "
         << need / 1e9 << " GB of memory, more than this machine's " << physicalBytes / 1e9
         << " GB (try a smaller copy, or another filter)";
    throw FileError(text.str());
}

void addSmoothOptions(CLI::App &app, SmoothSettings &s) {
    addValue(app, "--filter", "NAME",
             "guided, dt, bilateral, manifold, wls or box (required; see below)",
             [&s](std::string const &v) { readFilter(s, v); })
        ->group("Filter");
    addWhole(app, "--radius", "R",
             "guided: window radius in pixels, 1 .. 200; box: half the box's side, 1 .. 1000",
             s.radius, 1, kMaxBoxRadius)
        ->group("Filter");
    addNumbers(app, "--eps", "E",
               "guided: differences smaller than about E are smoothed, as a fraction of full "
               "scale, 0.001 .. 1",
               &s.eps, 1, 1, 0.001f, 1.0f)
        ->group("Filter");
    addNumbers(app, "--sigma-s", "S", "dt, bilateral, manifold: spatial reach in pixels, 1 .. 1000",
               &s.sigmaS, 1, 1, 1.0f, kMaxSigmaS)
        ->group("Filter");
    addNumbers(app, "--sigma-r", "R",
               "dt, bilateral, manifold: differences smaller than about R are smoothed, as a "
               "fraction of full scale, 0.005 .. 1",
               &s.sigmaR, 1, 1, 0.005f, 1.0f)
        ->group("Filter");
    addNumbers(app, "--lambda", "L", "wls: strength of the smoothing, 0 .. 1000", &s.lambda, 1, 1,
               0.0f, 1000.0f)
        ->group("Filter");
    addNumbers(app, "--alpha", "A",
               "wls: how sharply the smoothing stops at a step of the log luminance, 0.1 .. 4",
               &s.alpha, 1, 1, 0.1f, 4.0f)
        ->group("Filter");
    addValue(app, "--guide", "FILE",
             "a picture of the input's size whose edges the filter follows instead of the "
             "input's own",
             [&s](std::string const &v) { s.guide = v; })
        ->group("What is smoothed");
    addValue(app, "--channels", "y|rgb",
             "y (default): the luminance only, colour kept; rgb: each colour plane",
             [&s](std::string const &v) {
                 if (v != "y" && v != "rgb") badValue("--channels", v, "y or rgb");
                 s.channels = v == "y" ? Channels::y : Channels::rgb;
             })
        ->group("What is smoothed");
    addHalfOption(app, s.half)->group("What is smoothed");
    app.final_callback([&s] { resolveSmooth(s); });
}

Command const smoothCommand =
    commandOf<SmoothSettings>("smooth", "smooth a photograph while keeping its edges", kAbout,
                              kFooter, addSmoothOptions, runSmooth);
