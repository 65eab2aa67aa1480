// The Y and chroma tables through small mappings whose tables can be worked out by hand:
// identity, a gain, and chroma that records the band of Y it was sampled at.
#include "kestrix1/tables/t_lut_y.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrix1/kernels/px_geometry.h"
#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using u8 = std::uint8_t;
using u16 = std::uint16_t;

u16 gained(int y, double gain) {
    return u16(std::min(65535.0, std::floor(y * gain)));
}

// Y x gain, chroma untouched; counts its calls and the chroma other than 32767 it was given.
struct GainY16 : TLutY16U {
    double gain;
    std::atomic<int> calls{0}, oddChroma{0};
    explicit GainY16(double g) : gain(g) {}
    void mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) override {
        ++calls;
        oddChroma += Dr != 32767 || Db != 32767;
        Y = gained(Y, gain);
        Dr = 0;  // thrown away by the table
    }
    using TLutY16U::applyYLUT;
    using TLutY16U::computeLUT16U;
    using TLutY16U::m_lutY_p;
};

// Y x gain; chroma becomes (Y >> 8, db) when tagBand, else identity.
struct Probe : TLutYDrDb {
    double gain;
    bool tagBand;
    std::atomic<int> calls{0};
    Probe(int nc, double g, bool tag) : TLutYDrDb(nc), gain(g), tagBand(tag) {}
    void mapYDrDb(unsigned short &Y, unsigned char &Dr, unsigned char &) override {
        ++calls;
        if (tagBand) Dr = u8(Y >> 8);
        Y = gained(Y, gain);
    }
    using TLutYDrDb::applyCLUT;
    using TLutYDrDb::computeLUT;
    using TLutYDrDb::m_lutC_p;
    using TLutYDrDb::m_lutY_p;
    using TLutYDrDb::m_NC;
    using TLutYDrDb::numCLUT;
    using TLutYDrDb::setupCLUT;
};

// Whether lut is the 16-bit linear resize by 16 of the samples Y = 16 i x gain.
bool isEnlargedYTable(u16 const *lut, double gain) {
    std::vector<u16> samples(4096), want(65536);
    for (int i = 0; i < 4096; ++i)
        samples[i] = gained(16 * i, gain);
    IppiRect const src{0, 0, 4096, 1}, dst{0, 0, 65536, 1};
    int bytes = 0;
    pxResizeBufferSize(src, dst, 1, pxInterLinear, &bytes);
    std::vector<std::uint8_t> buffer(bytes);
    pxResize(samples.data(), IppiSize{4096, 1}, 8192, src, want.data(), 131072, dst, 16.0, 1.0, 0.0,
             0.0, pxInterLinear, buffer.data());
    return std::equal(want.begin(), want.end(), lut);
}

// 4096 calls with neutral chroma (32767 here); entry x shows sample position (x + 0.5) / 16
// - 0.5, limited to the samples present, so codes above the last sample repeat it. proc
// maps a plane in place through the table, with a row step wider than its rows.
TEST(TLutY16U, TableIsFourThousandSamplesEnlargedAndProcMapsThePlane) {
    for (double gain : {1.0, 0.25}) {
        GainY16 lut(gain);
        lut.computeLUT16U(true);
        EXPECT_TRUE(lut.calls == 4096 && lut.oddChroma == 0);
        EXPECT_TRUE(isEnlargedYTable(lut.m_lutY_p, gain)) << gain;
        EXPECT_TRUE(lut.m_lutY_p[7] == 0 && lut.m_lutY_p[65535] == gained(65520, gain));
        lut.computeLUT16U(false);
        EXPECT_EQ(lut.calls, 4096);
    }
    GainY16 lut(1.5);
    kxtest::PaddedMat plane(37, 301, CV_16UC1);
    cv::Mat const src = kxtest::noise(37, 301, CV_16UC1, 5, 0, 65536);
    src.copyTo(plane.view);
    EXPECT_TRUE(lut.proc(plane.view));
    EXPECT_TRUE(lut.calls == 4096 && isEnlargedYTable(lut.m_lutY_p, 1.5));
    for (int y = 0; y < src.rows; ++y)
        for (int x = 0; x < src.cols; ++x)
            ASSERT_EQ(plane.view.at<u16>(y, x), lut.m_lutY_p[src.at<u16>(y, x)]);
    EXPECT_TRUE(plane.paddingIntact());

    cv::Mat wrong(4, 4, CV_8UC1), out;
    EXPECT_EQ(thrown([&] { lut.proc(wrong); }),
              "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1");
    EXPECT_EQ(thrown([&] { lut.applyYLUT(wrong, out); }),
              "ERROR -  TLutYDrDb::applyYLUT(const Mat &inY, Mat &outY) - inY.type() != CV_16UC1");
    cv::Mat empty(0, 0, CV_16UC1);  // returns at once
    EXPECT_TRUE(lut.proc(empty));
    lut.applyYLUT(empty, out);
    EXPECT_TRUE(out.empty());
    lut.m_lutY_p = nullptr;  // the object still frees its table
    lut.computeLUT16U(true);
    EXPECT_EQ(lut.calls, 4096);
    EXPECT_EQ(thrown([&] { lut.applyYLUT(src, out); }), "ERROR - TLutYDrDb::applyYLUT - !m_lutY_p");
}

