// The packed paths of SelectiveColorFilter: hue / lightness / saturation (or value) images
// whose family weights come from the tables instead of per-pixel exponentials.
//
// Each row is worked in chunks: first the three set sums of every pixel of the chunk (eight
// table reads a pixel, gathered per table so the loop vectorises), then the per-pixel
// formulas, which are plain float arithmetic with selects.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/kestrix.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/tables/selective_color_filter.h"

namespace {

constexpr char const kErrTables[] = "ERROR - SelectiveColorFilter - tables 0 to 7 are not set up";
constexpr char const kErrImage16[] = "ERROR - SelectiveColorFilter - image must be CV_16UC3";
constexpr char const kErrImage32[] = "ERROR - SelectiveColorFilter - image must be CV_32FC3";
constexpr char const kErrHuePlane[] =
    "ERROR - SelectiveColorFilter - hue plane must be CV_16UC1 of the image's size";
constexpr char const kErrHuePlane32[] =
    "ERROR - SelectiveColorFilter - hue plane must be CV_32FC1 of the image's size";
constexpr char const kTraceWhere[] = "SelectiveColorFilter::procInHSVSpace";
constexpr int kTraceLine = 648;

using Set = SelectiveColorFilter::SelectiveColorParameters;
using Overall = SelectiveColorFilter::OverallParameters;

constexpr int kChunk = 256;
constexpr float kFull = 65535.0f;

// The three sets and what the overall amounts add to their sums, copied before the loop.
struct Amounts {
    float a[3][8];
    float add[3];
};

Amounts amountsOf(Set const &s1, Set const &s2, Set const &s3, float o1, float o2, float o3) {
    Amounts m{};
    for (int k = 0; k < 8; ++k) {
        m.a[0][k] = s1[k];
        m.a[1][k] = s2[k];
        m.a[2][k] = s3[k];
    }
    m.add[0] = o1 * kFull;
    m.add[1] = o2 * kFull;
    m.add[2] = o3 * kFull;
    return m;
}

// sum[j][i] = add[j] + sum over k of a[j][k] t_k(code[i]), k in order 0..7.
KX_VECTOR_CLONES
void setSums(std::uint16_t const *const *lut, Amounts const &m, std::int32_t const *code, int n,
             float (*sum)[kChunk]) {
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < n; ++i) sum[j][i] = 0.0f;
    for (int k = 0; k < 8; ++k) {
        std::uint16_t const *t = lut[k];
        float const a0 = m.a[0][k], a1 = m.a[1][k], a2 = m.a[2][k];
        for (int i = 0; i < n; ++i) {
            float const w = float(t[code[i]]);
            sum[0][i] += a0 * w;
            sum[1][i] += a1 * w;
            sum[2][i] += a2 * w;
        }
    }
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < n; ++i) sum[j][i] += m.add[j];
}

inline float clamp1(float k) { return k < -1.0f ? -1.0f : k > 1.0f ? 1.0f : k; }

// Truncation into 0..65535 (a wrapped hue of exactly 1 gives 65535).
inline std::uint16_t trunc16(float v) {
    return std::uint16_t(v < 0.0f ? 0.0f : v > kFull ? kFull : v);
}

// Round to nearest, ties to even, into 0..65535.
inline std::uint16_t round16(float v) {
    float const r = (v + 12582912.0f) - 12582912.0f;
    return std::uint16_t(r < 0.0f ? 0.0f : r > kFull ? kFull : r);
}

// The hue turn shared by every path: x = turn + H, wrapped once into [0, 1].
inline float turnHue(float turn, float h) {
    float x = turn + h;
    if (x > 1.0f) x -= 1.0f;
    if (x < 0.0f) x += 1.0f;
    return x;
}

// L' (or V') for the amount k in [-1, 1]: towards the top for k > 0, towards 0 otherwise.
inline float lift(float v, float k, float top) { return k > 0.0f ? v * (1.0f - k) + top * k : v * (k + 1.0f); }

// One chunk of procInHLSSpace: p holds n pixels of H, L, S; sum the set sums.
KX_VECTOR_CLONES
void hlsChunk(std::uint16_t *p, int n, float const (*sum)[kChunk]) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], L = px[1], S = px[2];
        float const ms = std::min(4.0f * S / kFull, 1.0f), ml = std::min(4.0f * L / kFull, 1.0f);
        float const kl = clamp1(sum[0][i] * ms * ml / kFull);
        float const ks = clamp1(sum[1][i] / kFull);
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = trunc16(lift(L, kl, kFull));
        px[2] = trunc16(ks > 0.0f ? S * (1.0f - ms * ml * ks) + kFull * ms * ml * ks
                                  : S * (ks + 1.0f));
    }
}

