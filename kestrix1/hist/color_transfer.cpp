#include "kestrix1/hist/color_transfer.h"

#include <algorithm>

#include "kestrix1/hist/rotation_rounds.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_point.h"

using cv::Mat;

namespace {

constexpr int kCurve = ColorTransfer::kPoints;

// The truncation of a clip value, held inside the range of int.
float truncated(float v) {
    if (!(v == v)) return 0.0f;
    if (v >= 2147483647.0f) return 2147483647.0f;
    if (v <= -2147483648.0f) return -2147483648.0f;
    return float(int(v));
}

}  // namespace

ColorTransfer::ColorTransfer() : curves_(std::size_t(2) * 12 * 3 * kCurve, 0) {
    pointCurves();
}

ColorTransfer::ColorTransfer(ColorTransfer const &other)
    : current(other.current), target(other.target), curves_(other.curves_) {
    pointCurves();
}

ColorTransfer &ColorTransfer::operator=(ColorTransfer const &other) {
    if (this != &other) {
        current = other.current;
        target = other.target;
        curves_ = other.curves_;
        pointCurves();
    }
    return *this;
}

ColorTransfer::~ColorTransfer() = default;

void ColorTransfer::pointCurves() {
    for (int r = 0; r < 12; ++r) {
        for (int c = 0; c < 3; ++c) {
            values[r][c] = curves_.data() + std::size_t((r * 3 + c) * 2) * kCurve;
            levels[r][c] = values[r][c] + kCurve;
        }
    }
}

bool ColorTransfer::updateF(MHist const &reference, MHist const &image) {
    target = reference;
    current = image;
    return true;
}

bool ColorTransfer::proc(std::vector<Mat> const &in, std::vector<Mat> &out) {
    if (in.empty() || in[0].empty()) return true;
    CV_Assert(in.size() == 3);
    for (Mat const &p : in)
        CV_Assert(p.type() == CV_16UC1 && p.size() == in[0].size());
    // Checked here: transfer1D runs in a parallel loop, which no exception may leave.
    CV_Assert(kxHistUsable(target, 11));
    int const rows = in[0].rows, cols = in[0].cols;
    work_.create(rows, cols, CV_16SC3);
    Mat &work = work_;
    std::vector<int> counts(3 * kxHistBins);
    std::vector<std::int16_t> tables(3 * 65536);
    std::int16_t const *const tablePtrs[3] = {tables.data(), tables.data() + 65536,
                                              tables.data() + 2 * 65536};
    kxTurnFirst(in, &MHist::gR[0][0][0], work, counts.data());
    for (int r = 0; r < 12; ++r) {
        kxStoreCounts(current, r, counts.data(), double(rows) * cols);
        if (r == 0) {
            float const t1 = current.TotalPixels, h1 = current.HistMax;
            float const t2 = target.TotalPixels, h2 = target.HistMax;
            float const m = std::min(h2 / t2, h1 / t1) * 0.59717166f;
            current.clipValue = truncated(0.0014648438f * t1 * 0.40282834f + t1 * m);
            target.clipValue = truncated(0.0014648438f * t2 * 0.40282834f + m * t2);
        }
        parallelRows(3, [&](int c) {
            current.transfer1D(target, values[r][c], levels[r][c], 0.25f, r, c);
            pxLutLinearTable(values[r][c], levels[r][c], kCurve, tables.data() + c * 65536);
        });
        if (r < 11)
            kxTurnNext(work, tablePtrs, &MHist::gRinv[r][0][0], &MHist::gR[r + 1][0][0],
                       counts.data());
        else
            kxTurnLast(work, tablePtrs, &MHist::gRinv[r][0][0], out);
    }
    return true;
}