// 2^min(nc, 5) tables, none for a negative nc; a lowered count is the ceiling for good.
TEST(TLutYDrDb, TableCountAndItsOneWayShrink) {
    Probe nine(9, 1.0, false), none(-1, 1.0, false), p(4, 1.0, false), grow(1, 1.0, false);
    EXPECT_EQ(nine.m_NC, 5);
    EXPECT_EQ(nine.numCLUT(), 32);
    EXPECT_EQ(std::count(nine.m_lutC_p, nine.m_lutC_p + 32, nullptr), 0);
    EXPECT_TRUE(none.numCLUT() == 0 && none.m_lutC_p[0] == nullptr);
    EXPECT_TRUE(p.numCLUT() == 16 && p.m_lutC_p[16] == nullptr);
    EXPECT_EQ(p.setupCLUT(2), 4);
    EXPECT_EQ(p.setupCLUT(4), 4);
    EXPECT_EQ(p.m_lutC_p[4], nullptr);
    EXPECT_EQ(grow.setupCLUT(3), 8);  // growing before anything was released is fine
    EXPECT_NE(grow.m_lutC_p[7], nullptr);
}

TEST(TLutYDrDb, TablesFromTheMapping) {
    // One table: identity chroma sampled at even codes and enlarged by 2, so entry
    // (dr, db) holds about (dr - 0.5, db - 0.5), limited to 0..254.
    Probe one(0, 2.0, false);
    one.computeLUT();
    EXPECT_EQ(one.calls, 4096 + 16384);
    EXPECT_TRUE(isEnlargedYTable(one.m_lutY_p, 2.0));
    for (int e = 0; e < 65536; ++e) {
        u16 const t = one.m_lutC_p[0][e];
        ASSERT_LE(std::fabs((t >> 8) - std::clamp((e >> 8) - 0.5, 0.0, 254.0)), 0.5) << e;
        ASSERT_LE(std::fabs((t & 255) - std::clamp((e & 255) - 0.5, 0.0, 254.0)), 0.5) << e;
    }
    // Sixteen tables: band k is sampled at Y = 4096 k + 2048; thirty-two: bin 2048, half 1024.
    Probe bands(4, 1.0, true), fine(5, 1.0, true);
    bands.computeLUT();
    EXPECT_EQ(bands.calls, 4096 + 16 * 16384);
    for (int k = 0; k < 16; ++k) {
        EXPECT_EQ(bands.m_lutC_p[k][0x1234] >> 8, (4096 * k + 2048) >> 8) << k;
        EXPECT_NEAR(bands.m_lutC_p[k][0x1234] & 255, 0x34 - 0.5, 0.5) << k;
    }
    fine.computeLUT();
    EXPECT_EQ(fine.m_lutC_p[31][0] >> 8, (31 * 2048 + 1024) >> 8);
}

// The band look-up of the five-plane form, by its formula.
u8 bandRef(Probe const &p, int y, int dr, int db, bool high) {
    int const n = 1 << p.m_NC, shift = 16 - p.m_NC, width = 1 << shift;
    int const lo = std::min(y >> shift, n - 2), hi = lo + 1, e = (dr << 8) | db, s = high ? 8 : 0;
    float const w = float(((hi + 1) * width - y) / width);
    int const a = (p.m_lutC_p[lo][e] >> s) & 255, b = (p.m_lutC_p[hi][e] >> s) & 255;
    return cv::saturate_cast<u8>(int(float(a) * w + float(b) * (1 - w)));
}

