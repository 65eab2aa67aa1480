// Selective colour: hue geometry, the three table shapes, compHueRange, the packed paths
// against plain per-pixel references, and the block smoothing against whole-plane filters.
#include "kestrix1/tables/selective_color_filter.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <string>

#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/kestrix.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using u16 = std::uint16_t;
using SCF = SelectiveColorFilter;
using Set = SCF::SelectiveColorParameters;
using kxtest::thrown;

constexpr char kPlanes[] = "ERROR - SelectiveColorFilter - planes must be CV_16UC1 of one size";

TEST(SelectiveColorFilter, WrapDistanceAndMasks) {
    EXPECT_EQ(SCF::wrapHue(10), -350);
    EXPECT_EQ(SCF::hueDistance(SCF::wrapHue(10), 60), -50);  // negative; only its square counts
    EXPECT_EQ(SCF::hueDistance(-10, 0), 10);
    for (float h : {0.0f, 360.0f, 720.0f})
        EXPECT_TRUE(SCF::wrapHue(h) == 0 && SCF::hueMask(h, 0) == 1) << h;
    EXPECT_FLOAT_EQ(SCF::hueMask(180, 0), std::exp(-180.0f * 180.0f / 1236.0f));
    EXPECT_FLOAT_EQ(SCF::hueMask(10, 60), std::exp(-2500.0f / 1236.0f));
    float const centre[6] = {0, 60, 100, 165, 220, 300},
                den[6] = {-1256, -628, -628, -1236, -1570, -942};
    for (int f = 0; f < 6; ++f) {
        auto const fam = SCF::ColorCategory(f);
        EXPECT_EQ(SCF::hueMask(centre[f], fam), 1) << f;
        EXPECT_FLOAT_EQ(SCF::hueMask(centre[f] + 20, 7.0f, fam), std::exp(400.0f / den[f])) << f;
        EXPECT_EQ(SCF::rangeMask(0.3f, fam), 1);
    }
    EXPECT_FLOAT_EQ(SCF::hueAdj(70, 60, 0.5f), 0.5f * std::exp(-100.0f / 1236.0f));
    EXPECT_FLOAT_EQ(SCF::hueAdj(370, 10, 2), 2);  // not wrapped: 370 is 0 away from 10
    // All six at once, writing over its own centres.
    float io[6] = {0, 60, 100, 165, 220, 300};
    SCF::computeHueMask(130, io, io, den);
    for (int f = 0; f < 6; ++f)
        EXPECT_FLOAT_EQ(io[f], SCF::hueMask(130, SCF::ColorCategory(f))) << f;
}

TEST(SelectiveColorFilter, GaussianAndTrapezoidTables) {
    SCF f;
    float const mult[2] = {-1.0f / 1236, -1.0f / 600}, centre[2] = {0, 120};
    f.setupLUT16U(2, mult, centre);
    EXPECT_EQ(f.lutCount(), 2);
    for (int i : {0, 1, 7, 10923, 21845, 32768, 65535})
        for (int k = 0; k < 2; ++k) {
            float const h = float(i) / 65535.0f * 360.0f, hi = std::max(h, centre[k]),
                        lo = std::min(h, centre[k]), d = std::min(360 - hi + lo, hi - lo);
            EXPECT_EQ(f.lut(k)[i], u16(65535.0f * std::exp(d * d * mult[k]))) << i << " " << k;
        }
    EXPECT_EQ(f.lut(0)[0], 65535);
    EXPECT_EQ(f.lut(1)[21845], 65535);

    // Flat top 20 wide each side (inclusive), slope to 60; family 0 wraps from 360.
    float const outer[2] = {60, 60}, middle[2] = {0, 180}, inner[2] = {20, 20};
    f.setupLUT16UTrapezoid(2, outer, middle, inner);
    auto code = [](double deg) { return int(std::ceil(deg / 360.0 * 65535.0)); };
    EXPECT_EQ(f.lut(1)[code(180)], 65535);
    EXPECT_EQ(f.lut(1)[code(160)], 65535);
    EXPECT_NEAR(f.lut(1)[25486], 32768, 2);  // 140 degrees: halfway down the slope
    EXPECT_EQ(f.lut(1)[code(100)], 0);
    EXPECT_EQ(f.lut(0)[code(350)], 65535);  // 10 from 360
    EXPECT_NEAR(f.lut(0)[code(320)], 32768, 60);
    EXPECT_EQ(f.lut(0)[code(180)], 0);
    EXPECT_EQ(thrown([&] { f.setupLUT16U(17, mult, centre); }),
              "ERROR - SelectiveColorFilter - table count must be 0 to 16");

    SCF copy(f);  // copies share the tables; each owner lets go of them alone
    f.releaseLUT16U();
    EXPECT_TRUE(f.lut(0) == nullptr && f.lutCount() == 0);
    EXPECT_EQ(copy.lut(1)[code(180)], 65535);
}

