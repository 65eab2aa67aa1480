// The mask painter's gradients and shapes, compositing and refinement, against plain
// references written from the formulas, on awkward sizes and at 1, 2 and 4 threads.
#include "kestrix1/mask/t_draw_mask.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kestrix1/filters/guided.h"
#include "kestrix1/image/tp_image.h"
#include "tests/support/throws.h"

namespace {

using cv::Mat;
using u8 = std::uint8_t;
using u16 = std::uint16_t;
using Pt = cv::Point_<int>;

struct Open : TDrawMask {
    using TDrawMask::m_contrastHigh, TDrawMask::m_contrastLow;
};

// Y in two halves (dark left, bright right) with a ripple; Dr raised in the lower right.
TPImage image(int w, int h) {
    TPImage im;
    im.create(w, h, false);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            im.m_Y.at<u16>(y, x) = u16((x < w / 2 ? 12000 : 40000) + (x * 37 + y * 91) % 900);
    im.m_Dr.setTo(32768);
    im.m_Db.setTo(32768);
    im.m_Dr(cv::Rect(im.hWidth() / 2, im.hHeight() / 2, im.hWidth() / 2, im.hHeight() / 2))
        .setTo(36000);
    return im;
}

Mat pattern(int w, int h, int seed) {
    Mat m(h, w, CV_8UC1);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            m.at<u8>(y, x) = u8((x * 53 + y * 29 + seed * 71 + x * y) % 256);
    return m;
}

float smooth(float v) {
    return v < 0 ? 0.0f : v > 1 ? 1.0f : v * (3.0f - 2.0f * v) * v;
}
int toByte(float v) {
    return int(std::lround(std::min(std::max(v, 0.0f), 255.0f)));
}
int merged(int v, int old, int mode) {
    return mode == 1 ? std::min(v, old) : mode == 2 ? std::max(v, old) : v;
}

// The gradient value at (x, y), written out from the formulas one pixel at a time.
int gradientAt(int type, Pt p, Pt q, int x, int y) {
    float const dx = float(q.x - p.x), dy = float(q.y - p.y), fx = float(x), fy = float(y);
    float v = 0;
    if (type == 0 || type == 3) {
        float const k = float(p.x - q.x) / (dy + 1e-7f), c = float(p.y) - float(p.x) * k;
        float const D = float(q.x) * k + c - float(q.y) + 0.0001f;
        float const t = fx * k + c - fy;
        v = type == 0 ? t / D : std::fabs(t) / std::fabs(D);
    } else if (type == 1) {
        v = ((fx - float(p.x)) * (fx - float(p.x)) + float(y - p.y) * float(y - p.y)) /
            float((q.x - p.x) * (q.x - p.x) + (q.y - p.y) * (q.y - p.y));
    } else if (type == 2) {
        float const y0 = float(p.y - q.y);
        float a0 = std::atan2(y0, dx + 0.0001f) * 180.0f / 3.14159265358979f;
        if (y0 < 0) a0 += 360;
        float const up = float(p.y - y);
        float a = std::atan2(up, fx - float(p.x) + 0.0001f) * 180.0f / 3.14159265358979f;
        if (up < 0) a += 360;
        float d = a - a0;
        if (d < 0) d += 360;
        v = 1.0f - d / 360.0f;
    } else {
        int const hx = p.x - (p.x + q.x + p.y - q.y) / 2, hy = (q.x - p.x + p.y + q.y) / 2 - p.y;
        float const k1 = float(hx) / (float(hy) + 0.0001f), k2 = float(hy) / (0.0001f - float(hx));
        float const c1 = float(p.y) - float(p.x) * k1, c2 = float(p.y) - float(p.x) * k2;
        float const g1 = std::sqrt(k2 * k2 + 1), g2 = std::sqrt(k1 * k1 + 1);
        float const W = (std::fabs(float(q.x) * k2 - float(q.y) + c2) + 0.0001f) / g1;
        v = std::max(std::fabs(k2 * fx + c2 - fy) / g1, std::fabs(k1 * fx + c1 - fy) / g2) / W;
    }
    return toByte((1.0f - smooth(v)) * 255.0f);
}

Mat drawn(int type, Pt p, Pt q, int mode, Mat const &start) {
    Open o;
    o.setMergeMode(mode);
    Mat plane = start.clone();
    o.drawGradientMask(plane, type, p, q);
    return plane;
}

TEST(TDrawMaskShapes, GradientsFollowTheirFormulasInEveryMergeMode) {
    Mat const start = pattern(37, 23, 1);
    Pt const pairs[][2] = {
        {{5, 7}, {30, 18}}, {{30, 4}, {9, 20}}, {{18, 11}, {18, 2}}, {{3, 20}, {25, 20}}};
    for (int type = 0; type < 5; ++type)
        for (auto const &pq : pairs)
            for (int mode = 0; mode < 3; ++mode) {
                Mat const out = drawn(type, pq[0], pq[1], mode, start);
                int bad = 0;
                for (int y = 0; y < out.rows; ++y)
                    for (int x = 0; x < out.cols; ++x)
                        // The angular type's own arctangent may round one level apart.
                        bad += std::abs(out.at<u8>(y, x) -
                                        merged(gradientAt(type, pq[0], pq[1], x, y),
                                               start.at<u8>(y, x), mode)) > (type == 2);
                EXPECT_EQ(bad, 0) << "type " << type << " mode " << mode << " p " << pq[0];
            }
    // Coinciding points and unknown types leave the plane alone.
    EXPECT_EQ(cv::norm(drawn(1, {4, 4}, {4, 4}, 0, start), start, cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(drawn(5, {4, 4}, {9, 4}, 0, start), start, cv::NORM_INF), 0);
}

TEST(TDrawMaskShapes, GradientLandmarks) {
    Mat const zero(23, 41, CV_8UC1, cv::Scalar(0));
    // A start and end on one row: the boundary lines are vertical, the ramp runs along x.
    Mat const lin = drawn(0, {10, 10}, {30, 10}, 0, zero);
    for (int y = 0; y < lin.rows; ++y) {
        EXPECT_EQ(cv::norm(lin.row(y), lin.row(0), cv::NORM_INF), 0) << y;
        for (int x = 0; x < lin.cols; ++x)
            EXPECT_EQ(lin.at<u8>(y, x), x <= 10 ? 255 : x >= 30 ? 0 : lin.at<u8>(y, x));
    }
    EXPECT_NEAR(lin.at<u8>(5, 20), 127.5, 0.5);
    // Radial: 255 at the start, 215 a quarter of the way in squared distance, 0 from the end.
    Mat const rad = drawn(1, {20, 11}, {30, 11}, 0, zero);
    EXPECT_EQ(rad.at<u8>(11, 20), 255);
    EXPECT_EQ(rad.at<u8>(11, 25), 215);
    EXPECT_EQ(rad.at<u8>(11, 30), 0);
    EXPECT_EQ(rad.at<u8>(11, 36), 0);
    EXPECT_EQ(rad.at<u8>(1, 20), 0);
    // Angular: a hard seam along the start direction (to the right of p).
    Mat const ang = drawn(2, {20, 11}, {30, 11}, 0, zero);
    EXPECT_LE(ang.at<u8>(10, 35), 2);
    EXPECT_GE(ang.at<u8>(12, 35), 253);
    // The band of the mirrored gradient is full on the line through the start.
    Mat const band = drawn(3, {10, 10}, {30, 10}, 0, zero);
    EXPECT_EQ(band.at<u8>(3, 10), 255);
    EXPECT_EQ(band.at<u8>(3, 30), 0);
    EXPECT_EQ(band.at<u8>(3, 20), band.at<u8>(3, 0));
}

// The disc before its guided pass, from the formulas.
Mat discReference(TPImage const &im, Mat const &y32, Mat const &start, Pt c, float size, float tol,
                  int mode) {
    int const w = std::max(c.x, start.cols - 1 - c.x), h = std::max(c.y, start.rows - 1 - c.y);
    double const R2 = double(w) * w + double(h) * h;
    double const grow = size > 0.8f ? (size - 0.8) * 8 + 2.004 : 2.48 * size + 0.02;
    float const outer = float(std::max<std::int64_t>(1, std::int64_t(R2 * grow)));
    std::int64_t const ri = std::int64_t((0.98 * size + 0.02) * (std::max({w, h, c.y}) / 6.0));
    float const inner = float(ri * ri), e = size > 0.92f ? float(2 - (size - 0.92) * 18.75) : 2;
    int lo = 0, hi = 255;
    if (size > 0.95f) {
        int const g = int((size - 0.95f) * 200.0f);
        lo = std::min(std::max(0, -g), 254);
        hi = std::min(std::max(1, 255 - g), 255);
    }
    auto dr = [&](Mat const &m, int x, int y) { return float(m.at<u16>(y / 2, x / 2)) / 65535; };
    float const y0 = y32.at<float>(c.y, c.x), dr0 = dr(im.m_Dr, c.x, c.y),
                db0 = dr(im.m_Db, c.x, c.y);
    Mat out = start.clone();
    for (int y = 0; y < out.rows; ++y)
        for (int x = 0; x < out.cols; ++x) {
            float const d2 = float((x - c.x) * (x - c.x) + (y - c.y) * (y - c.y));
            float const cov =
                inner > d2 ? 1 : std::exp((d2 - inner) / (-0.01f - (outer - inner)) * e);
            float const q =
                (1.2f * std::fabs(y32.at<float>(y, x) - y0) +
                 6.0f * (std::fabs(dr(im.m_Dr, x, y) - dr0) + std::fabs(dr(im.m_Db, x, y) - db0))) *
                (1.44f * tol + 0.56f) / (0.01f + cov);
            float const v = cov * (1.0f - smooth(q)) * 255.0f;
            u8 &o = out.at<u8>(y, x);
            o = u8(mode == 0 ? toByte((v - float(lo)) * (255.0f / float(hi - lo)))
                             : merged(toByte(v), o, mode));
        }
    return out;
}

TEST(TDrawMaskShapes, SuperMaskRadiiGateAndMergeMatchTheReference) {
    TPImage im = image(61, 43);
    Open o;
    o.setInImage(&im, false);
    Mat const start = pattern(61, 43, 2);
    for (float size : {0.0f, 0.8f, 0.96f})
        for (int mode : {0, 2}) {
            Pt c(13, 30);
            Mat ref = discReference(im, o.inputY(), start, c, size, 0.3f, mode);
            filterGuidedByY(ref, ref, im.m_Y, 1, 1e-4f, nullptr, 1);
            Mat plane = start.clone();
            o.setMergeMode(mode);
            o.drawSuperMask(plane, c, size, 0.0f, 0.0f, 0.3f);
            EXPECT_EQ(cv::norm(plane, ref, cv::NORM_INF), 0) << size << " mode " << mode;
        }
}

TEST(TDrawMaskShapes, SuperellipseWithEqualAxesAndExponentsTwoIsACircle) {
    Open o;
    Mat plane(81, 83, CV_8UC1, cv::Scalar(0));
    o.drawSuperShapeLUT(plane, 200, 41, 40, 20, 20, 2.0f, 2.0f, 2.0f);
    int set = 0;
    for (int y = 0; y < plane.rows; ++y)
        for (int x = 0; x < plane.cols; ++x)
            if (plane.at<u8>(y, x) != 0) {
                ++set;
                EXPECT_EQ(plane.at<u8>(y, x), 200);
                // Both coordinates are truncated: up to one pixel off along each axis.
                EXPECT_NEAR(std::hypot(x - 41, y - 40), 20.0, 1.42) << x << "," << y;
            }
    EXPECT_GT(set, 100);  // a closed ring of about 2 pi 20 pixels
    for (Pt p : {Pt(41, 20), Pt(41, 60), Pt(21, 40), Pt(61, 40)})
        EXPECT_EQ(plane.at<u8>(p), 200) << p;
}

TEST(TDrawMaskShapes, RenderMaskInEveryMode) {
    Mat const base = pattern(33, 7, 3), cover = pattern(33, 7, 4);
    Mat const none(7, 33, CV_8UC1, cv::Scalar(0));
    Open o;
    for (int value : {0, 77, 255})
        for (int mode : {0, 1, 2}) {
            Mat b = base.clone(), c = cover.clone(), out;
            o.renderMask(b, c, out, u8(value), mode);
            for (int i = 0; i < int(base.total()); ++i) {
                double const a = cover.data[i] / 255.0;
                int const r = int(std::lround(value * a + (1 - a) * base.data[i]));
                ASSERT_EQ(out.data[i], merged(r, base.data[i], mode)) << value << " " << mode;
            }
            Mat n = none.clone();
            o.renderMask(b, n, out, u8(value), mode);
            EXPECT_EQ(cv::norm(out, base, cv::NORM_INF), 0);
        }
}

TEST(TDrawMaskShapes, ContrastOffsetAndTheStretch) {
    Open o;
    struct Step {
        bool contrast;
        float amount;
        int low, high;
    } const steps[] = {{true, 0, 0, 255},    {true, 1, 50, 155},    {false, 1, 0, 55},
                       {true, 1, 50, 155},   {false, -1, 150, 255}, {true, 0.37f, 18, 218},
                       {false, 0.2f, 0, 198}};
    Mat ramp(1, 256, CV_8UC1);
    for (int i = 0; i < 256; ++i)
        ramp.data[i] = u8(i);
    for (Step const &s : steps) {
        Mat dst(1, 256, CV_8UC1, cv::Scalar(9));
        if (s.contrast)
            o.contrastMask(s.amount, ramp, dst);
        else
            o.offsetMask(s.amount, ramp, dst);
        ASSERT_EQ(o.contrastLow(), s.low);
        ASSERT_EQ(o.contrastHigh(), s.high);
        int const span = s.high - s.low, c = std::min(8160 / span, 255);
        for (int i = 0; i < 256; ++i) {
            int const t = std::min(std::max(i, s.low), s.high) - s.low;
            int const want = span == 255 ? 9 : std::min(255, int(std::nearbyint(t * c / 32.0)));
            ASSERT_EQ(dst.data[i], want) << s.low << ".." << s.high << " at " << i;
        }
    }
}

// Three box passes of side 2 r + 1 with replicated borders, rounded after each pass.
Mat boxReference(Mat const &src, int r) {
    Mat cur = src.clone();
    int const n = (2 * r + 1) * (2 * r + 1);
    for (int pass = 0; pass < 3; ++pass) {
        Mat next(cur.size(), CV_8UC1);
        for (int y = 0; y < cur.rows; ++y)
            for (int x = 0; x < cur.cols; ++x) {
                int sum = 0;
                for (int j = -r; j <= r; ++j)
                    for (int i = -r; i <= r; ++i)
                        sum += cur.at<u8>(std::min(std::max(y + j, 0), cur.rows - 1),
                                          std::min(std::max(x + i, 0), cur.cols - 1));
                next.at<u8>(y, x) = u8((2 * sum + n) / (2 * n));
            }
        cur = next;
    }
    return cur;
}

TEST(TDrawMaskShapes, PostFilterPathsAndEps) {
    TPImage im = image(47, 31);
    Open o;
    o.setInImage(&im, false);
    Mat src = pattern(47, 31, 5), dst;
    Mat y = o.inputY().clone();
    o.setMaskContrast(0);
    o.postFilter(src, dst, 2, 0.009f);
    EXPECT_EQ(cv::norm(dst, boxReference(src, 2), cv::NORM_INF), 0);
    for (auto [strength, eps] : {std::pair{0.01f, 0.97f}, std::pair{1.0f, 0.001f}}) {
        Mat ref;
        filterGuidedByY(ref, src, y, 2, eps, nullptr, 1);
        o.postFilter(src, dst, 2, strength);
        EXPECT_EQ(cv::norm(dst, ref, cv::NORM_INF), 0) << strength;
    }
    // The stored stretch follows the smoothing.
    o.setMaskContrast(1);
    Mat ref = boxReference(src, 1), stretched;
    o.scaleAlpha(ref, stretched);
    o.postFilter(src, dst, 1, 0.0f);
    EXPECT_EQ(cv::norm(dst, stretched, cv::NORM_INF), 0);
}

TEST(TDrawMaskShapes, FillsInvertAndTheirErrors) {
    Open o;
    Mat m = pattern(9, 5, 6), orig = m.clone();
    o.invertMask(m);
    EXPECT_EQ(cv::norm(m + orig, Mat(5, 9, CV_8UC1, cv::Scalar(255)), cv::NORM_INF), 0);
    o.resetMask(m, 17);
    EXPECT_EQ(cv::countNonZero(m != 17), 0);
    Mat empty;
    EXPECT_EQ(kxtest::thrown([&] { o.invertMask(empty); }),
              "Error - TFDrawMask::invertMask - ippStsError");
    EXPECT_EQ(kxtest::thrown([&] { o.resetMask(empty, 0); }),
              "Error - TFDrawMask::resetMask - ippStsError");
}

TEST(TDrawMaskShapes, SameResultAtOneTwoAndFourThreads) {
    int const saved = omp_get_max_threads();
    TPImage im = image(301, 203);
    Mat results[3];
    int const counts[3] = {1, 2, 4};
    for (int n = 0; n < 3; ++n) {
        omp_set_num_threads(counts[n]);
        Open o;
        o.setInImage(&im, false);
        Mat all;
        for (int type = 0; type < 5; ++type) {
            Mat plane = pattern(301, 203, type);
            Pt p(40, 150), q(260, 30);
            o.setMergeMode(type % 3);
            o.drawGradientMask(plane, type, p, q);
            all.push_back(plane);
        }
        Mat disc = pattern(301, 203, 9), out, cover = pattern(301, 203, 8);
        Pt c(200, 100);
        o.drawSuperMask(disc, c, 0.9f, 0, 0, 0.5f);
        o.renderMask(disc, cover, out, 200, 0);
        all.push_back(out);
        results[n] = all;
    }
    omp_set_num_threads(saved);
    EXPECT_EQ(cv::norm(results[0], results[1], cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(results[0], results[2], cv::NORM_INF), 0);
}

}  // namespace
