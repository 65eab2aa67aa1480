// Work-buffer and image allocation for the pixel kernels. Internal.
//
// Buffers are aligned to kxAlign bytes for vector loads. Every allocator returns null for a
// size below 1 or when memory is exhausted; its callers treat null as an exhausted resource.
// Everything allocated here is released by pxFree, which accepts null.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

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

// A temporary plane of rows x cols of `type`, freed with the last matrix that shares it.
// Planes of 2 MiB or more sit on 2 MiB boundaries with the kernel asked for huge pages
// there: a fresh full-size plane is otherwise touched one 4 KiB page fault at a time, and
// for a 24-megapixel photograph those faults can cost more than the work done on it. Where
// huge pages are not on offer the advice is ignored and nothing else changes.
cv::Mat pxTempPlane(int rows, int cols, int type);
