#include "kestrix1/filters/t_wls_filter.h"

#include <climits>
#include <cstdint>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/kernels/sparse_solver.h"
#include "kestrix1/kernels/vs_math.h"

// The arrays of one size, freed together when the last object sharing them lets go.
struct TWLSFilter::Buffers {
    float *weightY = nullptr, *weightX = nullptr, *diagonal = nullptr, *values = nullptr;
    int *rowStart = nullptr, *columns = nullptr;

    ~Buffers() {
        for (void *p : {static_cast<void *>(weightY), static_cast<void *>(weightX),
                        static_cast<void *>(diagonal), static_cast<void *>(values),
                        static_cast<void *>(rowStart), static_cast<void *>(columns)})
            pxFree(p);
    }
};

TWLSFilter::TWLSFilter()
    : smallDenom(0.0001f),
      smallLog(0.0001f),
      width(0),
      height(0),
      numPixels(0),
      weightY(nullptr),
      weightX(nullptr),
      diagonal(nullptr),
      matrixValues(nullptr),
      rowStart(nullptr),
      columnIndex(nullptr),
      maxNonZeros(0) {}

TWLSFilter::TWLSFilter(TWLSFilter const &other) = default;
TWLSFilter &TWLSFilter::operator=(TWLSFilter const &other) = default;
TWLSFilter::~TWLSFilter() = default;

void TWLSFilter::realloc(int w, int h) {
    if ((w == width && h == height) || w < 1 || h < 1) return;
    m_buffers.reset();
    weightY = weightX = diagonal = matrixValues = nullptr;
    rowStart = columnIndex = nullptr;
    width = height = numPixels = maxNonZeros = 0;

    std::int64_t const n = std::int64_t(w) * h;
    kxRequire(3 * n < INT_MAX, "TWLSFilter::realloc - failed");
    auto b = std::make_shared<Buffers>();
    int const n32 = int(n);
    b->weightY = pxMalloc_32f(n32);
    b->weightX = pxMalloc_32f(n32);
    b->diagonal = pxMalloc_32f(n32);
    b->values = pxMalloc_32f(3 * n32);
    b->rowStart = pxMalloc_32s(n32 + 1);
    b->columns = pxMalloc_32s(3 * n32);
    // On failure b frees whatever was made.
    kxRequire(b->weightY && b->weightX && b->diagonal && b->values && b->rowStart && b->columns,
              "TWLSFilter::realloc - failed");

    m_buffers = std::move(b);
    weightY = m_buffers->weightY;
    weightX = m_buffers->weightX;
    diagonal = m_buffers->diagonal;
    matrixValues = m_buffers->values;
    rowStart = m_buffers->rowStart;
    columnIndex = m_buffers->columns;
    width = w;
    height = h;
    numPixels = n32;
    maxNonZeros = 3 * n32;
}

namespace {

// dst = -lambda / (|a - b|^alpha + smallDenom) over n values, with t as scratch.
void weightsOf(int n, float const *a, float const *b, float lambda, float alpha, float smallDenom,
               float *t, float *dst) {
    vsSub(n, a, b, t);
    vsAbs(n, t, t);
    vsPowx(n, t, alpha, t);
    for (int i = 0; i < n; ++i) {
        t[i] += smallDenom;
        dst[i] = -lambda;
    }
    vsDiv(n, dst, t, dst);
}

}  // namespace

int TWLSFilter::Proc(float *g, int w, int h, float lambda, float alpha, float *L, bool logGuide) {
    if (w < 1 || h < 1) return 1;
    realloc(w, h);
    int const n = numPixels;

    if (logGuide) {
        for (int i = 0; i < n; ++i)
            L[i] += smallLog;
        vsLn(n, L, L);
    }

    // The couplings of each pixel with the one below and the one to its right; the last row
    // and the last column couple with nothing.
    for (int i = 0; i < n; ++i)
        weightX[i] = weightY[i] = 0.0f;
    for (int y = 0; y + 1 < h; ++y) {
        float const *row = L + std::size_t(y) * w;
        weightsOf(w, row + w, row, lambda, alpha, smallDenom, diagonal,
                  weightY + std::size_t(y) * w);
    }
    for (int y = 0; y < h; ++y) {
        float const *row = L + std::size_t(y) * w;
        weightsOf(w - 1, row + 1, row, lambda, alpha, smallDenom, diagonal,
                  weightX + std::size_t(y) * w);
    }

    // Each coupling enters the diagonals of both its pixels; as the weights are negative the
    // diagonal exceeds the sum of the magnitudes of its row, so the matrix is positive
    // definite for any guide.
    for (int i = 0; i < n; ++i)
        diagonal[i] = 1.0f;
    vsSub(n, diagonal, weightX, diagonal);
    vsSub(n, diagonal, weightY, diagonal);
    vsSub(n - 1, diagonal + 1, weightX, diagonal + 1);
    vsSub(n - w, diagonal + w, weightY, diagonal + w);

    // The upper triangle in 1-based compressed rows. The right neighbour's entry is kept at
    // the end of an image row too (as an explicit zero), so the pattern, and with it the
    // solver's analysis, depends only on the size.
    int k = 0;
    for (int i = 1; i <= n; ++i) {
        rowStart[i - 1] = k + 1;
        matrixValues[k] = diagonal[i - 1];
        columnIndex[k++] = i;
        if (w == 1) {
            if (i < n) {
                matrixValues[k] = weightX[i - 1] + weightY[i - 1];
                columnIndex[k++] = i + 1;
            }
            continue;
        }
        if (i < n) {
            matrixValues[k] = weightX[i - 1];
            columnIndex[k++] = i + 1;
        }
        if (i + w <= n) {
            matrixValues[k] = weightY[i - 1];
            columnIndex[k++] = i + w;
        }
    }
    rowStart[n] = k + 1;

    // The solver's status is not looked at: out of memory leaves g as the solver left it.
    pardisoSolverIC(n, matrixValues, rowStart, columnIndex, g, diagonal, 1, 2);
    return 1;
}