TEST(SelectiveColorFilter, TrianglesShareEveryHue) {
    SCF f;
    float const centre[4] = {0, 90, 180, 270};
    f.setupLUT16UTriangle(4, nullptr, centre);
    auto code = [](double deg) { return int(std::lround(deg / 360.0 * 65535.0)); };
    for (int k = 0; k < 4; ++k)
        EXPECT_GE(f.lut(k)[code(centre[k])], 65534) << k;
    EXPECT_EQ(f.lut(1)[code(0)], 0);
    // Midway between two families: half to each.
    EXPECT_NEAR(f.lut(1)[code(135)], 32767, 2);
    EXPECT_NEAR(f.lut(2)[code(135)], 32767, 2);
    for (int i = 0; i < 65536; i += 97) {
        int sum = 0;
        for (int k = 0; k < 4; ++k)
            sum += f.lut(k)[i];
        EXPECT_NEAR(sum, 65535, 4) << i;
    }
    // The tail repeats the head (as it was before normalisation, which barely moves
    // triangles that already share every hue).
    EXPECT_NEAR(f.lut(1)[65536 + code(45)], 32767, 2);

    // One family: weight 1 at its centre falling to 0 on both sides, normalised to full
    // wherever it is not 0.
    SCF one;
    float const c0 = 0;
    one.setupLUT16UTriangle(1, nullptr, &c0);
    EXPECT_EQ(one.lut(0)[0], 65535);
    EXPECT_EQ(one.lut(0)[1], 0);  // raw weight 1/65535 truncates to 0, and stays
    EXPECT_EQ(one.lut(0)[40000], 65535);
    EXPECT_EQ(thrown([&] { one.setupLUT16UTriangle(0, nullptr, &c0); }),
              "ERROR - SelectiveColorFilter::setupLUT16UTriangle - table count must be 1 to 16");
}

// Y, Dr, Db planes of one row of colours given as R, G, B in 0..65535.
std::vector<cv::Mat> ydrdb(std::vector<cv::Vec3d> const &rgb) {
    std::vector<cv::Mat> p(3, cv::Mat(1, int(rgb.size()), CV_16UC1));
    for (auto &m : p)
        m = m.clone();
    for (int x = 0; x < int(rgb.size()); ++x) {
        double const Y = 0.299 * rgb[x][0] + 0.587 * rgb[x][1] + 0.114 * rgb[x][2];
        p[0].at<u16>(x) = cv::saturate_cast<u16>(Y);
        p[1].at<u16>(x) = cv::saturate_cast<u16>((rgb[x][0] - Y) / 2 + 32768);
        p[2].at<u16>(x) = cv::saturate_cast<u16>((rgb[x][2] - Y) / 2 + 32768);
    }
    return p;
}

TEST(SelectiveColorFilter, HueAndRangeOfPureAndGreyColours) {
    SCF f;
    // Red, yellow, green, blue, grey, orange; the 16-bit planes round the colour a little.
    auto in = ydrdb({{65535, 0, 0},
                     {65535, 65535, 0},
                     {0, 65535, 0},
                     {0, 0, 65535},
                     {40000, 40000, 40000},
                     {30000, 20000, 10000}});
    std::vector<cv::Mat> out(2);
    f.compHueRange(in, out);
    int const hue[6] = {0, 10922, 21845, 43690, 0, 5461},
              range[6] = {65535, 65535, 65535, 65535, 0, 20000};
    for (int x = 0; x < 6; ++x) {
        int const d = std::abs(out[0].at<u16>(x) - hue[x]);
        EXPECT_LE(std::min(d, 65536 - d), x == 4 ? 0 : 12) << x;
        EXPECT_NEAR(out[1].at<u16>(x), range[x], x == 4 ? 0 : 4) << x;
    }
    std::vector<cv::Mat> two(in.begin(), in.begin() + 2);
    EXPECT_EQ(thrown([&] { f.compHueRange(two, out); }),
              "ERROR - SelectiveColorFilter::compHueRange - need Y, Dr, Db in and two planes out");
    in[2] = cv::Mat(1, 5, CV_16UC1);
    EXPECT_EQ(thrown([&] { f.compHueRange(in, out); }), kPlanes);
}

