#include "kestrix1/kernels/px_halve.h"

#include <algorithm>
#include <cstring>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// The cubic's weights at exactly half size, as the integers of their 32nds.
constexpr int kNear = 19;  // 0.59375
constexpr int kFar = -3;   // -0.09375
constexpr float kNearF = 0.59375f;
constexpr float kFarF = -0.09375f;

// Columns that cv::resize finishes in its vector loop: whole groups of eight 16-bit lanes.
constexpr int kVectorLanes = 8;

constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

// Rounded to nearest even and saturated. Sums stay far below 2^22 in magnitude, where adding
// and removing 1.5 x 2^23 rounds in the current mode and, unlike a library call, vectorises.
inline std::uint16_t round16(float v) {
    int const i = int((v + 12582912.0f) - 12582912.0f);
    return std::uint16_t(std::min(std::max(i, 0), 65535));
}

// The first and second pixel of a word read from two 16-bit pixels.
inline int evenOf(std::uint32_t pair) {
    return kLittleEndian ? int(pair & 0xffffu) : int(pair >> 16);
}
inline int oddOf(std::uint32_t pair) {
    return kLittleEndian ? int(pair >> 16) : int(pair & 0xffffu);
}

KX_VECTOR_CLONES void across(std::uint16_t const *__restrict src, int srcWidth,
                             float *__restrict dst) {
    int const w = srcWidth / 2;
    // Every partial sum is a multiple of 1/32 below 2^17 in magnitude, so float holds it
    // exactly and the integer sum scaled once is what any order of float additions gives.
    auto edge = [&](int j) {
        auto at = [&](int x) { return int(src[std::clamp(x, 0, srcWidth - 1)]); };
        int const s = kNear * (at(2 * j) + at(2 * j + 1)) + kFar * (at(2 * j - 1) + at(2 * j + 2));
        dst[j] = float(s) * 0.03125f;
    };
    edge(0);
    // Pixels 2j and 2j + 1 read as one 32-bit word: contiguous loads that vectorise, where
    // loads at a stride of two do so poorly.
    for (int j = 1; j < w - 1; ++j) {
        std::uint32_t before, pair, after;
        std::memcpy(&before, src + 2 * j - 2, sizeof before);
        std::memcpy(&pair, src + 2 * j, sizeof pair);
        std::memcpy(&after, src + 2 * j + 2, sizeof after);
        int const s = kNear * (evenOf(pair) + oddOf(pair)) + kFar * (oddOf(before) + evenOf(after));
        dst[j] = float(s) * 0.03125f;
    }
    if (w > 1) edge(w - 1);
}

KX_VECTOR_CLONES void down(float const *__restrict r0, float const *__restrict r1,
                           float const *__restrict r2, float const *__restrict r3, int width,
                           std::uint16_t *__restrict dst) {
    // The products do not fit float exactly, so the order of the additions decides the last
    // bit: innermost first where cv::resize uses vectors, left to right in its tail.
    int const vec = width - width % kVectorLanes;
    for (int x = 0; x < vec; ++x)
        dst[x] = round16(r0[x] * kFarF + (r1[x] * kNearF + (r2[x] * kNearF + r3[x] * kFarF)));
    for (int x = vec; x < width; ++x)
        dst[x] = round16(r0[x] * kFarF + r1[x] * kNearF + r2[x] * kNearF + r3[x] * kFarF);
}

}  // namespace

void pxHalveCubicAcross(std::uint16_t const *src, int srcWidth, float *dst) {
    across(src, srcWidth, dst);
}

void pxHalveCubicDown(float const *r0, float const *r1, float const *r2, float const *r3, int width,
                      std::uint16_t *dst) {
    down(r0, r1, r2, r3, width, dst);
}

PxStatus pxHalveCubic(std::uint16_t const *src, int srcStep, IppiSize srcSize, std::uint16_t *dst,
                      int dstStep) {
    if (PxStatus s = pxCheckRegion(src, srcStep, srcSize)) return s;
    if (srcSize.width % 2 != 0 || srcSize.height % 2 != 0) return pxStsSizeErr;
    IppiSize const half{srcSize.width / 2, srcSize.height / 2};
    if (PxStatus s = pxCheckRegion(dst, dstStep, half)) return s;
    int const H = srcSize.height;
    parallelBands(half.height, std::int64_t(srcSize.width) * H, [&](int i0, int i1) {
        PxHalveRing ring(half.width);
        int next = pxHalveTap(i0, 0, H);
        for (int i = i0; i < i1; ++i) {
            for (int last = pxHalveTap(i, 3, H); next <= last; ++next)
                pxHalveCubicAcross(pxAt(src, srcStep, 0, next), srcSize.width, ring.slot(next));
            pxHalveCubicDown(ring.slot(pxHalveTap(i, 0, H)), ring.slot(pxHalveTap(i, 1, H)),
                             ring.slot(pxHalveTap(i, 2, H)), ring.slot(pxHalveTap(i, 3, H)),
                             half.width, pxAt(dst, dstStep, 0, i));
        }
    });
    return pxStsNoErr;
}
