// TDetails3: band tables, pixel helpers, and proc against the long way stage by stage.
#include "kestrix1/effects/t_details3.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>

#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/tables/t_light_adj_lut_d3.h"
#include "kestrix1/tables/t_lut1d.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using cv::Mat;
using u16 = std::uint16_t;

struct Open : TDetails3 {
    using TDetails3::addEdges;
    using TDetails3::bNeedSHMix;
    using TDetails3::bNZ;
    using TDetails3::computeYCurve;
    using TDetails3::mixSMH;
    using TDetails3::modYWithC;
    using TDetails3::neq;
};

Mat noise16(cv::Size size, std::uint64_t seed, int spread = 32768) {
    return kxtest::noise(size.height, size.width, CV_16UC1, seed, 32768 - spread, 32768 + spread);
}

// The text f throws, without the leading clock reading of a trace text.
std::string untimedThrow(std::function<void()> const &f) {
    std::string const text = kxtest::thrown(f);
    return text.substr(std::min(text.size(), text.find(" - ")));
}
std::string const kBadDr = " - 331 - TDetails3::modYWithC : bad dr type - ";

bool same(Mat const &a, Mat const &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

Mat mixRef(Mat const &y, Mat const &s, Mat const &m, Mat const &h) {
    Mat out(h.size(), CV_16UC1);
    for (int r = 0; r < h.rows; ++r)
        for (int c = 0; c < h.cols; ++c) {
            int const i = y.at<u16>(r, c) >> 8;
            int const sum = (s.at<u16>(r, c) - 32768) * TDetails3::s_shadowWeight[i] +
                            (m.at<u16>(r, c) - 32768) * TDetails3::s_middleWeight[i] +
                            (h.at<u16>(r, c) - 32768) * TDetails3::s_highlightWeight[i];
            out.at<u16>(r, c) = u16(std::clamp(sum / 256 + 32768, 0, 65535));  // towards zero
        }
    return out;
}

// y + k0 + dr kdr + db kdb, one float step at a time, rounded to even and saturated.
template <class C>
Mat chromaRef(Mat const &dr, Mat const &db, float a, float b, float c, Mat const &y) {
    float const a2 = a * 2.5f, b2 = b * 2.5f, c2 = c * 2.5f, f = sizeof(C) == 1 ? 256.0f : 1.0f;
    float const k0 = f == 1 ? ((b2 - (a2 - b2)) - c2) * 32768.0f
                            : ((0.0f - a2 - c2) * 128.0f + b2 * 256.0f) * 256.0f;
    Mat out(y.size(), CV_16UC1);
    for (int r = 0; r < y.rows; ++r)
        for (int x = 0; x < y.cols; ++x) {
            volatile float v = float(y.at<u16>(r, x)) + k0;
            v = v + float(dr.at<C>(r, x)) * ((a2 - b2) * f);
            v = v + float(db.at<C>(r, x)) * ((c2 - b2) * f);
            out.at<u16>(r, x) = u16(std::clamp(std::nearbyint(v), 0.0f, 65535.0f));
        }
    return out;
}

Mat sumRef(Mat const &base, Mat const &d0, Mat const &d1, Mat const &d2) {
    Mat out(base.size(), CV_16UC1);
    for (int r = 0; r < base.rows; ++r)
        for (int c = 0; c < base.cols; ++c) {
            int const sum = d0.at<u16>(r, c) + d1.at<u16>(r, c) + d2.at<u16>(r, c);
            out.at<u16>(r, c) = u16(std::clamp(base.at<u16>(r, c) + 2 * sum - 196608, 0, 65535));
        }
    return out;
}

// A ramp as base, three detail planes of different strength around 32768 and noisy chroma;
// level() and sum() give the planes of the last region the long way.
struct Loaded : Open {
    Loaded(int rows, int cols) {
        srcY = kxtest::ramp(rows, cols, CV_16UC1);
        for (int n = 0; n < 3; ++n)
            srcDetail[n] = noise16({cols, rows}, 11 + n, 4000 * (n + 1));
        srcDr = noise16({cols, rows}, 21, 12500);
        srcDb = noise16({cols, rows}, 22, 12500);
    }
    Mat region(Mat const &plane) const {
        return TPImage::MatRoi(plane, roi.x, roi.y, roi.width, roi.height, roiScale, false, false);
    }
    // Level n with an extra plane added: three whole-plane table passes, then the band mix.
    Mat level(int n, Mat const &extra = Mat()) {
        Mat raw = region(srcDetail[n]);
        if (!extra.empty()) cv::addWeighted(raw, 1.0, extra, 1.0, -32768.0, raw, -1);
        if (!bNeedSHMix(n)) return raw;
        float const kHigh[3] = {5.0f, 4.0f, 3.5f}, *a = detailAmount[n], *t = detailThreshold[n];
        int const range[3] = {9830, 8191, 7372};
        TLut16U lut(0.0f, kHigh[n], range[n], 0.35f);
        Mat s = raw.clone(), m = raw.clone();
        lut.setupLinearThreshold(a[1], t[1], a[0], t[0]);
        lut.apply(s);
        lut.setupLinearThreshold(a[2], t[2], a[0], t[0]);
        lut.apply(m);
        lut.setupLinearThreshold(a[0], t[0], 0.0f, 0.0f);
        lut.apply(raw);
        return mixRef(roiBase, s, m, raw);
    }
    Mat sum() const { return sumRef(roiBase, roiDetail[0], roiDetail[1], roiDetail[2]); }
    bool isTheLongWay() {
        float const *c = colorMix, *p = lightParam;
        Mat b = chromaRef<u16>(region(srcDr), region(srcDb), c[0], c[1], c[2], region(srcY));
        TLightAdjLUTd3 light;
        light.setupParams(p[0], p[1], p[2], p[3], p[4], p[5]);
        light.proc(b);
        bool ok = same(roiBase, b) && same(roiY, sum());
        for (int n = 0; n < 3; ++n)
            ok = ok && same(roiDetail[n], level(n));
        return ok;
    }
};

// The band tables and threshold tests by hand; the pixel helpers against plain references.
// modYWithC's weights make 2.5 dr - 147456 + 2 db in 16 bits: halves (to even), both clamps.
TEST(TDetails3, TablesAndHelpersMatchTheirFormulas) {
    int const *sw = TDetails3::s_shadowWeight, *mw = TDetails3::s_middleWeight;
    int const *hw = TDetails3::s_highlightWeight;
    auto ramp = [](int j) { return j <= 77 ? 3 * j : 3 * j + 1; };
    for (int i = 0; i < 256; ++i) {
        EXPECT_EQ(sw[i], i <= 85 ? ramp(85 - i) : 0) << i;
        EXPECT_EQ(hw[i], i >= 170 ? ramp(i - 170) : 0) << i;
        EXPECT_EQ(mw[i], i <= 85 ? ramp(i) : i <= 169 ? 256 : ramp(255 - i)) << i;
        bool const dip = (i >= 8 && i <= 77) || (i >= 178 && i <= 247);  // one short of 256
        EXPECT_EQ(sw[i] + mw[i] + hw[i], dip ? 255 : 256) << i;
    }
    Open d;
    float const below = std::nextafter(0.01f, 0.0f);
    EXPECT_TRUE(d.bNZ(0.01f) && d.bNZ(-0.01f) && d.neq(1.0f, 1.02f));
    EXPECT_FALSE(d.bNZ(below) || d.bNZ(-below) || d.neq(1.0f, 1.005f));
    d.detailThreshold[1][2] = -0.02f;  // a threshold alone asks for the tables
    EXPECT_TRUE(d.bNeedSHMix(1) && !d.bNeedSHMix(0) && !d.bNeedSHMix(2));
    int xs[3], ys[3], count = 0;
    d.computeYCurve(xs, ys, &count);
    EXPECT_TRUE(count == 3 && xs[0] == 0 && xs[1] == 32768 && xs[2] == 65535);
    EXPECT_TRUE(ys[0] == 0 && ys[1] == 32768 && ys[2] == 65536);  // one above the last x

    for (cv::Size const size : {cv::Size(1, 1), {37, 23}, {4099, 3}}) {
        Mat const y = noise16(size, 1), s = noise16(size, 2), m = noise16(size, 3);
        Mat const h = noise16(size, 4);
        Mat const dr8 = kxtest::noise(size.height, size.width, CV_8UC1, 8, 0, 256);
        Mat const db8 = kxtest::noise(size.height, size.width, CV_8UC1, 9, 0, 256);
        Mat mixed = h.clone(), sum = y.clone(), c16 = y.clone(), c8 = y.clone();
        d.mixSMH(y, s, m, mixed);
        d.addEdges(s, m, h, sum);
        d.modYWithC(s, m, 0.9f, -0.1f, 0.7f, c16);
        d.modYWithC(dr8, db8, 0.9f, -0.1f, 0.7f, c8);
        EXPECT_TRUE(same(mixed, mixRef(y, s, m, h)) && same(sum, sumRef(y, s, m, h))) << size;
        EXPECT_TRUE(same(c16, chromaRef<u16>(s, m, 0.9f, -0.1f, 0.7f, y))) << size;
        EXPECT_TRUE(same(c8, chromaRef<std::uint8_t>(dr8, db8, 0.9f, -0.1f, 0.7f, y))) << size;
        // Mixed chroma types: the composed trace text.
        EXPECT_EQ(untimedThrow([&] { d.modYWithC(dr8, m, 1.0f, 0.0f, 0.0f, c8); }), kBadDr);
        EXPECT_EQ(untimedThrow([&] { d.modYWithC(m, dr8, 1.0f, 0.0f, 0.0f, c8); }), kBadDr);
    }
}

// A region reaching past the image, at zoom 1 (clipped) and zoom 2 (resampled): the planes
// against the long way, then what a change recomputes and what it leaves.
TEST(TDetails3, ProcMatchesTheLongWayAndRebuildsOnlyWhatIsDirty) {
    cv::Rect_<int> const r(9, 5, 70, 31);
    for (int scale : {1, 2}) {
        Loaded d(53, 71);
        d.detailThreshold[1][0] = -0.5f;  // a threshold alone runs the tables
        d.detailAmount[2][2] = 0.9f;
        d.lightParam[0] = 0.4f;
        d.colorMix[0] = 0.3f;
        d.colorMix[2] = -0.2f;
        EXPECT_TRUE(d.proc(r, scale, Mat()) && d.isTheLongWay()) << scale;

        // With the sources moved, an extra of the region's size rebuilds level 0 alone (without
        // tables, then with them); then nothing is dirty and an extra of another size is ignored.
        TDetails3 const before(d);  // shares every plane
        Mat const base = d.roiBase.clone(), level1 = d.roiDetail[1].clone();
        d.srcY.setTo(1000);
        d.srcDetail[1].setTo(0);
        Mat const extra = noise16(base.size(), 99);
        for (float amount : {0.0f, 0.7f}) {
            d.detailAmount[0][0] = amount;
            d.proc(r, scale, extra);
            EXPECT_TRUE(same(d.roiDetail[0], d.level(0, extra)) && same(d.getRoiY(), d.sum()));
        }
        d.proc(r, scale, noise16({4, 3}, 5));
        EXPECT_TRUE(same(d.roiDetail[0], d.level(0, extra)) && same(d.roiBase, base));
        EXPECT_TRUE(same(d.roiDetail[1], level1)) << scale;
        // A base change reaches every level and forgets the extra. Zoomed regions are
        // resampled into the last planes only when no copy holds them.
        d.baseDirty = true;
        d.proc(r, scale, Mat());
        EXPECT_TRUE(d.isTheLongWay()) << scale;
        EXPECT_TRUE(scale == 1 ||
                    (same(before.roiBase, base) && same(before.roiDetail[1], level1)));
        // Chroma of another type throws through proc, and the base stays dirty.
        d.srcDr = Mat(53, 71, CV_32FC1, cv::Scalar(0.5));
        d.baseDirty = true;
        EXPECT_EQ(untimedThrow([&] { d.proc(r, scale, Mat()); }), kBadDr);
        EXPECT_TRUE(d.baseDirty);
    }
}

// The full form reports 20, 40 and 100; a cancel stops where it came, leaving what was done
// in place. Flat chroma comes through the smoothing unchanged, each plane in its place.
TEST(TDetails3, SetupReportsAndStopsWhereCancelled) {
    Mat const y(37, 61, CV_16UC1, cv::Scalar(20000));
    Mat const dr(19, 31, CV_16UC1, cv::Scalar(30001)), db(19, 31, CV_16UC1, cv::Scalar(35002));
    auto count = [](int, void *calls) {  // reports so far, the report that cancels
        auto *c = static_cast<std::pair<int, int> *>(calls);
        return ++c->first != c->second;
    };
    for (int k = 0; k <= 3; ++k) {
        std::pair<int, int> calls{0, k};
        TProgress progress(count, &calls);
        Open d;
        EXPECT_EQ(d.setup(y, y, y, y, dr, db, &progress), k == 0) << k;
        EXPECT_EQ(calls.first, k == 0 ? 3 : k);
        EXPECT_TRUE(d.srcY.data == y.data && !d.srcDr.empty());  // Y shared, not copied
        EXPECT_EQ(d.srcDb.empty(), k == 1);
        EXPECT_EQ(d.roiChanged && d.baseDirty && d.levelDirty[0] && d.levelDirty[2], k % 3 == 0);
        EXPECT_TRUE(k % 3 != 0 || (same(d.srcDr, Mat(y.size(), CV_16UC1, cv::Scalar(30001))) &&
                                   same(d.srcDb, Mat(y.size(), CV_16UC1, cv::Scalar(35002)))));
    }
    // A 1 x 1 picture; the light form shapes the planes and leaves the chroma and the flags.
    Open d;
    Mat const one(1, 1, CV_16UC1, cv::Scalar(30000)), half(1, 1, CV_16UC1, cv::Scalar(32768));
    EXPECT_TRUE(d.setup(one, one, one, one, half, half, nullptr));
    EXPECT_TRUE(d.proc(cv::Rect_<int>(0, 0, 1, 1), 1, Mat()) && d.getRoiY().size() == one.size());
    EXPECT_TRUE(d.setup(y, nullptr) && d.roiChanged && !d.baseDirty &&
                d.srcDr.size() == one.size() && d.srcDetail[2].size() == y.size());
}

}  // namespace
