#include "kestrix1/kernels/px_memory.h"

#include <cstdlib>
#include <limits>

namespace {

void *alignedBytes(std::int64_t bytes) {
    if (bytes < 1) return nullptr;
    void *p = nullptr;
    if (posix_memalign(&p, kxAlign, static_cast<size_t>(bytes)) != 0) return nullptr;
    return p;
}

template <class T>
T *alignedElements(int len) {
    return static_cast<T *>(alignedBytes(static_cast<std::int64_t>(len) * sizeof(T)));
}

template <class T>
T *alignedImage(int width, int height, int channels, int *step) {
    if (width < 1 || height < 1 || channels < 1 || step == nullptr) return nullptr;
    std::int64_t const row = static_cast<std::int64_t>(width) * channels * sizeof(T);
    std::int64_t const aligned = (row + kxAlign - 1) / kxAlign * kxAlign;
    if (aligned > std::numeric_limits<int>::max()) return nullptr;
    T *p = static_cast<T *>(alignedBytes(aligned * height));
    if (p != nullptr) *step = static_cast<int>(aligned);
    return p;
}

}  // namespace

std::uint8_t *ippsMalloc_8u(int len) {
    return alignedElements<std::uint8_t>(len);
}
std::uint16_t *pxMalloc_16u(int len) {
    return alignedElements<std::uint16_t>(len);
}
std::int32_t *pxMalloc_32s(int len) {
    return alignedElements<std::int32_t>(len);
}
float *pxMalloc_32f(int len) {
    return alignedElements<float>(len);
}

std::uint8_t *pxMallocImage_8u(int width, int height, int channels, int *step) {
    return alignedImage<std::uint8_t>(width, height, channels, step);
}

std::uint16_t *pxMallocImage_16u(int width, int height, int channels, int *step) {
    return alignedImage<std::uint16_t>(width, height, channels, step);
}

float *pxMallocImage_32f(int width, int height, int channels, int *step) {
    return alignedImage<float>(width, height, channels, step);
}

void pxFree(void *p) {
    std::free(p);
}
