#include "cli/detail_command.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <opencv2/imgproc.hpp>

#include "cli/decompose.h"
#include "cli/image_file.h"
#include "kestrix1/effects/t_details3.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/tp_image.h"

namespace fs = std::filesystem;

namespace {

// A one-line bar on stderr, redrawn in place whenever the whole percentage moves.
struct ProgressBar {
    bool shown = false;
    int percent = -1;

    static bool report(int thousandths, void *user) {
        auto *bar = static_cast<ProgressBar *>(user);
        int const p = std::min(100, std::max(0, thousandths / 10));
        if (bar->shown && p != bar->percent) {
            char line[40];
            int const filled = p * 30 / 100;
            for (int i = 0; i < 30; ++i)
                line[i] = i < filled ? '#' : '.';
            line[30] = '\0';
            std::fprintf(stderr, "\rkestrix: [%s] %3d%%", line, p);
            std::fflush(stderr);
        }
        bar->percent = p;
        return true;
    }

    void finish() {
        if (shown && percent >= 0) std::fputs("\n", stderr);
    }
};

struct Stopwatch {
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
};

void printTime(bool on, char const *label, Stopwatch const &watch) {
    if (on) std::printf("%s%.3f s\n", label, watch.seconds());
}

// Fills the working image through the library's own host-buffer conversions: packed 8-bit
// blue, green, red, unused, or planar 16-bit red, green, blue.
void fillImage(cv::Mat const &bgr, TPImage &image) {
    if (bgr.depth() == CV_8U) {
        cv::Mat bgra;
        cv::cvtColor(bgr, bgra, cv::COLOR_BGR2BGRA);
        image.convertFrom(bgra.ptr<unsigned char>(), bgra.cols, bgra.rows, int(bgra.step));
    } else {
        cv::Mat planes[3];
        cv::split(bgr, planes);
        unsigned short *rgb[3] = {planes[2].ptr<unsigned short>(), planes[1].ptr<unsigned short>(),
                                  planes[0].ptr<unsigned short>()};
        image.convertFrompRGB(rgb, bgr.cols, bgr.rows, int(planes[0].step));
    }
}

// The way back, at the depth of the input.
cv::Mat readImage(TPImage const &image, int depth) {
    cv::Mat bgr;
    if (depth == CV_8U) {
        cv::Mat bgra(image.height(), image.width(), CV_8UC4);
        image.convertTo(bgra.ptr<unsigned char>(), int(bgra.step));
        cv::cvtColor(bgra, bgr, cv::COLOR_BGRA2BGR);
    } else {
        cv::Mat planes[3];
        for (cv::Mat &p : planes)
            p.create(image.height(), image.width(), CV_16UC1);
        unsigned short *rgb[3] = {planes[2].ptr<unsigned short>(), planes[1].ptr<unsigned short>(),
                                  planes[0].ptr<unsigned short>()};
        image.convertTopRGB(rgb, int(planes[0].step));
        cv::merge(planes, 3, bgr);
    }
    return bgr;
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

std::string resolveOutput(DetailOptions const &options, std::string const &input,
                          ImageFormat format) {
    std::string output = options.output;
    if (output.empty()) {
        output = std::string("detail") + formatExtension(format);
    } else {
        ImageFormat named;
        if (!formatFromExtension(output, named) || named != format)
            throw UsageError("output '" + output + "' must be a " + formatName(format) +
                             " file like the input (extension " + formatExtension(format) + ")");
    }
    if (sameFile(output, input))
        throw UsageError("output '" + output + "' is the input file; choose another with -o");
    return output;
}

}  // namespace

std::string defaultPhotoPath() {
    std::error_code ec;
    fs::path const built(KESTRIX_DEFAULT_PHOTO);
    if (fs::is_regular_file(built, ec)) return built.string();
    fs::path const self = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        fs::path const installed =
            self.parent_path().parent_path() / "share" / "kestrix1" / built.filename();
        if (fs::is_regular_file(installed, ec)) return installed.string();
    }
    return {};
}

