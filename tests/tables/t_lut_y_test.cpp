// The Y and chroma tables through mappings whose tables can be worked out by hand.
#include "kestrix1/tables/t_lut_y.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <string>

#include "tests/support/images.h"
#include "tests/support/throws.h"

namespace {

using kxtest::thrown;
using u8 = std::uint8_t;
using u16 = std::uint16_t;

// Y x 3 / 4; counts its calls and the chroma other than 32767 (neutral here) it was given.
struct GainY16 : TLutY16U {
    std::atomic<int> calls{0}, oddChroma{0};
    void mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) override {
        ++calls;
        oddChroma += Dr != 32767 || Db != 32767;
        Y = u16(Y * 3 / 4);
    }
    using TLutY16U::applyYLUT;
    using TLutY16U::computeLUT16U;
    using TLutY16U::m_lutY_p;
};

// Y / 2; Dr becomes the high byte of the Y it was sampled at.
struct Probe : TLutYDrDb {
    std::atomic<int> calls{0};
    explicit Probe(int nc) : TLutYDrDb(nc) {}
    void mapYDrDb(unsigned short &Y, unsigned char &Dr, unsigned char &) override {
        ++calls;
        Dr = u8(Y >> 8);
        Y = u16(Y / 2);
    }
    using TLutYDrDb::applyCLUT;
    using TLutYDrDb::computeLUT;
    using TLutYDrDb::m_lutC_p;
    using TLutYDrDb::m_NC;
    using TLutYDrDb::numCLUT;
    using TLutYDrDb::setupCLUT;
};

// 4096 calls with neutral chroma at Y = 16 i, enlarged by 16: entry x reads sample position
// (x + 0.5) / 16 - 0.5 limited to 0..4095, here 12 times it, rounded.
TEST(TLutY16U, ProcMapsThePlaneThroughFourThousandSamplesEnlarged) {
    GainY16 lut;
    cv::Mat const src = kxtest::noise(3, 7, CV_16UC1, 5, 0, 65536);
    cv::Mat plane = src.clone();
    EXPECT_TRUE(lut.proc(plane) && lut.calls == 4096 && lut.oddChroma == 0);
    for (int x = 0; x < 65536; ++x)
        ASSERT_EQ(lut.m_lutY_p[x], std::lround(std::clamp(0.75 * x - 5.625, 0.0, 49140.0))) << x;
    EXPECT_EQ(plane.at<u16>(2, 6), lut.m_lutY_p[src.at<u16>(2, 6)]);

    cv::Mat wrong(4, 4, CV_8UC1), out, empty(0, 0, CV_16UC1);
    EXPECT_EQ(thrown([&] { lut.proc(wrong); }),
              "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1");
    EXPECT_EQ(thrown([&] { lut.applyYLUT(wrong, out); }),
              "ERROR -  TLutYDrDb::applyYLUT(const Mat &inY, Mat &outY) - inY.type() != CV_16UC1");
    EXPECT_TRUE(lut.proc(empty));  // at once
    lut.applyYLUT(empty, out);
    lut.computeLUT16U(false);  // does nothing, as without a table
    lut.m_lutY_p = nullptr;
    lut.computeLUT16U(true);
    EXPECT_TRUE(out.empty() && lut.calls == 4096);
    EXPECT_EQ(thrown([&] { lut.applyYLUT(src, out); }), "ERROR - TLutYDrDb::applyYLUT - !m_lutY_p");
}

