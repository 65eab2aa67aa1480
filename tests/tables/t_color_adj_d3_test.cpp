// The colour table: tables and proc of copies against plain references at 1, 2 and 4 threads.
#include "kestrix1/tables/t_color_adj_d3.h"

#include <gtest/gtest.h>
#include <omp.h>
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

// Knot by knot from the steps with the ranges of Open: how many entries differ.
int tableMismatches(Open const &o, A4 const &a) {
    float const g = a[2] >= 0 ? 2 * a[2] + 1 : a[2] + 1, k = a[0] * (a[0] > 0 ? 0.5f : 0.6f),
                h = a[1] * (a[1] > 0 ? 0.7f : 0.4f);
    auto mx = [](float &e, float w, float a, float b) { e = (1 - w) * e + w * (a * e + b); };
    int bad = 0;
    std::uint8_t row[256];  // the level's row, made at its first knot
    for (int i = 0; i < 35937; ++i) {
        int T = int(a[3] * 0.8f * (4.0f * (i / 1089) + 64.0f)), c;
        T = g > 1 ? int(T / g) : T;
        for (c = 0; c < 256 && i % 1089 == 0; ++c)
            row[c] = std::uint8_t(c < T ? std::min(T, 255) : c < -T ? 0 : c);
        if (i % 1089 == 0 && 0.3f * std::abs(T) > 1) smoothTable(row, 256, 0.3f * std::abs(T), 2);
        float const Y = float(u16(int(i / 1089 * 2047.96875f)));
        float const R = 2 * (float(int(i / 33 % 33 * 2047.96875f)) - 32768) + Y,
                    B = 2 * (float(int(i % 33 * 2047.96875f)) - 32768) + Y;
        float v[3] = {float(rnd16(R)) / 65535, float(rnd16(B)) / 65535,
                      float(rnd16(double(Y - 0.299f * R - 0.114f * B) * 1.7036)) / 65535};
        k < 0 ? (mx(v[2], -k, 1.15f, 0.12f), mx(v[1], -k, 1.6f, 0.48f))
              : (mx(v[0], k, 1.5f, 0.4f), mx(v[2], k, 1.35f, 0.28f));
        h < 0 ? mx(v[2], -h, 1.5f, 0.4f) : (mx(v[0], h, 1.25f, 0.2f), mx(v[1], h, 1.5f, 0.4f));
        float const Y1 = 38469.046875f * v[2] + 0.299f * (v[0] * 65535) + 0.114f * (v[1] * 65535);
        int const x = int(rnd16((v[0] * 65535 - Y1) * 0.5f + 32768)) - 32768,
                  y = int(rnd16((v[1] * 65535 - Y1) * 0.5f + 32768)) - 32768;
        c = int(std::sqrt(2.0 * (double(x) * x + double(y) * y)) * 0.00390625);
        float const s = std::min(4.0f, (row[std::min(c, 255)] + 4.0f) / (c + 4.0f));
        bad += o.m_lutDr[i] != rnd16(x * s + 32768.0f) || o.m_lutDb[i] != rnd16(y * s + 32768.0f);
    }
    return bad;
}

// Pixel i of proc with sixteen look-ups in table T, Db weight innermost, then Dr, then Y.
int pixel(u16 const *T, std::vector<cv::Mat> const &in, int i) {
    int const y0 = in[0].at<u16>(i), y1 = in[1].at<u16>(i);
    float const s = std::max(1.0f, (y1 + 655.3f) / (y0 + 655.3f));
    int const dr = int(rnd16((in[2].at<u16>(i) - 32768.0f) * s + 32768.0f)),
              db = int(rnd16((in[3].at<u16>(i) - 32768.0f) * s + 32768.0f));
    float const fy = (y1 & 2047) / 2048.0f, fr = (dr & 2047) / 2048.0f, fb = (db & 2047) / 2048.0f;
    T += ((y1 >> 11) * 33 + (dr >> 11)) * 33 + (db >> 11);
    auto l = [&](int z) { return T[z] * (1 - fb) + T[z + 1] * fb; };
    auto p = [&](int z) { return (1 - fr) * l(z) + l(z + 33) * fr; };
    return int(rnd16((1 - fy) * p(0) + p(1089) * fy));
}

