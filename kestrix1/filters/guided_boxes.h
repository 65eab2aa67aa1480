// The two rounds of window means of the guided filter, fused into one pass. Internal.
//
// A guided estimate takes box means of a few per-pixel quantities (the guide, the target
// and their products), turns them into model coefficients pixel by pixel, and takes box
// means of those coefficients again. Done plane by plane, that is a dozen or more full-size
// float planes written and read back. Here each band of rows is run through both rounds at
// once with running sums: the first round keeps a running column sum of every quantity over
// the 2r+1 rows of the window, the second round keeps the last 2r+2 coefficient rows in a
// ring. Edges behave as replicated r pixels out (every mean is over (2r+1)^2 samples).
//
// Running sums are kept in double: adding and later removing the same float value then
// leaves no residue, so a running sum equals a direct sum over the window, and each mean
// is rounded to float once.
#pragma once

#include <algorithm>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "kestrix1/kernels/parallel.h"

namespace guided {

// Columns per call of a quantities functor, so that its rows stay in the first-level cache.
constexpr int kChunk = 512;

inline int clampIndex(int i, int n) {
    return i < 0 ? 0 : i >= n ? n - 1 : i;
}

// sums[k][x] += Q_k(yAdd, x) - Q_k(ySub, x) for every column, or only the addition when
// ySub < 0. quantities(y, x0, n, q) writes the K quantities of pixels x0..x0+n-1 of source
// row y into q[0..K-1].
template <int K, class Quantities>
void addRows(Quantities const &quantities, int yAdd, int ySub, int cols, double *sums,
             float *scratch) {
    float *qa[K], *qs[K];
    for (int k = 0; k < K; ++k) {
        qa[k] = scratch + k * kChunk;
        qs[k] = scratch + (K + k) * kChunk;
    }
    for (int x0 = 0; x0 < cols; x0 += kChunk) {
        int const n = std::min(kChunk, cols - x0);
        quantities(yAdd, x0, n, qa);
        if (ySub >= 0) {
            quantities(ySub, x0, n, qs);
            for (int k = 0; k < K; ++k) {
                double *s = sums + std::int64_t(k) * cols + x0;
                float const *a = qa[k], *b = qs[k];
                for (int i = 0; i < n; ++i)
                    s[i] += double(a[i]) - double(b[i]);
            }
        } else {
            for (int k = 0; k < K; ++k) {
                double *s = sums + std::int64_t(k) * cols + x0;
                float const *a = qa[k];
                for (int i = 0; i < n; ++i)
                    s[i] += double(a[i]);
            }
        }
    }
}

// means[k][x] = float(scale * sum of sums[k][clamp(x + i)] over -r <= i <= r). The K running
// sums advance together so that their dependency chains overlap.
template <int K>
void boxRow(double const *sums, int cols, int r, double scale, float *const *means) {
    double acc[K];
    for (int k = 0; k < K; ++k) {
        double const *s = sums + std::int64_t(k) * cols;
        acc[k] = 0.0;
        for (int i = -r; i <= r; ++i)
            acc[k] += s[clampIndex(i, cols)];
    }
    for (int x = 0; x < cols; ++x) {
        int const add = std::min(x + r + 1, cols - 1), sub = std::max(x - r, 0);
        for (int k = 0; k < K; ++k) {
            double const *s = sums + std::int64_t(k) * cols;
            means[k][x] = float(acc[k] * scale);
            acc[k] += s[add] - s[sub];
        }
    }
}

// Runs both rounds over a rows x cols image with window radius r.
// - quantities: as in addRows, K quantities a pixel.
// - model(y, means, coefs, own): from the K window means of row y (float rows of cols)
//   writes the M coefficient rows of row y. Rows near a band's edge are computed by both
//   bands; `own` is true for exactly one of them, so that a model may write shared planes
//   only then.
// - out[m] (CV_32F, rows x cols) receives the window means of coefficient m.
template <int K, int M, class Quantities, class Model>
void twoRounds(int rows, int cols, int r, Quantities const &quantities, Model const &model,
               cv::Mat *const out[M]) {
    if (rows <= 0 || cols <= 0) return;
    double const scale = 1.0 / (double(2 * r + 1) * double(2 * r + 1));
    int const ringRows = std::min(2 * r + 2, rows);
    std::int64_t const work = std::int64_t(rows) * cols * (K + M);
    parallelBands(rows, work, [&](int y0, int y1) {
        std::size_t const width = std::size_t(cols);
        std::vector<double> sums1(K * width), sums2(M * width);
        std::vector<float> means(K * width), scratch(2 * K * kChunk);
        std::vector<float> ring(ringRows * M * width);
        auto ringRow = [&](int y, int m) {
            return ring.data() + (std::size_t(y % ringRows) * M + m) * cols;
        };
        float *meanRows[K];
        for (int k = 0; k < K; ++k)
            meanRows[k] = means.data() + std::size_t(k) * cols;

        int const first = std::max(0, y0 - r);
        int next = first;  // next first-round row to compute
        auto firstRound = [&](int y) {
            if (y == first) {
                for (int j = -r; j <= r; ++j)
                    addRows<K>(quantities, clampIndex(y + j, rows), -1, cols, sums1.data(),
                               scratch.data());
            } else {
                addRows<K>(quantities, clampIndex(y + r, rows), clampIndex(y - r - 1, rows), cols,
                           sums1.data(), scratch.data());
            }
            boxRow<K>(sums1.data(), cols, r, scale, meanRows);
            float *coefs[M];
            for (int m = 0; m < M; ++m)
                coefs[m] = ringRow(y, m);
            model(y, static_cast<float const *const *>(meanRows), coefs, y >= y0 && y < y1);
        };
        auto firstRoundTo = [&](int y) {
            for (y = std::min(y, rows - 1); next <= y; ++next)
                firstRound(next);
        };

        auto secondRound = [&](int y, int yAdd, int ySub) {
            for (int m = 0; m < M; ++m) {
                double *s = sums2.data() + std::size_t(m) * cols;
                float const *a = ringRow(yAdd, m);
                if (ySub < 0) {
                    for (int x = 0; x < cols; ++x)
                        s[x] += double(a[x]);
                } else {
                    float const *b = ringRow(ySub, m);
                    for (int x = 0; x < cols; ++x)
                        s[x] += double(a[x]) - double(b[x]);
                }
            }
            if (y < 0) return;
            float *rowsOut[M];
            for (int m = 0; m < M; ++m)
                rowsOut[m] = out[m]->ptr<float>(y);
            boxRow<M>(sums2.data(), cols, r, scale, rowsOut);
        };

        firstRoundTo(y0 + r);
        for (int j = -r; j < r; ++j)
            secondRound(-1, clampIndex(y0 + j, rows), -1);
        secondRound(y0, clampIndex(y0 + r, rows), -1);
        for (int y = y0 + 1; y < y1; ++y) {
            firstRoundTo(y + r);
            secondRound(y, clampIndex(y + r, rows), clampIndex(y - r - 1, rows));
        }
    });
}

}  // namespace guided
