// Work-buffer and image allocation for the pixel kernels. Internal.
//
// Buffers are aligned to kxAlign bytes for vector loads. Every allocator returns null for a
// size below 1 or when memory is exhausted; its callers treat null as an exhausted resource.
// Everything allocated here is released by pxFree, which accepts null.
#pragma once

#include <cstdint>

constexpr int kxAlign = 64;

// `len` bytes.
std::uint8_t *ippsMalloc_8u(int len);

// `len` elements of 16-bit unsigned, 32-bit signed or 32-bit float values.
std::uint16_t *pxMalloc_16u(int len);
std::int32_t *pxMalloc_32s(int len);
float *pxMalloc_32f(int len);

// An image of width x height pixels of `channels` elements each, with rows aligned to
// kxAlign bytes; the row step in bytes is stored in *step.
std::uint8_t *pxMallocImage_8u(int width, int height, int channels, int *step);
std::uint16_t *pxMallocImage_16u(int width, int height, int channels, int *step);
float *pxMallocImage_32f(int width, int height, int channels, int *step);

void pxFree(void *p);
