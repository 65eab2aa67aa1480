// Edge planes and full-size rebuilding: the companding tables at their stated values, each
// member against a plain loop written here (resampling through the library's own scaling
// functions, which have their own tests), the thrown texts and thread independence.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::noise;

// Reaches the protected members.
struct Edge : TPImage {
    using TPImage::applyFullToEdgeLUT;
    using TPImage::computeLUT;
    using TPImage::edgeToFull;
    using TPImage::fullToEdge;
    using TPImage::localGain;
    using TPImage::m_lutEdgeToFull_p;
    using TPImage::m_lutFullToEdge_p;
    using TPImage::reconstructFull;
};

int const kRows = 23, kCols = 37;  // odd in both directions: half planes of 12 x 19

cv::Mat halfOf(cv::Mat const &full, int method) {
    cv::Mat h(TPImage::half(full.rows), TPImage::half(full.cols), full.type());
    downSize2X(full, h, method);
    return h;
}
cv::Mat upTo(cv::Mat const &in, cv::Size size, int method) {
    cv::Mat out(size, in.type());
    upSize2X(in, out, method);
    return out;
}

int fwd(int v) {
    return Edge::m_lutFullToEdge_p[v];
}
int inv(int i) {
    return Edge::m_lutEdgeToFull_p[i];
}

// The local gain in plain loops: forward differences, binomial 5x5 over a clamped border.
cv::Mat refGain(cv::Mat const &T, cv::Mat const &B, float epsilon) {
    int const r = T.rows, c = T.cols;
    auto at = [](cv::Mat const &m, int y, int x) { return float(m.at<std::uint16_t>(y, x)); };
    cv::Mat p[4];
    for (cv::Mat &m : p)
        m.create(r, c, CV_32F);
    for (int y = 0; y < r; ++y)
        for (int x = 0; x < c; ++x) {
            float const dxT = x + 1 < c ? at(T, y, x + 1) - at(T, y, x) : 0.f;
            float const dxB = x + 1 < c ? at(B, y, x + 1) - at(B, y, x) : 0.f;
            float const dyT = y + 1 < r ? at(T, y + 1, x) - at(T, y, x) : 0.f;
            float const dyB = y + 1 < r ? at(B, y + 1, x) - at(B, y, x) : 0.f;
            p[0].at<float>(y, x) = dxT * dxT, p[1].at<float>(y, x) = dyT * dyT;
            p[2].at<float>(y, x) = dxT * dxB, p[3].at<float>(y, x) = dyT * dyB;
        }
    double const w[5] = {1, 4, 6, 4, 1};
    auto blur = [&](cv::Mat const &m, int y, int x) {
        double s = 0;
        for (int j = -2; j <= 2; ++j)
            for (int i = -2; i <= 2; ++i)
                s += w[j + 2] * w[i + 2] *
                     m.at<float>(std::clamp(y + j, 0, r - 1), std::clamp(x + i, 0, c - 1));
        return float(s / 256);
    };
    float const k = epsilon * 65535.0f;
    cv::Mat g(r, c, CV_32F);
    for (int y = 0; y < r; ++y)
        for (int x = 0; x < c; ++x)
            g.at<float>(y, x) = (blur(p[2], y, x) + blur(p[3], y, x) + k) /
                                (blur(p[0], y, x) + blur(p[1], y, x) + k);
    return g;
}

// 8-bit binomial 5x5, rounded half up, over a clamped border.
cv::Mat refGauss8(cv::Mat const &m) {
    int const w[5] = {1, 4, 6, 4, 1};
    cv::Mat out(m.size(), CV_8U);
    for (int y = 0; y < m.rows; ++y)
        for (int x = 0; x < m.cols; ++x) {
            int s = 0;
            for (int j = -2; j <= 2; ++j)
                for (int i = -2; i <= 2; ++i)
                    s += w[j + 2] * w[i + 2] *
                         m.at<std::uint8_t>(std::clamp(y + j, 0, m.rows - 1),
                                            std::clamp(x + i, 0, m.cols - 1));
            out.at<std::uint8_t>(y, x) = std::uint8_t((s + 128) >> 8);
        }
    return out;
}