// ---- packed paths ---------------------------------------------------------------------

// Eight Gaussian tables at 0, 45, ..., 315 degrees, and three sets with an amount per slot.
struct Packed : ::testing::Test {
    SCF f;
    Set s[3];
    SCF::OverallParameters o{0.05f, -0.1f, 0.02f};
    void SetUp() override {
        float mult[8], centre[8];
        for (int k = 0; k < 8; ++k)
            mult[k] = -1.0f / 900, centre[k] = 45.0f * k;
        f.setupLUT16U(8, mult, centre);
        for (int k = 0; k < 8; ++k) {
            s[0][k] = 0.3f * std::sin(float(k));
            s[1][k] = 0.4f * std::cos(float(k));
            s[2][k] = 0.05f * (k - 3);
        }
    }
    // Set sums of hue code c, overall included unless told otherwise.
    void sums(int c, float out[3], bool overall = true) const {
        float const add[3] = {o.lightness, o.saturation, o.hue};
        for (int j = 0; j < 3; ++j) {
            out[j] = 0;
            for (int k = 0; k < 8; ++k)
                out[j] += s[j][k] * float(f.lut(k)[c]);
            out[j] += overall ? add[j] * 65535.0f : 0.0f;
        }
    }
};

auto const clamp1 = [](float k) { return std::min(1.0f, std::max(-1.0f, k)); };
auto const tr = [](float v) { return u16(std::min(65535.0f, std::max(0.0f, v))); };
auto const turn = [](float s3, float h, float x = 0) {
    return x = s3 / 65535 + h, x > 1 ? x - 1 : x < 0 ? x + 1 : x;
};

// One pixel of each 16-bit path, step by step, with the set sums of its hue.
cv::Vec3w hls(Packed const &t, cv::Vec3w p, int code) {
    float s[3];
    t.sums(code, s);
    float const H = p[0], L = p[1], S = p[2], ms = std::min(4 * S / 65535, 1.0f),
                ml = std::min(4 * L / 65535, 1.0f), k = clamp1(s[0] * ms * ml / 65535),
                k2 = clamp1(s[1] / 65535);
    return {tr(65535 * turn(s[2], H / 65535)), tr(k > 0 ? L * (1 - k) + 65535 * k : L * (k + 1)),
            tr(k2 > 0 ? S * (1 - ms * ml * k2) + 65535 * ms * ml * k2 : S * (k2 + 1))};
}
cv::Vec3w hsv(Packed const &t, cv::Vec3w p, int code, bool simple) {
    float s[3];
    t.sums(code, s);
    float const H = p[0], S = p[1], V = p[2], ms = std::min(4 * S / 65535, 1.0f),
                mv = std::min(4 * V / 65535, 1.0f), k = clamp1(s[0] * ms * mv / 65535);
    float kS = clamp1(s[1] / 65535);
    kS = kS > 0 ? kS * (ms * mv) : kS;
    u16 const V2 = tr(k > 0 ? V * (1 - k) + 65535 * k : V * (k + 1));
    double const g = std::max(1.0, (65535.0 - V2) / ((65535.0 - V) + 6553.5));
    float const S1 = simple ? float(std::min(65535.0, std::nearbyint(S * g))) : S;
    return {tr(65535 * turn(s[2], H / 65535)),
            tr(kS > 0 ? S1 * (1 - kS) + 65535 * kS : S1 * (kS + 1)), V2};
}
cv::Vec3w hlsSimple(Packed const &t, cv::Vec3w p) {
    float s[3];
    t.sums(p[0], s, false);
    s[2] += t.o.hue * 65535;
    float const l = p[1] / 65535.0f, sat = p[2] / 65535.0f, C = sat * (1 - std::fabs(2 * l - 1)),
                r1 = C < 0.15f ? C / 0.15f : 1, r2 = C < 0.2f ? C / 0.2f : 1,
                k = clamp1(r1 * s[0] / 65535 + t.o.lightness) * 0.8f,
                l2 = k > 0 ? l * (1 - k) + k : l * (k + 1),
                S = l2 > 0.0001f && l2 < 0.9999f ? C / (1.001f - std::fabs(2 * l2 - 1)) : 0,
                k2 = clamp1(s[1] / 65535 + t.o.saturation),
                S2 = k2 > 0 ? S * (1 - r2 * k2) + r2 * k2 : S * (k2 + 1);
    auto rn = [](float v) { return u16(std::min(65535.0f, std::max(0.0f, std::nearbyint(v)))); };
    return {tr(65535 * turn(s[2], p[0] / 65535.0f)), rn(65535 * l2), rn(65535 * S2)};
}

