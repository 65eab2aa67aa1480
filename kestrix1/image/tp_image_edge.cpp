// TPImage: edge planes and the rebuilding of full-size planes from half-size results.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>

#include "kestrix1/frame/errors.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_filter.h"

namespace {

// The library's own storage for the two tables. The pointers below are constant-initialised
// to it, so they are valid before any code runs, and the filler further down computes the
// contents while the library is loaded.
unsigned char g_fullToEdge[65536];
unsigned short g_edgeToFull[256];

}  // namespace

unsigned char *TPImage::m_lutFullToEdge_p = g_fullToEdge;
unsigned short *TPImage::m_lutEdgeToFull_p = g_edgeToFull;

namespace {

struct TableFiller : TPImage {
    static int fill() {
        computeLUT();
        return 1;
    }
};

// Runs at load time, before a host can reach any member.
int const g_tablesFilled = TableFiller::fill();

// Two pixels of replicated border around the 8-bit `in`, then the 5x5 Gaussian of the
// kernels into a new plane of in's size.
cv::Mat gauss5x5Replicated(cv::Mat const &in) {
    cv::Mat padded;
    cv::copyMakeBorder(in, padded, 2, 2, 2, 2, cv::BORDER_REPLICATE);
    cv::Mat out(in.size(), in.type());
    kxRequireStatus(
        pxFilterGauss5x5(padded.ptr<std::uint8_t>(2) + 2, int(padded.step), out.ptr<std::uint8_t>(),
                         int(out.step), IppiSize{in.cols, in.rows}),
        "ERROR - TPImage - gauss5x5");
    return out;
}

std::uint16_t sat16(int v) {
    return std::uint16_t(v < 0 ? 0 : (v > 65535 ? 65535 : v));
}

// x rounded to nearest, ties to even, and saturated to 0..65535: clamping first gives the same
// result and lets the conversion run on whole vectors.
inline std::uint16_t roundSat16(float x) {
    return std::uint16_t(std::lrintf(std::min(std::max(x, 0.0f), 65535.0f)));
}

// The row loops of the rebuilding members. `delta` holds, for each edge value, what it adds
// before any local weight, worked out once per call with the same operations a pixel would
// do, so the results are the same as computing it pixel by pixel.
KX_VECTOR_CLONES void addIntegerRow(std::uint16_t *f, std::uint8_t const *e, int const *delta,
                                    int n) {
    for (int x = 0; x < n; ++x)
        f[x] = sat16(int(f[x]) + delta[e[x]]);
}

KX_VECTOR_CLONES void addFloatRow(std::uint16_t *f, std::uint8_t const *e, float const *delta,
                                  int n) {
    for (int x = 0; x < n; ++x)
        f[x] = roundSat16(float(f[x]) + delta[e[x]]);
}

KX_VECTOR_CLONES void addWeightedRow(std::uint16_t *f, std::uint8_t const *e, std::uint8_t const *w,
                                     float const *delta, int n) {
    for (int x = 0; x < n; ++x)
        f[x] = roundSat16(float(f[x]) + delta[e[x]] * float(w[x]));
}

KX_VECTOR_CLONES void addDetailRow(std::uint16_t *r, std::uint16_t const *src,
                                   std::uint16_t const *v, std::uint8_t const *w, float s, int n) {
    for (int x = 0; x < n; ++x)
        r[x] = roundSat16(float(r[x]) + (float(src[x]) - float(v[x])) * s * float(w[x]));
}

}  // namespace

void TPImage::computeLUT() {
    kxRequire(m_lutFullToEdge_p != nullptr && m_lutEdgeToFull_p != nullptr,
              "ERROR - TPImage::computeLUT: LUT is not allocated.");
    float const k = 0.7071f;
    for (int v = 0; v < 65536; ++v) {
        double const e = v < 32768 ? std::rint(128.0 - std::sqrt(double(32768 - v)) * k)
                                   : std::rint(std::sqrt(double(v - 32768)) * k + 128.0);
        m_lutFullToEdge_p[v] = cv::saturate_cast<unsigned char>(int(e));
    }
    for (int i = 0; i < 256; ++i) {
        float const t = float(i < 128 ? 128 - i : i - 128) / k;
        double const d = i < 128 ? 32768.0 - t * t : t * t + 32768.0;
        // Entry 0 comes out slightly below zero and truncates to 0.
        m_lutEdgeToFull_p[i] = sat16(int(d));
    }
}

