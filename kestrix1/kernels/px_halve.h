// Exact halving of 16-bit planes with the cubic of a = -0.75. Internal.
//
// Halving is the most frequent resize of the library: every conversion from the host reduces
// three full-size planes, and every preview reduces the working planes. At exactly half size
// the cubic's weights are constants (-3/32, 19/32, 19/32, -3/32 over source pixels 2j - 1 ..
// 2j + 2, edges replicated), so the work is a fixed four-tap filter with no index tables.
//
// The results are those of cv::resize with INTER_CUBIC, bit for bit, so that the dedicated
// path and the general one never disagree: the pass across is exact in float, and the pass
// down adds its four products in the order and with the roundings that cv::resize uses (the
// first multiple of 8 columns as its vector code does, the rest left to right).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrix1/kernels/px_types.h"

// One source row halved across: dst[j] for j below srcWidth / 2. srcWidth is even.
void pxHalveCubicAcross(std::uint16_t const *src, int srcWidth, float *dst);

// One output row from four rows halved across (source rows 2i - 1 .. 2i + 2), rounded to
// nearest even and saturated.
void pxHalveCubicDown(float const *r0, float const *r1, float const *r2, float const *r3, int width,
                      std::uint16_t *dst);

// A whole plane: dst of srcSize / 2, both sides of srcSize even. Parallel over row bands.
PxStatus pxHalveCubic(std::uint16_t const *src, int srcStep, IppiSize srcSize, std::uint16_t *dst,
                      int dstStep);

// Four rows halved across, as a ring over source rows: a band of output rows walks down
// the source and keeps only the rows its next output row reads. For callers that fuse
// other work around the halving.
class PxHalveRing {
public:
    explicit PxHalveRing(int halfWidth)
        : m_stride(halfWidth), m_rows(std::size_t(4) * std::size_t(halfWidth)) {}
    // Where source row r lives while it is one of the last four put.
    float *slot(int r) { return m_rows.data() + std::size_t(r & 3) * m_stride; }
    // Output row i (of a source srcHeight rows high) from the rows it reads, which must be
    // the last put.
    void down(int i, int srcHeight, std::uint16_t *out);

private:
    std::size_t m_stride;
    std::vector<float> m_rows;
};

// The source rows an output row reads, edges replicated.
inline int pxHalveTap(int i, int k, int srcHeight) {
    int const r = 2 * i - 1 + k;
    return r < 0 ? 0 : (r >= srcHeight ? srcHeight - 1 : r);
}
