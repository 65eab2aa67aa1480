#include "kestrix1/hist/hist_transfer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/hist/bin_smoothing.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_point.h"
#include "kestrix1/kernels/px_stats.h"

namespace {
constexpr int kBins = 256;
}  // namespace

int HistTransfer::numBins() {
    return kBins;
}

void HistTransfer::computeHist(cv::Mat &image, int lower, int upper, int **const hist) {
    if (image.empty() || image.channels() != 3) return;
    int const nLevels[3] = {kBins + 1, kBins + 1, kBins + 1};
    int const lo[3] = {lower, lower, lower}, hi[3] = {upper + 1, upper + 1, upper + 1};
    IppiSize const size{image.cols, image.rows};
    int const step = int(image.step);
    if (image.depth() == CV_16U)
        pxHistogramEven(image.ptr<std::uint16_t>(), step, size, hist, nLevels, lo, hi);
    else if (image.depth() == CV_16S)
        pxHistogramEven(image.ptr<std::int16_t>(), step, size, hist, nLevels, lo, hi);
    else
        return;
    parallelRows(3, [&](int c) {
        int counts[kBins];
        std::copy(hist[c], hist[c] + kBins, counts);
        kxSmoothBins3(counts, hist[c], kBins);
    });
}

void HistTransfer::filterHist(int *bins, int n, float sigma) {
    float const s = float(double(sigma) * 0.25 * n), r = 3.0f * s;
    if (n <= 0 || !(r >= 1.0f)) return;  // R = (int)(3 s) is 0 or less, or sigma not a number
    kxGaussianBins(bins, n, s, r >= float(n) ? n : int(r));
}

int HistTransfer::clipLevel(float x, float level, float share) {
    return kxClipLevel(x, level, share, 0.00390625f);
}

void HistTransfer::transfer1D(int *from, int *to, int fromLower, int fromUpper, short *table,
                              int toLower, int toUpper, float sigma) {
    int *const source[2] = {from, to};
    // Each histogram is capped where colour transfer caps its own: clipLevel at 0.2 with the
    // histogram's total as the level and the smaller of the two peak shares as the share.
    double total[2] = {0, 0}, peak[2] = {0, 0};
    for (int k = 0; k < 2; ++k)
        for (int i = 0; i < kBins; ++i) {
            total[k] += source[k][i];
            peak[k] = std::max(peak[k], double(source[k][i]));
        }
    double share = 1.0;
    for (int k = 0; k < 2; ++k)
        if (total[k] > 0) share = std::min(share, peak[k] / total[k]);
    double cum[2][kBins + 1];
    for (int k = 0; k < 2; ++k) {
        int const cap = total[k] > 0 ? clipLevel(0.2f, float(total[k]), float(share)) : 0;
        std::vector<int> clipped(source[k], source[k] + kBins);
        for (int &v : clipped)
            v = std::min(v, cap);
        if (sigma > 0.01f) filterHist(clipped.data(), kBins, sigma);
        kxCumulateBins(clipped.data(), kBins, cum[k], 0);
    }
    double const *cs = cum[0], *ct = cum[1];
    // Bin i's pixels are taken to sit at its lower level, so the share at or below level i
    // is c[i + 1], and the target's c[k] stands at position k - 1: equal histograms then give
    // the identity. Both lists rise, so one forward walk finds every position.
    double const fromStep = (double(fromUpper) + 1 - fromLower) / kBins;
    double const toStep = (double(toUpper) + 1 - toLower) / kBins;
    int levels[kBins + 2], values[kBins + 2];
    levels[0] = fromLower;
    values[0] = toLower;
    int k = 0;
    for (int i = 0; i < kBins; ++i) {
        double const c = cs[i + 1];
        while (k + 1 < kBins && ct[k + 1] <= c)
            ++k;
        // The walk stops where ct[k] <= c < ct[k + 1], or at the last interval, beyond which
        // p is extrapolated and then kept within the bins.
        double p = (k - 1) + (c - ct[k]) / (ct[k + 1] - ct[k]);
        p = std::clamp(p, 0.0, double(kBins - 1));
        levels[i + 1] = fromLower + int(std::floor(i * fromStep));
        values[i + 1] = int(std::floor(toLower + toStep * p));
    }
    // The closing pair one past both ranges, so that fromUpper itself is interpolated.
    levels[kBins + 1] = fromUpper + 1;
    values[kBins + 1] = toUpper + 1;
    // Written out over every signed value by the table primitive: values outside
    // fromLower .. fromUpper map to themselves.
    std::vector<std::int16_t> ramp(65536);
    for (int v = 0; v < 65536; ++v)
        ramp[v] = std::int16_t(v - 32768);
    pxLutLinear(ramp.data(), 65536 * 2, reinterpret_cast<std::int16_t *>(table), 65536 * 2,
                {65536, 1}, values, levels, kBins + 2);
}
