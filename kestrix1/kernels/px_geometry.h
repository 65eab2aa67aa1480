// Geometry kernels: square-pixel resize, border replication and region copy. Internal.
#pragma once

#include <cstdint>

#include "kestrix1/kernels/px_types.h"

// Bytes of work buffer that pxResize needs for these regions (at least 1). channels must be
// 1; interpolation is pxInterNearest, pxInterLinear or pxInterCubic.
PxStatus pxResizeBufferSize(IppiRect srcRoi, IppiRect dstRoi, int channels, int interpolation,
                            int *bufferBytes);

// Square-pixel resize. `src` and `dst` point at the origins of their images; srcRoi is read
// (clipped to srcSize, its edges replicated when a kernel reaches past them) and dstRoi
// limits what is written. Pixels are unit squares: the centre of target pixel x shows the
// source at u = (x + 0.5 - xShift) / xFactor - 0.5, and likewise in y. Only target pixels
// whose centres fall inside the mapped source ROI are written; the rest of dstRoi stays as
// it was. Integer results are rounded and saturated. `buffer` must hold the bytes that
// pxResizeBufferSize gives.
PxStatus pxResize(std::uint8_t const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi,
                  std::uint8_t *dst, int dstStep, IppiRect dstRoi, double xFactor, double yFactor,
                  double xShift, double yShift, int interpolation, std::uint8_t *buffer);
PxStatus pxResize(std::uint16_t const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi,
                  std::uint16_t *dst, int dstStep, IppiRect dstRoi, double xFactor, double yFactor,
                  double xShift, double yShift, int interpolation, std::uint8_t *buffer);
PxStatus pxResize(float const *src, IppiSize srcSize, int srcStep, IppiRect srcRoi, float *dst,
                  int dstStep, IppiRect dstRoi, double xFactor, double yFactor, double xShift,
                  double yShift, int interpolation, std::uint8_t *buffer);

// Copies src into dst at (leftBorderWidth, topBorderHeight) and fills the frame around it
// with the nearest edge pixel of src. `dst` points at the top-left of the larger region.
PxStatus pxCopyReplicateBorder(std::uint8_t const *src, int srcStep, IppiSize srcSize,
                               std::uint8_t *dst, int dstStep, IppiSize dstSize,
                               int topBorderHeight, int leftBorderWidth);
PxStatus pxCopyReplicateBorder(std::uint16_t const *src, int srcStep, IppiSize srcSize,
                               std::uint16_t *dst, int dstStep, IppiSize dstSize,
                               int topBorderHeight, int leftBorderWidth);
PxStatus pxCopyReplicateBorder(float const *src, int srcStep, IppiSize srcSize, float *dst,
                               int dstStep, IppiSize dstSize, int topBorderHeight,
                               int leftBorderWidth);

// The same in place: `srcDst` points at the inner region's first pixel, which lies
// (leftBorderWidth, topBorderHeight) inside a region of dstSize; only the frame is written.
PxStatus pxReplicateBorderInPlace(std::uint8_t *srcDst, int step, IppiSize srcSize,
                                  IppiSize dstSize, int topBorderHeight, int leftBorderWidth);
PxStatus pxReplicateBorderInPlace(std::uint16_t *srcDst, int step, IppiSize srcSize,
                                  IppiSize dstSize, int topBorderHeight, int leftBorderWidth);
PxStatus pxReplicateBorderInPlace(float *srcDst, int step, IppiSize srcSize, IppiSize dstSize,
                                  int topBorderHeight, int leftBorderWidth);

// Copies a region of `channels` interleaved elements a pixel (1, 3 or 4).
PxStatus pxCopy(std::uint8_t const *src, int srcStep, std::uint8_t *dst, int dstStep, IppiSize size,
                int channels = 1);
PxStatus pxCopy(std::uint16_t const *src, int srcStep, std::uint16_t *dst, int dstStep,
                IppiSize size, int channels = 1);
PxStatus pxCopy(float const *src, int srcStep, float *dst, int dstStep, IppiSize size,
                int channels = 1);
