// The nearest-in-guide enlargement of a half-size chroma plane, one band of rows at a time.
// Internal.
//
// Every output pixel depends only on the rows next to it, so a band of rows can be finished
// while it is still in cache, and a caller that consumes chroma row by row (the conversion
// to the host's RGB) never needs a full-size chroma plane at all.
#pragma once

#include <cstdint>
#include <cstring>

#include <opencv2/core.hpp>

namespace nearest {

// Rows per band: a band of guide, output and scratch rows of a 6000-pixel-wide photograph
// stays within a core's second-level cache.
constexpr int kBandRows = 32;

inline std::uint16_t absDiff(std::uint16_t a, std::uint16_t b) {
    // Two saturating differences, one of them 0: exact and vectorisable on 16-bit lanes.
    return std::uint16_t((a > b ? a - b : 0) | (b > a ? b - a : 0));
}

// One candidate of the choice: its guide values and its chroma values.
struct Candidate {
    std::uint16_t const *guide;
    std::uint16_t const *value;
};

// res[2i] = the value of the candidate whose guide is nearest to t[2i], for i below n; the
// candidates are read at the same stride. A later candidate wins only when strictly nearer,
// so ties keep the earlier one. res may lie in the row that holds the candidates' values as
// long as it writes none of the pixels they read.
inline void nearestOf4(std::uint16_t const *t, Candidate c0, Candidate c1, Candidate c2,
                       Candidate c3, std::uint16_t *__restrict res, int n) {
    for (int i = 0; i < 2 * n; i += 2) {
        // Every load is unconditional, so the choices compile to selects, not branches.
        std::uint16_t const ti = t[i];
        std::uint16_t const d0 = absDiff(c0.guide[i], ti), d1 = absDiff(c1.guide[i], ti);
        std::uint16_t const d2 = absDiff(c2.guide[i], ti), d3 = absDiff(c3.guide[i], ti);
        std::uint16_t const v0 = c0.value[i], v1 = c1.value[i];
        std::uint16_t const v2 = c2.value[i], v3 = c3.value[i];
        bool const take1 = d1 < d0;
        std::uint16_t const b01 = take1 ? d1 : d0, v01 = take1 ? v1 : v0;
        bool const take2 = d2 < b01;
        std::uint16_t const b012 = take2 ? d2 : b01, v012 = take2 ? v2 : v01;
        res[i] = d3 < b012 ? v3 : v012;
    }
}

// Rows [a, b) of the enlargement of `in` to the size of the guide `y` (both CV_16UC1, y at
// least 2 x 2). row(r) is where row r lives, for r from a - 2 to b + 1 within the plane;
// rows outside [a, b) are scratch that the band fills with the placed values it reads. A
// band holds at least two rows, so that the first and last rows find their inner
// neighbour finished in the same band.
//
// The enlargement: even rows and columns receive in(r / 2, c / 2) (the last column of an
// even row the last pixel of in's row, the last row of an even height in's last row);
// odd-odd pixels take the nearest of their four diagonal corners, then the other pixels the
// nearest of up, left, right and down. Finally the first and last columns, then the first
// and last rows, copy their inner neighbours.
template <class RowOf>
void enlargeBand(cv::Mat const &y, cv::Mat const &in, int a, int b, RowOf row) {
    int const H = y.rows, W = y.cols;
    auto g = [&](int r) { return y.ptr<std::uint16_t>(r); };
    int const top = a - 2 > 0 ? a - 2 : 0;
    int const bottom = b + 1 < H - 1 ? b + 1 : H - 1;

    // Placed values. The odd columns of even rows get the same values, which is a
    // contiguous store; nothing reads them before the later steps replace them.
    for (int r = top + (top & 1); r <= bottom; r += 2) {
        std::uint16_t const *s = in.ptr<std::uint16_t>(r / 2);
        std::uint16_t *d = row(r);
        for (int j = 0; j < W / 2; ++j)
            d[2 * j] = d[2 * j + 1] = s[j];
        d[W - 1] = s[in.cols - 1];
    }
    // An even height leaves the last row without an even row of its own.
    if (H % 2 == 0 && bottom == H - 1) {
        std::uint16_t const *s = in.ptr<std::uint16_t>(in.rows - 1);
        std::uint16_t *d = row(H - 1);
        for (int c = 0; c < W; ++c)
            d[c] = s[c / 2];
    }
    // Odd rows, odd columns 1, 3, .. W - 2: the nearest of the four diagonal corners.
    int const first = a - 1 > 1 ? a - 1 : 1;
    int const last = b < H - 2 ? b : H - 2;
    for (int r = first + 1 - (first & 1); r <= last; r += 2) {
        std::uint16_t const *ou = row(r - 1), *od = row(r + 1);
        std::uint16_t const *gu = g(r - 1), *gr = g(r), *gd = g(r + 1);
        std::uint16_t *d = row(r);
        nearestOf4(gr + 1, {gu, ou}, {gu + 2, ou + 2}, {gd, od}, {gd + 2, od + 2}, d + 1,
                   (W - 1) / 2);
        if (W % 2 == 0) {
            int const c = W - 1;
            d[c] = absDiff(gd[c - 1], gr[c]) < absDiff(gu[c - 1], gr[c]) ? od[c - 1] : ou[c - 1];
        }
    }
    // The pixels with r + c odd, c below W - 1: the nearest of up, left, right and down.
    for (int r = a > 1 ? a : 1; r < b && r < H - 1; ++r) {
        int const c = 1 + (r & 1);
        std::uint16_t const *ou = row(r - 1) + c, *od = row(r + 1) + c;
        std::uint16_t const *gu = g(r - 1) + c, *gr = g(r) + c, *gd = g(r + 1) + c;
        std::uint16_t *d = row(r) + c;
        nearestOf4(gr, {gu, ou}, {gr - 1, d - 1}, {gr + 1, d + 1}, {gd, od}, d, (W - c) / 2);
    }
    // The outer columns, then the outer rows, copy their inner neighbours.
    for (int r = a; r < b; ++r) {
        std::uint16_t *d = row(r);
        d[0] = d[1];
        d[W - 1] = d[W - 2];
    }
    std::size_t const rowBytes = std::size_t(W) * sizeof(std::uint16_t);
    if (a == 0) std::memcpy(row(0), row(1), rowBytes);
    if (b == H) std::memcpy(row(H - 1), row(H - 2), rowBytes);
}

// Cuts [y0, y1) into bands of about `height` rows, none shorter than two, and calls
// band(a, b) for each in order. y1 - y0 must be at least two.
template <class Band>
void forEachBand(int y0, int y1, int height, Band band) {
    for (int a = y0; a < y1;) {
        int b = a + height < y1 ? a + height : y1;
        if (y1 - b < 2) b = y1;
        band(a, b);
        a = b;
    }
}

}  // namespace nearest
