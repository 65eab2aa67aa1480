// TDetails3: the band tables, the pixel helpers against plain references, and proc's stage
// caching (what a change recomputes and what it leaves standing), with the table-by-table
// path as the reference for a rebuilt level.
#include "kestrix1/effects/t_details3.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
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

Mat noise16(int rows, int cols, std::uint64_t seed, double lo = 0, double hi = 65536) {
    return kxtest::noise(rows, cols, CV_16UC1, seed, lo, hi);
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

int rampRef(int j) {
    return j <= 77 ? 3 * j : 3 * j + 1;
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

// One level rebuilt the long way: three whole-plane table passes, then the band mix.
Mat levelRef(TDetails3 const &d, int n, Mat const &raw, Mat const &base) {
    float const kHigh[3] = {5.0f, 4.0f, 3.5f}, *a = d.detailAmount[n], *t = d.detailThreshold[n];
    int const range[3] = {9830, 8191, 7372};
    TLut16U lut(0.0f, kHigh[n], range[n], 0.35f);
    Mat s = raw.clone(), m = raw.clone(), h = raw.clone();
    lut.setupLinearThreshold(a[1], t[1], a[0], t[0]);
    lut.apply(s);
    lut.setupLinearThreshold(a[2], t[2], a[0], t[0]);
    lut.apply(m);
    lut.setupLinearThreshold(a[0], t[0], 0.0f, 0.0f);
    lut.apply(h);
    return mixRef(base, s, m, h);
}

// Loaded through the light setup with a ramp as base and three detail planes of different
// strength around 32768.
struct Loaded : Open {
    Loaded(int rows, int cols) {
        Mat const y = kxtest::ramp(rows, cols, CV_16UC1);
        setup(y, nullptr);
        y.copyTo(srcY);
        for (int n = 0; n < 3; ++n)
            noise16(rows, cols, 11 + n, 32768 - 4000 * (n + 1), 32768 + 4000 * (n + 1))
                .copyTo(srcDetail[n]);
    }
    Mat region(Mat const &plane, int scale = 1) const {
        return TPImage::MatRoi(plane, roi.x, roi.y, roi.width, roi.height, scale, false, false);
    }
    Mat sum() const { return sumRef(roiBase, roiDetail[0], roiDetail[1], roiDetail[2]); }
};

TEST(TDetails3, BandTablesThresholdTestsAndCurve) {
    for (int i = 0; i < 256; ++i) {
        int const shadow = i <= 85 ? rampRef(85 - i) : 0, high = i >= 170 ? rampRef(i - 170) : 0;
        int const middle = i <= 85 ? rampRef(i) : i <= 169 ? 256 : rampRef(255 - i);
        EXPECT_EQ(TDetails3::s_shadowWeight[i], shadow) << i;
        EXPECT_EQ(TDetails3::s_middleWeight[i], middle) << i;
        EXPECT_EQ(TDetails3::s_highlightWeight[i], high) << i;
        bool const dip = (i >= 8 && i <= 77) || (i >= 178 && i <= 247);  // one short of 256
        EXPECT_EQ(shadow + middle + high, dip ? 255 : 256) << i;
    }

    Open d;
    float const below = std::nextafter(0.01f, 0.0f);
    EXPECT_TRUE(d.bNZ(0.01f) && d.bNZ(-0.01f) && d.neq(1.0f, 1.02f));
    EXPECT_FALSE(d.bNZ(below) || d.bNZ(-below) || d.neq(1.0f, 1.005f));
    // Any of the six values of a level, a threshold alone included, asks for the tables.
    for (int k = 0; k < 6; ++k) {
        Open e;
        EXPECT_FALSE(e.bNeedSHMix(1));
        (k < 3 ? e.detailAmount[1][k] : e.detailThreshold[1][k - 3]) = -0.02f;
        EXPECT_TRUE(e.bNeedSHMix(1) && !e.bNeedSHMix(0) && !e.bNeedSHMix(2)) << k;
    }
    int xs[3], ys[3], count = 0;
    d.computeYCurve(xs, ys, &count);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::vector<int>(xs, xs + 3), (std::vector<int>{0, 32768, 65535}));
    EXPECT_EQ(std::vector<int>(ys, ys + 3), (std::vector<int>{0, 32768, 65536}));
}

TEST(TDetails3, PixelHelpersMatchTheirFormulas) {
    Open d;
    float const weights[][3] = {{0.3f, -0.1f, 0.7f}, {-1.2f, 0.4f, 0.05f}, {2.0f, 2.0f, -2.0f}};
    for (cv::Size const size : {cv::Size(1, 1), {37, 23}, {4099, 3}}) {
        int const rows = size.height, cols = size.width;
        Mat const y = noise16(rows, cols, 1), s = noise16(rows, cols, 2),
                  m = noise16(rows, cols, 3);
        Mat h = noise16(rows, cols, 4);
        Mat const mixed = mixRef(y, s, m, h), summed = sumRef(y, s, m, h);
        d.mixSMH(y, s, m, h);
        EXPECT_TRUE(same(h, mixed)) << size;
        h = y.clone();
        d.addEdges(s, m, noise16(rows, cols, 4), h);
        EXPECT_TRUE(same(h, summed)) << size;

        Mat const dr8 = kxtest::noise(rows, cols, CV_8UC1, 8, 0, 256);
        Mat const db8 = kxtest::noise(rows, cols, CV_8UC1, 9, 0, 256);
        for (auto const &w : weights) {
            h = y.clone();
            d.modYWithC(s, m, w[0], w[1], w[2], h);
            EXPECT_TRUE(same(h, chromaRef<u16>(s, m, w[0], w[1], w[2], y))) << size;
            h = y.clone();
            d.modYWithC(dr8, db8, w[0], w[1], w[2], h);
            EXPECT_TRUE(same(h, chromaRef<std::uint8_t>(dr8, db8, w[0], w[1], w[2], y))) << size;
        }
    }
    // Index 0: shadow weight 256 alone; index 10 (y 2560): shadow 225 + middle 30 = 255. A
    // sum of -255 gives 32768 (towards zero), not 32767 (floor); the highlight at 65535 has
    // weight 256.
    Mat h = (cv::Mat_<u16>(1, 4) << 0, 32768, 32768, 0);
    d.mixSMH((cv::Mat_<u16>(1, 4) << 0, 2560, 2560, 65535),
             (cv::Mat_<u16>(1, 4) << 32767, 32767, 32769, 32768),
             (cv::Mat_<u16>(1, 4) << 32768, 32767, 32769, 32768), h);
    EXPECT_TRUE(same(h, (cv::Mat_<u16>(1, 4) << 32767, 32768, 32768, 0)));
    // 65535 + 2 (65535 + 0 + 32768) - 196608 = 65535: the overflow of one plane is cancelled
    // by another before the only clamp.
    h = (cv::Mat_<u16>(1, 3) << 100, 0, 65535);
    Mat const full = (cv::Mat_<u16>(1, 3) << 65535, 65535, 0);
    d.addEdges(full, (cv::Mat_<u16>(1, 3) << 0, 65535, 0), (cv::Mat_<u16>(1, 3) << 32768, 65535, 0),
               h);
    EXPECT_TRUE(same(h, (cv::Mat_<u16>(1, 3) << 100 + 2 * 98303 - 196608, 65535, 0)));
    // a' = 0.2 x 2.5 = 0.5 exactly: y + 0.5 (dr - 32768) lands on halves, which go to even.
    h = (cv::Mat_<u16>(1, 3) << 10, 11, 65535);
    Mat const dr = Mat(1, 3, CV_16UC1, cv::Scalar(32769)), db = Mat::zeros(1, 3, CV_16UC1);
    d.modYWithC(dr, db, 0.2f, 0.0f, 0.0f, h);
    EXPECT_TRUE(same(h, (cv::Mat_<u16>(1, 3) << 10, 12, 65535)));

    // Mixed or other chroma types: the composed trace text, y untouched.
    Mat const f = Mat(1, 3, CV_32FC1, cv::Scalar(1)), keep = h.clone();
    Mat const dr8(1, 3, CV_8UC1, cv::Scalar(1));
    EXPECT_EQ(untimedThrow([&] { d.modYWithC(dr8, db, 1.0f, 0.0f, 0.0f, h); }), kBadDr);
    EXPECT_EQ(untimedThrow([&] { d.modYWithC(f, f, 1.0f, 0.0f, 0.0f, h); }), kBadDr);
    EXPECT_TRUE(same(h, keep));
}

TEST(TDetails3, NeutralLevelsAddTheRawPlanesToTheBase) {
    for (cv::Size const size : {cv::Size(37, 23), {1, 1}, {1031, 7}}) {
        Loaded d(size.height, size.width);
        EXPECT_TRUE(d.proc(cv::Rect_<int>(0, 0, size.width, size.height), 1, Mat()));
        ASSERT_EQ(d.getRoiY().size(), size);
        EXPECT_TRUE(same(d.roiDetail[1], d.srcDetail[1]));
        EXPECT_TRUE(same(d.getRoiY(), d.sum())) << size;
        EXPECT_FALSE(d.roiChanged || d.baseDirty || d.levelDirty[0]);
    }
}

// A region reaching past the image, at zoom 1 (clipped) and zoom 2 (resampled): each level
// against the table-by-table reference, then what a change recomputes and what it leaves.
TEST(TDetails3, ProcRebuildsWhatIsDirtyAsTheTableByTableReference) {
    cv::Rect_<int> const r(9, 5, 70, 31), small(0, 0, 10, 9);
    for (int scale : {1, 2}) {
        Loaded d(53, 71);
        d.detailThreshold[1][0] = -0.5f;  // a threshold alone runs the tables
        d.detailAmount[2][2] = 0.9f;
        d.lightParam[0] = 0.4f;
        d.proc(r, scale, Mat());
        // Level n as it should be now, with an extra plane added to the raw region.
        auto level = [&](int n, Mat const &extra) {
            Mat raw = d.region(d.srcDetail[n], scale);
            if (!extra.empty()) cv::addWeighted(raw, 1.0, extra, 1.0, -32768.0, raw, -1);
            return d.bNeedSHMix(n) ? levelRef(d, n, raw, d.roiBase) : raw;
        };
        for (int n = 0; n < 3; ++n)
            EXPECT_TRUE(same(d.roiDetail[n], level(n, Mat()))) << scale << n;
        EXPECT_TRUE(same(d.getRoiY(), d.sum()));

        // Nothing dirty and the same region: nothing runs, even though the sources moved.
        Mat const y = d.roiY.clone(), base = d.roiBase, d1 = d.roiDetail[1], d2 = d.roiDetail[2];
        Mat const copies[3] = {base.clone(), d1.clone(), d2.clone()};
        d.srcY.setTo(1000);
        d.srcDetail[2].setTo(0);
        EXPECT_TRUE(d.proc(r, scale, Mat()));
        EXPECT_TRUE(same(d.getRoiY(), y));

        // An extra plane of the region's size rebuilds level 0 alone, without tables and
        // then with them: base and levels 1 and 2 stay the very planes with the same pixels.
        Mat const extra = noise16(y.rows, y.cols, 99);
        for (float amount : {0.0f, 0.7f}) {
            d.detailAmount[0][0] = amount;
            d.proc(r, scale, extra);
            EXPECT_TRUE(same(d.roiDetail[0], level(0, extra))) << scale << amount;
        }
        EXPECT_TRUE(d.roiBase.data == base.data && d.roiDetail[1].data == d1.data &&
                    d.roiDetail[2].data == d2.data);
        EXPECT_TRUE(same(base, copies[0]) && same(d1, copies[1]) && same(d2, copies[2]));
        EXPECT_TRUE(same(d.getRoiY(), d.sum()));
        // Another size is ignored; the next rebuild of level 0 forgets the extra.
        d.proc(r, scale, noise16(3, 4, 5));
        EXPECT_TRUE(same(d.roiDetail[0], level(0, extra)));
        d.levelDirty[0] = true;
        d.proc(r, scale, Mat());
        EXPECT_TRUE(same(d.roiDetail[0], level(0, Mat())));

        // A base change reaches every level: level 2 now sees the flattened source.
        d.baseDirty = true;
        d.proc(r, scale, Mat());
        EXPECT_FALSE(same(d.roiBase, copies[0]));
        for (int n = 0; n < 3; ++n)
            EXPECT_TRUE(same(d.roiDetail[n], level(n, Mat()))) << scale << n;
        // On a region change the new region's size counts for the extra.
        Mat const extra2 = noise16(9, 10, 7);
        d.proc(small, scale, extra2);
        EXPECT_TRUE(same(d.roiDetail[0], level(0, extra2)));
        // A copy shares every plane and carries the scalars.
        TDetails3 const c(d);
        EXPECT_TRUE(c.roiY.data == d.roiY.data && c.srcDetail[1].data == d.srcDetail[1].data);
        EXPECT_TRUE(c.detailAmount[0][0] == 0.7f && c.roiScale == scale);
    }
}

TEST(TDetails3, ColourMixShiftsTheBaseAndBadChromaThrowsThroughProc) {
    Loaded d(23, 37), lifted(23, 37);
    d.srcDr = noise16(23, 37, 21);
    d.srcDb = noise16(23, 37, 22);
    d.colorMix[0] = 0.3f;
    d.colorMix[2] = -0.2f;
    cv::Rect_<int> const r(3, 2, 30, 20);
    d.proc(r, 1, Mat());
    // The same light table over the lifted base gives the same roiBase.
    chromaRef<u16>(d.region(d.srcDr), d.region(d.srcDb), 0.3f, 0.0f, -0.2f, d.region(d.srcY))
        .copyTo(lifted.srcY(r));
    lifted.proc(r, 1, Mat());
    EXPECT_TRUE(same(d.roiBase, lifted.roiBase));

    d.srcDr = Mat(23, 37, CV_32FC1, cv::Scalar(0.5));
    d.baseDirty = true;
    EXPECT_EQ(untimedThrow([&] { d.proc(r, 1, Mat()); }), kBadDr);
    EXPECT_TRUE(same(d.roiBase, d.region(d.srcY)));
    EXPECT_TRUE(d.baseDirty);
}

// Zoomed regions are resampled into the planes of the last one when nothing else holds them.
// A pan must give exactly what a fresh object gives for the new region, and a copy taken
// before the pan must keep its base and level planes.
TEST(TDetails3, PanningAZoomedPreviewGivesWhatAFreshObjectGivesAndSparesCopies) {
    auto loaded = [](cv::Rect_<int> const &r) {
        Loaded d(66, 90);
        d.srcDr = noise16(66, 90, 31, 20000, 45000);
        d.srcDb = noise16(66, 90, 32, 20000, 45000);
        d.colorMix[1] = 0.4f;
        d.detailAmount[1][0] = 0.7f;
        d.proc(r, 2, Mat());
        return d;
    };
    cv::Rect_<int> const first(4, 6, 36, 25);
    Loaded d = loaded(first);
    u16 const *const base = d.roiBase.ptr<u16>();
    Loaded const before(d);
    for (cv::Rect_<int> const r :
         {cv::Rect_<int>(10, 8, 36, 25), {12, 3, 36, 25}, {2, 2, 40, 25}}) {
        d.proc(r, 2, Mat());
        Loaded const fresh = loaded(r);
        EXPECT_TRUE(same(d.roiY, fresh.roiY) && same(d.roiBase, fresh.roiBase)) << r;
    }
    EXPECT_NE(d.roiBase.ptr<u16>(), base);
    Loaded const again = loaded(first);
    EXPECT_TRUE(same(before.roiBase, again.roiBase));
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(same(before.roiDetail[n], again.roiDetail[n])) << n;
}

// Counts reports in a pair: reports so far, the report that cancels.
bool countReports(int, void *user) {
    auto *c = static_cast<std::pair<int, int> *>(user);
    return ++c->first != c->second;
}

// Reports 20, 40 and 100; a cancel stops where it came, leaving what was done in place.
TEST(TDetails3, LongSetupReportsThreeTimesAndStopsWhereCancelled) {
    Mat const y = kxtest::ramp(23, 37, CV_16UC1), det = noise16(23, 37, 3, 30000, 36000);
    Mat const dr = noise16(12, 19, 4, 25000, 35000), db = noise16(12, 19, 5, 30000, 40000);
    for (int k = 0; k <= 3; ++k) {
        std::pair<int, int> calls{0, k};
        TProgress progress(&countReports, &calls);
        Open d;
        EXPECT_EQ(d.setup(y, det, det, det, dr, db, &progress), k == 0) << k;
        EXPECT_EQ(calls.first, k == 0 ? 3 : k);
        EXPECT_TRUE(d.srcY.data == y.data && !d.srcDr.empty());  // Y shared, not copied
        EXPECT_EQ(d.srcDb.empty(), k == 1);
        EXPECT_EQ(d.roiChanged, k == 0 || k == 3) << k;
        EXPECT_EQ(d.baseDirty && d.levelDirty[0] && d.levelDirty[2], k == 0 || k == 3) << k;
    }
    // Smoothed: no rougher than the plain enlargement, and the planes stay apart.
    Open d;
    ASSERT_TRUE(d.setup(y, det, det, det, dr, db, nullptr));
    Mat up;
    upSize2XGuidedByY(y, dr, up, false, 4);
    cv::Scalar mean, devUp, devOut;
    cv::meanStdDev(up, mean, devUp);
    cv::meanStdDev(d.srcDr, mean, devOut);
    EXPECT_LT(devOut[0], 0.7 * devUp[0]);
    EXPECT_NEAR(mean[0], 30000, 2000);
    EXPECT_NEAR(cv::mean(d.srcDb)[0], 35000, 2000);

    // Tiny pictures; flat chroma comes through the smoothing unchanged, each plane in its
    // place.
    Mat const one(1, 1, CV_16UC1, cv::Scalar(30000)), half(1, 1, CV_16UC1, cv::Scalar(32768));
    EXPECT_TRUE(d.setup(one, one, one, one, half, half, nullptr));
    EXPECT_TRUE(d.proc(cv::Rect_<int>(0, 0, 1, 1), 1, Mat()));
    EXPECT_EQ(d.getRoiY().size(), cv::Size(1, 1));
    Mat const flatY(37, 61, CV_16UC1, cv::Scalar(20000));
    EXPECT_TRUE(d.setup(flatY, flatY, flatY, flatY, Mat(19, 31, CV_16UC1, cv::Scalar(30001)),
                        Mat(19, 31, CV_16UC1, cv::Scalar(35002)), nullptr));
    EXPECT_TRUE(same(d.srcDr, Mat(37, 61, CV_16UC1, cv::Scalar(30001))));
    EXPECT_TRUE(same(d.srcDb, Mat(37, 61, CV_16UC1, cv::Scalar(35002))));
}

// The light form shapes the planes, re-creating only those that do not fit, and leaves the
// chroma and the dirty flags alone.
TEST(TDetails3, LightSetupShapesPlanesAndKeepsDirtyFlags) {
    Open d;
    d.levelDirty[1] = true;
    Mat const src(23, 37, CV_16UC1, cv::Scalar(5));
    EXPECT_TRUE(d.setup(src, nullptr));
    EXPECT_EQ(d.srcY.size(), src.size());
    EXPECT_EQ(d.srcDetail[2].type(), CV_16UC1);
    EXPECT_NE(d.srcY.data, src.data);
    EXPECT_TRUE(d.roiChanged && d.levelDirty[1] && !d.baseDirty && d.srcDr.empty());
    uchar *const kept = d.srcDetail[0].data;
    d.setup(src, nullptr);
    EXPECT_EQ(d.srcDetail[0].data, kept);
}

}  // namespace
