#include "kestrix1/filters/bilateral_filter.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/kestrix.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_filter.h"
#include "kestrix1/kernels/px_memory.h"

namespace {

char const kProcSize[] = "ERROR - bool BilateralFilter::proc - inOut.size !=  edge.size";
char const kProcType[] =
    "ERROR - bool BilateralFilter::proc - inOut and edge must be CV_8UC1 or CV_16UC1";
char const kProcReuse[] =
    "ERROR - bool BilateralFilter::proc - sampleS < 2 but no grid for this image size";
char const kAlloc[] = "ERROR - BilateralFilter::alloc()";
char const kGuard[] = "BilateralFilter::dealloc() - != 0x6d6d6d6d";
char const kGuideInType[] = "ERROR - BilateralFilter::gradientGuide - in image type";
char const kGuideType[] = "ERROR - BilateralFilter::gradientGuide - image type ";
char const kGuideSize[] = "ERROR - BilateralFilter::gradientGuide - in.size != inOut.size";

constexpr std::uint32_t kGuardWord = 0x6d6d6d6d;
constexpr int kMaxCells = 252;  // the guide axis fits a byte plane
constexpr float kSigma = 0.85f;
constexpr int kPasses = 2;
constexpr float kEmptyWeight = 1e-20f;  // keeps the division defined in empty cells

bool isPlane(cv::Mat const &m) {
    return m.dims <= 2 && (m.type() == CV_8UC1 || m.type() == CV_16UC1);
}

int ceilDiv(int a, int b) {
    return a / b + (a % b != 0);
}

void writeGuard(float *at) {
    std::memcpy(at, &kGuardWord, sizeof kGuardWord);
}

bool guardIntact(float const *at) {
    std::uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word == kGuardWord;
}

// The coefficients of the recursive Gaussian.
struct Recursion {
    double nu, boundary, post;
};

Recursion recursion(float sigma, int passes) {
    float const q = sigma * sigma / float(2 * passes);
    double const nu = (2.0 * q + 1.0 - std::sqrt(4.0 * q + 1.0)) / (2.0 * q);
    double base = nu / q, post = 1.0;
    for (int e = std::abs(passes); e != 0; e >>= 1) {
        if (e & 1) post *= base;
        base *= base;
    }
    if (passes < 0) post = 1.0 / post;
    return {nu, 1.0 / (1.0 - nu), post};
}

// The recursion on `width` lines side by side: element k of line position i sits at
// d[i * step + k]. Every element sees the same operations in the same order as in a
// one-line run, so how lines are grouped never changes a bit; grouping lets independent
// lines share vector registers. The final scaling by post rides on the last downward sweep,
// once a position is no longer read.
KX_VECTOR_CLONES void recurseLines(float *d, int n, std::ptrdiff_t step, int width,
                                   Recursion const &r, int passes) {
    double const nu = r.nu, boundary = r.boundary, post = r.post;
    auto scale = [width](float *p, double f) {
        for (int k = 0; k < width; ++k)
            p[k] = float(p[k] * f);
    };
    for (int pass = 0; pass < passes; ++pass) {
        scale(d, boundary);
        for (int i = 1; i < n; ++i) {
            float *c = d + i * step;
            float const *b = c - step;
            for (int k = 0; k < width; ++k)
                c[k] = float(c[k] + nu * b[k]);
        }
        scale(d + (n - 1) * step, boundary);
        bool const last = pass == passes - 1;
        for (int i = n - 2; i >= 0; --i) {
            float *c = d + i * step, *b = c + step;
            if (last) {
                for (int k = 0; k < width; ++k) {
                    c[k] = float(c[k] + nu * b[k]);
                    b[k] = float(b[k] * post);
                }
            } else {
                for (int k = 0; k < width; ++k)
                    c[k] = float(c[k] + nu * b[k]);
            }
        }
    }
    if (passes > 0) {
        scale(d, post);
    } else {
        for (int i = 0; i < n; ++i)
            scale(d + i * step, post);
    }
}

// Rounds to nearest, ties to even, for 0 <= v < 2^22: adding and taking away 1.5 * 2^23
// leaves v rounded in the current (default, to-nearest-even) mode, and vectorises.
inline float rintSmall(float v) {
    constexpr float magic = 12582912.0f;
    return (v + magic) - magic;
}

// rint(v) saturated to lo..hi, for guide positions: |v| < 2^22 always holds for them.
inline int rintClamp(float v, int lo, int hi) {
    return std::min(std::max(int(rintSmall(v)), lo), hi);
}

inline float lerp(float a, float b, float f) {
    return a + f * (b - a);
}

// The accumulation's z cells of one guide row: rint(sat8(g * a + b)), at most `last`.
template <class G>
KX_VECTOR_CLONES void cellRow(G const *__restrict g, int n, float a, float b, int last,
                              std::uint8_t *__restrict cell) {
    for (int c = 0; c < n; ++c)
        cell[c] = std::uint8_t(std::min(rintClamp(float(g[c]) * a + b, 0, 255), last));
}

void cellRow(cv::Mat const &guide, int r, float a, float b, int last, std::uint8_t *cell) {
    if (guide.depth() == CV_8U)
        cellRow(guide.ptr<std::uint8_t>(r), guide.cols, a, b, last, cell);
    else
        cellRow(guide.ptr<std::uint16_t>(r), guide.cols, a, b, last, cell);
}

// The read-back's z cells and fractions of one guide row: z = g * a + b,
// zi = rint(sat8(z)), zf = z - zi, and the two cells min(zi, last), min(zi + 1, last).
template <class G>
KX_VECTOR_CLONES void depthRow(G const *__restrict g, int n, float a, float b, int last,
                               int *__restrict z0, int *__restrict z1, float *__restrict zf) {
    for (int c = 0; c < n; ++c) {
        float const z = float(g[c]) * a + b;
        int const zi = rintClamp(z, 0, 255);
        zf[c] = z - float(zi);
        z0[c] = std::min(zi, last);
        z1[c] = std::min(zi + 1, last);
    }
}

void depthRow(cv::Mat const &guide, int r, float a, float b, int last, int *z0, int *z1,
              float *zf) {
    if (guide.depth() == CV_8U)
        depthRow(guide.ptr<std::uint8_t>(r), guide.cols, a, b, last, z0, z1, zf);
    else
        depthRow(guide.ptr<std::uint16_t>(r), guide.cols, a, b, last, z0, z1, zf);
}

// Serial accumulation in float of one image row into its grid row. Consecutive pixels of
// one cell that fall in the same z cell are summed in registers, starting from the cell's
// value: the additions are the ones of a pixel-by-pixel pass, in the same order.
template <class T>
void accumulateRow(T const *p, std::uint8_t const *z, int n, int sampleS, int gridD, float *value,
                   float *weight) {
    for (int c0 = 0; c0 < n; c0 += sampleS, value += gridD, weight += gridD) {
        int const c1 = std::min(n, c0 + sampleS);
        int zc = z[c0];
        float v = value[zc], w = weight[zc];
        for (int c = c0; c < c1; ++c) {
            if (z[c] != zc) {
                value[zc] = v;
                weight[zc] = w;
                zc = z[c];
                v = value[zc];
                w = weight[zc];
            }
            v += float(p[c]);
            w += 1.0f;
        }
        value[zc] = v;
        weight[zc] = w;
    }
}

// The integer form of the same pass. Each cell keeps its pixel count above bit 40 and its
// sum of pixel values below, in two sets of counters (even and odd columns) so that
// neighbouring pixels of one cell do not wait on each other.
constexpr int kCountShift = 40;

template <class T>
void countRow(T const *p, std::uint8_t const *z, int const *cellAt, int n, std::uint64_t *even,
              std::uint64_t *odd) {
    constexpr std::uint64_t one = std::uint64_t(1) << kCountShift;
    int c = 0;
    for (; c + 1 < n; c += 2) {
        even[cellAt[c] + z[c]] += one + p[c];
        odd[cellAt[c + 1] + z[c + 1]] += one + p[c + 1];
    }
    if (c < n) even[cellAt[c] + z[c]] += one + p[c];
}

// Adds the counters of one grid row to its cells and clears them.
void foldRow(std::uint64_t *even, std::uint64_t *odd, std::size_t n, float *value, float *weight) {
    constexpr std::uint64_t sumMask = (std::uint64_t(1) << kCountShift) - 1;
    for (std::size_t k = 0; k < n; ++k) {
        std::uint64_t const t = even[k] + odd[k];
        value[k] += float(t & sumMask);
        weight[k] += float(t >> kCountShift);
        even[k] = odd[k] = 0;
    }
}

// Trilinear read-back of one row from the grid rows iy and iy + 1: along z, then x, then y.
KX_VECTOR_CLONES void readRow(float const *row0, float const *row1, int D, int const *xo,
                              float const *xf, int const *z0, int const *z1, float const *zf,
                              float wy, int n, float *__restrict v) {
    for (int c = 0; c < n; ++c) {
        int const i0 = xo[c] + z0[c], i1 = xo[c] + z1[c];
        float const fz = zf[c], fx = xf[c];
        float const v00 = lerp(row0[i0], row0[i1], fz);
        float const v10 = lerp(row0[i0 + D], row0[i1 + D], fz);
        float const v01 = lerp(row1[i0], row1[i1], fz);
        float const v11 = lerp(row1[i0 + D], row1[i1 + D], fz);
        v[c] = lerp(lerp(v00, v10, fx), lerp(v01, v11, fx), wy);
    }
}

// Per-thread rows of the read-back.
struct ReadScratch {
    std::vector<float> zf, v;
    std::vector<int> z0, z1;
    explicit ReadScratch(int n) : zf(n), v(n), z0(n), z1(n) {}
};

// Rounded (ties to even) and saturated. A value extrapolated far below or above the grid
// may exceed 2^22, where the rounding may be off by a unit: it saturates all the same, as
// the clamp comes before the conversion to int (NaN goes to 0).
template <class T>
KX_VECTOR_CLONES void writeRow(float const *__restrict v, int n, T *__restrict out) {
    float const hi = float(std::numeric_limits<T>::max());
    for (int c = 0; c < n; ++c)
        out[c] = T(int(std::min(hi, std::max(0.0f, rintSmall(v[c])))));
}

// Moves each row of w x d cells to d x w, and back.
void transpose(float const *src, int w, int d, float *dst) {
    for (int x = 0; x < w; ++x)
        for (int z = 0; z < d; ++z)
            dst[std::size_t(z) * w + x] = src[std::size_t(x) * d + z];
}

template <class T>
bool gradientGuideT(cv::Mat const &in, cv::Mat &inOut, int radius) {
    int const side = 2 * radius + 1;
    std::vector<std::uint8_t> mask(std::size_t(side) * side, 127);
    for (int j = -radius; j <= radius; ++j)
        for (int i = -radius; i <= radius; ++i)
            if (std::sqrt(double(i * i + j * j)) > radius + 0.5)
                mask[std::size_t(j + radius) * side + (i + radius)] = 0;
    cv::Mat U = inOut.clone(), L = inOut.clone();
    IppiSize const inner{inOut.cols - 2 * radius, inOut.rows - 2 * radius};
    if (inner.width > 0 && inner.height > 0) {
        T const *src = inOut.ptr<T>(radius) + radius;
        int const step = int(inOut.step), uStep = int(U.step), lStep = int(L.step);
        IppiSize const maskSize{side, side};
        IppiPoint const anchor{radius, radius};
        pxDilate(src, step, U.ptr<T>(radius) + radius, uStep, inner, mask.data(), maskSize, anchor);
        pxErode(src, step, L.ptr<T>(radius) + radius, lStep, inner, mask.data(), maskSize, anchor);
    }
    int const w = inOut.cols;
    parallelRows(inOut.rows, std::int64_t(inOut.total()), [&](int r) {
        T const *g = in.ptr<T>(r), *up = U.ptr<T>(r), *lo = L.ptr<T>(r);
        T *u = inOut.ptr<T>(r);
        for (int c = 0; c < w; ++c) {
            int const uc = u[c], gc = g[c], hi = up[c], low = lo[c];
            bool const upwards = hi - uc > uc - low;
            bool const moves = upwards ? (uc < gc && gc < hi) : (low < gc && gc < uc);
            u[c] = moves ? T(gc) : T(uc);
        }
    });
    return true;
}

}  // namespace

