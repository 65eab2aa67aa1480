#include "kestrix1/kernels/px_memory.h"

#include <sys/mman.h>

#include <cstdlib>
#include <limits>
#include <new>

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

namespace {

// OpenCV's allocator interface over 2 MiB-aligned blocks advised for huge pages.
class LargePageAllocator : public cv::MatAllocator {
public:
    cv::UMatData *allocate(int dims, int const *sizes, int type, void *data0, std::size_t *step,
                           cv::AccessFlag, cv::UMatUsageFlags) const override {
        std::size_t total = CV_ELEM_SIZE(type);
        for (int i = dims - 1; i >= 0; --i) {
            if (step != nullptr) {
                if (data0 != nullptr && step[i] != cv::Mat::AUTO_STEP)
                    total = step[i];
                else
                    step[i] = total;
            }
            total *= std::size_t(sizes[i]);
        }
        auto *u = new cv::UMatData(this);
        u->data = u->origdata = static_cast<uchar *>(data0 != nullptr ? data0 : take(total));
        u->size = total;
        if (data0 != nullptr) u->flags |= cv::UMatData::USER_ALLOCATED;
        return u;
    }
    bool allocate(cv::UMatData *u, cv::AccessFlag, cv::UMatUsageFlags) const override {
        return u != nullptr;
    }
    void deallocate(cv::UMatData *u) const override {
        if (u == nullptr) return;
        if (!(u->flags & cv::UMatData::USER_ALLOCATED)) std::free(u->origdata);
        delete u;
    }

private:
    static void *take(std::size_t bytes) {
        constexpr std::size_t kHuge = std::size_t(2) << 20;
        if (bytes < kHuge) {
            void *p = std::malloc(bytes > 0 ? bytes : 1);
            if (p == nullptr) throw std::bad_alloc();
            return p;
        }
        std::size_t const rounded = (bytes + kHuge - 1) / kHuge * kHuge;
        void *p = std::aligned_alloc(kHuge, rounded);
        if (p == nullptr) throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
        madvise(p, rounded, MADV_HUGEPAGE);
#endif
        return p;
    }
};

}  // namespace

cv::Mat pxTempPlane(int rows, int cols, int type) {
    static LargePageAllocator allocator;
    cv::Mat m;
    m.allocator = &allocator;
    m.create(rows, cols, type);
    return m;
}