TEST_F(Packed, EveryPathMatchesItsStepsAtAnyThreadCount) {
    for (int width : {1, 7, 300}) {
        cv::Mat const src = kxtest::fullRangeNoise<u16>(37, width, 3, 11 + width);
        cv::Mat const hue = kxtest::fullRangeNoise<u16>(37, width, 1, 5 + width);
        for (int path = 0; path < 5; ++path)
            for (int threads : {1, 2, 4}) {
                omp_set_num_threads(threads);
                cv::Mat img = src.clone(), f32, h32;
                if (path == 0) f.procInHLSSpace(img, hue, cv::Mat(), s[0], s[1], s[2], o);
                if (path == 1) f.procInHSVSpace(img, hue, cv::Mat(), s[0], s[1], s[2], o);
                if (path == 2) f.procInHSVSpaceSimple(img, s[0], s[1], s[2], o);
                if (path == 3) f.procInHLSSpaceSimple(img, s[0], s[1], s[2], o);
                if (path == 4) {  // the float form: the same steps without the truncations
                    src.convertTo(f32, CV_32F, 1 / 65535.0);
                    hue.convertTo(h32, CV_32F, 1 / 65535.0, 0.5 / 65535);  // code kept
                    f.procInHSLSpace_32f(f32, h32, cv::Mat(), s[0], s[1], s[2], o);
                    f32.convertTo(img, CV_16U, 65535);
                }
                int bad = 0;
                for (int i = 0; i < int(src.total()); ++i) {
                    cv::Vec3w const p = src.at<cv::Vec3w>(i);
                    cv::Vec3w const want = path == 0 || path == 4 ? hls(*this, p, hue.at<u16>(i))
                                           : path == 1 ? hsv(*this, p, hue.at<u16>(i), false)
                                           : path == 2 ? hsv(*this, p, p[0], true)
                                                       : hlsSimple(*this, p);
                    bad += cv::norm(img.at<cv::Vec3w>(i), want, cv::NORM_INF) > (path == 4) * 2;
                }
                EXPECT_EQ(bad, 0) << "path " << path << " width " << width << " threads "
                                  << threads;
            }
    }
    omp_set_num_threads(omp_get_num_procs());
}

std::vector<std::string> traced;

TEST_F(Packed, HsvTracesEveryPixelAndChecksItsInput) {
    cv::Mat img = kxtest::fullRangeNoise<u16>(3, 5, 3, 2),
            hue = kxtest::fullRangeNoise<u16>(3, 5, 1, 3);
    traced.clear();
    Kestrix::setQDebugFunc([](char const *line) { traced.emplace_back(line); });
    f.procInHSVSpace(img, hue, cv::Mat(), s[0], s[1], s[2], o);
    Kestrix::setQDebugFunc(nullptr);
    ASSERT_EQ(traced.size(), 15u);
    EXPECT_NE(traced[0].find(" - 648 - SelectiveColorFilter::procInHSVSpace : kS: "),
              std::string::npos)
        << traced[0];

    SCF bare;
    cv::Mat f32(3, 5, CV_32FC3);
    EXPECT_EQ(thrown([&] { bare.procInHLSSpace(img, hue, hue, s[0], s[1], s[2], o); }),
              "ERROR - SelectiveColorFilter - tables 0 to 7 are not set up");
    EXPECT_EQ(thrown([&] { f.procInHLSSpaceSimple(f32, s[0], s[1], s[2], o); }),
              "ERROR - SelectiveColorFilter - image must be CV_16UC3");
    EXPECT_EQ(thrown([&] { f.procInHSLSpace_32f(img, hue, hue, s[0], s[1], s[2], o); }),
              "ERROR - SelectiveColorFilter - image must be CV_32FC3");
    EXPECT_EQ(thrown([&] { f.procInHSVSpace(img, hue.colRange(0, 4), hue, s[0], s[1], s[2], o); }),
              "ERROR - SelectiveColorFilter - hue plane must be CV_16UC1 of the image's size");
    cv::Mat empty;
    EXPECT_TRUE(bare.procInHSVSpaceSimple(empty, s[0], s[1], s[2], o));
}

