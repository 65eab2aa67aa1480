#include "kestrix1/kernels/px_halve.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

// Outputs [j0, j1) of a row halved across, one at a time with the edges replicated. Every
// partial sum is a multiple of 1/32 below 2^17 in magnitude, so float holds it exactly and
// the integer sum scaled once is what any order of float additions gives.
void acrossRange(std::uint16_t const *src, int srcWidth, float *dst, int j0, int j1) {
    auto at = [&](int x) { return int(src[std::clamp(x, 0, srcWidth - 1)]); };
    for (int j = j0; j < j1; ++j) {
        int const s = kNear * (at(2 * j) + at(2 * j + 1)) + kFar * (at(2 * j - 1) + at(2 * j + 2));
        dst[j] = float(s) * 0.03125f;
    }
}

KX_VECTOR_CLONES void across(std::uint16_t const *__restrict src, int srcWidth,
                             float *__restrict dst) {
    int const w = srcWidth / 2;
    acrossRange(src, srcWidth, dst, 0, 1);
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
    acrossRange(src, srcWidth, dst, std::max(w - 1, 1), w);
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

#if KX_HAVE_AVX2_PATHS
// Across with one multiply-add of 16-bit pairs per pair of taps: pixels 2j - 1, 2j weigh
// (-3, 19) and pixels 2j + 1, 2j + 2 weigh (19, -3). The pairs are signed, so the pixels are
// moved down by 32768 first and the weights' sum (32) times that is added back. Outputs from
// j while below `end`, eight at a time; returns the first not done.
KX_AVX2_TARGET int acrossAvx2(std::uint16_t const *__restrict src, float *__restrict dst, int j,
                              int end) {
    __m256i const flip = _mm256_set1_epi16(-32768);
    __m256i const before = _mm256_set1_epi32(int(std::uint32_t(kNear) << 16 | std::uint16_t(kFar)));
    __m256i const after = _mm256_set1_epi32(int(std::uint32_t(std::uint16_t(kFar)) << 16 | kNear));
    __m256i const back = _mm256_set1_epi32(32 * 32768);
    __m256 const scale = _mm256_set1_ps(0.03125f);
    for (; j + 8 <= end; j += 8) {
        __m256i const a = _mm256_xor_si256(
            _mm256_loadu_si256(reinterpret_cast<__m256i const *>(src + 2 * j - 1)), flip);
        __m256i const b = _mm256_xor_si256(
            _mm256_loadu_si256(reinterpret_cast<__m256i const *>(src + 2 * j + 1)), flip);
        __m256i const s = _mm256_add_epi32(
            _mm256_add_epi32(_mm256_madd_epi16(a, before), _mm256_madd_epi16(b, after)), back);
        _mm256_storeu_ps(dst + j, _mm256_mul_ps(_mm256_cvtepi32_ps(s), scale));
    }
    return j;
}

// Eight outputs down in the order cv::resize adds them, rounded to nearest even (the default
// mode), as 32-bit integers.
KX_AVX2_TARGET inline __m256i downSum8(float const *r0, float const *r1, float const *r2,
                                       float const *r3) {
    __m256 const far = _mm256_set1_ps(kFarF), near = _mm256_set1_ps(kNearF);
    __m256 t = _mm256_mul_ps(_mm256_loadu_ps(r3), far);
    t = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(r2), near), t);
    t = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(r1), near), t);
    t = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(r0), far), t);
    return _mm256_cvtps_epi32(t);
}

// Down sixteen outputs at a time while below `end`; returns the first not done.
KX_AVX2_TARGET int downAvx2(float const *__restrict r0, float const *__restrict r1,
                            float const *__restrict r2, float const *__restrict r3, int x,
                            int end, std::uint16_t *__restrict dst) {
    for (; x + 16 <= end; x += 16) {
        __m256i const packed =
            _mm256_packus_epi32(downSum8(r0 + x, r1 + x, r2 + x, r3 + x),
                                downSum8(r0 + x + 8, r1 + x + 8, r2 + x + 8, r3 + x + 8));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + x),
                            _mm256_permute4x64_epi64(packed, 0xd8));
    }
    return x;
}

KX_AVX512_TARGET inline __m512i downSum16(float const *r0, float const *r1, float const *r2,
                                          float const *r3) {
    __m512 const far = _mm512_set1_ps(kFarF), near = _mm512_set1_ps(kNearF);
    __m512 t = _mm512_mul_ps(_mm512_loadu_ps(r3), far);
    t = _mm512_add_ps(_mm512_mul_ps(_mm512_loadu_ps(r2), near), t);
    t = _mm512_add_ps(_mm512_mul_ps(_mm512_loadu_ps(r1), near), t);
    t = _mm512_add_ps(_mm512_mul_ps(_mm512_loadu_ps(r0), far), t);
    return _mm512_maskz_cvtps_epi32(0xFFFF, t);
}

// Thirty-two outputs at a time; the conversion in its zero-masking form with every lane
// kept, the same instruction without the undefined operand g++ 12 warns of. The pack
// interleaves its halves by 128-bit quarters; the permute puts the quarters back in order.
KX_AVX512_TARGET int downAvx512(float const *__restrict r0, float const *__restrict r1,
                                float const *__restrict r2, float const *__restrict r3, int x,
                                int end, std::uint16_t *__restrict dst) {
    __m512i const order = _mm512_set_epi64(7, 5, 3, 1, 6, 4, 2, 0);
    for (; x + 32 <= end; x += 32) {
        __m512i const packed =
            _mm512_packus_epi32(downSum16(r0 + x, r1 + x, r2 + x, r3 + x),
                                downSum16(r0 + x + 16, r1 + x + 16, r2 + x + 16, r3 + x + 16));
        _mm512_storeu_si512(dst + x, _mm512_maskz_permutexvar_epi64(0xFF, order, packed));
    }
    return x;
}
#endif

}  // namespace

void pxHalveCubicAcross(std::uint16_t const *src, int srcWidth, float *dst) {
#if KX_HAVE_AVX2_PATHS
    if (kxHasAvx2()) {
        // The first and last outputs read replicated edges; those between read whole words.
        int const w = srcWidth / 2;
        acrossRange(src, srcWidth, dst, 0, 1);
        int j = 1;
        j = acrossAvx2(src, dst, j, w - 1);
        return acrossRange(src, srcWidth, dst, j, w);
    }
#endif
    across(src, srcWidth, dst);
}

void pxHalveCubicDown(float const *r0, float const *r1, float const *r2, float const *r3, int width,
                      std::uint16_t *dst) {
    int x = 0;
#if KX_HAVE_AVX2_PATHS
    // The vector loops stop where cv::resize's own vector loop does; its tail adds in another
    // order, which the portable loop keeps.
    int const vec = width - width % kVectorLanes;
    if (kxHasAvx512()) x = downAvx512(r0, r1, r2, r3, x, vec, dst);
    if (kxHasAvx2()) x = downAvx2(r0, r1, r2, r3, x, vec, dst);
#endif
    down(r0 + x, r1 + x, r2 + x, r3 + x, width - x, dst + x);
}

void PxHalveRing::down(int i, int srcHeight, std::uint16_t *out) {
    pxHalveCubicDown(slot(pxHalveTap(i, 0, srcHeight)), slot(pxHalveTap(i, 1, srcHeight)),
                     slot(pxHalveTap(i, 2, srcHeight)), slot(pxHalveTap(i, 3, srcHeight)),
                     int(m_stride), out);
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
            ring.down(i, H, pxAt(dst, dstStep, 0, i));
        }
    });
    return pxStsNoErr;
}
