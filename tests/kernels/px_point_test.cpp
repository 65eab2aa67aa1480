// Tests of the point kernels: palettes, colour matrices, fills, thresholds, ramps and
// piecewise-linear tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "kestrix1/kernels/px_point.h"
#include "tests/support/images.h"

namespace {

using kxtest::PaddedMat;
using kxtest::typeOf;

template <class T>
using Lim = std::numeric_limits<T>;

// Pointers, steps and size of one kernel call.
template <class S, class D>
struct Call {
    S *s;
    int ss;
    D *d;
    int ds;
    IppiSize z;
};

// For every awkward width: run(call) from a padded region of full-range noise into a padded
// target with another step (inPlace: the target starts as a copy of the source); element i
// of row y of dst must be want(src, y, i) within tol.
template <class S, class D = S, class Want, class Run>
void eachWidth(int channels, int rows, bool inPlace, double tol, Want want, Run run) {
    for (int w : kxtest::kAwkwardWidths) {
        PaddedMat src(rows, w, typeOf<S>(channels)), dst(rows, w, typeOf<D>(channels), 8);
        kxtest::fullRangeNoise<S>(rows, w, channels, w + channels).copyTo(src.view);
        if (inPlace) src.view.copyTo(dst.view);
        ASSERT_EQ(run(Call<S, D>{src.ptr<S>(), src.step(), dst.ptr<D>(), dst.step(), {w, rows}}),
                  0);
        auto at = [&](int y, int i) { return double(src.view.ptr<S>(y)[i]); };
        int wrong = 0;
        for (int y = 0; y < rows; ++y)
            for (int i = 0; i < w * channels; ++i)
                wrong += std::fabs(dst.view.ptr<D>(y)[i] - double(want(at, y, i))) > tol;
        EXPECT_EQ(wrong, 0) << "width " << w;
        EXPECT_TRUE(dst.paddingIntact()) << "width " << w;
    }
}

// A palette of 2^bits entries, out of place and, when the types agree, in place.
template <class S, class D>
void checkPalette(int bits) {
    std::vector<D> table(std::size_t(1) << bits);
    for (std::size_t i = 0; i < table.size(); ++i)
        table[i] = D((i * 2654435761u >> 5) % (std::size_t(Lim<D>::max()) + 1));
    auto want = [&](auto s, int y, int i) { return table[unsigned(s(y, i)) % table.size()]; };
    eachWidth<S, D>(1, 3, false, 0, want, [&](auto c) {
        return pxLutPalette(c.s, c.ss, c.d, c.ds, c.z, table.data(), bits);
    });
    if (std::is_same_v<S, D>)
        eachWidth<S, D>(1, 3, true, 0, want, [&](auto c) {
            return pxLutPalette(c.d, c.ds, c.d, c.ds, c.z, table.data(), bits);
        });
}

TEST(PxLutPalette, EveryFormAndIndexWidth) {
    for (int bits : {8, 3})
        checkPalette<std::uint8_t, std::uint8_t>(bits);
    // With 8 bits only the low byte of a 16-bit pixel counts.
    for (int bits : {8, 12})
        checkPalette<std::uint16_t, std::uint8_t>(bits);
    // The full table: pixel 65535 reads its last entry.
    for (int bits : {16, 1})
        checkPalette<std::uint16_t, std::uint16_t>(bits);
}

template <class T>
class PxColorTwist : public ::testing::Test {};
using TwistTypes = ::testing::Types<std::uint8_t, std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxColorTwist, TwistTypes);