// 2^min(nc, 5) tables, none for a negative nc; a lowered count is the ceiling for good. One
// table samples Y = 32767 and even chroma codes enlarged by 2: entry (dr, db) holds about
// (127, db - 0.5) within 0..254, and both chroma forms read it alone. With none, the six-plane
// form maps Y only, as the one-plane form does in place. Thrown texts: types before sizes.
TEST(TLutYDrDb, TableCountOneTableNoTableAndThrownTexts) {
    Probe nine(9), none(-1), p(4), grow(1), one(0);
    EXPECT_TRUE(nine.m_NC == 5 && nine.numCLUT() == 32 && nine.m_lutC_p[31] != nullptr);
    EXPECT_TRUE(none.numCLUT() == 0 && none.m_lutC_p[0] == nullptr && p.m_lutC_p[16] == nullptr);
    EXPECT_TRUE(p.numCLUT() == 16 && p.setupCLUT(2) == 4 && p.setupCLUT(4) == 4);
    EXPECT_TRUE(p.m_lutC_p[4] == nullptr && grow.setupCLUT(3) == 8 && grow.m_lutC_p[7] != nullptr);

    one.computeLUT();
    EXPECT_EQ(one.calls, 4096 + 16384);
    for (int e = 0; e < 65536; ++e) {
        u16 const t = one.m_lutC_p[0][e];
        ASSERT_LE(std::fabs((t & 255) - std::clamp((e & 255) - 0.5, 0.0, 254.0)), 0.5) << e;
        ASSERT_EQ(t >> 8, 127) << e;
    }
    cv::Mat const dr = kxtest::noise(7, 9, CV_8UC1, 4, 0, 256);
    cv::Mat const db = kxtest::noise(7, 9, CV_8UC1, 5, 0, 256);
    cv::Mat const y(7, 9, CV_16UC1, cv::Scalar(60000));
    cv::Mat a1, b1, a5, b5, oY, inOut = y.clone(), f(3, 3, CV_32FC1), empty;
    one.applyCLUT(dr, db, a1, b1);
    one.applyCLUT(y, dr, db, a5, b5);
    u16 const t = one.m_lutC_p[0][(dr.at<u8>(3, 4) << 8) | db.at<u8>(3, 4)];
    EXPECT_TRUE(a1.at<u8>(3, 4) == t >> 8 && b1.at<u8>(3, 4) == (t & 255));
    EXPECT_EQ(cv::norm(a1, a5, cv::NORM_INF) + cv::norm(b1, b5, cv::NORM_INF), 0.0);
    a5.setTo(33);
    EXPECT_TRUE(none.proc(y, dr, db, oY, a5, b5) && none.proc(inOut));
    EXPECT_EQ(cv::countNonZero(a5 != 33), 0);
    EXPECT_NEAR(oY.at<u16>(6, 8), 30000 - 4, 1);  // (60000 - 7.5) / 2
    EXPECT_EQ(cv::norm(inOut, oY, cv::NORM_INF), 0.0);
    EXPECT_TRUE(none.proc(empty) && none.proc(empty, dr, db, oY, a5, b5));  // at once

    std::string const noTable = "ERROR - TLutYDrDb::applyCLUT - m_NC<1 ";
    EXPECT_EQ(thrown([&] { none.applyCLUT(dr, db, a1, b1); }), noTable);
    EXPECT_EQ(thrown([&] { none.applyCLUT(y, dr, db, a1, b1); }), noTable);
    std::string const types =
        "ERROR - TLutYDrDb::proc - inY16U.type()!=CV_16UC1 || inDr8U.type!=CV_8UC1 || "
        "inDb8U.type()!=CV_8UC1";
    for (auto const &m : {std::array{dr, dr, dr}, {y, y, dr}, {y, empty, y}})
        EXPECT_EQ(thrown([&] { one.proc(m[0], m[1], m[2], oY, a1, b1); }), types);
    EXPECT_EQ(thrown([&] { one.proc(y, dr, empty, oY, a1, b1); }),
              "ERROR - TLutYDrDb::proc inY16U.size != inDr8U.size || inY16U.size!= inDb8U.size");
    std::string const chroma =
        "ERROR -TLutYDrDb::applyCLUT: inDr.type() !=inDb_p.type() || inDr.type() != CV_8UC1";
    EXPECT_EQ(thrown([&] { one.applyCLUT(y, y, a1, b1); }), chroma);
    EXPECT_EQ(thrown([&] { one.applyCLUT(dr, y, a1, b1); }), chroma);
    EXPECT_EQ(thrown([&] { one.applyCLUT(y, dr, y, a1, b1); }), chroma);
    EXPECT_EQ(thrown([&] { one.proc(f); }), "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1");
}

// Band k is sampled at Y = 4096 k + 2048, so its Dr is 16 k + 8. Weights: 1 inside a band, 2
// on a band's first code, 0 in the top band but on its first code. Db is the same in every
// band, so each weight gives it back.
TEST(TLutYDrDb, ProcAppliesBandsWithTheirWeights) {
    Probe p(4);
    cv::Mat const Y = (cv::Mat_<u16>(1, 6) << 5000, 4096, 0, 61440, 65535, 61439);
    cv::Mat const want = (cv::Mat_<u8>(1, 6) << 24, 2 * 24 - 40, 0, 232, 248, 232);
    cv::Mat oY, oDr, oDb, Dr(1, 6, CV_8UC1, cv::Scalar(100)), Db(1, 6, CV_8UC1, cv::Scalar(60));
    EXPECT_TRUE(p.proc(Y, Dr, Db, oY, oDr, oDb) && p.calls == 4096 + 16 * 16384);
    EXPECT_EQ(cv::norm(oDr, want, cv::NORM_INF), 0.0) << oDr;
    EXPECT_EQ(cv::countNonZero(oDb != (p.m_lutC_p[3][(100 << 8) | 60] & 255)), 0) << oDb;
    EXPECT_EQ(oY.at<u16>(0, 0), 2496);  // 5000 / 2 read from the samples 4992 and 5008
}

// TLutY maps a Y16U image, TLutC both planes of a C8U2 image through table 0 (here one entry
// swapping the pair).
TEST(PlaneTables, TLutYAndTLutC) {
    TImage y(TImage::Y16U, TSize(7, 3)), c(TImage::C8U2, TSize(5, 3)), none;
    y.toMat().setTo(5);
    c.toMat(0).setTo(10);
    c.toMat(1).setTo(250);
    TLutY ly;
    TLutC lc(3);
    ly.setLinear();
    lc.setLinear();
    ly.ptr()[5] = 7;
    lc.ptr(0)[(10 << 8) | 250] = (250 << 8) | 10;
    ly.apply(y);
    ly.apply(none);
    lc.apply(c);
    lc.apply(y, c);  // takes the half-size Y only
    lc.apply(c, c);
    EXPECT_TRUE(cv::countNonZero(y.toMat() != 7) == 0 && lc.ptr(2)[0x1234] == 0x1234);
    EXPECT_TRUE(cv::countNonZero(c.toMat(0) != 250) + cv::countNonZero(c.toMat(1) != 10) == 0);
    EXPECT_TRUE(lc.count() == 3 && TLutC(40).count() == 32);
    EXPECT_EQ(thrown([&] { ly.apply(c); }), "ERROR - TLutY::apply - wrong type");
    EXPECT_EQ(thrown([&] { lc.apply(y); }), "ERROR - TLutC::apply - wrong type");
    EXPECT_EQ(thrown([&] { TLutC(0).apply(c); }), "ERROR - TLutC::apply - wrong type");
}

}  // namespace
