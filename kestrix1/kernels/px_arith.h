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

// Inverse of a 3x3 matrix by LU decomposition with partial pivoting. Element (i, j) of a
// matrix is at byte offset i x stride1 + j x stride2 (a packed row-major matrix has
// stride1 = 12, stride2 = 4). `buffer` holds at least 9 floats of work space. A singular
// matrix gives pxStsSingularErr and an all-zero dst.
PxStatus pxInvert3x3(float const *src, int srcStride1, int srcStride2, float *buffer, float *dst,
                     int dstStride1, int dstStride2);