void TPImage::applyFullToEdgeLUT(cv::Mat const &in, cv::Mat &out) {
    kxRequire(m_lutFullToEdge_p != nullptr, "ERROR - TPImage::applyFullToEdgeLUT: LUT is NULL.");
    out.create(in.size(), CV_8UC1);
    unsigned char const *lut = m_lutFullToEdge_p;
    parallelRows(in.rows, std::int64_t(in.rows) * in.cols, [&](int y) {
        std::uint16_t const *s = in.ptr<std::uint16_t>(y);
        std::uint8_t *d = out.ptr<std::uint8_t>(y);
        for (int x = 0; x < in.cols; ++x)
            d[x] = lut[s[x]];
    });
}

void TPImage::fullToEdge(cv::Mat const &full, cv::Mat const &low, cv::Mat &edge) {
    cv::Mat up(full.size(), CV_16UC1);
    if (low.data != nullptr && !low.empty()) {
        upSize2X(low, up, 257);
    } else {
        cv::Mat halfPlane(half(full.rows), half(full.cols), CV_16UC1);
        downSize2X(full, halfPlane, 257);
        upSize2X(halfPlane, up, 257);
    }
    edge.create(full.size(), CV_8UC1);
    unsigned char const *lut = m_lutFullToEdge_p;
    parallelRows(full.rows, std::int64_t(full.rows) * full.cols, [&](int y) {
        std::uint16_t const *f = full.ptr<std::uint16_t>(y);
        std::uint16_t const *u = up.ptr<std::uint16_t>(y);
        std::uint8_t *e = edge.ptr<std::uint8_t>(y);
        for (int x = 0; x < full.cols; ++x)
            e[x] = lut[(int(f[x]) - int(u[x])) / 2 + 32768];  // always within 1..65535
    });
}

void TPImage::edgeToFull(cv::Mat const &edge, cv::Mat const &low, cv::Mat &full, float gain) {
    full.create(edge.size(), CV_16UC1);
    upSize2X(low, full, 257);
    unsigned short const *lut = m_lutEdgeToFull_p;
    std::int64_t const work = std::int64_t(edge.rows) * edge.cols;
    if (std::fabs(gain - 1.0f) <= 0.01f) {
        // Near enough to 1 to add the stored difference as it is, in integers.
        int delta[256];
        for (int i = 0; i < 256; ++i)
            delta[i] = int(lut[i]) - 32768;
        parallelRows(edge.rows, work, [&](int y) {
            addIntegerRow(full.ptr<std::uint16_t>(y), edge.ptr<std::uint8_t>(y), delta, edge.cols);
        });
        return;
    }
    float delta[256];
    for (int i = 0; i < 256; ++i)
        delta[i] = (float(lut[i]) - 32768.0f) * gain;
    parallelRows(edge.rows, work, [&](int y) {
        addFloatRow(full.ptr<std::uint16_t>(y), edge.ptr<std::uint8_t>(y), delta, edge.cols);
    });
}

namespace {

// Work planes of one thread for localGain: the four products over a chunk of rows with two
// replicated rows and columns around it, and their blurs.
struct GainScratch {
    cv::Mat product[4], blurred[4];
};

// Products of the forward differences of source row y (T with itself and with B, x by x and
// y by y) into p[0..3] from column 0; 0 past the last column and row.
void gainProducts(cv::Mat const &T, cv::Mat const &B, int y, float *const p[4]) {
    int const cols = T.cols;
    std::uint16_t const *t0 = T.ptr<std::uint16_t>(y), *b0 = B.ptr<std::uint16_t>(y);
    bool const last = y + 1 == T.rows;
    std::uint16_t const *t1 = last ? t0 : T.ptr<std::uint16_t>(y + 1);
    std::uint16_t const *b1 = last ? b0 : B.ptr<std::uint16_t>(y + 1);
    for (int x = 0; x < cols; ++x) {
        float const dxT = x + 1 < cols ? float(t0[x + 1]) - float(t0[x]) : 0.0f;
        float const dxB = x + 1 < cols ? float(b0[x + 1]) - float(b0[x]) : 0.0f;
        float const dyT = float(t1[x]) - float(t0[x]), dyB = float(b1[x]) - float(b0[x]);
        p[0][x] = dxT * dxT;
        p[1][x] = dyT * dyT;
        p[2][x] = dxT * dxB;
        p[3][x] = dyT * dyB;
    }
}

}  // namespace

