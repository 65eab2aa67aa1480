// Tests of the point kernels: palettes, colour matrices, fills, thresholds, ramps and
// piecewise-linear tables, each against its rule over every awkward width.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "kestrix1/kernels/px_point.h"
#include "tests/support/elementwise.h"

namespace {

template <class T>
using Lim = std::numeric_limits<T>;

using kxtest::forEachWidth;

TEST(PxLutPalette, EveryFormAndIndexWidth) {
    auto check = [](auto source, auto target, std::initializer_list<int> bitSizes) {
        using S = decltype(source);
        using D = decltype(target);
        for (int bits : bitSizes) {
            std::vector<D> table(std::size_t(1) << bits);
            for (std::size_t i = 0; i < table.size(); ++i)
                table[i] = D((i * 2654435761u >> 5) % (std::size_t(Lim<D>::max()) + 1));
            forEachWidth<S, D>(
                1, 8, false, 0,
                [&](double v, auto...) { return table[unsigned(v) % table.size()]; },
                [&](auto c) {
                    return pxLutPalette(c.s, c.ss, c.d, c.ds, c.z, table.data(), bits);
                });
        }
    };
    // With 8 bits only the low byte of a 16-bit pixel counts; with 16 pixel 65535 reads the
    // last entry.
    check(std::uint8_t(), std::uint8_t(), {8, 3});
    check(std::uint16_t(), std::uint8_t(), {8, 12});
    check(std::uint16_t(), std::uint16_t(), {16, 1});
}

template <class T>
class PxColorTwist : public ::testing::Test {};
using TwistTypes = ::testing::Types<std::uint8_t, std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxColorTwist, TwistTypes);

// Packed, in-place and (unsigned types) planar forms against the matrix in doubles: rounded
// (within a half, plus float error) and saturated at both ends.
TYPED_TEST(PxColorTwist, EveryFormMatchesReference) {
    using T = TypeParam;
    // All channels mixed; offsets (in units of the range) push results past both ends.
    float const u = float(Lim<T>::max()) / 255;
    float const t[12] = {0.9f,  -0.35f,     0.52f, 12.25f * u, 0.1f,  1.3f,
                         -0.2f, -40.5f * u, -0.6f, 0.25f,      1.45f, 7.0f * u};
    double const tol = 0.5 + (sizeof(T) == 1 ? 1e-3 : 2e-2);
    auto twisted = [&](int k, double a, double b, double c) {
        double const v = t[4 * k] * a + t[4 * k + 1] * b + t[4 * k + 2] * c + t[4 * k + 3];
        return std::clamp<double>(v, Lim<T>::min(), Lim<T>::max());
    };
    auto packed = [&](double, int y, int i, auto at) {
        int const p = i / 3 * 3;
        return twisted(i % 3, at(y, p), at(y, p + 1), at(y, p + 2));
    };
    forEachWidth<T>(3, 4, false, tol, packed,
                    [&](auto c) { return pxColorTwist(c.s, c.ss, c.d, c.ds, c.z, t); });
    forEachWidth<T>(3, 4, true, tol, packed,
                    [&](auto c) { return pxColorTwist(c.d, c.ds, c.z, t); });
    if constexpr (!std::is_signed_v<T>) {
        // Three planes of three rows stacked in one region share its step.
        auto planar = [&](double, int y, int i, auto at) {
            return twisted(y / 3, at(y % 3, i), at(y % 3 + 3, i), at(y % 3 + 6, i));
        };
        auto third = [](auto *p, int step, int k) { return p + k * 3 * step / int(sizeof(T)); };
        forEachWidth<T>(1, 9, false, tol, planar, [&](auto c) {
            T const *const in[3] = {c.s, third(c.s, c.ss, 1), third(c.s, c.ss, 2)};
            T *const out[3] = {c.d, third(c.d, c.ds, 1), third(c.d, c.ds, 2)};
            return pxColorTwist(in, c.ss, out, c.ds, {c.z.width, 3}, t);
        });
        forEachWidth<T>(1, 9, true, tol, planar, [&](auto c) {
            T *const io[3] = {c.d, third(c.d, c.ds, 1), third(c.d, c.ds, 2)};
            return pxColorTwist(io, c.ds, {c.z.width, 3}, t);
        });
    }
}

