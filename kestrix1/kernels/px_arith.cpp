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