// The two grids of one sizing, each with its guard word behind the last cell.
struct BilateralFilter::Grids {
    float *weight = nullptr;
    float *value = nullptr;
    int w = 0, h = 0, d = 0;
    std::size_t cells = 0;

    Grids(int width, int height, int depth) : w(width), h(height), d(depth) {
        std::int64_t const n = std::int64_t(width) * height * depth;
        if (n < 1 || n > INT_MAX - 2) kxThrow(kAlloc);
        cells = std::size_t(n);
        weight = pxMalloc_32f(int(n + 1));
        value = pxMalloc_32f(int(n + 1));
        if (weight == nullptr || value == nullptr) {
            pxFree(weight);
            pxFree(value);
            kxThrow(kAlloc);
        }
        writeGuard(weight + cells);
        writeGuard(value + cells);
    }
    ~Grids() {
        pxFree(weight);
        pxFree(value);
    }
    Grids(Grids const &) = delete;
    Grids &operator=(Grids const &) = delete;

    bool intact() const { return guardIntact(weight + cells) && guardIntact(value + cells); }
};

BilateralFilter::BilateralFilter(BilateralFilter const &other)
    : is16Bit(other.is16Bit),
      gridW(other.gridW),
      gridH(other.gridH),
      gridD(other.gridD),
      gridWeight(other.gridWeight),
      gridValue(other.gridValue),
      guideMin(other.guideMin),
      imageW(other.imageW),
      imageH(other.imageH),
      sampleS(other.sampleS),
      sampleR(other.sampleR),
      ready(other.ready),
      m_grids(other.m_grids) {}

