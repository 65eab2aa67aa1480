// The colour table over (Y, Dr, Db): tables and proc against plain references at 1, 2 and 4
// threads; exact values, zero amounts, the timing line, errors and copies.
#include "kestrix1/tables/t_color_adj_d3.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "kestrix1/tables/lut_smoothing.h"
#include "tests/support/throws.h"

namespace {

using u16 = std::uint16_t;
using A4 = std::array<float, 4>;
struct Open : TColorAdjD3 {
    Open() : TColorAdjD3(0.5f, 0.6f, 0.7f, 0.4f, 3.0f, 0.8f) {}
    using TColorAdjD3::computeLUT16U, TColorAdjD3::m_lutDb, TColorAdjD3::m_lutDr;
};
auto const rnd16 = [](double v) { return std::clamp(std::nearbyint(v), 0.0, 65535.0); };
auto const lines = [](std::string const &s) {  // timing lines: the label first, one per line
    auto const n = int(std::count(s.begin(), s.end(), '\n'));
    return s.empty() || s.rfind("time to compute LUT for color adj: ", 0) == 0 ? n : -1;
};

// Knot by knot from the steps with the ranges of Open: how many entries differ.
int tableMismatches(Open const &o, A4 const &a) {
    float const g = a[2] >= 0 ? 2 * a[2] + 1 : a[2] + 1;
    float const k = a[0] * (a[0] > 0 ? 0.5f : 0.6f), h = a[1] * (a[1] > 0 ? 0.7f : 0.4f);
    auto mx = [](float &e, float w, float gain, float lift) {
        e = (1 - w) * e + w * (gain * e + lift);
    };
    int bad = 0;
    for (int i = 0; i < 35937; ++i) {
        std::uint8_t row[256];
        int T = int(a[3] * 0.8f * (4.0f * (i / 1089) + 64.0f)), c;
        T = g > 1 ? int(T / g) : T;
        for (c = 0; c < 256; ++c)
            row[c] = std::uint8_t(c < T ? std::min(T, 255) : c < -T ? 0 : c);
        if (0.3f * std::abs(T) > 1) smoothTable(row, 256, 0.3f * std::abs(T), 2);
        float const Y = float(u16(int(i / 1089 * 2047.96875f)));
        float const R = 2 * (float(int(i / 33 % 33 * 2047.96875f)) - 32768) + Y;
        float const B = 2 * (float(int(i % 33 * 2047.96875f)) - 32768) + Y;
        float v[3] = {float(rnd16(R)), float(rnd16(double(Y - 0.299f * R - 0.114f * B) * 1.7036)),
                      float(rnd16(B))};
        for (float &e : v)
            e /= 65535;
        k < 0 ? (mx(v[1], -k, 1.15f, 0.12f), mx(v[2], -k, 1.6f, 0.48f))
              : (mx(v[0], k, 1.5f, 0.4f), mx(v[1], k, 1.35f, 0.28f));
        h < 0 ? mx(v[1], -h, 1.5f, 0.4f) : (mx(v[0], h, 1.25f, 0.2f), mx(v[2], h, 1.5f, 0.4f));
        float const Y1 = 38469.046875f * v[1] + 0.299f * (v[0] * 65535) + 0.114f * (v[2] * 65535);
        int const x = int(rnd16((v[0] * 65535 - Y1) * 0.5f + 32768)) - 32768;
        int const y = int(rnd16((v[2] * 65535 - Y1) * 0.5f + 32768)) - 32768;
        c = int(std::sqrt(2.0 * (double(x) * x + double(y) * y)) * 0.00390625);
        float const s = std::min(4.0f, (row[std::min(c, 255)] + 4.0f) / (c + 4.0f));
        bad += o.m_lutDr[i] != rnd16(x * s + 32768.0f) || o.m_lutDb[i] != rnd16(y * s + 32768.0f);
    }
    return bad;
}

// Pixel i of proc with sixteen plain look-ups in table T: Db innermost, then Dr, then Y.
int pixel(u16 const *T, std::vector<cv::Mat> const &in, int i) {
    int const y0 = in[0].at<u16>(i), y1 = in[1].at<u16>(i);
    float const s = std::max(1.0f, (y1 + 655.3f) / (y0 + 655.3f));
    int const dr = int(rnd16((in[2].at<u16>(i) - 32768.0f) * s + 32768.0f));
    int const db = int(rnd16((in[3].at<u16>(i) - 32768.0f) * s + 32768.0f));
    float const fy = (y1 & 2047) / 2048.0f, fr = (dr & 2047) / 2048.0f, fb = (db & 2047) / 2048.0f;
    T += ((y1 >> 11) * 33 + (dr >> 11)) * 33 + (db >> 11);
    auto lerp = [&](int z) { return T[z] * (1 - fb) + T[z + 1] * fb; };
    auto plane = [&](int z) { return (1 - fr) * lerp(z) + lerp(z + 33) * fr; };
    return int(rnd16((1 - fy) * plane(0) + plane(1089) * fy));
}

// Seeded planes Y0, Y1, Dr, Db with 0 and 65535 in each, y1 both above and below y0.
std::vector<cv::Mat> planes(int rows, int cols) {
    cv::Mat m(rows, cols, CV_16UC4);
    cv::RNG(cols).fill(m, cv::RNG::UNIFORM, 0, 65536);
    m.at<cv::Vec4w>(0) = 0, m.at<cv::Vec4w>(rows * cols - 1) = cv::Vec4w::all(65535);
    std::vector<cv::Mat> p;
    cv::split(m, p);
    return p;
}

class TColorAdjD3Sets : public testing::TestWithParam<A4> {};
INSTANTIATE_TEST_SUITE_P(Amounts, TColorAdjD3Sets,  // a2 > 0: g > 1; T beyond 255 and -256
                         testing::Values(A4{0, 0, 0, 0}, A4{0.7f, 0, 0, 0}, A4{-0.6f, 0, 0, 0},
                                         A4{0, 0.8f, 0, 0}, A4{0, -0.5f, 0, 0}, A4{0, 0, 0.5f, 1},
                                         A4{0.3f, -0.4f, -0.5f, -1}, A4{-1, 1, 0, 3},
                                         A4{0, 0, 0, -3}));

TEST_P(TColorAdjD3Sets, TablesAndProcMatchPlainReferencesAtOneTwoFourThreads) {
    int const saved = omp_get_max_threads();
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        Open o;
        o.setAmounts(GetParam()[0], GetParam()[1], GetParam()[2], GetParam()[3]);
        testing::internal::CaptureStdout();
        o.computeLUT16U();
        EXPECT_EQ(lines(testing::internal::GetCapturedStdout()), 1);
        EXPECT_EQ(tableMismatches(o, GetParam()), 0) << threads;
        for (int cols : {1, 7, 33}) {  // 70 x 33 is split between threads
            std::vector<cv::Mat> in = planes(70, cols), out(2);
            o.proc(in[0], in[1], in[2], in[3], out[0], out[1]);
            ASSERT_TRUE(out[0].size() == in[0].size() && out[1].type() == CV_16UC1);
            int bad = 0;
            for (int i = 0; i < 70 * cols; ++i)
                bad += out[0].at<u16>(i) != pixel(o.m_lutDr, in, i) ||
                       out[1].at<u16>(i) != pixel(o.m_lutDb, in, i);
            EXPECT_EQ(bad, 0) << threads << " threads, width " << cols;
        }
    }
    omp_set_num_threads(saved);
}