// ---- smoothing through blocks ---------------------------------------------------------

TEST(SelectiveColorFilter, BlocksMatchWholePlaneFilteringAndKeepFlatPlanesFlat) {
    SCF f;
    cv::Mat const photo = kxtest::photo("coffee.png");
    std::vector<cv::Mat> in(3);
    for (int i = 0; i < 3; ++i)
        cv::extractChannel(photo(cv::Rect(0, 0, 128, 96)), in[i], i),
            in[i].convertTo(in[i], CV_16U, 257);
    float scale[3] = {1.0f, 2.0f, 0.5f};

    // compute5: the three planes filtered together, scaled on the way in and out.
    std::vector<cv::Mat> out;
    f.compute5(in, scale, out, 8, 0.1f);
    std::vector<cv::Mat> fl(3);
    // The one block is 144 x 112, its margin the repeated last row and column.
    for (int i = 0; i < 3; ++i)
        in[i].convertTo(fl[i], CV_32F, scale[i] / 65536.0f);
    cv::Mat merged, result;
    cv::merge(fl, merged);
    cv::copyMakeBorder(merged, merged, 0, 16, 0, 16, cv::BORDER_REPLICATE);
    DTFilter dt;
    dt.setup(8, 0.1f, 3, DTFilter::L1);
    dt.proc(merged, result, 0);
    cv::split(result(cv::Rect(0, 0, 128, 96)), fl);
    for (int i = 0; i < 3; ++i) {
        cv::Mat want;
        fl[i].convertTo(want, CV_16U, 65536.0 / scale[i]);
        EXPECT_EQ(cv::norm(out[i], want, cv::NORM_INF), 0) << i;
    }

    // compute2: Y passes through, Dr and Db are smoothed along the colour guide.
    std::vector<cv::Mat> g;
    f.compute2(in, scale, g, 4, 0.01f * 65535);
    EXPECT_EQ(cv::norm(g[0], in[0], cv::NORM_INF), 0);
    EXPECT_GT(cv::norm(g[1], in[1], cv::NORM_L1), 0);
    EXPECT_LT(cv::norm(g[1], in[1], cv::NORM_INF), 20000);

    // Flat planes stay flat across the seams of two tiles.
    in = {cv::Mat(600, 1500, CV_16UC1, cv::Scalar(20000)),
          cv::Mat(600, 1500, CV_16UC1, cv::Scalar(32768)),
          cv::Mat(600, 1500, CV_16UC1, cv::Scalar(40000))};
    scale[1] = scale[2] = 1;
    std::vector<cv::Mat> a, b, c;
    f.compute3(in, in, a, 10, 0.2f);
    f.compute4(in, scale, in, b, 10, 3000);
    f.compute2(in, scale, c, 3, 100);
    for (auto const *o : {&a, &b, &c})
        for (int i = 0; i < 3; ++i)
            EXPECT_LE(cv::norm((*o)[i], in[i], cv::NORM_INF), 1) << i;

    std::vector<cv::Mat> two(in.begin(), in.begin() + 2), odd = in;
    odd[2] = cv::Mat(4, 4, CV_16UC1);
    EXPECT_EQ(thrown([&] { f.compute5(two, scale, a, 1, 1); }),
              "ERROR - SelectiveColorFilter::compute - need three planes");
    EXPECT_EQ(thrown([&] { f.compute4(in, scale, odd, a, 1, 1); }), kPlanes);
}

}  // namespace