BilateralFilter &BilateralFilter::operator=(BilateralFilter const &other) {
    if (this == &other) return *this;
    if (m_grids != other.m_grids) dealloc();
    is16Bit = other.is16Bit;
    gridW = other.gridW;
    gridH = other.gridH;
    gridD = other.gridD;
    gridWeight = other.gridWeight;
    gridValue = other.gridValue;
    guideMin = other.guideMin;
    imageW = other.imageW;
    imageH = other.imageH;
    sampleS = other.sampleS;
    sampleR = other.sampleR;
    ready = other.ready;
    m_grids = other.m_grids;
    return *this;
}

BilateralFilter::~BilateralFilter() {
    if (!m_grids || m_grids->intact()) return;
    try {
        Kestrix::toQDebug("BilateralFilter::~BilateralFilter", __LINE__, kGuard);
    } catch (...) {
        // Nothing may leave a destructor; the report is lost, the grids are still freed.
    }
}

void BilateralFilter::dealloc() {
    if (m_grids && !m_grids->intact()) kxThrow(kGuard);
    m_grids.reset();
    gridWeight = gridValue = nullptr;
}

void BilateralFilter::alloc() {
    dealloc();
    int const w = gridW, h = gridH, d = gridD;
    gridW = gridH = gridD = 0;
    m_grids = std::make_shared<Grids>(w, h, d);
    gridWeight = m_grids->weight;
    gridValue = m_grids->value;
    gridW = w;
    gridH = h;
    gridD = d;
}

