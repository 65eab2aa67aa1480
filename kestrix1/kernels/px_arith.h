// Single-precision arithmetic on float regions, and the 3x3 matrix inverse. Internal.
//
// Operand order follows the kernels' convention: for a source a and a second operand b,
// pxSub gives b - a and pxDiv gives b / a. Each operation also has a form that overwrites
// its second operand b. No form tests for division by zero or saturates.
#pragma once

#include "kestrix1/kernels/px_types.h"

// dst = a + b; b = a + b.
PxStatus pxAdd(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size);
PxStatus pxAdd(float const *a, int aStep, float *b, int bStep, IppiSize size);

// dst = b - a; b = b - a.
PxStatus pxSub(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size);
PxStatus pxSub(float const *a, int aStep, float *b, int bStep, IppiSize size);

// dst = a x b; b = a x b.
PxStatus pxMul(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size);
PxStatus pxMul(float const *a, int aStep, float *b, int bStep, IppiSize size);

// dst = b / a; b = b / a.
PxStatus pxDiv(float const *a, int aStep, float const *b, int bStep, float *dst, int dstStep,
               IppiSize size);
PxStatus pxDiv(float const *a, int aStep, float *b, int bStep, IppiSize size);

// dst = a x a; a = a x a.
PxStatus pxSqr(float const *a, int aStep, float *dst, int dstStep, IppiSize size);
PxStatus pxSqr(float *a, int aStep, IppiSize size);

// dst = a + value; a = a + value.
PxStatus pxAddC(float const *a, int aStep, float value, float *dst, int dstStep, IppiSize size);
PxStatus pxAddC(float *a, int aStep, IppiSize size, float value);

// Inverse of a 3x3 matrix: the adjugate (transposed cofactors) over the determinant, with
// one division and no branch, so that a per-pixel loop around it can vectorise. Element
// (i, j) of a matrix is at byte offset i x stride1 + j x stride2 (a packed row-major matrix
// has stride1 = 12, stride2 = 4). `buffer` (at least 9 floats) is work space the contract
// provides; this method needs none. A matrix of determinant 0 gives pxStsSingularErr and an
// all-zero dst.
inline PxStatus pxInvert3x3(float const *src, int srcStride1, int srcStride2, float *buffer,
                            float *dst, int dstStride1, int dstStride2) {
    if (src == nullptr || buffer == nullptr || dst == nullptr) return pxStsNullPtrErr;
    auto in = [&](int i, int j) {
        return *reinterpret_cast<float const *>(reinterpret_cast<char const *>(src) +
                                                i * srcStride1 + j * srcStride2);
    };
    float const a = in(0, 0), b = in(0, 1), c = in(0, 2);
    float const d = in(1, 0), e = in(1, 1), f = in(1, 2);
    float const g = in(2, 0), h = in(2, 1), k = in(2, 2);
    float const c00 = e * k - f * h, c01 = f * g - d * k, c02 = d * h - e * g;
    float const det = a * c00 + b * c01 + c * c02;
    float const scale = det != 0.0f ? 1.0f / det : 0.0f;
    float const inv[9] = {c00 * scale, (c * h - b * k) * scale, (b * f - c * e) * scale,
                          c01 * scale, (a * k - c * g) * scale, (c * d - a * f) * scale,
                          c02 * scale, (b * g - a * h) * scale, (a * e - b * d) * scale};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            *reinterpret_cast<float *>(reinterpret_cast<char *>(dst) + i * dstStride1 +
                                       j * dstStride2) = inv[3 * i + j];
    return det != 0.0f ? pxStsNoErr : pxStsSingularErr;
}