std::uint16_t sat16f(float v) {
    return std::uint16_t(std::clamp(std::nearbyint(v), 0.0f, 65535.0f));
}

// A source with structure and an effect's result on it: half the contrast plus new texture.
cv::Mat sourcePlane(int rows = kRows, int cols = kCols) {
    cv::Mat s = noise(rows, cols, CV_16U, 3, 20000, 46000);
    s.colRange(cols / 2, cols) += 12000;
    return s;
}
cv::Mat changedOf(cv::Mat const &half) {
    cv::Mat c;
    half.convertTo(c, CV_16U, 0.5, 16000);
    return c + noise(half.rows, half.cols, CV_16U, 9, 0, 3000);
}

TEST(TPImageEdge, TablesHoldTheirStatedValues) {
    EXPECT_EQ(fwd(32768), 128);
    EXPECT_EQ(fwd(0), 0);
    EXPECT_EQ(fwd(65535), 255);
    EXPECT_EQ(inv(128), 32768);
    EXPECT_EQ(inv(0), 0);  // -0.63 truncated
    float const k = 0.7071f;
    for (int v = 0; v < 65536; ++v) {
        double const e = v < 32768 ? std::rint(128.0 - std::sqrt(32768.0 - v) * k)
                                   : std::rint(std::sqrt(v - 32768.0) * k + 128.0);
        ASSERT_EQ(fwd(v), int(std::clamp(e, 0.0, 255.0))) << v;
    }
    for (int i = 1; i < 256; ++i) {
        float const t = float(std::abs(i - 128)) / k;
        ASSERT_EQ(inv(i), int(i < 128 ? 32768.0 - t * t : t * t + 32768.0)) << i;
    }
    // A small difference comes back within the companding step, which grows as its root.
    for (int d = -3000; d <= 3000; ++d)
        ASSERT_LE(std::abs(inv(fwd(32768 + d)) - 32768 - d), 1.415 * std::sqrt(std::abs(d)) + 1.5)
            << d;
    // Again: the same tables.
    std::vector<unsigned char> const before(Edge::m_lutFullToEdge_p,
                                            Edge::m_lutFullToEdge_p + 65536);
    Edge::computeLUT();
    EXPECT_TRUE(std::equal(before.begin(), before.end(), Edge::m_lutFullToEdge_p));
}

TEST(TPImageEdge, MissingTablesThrowTheirTexts) {
    unsigned char *const forward = Edge::m_lutFullToEdge_p;
    unsigned short *const inverse = Edge::m_lutEdgeToFull_p;
    cv::Mat in(3, 3, CV_16U, cv::Scalar(1)), out;
    Edge::m_lutEdgeToFull_p = nullptr;
    EXPECT_EQ(kxtest::thrown([] { Edge::computeLUT(); }),
              "ERROR - TPImage::computeLUT: LUT is not allocated.");
    Edge::m_lutEdgeToFull_p = inverse;
    Edge::m_lutFullToEdge_p = nullptr;
    EXPECT_EQ(kxtest::thrown([] { Edge::computeLUT(); }),
              "ERROR - TPImage::computeLUT: LUT is not allocated.");
    EXPECT_EQ(kxtest::thrown([&] { Edge::applyFullToEdgeLUT(in, out); }),
              "ERROR - TPImage::applyFullToEdgeLUT: LUT is NULL.");
    EXPECT_TRUE(out.empty());
    Edge::m_lutFullToEdge_p = forward;
}