TEST(PxColorTwistRounding, HalvesGoToEven) {
    float const half[12] = {0.5f, 0, 0, 0, 0, 0.5f, 0, 0, 0, 0, 0.5f, 0};
    std::uint8_t px[6] = {1, 3, 5, 7, 2, 255};
    std::int16_t s[3] = {-3, -5, 32767};
    ASSERT_EQ(pxColorTwist(px, 6, {2, 1}, half) + pxColorTwist(s, 6, {1, 1}, half), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(px, px + 6), (std::vector<int>{0, 2, 2, 4, 1, 128}));
    EXPECT_EQ(std::vector<int>(s, s + 3), (std::vector<int>{-2, -2, 16384}));
}

// pxSetMasked, which writes where the mask is not 0 (a mask whose step exceeds the width),
// pxSet over a region and, on a single row, over a vector of len elements.
template <class T>
void checkFills(T value) {
    cv::Mat const mask = kxtest::noise(8, 4100, CV_8U, 5, 0, 3);
    forEachWidth<T>(
        1, 8, true, 0,
        [&](double v, int y, int i, auto) { return mask.at<std::uint8_t>(y, i) ? value : v; },
        [&](auto c) { return pxSetMasked(c.d, c.ds, c.z, value, mask.data, int(mask.step)); });
    auto all = [&](auto...) { return value; };
    forEachWidth<T>(1, 8, false, 0, all, [&](auto c) { return pxSet(c.d, c.ds, c.z, value); });
    forEachWidth<T>(1, 1, false, 0, all, [&](auto c) { return pxSet(c.d, c.z.width, value); });
}

// Values computed in float; integers take trunc(v + 0.5), 0 below zero and the maximum from
// maximum - 0.5 up. A single row, whose padding shows that only len elements change.
template <class T>
void checkRamp(float offset, float slope) {
    double const top = Lim<T>::max();
    auto want = [&](double, int, int i, auto) {
        float const v = offset + slope * float(i);
        return std::is_floating_point_v<T> ? v
               : v < 0                     ? 0.0
               : v >= top - 0.5            ? top
                                           : std::trunc(double(v) + 0.5);
    };
    forEachWidth<T>(1, 1, false, 0, want,
                    [&](auto c) { return pxVectorRamp(c.d, c.z.width, offset, slope); });
}

TEST(PxFillAndRamp, WriteOnlyTheirPixelsByTheirRules) {
    checkFills<std::uint8_t>(254);
    checkFills<std::uint16_t>(65534);
    checkFills<float>(-2.5f);
    // Steps of a quarter hit every rounding case exactly, both ends included.
    checkRamp<std::uint8_t>(-1.0f, 0.25f);
    checkRamp<std::uint16_t>(65530.25f, 0.25f);
    checkRamp<float>(0.1f, -1.0f / 3);
}

TEST(PxByteOperations, MatchTheirRules) {
    using B = std::uint8_t;
    forEachWidth<B>(
        1, 8, true, 0, [](double v, auto...) { return int(v) ^ 0x5A; },
        [](auto c) { return pxXorC(c.d, c.ds, c.z, 0x5A); });
    forEachWidth<B>(
        1, 8, true, 0, [](double v, auto...) { return std::max(v, 100.0); },
        [](auto c) { return pxThresholdLess(c.d, c.ds, c.z, 100); });
    forEachWidth<B>(
        1, 8, true, 0, [](double v, auto...) { return std::max(v - 77, 0.0); },
        [](auto c) { return pxSubC(c.d, c.ds, c.z, 77); });
    forEachWidth<B>(
        1, 8, false, 0, [](double v, auto...) { return std::clamp(v, 40.0, 200.0); },
        [](auto c) { return pxThresholdLessGreater(c.s, c.ss, c.d, c.ds, c.z, 40, 200); });
    // The widest noise holds every byte value; nearbyint rounds halves to even.
    for (int value : {0, 1, 3, 5, 100, 255})
        for (int scale : {0, 1, 2, 7, 8, 16})
            forEachWidth<B>(
                1, 8, true, 0,
                [&](double v, auto...) {
                    return std::min(255.0, std::nearbyint(v * value / std::ldexp(1, scale)));
                },
                [&](auto c) { return pxMulCScale(c.d, c.ds, c.z, B(value), scale); });
}

struct Curve {
    std::vector<int> l, v;  // levels and values
};

