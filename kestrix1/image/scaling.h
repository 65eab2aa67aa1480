// Scaling: single-channel planes enlarged or reduced by 2 or by n.
//
// These free functions carry planes between full size (Y) and half size (Dr, Db) and
// between the levels of the multi-resolution code. The caller allocates the output; what
// the resampler does not reach at the far edges is filled by copying the nearest inner
// column or row. Chroma can also be enlarged with the full-size luminance as guide, either
// by picking the neighbour nearest in luminance or through the guided filter.
#pragma once

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

// Method numbers of the resize functions.
//   1, 2, 4  nearest, linear and cubic resampling of square pixels (cubic is the usual one);
//   257      (upSize2X and downSize2X only) cv::pyrUp / cv::pyrDown with
//            cv::BORDER_REFLECT_101 to out's size;
//   258      (upSize2X and downSize2X only, CV_16UC1 only) integer 1-2-1 binomial filters.
// Methods 1, 2 and 4 serve CV_8UC1, CV_16UC1 and CV_32FC1. A method number outside these
// leaves no work buffer to size and throws the function's work-buffer text.
//
// The resize functions check `out` first and throw before touching it. out's size is not
// checked: target pixels are placed on the grid of the factor, from out's top-left, and the
// strips of out beyond factor x in's size are filled by extendBorder (see each function).
// Empty input returns at once after the check of `out`. A reduction along an axis shorter
// than the divisor (a plane of one row reduced by 2) would place no target pixel inside the
// source; that axis is scaled to out's length instead, so the output is always written.

// Enlarges `in` by 2 into `out`, which must be allocated, of in's type, normally of size
// 2 in.cols x 2 in.rows (one less in a dimension is usual for the half planes of an odd
// image). After resampling, extendBorder(out, 0, 0, out.cols - 2 in.cols,
// out.rows - 2 in.rows) fills what lies beyond twice in's size.
// Method 258: source pixel (i, j) goes to (2i+1, 2j+1); the even columns 2j (j >= 1) of
// those rows receive (p(i, j) >> 1) + (p(i, j-1) >> 1); each even row 2i (i >= 1) receives
// (a >> 1) + (b >> 1) of the odd rows around it at odd columns and of its odd neighbours
// left and right at even columns from 2 on; then extendBorder(out, 1, 1, ...) fills row 0,
// column 0 and the far strips. Pixels beyond out's size are dropped; an out of one row or
// one column has only border pixels with nothing inside to copy, and is left as it was.
// Throws "<time> - 106 - upSize2X : out2X is not allocated - " when out has no data, no
// elements or another type; "ERROR - up2X - type" for another type with methods 1, 2, 4
// and 258 (which needs CV_16UC1); "ERROR - up2X - ippsMalloc_8u(pBufferSize)" when the
// work buffer cannot be had.
KESTRIX1_EXPORT void upSize2X(cv::Mat const &in, cv::Mat &out, int method);

// Reduces `in` by 2 into `outHalf`, which must be allocated and of in's type, normally of
// size (in.cols + 1) / 2 x (in.rows + 1) / 2. Methods 1, 2, 4 and 257 are followed by
// extendBorder(outHalf, 0, 0, outHalf.cols - in.cols / 2, outHalf.rows - in.rows / 2).
// Method 258 (no extendBorder): with T(r, c) = (p(r, c-1) >> 2) + (p(r, c) >> 1) +
// (p(r, c+1) >> 2), out(i, j) = (T(2i, 2j+1) >> 2) + (T(2i+1, 2j+1) >> 1) +
// (T(2i+2, 2j+1) >> 2). At an even width the last column uses (p(r, cols-2) >> 1) +
// (p(r, cols-1) >> 1) in place of T, at an even height the last row uses (T(rows-2) >> 1) +
// (T(rows-1) >> 1); at an odd width or height the last output column or row is left as it
// was, as is anything beyond in.cols / 2 x in.rows / 2.
// Throws "ERROR - downSize2X - outHalf must be allocated!" when outHalf has no data, no
// elements or another type; "ERROR - down2X - type"; "ERROR - down2X - ippsMalloc_8u(pBufferSize)".
KESTRIX1_EXPORT void downSize2X(cv::Mat const &in, cv::Mat &outHalf, int method);

