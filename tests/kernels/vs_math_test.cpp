// Tests of the element-wise float operations against the C library.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/vs_math.h"

namespace {

// n values of magnitude 1e-8 .. 1e4 and both signs, the domains' edges 0, -0, 1 and 65535
// in front, and a guard past the end that no call may touch.
std::vector<float> values(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> exponent(-8.0f, 4.0f);
    std::vector<float> v(std::size_t(n) + 1, 12345.0f);
    for (int i = 0; i < n; ++i)
        v[i] = i < 4 ? std::array{0.0f, -0.0f, 1.0f, 65535.0f}[i]
                     : (rng() % 2 ? -1.0f : 1.0f) * std::pow(10.0f, exponent(rng));
    return v;
}

// Ln and pow within one unit in the last place of the float nearest the exact value (double
// libm rounded once), the others exact; NaN and infinities where the C library gives them;
// the same when written over the input.
TEST(VsMath, FiveFunctionsAgainstTheCLibraryOnAwkwardLengthsAndInPlace) {
    for (int n : {0, 1, 7, 33, 4099}) {
        std::vector<float> const a = values(n, 1), b = values(n, 2);
        using Run = std::function<void(float const *, float *)>;
        std::tuple<char const *, Run, std::function<double(double, double)>, int> const cases[] = {
            {"ln", [&](auto s, auto d) { vsLn(n, s, d); },
             [](double x, double) { return std::log(x); }, 1},
            {"pow 1.2", [&](auto s, auto d) { vsPowx(n, s, 1.2f, d); },
             [](double x, double) { return std::pow(x, double(1.2f)); }, 1},
            {"pow 0", [&](auto s, auto d) { vsPowx(n, s, 0.0f, d); },
             [](double, double) { return 1.0; }, 0},
            {"sub", [&](auto s, auto d) { vsSub(n, s, b.data(), d); },
             [](double x, double y) { return x - y; }, 0},
            {"abs", [&](auto s, auto d) { vsAbs(n, s, d); },
             [](double x, double) { return std::fabs(x); }, 0},
            {"div", [&](auto s, auto d) { vsDiv(n, s, b.data(), d); },
             [](double x, double y) { return x / y; }, 0},
        };
        for (auto const &[name, run, ref, ulps] : cases) {
            std::vector<float> out(a.size(), 12345.0f), same = a;
            run(a.data(), out.data());
            run(same.data(), same.data());
            for (int i = 0; i < n; ++i) {
                float const want = float(ref(a[i], b[i]));
                bool const ok =
                    std::isnan(want)
                        ? std::isnan(out[i])
                        : out[i] == want || (ulps && out[i] == std::nextafter(want, out[i]));
                ASSERT_TRUE(ok) << name << "(" << a[i] << ") = " << out[i] << ", not " << want;
                ASSERT_EQ(std::memcmp(&same[i], &out[i], 4), 0) << name;
            }
            EXPECT_TRUE(out[n] == 12345.0f && same[n] == 12345.0f) << name << " " << n;
        }
    }
}

#if KX_HAVE_AVX2_PATHS
// Ln and pow give the same bits at every vector width the CPU offers, on a million values
// (NaN apart, whose payload may differ).
TEST(VsMath, LnAndPowDoNotDependOnTheVectorWidth) {
    int const n = 1 << 20;
    std::vector<float> x = values(n, 4);
    for (float &v : x)
        v = std::fabs(v);
    std::vector<float> first;
    for (KxVectors limit : {KxVectors::avx512, KxVectors::avx2, KxVectors::portable}) {
        kxVectorLimit() = limit;
        std::vector<float> y(std::size_t(n) * 2);
        vsLn(n, x.data(), y.data());
        vsPowx(n, x.data(), 0.8f, y.data() + n);
        if (first.empty()) first = y;
        EXPECT_EQ(std::memcmp(first.data(), y.data(), y.size() * 4), 0) << int(limit);
    }
    kxVectorLimit() = KxVectors::avx512;
}
#endif

}  // namespace
