// Tests of the work-buffer and image allocators.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "kestrix1/kernels/px_memory.h"

namespace {

// A block must be aligned and hold `bytes`: every byte is written, so that a short block
// shows up under the sanitizers.
void use(void *p, std::size_t bytes) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % kxAlign, 0u);
    std::memset(p, 0x5A, bytes);
    pxFree(p);
}

template <class T>
void checkVectors(T *(*alloc)(int)) {
    for (int len : {1, 3, 64, 1000, 1 << 20})
        use(alloc(len), sizeof(T) * len);
    EXPECT_EQ(alloc(0), nullptr);
    EXPECT_EQ(alloc(-1), nullptr);
}

// Rows are aligned too: the step is a multiple of kxAlign that holds a row.
template <class T>
void checkImages(T *(*alloc)(int, int, int, int *)) {
    int step = -1;
    for (int channels : {1, 3, 4})
        for (int width : {1, 7, 33, 4099}) {
            T *p = alloc(width, 3, channels, &step);
            EXPECT_EQ(step % kxAlign, 0) << width << " x " << channels;
            EXPECT_GE(step, width * channels * int(sizeof(T))) << width << " x " << channels;
            use(p, std::size_t(step) * 3);
        }
    for (auto [w, h, c] : {std::array{0, 3, 1}, {3, 0, 1}, {3, 3, 0}, {-2, 3, 1}})
        EXPECT_EQ(alloc(w, h, c, &step), nullptr) << w << "x" << h << "x" << c;
}

TEST(PxMemory, BlocksAreAlignedAndNullBelowOne) {
    checkVectors(ippsMalloc_8u);
    checkVectors(pxMalloc_16u);
    checkVectors(pxMalloc_32s);
    checkVectors(pxMalloc_32f);
    checkImages(pxMallocImage_8u);
    checkImages(pxMallocImage_16u);
    checkImages(pxMallocImage_32f);
    pxFree(nullptr);
}

}  // namespace

TEST(PxMemory, TempPlanesAreContinuousLargeOnesOnHugePageBoundaries) {
    cv::Mat const small = pxTempPlane(3, 5, CV_16UC1);
    EXPECT_TRUE(small.isContinuous());
    EXPECT_EQ(small.size(), cv::Size(5, 3));
    cv::Mat large = pxTempPlane(1024, 1025, CV_32FC1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(large.data) % (std::size_t(2) << 20), 0u);
    large.setTo(1.0f);
    cv::Mat const shared = large;  // freed with the last holder, which the leak checker sees
    large.release();
    EXPECT_EQ(shared.at<float>(1023, 1024), 1.0f);
}
