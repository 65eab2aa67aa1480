#include "cli/blend_command.h"

#include <opencv2/imgproc.hpp>

#include "kestrix1/image/blend.h"

namespace {

char const *const kModes[] = {"normal", "darken", "lighten"};

char const kAbout[] =
    "Lays TOP over the photograph INPUT and writes the mix in INPUT's format and bit depth; "
    "INPUT's alpha channel is carried through. TOP must have INPUT's size; its bit depth may "
    "differ.\n"
    "\n"
    "--opacity sets how much of TOP shows (1, the default, all of it). --mask names a grey "
    "picture of the same size, such as one painted with kestrix mask: TOP shows where the mask "
    "is white, not where it is black, and in between in proportion, times --opacity. --mode "
    "darken takes TOP only where it is darker than INPUT, lighten only where it is lighter; "
    "normal takes it everywhere.\n"
    "\n"
    "Each colour channel is mixed on its own, in floating point, and truncated to a whole "
    "level.";

char const kFooter[] =
    "Exit status: 0 done, 1 an image could not be read, does not fit the input or the result "
    "could not be written, 2 the command line is wrong.";

// A picture read for the run, of the input's size, at the input's depth.
cv::Mat readFitting(std::string const &what, std::string const &path, cv::Mat const &input) {
    Photo const p = readPhoto(path);
    if (p.bgr.size() != input.size())
        throw FileError(what + " '" + path + "' is " + std::to_string(p.bgr.cols) + " x " +
                        std::to_string(p.bgr.rows) + " pixels; the input is " +
                        std::to_string(input.cols) + " x " + std::to_string(input.rows));
    if (p.bgr.depth() == input.depth()) return p.bgr;
    cv::Mat out;
    p.bgr.convertTo(out, input.depth(), input.depth() == CV_8U ? 1.0 / 257.0 : 257.0);
    return out;
}

void runBlend(BlendSettings const &s, Job &job) {
    Photo &photo = job.photo();
    cv::Mat const top = readFitting("top", s.top, photo.bgr);
    cv::Mat mask;
    if (!s.mask.empty()) {
        // The mask's grey at 8 bits: the blend reads masks in 255 steps.
        cv::Mat grey;
        cv::cvtColor(readFitting("mask", s.mask, photo.bgr), grey, cv::COLOR_BGR2GRAY);
        grey.convertTo(mask, CV_8U, grey.depth() == CV_8U ? 1.0 : 1.0 / 257.0);
    }

    Stopwatch watch;
    std::vector<cv::Mat> base, over;
    cv::split(photo.bgr, base);
    cv::split(top, over);
    for (std::size_t c = 0; c < base.size(); ++c)
        blendAlpha(base[c], over[c], mask, base[c], s.opacity, s.mode);
    cv::merge(base, photo.bgr);
    job.time("time to blend: ", watch);
    job.finish();
}

}  // namespace

void addBlendOptions(CLI::App &app, BlendSettings &s) {
    app.add_option("TOP", s.top, "the picture laid over INPUT (required)")->type_name("");
    addValue(app, "--mask", "MASK", "a grey picture of the input's size: white shows TOP",
             [&s](std::string const &v) { s.mask = v; })
        ->group("Blend");
    addNumbers(app, "--opacity", "A", "how much of TOP shows, 0 .. 1 (default 1)", &s.opacity, 1, 1,
               0.0f, 1.0f)
        ->group("Blend");
    addValue(app, "--mode", "MODE", "normal (default), darken or lighten",
             [&s](std::string const &v) {
                 for (int m = 0; m < 3; ++m)
                     if (v == kModes[m]) {
                         s.mode = m;
                         return;
                     }
                 badValue("--mode", v, "normal, darken or lighten");
             })
        ->group("Blend");
    app.final_callback([&s] {
        if (s.top.empty())
            throw UsageError(
                "kestrix blend needs TOP, the picture to lay over INPUT (see kestrix "
                "blend --help)");
    });
}

Command const blendCommand =
    commandOf<BlendSettings>("blend", "lay a picture over a photograph, through a mask", kAbout,
                             kFooter, addBlendOptions, runBlend);