int BilateralFilter::getGridSize() const {
    return gridW * gridH * gridD;
}

float *BilateralFilter::gridPtr(int x, int y, int z) {
    return gridWeight + (std::ptrdiff_t(x) + std::ptrdiff_t(y) * gridW) * gridD + z;
}

float *BilateralFilter::gridDPtr(int x, int y, int z) {
    return gridValue + (std::ptrdiff_t(x) + std::ptrdiff_t(y) * gridW) * gridD + z;
}

bool BilateralFilter::setup(cv::Mat const &edge, int width, int height, int sS, int sR, bool is16) {
    is16Bit = is16;
    if (sS < 2) return true;
    sR = std::max(sR, 1);
    double lo = 0, hi = 0;
    cv::minMaxIdx(edge, &lo, &hi);
    double const range = hi - lo;
    int const w = ceilDiv(width, sS) + 2 + 2 * padXY;
    int const h = ceilDiv(height, sS) + 2 + 2 * padXY;
    int cells = int(range / sR);
    if (double(cells) * sR < range) ++cells;
    int d = cells + 2 + 2 * padZ;
    if (d > kMaxCells) {
        d = kMaxCells;
        sR = int(range / (kMaxCells - 2 - 2 * padZ));
    }
    bool const fresh = !m_grids || width != imageW || height != imageH || m_grids->w != w ||
                       m_grids->h != h || m_grids->d != d;
    if (fresh) {
        // The guards are checked before anything changes; the settings are stored only
        // once the new grids exist, so a failed re-size cannot pass for a sizing of this
        // image.
        dealloc();
        imageW = imageH = 0;
        gridW = w;
        gridH = h;
        gridD = d;
        alloc();
    }
    gridW = w;
    gridH = h;
    gridD = d;
    gridWeight = m_grids->weight;
    gridValue = m_grids->value;
    imageW = width;
    imageH = height;
    sampleS = sS;
    sampleR = sR;
    guideMin = int(lo);
    ready = 1;
    return true;
}

