#include "kestrix1/kernels/px_stats.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// Counts every value of T per channel: one table of 65536 counts for each channel, filled
// by each thread for its own rows and summed afterwards.
template <class T>
std::vector<std::int64_t> valueCounts(T const *src, int step, IppiSize size, int channels) {
    constexpr int lo = std::numeric_limits<T>::min();
    constexpr int range = std::numeric_limits<T>::max() - lo + 1;
    int const threads =
        kxWorthThreads(std::int64_t(size.width) * size.height) ? omp_get_max_threads() : 1;
    std::vector<std::int64_t> counts(std::size_t(range) * channels * threads, 0);
#pragma omp parallel num_threads(threads)
    {
        std::int64_t *mine = counts.data() + std::size_t(range) * channels * omp_get_thread_num();
#pragma omp for schedule(static)
        for (int y = 0; y < size.height; ++y) {
            T const *row = pxAt(src, step, 0, y);
            for (int x = 0; x < size.width; ++x) {
                for (int c = 0; c < channels; ++c) {
                    ++mine[std::size_t(range) * c + (row[x * channels + c] - lo)];
                }
            }
        }
    }
    for (int t = 1; t < threads; ++t) {
        std::int64_t const *theirs = counts.data() + std::size_t(range) * channels * t;
        for (std::size_t i = 0; i < std::size_t(range) * channels; ++i)
            counts[i] += theirs[i];
    }
    counts.resize(std::size_t(range) * channels);
    return counts;
}

template <class T>
PxStatus histogramImpl(T const *src, int step, IppiSize size, int channels, int *const hist[],
                       int const nLevels[], int const lower[], int const upper[]) {
    if (hist == nullptr || nLevels == nullptr || lower == nullptr || upper == nullptr)
        return pxStsNullPtrErr;
    for (int c = 0; c < channels; ++c) {
        if (hist[c] == nullptr) return pxStsNullPtrErr;
        if (nLevels[c] < 2 || upper[c] <= lower[c]) return pxStsBadArgErr;
    }
    if (PxStatus s = pxCheckRegion(src, step, size, channels)) return s;
    constexpr int lo = std::numeric_limits<T>::min();
    constexpr int hi = std::numeric_limits<T>::max();
    std::vector<std::int64_t> const counts = valueCounts(src, step, size, channels);
    std::vector<int> levels;
    for (int c = 0; c < channels; ++c) {
        levels.resize(nLevels[c]);
        pxEvenLevels(levels.data(), nLevels[c], lower[c], upper[c]);
        std::int64_t const *cc = counts.data() + std::size_t(hi - lo + 1) * c;
        for (int k = 0; k + 1 < nLevels[c]; ++k) {
            int const first = std::max(levels[k], lo);
            int const last = std::min(levels[k + 1] - 1, hi);
            std::int64_t n = 0;
            for (int v = first; v <= last; ++v)
                n += cc[v - lo];
            hist[c][k] = static_cast<int>(n);
        }
    }
    return pxStsNoErr;
}

template <class T>
PxStatus minMaxImpl(T const *src, int step, IppiSize size, int channels, T *minVal, T *maxVal) {
    if (minVal == nullptr || maxVal == nullptr) return pxStsNullPtrErr;
    if (channels != 1 && channels != 3) return pxStsBadArgErr;
    if (PxStatus s = pxCheckRegion(src, step, size, channels)) return s;
    T lo[3], hi[3];
    std::fill(lo, lo + 3, std::numeric_limits<T>::max());
    std::fill(hi, hi + 3, std::numeric_limits<T>::min());
    int const n = size.width * channels;
    // Per channel of interleaved data: the channel's elements are every `channels`-th.
    for (int y = 0; y < size.height; ++y) {
        T const *row = pxAt(src, step, 0, y);
        for (int c = 0; c < channels; ++c) {
            T a = lo[c], b = hi[c];
            for (int i = c; i < n; i += channels) {
                a = std::min(a, row[i]);
                b = std::max(b, row[i]);
            }
            lo[c] = a;
            hi[c] = b;
        }
    }
    std::copy(lo, lo + channels, minVal);
    std::copy(hi, hi + channels, maxVal);
    return pxStsNoErr;
}

}  // namespace

PxStatus pxEvenLevels(int *levels, int nLevels, int lower, int upper) {
    if (levels == nullptr) return pxStsNullPtrErr;
    if (nLevels < 2) return pxStsBadArgErr;
    for (int k = 0; k < nLevels; ++k) {
        levels[k] = lower + static_cast<int>((std::int64_t(upper) - lower) * k / (nLevels - 1));
    }
    return pxStsNoErr;
}

PxStatus pxHistogramEven(std::uint16_t const *src, int step, IppiSize size, int *hist, int nLevels,
                         int lower, int upper) {
    int *const h[1] = {hist};
    return histogramImpl(src, step, size, 1, h, &nLevels, &lower, &upper);
}
PxStatus pxHistogramEven(std::int16_t const *src, int step, IppiSize size, int *hist, int nLevels,
                         int lower, int upper) {
    int *const h[1] = {hist};
    return histogramImpl(src, step, size, 1, h, &nLevels, &lower, &upper);
}
PxStatus pxHistogramEven(std::uint16_t const *src, int step, IppiSize size, int *const hist[3],
                         int const nLevels[3], int const lower[3], int const upper[3]) {
    return histogramImpl(src, step, size, 3, hist, nLevels, lower, upper);
}
PxStatus pxHistogramEven(std::int16_t const *src, int step, IppiSize size, int *const hist[3],
                         int const nLevels[3], int const lower[3], int const upper[3]) {
    return histogramImpl(src, step, size, 3, hist, nLevels, lower, upper);
}

PxStatus pxMinMax(std::uint16_t const *src, int step, IppiSize size, std::uint16_t *minVal,
                  std::uint16_t *maxVal, int channels) {
    return minMaxImpl(src, step, size, channels, minVal, maxVal);
}
PxStatus pxMinMax(std::int16_t const *src, int step, IppiSize size, std::int16_t *minVal,
                  std::int16_t *maxVal, int channels) {
    return minMaxImpl(src, step, size, channels, minVal, maxVal);
}
