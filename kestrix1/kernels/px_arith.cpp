#include "kestrix1/kernels/px_arith.h"

#include <cmath>
#include <cstdint>
#include <utility>

#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_view.h"

namespace {

// dst = op(a, b), element by element, in parallel over rows. dst may be b.
template <class Op>
PxStatus binary(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
                IppiSize size, Op op) {
    if (PxStatus s = pxFirstError({pxCheckRegion(a, aStep, size), pxCheckRegion(b, bStep, size),
                                   pxCheckRegion(dst, dstStep, size)}))
        return s;
    parallelRows(size.height, pxArea(size), [&](int y) {
        float const *pa = pxAt(a, aStep, 0, y);
        float const *pb = pxAt(b, bStep, 0, y);
        float *pd = pxAt(dst, dstStep, 0, y);
#pragma omp simd
        for (int x = 0; x < size.width; ++x)
            pd[x] = op(pa[x], pb[x]);
    });
    return pxStsNoErr;
}

// dst = op(a), element by element. dst may be a.
template <class Op>
PxStatus unary(float const *a, int aStep, float *dst, int dstStep, IppiSize size, Op op) {
    if (PxStatus s =
            pxFirstError({pxCheckRegion(a, aStep, size), pxCheckRegion(dst, dstStep, size)}))
        return s;
    parallelRows(size.height, pxArea(size), [&](int y) {
        float const *pa = pxAt(a, aStep, 0, y);
        float *pd = pxAt(dst, dstStep, 0, y);
#pragma omp simd
        for (int x = 0; x < size.width; ++x)
            pd[x] = op(pa[x]);
    });
    return pxStsNoErr;
}

auto const addOp = [](float a, float b) { return a + b; };
auto const subOp = [](float a, float b) { return b - a; };
auto const mulOp = [](float a, float b) { return a * b; };
auto const divOp = [](float a, float b) { return b / a; };
auto const sqrOp = [](float a) { return a * a; };

float &at(float *m, int stride1, int stride2, int i, int j) {
    return *reinterpret_cast<float *>(reinterpret_cast<std::uint8_t *>(m) + i * stride1 +
                                      j * stride2);
}

float at(float const *m, int stride1, int stride2, int i, int j) {
    return *reinterpret_cast<float const *>(reinterpret_cast<std::uint8_t const *>(m) +
                                            i * stride1 + j * stride2);
}

}  // namespace

PxStatus pxAdd(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size) {
    return binary(a, aStep, b, bStep, dst, dstStep, size, addOp);
}
PxStatus pxAdd(float const *a, int aStep, float *b, int bStep, IppiSize size) {
    return binary(a, aStep, b, bStep, b, bStep, size, addOp);
}
PxStatus pxSub(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size) {
    return binary(a, aStep, b, bStep, dst, dstStep, size, subOp);
}
PxStatus pxSub(float const *a, int aStep, float *b, int bStep, IppiSize size) {
    return binary(a, aStep, b, bStep, b, bStep, size, subOp);
}
PxStatus pxMul(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size) {
    return binary(a, aStep, b, bStep, dst, dstStep, size, mulOp);
}
PxStatus pxMul(float const *a, int aStep, float *b, int bStep, IppiSize size) {
    return binary(a, aStep, b, bStep, b, bStep, size, mulOp);
}
PxStatus pxDiv(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size) {
    return binary(a, aStep, b, bStep, dst, dstStep, size, divOp);
}
PxStatus pxDiv(float const *a, int aStep, float *b, int bStep, IppiSize size) {
    return binary(a, aStep, b, bStep, b, bStep, size, divOp);
}
PxStatus pxSqr(float const *a, int aStep, float *dst, int dstStep, IppiSize size) {
    return unary(a, aStep, dst, dstStep, size, sqrOp);
}
PxStatus pxSqr(float *a, int aStep, IppiSize size) {
    return unary(a, aStep, a, aStep, size, sqrOp);
}
PxStatus pxAddC(float const *a, int aStep, float value, float *dst, int dstStep, IppiSize size) {
    return unary(a, aStep, dst, dstStep, size, [value](float v) { return v + value; });
}
PxStatus pxAddC(float *a, int aStep, IppiSize size, float value) {
    return unary(a, aStep, a, aStep, size, [value](float v) { return v + value; });
}

PxStatus pxInvert3x3(float const *src, int srcStride1, int srcStride2, float *buffer, float *dst,
                     int dstStride1, int dstStride2) {
    if (src == nullptr || buffer == nullptr || dst == nullptr) return pxStsNullPtrErr;
    // LU of the matrix in the buffer, rows permuted by perm.
    float *lu = buffer;
    int perm[3] = {0, 1, 2};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            lu[3 * i + j] = at(src, srcStride1, srcStride2, i, j);
    bool singular = false;
    for (int k = 0; k < 3 && !singular; ++k) {
        int p = k;
        for (int i = k + 1; i < 3; ++i)
            if (std::fabs(lu[3 * i + k]) > std::fabs(lu[3 * p + k])) p = i;
        if (lu[3 * p + k] == 0.0f) {
            singular = true;
            break;
        }
        if (p != k) {
            for (int j = 0; j < 3; ++j)
                std::swap(lu[3 * p + j], lu[3 * k + j]);
            std::swap(perm[p], perm[k]);
        }
        for (int i = k + 1; i < 3; ++i) {
            float const f = lu[3 * i + k] / lu[3 * k + k];
            lu[3 * i + k] = f;
            for (int j = k + 1; j < 3; ++j)
                lu[3 * i + j] -= f * lu[3 * k + j];
        }
    }
    if (singular) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                at(dst, dstStride1, dstStride2, i, j) = 0.0f;
        return pxStsSingularErr;
    }
    // Solve L U x = P e_j for each column j of the inverse.
    for (int j = 0; j < 3; ++j) {
        float x[3];
        for (int i = 0; i < 3; ++i) {
            float v = perm[i] == j ? 1.0f : 0.0f;
            for (int k = 0; k < i; ++k)
                v -= lu[3 * i + k] * x[k];
            x[i] = v;
        }
        for (int i = 2; i >= 0; --i) {
            float v = x[i];
            for (int k = i + 1; k < 3; ++k)
                v -= lu[3 * i + k] * x[k];
            x[i] = v / lu[3 * i + i];
        }
        for (int i = 0; i < 3; ++i)
            at(dst, dstStride1, dstStride2, i, j) = x[i];
    }
    return pxStsNoErr;
}
