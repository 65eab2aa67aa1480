// ColorManagement: runs one ICC colour transform of Little CMS 2 over the host's buffers,
// row by row and in parallel.
//
// The host builds the profiles and the transform with Little CMS and hands over the handle;
// the library builds neither, never frees the handle and links Little CMS only to call
// cmsDoTransform. The planar members serve the host's two working spaces: "ProPhoto" is its
// 16-bit wide-gamut space of R, G, B planes (0..65535), "DeviceOrSRGB" its 15-bit output or
// display space (0..32767), so each member converts between 15 and 16 bits on its way.
//
// Several threads call cmsDoTransform on the one transform at once, so the transform must
// be made with cmsFLAGS_NOCACHE: Little CMS's one-pixel cache is written on every call and
// is not safe to share between threads. With that flag its transforms are read-only while
// they run.
#pragma once

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT ColorManagement {
public:
    // Stores the Little CMS transform handle (a cmsHTRANSFORM) that the members run. The
    // object does not own it: the host keeps it alive while the members run and frees it.
    void setTransform(void *transform) { m_transform_p = transform; }

    // Runs the transform from `in` to `out`, one row of `width` pixels at a time:
    // cmsDoTransform(handle, in + r * stride, out + r * stride, width) for each row r. The
    // byte layout of each buffer is the one the transform was made for; one stride in bytes
    // serves both, so their rows must fit in it. `in` may be `out` when both formats have the
    // same size per pixel. A stride of 0 means each buffer's rows follow one another without
    // a gap: interleaved rows are then cut at the size of a pixel of each buffer's own
    // format, and with a planar format the whole buffer is one call on the calling thread.
    void convert(unsigned char const *in, unsigned char *out, int stride, int width, int height);

    // In place on three 16-bit planes planes[0] = R, planes[1] = G, planes[2] = B, from the
    // 16-bit working space to the 15-bit output space. Each row of the three planes is
    // interleaved into a scratch row (R, G, B per pixel), transformed there, and each
    // resulting value v goes back to its plane as v >> 1: an identity transform turns 65535
    // into 32767. The transform must take and give three 16-bit channels interleaved in R,
    // G, B order (TYPE_RGB_16). `stride` is the row step of the three planes in bytes, 0 for
    // rows of exactly `width` values. Nothing happens when width or height is not positive.
    void convertProPhotoToDeviceOrSRGB(unsigned short **const planes, int stride, int width,
                                       int height);

    // The reverse: in place on the same three planes, from 15 bits to 16. Each value v is
    // taken as (v & 32767) * 2 before the transform, which then writes its 16-bit result to
    // the planes as it is. An identity transform turns 32767 into 65534, and 32768 (just out
    // of the 15-bit range) into 0, as the mask has it; hosts clamp to 32767 first if they
    // want the top instead. Same transform format, stride and empty sizes as above.
    void convertDeviceOrSRGBToProPhoto(unsigned short **const planes, int stride, int width,
                                       int height);

private:
    void *m_transform_p = nullptr;  // cmsHTRANSFORM, the host's
};
