// Types and status codes of the pixel kernels.
//
// Every kernel of kestrix1/kernels works on raw pixels under one contract:
// - a region is given by a pointer to its first pixel, a row step in BYTES and a size
//   (width, height); row steps may exceed the width, and bytes between rows are never
//   touched;
// - data are single-channel unless a name or argument says otherwise (C3, C4);
// - integer results saturate to their type's range, float results do not;
// - a kernel returns a PxStatus that is pxStsNoErr (0) on success and leaves its output
//   untouched on any other status.
// The size, point and rectangle types keep the names that the library's filters use in
// their own signatures.
#pragma once

#include <cstdint>

struct IppiSize {
    int width;
    int height;
};

struct IppiPoint {
    int x;
    int y;
};

struct IppiRect {
    int x;
    int y;
    int width;
    int height;
};

using PxStatus = int;

enum : PxStatus {
    pxStsNoErr = 0,
    pxStsError = -2,          // an unspecified failure
    pxStsBadArgErr = -5,      // an argument out of its range
    pxStsSizeErr = -6,        // a size below 1, or sizes that do not fit together
    pxStsNullPtrErr = -8,     // a null pointer
    pxStsMemAllocErr = -9,    // no memory for a work buffer
    pxStsStepErr = -14,       // a row step too small or not a multiple of the element size
    pxStsSingularErr = -195,  // a matrix without inverse
};

// Interpolation codes of pxResize.
enum : int {
    pxInterNearest = 1,
    pxInterLinear = 2,
    pxInterCubic = 4,
};
