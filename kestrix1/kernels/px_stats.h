// Statistics kernels: even histograms and the extremes of a region. Internal.
#pragma once

#include <cstdint>

#include "kestrix1/kernels/px_types.h"

// The nLevels even levels from lower to upper:
// levels[k] = lower + trunc(k (upper - lower) / (nLevels - 1)).
PxStatus pxEvenLevels(int *levels, int nLevels, int lower, int upper);

// Counts the pixels of a region into the nLevels - 1 bins of pxEvenLevels(lower, upper):
// bin k holds the pixels v with levels[k] <= v < levels[k + 1]. The C3 forms count each
// channel of interleaved pixels into its own histogram with its own levels.
PxStatus pxHistogramEven(std::uint16_t const *src, int step, IppiSize size, int *hist, int nLevels,
                         int lower, int upper);
PxStatus pxHistogramEven(std::int16_t const *src, int step, IppiSize size, int *hist, int nLevels,
                         int lower, int upper);
PxStatus pxHistogramEven(std::uint16_t const *src, int step, IppiSize size, int *const hist[3],
                         int const nLevels[3], int const lower[3], int const upper[3]);
PxStatus pxHistogramEven(std::int16_t const *src, int step, IppiSize size, int *const hist[3],
                         int const nLevels[3], int const lower[3], int const upper[3]);

// The smallest and largest value of a region of 1 or 3 interleaved channels, per channel.
PxStatus pxMinMax(std::uint16_t const *src, int step, IppiSize size, std::uint16_t *minVal,
                  std::uint16_t *maxVal, int channels = 1);
PxStatus pxMinMax(std::int16_t const *src, int step, IppiSize size, std::int16_t *minVal,
                  std::int16_t *maxVal, int channels = 1);
