#include "kestrix1/tables/t_color_adj_d3.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <vector>

#include "kestrix1/frame/clock.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/frame/timing.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/tables/lut_smoothing.h"

namespace {

constexpr char const kErrProcPlanes[] =
    "ERROR - TColorAdjD3::proc - planes must be CV_16UC1 of one size";

constexpr int kKnots = TColorAdjD3::kKnots;
constexpr int kLevelStride = kKnots * kKnots;  // 1089

inline double sat16(double v) {
    return std::clamp(std::nearbyint(v), 0.0, 65535.0);
}

// Round to nearest, ties to even, and saturate to 0..65535, for |v| < 2^22: adding 1.5 x 2^23
// leaves no bits below the unit, so the addition itself rounds; the limits are then applied
// to the whole number. Plain expressions, so loops around it vectorise.
inline int round16(float v) {
    int const r = int((v + 12582912.0f) - 12582912.0f);
    return r < 0 ? 0 : r > 65535 ? 65535 : r;
}

// Pixels per chunk of proc: the chunk's scratch stays in the first-level cache.
constexpr int kChunk = 256;

// One row of proc, a chunk at a time: the brightening scale, knot index and weights of each
// pixel; then its eight knots, one array per corner; then the trilinear mix of both channels
// (Db weight innermost, then Dr, then Y). Scratch: id kChunk, w 3 kChunk, kn 8 kChunk. The
// first and last passes vectorise; the middle one is the table reads.
KX_VECTOR_CLONES
void lookUpRow(std::uint32_t const *P, std::uint16_t const *pY0, std::uint16_t const *pY1,
               std::uint16_t const *pDr, std::uint16_t const *pDb, std::uint16_t *oDr,
               std::uint16_t *oDb, int cols, std::int32_t *id, float *w, std::uint32_t *kn) {
    float *const fy = w, *const fdr = w + kChunk, *const fdb = w + 2 * kChunk;
    for (int x0 = 0; x0 < cols; x0 += kChunk) {
        int const n = std::min(kChunk, cols - x0);
        for (int i = 0; i < n; ++i) {
            int const v0 = pY0[x0 + i], v1 = pY1[x0 + i];
            float const q = (float(v1) + 655.3f) / (float(v0) + 655.3f);
            float const s = q > 1.0f ? q : 1.0f;  // at most 101: |dr| below 2^22
            int const cr = round16((float(pDr[x0 + i]) - 32768.0f) * s + 32768.0f);
            int const cb = round16((float(pDb[x0 + i]) - 32768.0f) * s + 32768.0f);
            id[i] = TColorAdjD3::get3DLUTIdx(v1 >> 11, cr >> 11, cb >> 11);
            fy[i] = float(v1 & 2047) / 2048.0f;
            fdr[i] = float(cr & 2047) / 2048.0f;
            fdb[i] = float(cb & 2047) / 2048.0f;
        }
        for (int i = 0; i < n; ++i) {
            std::uint32_t const *const p = P + id[i];
            kn[i] = p[0];
            kn[kChunk + i] = p[1];
            kn[2 * kChunk + i] = p[kKnots];
            kn[3 * kChunk + i] = p[kKnots + 1];
            kn[4 * kChunk + i] = p[kLevelStride];
            kn[5 * kChunk + i] = p[kLevelStride + 1];
            kn[6 * kChunk + i] = p[kLevelStride + kKnots];
            kn[7 * kChunk + i] = p[kLevelStride + kKnots + 1];
        }
        for (int i = 0; i < n; ++i) {
            auto lo = [&](int j) { return float(int(kn[j * kChunk + i] & 0xFFFFu)); };
            auto hi = [&](int j) { return float(int(kn[j * kChunk + i] >> 16)); };
            float vr, vb;
            TColorAdjD3::mix(vr, lo(0), lo(1), lo(2), lo(3), lo(4), lo(5), lo(6), lo(7), fy[i],
                             fdr[i], fdb[i]);
            TColorAdjD3::mix(vb, hi(0), hi(1), hi(2), hi(3), hi(4), hi(5), hi(6), hi(7), fy[i],
                             fdr[i], fdb[i]);
            oDr[x0 + i] = std::uint16_t(round16(vr));
            oDb[x0 + i] = std::uint16_t(round16(vb));
        }
    }
}

}  // namespace

