// Tests of the element-wise float operations against the C library.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "kestrix1/kernels/vs_math.h"
#include "tests/support/vector_paths.h"

namespace {

// 0, -0, 1, then magnitudes 1e-8 .. 1e4 of both signs; a guard past the end stays untouched.
std::vector<float> values(int n, int seed) {
    float const edges[] = {0.0f, -0.0f, 1.0f};
    std::vector<float> v(std::size_t(n) + 1, 12345.0f);
    for (int i = 0; i < n; ++i)
        v[i] = i < 3 ? edges[i]
                     : float((i * seed) % 3 - 1) * std::pow(10.0f, float(i * seed % 97) / 8 - 8);
    return v;
}

// Ln and pow within one unit in the last place of the float nearest the exact value (double
// libm rounded once), and the same bits at every vector width the CPU offers (NaN apart); the
// others exact; NaN and infinities where the C library gives them; the same in place.
TEST(VsMath, FiveFunctionsAgainstTheCLibraryOnAwkwardLengthsAndInPlace) {
    using Run = std::function<void(int, float const *, float const *, float *)>;
    using Ref = double (*)(double, double);
    std::tuple<char const *, Run, Ref, int> const cases[] = {
        {"ln", [](int n, auto a, auto, auto y) { vsLn(n, a, y); },
         [](double x, double) { return std::log(x); }, 1},
        {"pow 1.2", [](int n, auto a, auto, auto y) { vsPowx(n, a, 1.2f, y); },
         [](double x, double) { return std::pow(x, double(1.2f)); }, 1},
        {"sub", vsSub, [](double x, double y) { return x - y; }, 0},
        {"abs", [](int n, auto a, auto, auto y) { vsAbs(n, a, y); },
         [](double x, double) { return std::fabs(x); }, 0},
        {"div", vsDiv, [](double x, double y) { return x / y; }, 0},
    };
    for (int n : {0, 1, 7, 33, 4099, 65537}) {
        std::vector<float> const a = values(n, 1), b = values(n, 2);
        for (auto const &[name, run, ref, ulps] : cases) {
            std::vector<float> widest;
            kxtest::forEachVectorPath([&, &name = name, &run = run, &ref = ref, ulps = ulps] {
                std::vector<float> out(a.size(), 12345.0f), same = a;
                run(n, a.data(), b.data(), out.data());
                run(n, same.data(), b.data(), same.data());
                if (widest.empty()) widest = out;
                for (int i = 0; i < n; ++i) {
                    float const want = float(ref(a[i], b[i])), got = out[i];
                    ASSERT_TRUE(std::isnan(want)
                                    ? std::isnan(got)
                                    : got == want || (ulps && got == std::nextafter(want, got)))
                        << name << "(" << a[i] << ") = " << got << ", not " << want;
                    ASSERT_TRUE(std::memcmp(&same[i], &got, 4) == 0 &&
                                (got == widest[i] || std::isnan(got)))
                        << name;
                }
                EXPECT_TRUE(out[n] == 12345.0f && same[n] == 12345.0f) << name << " " << n;
            });
        }
    }
}

}  // namespace
