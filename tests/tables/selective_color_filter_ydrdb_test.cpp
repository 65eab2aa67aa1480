// SelectiveColorFilter on Y, Dr, Db planes: every form against a plain double reference of
// its formulas over all hue codes, at each vector width and thread count, plus proc2 and errors.
#include <gtest/gtest.h>
#include <omp.h>

#include <array>
#include <cmath>

#include "kestrix1/tables/selective_color_filter.h"
#include "tests/support/throws.h"
#include "tests/support/vector_paths.h"

namespace {

using u16 = std::uint16_t;
using Planes = std::vector<cv::Mat>;
using Set = SelectiveColorFilter::SelectiveColorParameters;
enum Form { Three, Four, Family };
struct Sets {
    Set l, f, s, h;  // lightness, further, saturation, hue
    SelectiveColorFilter::OverallParameters o;
};

auto const sat16 = [](double v) { return std::clamp(std::nearbyint(v), 0.0, 65535.0); };

// One pixel by the formulas: Y, Dr, Db, the further plane, then Dr and Db once more with the
// truncation taken on the other side of a whole number when the value is within 1e-6 of one:
// there the last bit of the double sine or cosine decides, and either result is the formula's.
std::array<int, 6> reference(Form form, Sets c, int code, int wv, std::array<int, 4> in) {
    if (form != Family) c.o = {};
    float const fam[2][6] = {{0, 60, 100, 165, 220, 300}, {-1256, -628, -628, -1236, -1570, -942}};
    float const deg = float(code / 65535.0 * 360.0), hw = deg - std::ceil(deg / 360) * 360;
    double m[6], w = wv / 65535.0, pi = std::acos(-1.0);
    for (int k = 0; k < 6; ++k) {
        float const ct = form == Family ? fam[0][k] : 60.0f * k, hi = std::max(hw, ct),
                    lo = std::min(hw, ct), d = std::min(360 - hi + lo, hi - lo);
        m[k] = float(std::exp(double(d * d / (form == Family ? fam[1][k] : -1236.0f))));
    }
    auto sum = [&](Set const &s, int last) {
        int const slot[6] = {0, 2, 3, 4, 5, last};
        double v = 0;
        for (int k = 0; k < 6; ++k)
            v += double(s[slot[k]]) * m[k];
        return v;
    };
    auto tone = [&](double S, double v) { return std::pow(v, std::pow(4.0, -(1.8 * S * w))); };
    std::array<int, 6> out{in[0], in[1], in[2], in[3]};
    out[0] =
        int(sat16(65535 * tone(sum(c.l, 7) + (form == Family) * (c.l[0] * m[0] + c.o.lightness),
                               in[0] / 65535.0)));
    double const cf = (in[3] - 32768) / 65535.0, a = in[1] - 32768, b = in[2] - 32768;
    if (form == Four)
        out[3] = int(sat16(std::copysign(65535 * tone(sum(c.f, 5), std::fabs(cf)), cf) + 32768));
    double const S = sum(c.s, 7) + c.o.saturation;
    double t = form == Four || b != 0 ? std::atan(a / b) : a > 0 ? pi / 2 : -pi / 2;
    t = (std::isnan(t) ? 0 : t) + (b < 0 ? pi : 0) + pi * (sum(c.h, 7) + c.o.hue);
    float const fa = float(a) / 32768, fb = float(b) / 32768,
                r = std::sqrt(fa * fa + fb * fb) * 32768;
    for (int j = 1; j < 3; ++j) {
        double const v = r * (j == 1 ? std::sin(t) : std::cos(t)) + 32768;
        double const near = std::nearbyint(v), tie = std::fabs(v - near) < 1e-6;
        double const lo = tie ? near - 1 : std::trunc(v), hi = tie ? near : lo;
        for (int side = 0; side < 2; ++side)
            out[j + 3 * side] =
                form == Family
                    ? int(sat16((v - 32768) * (S > 0 ? 1 + S : std::pow(8.0, S)) + 32768))
                    : int(sat16((std::clamp(side ? hi : lo, 0.0, 65535.0) - 32768) * std::exp2(S) +
                                32768));
    }
    return out;
}

// Hue codes 0, 7, 14, ... down the rows; across, Dr and Db from a list (grey, axes, extremes)
// and Y and the weight from a hash, with 0 and 65535 among them. Planes Y, Dr, Db, further, hue,
// weight.
Planes sweep() {
    Planes p(6, cv::Mat(65536 / 7 + 1, 64, CV_16UC1));
    for (cv::Mat &m : p)
        m = m.clone();  // six planes of their own
    for (int y = 0; y < p[0].rows; ++y)
        for (int x = 0; x < 64; ++x) {
            unsigned const hsh = (y * 2654435761u) ^ (x * 40503u), v = hsh >> 16;
            int const list[8] = {0,     1,     int(v % 32768),     32767,
                                 32768, 32769, int(32768 + v / 2), 65535};
            int const Y = x % 3 == 0 ? 0 : x % 5 == 0 ? 65535 : int(v);
            int const vals[6] = {Y,     list[x % 8],           list[x / 8], int(hsh & 65535),
                                 7 * y, x % 4 ? int(v) : 65535};
            for (int j = 0; j < 6; ++j)
                p[j].at<u16>(y, x) = u16(vals[j]);
        }
    return p;
}

// clang-format off
Sets const kSets[] = {
    {},  // all zero: Y stays, Dr and Db move by at most the truncation's code
    {{0.5f, 9, -0.3f, 0.2f, 0.8f, -0.6f, 9, 0.4f}, {0.7f, 9, 0.2f, -0.5f, 0.1f, 0.6f, 9, 9},
     {0.4f, 9, -0.5f, 0.9f, 0.3f, 0.2f, 9, -0.7f}, {0.3f, 9, -0.2f, 0.6f, -0.9f, 0.25f, 9, 0.1f},
     {0.2f, -0.3f, 0.15f}},
    {{-1, 0, -0.8f, -1, -0.5f, -0.9f, 0, -1}, {-1, 0, -1, -0.4f, -1, -0.7f, 0, 0},
     {1, 0, 1.2f, 1, 0.9f, 1, 0, 1}, {}, {-0.2f, -0.4f, 0}},
};
// clang-format on

// The form on copies of in (or on in's own planes when told).
Planes run(Form form, Sets const &c, Planes const &in, bool copy = true) {
    auto const get = [&](int j) { return copy ? in[j].clone() : in[j]; };
    Planes p{get(0), get(1), get(2)}, f{get(3)};
    SelectiveColorFilter s;
    if (form == Three) s.proc(p, f, in[4], in[5], c.l, c.s, c.h);
    if (form == Four) s.proc(p, f, in[4], in[5], c.l, c.f, c.s, c.h);
    if (form == Family) s.proc(p, in[4], in[5], c.l, c.s, c.h, c.o);
    p.push_back(f[0]);
    return p;
}

TEST(SelectiveColorFilterYDrDb, EveryFormWithinOneCodeOfItsFormulasAtEveryWidthAndThreadCount) {
    Planes const in = sweep();
    int const saved = omp_get_max_threads();
    for (Form form : {Three, Four, Family})
        for (Sets const &c : kSets) {
            Planes ref = sweep();  // overwritten: Y, Dr, Db, further, then Dr and Db again
            for (int i = 0; i < int(in[0].total()); ++i) {
                auto const px = [&](int j) { return int(in[j].at<u16>(i)); };
                auto const o = reference(form, c, px(4), px(5), {px(0), px(1), px(2), px(3)});
                for (int j = 0; j < 6; ++j)
                    ref[j].at<u16>(i) = u16(o[j]);
            }
            auto const far = [&](Planes const &out) {  // pixels a code away from both
                int bad = 0;
                for (int y = 0; y < out[0].rows; ++y)
                    for (int x = 0; x < out[0].cols; ++x)
                        for (int j = 0; j < 4; ++j) {
                            int const v = out[j].at<u16>(y, x), alt = j == 1 || j == 2 ? j + 3 : j;
                            bad += std::abs(v - ref[j].at<u16>(y, x)) > 1 &&
                                   std::abs(v - ref[alt].at<u16>(y, x)) > 1;
                        }
                return bad;
            };
            kxtest::forEachVectorPath([&] {
                Planes first;
                for (int threads : {1, 2, 4}) {
                    omp_set_num_threads(threads);
                    Planes const out = run(form, c, in);
                    for (int j = 0; j < 4 && first.size(); ++j)
                        EXPECT_EQ(cv::norm(out[j], first[j], cv::NORM_INF), 0) << threads;
                    if (first.empty()) first = out;
                }
                EXPECT_EQ(far(first), 0) << form;
                cv::Mat const grey = (in[1] == 32768) & (in[2] == 32768);
                EXPECT_EQ(cv::countNonZero((first[0] != 0) & (in[0] == 0)), 0);  // 0 stays 0
                EXPECT_EQ(cv::countNonZero(((first[1] != 32768) | (first[2] != 32768)) & grey), 0);
                EXPECT_TRUE(&c != kSets || (cv::norm(first[0], in[0], cv::NORM_INF) == 0 &&
                                            cv::norm(first[1], in[1], cv::NORM_INF) <= 1 &&
                                            cv::norm(first[2], in[2], cv::NORM_INF) <= 1));
            });
            for (int cols : {1, 7, 33}) {  // inside a wider plane: the row step exceeds the width
                Planes roi(6);
                for (int j = 0; j < 6; ++j) {
                    cv::Mat big(in[j].rows, cols + 9, CV_16UC1, cv::Scalar(12345));
                    roi[j] = big.colRange(4, 4 + cols);
                    in[j].colRange(0, cols).copyTo(roi[j]);
                }
                Planes const out = run(form, c, roi, false);
                EXPECT_EQ(far(out), 0) << cols;
                cv::Mat const whole(out[0].rows, cols + 9, CV_16UC1, out[0].data - 8, out[0].step);
                EXPECT_EQ(cv::countNonZero(whole.colRange(0, 4) != 12345), 0);
            }
        }
    omp_set_num_threads(saved);
}

TEST(SelectiveColorFilterYDrDb, Proc2ComputesHueAndRangeAndRunsTheFourSetFormOnCopies) {
    Planes const all = sweep(), keep = sweep();
    Planes in(all.begin(), all.begin() + 4), out, hr;
    SelectiveColorFilter s;
    Planes mine(2), out2;
    s.compHueRange(in, mine);
    Planes ref = run(Four, kSets[1], {in[0], in[1], in[2], in[3], mine[0], mine[1]});
    Sets const &c = kSets[1];
    ASSERT_TRUE(s.proc2(in, out, hr, c.l, c.f, c.s, c.h) && s.proc2(in, out2, c.l, c.f, c.s, c.h));
    for (int j = 0; j < 4; ++j)
        EXPECT_TRUE(cv::norm(out[j], ref[j], cv::NORM_INF) == 0 && cv::norm(in[j], keep[j]) == 0 &&
                    cv::norm(out2[j], ref[j]) == 0)
            << j;
    EXPECT_TRUE(cv::norm(hr[0], mine[0]) == 0 && cv::norm(hr[1], mine[1]) == 0);
}

TEST(SelectiveColorFilterYDrDb, ThrowsItsTextsBeforeWriting) {
    SelectiveColorFilter s;
    Set z;
    cv::Mat const a(2, 3, CV_16UC1, cv::Scalar(5)), small(2, 2, CV_16UC1), bytes(2, 3, CV_8UC1);
    Planes two{a.clone(), a.clone()}, three{a.clone(), a.clone(), a.clone()}, none, one{a.clone()};
    Planes bad{a.clone(), small.clone(), a.clone(), a.clone()}, out;
    std::string const
        p = "ERROR - SelectiveColorFilter::proc - need Y, Dr, Db planes",
        f = "ERROR - SelectiveColorFilter::proc - need a further plane",
        q = "ERROR - SelectiveColorFilter::proc2 - need Y, Dr, Db and a further plane",
        t = "ERROR - SelectiveColorFilter - planes must be CV_16UC1 of one size";
    using kxtest::thrown;
    EXPECT_EQ(thrown([&] { s.proc(two, one, a, a, z, z, z); }), p);
    EXPECT_EQ(thrown([&] { s.proc(two, one, a, a, z, z, z, z); }), p);
    EXPECT_EQ(thrown([&] { s.proc(two, a, a, z, z, z); }), p);
    EXPECT_EQ(thrown([&] { s.proc(three, none, a, a, z, z, z, z); }), f);
    EXPECT_EQ(thrown([&] { s.proc(three, none, small, a, z, z, z); }), t);
    EXPECT_EQ(thrown([&] { s.proc(three, one, a, bytes, z, z, z, z); }), t);
    EXPECT_EQ(thrown([&] { s.proc(three, a, small, z, z, z, {}); }), t);
    EXPECT_EQ(thrown([&] { s.proc2(three, out, z, z, z, z); }), q);
    EXPECT_EQ(thrown([&] { s.proc2(bad, out, z, z, z, z); }), t);
    EXPECT_TRUE(out.empty() && cv::countNonZero(three[0] != 5) == 0);
    Planes empty(4);  // nothing to do is not an error
    EXPECT_TRUE(s.proc(empty, empty, cv::Mat(), cv::Mat(), z, z, z, z));
    EXPECT_TRUE(s.proc2(empty, out, z, z, z, z));
}

}  // namespace
