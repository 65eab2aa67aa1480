#include "cli/hist_command.h"

#include <cerrno>
#include <cstdlib>

#include "kestrix1/hist/t_hist_draw.h"
#include "kestrix1/image/tp_image.h"

namespace {

constexpr int kLeast = 16, kMost = 8192;

char const kAbout[] =
    "Draws the histograms of a photograph's red, green and blue as filled columns, 256 bins "
    "spread over the picture's width, and writes the picture as an 8-bit PNG (hist.png by "
    "default). Reads an 8- or 16-bit PNG, TIFF or JPEG; 16 bits are counted at 8.\n"
    "\n"
    "One scale serves the three channels, so that their heights compare: the smaller of a "
    "channel's highest bin and four times its mean bin, the largest of the three, reaches the "
    "top. A tall spike runs off the top instead of flattening the rest, and a burnt-out last "
    "bin is lowered for the same reason. The background is dark grey; where two channels "
    "overlap they show as yellow, cyan or magenta, and all three as light grey.\n"
    "\n"
    "With no INPUT the sample photograph built into kestrix is used.";

char const kFooter[] =
    "Exit status: 0 done, 1 the image could not be read or the picture not written, 2 the "
    "command line is wrong.";

void runHist(HistSettings const &s, Job &job) {
    TPImage image;
    job.fill(image);
    Stopwatch watch;
    THistDraw draw;
    draw.setHistSize(s.width, s.height);
    cv::Mat picture;
    draw.getHistMat(picture, image);
    job.time("time to draw the histograms: ", watch);
    Photo &photo = job.photo();
    photo.bgr = picture;
    photo.alpha.release();
    photo.grey = false;
    photo.format = ImageFormat::png;
    job.finish();
}

}  // namespace

void readHistSize(HistSettings &s, std::string const &value) {
    char const *text = value.c_str();
    char *end = nullptr;
    long size[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        errno = 0;
        size[i] = *text >= '0' && *text <= '9' ? std::strtol(text, &end, 10) : 0;
        bool const ok =
            size[i] >= kLeast && size[i] <= kMost && errno == 0 && *end == (i == 0 ? 'x' : '\0');
        if (!ok)
            badValue("--size", value,
                     "WxH with W and H whole numbers from " + std::to_string(kLeast) + " to " +
                         std::to_string(kMost));
        text = end + 1;
    }
    s.width = int(size[0]);
    s.height = int(size[1]);
}

void addHistOptions(CLI::App &app, HistSettings &s) {
    addValue(app, "--size", "WxH", "the picture's width and height in pixels (default 512x200)",
             [&s](std::string const &v) { readHistSize(s, v); })
        ->group("Picture");
}

Command const histCommand = [] {
    Command c = commandOf<HistSettings>("hist", "draw the colour histograms of a photograph",
                                        kAbout, kFooter, addHistOptions, runHist);
    c.outputFormat = ImageFormat::png;
    return c;
}();