TColorAdjD3::TColorAdjD3(float r0, float r1, float r2, float r3, float r4, float r5)
    : m_range{r0, r1, r2, r3, r4, r5} {
    std::uint8_t *const buffer = ippsMalloc_8u(kKnots * kRowBytes);
    if (buffer == nullptr) throw std::bad_alloc();
    m_work.reset(buffer, [](std::uint8_t *p) { pxFree(p); });

    parallelRows(kKnots, [this](int i) {
        for (int j = 0; j < kKnots; ++j) {
            for (int k = 0; k < kKnots; ++k) {
                int const idx = get3DLUTIdx(i, j, k);
                m_lutDr[idx] = std::uint16_t(int(float(j) * m_knotScale));
                m_lutDb[idx] = std::uint16_t(int(float(k) * m_knotScale));
            }
        }
    });
}

void TColorAdjD3::setAmounts(float a0, float a1, float a2, float a3) {
    m_amounts[0] = a0;
    m_amounts[1] = a1;
    m_amounts[2] = a2;
    m_amounts[3] = a3;
    m_dirty = true;
}

void TColorAdjD3::computeLUT16U() {
    if (!m_dirty) return;
    long const start = kxClockMs();

    float const a0 = m_amounts[0], a1 = m_amounts[1], a2 = m_amounts[2], a3 = m_amounts[3];
    float const *r = m_range;
    float const g = a2 >= 0.0f ? (r[4] - 1.0f) * a2 + 1.0f : a2 + 1.0f;
    float const amountH = a1 > 0.0f ? a1 * r[2] : a1 * r[3];
    float const amountK = a0 > 0.0f ? a0 * r[0] : a0 * r[1];
    std::uint8_t *const work = m_work.get();

    parallelRows(kKnots, [&](int L) {
        // The level's chroma tone row: a ramp with a floor or a cut-off at the low end.
        std::uint8_t *const row = work + L * kRowBytes;
        for (int i = 0; i < kRowBytes; ++i)
            row[i] = std::uint8_t(i);
        int T =
            int(std::clamp(a3 * r[5] * (m_fourth * float(L) + 64.0f), -16777216.0f, 16777216.0f));
        if (g > 1.0f) T = int(float(T) / g);
        if (T > 0) {
            int const n = std::min(T, kRowBytes - 1);
            std::fill(row, row + n, row[n]);
        } else if (T < 0) {
            std::fill(row, row + std::min(-T, kRowBytes), std::uint8_t(0));
        }
        float const sigma = 0.3f * float(std::abs(T));
        if (sigma > 1.0f) smoothTable(row, kRowBytes, sigma, 2);

        float const Y = float(std::uint16_t(int(float(L) * m_knotScale)));
        for (int j = 0; j < kKnots; ++j) {
            for (int m = 0; m < kKnots; ++m) {
                float const dr0 = float(int(float(j) * m_knotScale));
                float const db0 = float(int(float(m) * m_knotScale));
                float const R = 2.0f * (dr0 - 32768.0f) + Y;
                float const B = 2.0f * (db0 - 32768.0f) + Y;
                double const G = double(Y - 0.299f * R - 0.114f * B) * 1.7036;
                float rr = float(sat16(R)) / 65535.0f;
                float gg = float(sat16(G)) / 65535.0f;
                float bb = float(sat16(B)) / 65535.0f;

                // Warm or cool by the first amount, then by the second: each side raises
                // two of the three channels.
                if (amountK < 0.0f) {
                    float const t = -amountK;
                    mix(gg, gg, 1.15f * gg + 0.12f, t);
                    mix(bb, bb, 1.6f * bb + 0.48f, t);
                } else {
                    float const t = amountK;
                    mix(rr, rr, 1.5f * rr + 0.4f, t);
                    mix(gg, gg, 1.35f * gg + 0.28f, t);
                }
                if (amountH < 0.0f) {
                    mix(gg, gg, 1.5f * gg + 0.4f, -amountH);
                } else {
                    float const t = amountH;
                    mix(rr, rr, 1.25f * rr + 0.2f, t);
                    mix(bb, bb, 1.5f * bb + 0.4f, t);
                }

                float const R1 = rr * 65535.0f, B1 = bb * 65535.0f;
                float const Y1 = 38469.046875f * gg + 0.299f * R1 + 0.114f * B1;
                int const x = int(sat16((R1 - Y1) * 0.5f + 32768.0f)) - 32768;
                int const y = int(sat16((B1 - Y1) * 0.5f + 32768.0f)) - 32768;

                // Chroma strength through the level's row.
                int const c = int(std::sqrt(2.0 * (double(x) * x + double(y) * y)) * 0.00390625);
                float const entry = float(row[std::clamp(c, 0, kRowBytes - 1)]);
                float const s = std::min(m_fourth, (entry + m_fourth) / (float(c) + m_fourth));

                int const idx = get3DLUTIdx(L, j, m);
                m_lutDr[idx] = std::uint16_t(sat16(float(x) * s + 32768.0f));
                m_lutDb[idx] = std::uint16_t(sat16(float(y) * s + 32768.0f));
            }
        }
    });

    m_dirty = false;
    kxPrintTimingNumber(kxTimeColorAdjLut, start);
}