// Packed, in-place and (unsigned types) planar forms against the matrix in doubles: rounded
// to nearest (within a half, plus float error) and saturated at both ends.
TYPED_TEST(PxColorTwist, EveryFormMatchesReference) {
    using T = TypeParam;
    // All channels mixed; gains and offsets (in units of the range) push results past both
    // ends of the range.
    float const u = float(Lim<T>::max()) / 255;
    float const t[12] = {0.9f,  -0.35f,     0.52f, 12.25f * u, 0.1f,  1.3f,
                         -0.2f, -40.5f * u, -0.6f, 0.25f,      1.45f, 7.0f * u};
    double const tol = 0.5 + (sizeof(T) == 1 ? 1e-3 : 2e-2);
    auto twisted = [&](int k, double a, double b, double c) {
        double const v = t[4 * k] * a + t[4 * k + 1] * b + t[4 * k + 2] * c + t[4 * k + 3];
        return std::clamp<double>(v, Lim<T>::min(), Lim<T>::max());
    };
    auto packed = [&](auto s, int y, int i) {
        int const p = i / 3 * 3;
        return twisted(i % 3, s(y, p), s(y, p + 1), s(y, p + 2));
    };
    eachWidth<T>(3, 4, false, tol, packed,
                 [&](auto c) { return pxColorTwist(c.s, c.ss, c.d, c.ds, c.z, t); });
    eachWidth<T>(3, 4, true, tol, packed, [&](auto c) { return pxColorTwist(c.d, c.ds, c.z, t); });
    if constexpr (!std::is_signed_v<T>) {
        // Three planes of three rows stacked in one region share its step.
        auto planar = [&](auto s, int y, int i) {
            return twisted(y / 3, s(y % 3, i), s(y % 3 + 3, i), s(y % 3 + 6, i));
        };
        auto planes = [](T *p, int step) {
            int const n = 3 * step / int(sizeof(T));
            return std::array<T *, 3>{p, p + n, p + 2 * n};
        };
        eachWidth<T>(1, 9, false, tol, planar, [&](auto c) {
            T const *const in[3] = {c.s, planes(c.s, c.ss)[1], planes(c.s, c.ss)[2]};
            return pxColorTwist(in, c.ss, planes(c.d, c.ds).data(), c.ds, {c.z.width, 3}, t);
        });
        eachWidth<T>(1, 9, true, tol, planar, [&](auto c) {
            return pxColorTwist(planes(c.d, c.ds).data(), c.ds, {c.z.width, 3}, t);
        });
    }
}

TEST(PxColorTwistRounding, HalvesGoToEven) {
    float const half[12] = {0.5f, 0, 0, 0, 0, 0.5f, 0, 0, 0, 0, 0.5f, 0};
    std::uint8_t px[6] = {1, 3, 5, 7, 2, 255};
    ASSERT_EQ(pxColorTwist(px, 6, {2, 1}, half), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(px, px + 6), (std::vector<int>{0, 2, 2, 4, 1, 128}));
    std::int16_t s[3] = {-3, -5, 32767};
    ASSERT_EQ(pxColorTwist(s, 6, {1, 1}, half), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(s, s + 3), (std::vector<int>{-2, -2, 16384}));
}

// pxSet over a region and a vector, and pxSetMasked, which writes where the mask is not 0.
template <class T>
void checkFills(T value) {
    auto masked = [](int x, int y) { return (x + 2 * y) % 3 != 0; };
    auto fill = [&](auto s, int y, int i) { return masked(i, y) ? double(value) : s(y, i); };
    eachWidth<T>(1, 3, true, 0, fill, [&](auto c) {
        cv::Mat mask(c.z.height, c.z.width, CV_8U);
        for (int y = 0; y < c.z.height; ++y)
            for (int x = 0; x < c.z.width; ++x)
                mask.at<std::uint8_t>(y, x) = masked(x, y) ? 1 + x % 255 : 0;
        return pxSetMasked(c.d, c.ds, c.z, value, mask.ptr(), int(mask.step));
    });
    auto all = [&](auto, int, int) { return value; };
    eachWidth<T>(1, 3, false, 0, all, [&](auto c) { return pxSet(c.d, c.ds, c.z, value); });
    // The vector form: a single row, whose padding shows that only len elements change.
    eachWidth<T>(1, 1, false, 0, all, [&](auto c) { return pxSet(c.d, c.z.width, value); });
}

TEST(PxFill, SetAndSetMaskedWriteOnlyTheirPixels) {
    checkFills<std::uint8_t>(254);
    checkFills<std::uint16_t>(65534);
    checkFills<float>(-2.5f);
}

