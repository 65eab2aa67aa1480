// The packed paths of SelectiveColorFilter: hue / lightness / saturation (or value) images
// whose family weights come from the tables instead of per-pixel exponentials.
//
// Each row is worked in chunks: first the three set sums of every pixel of the chunk (eight
// table reads a pixel, gathered per table so the loop vectorises), then the per-pixel
// formulas, which are plain float arithmetic with selects.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

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

// The three set sums at every hue code: sums[j][c] = sum over k of a[j][k] t_k(c), k in
// order 0..7, plus add[j]. A path then reads three values a pixel instead of eight table
// entries per set, with the very same sums.
std::vector<float> sumsByCode(std::uint16_t const *const *lut, Amounts const &m) {
    constexpr int codes = SelectiveColorFilter::kTableCodes;
    std::vector<float> sums(3 * std::size_t(codes));
    parallelRows(codes / kChunk, std::int64_t(codes) * 24, [&](int b) {
        for (int j = 0; j < 3; ++j) {
            float *const out = sums.data() + std::size_t(j) * codes + b * kChunk;
            for (int i = 0; i < kChunk; ++i)
                out[i] = 0.0f;
            for (int k = 0; k < 8; ++k) {
                std::uint16_t const *t = lut[k] + b * kChunk;
                float const a = m.a[j][k];
                for (int i = 0; i < kChunk; ++i)
                    out[i] += a * float(t[i]);
            }
            for (int i = 0; i < kChunk; ++i)
                out[i] += m.add[j];
        }
    });
    return sums;
}

// sum[j][i] = sums[j][code[i]] for a chunk.
KX_VECTOR_CLONES
void gatherSums(float const *sums, std::int32_t const *code, int n, float (*sum)[kChunk]) {
    constexpr int codes = SelectiveColorFilter::kTableCodes;
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < n; ++i)
            sum[j][i] = sums[j * codes + code[i]];
}

// The pixel loops below compute every candidate value and then select, without branches
// or divisions under a condition, so that they vectorise.

inline float clamp1(float k) {
    return k < -1.0f ? -1.0f : k > 1.0f ? 1.0f : k;
}

// Truncation into 0..65535 (a wrapped hue of exactly 1 gives 65535).
inline std::uint16_t trunc16(float v) {
    return std::uint16_t(v < 0.0f ? 0.0f : v > kFull ? kFull : v);
}

// Round to nearest, ties to even, into 0..65535: adding 1.5 x 2^23 leaves no bits below the
// unit, so the addition itself rounds (|v| < 2^22).
inline std::uint16_t round16(float v) {
    float const r = (v + 12582912.0f) - 12582912.0f;
    return std::uint16_t(r < 0.0f ? 0.0f : r > kFull ? kFull : r);
}

// The same in double, for |v| < 2^51.
inline double round64(double v) {
    return (v + 6755399441055744.0) - 6755399441055744.0;
}

// The hue turn shared by every path: x = turn + H, wrapped once into [0, 1].
inline float turnHue(float turn, float h) {
    float const x = turn + h;
    float const down = x - 1.0f, up = x + 1.0f;
    float const y = x > 1.0f ? down : x;
    return y < 0.0f ? up : y;
}

// L' (or V') for the amount k in [-1, 1]: towards the top for k > 0, towards 0 otherwise.
inline float lift(float v, float k, float top) {
    float const raise = v * (1.0f - k) + top * k, lower = v * (k + 1.0f);
    return k > 0.0f ? raise : lower;
}

// One chunk of procInHLSSpace: p holds n pixels of H, L, S; sum the set sums.
KX_VECTOR_CLONES
void hlsChunk(std::uint16_t *p, int n, float const (*sum)[kChunk]) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], L = px[1], S = px[2];
        float const ms = std::min(4.0f * S / kFull, 1.0f), ml = std::min(4.0f * L / kFull, 1.0f);
        float const kl = clamp1(sum[0][i] * ms * ml / kFull);
        float const ks = clamp1(sum[1][i] / kFull);
        float const raise = S * (1.0f - ms * ml * ks) + kFull * ms * ml * ks,
                    lower = S * (ks + 1.0f);
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = trunc16(lift(L, kl, kFull));
        px[2] = trunc16(ks > 0.0f ? raise : lower);
    }
}

