// LumTransfer and Normalization on the 24-megapixel photograph.
//
// LumTransfer::proc, two rounds, with the same photograph turned upside down and made darker
// (gamma 1.4) as the reference, beside a peer that makes the same rounds of plain OpenCV
// calls and OpenMP loops: the detail plane by cv::pyrDown and cv::pyrUp, cumulative
// histograms by cv::calcHist, the curve by the same forward search, a local Laplacian
// filter with 16 reference levels built of float pyramids (cv::pyrDown, cv::pyrUp and
// cv::subtract, one reference at a time, blended where the input's Gaussian pyramid lies
// between two references) and the tone table as a 65536-entry look-up. The peer is not
// bit-exact with the library; it does the same amount of work the plain way.
//
// Normalization::normalizeDBDR on four full-size planes beside a plain one-thread loop of
// the same formula in double precision.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/hist/hist_match.h"
#include "kestrix1/hist/lum_transfer.h"
#include "kestrix1/hist/normalization.h"

namespace {

using cv::Mat;
using kxbench::inputs;
using kxbench::Op;
using u16 = std::uint16_t;

// The library's filter prints timing lines each round; the benchmark keeps them quiet.
struct QuietCout {
    std::ostringstream sink;
    std::streambuf *saved = std::cout.rdbuf(sink.rdbuf());
    ~QuietCout() { std::cout.rdbuf(saved); }
};

Mat const &reference() {
    static Mat const made = [] {
        Mat f, r;
        cv::flip(inputs().y16, f, 0);
        f.convertTo(f, CV_32F, 1.0 / 65535.0);
        cv::pow(f, 1.4, f);
        f.convertTo(r, CV_16U, 65535.0);
        return r;
    }();
    return made;
}

// ---- the peer ---------------------------------------------------------------------------

Mat cdfOf(Mat const &plane) {
    Mat h, c(256, 1, CV_32F);
    int const channel = 0, bins = 256;
    float const range[] = {0.0f, 65535.0f};
    float const *ranges[] = {range};
    cv::calcHist(&plane, 1, &channel, Mat(), h, 1, &bins, ranges);
    float sum = 0;
    for (int i = 0; i < 256; ++i)
        c.at<float>(i) = sum += h.at<float>(i);
    cv::normalize(c, c, 0, 1, cv::NORM_MINMAX);
    return c;
}

Mat detailCdfOf(Mat const &plane) {
    Mat half, up, d;
    cv::pyrDown(plane, half);
    cv::pyrUp(half, up, plane.size());
    cv::subtract(plane, up, d, cv::noArray(), CV_32S);
    d.convertTo(d, CV_16U, 1.0, 32768.0);
    return cdfOf(d);
}

std::vector<float> matchOf(Mat const &from, Mat const &to) {
    std::vector<float> curve(256);
    for (int i = 0, j = 0; i < 256; ++i) {
        float const c = from.at<float>(i);
        while (j < 256 && !(std::fabs(to.at<float>(j) - c) < 1e-10 || to.at<float>(j) > c))
            ++j;
        curve[i] = j < 256 || i == 0 ? j / 256.0f : curve[i - 1];
    }
    return curve;
}

// Piecewise-linear 65536-entry table through (i 65535 / 256, y(i)), identity above.
std::vector<float> tableOf(std::vector<float> const &curve, float (*y)(float, int)) {
    std::vector<float> t(65536);
    for (int v = 0; v < 65536; ++v) {
        int const k = std::min(254, v * 256 / 65535);
        float const l0 = k * 65535.0f / 256, l1 = (k + 1) * 65535.0f / 256;
        t[v] = v >= 65279 ? float(v)
                          : y(curve[k], k) +
                                (v - l0) * (y(curve[k + 1], k + 1) - y(curve[k], k)) / (l1 - l0);
    }
    return t;
}

void apply(std::vector<float> const &t, Mat const &in, Mat &out) {
#pragma omp parallel for schedule(static)
    for (int r = 0; r < in.rows; ++r)
        for (int c = 0; c < in.cols; ++c)
            out.at<float>(r, c) = t[in.at<u16>(r, c)];
}

// Local Laplacian filter with n references of the remap table d(x - g).
void localLaplacian(Mat const &x, std::vector<float> const &diff, Mat &out16) {
    int const n = 16, levels = int(std::log2(std::min(x.rows, x.cols)));
    std::vector<Mat> G(levels + 1), L(levels + 1), R(levels + 1);
    x.convertTo(G[0], CV_32F);
    for (int l = 1; l <= levels; ++l)
        cv::pyrDown(G[l - 1], G[l]);
    for (int l = 0; l <= levels; ++l)
        L[l] = Mat::zeros(G[l].size(), CV_32F);
    float const step = 65535.0f / n;
    Mat up;
    for (int j = 0; j < n; ++j) {
        float const g = j * step;
        std::vector<float> t(65536);
        for (int v = 0; v < 65536; ++v)
            t[v] = std::clamp(v + diff[std::clamp(int((v - g) / 2 + 32768), 0, 65535)], 0.0f,
                              65535.0f);
        R[0].create(x.size(), CV_32F);
        apply(t, x, R[0]);
        for (int l = 0; l < levels; ++l) {
            cv::pyrDown(R[l], R[l + 1]);
            cv::pyrUp(R[l + 1], up, R[l].size());
            cv::subtract(R[l], up, R[l]);
#pragma omp parallel for schedule(static)
            for (int r = 0; r < R[l].rows; ++r)
                for (int c = 0; c < R[l].cols; ++c) {
                    float const f = G[l].at<float>(r, c) / step;
                    int const k = std::min(int(f), n - 2);
                    if (k == j) L[l].at<float>(r, c) += (1 - (f - k)) * R[l].at<float>(r, c);
                    if (k == j - 1) L[l].at<float>(r, c) += (f - k) * R[l].at<float>(r, c);
                }
        }
    }
    Mat cur = G[levels];
    for (int l = levels - 1; l >= 0; --l) {
        cv::pyrUp(cur, up, L[l].size());
        cur = up + L[l];
    }
    cur.convertTo(out16, CV_16U);
}

Op peerOp() {
    auto x = std::make_shared<Mat>(), out = std::make_shared<Mat>();
    auto work = std::make_shared<Mat>(inputs().y16.size(), CV_32F);
    Mat const ref = reference(), targetDetail = detailCdfOf(ref), target = cdfOf(ref);
    return [=] {
        inputs().y16.copyTo(*x);
        for (int round = 0; round < 2; ++round) {
            // The detail curve as a table of added differences, as the library's filter.
            std::vector<float> const diff =
                tableOf(matchOf(detailCdfOf(*x), targetDetail),
                        [](float c, int i) { return 2 * ((c - i / 255.0f) * 32767.0f); });
            localLaplacian(*x, diff, *out);
            std::vector<float> const tone =
                tableOf(matchOf(cdfOf(*out), target), [](float c, int) { return c * 65535.0f; });
            apply(tone, *out, *work);
            work->convertTo(*x, CV_16U);
        }
        x->copyTo(*out);
    };
}

// ---- kestrix1 ---------------------------------------------------------------------------

Op lumOp() {
    auto lt = std::make_shared<LumTransfer>();
    lt->setup(reference(), 2);
    auto out = std::make_shared<Mat>(inputs().y16.size(), CV_16UC1);
    return [=] {
        QuietCout quiet;
        lt->proc(inputs().y16, *out);
    };
}

struct Planes {
    Mat a, b, db, dr;
    Planes() {
        a = inputs().y16;
        b = reference();
        cv::flip(a, db, 1);
        cv::flip(b, dr, 1);
    }
};

Op normalizeOp() {
    auto p = std::make_shared<Planes>();
    return [=] { Normalization::normalizeDBDR(p->a, p->b, p->db, p->dr, 0.9f); };
}

Op normalizePlainOp() {
    auto p = std::make_shared<Planes>();
    return [=] {
        double const strength = 0.9f;
        for (int y = 0; y < p->a.rows; ++y)
            for (int x = 0; x < p->a.cols; ++x) {
                double const q = std::clamp(
                    (p->a.at<u16>(y, x) + 1024.0) / (p->b.at<u16>(y, x) + 1025.0), 0.5, 4.0);
                double const w = q * strength;
                for (Mat *d : {&p->db, &p->dr}) {
                    double const v = std::nearbyint(d->at<u16>(y, x) * w + (1 - w) * 32769.0);
                    d->at<u16>(y, x) = u16(std::clamp(v, 0.0, 65535.0));
                }
            }
    };
}

int const registered = [] {
    std::int64_t const px = 6000LL * 4000;
    kxbench::add("LumTransfer_proc_2rounds", "kestrix1", lumOp, 2 * 2 * px);
    kxbench::add("LumTransfer_proc_2rounds", "opencv", peerOp, 2 * 2 * px);
    kxbench::add("Normalization_normalizeDBDR", "kestrix1", normalizeOp, 12 * px);
    kxbench::add("Normalization_normalizeDBDR", "scalar", normalizePlainOp, 12 * px);
    return 0;
}();

}  // namespace
