// TColorAdjD3: a colour adjustment of the chroma planes through a 33 x 33 x 33 table.
//
// The table is indexed by (Y, Dr, Db) with a knot every 2048 codes and holds the new Dr and
// Db of each knot. Two amounts warm or cool the colours by raising two of R, G and B at a
// time; a fourth lifts weak chroma to a floor or cuts it off, per Y level, through a
// smoothed 8-bit tone row, and a third narrows that floor. proc first scales chroma by how
// much a second Y brightened the first, then reads the table with trilinear interpolation.
//
// Use: construct with the six ranges, setAmounts(...) per slider change, proc(...).
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TColorAdjD3 {
public:
    static constexpr int kKnots = 33;                            // knots per axis
    static constexpr int kTableSize = kKnots * kKnots * kKnots;  // 35937
    static constexpr int kRowBytes = 256;                        // one 8-bit tone row per Y level

    // r0, r1: factors of the first amount when positive / negative; r2, r3: the same for the
    // second; r4: the factor of the third amount when positive; r5: the factor of the fourth.
    // The tables start as the identity: entry (i, j, k) = (trunc(j x 2047.96875),
    // trunc(k x 2047.96875)), so knot 32 maps to 65535. The amounts start at 0, clean.
    TColorAdjD3(float r0, float r1, float r2, float r3, float r4, float r5);

    // Copies take every field, tables included (they live inside the object), and share the
    // scratch rows of the table computation, which the last owner frees. Because of that
    // shared scratch, an object and its copies must not recompute their tables on different
    // threads at the same time.
    TColorAdjD3(TColorAdjD3 const &) = default;
    TColorAdjD3 &operator=(TColorAdjD3 const &) = default;
    ~TColorAdjD3() = default;

    // The host's way in: stores the four amounts and marks the table for recomputation at
    // the next proc. a0 (ranges r0, r1) and a1 (ranges r2, r3) steer the warm/cool mix; a2
    // (range r4) narrows the chroma floor through g = (r4 - 1) a2 + 1 (a2 >= 0) or a2 + 1;
    // a3 (range r5) sets the floor (a3 > 0) or cut-off (a3 < 0) of weak chroma. The values
    // are stored even when they equal the old ones.
    void setAmounts(float a0, float a1, float a2, float a3);

    // The amounts as last set, and whether the table awaits recomputation.
    std::array<float, 4> amounts() const {
        return {m_amounts[0], m_amounts[1], m_amounts[2], m_amounts[3]};
    }
    bool dirty() const { return m_dirty; }

    // Planes, all CV_16UC1: y0 the first Y, y1 the second (brightened) Y, dr and db the
    // chroma, all four of one size (typically the half-size Y planes beside the half-size
    // Dr and Db). Per pixel: s = max(1, (y1 + 655.3) / (y0 + 655.3)); dr' = rint((Dr -
    // 32768) s + 32768) and db' likewise, saturated to 0..65535; then the tables are read
    // trilinearly at (y1, dr', db') with weights (code & 2047) / 2048, interpolating along
    // Db first, then Dr, then Y, and rounded to nearest. outDr and outDb are (re)created at
    // the input size; they may be dr and db themselves. The table is recomputed first when
    // dirty. Four empty planes return true at once; any other mismatch throws "ERROR -
    // TColorAdjD3::proc - planes must be CV_16UC1 of one size" before an output is touched.
    // Always returns true.
    bool proc(cv::Mat const &y0, cv::Mat const &y1, cv::Mat const &dr, cv::Mat const &db,
              cv::Mat &outDr, cv::Mat &outDb);

    // Position of knot (y, dr, db) in the tables: (y x 33 + dr) x 33 + db, Y slowest.
    static int get3DLUTIdx(int y, int dr, int db) { return (y * kKnots + dr) * kKnots + db; }

    // out = (1 - t) a + t b.
    static void mix(float &out, float a, float b, float t) { out = (1.0f - t) * a + t * b; }
    // Bilinear: out = (1 - s) (a (1 - t) + b t) + (c (1 - t) + d t) s; t is the inner weight.
    static void mix(float &out, float a, float b, float c, float d, float s, float t) {
        out = (1.0f - s) * (a * (1.0f - t) + b * t) + (c * (1.0f - t) + d * t) * s;
    }
    // Trilinear, the same pattern one level up: with lo the bilinear of (a, b, c, d, s, t)
    // and hi that of (e, f, g, h, s, t), out = (1 - r) lo + hi r. t is innermost, r outermost.
    static void mix(float &out, float a, float b, float c, float d, float e, float f, float g,
                    float h, float r, float s, float t) {
        float lo, hi;
        mix(lo, a, b, c, d, s, t);
        mix(hi, e, f, g, h, s, t);
        out = (1.0f - r) * lo + hi * r;
    }

protected:
    // Rebuilds both tables from the amounts when dirty, in parallel over the 33 Y levels,
    // prints "time to compute LUT for color adj: <processor seconds>" and clears dirty;
    // does nothing when clean. For each level L the row of 256 entries starts as the ramp;
    // T = trunc(a3 r5 (4 L + 64)), divided by g (truncated) when g > 1; T > 0 sets the
    // first T entries to entry T, T < 0 sets the first |T| to 0; the row is then smoothed
    // with sigma 0.3 |T| (2 passes) when that exceeds 1. Each knot goes to R, G, B, has the
    // warm/cool mixes of a0 and a1 applied, comes back to Dr1, Db1, and its chroma
    // (x, y) = (Dr1, Db1) - 32768 is scaled by s = min(4, (row[c] + 4) / (c + 4)) with
    // c = trunc(sqrt(2 (x^2 + y^2)) / 256) (row read at c limited to 255).
    // Our choice where T passes the row: a floor T > 255 reads entry 255 and fills the row,
    // a cut-off T < -256 clears all of it; sigma still comes from the unlimited T, which is
    // first held within -+2^24 so that absurd amounts cannot overflow the truncation.
    void computeLUT16U();

    float m_amounts[4] = {};               // a0..a3, as given to setAmounts
    bool m_dirty = false;                  // set by setAmounts, cleared by computeLUT16U
    std::shared_ptr<std::uint8_t> m_work;  // 33 rows of 256 bytes, one per Y level
    int m_shift = 11;                      // a knot every 2048 codes
    float m_knotScale = 2047.96875f;       // code of knot step 1: knot 32 is 65535
    float m_fourth = 4.0f;                 // offset of the floor formula and of s
    float m_range[6] = {};                 // r0..r5 from the constructor
    std::uint16_t m_lutDr[kTableSize];     // Dr of each knot
    std::uint16_t m_lutDb[kTableSize];     // Db of each knot
};
