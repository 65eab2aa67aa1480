// Tests of the work-buffer and image allocators.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "kestrix1/kernels/px_memory.h"
#include "tests/support/images.h"

namespace {

// An aligned block of `bytes`, every byte written so that the sanitizers see a short one.
void use(void *p, std::size_t bytes) {
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % kxAlign, 0u);
    std::memset(p, 0x5A, bytes);
    pxFree(p);
}

// Vectors, and images whose step is a multiple of kxAlign holding a row of three channels;
// null for sizes below one and rows past 2 GB.
template <class V, class I>
void checkAllocators(V *(*vector)(int), I *(*image)(int, int, int, int *)) {
    for (int len : {1, 3, 1 << 20})
        use(vector(len), sizeof(V) * len);
    EXPECT_TRUE(vector(0) == nullptr && vector(-1) == nullptr);
    int step = -1;
    for (int width : kxtest::kAwkwardWidths) {
        I *p = image(width, 3, 3, &step);
        EXPECT_TRUE(step % kxAlign == 0 && step >= width * 3 * int(sizeof(I))) << step;
        use(p, std::size_t(step) * 3);
    }
    for (auto [w, h, c] : {std::array{0, 3, 1}, {3, 0, 1}, {3, 3, 0}, {1 << 30, 1, 4}})
        EXPECT_EQ(image(w, h, c, &step), nullptr) << w << "x" << h << "x" << c;
}

TEST(PxMemory, BlocksAreAlignedAndNullBelowOneAndTempPlanesOnHugePageBoundaries) {
    checkAllocators(ippsMalloc_8u, pxMallocImage_8u);
    checkAllocators(pxMalloc_16u, pxMallocImage_16u);
    checkAllocators(pxMalloc_32f, pxMallocImage_32f);
    use(pxMalloc_32s(1000), 4000);
    EXPECT_EQ(pxMalloc_32s(0), nullptr);
    pxFree(nullptr);
    cv::Mat const small = pxTempPlane(3, 5, CV_16UC1);
    EXPECT_TRUE(small.isContinuous() && small.size() == cv::Size(5, 3));
    cv::Mat large = pxTempPlane(1024, 1025, CV_32FC1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(large.data) % (std::size_t(2) << 20), 0u);
    large.setTo(1.0f);
    cv::Mat const shared = large;  // freed with the last holder, which the leak checker sees
    large.release();
    EXPECT_EQ(shared.at<float>(1023, 1024), 1.0f);
}

}  // namespace
