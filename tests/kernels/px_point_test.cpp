// Tests of the point kernels, each against its rule over every awkward width.
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
            cv::Mat const table = kxtest::fullRangeNoise<D>(1, 1 << bits, 1, bits);
            D const *t = table.ptr<D>();
            forEachWidth<S, D>(
                1, 8, false, 0, [&](double v, auto...) { return t[unsigned(v) % (1u << bits)]; },
                [&](auto c) { return pxLutPalette(c.s, c.ss, c.d, c.ds, c.z, t, bits); });
        }
    };
    // 8 bits of a 16-bit pixel: only its low byte counts; 16 bits: pixel 65535 reads the last.
    check(std::uint8_t(), std::uint8_t(), {8, 3});
    check(std::uint16_t(), std::uint8_t(), {8, 12});
    check(std::uint16_t(), std::uint16_t(), {16, 1});
}

template <class T>
class PxColorTwist : public ::testing::Test {};
using TwistTypes = ::testing::Types<std::uint8_t, std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxColorTwist, TwistTypes);

// Every form against the matrix in doubles, rounded (within a half, plus float error) and
// saturated at both ends, which the offsets reach.
TYPED_TEST(PxColorTwist, EveryFormMatchesReference) {
    using T = TypeParam;
    float const u = float(Lim<T>::max()) / 255;
    float const t[12] = {0.9f,  -0.35f,     0.52f, 12.25f * u, 0.1f,  1.3f,
                         -0.2f, -40.5f * u, -0.6f, 0.25f,      1.45f, 7.0f * u};
    double const tol = 0.5 + (sizeof(T) == 1 ? 1e-3 : 2e-2);
    auto twisted = [&](int k, double a, double b, double c) {
        double const v = t[4 * k] * a + t[4 * k + 1] * b + t[4 * k + 2] * c + t[4 * k + 3];
        return std::clamp<double>(v, Lim<T>::min(), Lim<T>::max());
    };
    auto packed = [&](double, int y, int i, auto at) {
        return twisted(i % 3, at(y, i - i % 3), at(y, i - i % 3 + 1), at(y, i - i % 3 + 2));
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
        for (bool inPlace : {false, true})
            forEachWidth<T>(1, 9, inPlace, tol, planar, [&](auto c) {
                T const *const in[3] = {c.s, third(c.s, c.ss, 1), third(c.s, c.ss, 2)};
                T *const out[3] = {c.d, third(c.d, c.ds, 1), third(c.d, c.ds, 2)};
                IppiSize const z{c.z.width, 3};
                return inPlace ? pxColorTwist(out, c.ds, z, t)
                               : pxColorTwist(in, c.ss, out, c.ds, z, t);
            });
    }
}

// Fills (a mask step past the width) and the ramp in float: integers take trunc(v + 0.5), 0
// below zero and the maximum from maximum - 0.5 up. Vector forms may write only len elements.
template <class T>
void checkFillsAndRamp(T value, float offset, float slope) {
    cv::Mat const mask = kxtest::noise(8, 4100, CV_8U, 5, 0, 3);
    forEachWidth<T>(
        1, 8, true, 0,
        [&](double v, int y, int i, auto) { return mask.at<std::uint8_t>(y, i) ? value : v; },
        [&](auto c) { return pxSetMasked(c.d, c.ds, c.z, value, mask.data, int(mask.step)); });
    auto all = [&](auto...) { return value; };
    forEachWidth<T>(1, 8, false, 0, all, [&](auto c) { return pxSet(c.d, c.ds, c.z, value); });
    forEachWidth<T>(1, 1, false, 0, all, [&](auto c) { return pxSet(c.d, c.z.width, value); });
    double const top = Lim<T>::max();
    auto ramp = [&](double, int, int i, auto) {
        float const v = offset + slope * float(i);
        return std::is_floating_point_v<T> ? v
               : v < 0                     ? 0.0
               : v >= top - 0.5            ? top
                                           : std::trunc(double(v) + 0.5);
    };
    forEachWidth<T>(1, 1, false, 0, ramp,
                    [&](auto c) { return pxVectorRamp(c.d, c.z.width, offset, slope); });
}

TEST(PxFillAndRamp, WriteOnlyTheirPixelsByTheirRules) {
    // Ramp steps of a quarter hit every rounding case exactly, both ends included.
    checkFillsAndRamp<std::uint8_t>(254, -1.0f, 0.25f);
    checkFillsAndRamp<std::uint16_t>(65534, 65530.25f, 0.25f);
    checkFillsAndRamp<float>(-2.5f, 0.1f, -1.0f / 3);
}

