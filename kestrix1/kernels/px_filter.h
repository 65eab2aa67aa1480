// Neighbourhood kernels: box mean, 5x5 Gaussian, local minimum and maximum. Internal.
//
// None of them invents border pixels: a mask reaching past the region reads the caller's
// pixels there, so the caller provides the border (for instance with
// pxReplicateBorderInPlace).
#pragma once

#include <cstdint>

#include "kestrix1/kernels/px_types.h"

// dst(x, y) = mean of the maskSize window whose anchor sits on (x, y), that is of
// src(x - anchor.x + i, y - anchor.y + j) for 0 <= i < mask.width, 0 <= j < mask.height.
// `src` points at the source pixel under the first output. Integer results are rounded to
// nearest.
PxStatus pxFilterBox(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                     IppiSize dstSize, IppiSize maskSize, IppiPoint anchor);
PxStatus pxFilterBox(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                     IppiSize dstSize, IppiSize maskSize, IppiPoint anchor);
PxStatus pxFilterBox(float const *src, int srcStep, float *dst, int dstStep, IppiSize dstSize,
                     IppiSize maskSize, IppiPoint anchor);

// The same on one region, which receives the result.
PxStatus pxFilterBoxInPlace(std::uint8_t *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor);
PxStatus pxFilterBoxInPlace(std::uint16_t *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor);
PxStatus pxFilterBoxInPlace(float *srcDst, int step, IppiSize size, IppiSize maskSize,
                            IppiPoint anchor);

// 5x5 Gaussian blur (binomial weights 1 4 6 4 1 / 16 in each direction); `src` has two
// pixels to read around the region.
PxStatus pxFilterGauss5x5(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                          IppiSize size);
PxStatus pxFilterGauss5x5(float const *src, int srcStep, float *dst, int dstStep, IppiSize size);

// Local minimum / maximum over 3x3, in place. `srcDst` points at the region, which has a
// frame of one pixel around it that is read but not written.
PxStatus pxMin3x3(std::uint16_t *srcDst, int step, IppiSize size);
PxStatus pxMax3x3(std::uint16_t *srcDst, int step, IppiSize size);

// Local minimum (erode) or maximum (dilate) over the non-zero entries of a mask of
// maskSize bytes, row by row, whose anchor sits on the output pixel. At least one entry must
// be non-zero.
PxStatus pxErode(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                 IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor);
PxStatus pxErode(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                 IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor);
PxStatus pxDilate(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep,
                  IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor);
PxStatus pxDilate(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                  IppiSize size, std::uint8_t const *mask, IppiSize maskSize, IppiPoint anchor);
