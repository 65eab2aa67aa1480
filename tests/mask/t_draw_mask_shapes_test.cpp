// The mask painter's gradients, shapes, compositing and refinement against plain references
// written from the formulas, on awkward sizes, each at 1, 2 and 4 threads.
#include "kestrix1/mask/t_draw_mask.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <numeric>

#include "kestrix1/filters/guided.h"
#include "kestrix1/image/tp_image.h"
#include "tests/support/throws.h"

namespace {

using cv::Mat;
using u8 = std::uint8_t;
using u16 = std::uint16_t;
using Pt = cv::Point_<int>;
using F = float;
using std::abs, std::hypot, std::max, std::min;

Mat pattern(int w, int h, int seed) {
    Mat m(h, w, CV_8UC1);
    for (int i = 0; i < w * h; ++i)
        m.data[i] = u8(i % w * 53 + i / w * 29 + seed * 71 + i % w * (i / w));
    return m;
}

// A working image whose colours vary by a few percent around a mid grey.
TPImage image(int w, int h) {
    TPImage im(w, h);
    pattern(w, h, 7).convertTo(im.m_Y, CV_16U, 20, 20000);
    pattern(im.hWidth(), im.hHeight(), 8).convertTo(im.m_Dr, CV_16U, 4, 32000);
    pattern(im.hWidth(), im.hHeight(), 9).convertTo(im.m_Db, CV_16U, 4, 32000);
    return im;
}

// Runs a check at 1, 2 and 4 threads: planes of 32768 work units or more split their rows.
template <class Check>
void atThreadCounts(Check check) {
    int const saved = omp_get_max_threads();
    for (int n : {1, 2, 4})
        omp_set_num_threads(n), check();
    omp_set_num_threads(saved);
}

auto const smooth = [](F v) { return v < 0 ? 0 : v > 1 ? 1 : v * (3 - 2 * v) * v; };
auto const toByte = [](F v) { return int(std::lround(std::min(std::max(v, F(0)), F(255)))); };
auto const merged = [](int v, int b, int m) { return m == 1 ? min(v, b) : m == 2 ? max(v, b) : v; };
auto const degrees = [](F y, F x) { return std::atan2(y, x) * 180 / F(M_PI) + (y < 0 ? 360 : 0); };

// The gradient value at (x, y), from the formulas one pixel at a time.
int gradientAt(int type, Pt p, Pt q, F x, F y) {
    F const dx = F(q.x - p.x), dy = F(q.y - p.y);
    F const k = F(p.x - q.x) / (dy + F(1e-7)), c = F(p.y) - F(p.x) * k;
    F const D = F(q.x) * k + c - F(q.y) + F(0.0001);
    int const hx = p.x - (p.x + q.x + p.y - q.y) / 2, hy = (q.x - p.x + p.y + q.y) / 2 - p.y;
    F const k1 = F(hx) / (F(hy) + F(0.0001)), k2 = F(hy) / (F(0.0001) - F(hx));
    F const c1 = F(p.y) - F(p.x) * k1, c2 = F(p.y) - F(p.x) * k2;
    F const g1 = std::sqrt(k2 * k2 + 1), g2 = std::sqrt(k1 * k1 + 1);
    F const W = (std::fabs(F(q.x) * k2 - F(q.y) + c2) + F(0.0001)) / g1;
    F const a = degrees(F(p.y) - y, x - F(p.x) + F(0.0001)) - degrees(-dy, dx + F(0.0001));
    F const v[5] = {(x * k + c - y) / D,
                    ((x - p.x) * (x - p.x) + (y - p.y) * (y - p.y)) / (dx * dx + dy * dy),
                    1 - (a < 0 ? a + 360 : a) / 360, std::fabs(x * k + c - y) / std::fabs(D),
                    std::max(std::fabs(k2 * x + c2 - y) / g1, std::fabs(k1 * x + c1 - y) / g2) / W};
    return toByte((1 - smooth(v[type])) * 255);
}

TEST(TDrawMaskShapes, GradientsFollowTheirFormulasInEveryMergeMode) {
    Mat const start = pattern(259, 131, 1);
    // The last pair shares a row: the 1e-7 guard of the linear types.
    Pt const pairs[][2] = {
        {{5, 7}, {230, 118}}, {{200, 4}, {9, 120}}, {{18, 101}, {25, 2}}, {{3, 60}, {200, 60}}};
    TDrawMask o;
    atThreadCounts([&] {
        for (int type = 0; type < 5; ++type)
            for (auto const &pq : pairs) {
                Mat out = start.clone();
                int const mode = (type + int(&pq - pairs)) % 3, w = out.cols;
                Pt p = pq[0], q = pq[1];
                o.setMergeMode(mode);
                o.drawGradientMask(out, type, p, q);
                int bad = 0;  // the angular type's own arctangent may round one level apart
                for (int i = 0; i < int(out.total()); ++i)
                    bad += std::abs(out.data[i] -
                                    merged(gradientAt(type, pq[0], pq[1], F(i % w), F(i / w)),
                                           start.data[i], mode)) > (type == 2);
                EXPECT_EQ(bad, 0) << "type " << type << " mode " << mode << " p " << pq[0];
            }
    });
    Mat same = start.clone();  // coinciding points leave the plane alone
    Pt p(4, 4);
    o.drawGradientMask(same, 1, p, p);
    EXPECT_EQ(cv::norm(same, start, cv::NORM_INF), 0);
}

// The disc at (13, 30) with tolerance 0.3 before its guided pass, from the formulas.
Mat discReference(TPImage const &im, Mat const &y32, Mat const &start, F size, int mode) {
    Pt const c(13, 30);
    int const w = std::max(c.x, start.cols - 1 - c.x), h = std::max(c.y, start.rows - 1 - c.y);
    double const grow = size > F(0.8) ? (size - 0.8) * 8 + 2.004 : 2.48 * size + 0.02;
    F const outer = F(max<std::int64_t>(1, std::int64_t((double(w) * w + double(h) * h) * grow)));
    std::int64_t const ri = std::int64_t((0.98 * size + 0.02) * (std::max({w, h, c.y}) / 6.0));
    F const inner = F(ri * ri), e = size > F(0.92) ? F(2 - (size - 0.92) * 18.75) : 2;
    int const g = size > F(0.95) ? int((size - F(0.95)) * 200) : 0;
    auto d = [&](Mat const &m, int x, int y) { return F(m.at<u16>(y / 2, x / 2)) / 65535; };
    Mat out = start.clone();
    for (int y = 0; y < out.rows; ++y)
        for (int x = 0; x < out.cols; ++x) {
            F const d2 = F((x - c.x) * (x - c.x) + (y - c.y) * (y - c.y));
            F const f = (d2 - inner) / (F(-0.01) - (outer - inner)),
                    cov = inner > d2 ? 1 : std::exp(f * e);
            F const q = (F(1.2) * std::fabs(y32.at<F>(y, x) - y32.at<F>(c)) +
                         6 * (std::fabs(d(im.m_Dr, x, y) - d(im.m_Dr, c.x, c.y)) +
                              std::fabs(d(im.m_Db, x, y) - d(im.m_Db, c.x, c.y)))) *
                        (F(1.44) * F(0.3) + F(0.56)) / (F(0.01) + cov);
            F const v = cov * (1 - smooth(q)) * 255;
            u8 &o = out.at<u8>(y, x);
            o = u8(mode == 0 ? toByte(v * (255 / F(255 - g))) : merged(toByte(v), o, mode));
        }
    return out;
}

TEST(TDrawMaskShapes, SuperMaskRadiiGateAndMergeMatchTheReference) {
    TPImage im = image(61, 43);
    TDrawMask o;
    o.setInImage(&im, false);
    Mat base = pattern(61, 43, 2), out;
    atThreadCounts([&] {
        for (F size : {F(0), F(0.8), F(0.96)})
            for (int mode : {0, 2}) {
                Mat ref = discReference(im, o.inputY(), base, size, mode), plane = base.clone();
                filterGuidedByY(ref, ref, im.m_Y, 1, F(1e-4), nullptr, 1);
                o.setMergeMode(mode);
                Pt c(13, 30);
                o.drawSuperMask(plane, c, size, 0, 0, F(0.3));
                EXPECT_EQ(cv::norm(plane, ref, cv::NORM_INF), 0) << size << " mode " << mode;
                for (int r = 0; r < 3; ++r) {  // the disc as coverage, 0 at the edges included
                    o.renderMask(base, plane, out, u8(99 * r), r);
                    for (int i = 0; i < int(out.total()); ++i) {
                        double const a = ref.data[i] / 255.0,
                                     v = 99 * r * a + (1 - a) * base.data[i];
                        ASSERT_EQ(out.data[i], merged(int(std::lround(v)), base.data[i], r)) << i;
                    }
                }
            }
    });
    Mat ring = base * 0;  // a superellipse with m = e1 = e2 = 2, a = b: truncated circle points
    o.drawSuperShapeLUT(ring, 200, 30, 21, 20, 20, 2, 2, 2);
    for (int i = 0; i < int(ring.total()); ++i)
        EXPECT_TRUE(!ring.data[i] || abs(hypot(i % 61 - 30, i / 61 - 21) - 20) < 1.42) << i;
    EXPECT_GT(cv::countNonZero(ring == 200), 110);  // a closed ring of about 2 pi 20 pixels
}

TEST(TDrawMaskShapes, StretchRefinementAndFills) {
    TDrawMask o;
    // contrast (1) or offset (0), amount, the low and high that follow
    F const steps[][4] = {{1, 0, 0, 255}, {1, 1, 50, 155}, {0, 1, 0, 55}, {0, -1, 100, 155}};
    Mat ramp(1, 256, CV_8UC1), dst;
    std::iota(ramp.data, ramp.data + 256, 0);
    for (auto const &s : steps) {
        dst = Mat(1, 256, CV_8UC1, cv::Scalar(9));
        s[0] != 0 ? o.contrastMask(s[1], ramp, dst) : o.offsetMask(s[1], ramp, dst);
        int const low = int(s[2]), high = int(s[3]), c = std::min(8160 / (high - low), 255);
        ASSERT_EQ(o.contrastLow() * 1000 + o.contrastHigh(), low * 1000 + high);
        for (int i = 0; i < 256; ++i) {
            int const t = std::min(std::max(i, low), high) - low;
            ASSERT_EQ(dst.data[i], c == 32 ? 9 : std::min(255, int(std::nearbyint(t * c / 32.0))));
        }
    }
    TPImage im = image(47, 31);
    o.setInImage(&im, false);
    Mat src = pattern(47, 31, 5), y = o.inputY().clone(), ref, empty;  // stretch 100..155 on
    for (auto [strength, eps] : {std::pair{F(0.009), F(0)}, {F(0.01), F(0.97)}, {F(1), F(0.001)}}) {
        eps > 0 ? filterGuidedByY(ref, src, y, 2, eps, nullptr, 1)
                : o.boxFilterSmooth(src, ref, 2, 3);
        o.scaleAlpha(ref, ref);
        o.postFilter(src, dst, 2, strength);
        EXPECT_EQ(cv::norm(dst, ref, cv::NORM_INF), 0) << strength;
    }
    o.invertMask(dst);
    o.resetMask(src, 17);
    EXPECT_EQ(cv::countNonZero(dst + ref != 255) + cv::countNonZero(src != 17), 0);
    EXPECT_EQ(kxtest::thrown([&] { o.invertMask(empty); }),
              "Error - TFDrawMask::invertMask - ippStsError");
    EXPECT_EQ(kxtest::thrown([&] { o.resetMask(empty, 0); }),
              "Error - TFDrawMask::resetMask - ippStsError");
}

}  // namespace