TEST(PxByteOperations, MatchTheirRules) {
    using B = std::uint8_t;
    eachWidth<B>(
        1, 3, true, 0, [](auto s, int y, int i) { return int(s(y, i)) ^ 0x5A; },
        [](auto c) { return pxXorC(c.d, c.ds, c.z, 0x5A); });
    eachWidth<B>(
        1, 3, true, 0, [](auto s, int y, int i) { return std::max(s(y, i), 100.0); },
        [](auto c) { return pxThresholdLess(c.d, c.ds, c.z, 100); });
    eachWidth<B>(
        1, 3, true, 0, [](auto s, int y, int i) { return std::max(s(y, i) - 77, 0.0); },
        [](auto c) { return pxSubC(c.d, c.ds, c.z, 77); });
    eachWidth<B>(
        1, 3, false, 0, [](auto s, int y, int i) { return std::clamp(s(y, i), 40.0, 200.0); },
        [](auto c) { return pxThresholdLessGreater(c.s, c.ss, c.d, c.ds, c.z, 40, 200); });
    // The widest noise holds every byte value; nearbyint rounds halves to even.
    for (int value : {0, 1, 3, 5, 100, 255})
        for (int scale : {0, 1, 2, 7, 8, 16})
            eachWidth<B>(
                1, 3, true, 0,
                [&](auto s, int y, int i) {
                    return std::min(255.0, std::nearbyint(s(y, i) * value / std::ldexp(1, scale)));
                },
                [&](auto c) { return pxMulCScale(c.d, c.ds, c.z, B(value), scale); });
    B px[2] = {3, 5};
    EXPECT_EQ(pxMulCScale(px, 2, {2, 1}, 1, 17), pxStsBadArgErr);
    EXPECT_EQ(pxMulCScale(px, 2, {2, 1}, 1, -1), pxStsBadArgErr);
    EXPECT_EQ(px[0], 3) << "changed on a failing call";
}

// Values computed in float; integers take trunc(v + 0.5), 0 below zero and the maximum from
// maximum - 0.5 up. A single row, whose padding shows that only len elements change.
template <class T>
void checkRamp(float offset, float slope) {
    double const top = Lim<T>::max();
    auto want = [&](auto, int, int i) {
        float const v = offset + slope * float(i);
        return std::is_floating_point_v<T> ? v
               : v < 0                     ? 0.0
               : v >= top - 0.5            ? top
                                           : std::trunc(double(v) + 0.5);
    };
    eachWidth<T>(1, 1, false, 0, want,
                 [&](auto c) { return pxVectorRamp(c.d, c.z.width, offset, slope); });
}

TEST(PxVectorRamp, RoundingAndSaturation) {
    // Steps of a quarter hit every rounding case exactly, both ends included.
    checkRamp<std::uint8_t>(-1.0f, 0.25f);
    checkRamp<std::uint8_t>(-3.3f, 0.7f);
    checkRamp<std::uint16_t>(65530.25f, 0.25f);
    checkRamp<std::uint16_t>(-100.0f, 17.3f);
    checkRamp<float>(0.1f, -1.0f / 3);
    std::uint8_t b[1] = {9};
    EXPECT_EQ(pxVectorRamp(b, 0, 0, 1), pxStsSizeErr);
    EXPECT_EQ(pxVectorRamp(static_cast<float *>(nullptr), 3, 0, 1), pxStsNullPtrErr);
    EXPECT_EQ(b[0], 9);
}

struct Curve {
    std::vector<int> levels, values;
};

// The mapping of px_point.h for one value, searched interval by interval.
template <class T>
double mapped(Curve const &c, double v) {
    for (std::size_t k = 0; k + 1 < c.levels.size(); ++k) {
        std::int64_t const l0 = c.levels[k], l1 = c.levels[k + 1], v0 = c.values[k];
        if (v < l0 || v >= l1) continue;
        std::int64_t const r = v0 + (std::int64_t(v) - l0) * (c.values[k + 1] - v0) / (l1 - l0);
        return double(std::clamp<std::int64_t>(r, Lim<T>::min(), Lim<T>::max()));
    }
    return v;
}

template <class T>
class PxLutLinear : public ::testing::Test {};
using LutTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxLutLinear, LutTypes);