bool BilateralFilter::proc(cv::Mat const &edge, cv::Mat &inOut, int sS, int sR,
                           TProgress *progress) {
    if (inOut.empty()) return true;
    if (progress != nullptr && !progress->prog(0, 4)) return false;
    cv::Mat const guide = edge.empty() ? inOut : edge;
    kxRequire(guide.size() == inOut.size(), kProcSize);
    kxRequire(isPlane(inOut) && isPlane(guide), kProcType);
    if (sS < 2) {
        // The stored grid serves only if it is whole and was made for this image size.
        bool const usable = m_grids && imageW == inOut.cols && imageH == inOut.rows &&
                            sampleS >= 2 && sampleR >= 1 && guideMin >= 0 && guideMin <= 65535 &&
                            gridWeight == m_grids->weight && gridValue == m_grids->value &&
                            gridW == m_grids->w && gridH == m_grids->h && gridD == m_grids->d &&
                            gridW == ceilDiv(imageW, sampleS) + 2 + 2 * padXY &&
                            gridH == ceilDiv(imageH, sampleS) + 2 + 2 * padXY;
        kxRequire(usable, kProcReuse);
    }
    setup(guide, inOut.cols, inOut.rows, sS, sR, inOut.type() == CV_16UC1);
    if (progress != nullptr && !progress->prog()) return false;
    gridInit(kEmptyWeight, 0.0f);
    if (progress != nullptr && !progress->prog()) return false;
    buildGrid(inOut, guide);
    if (progress != nullptr && !progress->prog()) return false;
    interpGrid(inOut, guide);
    return progress == nullptr || progress->prog();
}

void BilateralFilter::gridInit(float weight, float value) {
    std::size_t const n = std::size_t(getGridSize());
    std::fill(gridWeight, gridWeight + n, weight);
    std::fill(gridValue, gridValue + n, value);
}

void BilateralFilter::buildGrid(cv::Mat &plane, cv::Mat const &guide) {
    int const w = plane.cols, D = gridD;
    float const a = float(1.0 / sampleR);
    float const b = float((padZ + 1) - double(guideMin) / sampleR);
    std::vector<std::uint8_t> cell(w);
    std::ptrdiff_t const rowCells = std::ptrdiff_t(gridW) * D;
    bool const bytes = plane.depth() == CV_8U;
    // Serial, in scan order. While no cell can gather more than 2^24 (sampleS^2 times the
    // largest pixel value), every partial float sum of the scan is an exact integer, so
    // integer sums added to the initial 0 and 1e-20 give the same bits, and the scan can
    // keep its counters in integers.
    if (double(sampleS) * sampleS * (bytes ? 255.0 : 65535.0) <= 16777216.0) {
        std::vector<int> cellAt(w);
        for (int c = 0; c < w; ++c)
            cellAt[c] = (padXY + 1 + c / sampleS) * D;
        std::vector<std::uint64_t> even(rowCells, 0), odd(rowCells, 0);
        for (int r = 0, gy = padXY + 1; r < plane.rows; ++gy) {
            for (int r1 = std::min(plane.rows, r + sampleS); r < r1; ++r) {
                cellRow(guide, r, a, b, D - 1, cell.data());
                if (bytes)
                    countRow(plane.ptr<std::uint8_t>(r), cell.data(), cellAt.data(), w, even.data(),
                             odd.data());
                else
                    countRow(plane.ptr<std::uint16_t>(r), cell.data(), cellAt.data(), w,
                             even.data(), odd.data());
            }
            foldRow(even.data(), odd.data(), std::size_t(rowCells), gridValue + gy * rowCells,
                    gridWeight + gy * rowCells);
        }
    } else {
        std::ptrdiff_t const first = std::ptrdiff_t(padXY + 1) * D;
        for (int r = 0; r < plane.rows; ++r) {
            cellRow(guide, r, a, b, D - 1, cell.data());
            std::ptrdiff_t const at = (padXY + 1 + r / sampleS) * rowCells + first;
            if (bytes)
                accumulateRow(plane.ptr<std::uint8_t>(r), cell.data(), w, sampleS, D,
                              gridValue + at, gridWeight + at);
            else
                accumulateRow(plane.ptr<std::uint16_t>(r), cell.data(), w, sampleS, D,
                              gridValue + at, gridWeight + at);
        }
    }
    filterGrids();
    parallelRows(gridH, getGridSize(), [&](int y) {
        float *v = gridValue + y * rowCells;
        float const *wt = gridWeight + y * rowCells;
        for (std::ptrdiff_t k = 0; k < rowCells; ++k)
            v[k] = v[k] / wt[k];
    });
}

