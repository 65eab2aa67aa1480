// LocalFilter: local-Laplacian detail filter on a 16-bit plane (Paris, Hasinoff and Kautz).
//
// The image's Laplacian pyramid is rebuilt coefficient by coefficient from the Laplacian
// pyramids of the image pushed through a remapping curve centred on n reference grey
// levels: each output coefficient interpolates the two references that bracket the value of
// the image's Gaussian pyramid at its place (Aubry et al.'s fast variant). The remapping
// table decides how small differences are boosted or damped. proc3 builds its pyramids with
// OpenCV's 5-tap filters, proc4 and proc5 with the cheap shift-based spd and spu; proc5 also
// reads the remap from precomputed per-reference tables.
//
// Choices of this implementation:
// - spu's column loop runs c = 3, 5, ... while c < cols - 1, so every column of an even width
//   is written and a width of 4 never writes past its row.
// - A blend extrapolated in the top interval (proc3, proc4) saturates to 0..65535.
// - Tiny planes are read and written within bounds (see spd and spu).
// - remapLut and levelLuts are owned: copies are deep, so two objects never free one table.
// - The parameter form of setup leaves no entry of the table to an earlier setup: entry 1,
//   which its mirrored loop skips, takes entry 2's value before entry 0 takes entry 1's.
// - A proc holds the input's Gaussian pyramid, the output pyramid and two reference pyramids,
//   proc3 also one plane of scratch (at 24 megapixels about 140 MiB resident for proc5 and
//   185 MiB for proc3). Each reference level is blended into the output as soon as it is
//   made, and only where the input's values need it; the results are those of building every
//   pyramid whole, at any number of threads.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class TProgress;

class KESTRIX1_EXPORT LocalFilter {
public:
    // Last strength given to setup(float) or setup(float, int, int); no proc reads it.
    float strength = 0.0f;
    // Contrast of the working image: src is scaled by range around 32768 before filtering
    // (and back after), and the reference spacing is range * 65535 / n. 1.0 from the
    // constructors.
    float range = 1.0f;
    // Pyramid depth: every proc sets it to floor(log2(min(rows, cols))).
    int pyrLevels = 0;
    // n, the number of reference grey levels g_j = j * step, step = range * 65535 / n.
    int remapLevels = 0;
    // Set to 1 by the constructors; nothing reads it.
    int initialized = 1;
    // The remapping table T, 65536 entries used (65544 allocated). T[32768] = 32768 is no
    // change; entry i stands for a difference of 2 (i - 32768). The remap of a value x for
    // reference g is r_g(x) = clamp(x + 2 T[clamp(rint((x - g) / 2 + 32768), 0, 65535)]
    // - 65536, 0, 65535), all in single precision, rint ties to even.
    std::uint16_t *remapLut = nullptr;
    // Row j - 1 (65536 entries) holds r_{g_j}(x) for every x, j = 1..n-1; null until a
    // setup that builds it or setupLUT. Read by proc5 only.
    std::uint16_t *levelLuts = nullptr;

    // pyrLevels 8, n = 16 and the constructors' fixed curve.
    LocalFilter();
    // Stores both counts, range 1, and the fixed curve: the triangle below with r = 8,
    // whatever the arguments.
    LocalFilter(int pyrLevels, int remapLevels);
    // Deep copies: each object owns its tables.
    LocalFilter(LocalFilter const &other);
    LocalFilter &operator=(LocalFilter const &other);
    ~LocalFilter();

    // Stores the three values and fills T with the triangle of calRemapLut. True.
    bool setup(float strength, int pyrLevels, int remapLevels);
    // Stores strength, n = 64, and fills T with the triangle. True. levelLuts is untouched.
    bool setup(float strength);
    // The triangle: r = (int)(|strength| 32768 + 8), h = r / 2, s = +-r with strength's sign;
    // T linear through (0, 32768) (32768-r, 32768) (32768-h, 32768-s/2) (32768, 32768)
    // (32768+h, 32768+s/2) (32768+r, 32768) (65535, 32768), on the identity table, each
    // interval half open, so entry 65535 keeps 65535. The second argument is ignored.
    void calRemapLut(float strength, float ignored);