void runDetail(DetailOptions const &options) {
    std::string input = options.input;
    if (input.empty()) {
        input = defaultPhotoPath();
        if (input.empty())
            throw FileError("no INPUT given and the sample photograph is not installed");
    }
    Photo photo = readPhoto(input);
    std::string const output = resolveOutput(options, input, photo.format);

    int const rows = photo.bgr.rows;
    int const cols = photo.bgr.cols;
    cv::Rect region(0, 0, cols, rows);
    cv::Size result(cols, rows);
    if (options.hasRoi() || options.scale != 1) {
        int const x = options.hasRoi() ? options.roiX : 0;
        int const y = options.hasRoi() ? options.roiY : 0;
        int const w = options.hasRoi() ? options.roiW : cols;
        int const h = options.hasRoi() ? options.roiH : rows;
        // A region reaching past the image is cut at its edge, in whole result pixels.
        int const rw = x < cols ? std::min(w, (cols - x) / options.scale) : 0;
        int const rh = y < rows ? std::min(h, (rows - y) / options.scale) : 0;
        if ((rw < 1 || rh < 1) && !options.hasRoi())
            throw UsageError("--scale " + std::to_string(options.scale) +
                             " leaves nothing of the " + std::to_string(cols) + " x " +
                             std::to_string(rows) + " image");
        if (rw < 1 || rh < 1)
            throw UsageError("the region " + std::to_string(x) + "," + std::to_string(y) + "," +
                             std::to_string(w) + "," + std::to_string(h) + " at scale " +
                             std::to_string(options.scale) + " lies outside the " +
                             std::to_string(cols) + " x " + std::to_string(rows) + " image");
        region = cv::Rect(x, y, rw * options.scale, rh * options.scale);
        result = cv::Size(rw, rh);
    }
    int const procScale = options.scale;

    ProgressBar bar;
    bar.shown = !options.quiet && ::isatty(STDERR_FILENO);
    TProgress progress(&ProgressBar::report, &bar);
    struct BarEnd {
        ProgressBar &bar;
        ~BarEnd() { bar.finish(); }
    } barEnd{bar};

    TPImage image;
    fillImage(photo.bgr, image);

    // The split takes the first third of the bar, the effect's setup the rest.
    Stopwatch watch;
    DetailPlanes planes;
    progress.start(0.3f);
    if (!decompose(image.m_Y, planes, &progress)) throw FileError("cancelled");
    progress.end();
    printTime(options.time, "time to decompose: ", watch);

    TDetails3 effect;
    watch = Stopwatch();
    progress.start(0.7f);
    if (!effect.setup(planes.base, planes.detail[0], planes.detail[1], planes.detail[2], image.m_Dr,
                      image.m_Db, &progress))
        throw FileError("cancelled");
    progress.end();
    printTime(options.time, "time to setup: ", watch);

    for (int n = 0; n < 3; ++n) {
        for (int k = 0; k < 3; ++k) {
            effect.detailAmount[n][k] = options.amount[n][k];
            effect.detailThreshold[n][k] = options.threshold[n][k];
        }
    }
    std::copy(options.light, options.light + 6, effect.lightParam);
    std::copy(options.colorMix, options.colorMix + 3, effect.colorMix);
    effect.baseDirty = true;
    std::fill(effect.levelDirty, effect.levelDirty + 3, true);

    cv::Rect_<int> const roi(region.x, region.y, result.width, result.height);
    watch = Stopwatch();
    effect.proc(roi, procScale, cv::Mat());
    printTime(options.time, "time to proc: ", watch);
    if (options.time) {
        // What a slider on one level costs once the rest is cached; the result is the same.
        effect.levelDirty[0] = true;
        watch = Stopwatch();
        effect.proc(roi, procScale, cv::Mat());
        printTime(true, "time to proc after a change of the fine level: ", watch);
        watch = Stopwatch();
        effect.proc(roi, procScale, cv::Mat());
        printTime(true, "time to proc with nothing changed: ", watch);
    }

    cv::Mat const &y = effect.getRoiY();
    if (region.size() == image.m_Y.size()) {
        image.m_Y = y;
    } else {
        TPImage part(result.width, result.height);
        part.m_Y = y;
        part.m_Dr = chromaOfRegion(image.m_Dr, region, result);
        part.m_Db = chromaOfRegion(image.m_Db, region, result);
        image = part;
        if (!photo.alpha.empty())
            photo.alpha = TPImage::MatRoi(photo.alpha, region.x, region.y, result.width,
                                          result.height, procScale, false, false);
    }
    photo.bgr = readImage(image, photo.bgr.depth());
    progress.done();
    writePhoto(output, photo);
}