void BilateralFilter::filterGrids() {
    Recursion const rec = recursion(kSigma, kPasses);
    int const W = gridW, H = gridH, D = gridD;
    std::ptrdiff_t const rowCells = std::ptrdiff_t(W) * D;
    std::int64_t const work = std::int64_t(getGridSize()) * 4;
    float *const grids[2] = {gridWeight, gridValue};
    // Along z, then x, within each grid row; z runs on a transposed copy of the row, where
    // its lines lie side by side.
    parallelBands(H, work, [&](int y0, int y1) {
        std::vector<float> t(static_cast<std::size_t>(rowCells));
        for (int y = y0; y < y1; ++y)
            for (float *g : grids) {
                float *row = g + y * rowCells;
                transpose(row, W, D, t.data());
                recurseLines(t.data(), D, W, W, rec, kPasses);
                transpose(t.data(), D, W, row);
                recurseLines(row, W, D, D, rec, kPasses);
            }
    });
    // Along y, in bands of columns narrow enough to stay in cache.
    int const band = std::max(1, 1024 / D);
    int const bands = ceilDiv(W, band);
    parallelRows(bands, work, [&](int i) {
        int const x0 = i * band, x1 = std::min(W, x0 + band);
        for (float *g : grids)
            recurseLines(g + std::ptrdiff_t(x0) * D, H, rowCells, (x1 - x0) * D, rec, kPasses);
    });
}

void BilateralFilter::interpGrid(cv::Mat &plane, cv::Mat const &guide) {
    int const w = plane.cols, D = gridD;
    float const a = float(1.0 / sampleR);
    float const b = float(padZ + 0.5 - double(guideMin) / sampleR);
    float const s = float(sampleS), pad = float(padXY);
    std::vector<int> xo(w);
    std::vector<float> xf(w);
    for (int c = 0; c < w; ++c) {
        float const fx = float(c) / s + pad + 0.5f;
        int const ix = int(fx);
        xo[c] = D * ix;
        xf[c] = fx - float(ix);
    }
    std::ptrdiff_t const rowCells = std::ptrdiff_t(gridW) * D;
    // Each row reads its guide row before writing the plane's, which may be the same.
    parallelChunks(
        plane.rows, 1, std::int64_t(plane.total()) * 8, [w] { return ReadScratch(w); },
        [&](ReadScratch &t, int r0, int r1) {
            for (int r = r0; r < r1; ++r) {
                float const fy = float(r) / s + pad + 0.5f;
                int const iy = int(fy);
                depthRow(guide, r, a, b, D - 1, t.z0.data(), t.z1.data(), t.zf.data());
                float const *row0 = gridValue + iy * rowCells;
                readRow(row0, row0 + rowCells, D, xo.data(), xf.data(), t.z0.data(), t.z1.data(),
                        t.zf.data(), fy - float(iy), w, t.v.data());
                if (plane.depth() == CV_8U)
                    writeRow(t.v.data(), w, plane.ptr<std::uint8_t>(r));
                else
                    writeRow(t.v.data(), w, plane.ptr<std::uint16_t>(r));
            }
        });
}

void BilateralFilter::iir(float *data, int n, int stride, float sigma, int passes) {
    if (data == nullptr || n < 1) return;
    recurseLines(data, n, stride, 1, recursion(sigma, passes), passes);
}

void BilateralFilter::interp8Points(float *p, float dx, float dy, float dz) {
    for (int i = 0; i < 4; ++i)
        p[i] = lerp(p[i], p[i + 4], dx);
    for (int i = 0; i < 2; ++i)
        p[i] = lerp(p[i], p[i + 2], dy);
    p[0] = lerp(p[0], p[1], dz);
}

bool BilateralFilter::gradientGuide(cv::Mat const &in, cv::Mat &inOut, int radius) {
    if (inOut.empty()) return true;
    int const depth = inOut.depth();
    kxRequire(in.type() == inOut.type() && (depth == CV_8U || depth == CV_16U), kGuideInType);
    kxRequire(inOut.channels() == 1 && inOut.dims <= 2, kGuideType);
    kxRequire(in.size() == inOut.size(), kGuideSize);
    radius = std::max(radius, 1);
    if (depth == CV_8U) return gradientGuideT<std::uint8_t>(in, inOut, radius);
    return gradientGuideT<std::uint16_t>(in, inOut, radius);
}