// The mapping of px_point.h for one value.
template <class T>
double mapped(Curve const &c, double x) {
    for (std::size_t k = 0; k + 1 < c.l.size(); ++k)
        if (c.l[k] <= x && x < c.l[k + 1]) {
            std::int64_t const dv = std::int64_t(c.v[k + 1]) - c.v[k];
            return std::clamp<double>(
                c.v[k] + (std::int64_t(x) - c.l[k]) * dv / (c.l[k + 1] - c.l[k]), Lim<T>::min(),
                Lim<T>::max());
        }
    return x;
}

template <class T>
class PxLutLinear : public ::testing::Test {};
using LutTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxLutLinear, LutTypes);

TYPED_TEST(PxLutLinear, OneAndThreeChannelsMatchReference) {
    using T = TypeParam;
    // Rising and falling segments whose ends saturate, a one-value interval, a last level at
    // the type's maximum and levels past its ends. Pixels below the first level or on the
    // last stay.
    std::vector<Curve> const curves =
        std::is_same_v<T, std::uint16_t>
            ? std::vector<Curve>{{{1000, 5000, 5001, 40000, 65535}, {-200, 70000, 3, 60000, 1234}},
                                 {{0, 65535}, {65535, 0}},
                                 {{-100, 301, 70000}, {9, 99999, -5}}}
            : std::vector<Curve>{{{-30000, -100, 0, 100, 32767}, {40000, -300, 10, 5, -40000}},
                                 {{-32768, 32767}, {32767, -32768}},
                                 {{-40000, 7, 40000}, {-7, 9, 70000}}};
    int const *levels[3] = {curves[0].l.data(), curves[1].l.data(), curves[2].l.data()};
    int const *values[3] = {curves[0].v.data(), curves[1].v.data(), curves[2].v.data()};
    int const n[3] = {5, 2, 3};
    for (int ch : {1, 3})
        forEachWidth<T>(
            ch, 8, false, 0,
            [&](double v, int, int i, auto) { return mapped<T>(curves[i % ch], v); },
            [&](auto c) {
                // Every level of each channel's curve and the values next to it, first row.
                for (int k = 0, j = 0; k < ch; ++k, j = 0)
                    for (int l : curves[k].l)
                        for (int e : {-1, 0, 1})
                            if (int const i = ch * j++ + k; i < c.z.width * ch)
                                c.s[i] = T(std::clamp<int>(l + e, Lim<T>::min(), Lim<T>::max()));
                return ch == 1 ? pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, values[0], levels[0], n[0])
                               : pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, values, levels, n);
            });
}

TEST(PxPointArguments, FailingCallsReportAndLeaveTheOutputAlone) {
    cv::Mat img(3, 8, CV_8UC3, cv::Scalar(1, 2, 3));
    cv::Mat const before = img.clone();
    float const t[12] = {2, 0, 0, 1, 0, 2, 0, 1, 0, 0, 2, 1};
    std::uint8_t *p = img.ptr(), *planes[3] = {p, nullptr, p + 8};
    auto *w = reinterpret_cast<std::uint16_t *>(p);
    int const step = int(img.step), levels[3] = {0, 1, 2};
    EXPECT_EQ(pxColorTwist(p, step, p, 23, {8, 3}, t), pxStsStepErr);
    EXPECT_EQ(pxColorTwist(p, step, {8, 3}, nullptr), pxStsNullPtrErr);
    EXPECT_EQ(pxColorTwist(planes, step, {8, 3}, t), pxStsNullPtrErr);
    EXPECT_EQ(pxSet(p, 7, {8, 3}, std::uint8_t(9)), pxStsStepErr);
    EXPECT_EQ(pxSet(p, 0, std::uint8_t(9)), pxStsSizeErr);
    EXPECT_EQ(pxThresholdLessGreater(p, step, p, step, {8, 3}, 200, 100), pxStsBadArgErr);
    EXPECT_EQ(pxMulCScale(p, step, {8, 3}, 1, 17), pxStsBadArgErr);
    EXPECT_EQ(pxVectorRamp(p, 0, 0, 1), pxStsSizeErr);
    EXPECT_EQ(pxLutPalette(w, step, w, step, {12, 3}, w, 17), pxStsBadArgErr);
    EXPECT_EQ(pxLutLinear(w, step, w, step, {12, 3}, levels, levels, 1), pxStsBadArgErr);
    EXPECT_EQ(cv::norm(img, before, cv::NORM_INF), 0.0);
}

}  // namespace
