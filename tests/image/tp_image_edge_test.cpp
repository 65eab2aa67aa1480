// Edge planes and rebuilding: the tables, the texts, each member against plain loops.
#include <gtest/gtest.h>
#include <omp.h>
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <utility>
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {
struct Edge : TPImage {  // reaches the protected members
    using TPImage::applyFullToEdgeLUT, TPImage::computeLUT, TPImage::edgeToFull;
    using TPImage::fullToEdge, TPImage::localGain, TPImage::reconstructFull;
    using TPImage::m_lutEdgeToFull_p, TPImage::m_lutFullToEdge_p;
};
auto const fwd = [](int v) { return int(Edge::m_lutFullToEdge_p[v]); };
auto const inv = [](int i) { return float(Edge::m_lutEdgeToFull_p[i]); };
auto const sat16 = [](float v) { return std::clamp(std::nearbyint(v), 0.f, 65535.f); };
cv::Mat resized(cv::Mat const &in, cv::Size size, int method) {  // half size when size is empty
    cv::Mat out(size.empty() ? cv::Size(TPImage::half(in.cols), TPImage::half(in.rows)) : size,
                in.type());
    (size.empty() ? downSize2X : upSize2X)(in, out, method);
    return out;
}
template <class Want>
void expectPixels(cv::Mat_<int> const &m, Want want) {
    for (int y = 0; y < m.rows; ++y)
        for (int x = 0; x < m.cols; ++x)
            ASSERT_EQ(int(want(y, x)), m(y, x));
}
// The binomial 5x5 in double over a replicated border, and the local gain with it.
cv::Mat blur5(cv::Mat const &m) {
    cv::Mat out, k = (cv::Mat_<double>(5, 1) << 1, 4, 6, 4, 1) / 16.0;
    cv::sepFilter2D(m, out, CV_64F, k, k, {-1, -1}, 0, cv::BORDER_REPLICATE);
    return out;
}
cv::Mat refGain(cv::Mat const &T, cv::Mat const &B, float epsilon) {
    cv::Mat d[4];  // Tx, Bx, Ty, By: forward differences, 0 in the last column or row
    for (int i = 0; i < 4; ++i) {
        cv::Mat_<float> p(i % 2 ? B : T);
        cv::Rect const to(0, 0, p.cols - (i < 2), p.rows - (i > 1));
        d[i] = cv::Mat::zeros(p.size(), CV_32F);
        cv::subtract(p(to + cv::Point(i<2, i> 1)), p(to), d[i](to));
    }
    double const c = epsilon * 65535.0f;
    return cv::Mat_<float>((blur5(d[0].mul(d[1])) + blur5(d[2].mul(d[3])) + c) /
                           (blur5(d[0].mul(d[0])) + blur5(d[2].mul(d[2])) + c));
}

TEST(TPImageEdge, TablesHoldTheirValuesAndTheTextsAreThrown) {
    cv::Mat out;
    unsigned char *const forward = std::exchange(Edge::m_lutFullToEdge_p, nullptr);
    EXPECT_EQ(kxtest::thrown([&] { Edge::applyFullToEdgeLUT(cv::Mat(), out); }),
              "ERROR - TPImage::applyFullToEdgeLUT: LUT is NULL.");
    unsigned short *const inverse = std::exchange(Edge::m_lutEdgeToFull_p, nullptr);
    Edge::m_lutFullToEdge_p = forward;
    EXPECT_EQ(kxtest::thrown(&Edge::computeLUT),
              "ERROR - TPImage::computeLUT: LUT is not allocated.");
    Edge::m_lutEdgeToFull_p = inverse;
    Edge::computeLUT();  // again, with the same tables as filled at load time:
    EXPECT_TRUE(fwd(32768) == 128 && fwd(0) == 0 && fwd(65535) == 255 && inv(128) == 32768);
    EXPECT_EQ(inv(0), 0);              // -0.63 truncated
    for (int v = 0; v < 65536; ++v) {  // the whole forward table
        double const r = std::sqrt(std::abs(v - 32768.0)) * 0.7071f;
        ASSERT_EQ(fwd(v), std::clamp(std::rint(v < 32768 ? 128.0 - r : r + 128.0), 0.0, 255.0));
    }
    for (int d = -3000; d <= 3000; ++d)  // a round trip within the step
        ASSERT_LE(std::abs(inv(fwd(32768 + d)) - 32768 - d), 1.415 * std::sqrt(std::abs(d)) + 1.5);
}

// The edge plane with and without a half plane; the simple rebuild in integers near 1.
TEST(TPImageEdge, EdgePlaneAndSimpleRebuild) {
    cv::Mat const full = kxtest::noise(23, 37, CV_16U, 1, 0, 65536), low = resized(full, {}, 257);
    cv::Mat out, edge, up;
    for (cv::Mat const &given : {cv::Mat(low / 2), cv::Mat()}) {  // the last: reduced from full
        Edge::fullToEdge(full, given, edge);
        up = resized(given.empty() ? low : given, full.size(), 257);
        expectPixels(edge, [&](int y, int x) {
            return fwd((full.at<std::uint16_t>(y, x) - up.at<std::uint16_t>(y, x)) / 2 + 32768);
        });
    }
    for (float gain : {1.005f, 1.02f}) {
        Edge::edgeToFull(edge, low, out, gain);
        expectPixels(out, [&](int y, int x) {
            int const u = up.at<std::uint16_t>(y, x), e = inv(edge.at<uchar>(y, x));
            return gain < 1.01f ? std::clamp(u + e - 32768, 0, 65535)
                                : sat16(u + (e - 32768.0f) * gain);
        });
    }
}

// An unchanged plane has a gain of exactly 1; a tenfold one saturates at 255 (3.98).
TEST(TPImageEdge, LocalGainAndTheStructureFollowingRebuilds) {
    cv::Mat const src = kxtest::noise(23, 37, CV_16U, 3, 2e4, 58e3), T = resized(src, {}, 4);
    cv::Mat const B = T / 2 + kxtest::noise(12, 19, CV_16U, 9, 16000, 19000);
    cv::Mat const dim = kxtest::noise(23, 37, CV_16U, 4, 32e3, 34e3), dT = resized(dim, {}, 4);
    cv::Mat const sources[] = {src, dim, src}, changed[] = {T, dT * 10 - 297000, B};
    float const epsilons[] = {0.5f, 1e-6f, 0.01f}, gains[] = {1.0f, 0.7f, 1.5f};
    for (int i : {0, 1, 2}) {  // unchanged at gain 1, tenfold at 0.7, changed
        cv::Mat const &s = sources[i], &c = changed[i], h = resized(s, {}, 4);
        float const epsilon = epsilons[i], gain = gains[i];
        cv::Mat edge, out, g8, result(s.size(), CV_16U), V = resized(h, s.size(), 4);
        Edge::fullToEdge(s, h, edge);
        Edge::edgeToFull(edge, h, c, out, epsilon, gain);
        refGain(h, c, epsilon).convertTo(g8, CV_8U, 128.0 / 3.0);
        blur5(g8).convertTo(g8, CV_8U, 1, 1.0 / 512);  // ties of the 8-bit blur round up
        cv::Mat W = resized(g8, s.size(), 2), up = resized(c, s.size(), 257);
        expectPixels(out, [&](int y, int x) {
            float const d = inv(edge.at<uchar>(y, x)) - 32768.0f;
            return sat16(up.at<std::uint16_t>(y, x) + d * (gain * 0.0234375f) * W.at<uchar>(y, x));
        });
        Edge::reconstructFull(s, c, result, epsilon, gain);
        refGain(h, c, epsilon).convertTo(g8, CV_8U, 64.0);
        EXPECT_TRUE(i > 1 || cv::countNonZero(g8 == (i ? 255 : 64)) > int(g8.total() / 2));
        W = resized(cv::max(g8, 32), s.size(), 2), up = resized(c, s.size(), 4);
        expectPixels(result, [&](int y, int x) {
            float const d = float(s.at<std::uint16_t>(y, x)) - V.at<std::uint16_t>(y, x);
            return sat16(up.at<std::uint16_t>(y, x) + d * (gain * 0.015625f) * W.at<uchar>(y, x));
        });
        EXPECT_TRUE(i || cv::norm(result, s, cv::NORM_INF) == 0);
    }
    cv::Mat const big = kxtest::noise(301, 517, CV_16U, 5, 0, 65536), bB = resized(big, {}, 4) / 2;
    cv::Mat r[3] = {{big.size(), CV_16U}, {big.size(), CV_16U}, {big.size(), CV_16U}};
    for (int n : {1, 2, 4}) {  // the same pixels on any number of threads, on a plane they split
        omp_set_num_threads(n);
        Edge::reconstructFull(big, bB, r[n / 2], 0.01f, 1.0f);
        EXPECT_EQ(cv::norm(r[0], r[n / 2], cv::NORM_INF), 0) << n;
    }
}
}  // namespace
