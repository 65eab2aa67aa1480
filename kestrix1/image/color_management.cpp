#include "kestrix1/image/color_management.h"

#include <lcms2.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrix1/kernels/parallel.h"

namespace {

// Each pixel costs Little CMS tens of nanoseconds: far more than a copy of its three values,
// so even small images are worth a team of threads.
constexpr std::int64_t kWorkPerPixel = 16;

// Bytes of one pixel of an interleaved Little CMS format (a sample size of 0 means double).
std::ptrdiff_t pixelBytes(cmsUInt32Number format) {
    std::ptrdiff_t const sample = T_BYTES(format) == 0 ? 8 : T_BYTES(format);
    return sample * (T_CHANNELS(format) + T_EXTRA(format));
}

std::ptrdiff_t planeStep(int stride, int width) {
    return stride == 0 ? std::ptrdiff_t(width) * 2 : stride;
}

// The three planes' row y interleaved into `row` as R, G, B, each value through `in`.
template <class In>
void interleave(unsigned short *const *planes, std::ptrdiff_t step, int y, int width,
                unsigned short *row, In in) {
    unsigned short const *r = reinterpret_cast<unsigned short const *>(
        reinterpret_cast<unsigned char const *>(planes[0]) + y * step);
    unsigned short const *g = reinterpret_cast<unsigned short const *>(
        reinterpret_cast<unsigned char const *>(planes[1]) + y * step);
    unsigned short const *b = reinterpret_cast<unsigned short const *>(
        reinterpret_cast<unsigned char const *>(planes[2]) + y * step);
    for (int x = 0; x < width; ++x) {
        row[3 * x] = in(r[x]);
        row[3 * x + 1] = in(g[x]);
        row[3 * x + 2] = in(b[x]);
    }
}

// The reverse: `row` back into the planes' row y, each value through `out`.
template <class Out>
void deinterleave(unsigned short const *row, int width, unsigned short *const *planes,
                  std::ptrdiff_t step, int y, Out out) {
    unsigned short *r =
        reinterpret_cast<unsigned short *>(reinterpret_cast<unsigned char *>(planes[0]) + y * step);
    unsigned short *g =
        reinterpret_cast<unsigned short *>(reinterpret_cast<unsigned char *>(planes[1]) + y * step);
    unsigned short *b =
        reinterpret_cast<unsigned short *>(reinterpret_cast<unsigned char *>(planes[2]) + y * step);
    for (int x = 0; x < width; ++x) {
        r[x] = out(row[3 * x]);
        g[x] = out(row[3 * x + 1]);
        b[x] = out(row[3 * x + 2]);
    }
}

// The planar members: each band of rows has one scratch row of interleaved pixels, which
// the transform converts in place between `in` and `out`.
template <class In, class Out>
void convertPlanes(void *transform, unsigned short *const *planes, int stride, int width,
                   int height, In in, Out out) {
    if (width <= 0 || height <= 0) return;
    std::ptrdiff_t const step = planeStep(stride, width);
    parallelBands(height, std::int64_t(width) * height * kWorkPerPixel, [&](int y0, int y1) {
        std::vector<unsigned short> row(std::size_t(width) * 3);
        for (int y = y0; y < y1; ++y) {
            interleave(planes, step, y, width, row.data(), in);
            cmsDoTransform(transform, row.data(), row.data(), cmsUInt32Number(width));
            deinterleave(row.data(), width, planes, step, y, out);
        }
    });
}

}  // namespace

void ColorManagement::convert(unsigned char const *in, unsigned char *out, int stride, int width,
                              int height) {
    if (width <= 0 || height <= 0) return;
    std::ptrdiff_t inStep = stride, outStep = stride;
    if (stride == 0) {
        cmsUInt32Number const inFormat = cmsGetTransformInputFormat(m_transform_p);
        cmsUInt32Number const outFormat = cmsGetTransformOutputFormat(m_transform_p);
        // Planar buffers hold whole planes one after the other: no row can be cut out.
        if (T_PLANAR(inFormat) || T_PLANAR(outFormat)) {
            cmsDoTransform(m_transform_p, in, out,
                           cmsUInt32Number(width) * cmsUInt32Number(height));
            return;
        }
        inStep = pixelBytes(inFormat) * width;
        outStep = pixelBytes(outFormat) * width;
    }
    void *const transform = m_transform_p;
    parallelRows(height, std::int64_t(width) * height * kWorkPerPixel, [&](int y) {
        cmsDoTransform(transform, in + y * inStep, out + y * outStep, cmsUInt32Number(width));
    });
}

void ColorManagement::convertProPhotoToDeviceOrSRGB(unsigned short **const planes, int stride,
                                                    int width, int height) {
    convertPlanes(
        m_transform_p, planes, stride, width, height, [](unsigned short v) { return v; },
        [](unsigned short v) { return static_cast<unsigned short>(v >> 1); });
}

void ColorManagement::convertDeviceOrSRGBToProPhoto(unsigned short **const planes, int stride,
                                                    int width, int height) {
    // The mask drops the top bit of a value beyond 15 bits; twice the rest fits 16 bits.
    convertPlanes(
        m_transform_p, planes, stride, width, height,
        [](unsigned short v) { return static_cast<unsigned short>((v & 32767) << 1); },
        [](unsigned short v) { return v; });
}