// One chunk of procInHSVSpace (H, S, V), or of its simple form, which first corrects S by
// the change of V. ks receives each pixel's saturation amount.
template <bool Simple>
inline void hsvPixels(std::uint16_t *p, int n, float const (*sum)[kChunk], float *ksOut) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], S = px[1], V = px[2];
        float const ms = std::min(4.0f * S / kFull, 1.0f), mv = std::min(4.0f * V / kFull, 1.0f);
        float const kv = clamp1(sum[0][i] * ms * mv / kFull);
        float const k0 = clamp1(sum[1][i] / kFull), masked = k0 * (ms * mv);
        float const ks = k0 > 0.0f ? masked : k0;
        std::uint16_t const v2 = trunc16(lift(V, kv, kFull));
        float s = S;
        if constexpr (Simple) {
            double const f = (65535.0 - double(v2)) / ((65535.0 - double(V)) + 6553.5);
            double const r = round64(double(S) * (f > 1.0 ? f : 1.0));
            s = float(r > 65535.0 ? 65535.0 : r);
        }
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = trunc16(lift(s, ks, kFull));
        px[2] = v2;
        ksOut[i] = ks;
    }
}

KX_VECTOR_CLONES
void hsvChunk(std::uint16_t *p, int n, float const (*sum)[kChunk], float *ks) {
    hsvPixels<false>(p, n, sum, ks);
}

KX_VECTOR_CLONES
void hsvSimpleChunk(std::uint16_t *p, int n, float const (*sum)[kChunk], float *ks) {
    hsvPixels<true>(p, n, sum, ks);
}

// One chunk of procInHLSSpaceSimple, on chroma; the overall amounts come in after the
// chroma ramps, so they reach grey pixels too.
KX_VECTOR_CLONES
void hlsSimpleChunk(std::uint16_t *p, int n, float const (*sum)[kChunk], float oL, float oS) {
    for (int i = 0; i < n; ++i) {
        std::uint16_t *px = p + 3 * i;
        float const H = px[0], l = px[1] / kFull, s = px[2] / kFull;
        float const C = s * (1.0f - std::fabs(2.0f * l - 1.0f));
        float const ramp1 = C / 0.15f, ramp2 = C / 0.2f;
        float const r1 = C < 0.15f ? ramp1 : 1.0f;
        float const r2 = C < 0.2f ? ramp2 : 1.0f;
        float const kl = clamp1(r1 * sum[0][i] / kFull + oL) * 0.8f;
        float const l2 = lift(l, kl, 1.0f);
        float const back = C / (1.001f - std::fabs(2.0f * l2 - 1.0f));  // divisor >= 0.001
        float const s1 = (l2 > 0.0001f) & (l2 < 0.9999f) ? back : 0.0f;
        float const ks = clamp1(sum[1][i] / kFull + oS);
        float const raise = s1 * (1.0f - r2 * ks) + r2 * ks, lower = s1 * (ks + 1.0f);
        px[0] = trunc16(kFull * turnHue(sum[2][i] / kFull, H / kFull));
        px[1] = round16(kFull * l2);
        px[2] = round16(kFull * (ks > 0.0f ? raise : lower));
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
        float const raise = S * (1.0f - ms * ml * ks) + ms * ml * ks, lower = S * (ks + 1.0f);
        px[0] = turnHue(sum[2][i] / kFull, px[0]);
        px[1] = lift(L, kl, 1.0f);
        px[2] = ks > 0.0f ? raise : lower;
    }
}

// Hue codes of a chunk, from a 16-bit plane or pixel (every `stride`-th value).
inline void codesOf16(std::uint16_t const *h, int stride, int n, std::int32_t *code) {
    for (int i = 0; i < n; ++i)
        code[i] = h[i * stride];
}

// Runs the rows of a packed path: for each chunk of each row, its hue codes (codes(y, x0,
// n, code)), the set sums, then work(y, x0, n, sum). In parallel over rows unless `serial`.
template <class Codes, class Work>
void packedRows(int rows, int cols, bool serial, std::vector<float> const &sums, Codes &&codes,
                Work &&work) {
    auto row = [&](int y) {
        std::int32_t code[kChunk];
        float sum[3][kChunk];
        for (int x0 = 0; x0 < cols; x0 += kChunk) {
            int const n = std::min(kChunk, cols - x0);
            codes(y, x0, n, code);
            gatherSums(sums.data(), code, n, sum);
            work(y, x0, n, static_cast<float const(*)[kChunk]>(sum));
        }
    };
    if (serial) {
        for (int y = 0; y < rows; ++y)
            row(y);
    } else {
        parallelRows(rows, std::int64_t(rows) * cols * 8, row);
    }
}