TEST(TColorAdjD3, MatchesPlainReferencesThroughCopiesAtOneTwoFourThreads) {
    int const saved = omp_get_max_threads();  // below: g > 1 (a2 > 0), T beyond 255 and -256
    for (A4 a : {A4{0, 0, 0, 0}, A4{0.7f, 0.8f, 0, 0}, A4{-0.6f, -0.5f, 0, 0}, A4{0, 0, 0.5f, 1},
                 A4{0.3f, -0.4f, -0.5f, -1}, A4{-1, 1, 0, 3}, A4{0, 0, 0, -3}})
        for (int threads : {1, 2, 4}) {
            omp_set_num_threads(threads);
            Open o, *first = new Open;
            first->setAmounts(a[0], a[1], a[2], a[3]);
            o = Open(*first);  // still dirty; copies share the scratch, which outlives the first
            delete first;
            testing::internal::CaptureStdout();
            o.computeLUT16U();
            o.computeLUT16U();  // clean: no work, no line
            std::string const out = testing::internal::GetCapturedStdout();
            EXPECT_TRUE(out.rfind("time to compute LUT for color adj: ", 0) == 0 &&
                        std::count(out.begin(), out.end(), '\n') == 1);
            EXPECT_TRUE(!o.dirty() && o.amounts() == a && tableMismatches(o, a) == 0) << threads;
            for (int cols : {1, 7, 33}) {       // 70 x 33 is split between threads
                cv::Mat m(70, cols, CV_16UC4);  // y1 above and below y0, 0 and 65535 in every plane
                cv::RNG(cols).fill(m, cv::RNG::UNIFORM, 0, 65536);
                m.at<cv::Vec4w>(0) = 0, m.at<cv::Vec4w>(69 * cols) = cv::Vec4w::all(65535);
                std::vector<cv::Mat> in, out(2);
                cv::split(m, in);
                o.proc(in[0], in[1], in[2], in[3], out[0], out[1]);
                int bad = 0;
                for (int i = 0; i < 70 * cols; ++i)
                    bad += out[0].at<u16>(i) != pixel(o.m_lutDr, in, i) ||
                           out[1].at<u16>(i) != pixel(o.m_lutDb, in, i);
                EXPECT_EQ(bad, 0) << threads << " threads, width " << cols;
            }
        }
    omp_set_num_threads(saved);
    Open o;  // the identity, zero amounts and errors
    EXPECT_TRUE(o.m_lutDr[o.get3DLUTIdx(5, 32, 0)] == 65535 && o.m_lutDb[32] == 65535 &&
                o.m_lutDr[o.get3DLUTIdx(32, 1, 7)] == 2047 && o.get3DLUTIdx(1, 2, 3) == 1158);
    cv::Mat p(1, 2, CV_16UC1, cv::Scalar(30000)), q(1, 2, CV_16UC1, cv::Scalar(40000)), e, c[2];
    o.setAmounts(0, 0, 0, 0);        // in-gamut chroma back within a code, after the scale
    o.proc(p, q, p, p, c[0], c[1]);  // by 40655.3 / 30655.3: 30000 to 29097
    EXPECT_TRUE(std::abs(c[0].at<u16>(1) - 29097) <= 1 && std::abs(c[1].at<u16>(0) - 29097) <= 1);
    std::string const text = "ERROR - TColorAdjD3::proc - planes must be CV_16UC1 of one size";
    cv::Mat const small(1, 1, CV_16UC1), bytes(1, 2, CV_8UC1), before = c[0];
    EXPECT_EQ(kxtest::thrown([&] { o.proc(p, small, p, p, c[0], c[1]); }), text);
    EXPECT_EQ(kxtest::thrown([&] { o.proc(p, p, bytes, e, c[0], c[1]); }), text);
    EXPECT_TRUE(o.proc(e, e, e, e, c[0], c[1]) && c[0].data == before.data);
}

}  // namespace