TYPED_TEST(PxLutLinear, OneAndThreeChannelsMatchReference) {
    using T = TypeParam;
    // Rising and falling segments whose ends saturate, a one-value interval and a last
    // level at the type's maximum. Pixels below the first level or on the last stay.
    std::vector<Curve> const curves =
        std::is_same_v<T, std::uint16_t>
            ? std::vector<Curve>{{{1000, 5000, 5001, 40000, 65535}, {-200, 70000, 3, 60000, 1234}},
                                 {{0, 65535}, {65535, 0}},
                                 {{300, 301, 20000}, {9, 99999, -5}}}
            : std::vector<Curve>{{{-30000, -100, 0, 100, 32767}, {40000, -300, 10, 5, -40000}},
                                 {{-32768, 32767}, {32767, -32768}},
                                 {{-5, 7, 9000}, {-7, 9, 70000}}};
    int const *values[3], *levels[3];
    int n[3];
    for (int c = 0; c < 3; ++c)
        values[c] = curves[c].values.data(), levels[c] = curves[c].levels.data(),
        n[c] = int(curves[c].levels.size());
    for (int ch : {1, 3})
        eachWidth<T>(
            ch, 3, false, 0,
            [&](auto s, int y, int i) { return mapped<T>(curves[i % ch], s(y, i)); },
            [&](auto c) {
                // Every level of each channel's curve and the values next to it, first row.
                for (int k = 0, j = 0; k < ch; ++k, j = 0)
                    for (int l : curves[k].levels)
                        for (int e : {-1, 0, 1})
                            if (int const i = ch * j++ + k; i < c.z.width * ch)
                                c.s[i] = T(std::clamp<int>(l + e, Lim<T>::min(), Lim<T>::max()));
                return ch == 1 ? pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, values[0], levels[0], n[0])
                               : pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, values, levels, n);
            });
}

// Argument checks of the point kernels.
TEST(PxPointArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat img(3, 8, CV_8UC3, cv::Scalar(1, 2, 3));
    cv::Mat const before = img.clone();
    float const t[12] = {2, 0, 0, 1, 0, 2, 0, 1, 0, 0, 2, 1};
    std::uint8_t *p = img.ptr();
    int const step = int(img.step);
    EXPECT_EQ(pxColorTwist(p, step, p, 23, {8, 3}, t), pxStsStepErr);
    EXPECT_EQ(pxColorTwist(p, step, {8, 3}, nullptr), pxStsNullPtrErr);
    EXPECT_EQ(pxColorTwist(p, step, {0, 3}, t), pxStsSizeErr);
    std::uint8_t *planes[3] = {p, nullptr, p + 8};
    EXPECT_EQ(pxColorTwist(planes, step, {8, 3}, t), pxStsNullPtrErr);
    EXPECT_EQ(pxSet(p, 7, {8, 3}, std::uint8_t(9)), pxStsStepErr);
    EXPECT_EQ(pxSet(p, 0, std::uint8_t(9)), pxStsSizeErr);
    EXPECT_EQ(pxSetMasked(p, step, {8, 3}, std::uint8_t(9), p, 4), pxStsStepErr);
    EXPECT_EQ(pxThresholdLessGreater(p, step, p, step, {8, 3}, 200, 100), pxStsBadArgErr);
    EXPECT_EQ(pxXorC(nullptr, step, {8, 3}, 1), pxStsNullPtrErr);
    EXPECT_EQ(pxSubC(p, 3, {8, 3}, 1), pxStsStepErr);
    std::vector<std::uint16_t> table(1 << 16, 9);
    auto *w = reinterpret_cast<std::uint16_t *>(p);
    EXPECT_EQ(pxLutPalette(w, step, w, step, {12, 3}, nullptr, 8), pxStsNullPtrErr);
    EXPECT_EQ(pxLutPalette(w, step, w, step, {12, 3}, table.data(), 17), pxStsBadArgErr);
    EXPECT_EQ(pxLutPalette(w, step, w, 22, {12, 3}, table.data(), 16), pxStsStepErr);
    EXPECT_EQ(pxLutPalette(p, step, p, step, {24, 3}, p, 0), pxStsBadArgErr);
    EXPECT_EQ(pxLutPalette(p, step, p, step, {24, 3}, p, 9), pxStsBadArgErr);
    EXPECT_EQ(pxLutPalette(p, step, p, 23, {24, 3}, p, 8), pxStsStepErr);
    int const levels[3] = {0, 1, 2};
    EXPECT_EQ(pxLutLinear(w, step, w, step, {12, 3}, levels, levels, 1), pxStsBadArgErr);
    EXPECT_EQ(pxLutLinear(w, step, w, step, {12, 3}, nullptr, levels, 3), pxStsNullPtrErr);
    EXPECT_EQ(pxLutLinear(w, 22, w, step, {12, 3}, levels, levels, 3), pxStsStepErr);
    EXPECT_EQ(pxLutLinear(w, step, w, step, {0, 3}, levels, levels, 3), pxStsSizeErr);
    EXPECT_EQ(cv::norm(img, before, cv::NORM_INF), 0.0);
}

}  // namespace
