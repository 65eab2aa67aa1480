#include "kestrix1/filters/conv_pyr.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"

namespace {

// Rows of output per band. A band filters its rows plus the kernel's reach above and below
// again, so bands are tall enough for that to be a few percent, and short enough that a
// band's scratch is still in the cache when the next step reads it.
constexpr int kBandRows = 64;

// Levels below this many pixels run on the calling thread: the small levels of a pyramid
// together cost less than waking the team for each of them, above all on a busy machine.
constexpr std::int64_t kMinParallelPixels = 1 << 20;

// The one filter of the pyramid: the same kernel along rows and columns, centred, no delta,
// zeros outside (a view sees its parent's pixels there, as OpenCV does for any view).
//
// Filtering a band of rows gives those rows of the whole-plane filter bit for bit: OpenCV
// computes each output row from the rows within the kernel's reach in the same order whatever
// band it is given, and a band that is a view reads its parent's rows above and below as the
// whole plane would. Only rows past the parent's ends are the border.
void filter(cv::Mat const &src, cv::Mat &dst, cv::Mat const &k) {
    cv::sepFilter2D(src, dst, CV_32F, k, k, cv::Point(-1, -1), 0.0, cv::BORDER_CONSTANT);
}

bool isKernel(cv::Mat const &k) {
    return k.type() == CV_32FC1 && !k.empty() && (k.rows == 1 || k.cols == 1);
}

// Whether two planes may share pixels (conservatively: whether they share an allocation).
bool overlaps(cv::Mat const &a, cv::Mat const &b) {
    return !a.empty() && !b.empty() && a.datastart < b.dataend && b.datastart < a.dataend;
}

std::int64_t workOf(cv::Mat const &plane, cv::Mat const &k) {
    std::int64_t const pixels = std::int64_t(plane.total());
    return pixels < kMinParallelPixels ? 0 : pixels * std::int64_t(k.total());
}

}  // namespace

ConvPyr::ConvPyr(cv::Mat const &kernelDown, cv::Mat const &kernelUp, cv::Mat const &kernelLevel)
    : kernelDown(kernelDown), kernelUp(kernelUp), kernelLevel(kernelLevel) {}

ConvPyr::ConvPyr(ConvPyr const &other) = default;

ConvPyr &ConvPyr::operator=(ConvPyr const &other) = default;

ConvPyr::~ConvPyr() = default;

bool ConvPyr::proc(cv::Mat const &in, cv::Mat &out) {
    if (in.empty()) return true;
    kxRequire(in.type() == CV_32FC1, "ERROR - ConvPyr::proc - in.type()!=CV_32FC1");
    kxRequire(isKernel(kernelDown), "ERROR - ConvPyr::proc - kernelDown is not a CV_32FC1 vector");
    kxRequire(isKernel(kernelUp), "ERROR - ConvPyr::proc - kernelUp is not a CV_32FC1 vector");
    kxRequire(isKernel(kernelLevel),
              "ERROR - ConvPyr::proc - kernelLevel is not a CV_32FC1 vector");

    int levels = 1;  // floor(log2(m)) + 1, or 1 for m <= 1
    for (int m = std::max(in.rows, in.cols); m > 1; m >>= 1)
        ++levels;

    std::vector<cv::Mat> down(levels), up(levels);
    down[0] = in;
    for (int i = 1; i < levels; ++i)
        pyrDown(down[i - 1], down[i]);
    filter(down[levels - 1], up[levels - 1], kernelLevel);
    for (int i = levels - 2; i >= 1; --i) {
        pyrUp(up[i + 1], down[i], up[i]);
        up[i + 1].release();  // a level is let go as soon as the next finer one is made
        down[i].release();
    }
    // The finest level goes straight into out, unless out holds pixels that it still reads.
    if (levels == 1 || overlaps(in, out)) {
        if (levels > 1) pyrUp(up[1], in, up[0]);
        up[0].copyTo(out);
    } else {
        pyrUp(up[1], in, out);
    }
    return true;
}

bool ConvPyr::pyrDown(cv::Mat const &in, cv::Mat &out) {
    cv::Mat result = overlaps(in, out) ? cv::Mat() : out;
    result.create((in.rows + 1) / 2, (in.cols + 1) / 2, CV_32F);
    int const bandRows = std::min(2 * kBandRows, in.rows);
    // Each band of output rows filters only the input rows from its first even row to its
    // last one, into scratch that holds one band of the filtered plane.
    parallelChunks(
        result.rows, kBandRows, workOf(in, kernelDown),
        [&] { return cv::Mat(bandRows, in.cols, CV_32F); },
        [&](cv::Mat &scratch, int y0, int y1) {
            int const r0 = 2 * y0, r1 = std::min(in.rows, 2 * y1 - 1);
            cv::Mat t = scratch.rowRange(0, r1 - r0);
            filter(in.rowRange(r0, r1), t, kernelDown);
            for (int y = y0; y < y1; ++y) {
                float const *s = t.ptr<float>(2 * (y - y0));
                float *d = result.ptr<float>(y);
                for (int x = 0; x < result.cols; ++x)
                    d[x] = s[2 * x];
            }
        });
    out = result;
    return true;
}

bool ConvPyr::pyrUp(cv::Mat const &coarse, cv::Mat const &fine, cv::Mat &out) {
    cv::Mat result = overlaps(fine, out) || overlaps(coarse, out) ? cv::Mat() : out;
    result.create(fine.size(), CV_32F);
    int const rows = fine.rows, cols = fine.cols;
    // Rows of the zero-filled plane that a band of output rows reads, beyond the band itself.
    int const reach = int(kernelUp.total()) - 1;
    int const sampleRows = std::min(coarse.rows, (rows + 1) / 2);
    int const sampleCols = std::min(coarse.cols, (cols + 1) / 2);
    struct Scratch {
        cv::Mat z, zf;
    };
    // Each band rebuilds the zero-filled plane over its rows and its reach, in scratch whose
    // rows past the plane's end stay zero, as the border of the whole plane would be.
    parallelChunks(
        rows, kBandRows, workOf(fine, kernelUp) + workOf(fine, kernelLevel),
        [&] {
            int const band = std::min(kBandRows, rows);
            return Scratch{cv::Mat(band + 2 * reach, cols, CV_32F), cv::Mat(band, cols, CV_32F)};
        },
        [&](Scratch &s, int y0, int y1) {
            int const za = std::max(0, y0 - reach);
            for (int r = 0; r < s.z.rows; ++r) {
                int const zy = za + r;
                float *d = s.z.ptr<float>(r);
                std::memset(d, 0, sizeof(float) * size_t(cols));
                if (zy >= rows || zy % 2 != 0 || zy / 2 >= sampleRows) continue;
                float const *c = coarse.ptr<float>(zy / 2);
                for (int x = 0; x < sampleCols; ++x)
                    d[2 * x] = c[x];
            }
            cv::Mat zf = s.zf.rowRange(0, y1 - y0);
            cv::Mat ob = result.rowRange(y0, y1);
            filter(s.z.rowRange(y0 - za, y1 - za), zf, kernelUp);
            filter(fine.rowRange(y0, y1), ob, kernelLevel);
            cv::add(zf, ob, ob);
        });
    out = result;
    return true;
}