bool TColorAdjD3::proc(cv::Mat const &y0, cv::Mat const &y1, cv::Mat const &dr, cv::Mat const &db,
                       cv::Mat &outDr, cv::Mat &outDb) {
    if (y0.empty() && y1.empty() && dr.empty() && db.empty()) return true;
    bool const ok = y0.type() == CV_16UC1 && y1.type() == CV_16UC1 && dr.type() == CV_16UC1 &&
                    db.type() == CV_16UC1 && y1.size() == y0.size() && dr.size() == y0.size() &&
                    db.size() == y0.size() && !y0.empty();
    kxRequire(ok, kErrProcPlanes);

    computeLUT16U();

    // Dr and Db of each knot side by side, so one load fetches both.
    std::vector<std::uint32_t> packed(kTableSize);
    for (int i = 0; i < kTableSize; ++i)
        packed[i] = std::uint32_t(m_lutDr[i]) | (std::uint32_t(m_lutDb[i]) << 16);
    std::uint32_t const *const P = packed.data();

    // Outputs may be the inputs themselves: each pixel is read before it is written, so
    // keep the inputs' headers before the outputs are (re)created.
    cv::Mat const inDr = dr, inDb = db;
    outDr.create(y0.size(), CV_16UC1);
    outDb.create(y0.size(), CV_16UC1);
    int const rows = y0.rows, cols = y0.cols;

    parallelBands(rows, std::int64_t(rows) * cols * 16, [&](int r0, int r1) {
        std::vector<std::int32_t> idx(kChunk);
        std::vector<float> w(3 * kChunk);
        std::vector<std::uint32_t> k(8 * kChunk);
        for (int row = r0; row < r1; ++row)
            lookUpRow(P, y0.ptr<std::uint16_t>(row), y1.ptr<std::uint16_t>(row),
                      inDr.ptr<std::uint16_t>(row), inDb.ptr<std::uint16_t>(row),
                      outDr.ptr<std::uint16_t>(row), outDb.ptr<std::uint16_t>(row), cols,
                      idx.data(), w.data(), k.data());
    });
    return true;
}