    // Table from control points: k rows of two floats (distance x in 0..1, gain y) as
    // CV_32F k x 2 or k x 1 of two channels (other depths are converted). n of 0 means 32,
    // then n is clamped to 8..256 and stored. With R = range 32768, a = R x, b = (y - 1) a:
    // T linear through (32768 -+ a, 32768 -+ b) for every row, (32768, 32768) and
    // (32768 -+ R, 32768 -+ (y_last - 1) R) (gain 1 without rows), levels sorted; then
    // T[32768 - i] = -T[32768 + i] (16-bit) for i = 1..32766, smoothed with sigma `smooth`
    // and 2 passes, then setupLUT(n). True.
    bool setup(cv::Mat const &controlPoints, int remapLevels, float smooth);
    // Table from four parameters p[0..3] (each about -1..1): T's upper half linear through
    // six knots at 32768, 34406, 36044, 39321, 45875, 65536 with y = 32768 + p[i] times
    // (1146.88, 2293.76, 3932.16, 6553.6) for negative p[i] or (3276.8, 7372.8, 8192.0,
    // 13107.2) otherwise, the last y = 65535 - 1.75 (spread of 32768 and the four), and
    // mirrored as T[32768 - i] = -T[32769 + i]; n = (int)((|p0| 42 + (1 - |p0|) 22) 1.5)
    // (33 for p0 = 0, 63 for |p0| = 1, clamped to 8..256), smoothing sigma 26213.6 / n with
    // 3 passes, then setupLUT(n). Traces "cp: x,y; ..." of the six knots through
    // Kestrix::toQDebug. True.
    bool setup(float *const params);

    // T from a curve over 0..1 given as 256 floats (one row): the identity table, then
    // linear through (i 65535 / 256, (int)((table[i] - i / 255) 32767 + 32768)). levelLuts is
    // not rebuilt. False, with T unchanged, when table does not hold 256 values.
    bool adjustRemap(cv::Mat const &table);

    // (Re)builds levelLuts with `levels` rows from the current T, step and range (rows
    // 1..levels-1 as documented at levelLuts, the last row zero). levels below 1 or above
    // 32767 leave no tables.
    void setupLUT(int levels);

    // src CV_16UC1 into dst (made src's size and type; dst may be src). Returns false when
    // progress cancels: dst then holds the scaled input. Empty src returns true at once and
    // leaves dst alone; a side of one pixel has no pyramid and dst is src again (through the
    // scaling). Throws "ERROR - LocalFilter::proc - src.type()!=CV_16UC1" for other types.
    // proc3 and proc4 blend with k = min((int)(G / step), n - 2), frac = G / step - k, which
    // extrapolates in the top interval, and print three timing lines (seconds of processor
    // time, all threads): "time to remap: " (the remap tables, and proc3's remapped planes),
    // "time to build pyramid using cv method: " or "... simple method: " (the reference
    // pyramids with the blends fused into them) and "time to reconstruct: " (the collapse).
    bool proc3(cv::Mat const &src, cv::Mat &dst, TProgress *progress);
    bool proc4(cv::Mat const &src, cv::Mat &dst, TProgress *progress);
    // As proc4 with ssubstract and sadd, the remap read from levelLuts (built first if they do
    // not cover n - 1 references), the lowest interval's both ends at g_1, f = G (1 / step)
    // and only pixels with (int)f = j of an interval j < n - 1 blended: coefficients above
    // the last reference keep the input's. Prints nothing.
    bool proc5(cv::Mat const &src, cv::Mat &dst, TProgress *progress);

    // Halves src (CV_16UC1) into dst of ((rows + 1) / 2) x ((cols + 1) / 2): output (i, j)
    // sits at input (2i + 1, 2j + 1), filtered with (1 2 1) / 4 per row then across rows,
    // each truncated; the last column averages the last two input columns with shifts, the
    // last row the last two rows, the corner is their four pixels' mean, truncated. Sizes
    // below 2 repeat the single row or column. True.
    bool spd(cv::Mat &src, cv::Mat &dst);
    // Doubles src into dst of `size` (CV_16UC1): source sample h sits at output 2h + 1, the
    // samples between are shift-averaged, the first and last rows and columns are filled
    // from their neighbours, so an odd size comes back whole. src should hold
    // ((rows + 1) / 2) x ((cols + 1) / 2) samples: a smaller one is extended by repeating
    // its last row and column; an output below 4 rows or 3 columns is the corner of the
    // output made at that least size. An empty src leaves dst alone. True.
    // spd, spu, sadd and ssubstract take CV_16UC1 planes (sadd and ssubstract two of one
    // size) and do not check them.
    bool spu(cv::Mat &src, cv::Mat &dst, cv::Size_<int> size);
    // dst = clamp(a + b - 32768, 0, 65535), made like a. True.
    bool sadd(cv::Mat &a, cv::Mat &b, cv::Mat &dst);
    // dst = clamp(a - b + 32768, 0, 65535), made like a. True.
    bool ssubstract(cv::Mat &a, cv::Mat &b, cv::Mat &dst);

private:
    enum class Variant { cvPyramid, simplePyramid, levelTables };
    bool run(cv::Mat const &src, cv::Mat &dst, TProgress *progress, Variant variant);
    void resetTable();
    void applyPairs(int const *levels, int const *values, int count);

    int m_lutRows = 0;  // rows of levelLuts that hold a reference's remap
};