TEST(TColorAdjD3, IdentityMixesZeroAmountsTimingErrorsAndCopies) {
    auto *o = new Open;
    float m[3];  // weights chosen so that swapping any two changes the result
    TColorAdjD3::mix(m[0], 10, 20, 0.25f);
    TColorAdjD3::mix(m[1], 1, 2, 3, 4, 0.5f, 0.25f);
    TColorAdjD3::mix(m[2], 1, 2, 3, 4, 5, 6, 7, 8, 0.75f, 0.5f, 0.25f);
    EXPECT_TRUE(m[0] == 12.5f && m[1] == 2.25f && m[2] == 5.25f && o->get3DLUTIdx(1, 2, 3) == 1158);
    EXPECT_TRUE(o->m_lutDr[o->get3DLUTIdx(5, 32, 0)] == 65535 && o->m_lutDb[32] == 65535 &&
                o->m_lutDr[o->get3DLUTIdx(32, 1, 7)] == 2047 && o->m_lutDb[16] == 32767);
    // Zero amounts give in-gamut chroma back within a code: scale 1.5, then 1 (y1 = y0, y1 < y0).
    std::vector<cv::Mat> in{
        cv::Mat_<u16>({1, 3}, {19345, 30000, 40000}), cv::Mat_<u16>({1, 3}, {29345, 30000, 20000}),
        cv::Mat_<u16>({1, 3}, {30000, 36000, 31000}), cv::Mat_<u16>({1, 3}, {34000, 29000, 33000})},
        r(2), c(2);
    testing::internal::CaptureStdout();
    o->proc(in[0], in[1], in[2], in[3], r[0], r[1]);  // clean from the start: no line
    o->setAmounts(0, 0, 0, 0);
    o->proc(in[0], in[1], in[2], in[3], r[0], r[1]);
    EXPECT_LE(cv::norm(r[0], cv::Mat_<u16>({1, 3}, {28616, 36000, 31000}), cv::NORM_INF), 1);
    EXPECT_LE(cv::norm(r[1], cv::Mat_<u16>({1, 3}, {34616, 29000, 33000}), cv::NORM_INF), 1);
    in = planes(6, 9);
    o->setAmounts(0.5f, -0.3f, 0.2f, 1.5f);
    Open copy(*o), assigned;  // dirty, amounts and scratch come along
    o->proc(in[0], in[1], in[2], in[3], r[0], r[1]);
    o->proc(in[0], in[1], in[2], in[3], r[0], r[1]);
    EXPECT_EQ(lines(testing::internal::GetCapturedStdout()), 2);
    EXPECT_TRUE(!o->dirty() && o->amounts() == (A4{0.5f, -0.3f, 0.2f, 1.5f}));
    std::string const text = "ERROR - TColorAdjD3::proc - planes must be CV_16UC1 of one size";
    cv::Mat const e, small(6, 8, CV_16UC1), bytes(6, 9, CV_8UC1), before = c[0] = r[0].clone();
    EXPECT_EQ(kxtest::thrown([&] { o->proc(in[0], small, in[2], in[3], c[0], c[1]); }), text);
    EXPECT_EQ(kxtest::thrown([&] { o->proc(in[0], in[1], bytes, in[3], c[0], c[1]); }), text);
    EXPECT_EQ(kxtest::thrown([&] { o->proc(in[0], in[1], in[2], e, c[0], c[1]); }), text);
    EXPECT_TRUE(o->proc(e, e, e, e, c[0], c[1]) && c[0].data == before.data);
    assigned = *o;  // clean, with the computed tables
    delete o;       // the copies keep the scratch alive
    testing::internal::CaptureStdout();
    assigned.proc(in[0], in[1], in[2], in[3], c[0], c[1]);
    copy.proc(in[0], in[1], in[2], in[3], in[2], in[3]);  // in place
    EXPECT_EQ(lines(testing::internal::GetCapturedStdout()), 1);
    EXPECT_EQ(cv::norm(c[0], r[0], cv::NORM_INF) + cv::norm(c[1], r[1], cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(in[2], r[0], cv::NORM_INF) + cv::norm(in[3], r[1], cv::NORM_INF), 0);
}

}  // namespace
