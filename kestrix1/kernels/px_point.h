// Point kernels: tables, colour matrices, fills, thresholds and ramps. Internal.
//
// Each output pixel depends only on the input pixel at the same place, so every kernel that
// takes a source and a destination also works with the two being the same region.
#pragma once

#include <cstdint>

#include "kestrix1/kernels/px_types.h"

// dst = table[src & (2^nBitSize - 1)]: the low nBitSize bits of the source index the table,
// which has 2^nBitSize entries (nBitSize 1..8 for 8-bit sources, 1..16 for 16-bit ones).
PxStatus pxLutPalette(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, std::uint8_t const *table, int nBitSize);
PxStatus pxLutPalette(std::uint16_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, std::uint8_t const *table, int nBitSize);
PxStatus pxLutPalette(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                      IppiSize size, std::uint16_t const *table, int nBitSize);

// Three-channel colour matrix: with the 12 floats t as a 3x4 matrix by rows, output channel
// k = rint(t[4k] c0 + t[4k+1] c1 + t[4k+2] c2 + t[4k+3]), saturated, computed in float.
// Packed forms take interleaved pixels (C3); planar forms take three plane pointers that
// share one step (P3). The one-region forms overwrite their input.
PxStatus pxColorTwist(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                      IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                      IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                      IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint8_t *srcDst, int step, IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint16_t *srcDst, int step, IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::int16_t *srcDst, int step, IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint8_t const *const src[3], int srcStep, std::uint8_t *const dst[3],
                      int dstStep, IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint16_t const *const src[3], int srcStep, std::uint16_t *const dst[3],
                      int dstStep, IppiSize size, float const twist[12]);
PxStatus pxColorTwist(std::uint8_t *const srcDst[3], int step, IppiSize size,
                      float const twist[12]);
PxStatus pxColorTwist(std::uint16_t *const srcDst[3], int step, IppiSize size,
                      float const twist[12]);

// srcDst ^= value (255 inverts a mask).
PxStatus pxXorC(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value);

// Fills a region, or a vector of len elements, with value.
PxStatus pxSet(std::uint8_t *dst, int step, IppiSize size, std::uint8_t value);
PxStatus pxSet(std::uint16_t *dst, int step, IppiSize size, std::uint16_t value);
PxStatus pxSet(float *dst, int step, IppiSize size, float value);
PxStatus pxSet(std::uint8_t *dst, int len, std::uint8_t value);
PxStatus pxSet(std::uint16_t *dst, int len, std::uint16_t value);
PxStatus pxSet(float *dst, int len, float value);

// Sets the pixels of dst whose mask byte is non-zero.
PxStatus pxSetMasked(std::uint8_t *dst, int step, IppiSize size, std::uint8_t value,
                     std::uint8_t const *mask, int maskStep);
PxStatus pxSetMasked(std::uint16_t *dst, int step, IppiSize size, std::uint16_t value,
                     std::uint8_t const *mask, int maskStep);
PxStatus pxSetMasked(float *dst, int step, IppiSize size, float value, std::uint8_t const *mask,
                     int maskStep);

// In place: values below threshold are raised to it.
PxStatus pxThresholdLess(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t threshold);

// dst = src limited to [low, high].
PxStatus pxThresholdLessGreater(std::uint8_t const *src, int srcStep, std::uint8_t *dst,
                                int dstStep, IppiSize size, std::uint8_t low, std::uint8_t high);

// In place: srcDst - value, saturated at 0.
PxStatus pxSubC(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value);

// In place: srcDst x value / 2^scaleFactor, rounded to nearest (ties to even) and saturated
// at 255. scaleFactor is 0..16.
PxStatus pxMulCScale(std::uint8_t *srcDst, int step, IppiSize size, std::uint8_t value,
                     int scaleFactor);

// dst[i] = offset + slope x i, computed in float. Integer types give the truncation of
// value + 0.5, 0 for negative values and the type's maximum from maximum - 0.5 up.
PxStatus pxVectorRamp(std::uint8_t *dst, int len, float offset, float slope);
PxStatus pxVectorRamp(std::uint16_t *dst, int len, float offset, float slope);
PxStatus pxVectorRamp(float *dst, int len, float offset, float slope);

// Piecewise-linear table through nLevels (level, value) pairs with rising levels. A pixel v
// with levels[k] <= v < levels[k+1] becomes
//   values[k] + (v - levels[k]) (values[k+1] - values[k]) / (levels[k+1] - levels[k])
// in 64-bit integers, the division truncating towards zero, saturated. A pixel outside
// [levels[0], levels[nLevels-1]) stays as it is. The C3 forms take interleaved pixels and
// one list of pairs per channel.
PxStatus pxLutLinear(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize size, int const *values, int const *levels, int nLevels);
PxStatus pxLutLinear(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                     IppiSize size, int const *values, int const *levels, int nLevels);
PxStatus pxLutLinear(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize size, int const *const values[3], int const *const levels[3],
                     int const nLevels[3]);
PxStatus pxLutLinear(std::int16_t const *src, int srcStep, std::int16_t *dst, int dstStep,
                     IppiSize size, int const *const values[3], int const *const levels[3],
                     int const nLevels[3]);

// The table that pxLutLinear applies to 16-bit signed pixels, for loops that fuse it with
// other work: table[v + 32768] is the pixel v mapped through the nLevels pairs.
PxStatus pxLutLinearTable(int const *values, int const *levels, int nLevels, std::int16_t *table);

// dst = exp(src) over n floats (src and dst may be one run). OpenCV's vector exponential is
// used on at least 32 elements at a time, so that every element goes through the same code
// whatever the length of the run: results do not depend on how a plane is cut into rows,
// strips or thread shares.
void pxExpRun(float const *src, float *dst, int n);
