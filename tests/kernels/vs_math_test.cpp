// Tests of the element-wise float operations against the C++ library.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/vs_math.h"

namespace {

// Distance in representable floats; 0 for equal values, both NaN or equal infinities.
std::int64_t ulps(float a, float b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b) ? 0 : 1 << 30;
    auto key = [](float v) {
        std::int32_t i;
        std::memcpy(&i, &v, 4);
        return i < 0 ? std::int64_t(INT32_MIN) - i : std::int64_t(i);
    };
    return std::llabs(key(a) - key(b));
}

// Values of every magnitude from 1e-8 to 1e4, both signs where `negative`, with 0 and the
// domain's edges in front.
std::vector<float> values(int n, bool negative, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> exponent(-8.0f, 4.0f);
    std::vector<float> v(std::size_t(n) + 1);
    float const edges[] = {0.0f, 1.0f, negative ? -0.0f : 1e-30f, 65535.0f};
    for (int i = 0; i < n; ++i) {
        v[i] = i < 4 ? edges[i] : std::pow(10.0f, exponent(rng));
        if (negative && rng() % 2) v[i] = -v[i];
    }
    v[n] = 12345.0f;  // a guard that no call may touch
    return v;
}

// Ln and pow within one unit of the float nearest the exact value (double libm, rounded once);
// the others exact. Each also in place, with the guard past the end untouched.
TEST(VsMath, FiveFunctionsAgainstTheCLibraryOnAwkwardLengthsAndInPlace) {
    for (int n : {0, 1, 7, 33, 4099}) {
        SCOPED_TRACE(n);
        std::vector<float> const a = values(n, true, 1), b = values(n, true, 2);
        std::vector<float> const pos = values(n, false, 3);
        struct Case {
            char const *name;
            std::vector<float> const &in;
            std::function<void(float const *, float *)> run;
            std::function<float(float, float)> ref;
            int bound;
        } const cases[] = {
            {"ln", pos, [&](float const *s, float *d) { vsLn(n, s, d); },
             [](float x, float) { return float(std::log(double(x))); }, 1},
            {"ln<0", a, [&](float const *s, float *d) { vsLn(n, s, d); },
             [](float x, float) { return float(std::log(double(x))); }, 1},
            {"pow 1.2", pos, [&](float const *s, float *d) { vsPowx(n, s, 1.2f, d); },
             [](float x, float) { return float(std::pow(double(x), double(1.2f))); }, 1},
            {"pow 0.5", a, [&](float const *s, float *d) { vsPowx(n, s, 0.5f, d); },
             [](float x, float) { return float(std::pow(double(x), 0.5)); }, 1},
            {"pow 0", pos, [&](float const *s, float *d) { vsPowx(n, s, 0.0f, d); },
             [](float, float) { return 1.0f; }, 0},
            {"sub", a, [&](float const *s, float *d) { vsSub(n, s, b.data(), d); },
             [](float x, float y) { return x - y; }, 0},
            {"abs", a, [&](float const *s, float *d) { vsAbs(n, s, d); },
             [](float x, float) { return std::fabs(x); }, 0},
            {"div", a, [&](float const *s, float *d) { vsDiv(n, s, b.data(), d); },
             [](float x, float y) { return x / y; }, 0},
        };
        for (Case const &c : cases) {
            std::vector<float> out(std::size_t(n) + 1, 12345.0f), same = c.in;
            c.run(c.in.data(), out.data());
            c.run(same.data(), same.data());
            for (int i = 0; i < n; ++i) {
                ASSERT_LE(ulps(out[i], c.ref(c.in[i], b[i])), c.bound) << c.name << " " << c.in[i];
                ASSERT_EQ(ulps(same[i], out[i]), 0) << c.name;
            }
            EXPECT_EQ(out[n], 12345.0f) << c.name;
            EXPECT_EQ(same[n], 12345.0f) << c.name;
        }
    }
}

#if KX_HAVE_AVX2_PATHS
// Ln and pow give the same bits at every vector width the CPU offers, on many values.
TEST(VsMath, LnAndPowDoNotDependOnTheVectorWidth) {
    int const n = 1 << 20;
    std::vector<float> const x = values(n, false, 4);
    std::vector<float> first;
    for (KxVectors limit : {KxVectors::avx512, KxVectors::avx2, KxVectors::portable}) {
        kxVectorLimit() = limit;
        std::vector<float> y(std::size_t(n) * 2);
        vsLn(n, x.data(), y.data());
        vsPowx(n, x.data(), 0.8f, y.data() + n);
        if (first.empty())
            first = y;
        else
            EXPECT_EQ(std::memcmp(first.data(), y.data(), y.size() * 4), 0) << int(limit);
    }
    kxVectorLimit() = KxVectors::avx512;
}
#endif

}  // namespace