// One chunk of procInHSVSpace (H, S, V), or of its simple form, which first corrects S by
// the change of V. ksOut, when given, receives each pixel's saturation amount.
template <bool Simple>
inline void hsvPixels(std::uint16_t *p, int n, float const (*sum)[kChunk], float *ksOut) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], S = px[1], V = px[2];
        float const ms = std::min(4.0f * S / kFull, 1.0f), mv = std::min(4.0f * V / kFull, 1.0f);
        float const kv = clamp1(sum[0][i] * ms * mv / kFull);
        float ks = clamp1(sum[1][i] / kFull);
        if (ks > 0.0f) ks *= ms * mv;
        std::uint16_t const v2 = trunc16(lift(V, kv, kFull));
        float s = S;
        if constexpr (Simple) {
            double const f = (65535.0 - double(v2)) / ((65535.0 - double(V)) + 6553.5);
            s = float(std::clamp(std::nearbyint(double(S) * std::max(1.0, f)), 0.0, 65535.0));
        }
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = trunc16(lift(s, ks, kFull));
        px[2] = v2;
        if (ksOut) ksOut[i] = ks;
    }
}

KX_VECTOR_CLONES
void hsvChunk(std::uint16_t *p, int n, float const (*sum)[kChunk], float *ksOut) {
    hsvPixels<false>(p, n, sum, ksOut);
}

KX_VECTOR_CLONES
void hsvSimpleChunk(std::uint16_t *p, int n, float const (*sum)[kChunk]) {
    hsvPixels<true>(p, n, sum, nullptr);
}

// One chunk of procInHLSSpaceSimple, on chroma; the overall amounts come in after the
// chroma ramps, so they reach grey pixels too.
KX_VECTOR_CLONES
void hlsSimpleChunk(std::uint16_t *p, int n, float const (*sum)[kChunk], float oL, float oS) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], l = px[1] / kFull, s = px[2] / kFull;
        float const C = s * (1.0f - std::fabs(2.0f * l - 1.0f));
        float const r1 = C < 0.15f ? C / 0.15f : 1.0f;
        float const r2 = C < 0.2f ? C / 0.2f : 1.0f;
        float const kl = clamp1(r1 * sum[0][i] / kFull + oL) * 0.8f;
        float const l2 = lift(l, kl, 1.0f);
        float const s1 =
            (l2 > 0.0001f && l2 < 0.9999f) ? C / (1.001f - std::fabs(2.0f * l2 - 1.0f)) : 0.0f;
        float const ks = clamp1(sum[1][i] / kFull + oS);
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = round16(kFull * l2);
        px[2] = round16(kFull * (ks > 0.0f ? s1 * (1.0f - r2 * ks) + r2 * ks : s1 * (ks + 1.0f)));
    }
}

// The float form of procInHLSSpace: channels in [0, 1], nothing truncated.
KX_VECTOR_CLONES
void hls32Chunk(float *p, int n, float const (*sum)[kChunk]) {
    for (int i = 0; i < n; ++i) {
        float *px = p + 3 * i;
        float const L = px[1], S = px[2];
        float const ms = std::min(4.0f * S, 1.0f), ml = std::min(4.0f * L, 1.0f);
        float const kl = clamp1(sum[0][i] * ms * ml / kFull);
        float const ks = clamp1(sum[1][i] / kFull);
        px[0] = turnHue(sum[2][i] / kFull, px[0]);
        px[1] = lift(L, kl, 1.0f);
        px[2] = ks > 0.0f ? S * (1.0f - ms * ml * ks) + ms * ml * ks : S * (ks + 1.0f);
    }
}

// Hue codes of a chunk, from a 16-bit plane or pixel (every `stride`-th value).
inline void codesOf16(std::uint16_t const *h, int stride, int n, std::int32_t *code) {
    for (int i = 0; i < n; ++i) code[i] = h[i * stride];
}

// Runs the rows of a packed path: for each chunk of each row, its hue codes (codes(y, x0,
// n, code)), the set sums, then work(y, x0, n, sum). In parallel over rows unless `serial`.
template <class Codes, class Work>
void packedRows(int rows, int cols, bool serial, std::uint16_t const *const *lut,
                Amounts const &m, Codes &&codes, Work &&work) {
    auto row = [&](int y) {
        std::int32_t code[kChunk];
        float sum[3][kChunk];
        for (int x0 = 0; x0 < cols; x0 += kChunk) {
            int const n = std::min(kChunk, cols - x0);
            codes(y, x0, n, code);
            setSums(lut, m, code, n, sum);
            work(y, x0, n, static_cast<float const(*)[kChunk]>(sum));
        }
    };
    if (serial) {
        for (int y = 0; y < rows; ++y) row(y);
    } else {
        parallelRows(rows, std::int64_t(rows) * cols * 8, row);
    }
}

