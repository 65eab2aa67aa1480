// TWLSFilter: the library's weighted-least-squares edge-preserving smoother (Farbman, Fattal,
// Lischinski and Szeliski).
//
// Given an image g and a guide L of the same size, Proc finds the image u that minimises
//
//     sum over pixels p of (u_p - g_p)^2
//   + lambda * sum over neighbour pairs (p, q) of (u_q - u_p)^2 / (|L_q - L_p|^alpha + smallDenom)
//
// that is u stays close to g and is smooth where the guide is flat, while steps of the guide
// survive. With a = -lambda / (|dL|^alpha + smallDenom) per pair, the minimum solves one
// sparse symmetric positive definite system with one unknown per pixel:
//
//     (1 - sum of the pixel's pair weights a) u_p + sum over its neighbours q of a_pq u_q = g_p.
//
// The system is solved exactly by a sparse Cholesky factorisation (kernels/sparse_solver.h),
// whose analysis depends only on the image size and is reused for the next image of that size.
// This makes it the most exact and the most costly smoother of the library: on a current PC
// a first solve takes about 2 s and 1 GB at 1 megapixel, 10 s and 3 GB at 4 megapixels, and
// both grow a little faster than the pixel count (a later solve of the same size saves the
// analysis, a fifth to a quarter of the time). Single plane, float, whole image; the work buffers stay between calls.
//
// Images are row-major runs of width * height floats without padding. Typical settings for
// the logarithm of a luminance in 0..1 are lambda 0.1 .. 2 and alpha 1.2 .. 2.
#pragma once

#include <memory>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TWLSFilter {
public:
    // Added to |dL|^alpha in every weight's denominator, so that a flat guide gives a large
    // finite weight instead of a division by zero (units of the guide to the power alpha).
    float smallDenom;
    // Added to the guide before its logarithm is taken, so that a black pixel gives
    // ln(0.0001) = -9.2 instead of -inf (units of the guide before the logarithm).
    float smallLog;
    // The size the buffers below are made for, in pixels; 0 until the first realloc or Proc.
    int width, height;
    // N = width * height, the number of unknowns and of rows of the matrix.
    int numPixels;
    // N floats: weightY[y * width + x] = -lambda / (|L(x, y+1) - L(x, y)|^alpha + smallDenom),
    // the coupling of a pixel with the one below; 0 in the last row.
    float *weightY;
    // N floats: weightX[y * width + x] = -lambda / (|L(x+1, y) - L(x, y)|^alpha + smallDenom),
    // the coupling of a pixel with the one to its right; 0 in the last column.
    float *weightX;
    // N floats: scratch for one row while the weights are made, then the matrix's main
    // diagonal 1 - (weightX and weightY of the pixel and of its left and upper neighbours),
    // then the solver's second vector.
    float *diagonal;
    // 3N floats: the values of the matrix's upper triangle, row by row, in column order.
    float *matrixValues;
    // N + 1 ints: rowStart[i] is the 1-based position in matrixValues of row i's first value
    // (its diagonal); rowStart[N] is the count of values + 1.
    int *rowStart;
    // 3N ints: the 1-based column of each value in matrixValues.
    int *columnIndex;
    // 3N: the room in matrixValues and columnIndex.
    int maxNonZeros;

    // smallDenom = smallLog = 0.0001, size 0, no buffers.
    TWLSFilter();
    // Copies the settings and the size and shares the buffers: both objects then see the same
    // arrays, which are freed with the last object that holds them. A later realloc or Proc
    // of another size gives only that object new buffers. As they write the same arrays, two
    // copies must not run Proc at the same time.
    TWLSFilter(TWLSFilter const &other);
    TWLSFilter &operator=(TWLSFilter const &other);
    ~TWLSFilter();

    // Makes the buffers for a w x h image. Does nothing when the size is unchanged or when
    // w < 1 or h < 1. Otherwise drops the old buffers and makes new ones (64-byte aligned).
    // If one cannot be made (memory exhausted, or 3 * w * h beyond the range of int), every
    // buffer is dropped, the size becomes 0 and "TWLSFilter::realloc - failed" is thrown.
    void realloc(int w, int h);

    // Smooths g (w * h floats) in place along the guide L (w * h floats). When logGuide is
    // true, L is first replaced by ln(L + smallLog), in place: the guide is then a luminance
    // in 0..1 and the weights follow its relative steps, as the eye does. lambda (>= 0) is
    // the strength of the smoothing, alpha (> 0) how sharply the weights fall with the
    // guide's steps; neither is checked. lambda 0 gives g back.
    //
    // The matrix is built as its upper triangle in compressed rows with 1-based indices: for
    // the pixel of linear index i (from 1) the diagonal, then at column i + 1 weightX (an
    // explicit zero at the end of an image row, so that the pattern depends only on the
    // size), then at column i + w weightY (when that pixel exists). A one-column image has
    // its right and lower neighbours in the same column i + 1: they make one entry there,
    // weightX + weightY. The solution is written over g.
    //
    // A zero width or height returns at once, touching nothing. Throws the text of realloc,
    // and the solver's "pardisoSolverIC - 11" or "pardisoSolverIC - 22" should the analysis
    // or factorisation fail. When the solver runs out of memory g is left as the solver left
    // it. Returns 1.
    int Proc(float *g, int w, int h, float lambda, float alpha, float *L, bool logGuide);

private:
    struct Buffers;
    // Owns the seven arrays above; shared between copies.
    std::shared_ptr<Buffers> m_buffers;
};