// The set sums at every hue code, from the first eight tables, which must exist.
std::vector<float> sumsFor(std::shared_ptr<std::uint16_t[]> const *slots, Set const &s1,
                           Set const &s2, Set const &s3, float o1, float o2, float o3) {
    std::uint16_t const *lut[8];
    for (int k = 0; k < 8; ++k)
        kxRequire((lut[k] = slots[k].get()) != nullptr, kErrTables);
    return sumsByCode(lut, amountsOf(s1, s2, s3, o1, o2, o3));
}

// The image's type, and the hue plane's when there is one, checked.
void requireImage(cv::Mat const &image, int type, cv::Mat const *hue) {
    bool const f32 = type == CV_32FC3;
    kxRequire(image.type() == type, f32 ? kErrImage32 : kErrImage16);
    if (hue)
        kxRequire(hue->type() == (f32 ? CV_32FC1 : CV_16UC1) && hue->size() == image.size(),
                  f32 ? kErrHuePlane32 : kErrHuePlane);
}

}  // namespace

bool SelectiveColorFilter::procInHLSSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &,
                                          Set lightness, Set saturation, Set hueShift,
                                          Overall overall) {
    if (image.empty()) return true;
    requireImage(image, CV_16UC3, &hue);
    std::vector<float> const sums = sumsFor(m_lut, lightness, saturation, hueShift,
                                            overall.lightness, overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, sums,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(hue.ptr<std::uint16_t>(y) + x0, 1, n, code);
        },
        [&](int y, int x0, int n, float const(*sum)[kChunk]) {
            hlsChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum);
        });
    return true;
}

bool SelectiveColorFilter::procInHSVSpace(cv::Mat &image, cv::Mat const &hue, cv::Mat const &,
                                          Set value, Set saturation, Set hueShift,
                                          Overall overall) {
    if (image.empty()) return true;
    requireImage(image, CV_16UC3, &hue);
    std::vector<float> const sums = sumsFor(m_lut, value, saturation, hueShift, overall.lightness,
                                            overall.saturation, overall.hue);
    bool const trace = Kestrix::m_tDebug_p != nullptr;
    packedRows(
        image.rows, image.cols, trace, sums,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(hue.ptr<std::uint16_t>(y) + x0, 1, n, code);
        },
        [&](int y, int x0, int n, float const(*sum)[kChunk]) {
            float ks[kChunk];
            hsvChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum, ks);
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
    requireImage(image, CV_16UC3, nullptr);
    std::vector<float> const sums =
        sumsFor(m_lut, lightness, saturation, hueShift, 0.0f, 0.0f, overall.hue);
    packedRows(
        image.rows, image.cols, false, sums,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(image.ptr<std::uint16_t>(y) + 3 * x0, 3, n, code);
        },
        [&](int y, int x0, int n, float const(*sum)[kChunk]) {
            hlsSimpleChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum, overall.lightness,
                           overall.saturation);
        });
    return true;
}

bool SelectiveColorFilter::procInHSVSpaceSimple(cv::Mat &image, Set value, Set saturation,
                                                Set hueShift, Overall overall) {
    if (image.empty()) return true;
    requireImage(image, CV_16UC3, nullptr);
    std::vector<float> const sums = sumsFor(m_lut, value, saturation, hueShift, overall.lightness,
                                            overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, sums,
        [&](int y, int x0, int n, std::int32_t *code) {
            codesOf16(image.ptr<std::uint16_t>(y) + 3 * x0, 3, n, code);
        },
        [&](int y, int x0, int n, float const(*sum)[kChunk]) {
            float ks[kChunk];
            hsvSimpleChunk(image.ptr<std::uint16_t>(y) + 3 * x0, n, sum, ks);
        });
    return true;
}

bool SelectiveColorFilter::procInHSLSpace_32f(cv::Mat &image, cv::Mat const &hue, cv::Mat const &,
                                              Set lightness, Set saturation, Set hueShift,
                                              Overall overall) {
    if (image.empty()) return true;
    requireImage(image, CV_32FC3, &hue);
    std::vector<float> const sums = sumsFor(m_lut, lightness, saturation, hueShift,
                                            overall.lightness, overall.saturation, overall.hue);
    packedRows(
        image.rows, image.cols, false, sums,
        [&](int y, int x0, int n, std::int32_t *code) {
            float const *h = hue.ptr<float>(y) + x0;
            for (int i = 0; i < n; ++i)
                code[i] = trunc16(kFull * h[i]);
        },
        [&](int y, int x0, int n, float const(*sum)[kChunk]) {
            hls32Chunk(image.ptr<float>(y) + 3 * x0, n, sum);
        });
    return true;
}