// The tables the packed paths read, checked to exist.
void requireTables(std::uint16_t const *const *lut) {
    for (int k = 0; k < 8; ++k) kxRequire(lut[k] != nullptr, kErrTables);
}

}  // namespace

bool SelectiveColorFilter::procInHLSSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &,
                                          Set lightness, Set saturation, Set hueShift,
                                          Overall overall) {
    if (image.empty()) return true;
    kxRequire(image.type() == CV_16UC3, kErrImage16);
    kxRequire(hue.type() == CV_16UC1 && hue.size() == image.size(), kErrHuePlane);
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k) lut[k] = m_lut[k].get();
    requireTables(lut);
    Amounts const m = amountsOf(lightness, saturation, hueShift, overall.lightness,
                                overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, lut, m,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(hue.ptr<std::uint16_t>(y) + x0, 1, n, code);
        },
        [&](int y, int x0, int n, float const (*sum)[kChunk]) {
            hlsChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum);
        });
    return true;
}

bool SelectiveColorFilter::procInHSVSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &,
                                          Set value, Set saturation, Set hueShift,
                                          Overall overall) {
    if (image.empty()) return true;
    kxRequire(image.type() == CV_16UC3, kErrImage16);
    kxRequire(hue.type() == CV_16UC1 && hue.size() == image.size(), kErrHuePlane);
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k) lut[k] = m_lut[k].get();
    requireTables(lut);
    Amounts const m = amountsOf(value, saturation, hueShift, overall.lightness,
                                overall.saturation, overall.hue);
    bool const trace = Kestrix::m_tDebug_p != nullptr;
    packedRows(
        image.rows, image.cols, trace, lut, m,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(hue.ptr<std::uint16_t>(y) + x0, 1, n, code);
        },
        [&](int y, int x0, int n, float const (*sum)[kChunk]) {
            float ks[kChunk];
            hsvChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum, trace ? ks : nullptr);
            if (!trace) return;
            char line[48];
            for (int i = 0; i < n; ++i) {
                std::snprintf(line, sizeof line, "kS: %f", double(ks[i]));
                Kestrix::toQDebug(kTraceWhere, kTraceLine, line);
            }
        });
    return true;
}

bool SelectiveColorFilter::procInHLSSpaceSimple(cv::Mat &image, Set lightness, Set saturation,
                                                Set hueShift, Overall overall) {
    if (image.empty()) return true;
    kxRequire(image.type() == CV_16UC3, kErrImage16);
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k) lut[k] = m_lut[k].get();
    requireTables(lut);
    Amounts const m = amountsOf(lightness, saturation, hueShift, 0.0f, 0.0f, overall.hue);
    packedRows(
        image.rows, image.cols, false, lut, m,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(image.ptr<std::uint16_t>(y) + 3 * x0, 3, n, code);
        },
        [&](int y, int x0, int n, float const (*sum)[kChunk]) {
            hlsSimpleChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum, overall.lightness,
                           overall.saturation);
        });
    return true;
}

bool SelectiveColorFilter::procInHSVSpaceSimple(cv::Mat &image, Set value, Set saturation,
                                                Set hueShift, Overall overall) {
    if (image.empty()) return true;
    kxRequire(image.type() == CV_16UC3, kErrImage16);
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k) lut[k] = m_lut[k].get();
    requireTables(lut);
    Amounts const m = amountsOf(value, saturation, hueShift, overall.lightness,
                                overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, lut, m,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(image.ptr<std::uint16_t>(y) + 3 * x0, 3, n, code);
        },
        [&](int y, int x0, int n, float const (*sum)[kChunk]) {
            hsvSimpleChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum);
        });
    return true;
}

bool SelectiveColorFilter::procInHSLSpace_32f(cv::Mat &image, cv::Mat const &hue,
                                              cv::Mat const &, Set lightness, Set saturation,
                                              Set hueShift, Overall overall) {
    if (image.empty()) return true;
    kxRequire(image.type() == CV_32FC3, kErrImage32);
    kxRequire(hue.type() == CV_32FC1 && hue.size() == image.size(), kErrHuePlane32);
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k) lut[k] = m_lut[k].get();
    requireTables(lut);
    Amounts const m = amountsOf(lightness, saturation, hueShift, overall.lightness,
                                overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, lut, m,
        [&](int y, int x0, int n, std::int32_t *code) {
            float const *h = hue.ptr<float>(y) + x0;
            for (int i = 0; i < n; ++i) code[i] = trunc16(kFull * h[i]);
        },
        [&](int y, int x0, int n, float const (*sum)[kChunk]) {
            hls32Chunk(image.ptr<float>(y) + 3 * x0, n, sum);
        });
    return true;
}