TEST(TPImageEdge, EdgePlaneMatchesAPlainLoop) {
    cv::Mat const full = noise(kRows, kCols, CV_16U, 1, 0, 65536);
    cv::Mat out;
    Edge::applyFullToEdgeLUT(full, out);
    ASSERT_EQ(out.type(), CV_8UC1);
    for (int y = 0; y < kRows; ++y)
        for (int x = 0; x < kCols; ++x)
            ASSERT_EQ(out.at<std::uint8_t>(y, x), fwd(full.at<std::uint16_t>(y, x)));
    // With a given half plane, and without one (made from full by the pyramid method).
    cv::Mat const low = noise(TPImage::half(kRows), TPImage::half(kCols), CV_16U, 2, 0, 65536);
    for (cv::Mat const &given : {low, cv::Mat()}) {
        cv::Mat edge;
        Edge::fullToEdge(full, given, edge);
        cv::Mat const up = upTo(given.empty() ? halfOf(full, 257) : given, full.size(), 257);
        for (int y = 0; y < kRows; ++y)
            for (int x = 0; x < kCols; ++x) {
                int const d = (full.at<std::uint16_t>(y, x) - up.at<std::uint16_t>(y, x)) / 2;
                ASSERT_EQ(edge.at<std::uint8_t>(y, x), fwd(d + 32768)) << y << "," << x;
            }
    }
}

// The simple rebuild: integer path within 0.01 of 1, single precision beyond; a gain of 2
// undoes the halving and returns the plane within the companding step.
TEST(TPImageEdge, SimpleRebuildTakesTheIntegerPathNearOne) {
    cv::Mat const full = sourcePlane(), low = halfOf(full, 257);
    cv::Mat edge;
    Edge::fullToEdge(full, low, edge);
    cv::Mat const up = upTo(low, full.size(), 257);
    for (float gain : {1.005f, 1.02f, 2.0f, 0.3f}) {
        cv::Mat rebuilt;
        Edge::edgeToFull(edge, low, rebuilt, gain);
        for (int y = 0; y < kRows; ++y)
            for (int x = 0; x < kCols; ++x) {
                int const u = up.at<std::uint16_t>(y, x), e = edge.at<std::uint8_t>(y, x);
                int const want = gain == 1.005f ? std::clamp(u + inv(e) - 32768, 0, 65535)
                                                : sat16f(u + (inv(e) - 32768.0f) * gain);
                ASSERT_EQ(rebuilt.at<std::uint16_t>(y, x), want) << gain;
                if (gain != 2.0f) continue;
                int const d = std::abs(full.at<std::uint16_t>(y, x) - u);
                ASSERT_LE(std::abs(rebuilt.at<std::uint16_t>(y, x) - full.at<std::uint16_t>(y, x)),
                          2 * (1.415 * std::sqrt(d / 2) + 1.5) + 1);
            }
    }
}

TEST(TPImageEdge, LocalGainIsOneOnFlatPlanesAndFollowsAPlainLoop) {
    cv::Mat const flat(kRows, kCols, CV_16U, cv::Scalar(30000));
    cv::Mat const g = Edge::localGain(flat, cv::Mat(flat.size(), CV_16U, cv::Scalar(5)), 1e-4f);
    EXPECT_EQ(cv::countNonZero(g != 1.0f), 0);
    cv::Mat const T = sourcePlane(), B = changedOf(T);
    cv::Mat const ref = refGain(T, B, 0.01f), got = Edge::localGain(T, B, 0.01f);
    EXPECT_LE(cv::norm(got, ref, cv::NORM_INF), 1e-5 * cv::norm(ref, cv::NORM_INF));
}

// The structure-following rebuild against the steps done by hand.
TEST(TPImageEdge, StructureRebuildMatchesAPlainLoop) {
    cv::Mat const full = sourcePlane(), source = halfOf(full, 4), changed = changedOf(source);
    cv::Mat edge, rebuilt;
    Edge::fullToEdge(full, source, edge);
    Edge::edgeToFull(edge, source, changed, rebuilt, 0.01f, 1.5f);
    cv::Mat g8;
    refGain(source, changed, 0.01f).convertTo(g8, CV_8U, 128.0 / 3.0);
    cv::Mat const W = upTo(refGauss8(g8), full.size(), 2), up = upTo(changed, full.size(), 257);
    float const s = 1.5f * 0.0234375f;
    for (int y = 0; y < kRows; ++y)
        for (int x = 0; x < kCols; ++x) {
            float const d = inv(edge.at<std::uint8_t>(y, x)) - 32768.0f;
            ASSERT_EQ(rebuilt.at<std::uint16_t>(y, x),
                      sat16f(up.at<std::uint16_t>(y, x) + d * s * W.at<std::uint8_t>(y, x)))
                << y << "," << x;
        }
}