TEST(TLutYDrDb, ProcAppliesBandsWithTheirWeights) {
    // Band values of dr are 8, 24, ..., 248 (16 k + 8). Weights: 1 inside a band, 2 on a
    // band's first code, 0 in the top band except its first code.
    Probe p(4, 1.0, true);
    cv::Mat const Y = (cv::Mat_<u16>(1, 6) << 5000, 4096, 0, 61440, 65535, 61439);
    cv::Mat const want = (cv::Mat_<u8>(1, 6) << 24, 2 * 24 - 40, 0, 232, 248, 232);
    cv::Mat oY, oDr, oDb, Dr(1, 6, CV_8UC1, cv::Scalar(100)), Db(1, 6, CV_8UC1, cv::Scalar(60));
    EXPECT_TRUE(p.proc(Y, Dr, Db, oY, oDr, oDb));
    EXPECT_EQ(cv::norm(oDr, want, cv::NORM_INF), 0.0) << oDr;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(oY.at<u16>(0, i), p.m_lutY_p[Y.at<u16>(0, i)]);

    // Against the formula over noise, with an awkward size and in place.
    Probe q(3, 0.8, true);
    q.computeLUT();
    cv::Mat const y = kxtest::noise(19, 131, CV_16UC1, 1, 0, 65536);
    cv::Mat const dr = kxtest::noise(19, 131, CV_8UC1, 2, 0, 256);
    cv::Mat const db = kxtest::noise(19, 131, CV_8UC1, 3, 0, 256);
    cv::Mat odr = dr.clone(), odb = db.clone();
    q.applyCLUT(y, odr, odb, odr, odb);
    for (int r = 0; r < y.rows; ++r)
        for (int c = 0; c < y.cols; ++c) {
            int const yy = y.at<u16>(r, c), a = dr.at<u8>(r, c), b = db.at<u8>(r, c);
            ASSERT_EQ(odr.at<u8>(r, c), bandRef(q, yy, a, b, true)) << r << "," << c;
            ASSERT_EQ(odb.at<u8>(r, c), bandRef(q, yy, a, b, false)) << r << "," << c;
        }
}

// One table: both chroma forms read it alone. No table: the six-plane form maps Y only, as
// the one-plane form does in place.
TEST(TLutYDrDb, OneTableAndNoTable) {
    Probe one(0, 1.0, false), none(-1, 0.5, false);
    one.computeLUT();
    cv::Mat const dr = kxtest::noise(7, 9, CV_8UC1, 4, 0, 256);
    cv::Mat const db = kxtest::noise(7, 9, CV_8UC1, 5, 0, 256);
    cv::Mat const y(7, 9, CV_16UC1, cv::Scalar(60000));
    cv::Mat a1, b1, a5, b5;
    one.applyCLUT(dr, db, a1, b1);
    one.applyCLUT(y, dr, db, a5, b5);
    EXPECT_EQ(cv::norm(a1, a5, cv::NORM_INF) + cv::norm(b1, b5, cv::NORM_INF), 0.0);
    u16 const t = one.m_lutC_p[0][(dr.at<u8>(3, 4) << 8) | db.at<u8>(3, 4)];
    EXPECT_TRUE(a1.at<u8>(3, 4) == t >> 8 && b1.at<u8>(3, 4) == (t & 255));

    cv::Mat outDr(7, 9, CV_8UC1, cv::Scalar(33)), outDb = outDr.clone(), outY, inOut = y.clone();
    EXPECT_EQ(thrown([&] { none.applyCLUT(dr, db, outDr, outDb); }),
              "ERROR - TLutYDrDb::applyCLUT - m_NC<1 ");
    EXPECT_EQ(thrown([&] { none.applyCLUT(y, dr, db, outDr, outDb); }),
              "ERROR - TLutYDrDb::applyCLUT - m_NC<1 ");
    EXPECT_TRUE(none.proc(y, dr, db, outY, outDr, outDb));
    EXPECT_EQ(cv::countNonZero(outDr != 33) + cv::countNonZero(outDb != 33), 0);
    EXPECT_NEAR(outY.at<u16>(6, 8), 30000 - 4, 1);  // (60000 - 7.5) / 2
    EXPECT_TRUE(none.proc(inOut));
    EXPECT_EQ(cv::norm(inOut, outY, cv::NORM_INF), 0.0);
    cv::Mat empty;  // returns at once
    EXPECT_TRUE(none.proc(empty) && none.proc(empty, dr, db, outY, outDr, outDb));
}