// The products are made and blurred a chunk of rows at a time in each thread's own small
// planes, so that none of the four full-size product planes and their bordered copies is
// ever allocated. Chunks are fixed, so pixels do not depend on the number of threads.
cv::Mat TPImage::localGain(cv::Mat const &T, cv::Mat const &B, float epsilon) {
    constexpr int kChunk = 32;
    float const c = epsilon * 65535.0f;
    int const rows = T.rows, cols = T.cols;
    cv::Mat gain(rows, cols, CV_32FC1);
    if (rows < 1 || cols < 1) return gain;
    auto make = [&] {
        GainScratch g;
        for (int i = 0; i < 4; ++i) {
            g.product[i].create(kChunk + 4, cols + 4, CV_32FC1);
            g.blurred[i].create(kChunk, cols, CV_32FC1);
        }
        return g;
    };
    parallelChunks(
        rows, kChunk, std::int64_t(rows) * cols * 4, make, [&](GainScratch &g, int y0, int y1) {
            for (int r = -2; r < y1 - y0 + 2; ++r) {
                float *p[4];
                for (int i = 0; i < 4; ++i)
                    p[i] = g.product[i].ptr<float>(r + 2) + 2;
                gainProducts(T, B, std::clamp(y0 + r, 0, rows - 1), p);
                for (float *q : p) {  // two replicated columns on each side
                    q[-2] = q[-1] = q[0];
                    q[cols] = q[cols + 1] = q[cols - 1];
                }
            }
            for (int i = 0; i < 4; ++i)
                kxRequireStatus(pxFilterGauss5x5(g.product[i].ptr<float>(2) + 2,
                                                 int(g.product[i].step), g.blurred[i].ptr<float>(),
                                                 int(g.blurred[i].step), IppiSize{cols, y1 - y0}),
                                "ERROR - TPImage - gauss5x5");
            for (int y = y0; y < y1; ++y) {
                float const *a = g.blurred[0].ptr<float>(y - y0),
                            *d = g.blurred[1].ptr<float>(y - y0);
                float const *p = g.blurred[2].ptr<float>(y - y0),
                            *q = g.blurred[3].ptr<float>(y - y0);
                float *out = gain.ptr<float>(y);
                for (int x = 0; x < cols; ++x)
                    out[x] = (p[x] + q[x] + c) / (a[x] + d[x] + c);
            }
        });
    return gain;
}

void TPImage::edgeToFull(cv::Mat const &edge, cv::Mat const &source, cv::Mat const &changed,
                         cv::Mat &full, float epsilon, float gain) {
    full.create(edge.size(), changed.type());
    cv::Mat gain8;
    // 128/3 a unit: 1 is about 43 and 255 stands for about 5.98.
    localGain(source, changed, epsilon).convertTo(gain8, CV_8UC1, 42.666666666666664);
    cv::Mat W(edge.size(), CV_8UC1);
    upSize2X(gauss5x5Replicated(gain8), W, 2);
    upSize2X(changed, full, 257);
    float const s = gain * 0.0234375f;  // gain x 3/128: s x W is gain times the local gain
    float delta[256];
    for (int i = 0; i < 256; ++i)
        delta[i] = (float(m_lutEdgeToFull_p[i]) - 32768.0f) * s;
    parallelRows(edge.rows, std::int64_t(edge.rows) * edge.cols, [&](int y) {
        addWeightedRow(full.ptr<std::uint16_t>(y), edge.ptr<std::uint8_t>(y),
                       W.ptr<std::uint8_t>(y), delta, edge.cols);
    });
}

void TPImage::reconstructFull(cv::Mat const &sourceIn, cv::Mat const &changed, cv::Mat result,
                              float epsilon, float gain) {
    // The source is read after result is first written: a result on the source's own pixels
    // works on a copy.
    cv::Mat const source = result.data == sourceIn.data ? sourceIn.clone() : sourceIn;
    result.create(source.size(), source.type());
    cv::Mat T(changed.size(), CV_16UC1);
    downSize2X(source, T, 4);
    cv::Mat gain8;
    // 64 a unit: 1 is 64 and 255 stands for about 3.98; never below one half.
    localGain(T, changed, epsilon).convertTo(gain8, CV_8UC1, 64.0);
    cv::max(gain8, 32, gain8);
    cv::Mat W(source.size(), CV_8UC1);
    upSize2X(gain8, W, 2);
    upSize2X(changed, result, 4);
    cv::Mat V(source.size(), CV_16UC1);
    upSize2X(T, V, 4);
    float const s = gain * 0.015625f;  // gain / 64
    parallelRows(source.rows, std::int64_t(source.rows) * source.cols, [&](int y) {
        addDetailRow(result.ptr<std::uint16_t>(y), source.ptr<std::uint16_t>(y),
                     V.ptr<std::uint16_t>(y), W.ptr<std::uint8_t>(y), s, source.cols);
    });
}