// Reconstruction from the source's own detail: by hand, unchanged gives back the source, and
// a tenfold local gain saturates at 255 (3.98).
TEST(TPImageEdge, ReconstructionMatchesAPlainLoop) {
    cv::Mat const faint = noise(kRows, kCols, CV_16U, 4, 32000, 34000), faintT = halfOf(faint, 4);
    cv::Mat const tenfold = cv::Mat(faintT * 10 - 9 * 33000);  // within range: 10x the gradients
    cv::Mat const source = sourcePlane(), T = halfOf(source, 4);
    struct Case {
        cv::Mat source, changed;
        float epsilon, gain;
    } const cases[] = {{source, changedOf(T), 0.01f, 1.0f},
                       {source, T.clone(), 0.5f, 1.0f},
                       {faint, tenfold, 1e-6f, 0.7f}};
    for (Case const &c : cases) {
        cv::Mat result(c.source.size(), CV_16U);
        Edge::reconstructFull(c.source, c.changed, result, c.epsilon, c.gain);
        cv::Mat const half = halfOf(c.source, 4), V = upTo(half, c.source.size(), 4);
        cv::Mat g8;
        refGain(half, c.changed, c.epsilon).convertTo(g8, CV_8U, 64.0);
        if (c.gain == 0.7f) {
            EXPECT_GT(cv::countNonZero(g8 == 255), int(g8.total() / 2));
        }
        cv::Mat const W = upTo(cv::max(g8, 32), c.source.size(), 2);
        cv::Mat const up = upTo(c.changed, c.source.size(), 4);
        for (int y = 0; y < kRows; ++y)
            for (int x = 0; x < kCols; ++x) {
                float const d = float(c.source.at<std::uint16_t>(y, x)) - V.at<std::uint16_t>(y, x);
                ASSERT_EQ(result.at<std::uint16_t>(y, x),
                          sat16f(up.at<std::uint16_t>(y, x) +
                                 d * (c.gain * 0.015625f) * W.at<std::uint8_t>(y, x)))
                    << y << "," << x;
            }
        if (c.epsilon == 0.5f) {
            EXPECT_EQ(cv::norm(result, c.source, cv::NORM_INF), 0);
        }
    }
}

// Same pixels at 1, 2 and 4 threads, on a plane large enough to be split.
TEST(TPImageEdge, ThreadCountDoesNotChangePixels) {
    cv::Mat const full = sourcePlane(517, 301), source = halfOf(full, 4);
    cv::Mat const changed = changedOf(source);
    auto runAll = [&] {
        cv::Mat edge, a, b, c(full.size(), CV_16U), d;
        Edge::fullToEdge(full, cv::Mat(), edge);
        Edge::edgeToFull(edge, source, a, 1.3f);
        Edge::edgeToFull(edge, source, changed, b, 0.01f, 1.0f);
        Edge::reconstructFull(full, changed, c, 0.01f, 1.0f);
        Edge::applyFullToEdgeLUT(full, d);
        std::vector<cv::Mat> all{edge, a, b, c, d};
        return all;
    };
    int const threads = omp_get_max_threads();
    omp_set_num_threads(1);
    std::vector<cv::Mat> const one = runAll();
    for (int n : {2, 4}) {
        omp_set_num_threads(n);
        std::vector<cv::Mat> const many = runAll();
        for (std::size_t i = 0; i < one.size(); ++i)
            EXPECT_EQ(cv::norm(one[i], many[i], cv::NORM_INF), 0) << n << " threads, output " << i;
    }
    omp_set_num_threads(threads);
}

}  // namespace