TEST(TLutYDrDb, ThrownTexts) {
    Probe p(1, 1.0, false);
    cv::Mat const y(4, 5, CV_16UC1, cv::Scalar(1)), c(4, 5, CV_8UC1, cv::Scalar(1));
    cv::Mat oy, oc1, oc2;
    std::string const types =
        "ERROR - TLutYDrDb::proc - inY16U.type()!=CV_16UC1 || inDr8U.type!=CV_8UC1 || "
        "inDb8U.type()!=CV_8UC1";
    EXPECT_EQ(thrown([&] { p.proc(c, c, c, oy, oc1, oc2); }), types);
    EXPECT_EQ(thrown([&] { p.proc(y, y, c, oy, oc1, oc2); }), types);
    // A type error is reported before a size error.
    EXPECT_EQ(thrown([&] { p.proc(y, cv::Mat(2, 2, CV_8UC1), y, oy, oc1, oc2); }), types);
    EXPECT_EQ(thrown([&] { p.proc(y, c, cv::Mat(4, 4, CV_8UC1), oy, oc1, oc2); }),
              "ERROR - TLutYDrDb::proc inY16U.size != inDr8U.size || inY16U.size!= inDb8U.size");
    EXPECT_TRUE(oy.empty());  // nothing touched
    std::string const chroma =
        "ERROR -TLutYDrDb::applyCLUT: inDr.type() !=inDb_p.type() || inDr.type() != CV_8UC1";
    EXPECT_EQ(thrown([&] { p.applyCLUT(y, y, oc1, oc2); }), chroma);
    EXPECT_EQ(thrown([&] { p.applyCLUT(c, y, oc1, oc2); }), chroma);
    EXPECT_EQ(thrown([&] { p.applyCLUT(y, c, y, oc1, oc2); }), chroma);
    cv::Mat wrong(3, 3, CV_32FC1);
    EXPECT_EQ(thrown([&] { p.proc(wrong); }),
              "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1");
}

struct Holder : TLut2D {
    using TLut2D::m_lut_p;
    using TLut2D::TLut2D;
    void mapYDrDb(unsigned short &, unsigned char &, unsigned char &) override {}
};

TEST(PlaneTables, TLutYTLutCAndTLut2D) {
    TImage y(TImage::Y16U, TSize(7, 3)), c(TImage::C8U2, TSize(5, 3));
    y.fromMat(kxtest::ramp(3, 7, CV_16UC1));
    cv::Mat const before = y.toMat().clone();
    TLutY ly;
    ly.setLinear();
    ly.ptr()[before.at<u16>(2, 6)] = 7;
    ly.apply(y);
    EXPECT_EQ(cv::norm(y.toMat()(cv::Rect(0, 0, 6, 3)), before(cv::Rect(0, 0, 6, 3))), 0.0);
    EXPECT_EQ(y.toMat().at<u16>(2, 6), 7);

    c.toMat(0).setTo(10);
    c.toMat(1).setTo(250);
    TLutC lc(3);
    EXPECT_TRUE(lc.count() == 3 && TLutC(40).count() == 32);
    lc.setLinear();
    EXPECT_EQ(lc.ptr(2)[0x1234], 0x1234);
    for (int e = 0; e < 65536; ++e)
        lc.ptr(0)[e] = u16(((e & 255) << 8) | (e >> 8));  // swap
    lc.apply(c);
    lc.apply(y, c);  // takes the half-size Y only
    lc.apply(c, c);
    EXPECT_TRUE(c.toMat(0).at<u8>(2, 4) == 250 && c.toMat(1).at<u8>(0, 0) == 10);
    EXPECT_EQ(thrown([&] { ly.apply(c); }), "ERROR - TLutY::apply - wrong type");
    EXPECT_EQ(thrown([&] { lc.apply(y); }), "ERROR - TLutC::apply - wrong type");
    EXPECT_EQ(thrown([&] { TLutC(0).apply(c); }), "ERROR - TLutC::apply - wrong type");
    TImage none;
    ly.apply(none);

    // TLut2D allocates the first n of 16 tables; its hooks leave the planes alone.
    Holder h(3);
    EXPECT_TRUE(h.numLuts() == 3 && h.m_lut_p[2] != nullptr && h.m_lut_p[3] == nullptr);
    EXPECT_EQ(Holder().numLuts(), 16);
    cv::Mat dr(2, 2, CV_8UC1, cv::Scalar(7)), db;
    TLut2D &hooks = h;
    hooks.computeLUT();
    hooks.apply(y.toMat(), dr, db);
    EXPECT_TRUE(cv::countNonZero(dr != 7) == 0 && db.empty());
}

}  // namespace