// Enlarges `in` by n (methods 1, 2, 4) into outNX, allocated and of in's type, then
// extendBorder(outNX, 0, 0, outNX.cols - n in.cols, outNX.rows - n in.rows). n below 1
// returns at once.
// Throws "ERROR - upSizeNX - outNX is not allocated" (no data, no elements or another
// type), "ERROR - upNX - type", "ERROR - upNX - ippsMalloc_8u(pBufferSize)".
KESTRIX1_EXPORT void upSizeNX(cv::Mat const &in, cv::Mat &outNX, int n, int method);

// Reduces `in` by n (methods 1, 2, 4) into out, allocated and of in's type, then
// extendBorder(out, 0, 0, out.cols - in.cols / n, out.rows - in.rows / n). n below 1
// returns at once.
// Throws "downSizeNX - out is not allocated" (no data or no elements), "downSizeNX - out
// type does not match input type", "ERROR - downSizeNX - type",
// "ERROR - downSizeNX - ippsMalloc_8u(pBufferSize)".
KESTRIX1_EXPORT void downSizeNX(cv::Mat const &in, cv::Mat &out, int n, int method);

// Fills border strips of m (any type) from the nearest inner column or row, in this order:
// columns 0 .. left-1 from column left; the last `right` columns from column
// cols - right - 1; rows 0 .. top-1 from row top; the last `bottom` rows from row
// rows - bottom - 1. Corners thus come from the already extended rows. A strip of 0 or less,
// or one that leaves no inner column or row to copy from, does nothing.
KESTRIX1_EXPORT void extendBorder(cv::Mat &m, int left, int top, int right, int bottom);

// Enlarges the half-size chroma plane `in` to y's size by picking, for every new pixel, the
// placed neighbour whose y is nearest to its own, so that no chroma is blended across a
// luminance edge. y, in and out are CV_16UC1; in must be at least ((y.rows + 1) / 2) x
// ((y.cols + 1) / 2) (nothing is checked). out is (re)created at y's size unless it already
// is so. Even rows and columns receive in(r / 2, c / 2) (the last column of an even row the
// last pixel of in's row, the last row of an even height in's last row); odd-odd pixels take
// the nearest of their four diagonal corners, then the other pixels the nearest of up, left,
// right, down; a later candidate wins only when strictly nearer, so ties go to the first.
// Finally the first and last columns, then the first and last rows, copy their inner
// neighbours. A y of one row or one column gives plain replication, out(r, c) =
// in(r / 2, c / 2); an empty y returns at once.
KESTRIX1_EXPORT void upSize2XGuidedByYSimple(cv::Mat y, cv::Mat const &in, cv::Mat &out);

// Enlarges `in` (half of y) to y's size.
// guided false: out is (re)created at y's size and in's type, then upSize2X(in, out, method).
// guided true: y reduced to in's size by downSize2X(y, small, 4) guides a guided filter of radius 1
// and eps 1e-4 over in, both scaled to 0..1 (by 1/255 for 8-bit data, 1/65535 otherwise),
// and the filter is applied with the full-size y as guide into out (TGFilter::proc: an out
// of depth CV_8U receives 0..255, CV_32F 0..1, other depths are left as they were; an
// empty out becomes CV_8U).
// An empty y or in returns at once.
KESTRIX1_EXPORT void upSize2XGuidedByY(cv::Mat y, cv::Mat const &in, cv::Mat &out, bool guided,
                                       int method);

// As upSize2XGuidedByY for a factor n: downSizeNX(y, small, n, 4) for the guide, upSizeNX(in, out,
// n, method) for the plain path. n below 1 returns at once.
KESTRIX1_EXPORT void upSizeNXGuidedByY(cv::Mat y, cv::Mat const &in, cv::Mat &out, int n,
                                       bool guided, int method);

// Moves every pixel of a CV_16UC1 plane to the nearer of its 3x3 local minimum and maximum
// (a tie goes to the minimum): out(r, c) = max when max - in < in - min, else min. The
// outermost rows and columns are copied unchanged. out is (re)created at in's size; it may
// be in itself. Throws "ERROR - extremeSharpen - in.type()!=CV_16UC1"; empty input returns
// at once.
KESTRIX1_EXPORT void extremeSharpen(cv::Mat const &in, cv::Mat &out);