TEST(PxByteOperations, MatchTheirRules) {
    auto inPlace = [](auto f, auto run) { forEachWidth<std::uint8_t>(1, 8, true, 0, f, run); };
    inPlace([](double v, auto...) { return int(v) ^ 0x5A; },
            [](auto c) { return pxXorC(c.d, c.ds, c.z, 0x5A); });
    inPlace([](double v, auto...) { return std::max(v, 100.0); },
            [](auto c) { return pxThresholdLess(c.d, c.ds, c.z, 100); });
    inPlace([](double v, auto...) { return std::max(v - 77, 0.0); },
            [](auto c) { return pxSubC(c.d, c.ds, c.z, 77); });
    forEachWidth<std::uint8_t>(
        1, 8, false, 0, [](double v, auto...) { return std::clamp(v, 40.0, 200.0); },
        [](auto c) { return pxThresholdLessGreater(c.s, c.ss, c.d, c.ds, c.z, 40, 200); });
    // The widest noise holds every byte value; nearbyint rounds halves to even.
    for (int value : {0, 1, 3, 5, 100, 255})
        for (int scale : {0, 1, 2, 7, 8, 16})
            inPlace(
                [&](double v, auto...) {
                    return std::min(255.0, std::nearbyint(v * value / (1 << scale)));
                },
                [&](auto c) { return pxMulCScale(c.d, c.ds, c.z, std::uint8_t(value), scale); });
}

template <class T>
class PxLutLinear : public ::testing::Test {};
using LutTypes = ::testing::Types<std::uint16_t, std::int16_t>;
TYPED_TEST_SUITE(PxLutLinear, LutTypes);

TYPED_TEST(PxLutLinear, OneAndThreeChannelsMatchReference) {
    using T = TypeParam;
    int const m = Lim<T>::min(), M = Lim<T>::max();
    // Segments that saturate, a one-value interval, the type's maximum and levels past its ends.
    std::vector<int> const levels[3] = {
        {m + 1000, m + 5000, m + 5001, m + 40000, M}, {m, M}, {m - 100, m + 301, m + 70000}};
    std::vector<int> const values[3] = {
        {m - 200, m + 70000, m + 3, m + 60000, m + 1234}, {M, m}, {m + 9, m + 99999, m - 5}};
    // The rule of px_point.h for curve k; pixels below the first level or on the last stay.
    auto mapped = [&](int k, double x) {
        std::vector<int> const &l = levels[k], &v = values[k];
        for (std::size_t j = 0; j + 1 < l.size(); ++j)
            if (l[j] <= x && x < l[j + 1]) {
                std::int64_t const dv = std::int64_t(v[j + 1]) - v[j];
                return std::clamp<double>(v[j] + (std::int64_t(x) - l[j]) * dv / (l[j + 1] - l[j]),
                                          m, M);
            }
        return x;
    };
    int const *l[3] = {levels[0].data(), levels[1].data(), levels[2].data()};
    int const *v[3] = {values[0].data(), values[1].data(), values[2].data()};
    int const n[3] = {5, 2, 3};
    for (int ch : {1, 3})
        forEachWidth<T>(
            ch, 8, false, 0, [&](double x, int, int i, auto) { return mapped(i % ch, x); },
            [&](auto c) {
                // Every level of each channel's curve and the values next to it, first row.
                for (int k = 0, j = 0; k < ch; ++k, j = 0)
                    for (int level : levels[k])
                        for (int e : {-1, 0, 1})
                            if (int const i = ch * j++ + k; i < c.z.width * ch)
                                c.s[i] = T(std::clamp(level + e, m, M));
                return ch == 1 ? pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, v[0], l[0], n[0])
                               : pxLutLinear(c.s, c.ss, c.d, c.ds, c.z, v, l, n);
            });
}

// Ties round to even; one failing call per kind of failure and per documented range.
TEST(PxPointRules, TiesGoToEvenAndFailingCallsReport) {
    float const half[12] = {0.5f, 0, 0, 0, 0, 0.5f, 0, 0, 0, 0, 0.5f, 0};
    std::uint8_t px[6] = {1, 3, 5, 7, 2, 255};
    std::int16_t s[3] = {-3, -5, 32767};
    ASSERT_EQ(pxColorTwist(px, 6, {2, 1}, half) + pxColorTwist(s, 6, {1, 1}, half), pxStsNoErr);
    EXPECT_EQ(std::vector<int>(px, px + 6), (std::vector<int>{0, 2, 2, 4, 1, 128}));
    EXPECT_EQ(std::vector<int>(s, s + 3), (std::vector<int>{-2, -2, 16384}));
    cv::Mat img(3, 8, CV_8UC3, cv::Scalar(1, 2, 3));
    cv::Mat const before = img.clone();
    std::uint8_t *p = img.ptr();
    int const step = int(img.step);
    EXPECT_EQ(pxColorTwist(p, step, p, 23, {8, 3}, half), pxStsStepErr);
    EXPECT_EQ(pxColorTwist(p, step, {8, 3}, nullptr), pxStsNullPtrErr);
    EXPECT_EQ(pxSet(p, 0, std::uint8_t(9)), pxStsSizeErr);
    EXPECT_EQ(pxVectorRamp(p, 0, 0, 1), pxStsSizeErr);
    EXPECT_EQ(pxMulCScale(p, step, {8, 3}, 1, 17), pxStsBadArgErr);
    EXPECT_EQ(pxLutPalette(p, step, p, step, {8, 3}, p, 9), pxStsBadArgErr);
    EXPECT_EQ(cv::norm(img, before, cv::NORM_INF), 0.0);
}

}  // namespace
