#include "cli/decompose.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/t_progress.h"

namespace {

// Rounds the smoothed plane `smooth` to 16 bits with the parity of `finer`, writes it to
// `coarser`, and the halved difference finer - coarser (+ 32768) to `detail`. The parity
// step moves towards `finer`, so it never leaves 0..65535, and |finer - coarser| <= 65534
// after it keeps the detail inside 1..65535.
void splitStep(cv::Mat const &finer, cv::Mat const &smooth, cv::Mat &coarser, cv::Mat &detail) {
    int const rows = finer.rows;
    int const cols = finer.cols;
    for (int y = 0; y < rows; ++y) {
        std::uint16_t const *f = finer.ptr<std::uint16_t>(y);
        float const *s = smooth.ptr<float>(y);
        std::uint16_t *c = coarser.ptr<std::uint16_t>(y);
        std::uint16_t *d = detail.ptr<std::uint16_t>(y);
        for (int x = 0; x < cols; ++x) {
            int q = int(std::lrint(std::min(65535.0f, std::max(0.0f, s[x]))));
            int const fv = f[x];
            if ((q ^ fv) & 1) q += q < fv ? 1 : -1;
            c[x] = std::uint16_t(q);
            d[x] = std::uint16_t((fv - q) / 2 + 32768);
        }
    }
}

}  // namespace

float decompositionSigmaS(int k, int rows, int cols) {
    static float const base[3] = {2.0f, 8.0f, 32.0f};
    double const size = std::max(1.0, (rows + cols) / 1024.0);
    return float(base[k] * std::sqrt(size));
}

float decompositionSigmaR(int k) {
    static float const fraction[3] = {0.25f, 0.15f, 0.10f};
    return fraction[k] * 65535.0f;
}

bool decompose(cv::Mat const &y, DetailPlanes &out, TProgress *progress) {
    CV_Assert(y.type() == CV_16UC1);
    cv::Mat finer = y;
    cv::Mat smooth;
    y.convertTo(smooth, CV_32F);
    DTFilter filter;
    for (int k = 0; k < 3; ++k) {
        filter.setup(decompositionSigmaS(k, y.rows, y.cols), decompositionSigmaR(k), 3,
                     DTFilter::L1);
        // In place: each step smooths the result of the one before.
        filter.proc(smooth, smooth, 0);
        cv::Mat coarser(y.size(), CV_16UC1);
        out.detail[k].create(y.size(), CV_16UC1);
        splitStep(finer, smooth, coarser, out.detail[k]);
        finer = coarser;
        if (progress && !progress->prog(k + 1, 3)) return false;
    }
    out.base = finer;
    return true;
}
