// The colour table over (Y, Dr, Db): its tables and proc against plain references written
// from the formulas, exact values, the timing line, errors, copies and thread counts.
#include "kestrix1/tables/t_color_adj_d3.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrix1/tables/lut_smoothing.h"
#include "tests/support/throws.h"

namespace {

struct Open : TColorAdjD3 {
    using TColorAdjD3::TColorAdjD3;
    using TColorAdjD3::computeLUT16U;
    using TColorAdjD3::m_lutDb;
    using TColorAdjD3::m_lutDr;
};

float const kRange[6] = {0.5f, 0.6f, 0.7f, 0.4f, 3.0f, 0.8f};
Open make() { return Open(kRange[0], kRange[1], kRange[2], kRange[3], kRange[4], kRange[5]); }

double rnd16(double v) { return std::clamp(std::nearbyint(v), 0.0, 65535.0); }

// The tables built knot by knot, straight from the steps.
void referenceTables(float const a[4], std::vector<std::uint16_t> &tDr,
                     std::vector<std::uint16_t> &tDb) {
    float const *r = kRange;
    float const g = a[2] >= 0 ? (r[4] - 1) * a[2] + 1 : a[2] + 1;
    float const h = a[1] > 0 ? a[1] * r[2] : a[1] * r[3];
    float const k = a[0] > 0 ? a[0] * r[0] : a[0] * r[1];
    tDr.assign(35937, 0);
    tDb.assign(35937, 0);
    for (int L = 0; L < 33; ++L) {
        std::uint8_t row[256];
        for (int i = 0; i < 256; ++i) row[i] = std::uint8_t(i);
        int T = int(a[3] * r[5] * (4.0f * L + 64.0f));
        if (g > 1) T = int(T / g);
        for (int i = 0; i < std::abs(T) && i < 256; ++i) row[i] = T > 0 ? row[std::min(T, 255)] : 0;
        if (0.3f * std::abs(T) > 1) smoothTable(row, 256, 0.3f * std::abs(T), 2);
        float const Y = float(std::uint16_t(int(L * 2047.96875f)));
        for (int j = 0; j < 33; ++j)
            for (int m = 0; m < 33; ++m) {
                float const R = 2 * (float(int(j * 2047.96875f)) - 32768) + Y;
                float const B = 2 * (float(int(m * 2047.96875f)) - 32768) + Y;
                double const G = double(Y - 0.299f * R - 0.114f * B) * 1.7036;
                float cr = float(rnd16(R)) / 65535, cg = float(rnd16(G)) / 65535,
                      cb = float(rnd16(B)) / 65535;
                float t = std::abs(k);
                if (k < 0) {
                    cg = (1 - t) * cg + t * (1.15f * cg + 0.12f);
                    cb = (1 - t) * cb + t * (1.6f * cb + 0.48f);
                } else {
                    cr = (1 - t) * cr + t * (1.5f * cr + 0.4f);
                    cg = (1 - t) * cg + t * (1.35f * cg + 0.28f);
                }
                t = std::abs(h);
                if (h < 0) {
                    cg = (1 - t) * cg + t * (1.5f * cg + 0.4f);
                } else {
                    cr = (1 - t) * cr + t * (1.25f * cr + 0.2f);
                    cb = (1 - t) * cb + t * (1.5f * cb + 0.4f);
                }
                float const R1 = cr * 65535, B1 = cb * 65535;
                float const Y1 = 38469.046875f * cg + 0.299f * R1 + 0.114f * B1;
                int const x = int(rnd16((R1 - Y1) * 0.5f + 32768)) - 32768;
                int const y = int(rnd16((B1 - Y1) * 0.5f + 32768)) - 32768;
                int const c = int(std::sqrt(2.0 * (double(x) * x + double(y) * y)) * 0.00390625);
                float const s = std::min(4.0f, (row[std::clamp(c, 0, 255)] + 4.0f) / (c + 4.0f));
                int const idx = (L * 33 + j) * 33 + m;
                tDr[idx] = std::uint16_t(rnd16(x * s + 32768.0f));
                tDb[idx] = std::uint16_t(rnd16(y * s + 32768.0f));
            }
    }
}

// One pixel of proc, read from the object's tables with sixteen plain look-ups.
void referencePixel(Open const &t, int y0, int y1, int Dr, int Db, int &oDr, int &oDb) {
    float const s = std::max(1.0f, (y1 + 655.3f) / (y0 + 655.3f));
    int const dr = int(rnd16((Dr - 32768.0f) * s + 32768.0f));
    int const db = int(rnd16((Db - 32768.0f) * s + 32768.0f));
    int const iy = y1 >> 11, ir = dr >> 11, ib = db >> 11;
    float const fy = (y1 & 2047) / 2048.0f, fr = (dr & 2047) / 2048.0f, fb = (db & 2047) / 2048.0f;
    for (int ch = 0; ch < 2; ++ch) {
        std::uint16_t const *T = ch == 0 ? t.m_lutDr : t.m_lutDb;
        auto at = [&](int a, int b, int c) { return float(T[((iy + a) * 33 + ir + b) * 33 + ib + c]); };
        auto plane = [&](int a) {
            return (1 - fr) * (at(a, 0, 0) * (1 - fb) + at(a, 0, 1) * fb) +
                   (at(a, 1, 0) * (1 - fb) + at(a, 1, 1) * fb) * fr;
        };
        int const v = int(rnd16((1 - fy) * plane(0) + plane(1) * fy));
        (ch == 0 ? oDr : oDb) = v;
    }
}

// Four planes of one size with the extremes 0 and 65535 in every plane and some y1 < y0.
struct Planes {
    cv::Mat y0, y1, dr, db;
};
Planes makePlanes(int rows, int cols, std::uint64_t seed) {
    Planes p{cv::Mat(rows, cols, CV_16UC1), cv::Mat(rows, cols, CV_16UC1),
             cv::Mat(rows, cols, CV_16UC1), cv::Mat(rows, cols, CV_16UC1)};
    cv::RNG rng(seed);
    for (cv::Mat *m : {&p.y0, &p.y1, &p.dr, &p.db}) rng.fill(*m, cv::RNG::UNIFORM, 0, 65536);
    int const extremes[][4] = {{0, 0, 0, 0}, {65535, 65535, 65535, 65535}, {0, 65535, 0, 65535},
                               {65535, 0, 65535, 0}, {40000, 30000, 20000, 50000}};
    for (int i = 0; i < 5 && i < int(p.y0.total()); ++i) {
        p.y0.at<std::uint16_t>(i) = std::uint16_t(extremes[i][0]);
        p.y1.at<std::uint16_t>(i) = std::uint16_t(extremes[i][1]);
        p.dr.at<std::uint16_t>(i) = std::uint16_t(extremes[i][2]);
        p.db.at<std::uint16_t>(i) = std::uint16_t(extremes[i][3]);
    }
    return p;
}

struct Amounts {
    float a[4];
};

class TColorAdjD3Amounts : public testing::TestWithParam<Amounts> {};

// a0 and a1 on both sides; a3 as floor and cut-off, with g > 1 (a2 > 0) and g < 1; floors and
// cut-offs beyond the 256-entry row at the top levels.
INSTANTIATE_TEST_SUITE_P(
    Sets, TColorAdjD3Amounts,
    testing::Values(Amounts{{0, 0, 0, 0}}, Amounts{{0.7f, 0, 0, 0}}, Amounts{{-0.6f, 0, 0, 0}},
                    Amounts{{0, 0.8f, 0, 0}}, Amounts{{0, -0.5f, 0, 0}},
                    Amounts{{0, 0, 0.5f, 1.0f}}, Amounts{{0, 0, -0.5f, 1.0f}},
                    Amounts{{0.3f, -0.4f, 0, -1.0f}}, Amounts{{-1.0f, 1.0f, 0, 3.0f}},
                    Amounts{{0, 0, 0, -3.0f}}));

TEST_P(TColorAdjD3Amounts, TablesAndProcMatchPlainReferences) {
    Open t = make();
    Amounts const &p = GetParam();
    t.setAmounts(p.a[0], p.a[1], p.a[2], p.a[3]);
    testing::internal::CaptureStdout();
    t.computeLUT16U();
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(t.dirty());

    std::vector<std::uint16_t> rDr, rDb;
    referenceTables(p.a, rDr, rDb);
    int bad = 0;
    for (int i = 0; i < 35937; ++i) bad += rDr[i] != t.m_lutDr[i] || rDb[i] != t.m_lutDb[i];
    EXPECT_EQ(bad, 0);

    for (int cols : {1, 7, 33}) {
        Planes const in = makePlanes(5, cols, 17 + cols);
        cv::Mat oDr, oDb;
        ASSERT_TRUE(t.proc(in.y0, in.y1, in.dr, in.db, oDr, oDb));
        ASSERT_TRUE(oDr.size() == in.y0.size() && oDr.type() == CV_16UC1 && oDb.type() == CV_16UC1);
        int wrong = 0;
        for (int i = 0; i < int(in.y0.total()); ++i) {
            int eDr, eDb;
            referencePixel(t, in.y0.at<std::uint16_t>(i), in.y1.at<std::uint16_t>(i),
                           in.dr.at<std::uint16_t>(i), in.db.at<std::uint16_t>(i), eDr, eDb);
            wrong += eDr != oDr.at<std::uint16_t>(i) || eDb != oDb.at<std::uint16_t>(i);
        }
        EXPECT_EQ(wrong, 0) << cols;
    }
}

TEST(TColorAdjD3, ExactValuesOfTablesIndexAndMixes) {
    Open const t = make();
    EXPECT_FALSE(t.dirty());
    EXPECT_EQ(TColorAdjD3::get3DLUTIdx(1, 2, 3), 1158);
    EXPECT_EQ(TColorAdjD3::get3DLUTIdx(32, 32, 32), 35936);
    for (int y : {0, 17, 32}) {
        EXPECT_EQ(t.m_lutDr[TColorAdjD3::get3DLUTIdx(y, 32, 0)], 65535);
        EXPECT_EQ(t.m_lutDb[TColorAdjD3::get3DLUTIdx(y, 0, 32)], 65535);
        EXPECT_EQ(t.m_lutDr[TColorAdjD3::get3DLUTIdx(y, 1, 5)], 2047);
        EXPECT_EQ(t.m_lutDb[TColorAdjD3::get3DLUTIdx(y, 5, 16)], 32767);
        EXPECT_EQ(t.m_lutDr[TColorAdjD3::get3DLUTIdx(y, 0, 9)], 0);
    }
    // Weights chosen so that swapping any two of them changes the result.
    float out = 0;
    TColorAdjD3::mix(out, 10.0f, 20.0f, 0.25f);
    EXPECT_EQ(out, 12.5f);
    TColorAdjD3::mix(out, 1, 2, 3, 4, 0.5f, 0.25f);
    EXPECT_EQ(out, 2.25f);
    TColorAdjD3::mix(out, 1, 2, 3, 4, 5, 6, 7, 8, 0.75f, 0.5f, 0.25f);
    EXPECT_EQ(out, 5.25f);
}

TEST(TColorAdjD3, ZeroAmountsKeepInGamutChromaAfterTheBrighteningScale) {
    Open t = make();
    t.setAmounts(0, 0, 0, 0);
    cv::Mat y0(1, 200, CV_16UC1), y1(1, 200, CV_16UC1), dr(1, 200, CV_16UC1), db(1, 200, CV_16UC1);
    for (int i = 0; i < 200; ++i) {
        y0.at<std::uint16_t>(i) = std::uint16_t(20000 + 97 * i);
        // Same Y, a darker one (scale held at 1) and a brighter one (scale above 1).
        y1.at<std::uint16_t>(i) = std::uint16_t(i % 3 == 0 ? 20000 + 97 * i : i % 3 == 1 ? 15000 + 61 * i : 30000 + 40 * i);
        dr.at<std::uint16_t>(i) = std::uint16_t(30000 + 31 * i);
        db.at<std::uint16_t>(i) = std::uint16_t(35500 - 29 * i);
    }
    cv::Mat oDr, oDb;
    testing::internal::CaptureStdout();
    t.proc(y0, y1, dr, db, oDr, oDb);
    testing::internal::GetCapturedStdout();
    for (int i = 0; i < 200; ++i) {
        float const s = std::max(1.0f, (y1.at<std::uint16_t>(i) + 655.3f) / (y0.at<std::uint16_t>(i) + 655.3f));
        if (i % 3 != 2) {
            EXPECT_EQ(s, 1.0f);
        }
        EXPECT_NEAR(oDr.at<std::uint16_t>(i), rnd16((dr.at<std::uint16_t>(i) - 32768.0f) * s + 32768.0f), 1.0) << i;
        EXPECT_NEAR(oDb.at<std::uint16_t>(i), rnd16((db.at<std::uint16_t>(i) - 32768.0f) * s + 32768.0f), 1.0) << i;
    }
}

TEST(TColorAdjD3, TimingLineOncePerRecompute) {
    std::string const label = "time to compute LUT for color adj: ";
    auto count = [&](std::string const &s) {
        int n = 0;
        for (std::size_t p = s.find(label); p != std::string::npos; p = s.find(label, p + 1)) ++n;
        return n;
    };
    Planes const in = makePlanes(3, 4, 5);
    cv::Mat oDr, oDb;
    Open t = make();
    testing::internal::CaptureStdout();
    t.proc(in.y0, in.y1, in.dr, in.db, oDr, oDb);  // clean from the start: no table work
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    t.setAmounts(0.2f, 0.1f, 0, 0.5f);
    EXPECT_TRUE(t.dirty());
    testing::internal::CaptureStdout();
    t.proc(in.y0, in.y1, in.dr, in.db, oDr, oDb);
    t.proc(in.y0, in.y1, in.dr, in.db, oDr, oDb);
    std::string const out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(count(out), 1);
    EXPECT_EQ(out.rfind(label, 0), 0u);
    EXPECT_EQ(out.back(), '\n');
    EXPECT_FALSE(t.dirty());
    std::array<float, 4> const a = t.amounts();
    EXPECT_TRUE(a[0] == 0.2f && a[1] == 0.1f && a[2] == 0 && a[3] == 0.5f);
}

TEST(TColorAdjD3, BadPlanesThrowBeforeOutputsAreTouched) {
    std::string const text = "ERROR - TColorAdjD3::proc - planes must be CV_16UC1 of one size";
    Open t = make();
    Planes const in = makePlanes(4, 6, 1);
    cv::Mat const small(4, 5, CV_16UC1, cv::Scalar(1)), bytes(4, 6, CV_8UC1, cv::Scalar(1));
    cv::Mat oDr(2, 2, CV_16UC1, cv::Scalar(7)), oDb(2, 2, CV_16UC1, cv::Scalar(7));
    std::uint8_t const *const before = oDr.data;
    EXPECT_EQ(kxtest::thrown([&] { t.proc(in.y0, small, in.dr, in.db, oDr, oDb); }), text);
    EXPECT_EQ(kxtest::thrown([&] { t.proc(in.y0, in.y1, bytes, in.db, oDr, oDb); }), text);
    EXPECT_EQ(kxtest::thrown([&] { t.proc(in.y0, in.y1, in.dr, cv::Mat(), oDr, oDb); }), text);
    EXPECT_TRUE(oDr.data == before && oDr.rows == 2 && cv::countNonZero(oDr != 7) == 0);
    cv::Mat const e;
    EXPECT_TRUE(t.proc(e, e, e, e, oDr, oDb));
    EXPECT_TRUE(oDr.data == before && oDb.rows == 2);
}

TEST(TColorAdjD3, CopiesOwnTheirTablesAndShareScratchSafely) {
    Planes const in = makePlanes(6, 9, 3);
    cv::Mat rDr, rDb, cDr, cDb;
    testing::internal::CaptureStdout();
    {
        auto *original = new Open(make());
        original->setAmounts(0.5f, -0.3f, 0.2f, 1.5f);
        Open copy(*original);  // dirty, amounts and scratch come along
        Open assigned = make();
        assigned = *original;
        original->proc(in.y0, in.y1, in.dr, in.db, rDr, rDb);
        delete original;  // the copies keep the scratch alive
        copy.proc(in.y0, in.y1, in.dr, in.db, cDr, cDb);
        EXPECT_EQ(cv::countNonZero(rDr != cDr) + cv::countNonZero(rDb != cDb), 0);
        assigned.proc(in.y0, in.y1, in.dr, in.db, cDr, cDb);
        EXPECT_EQ(cv::countNonZero(rDr != cDr) + cv::countNonZero(rDb != cDb), 0);
        // A clean object assigned from a computed one takes its tables, not the identity.
        Open later = make();
        later = assigned;
        EXPECT_FALSE(later.dirty());
        later.proc(in.y0, in.y1, in.dr, in.db, cDr, cDb);
        EXPECT_EQ(cv::countNonZero(rDr != cDr) + cv::countNonZero(rDb != cDb), 0);
        // In place: outputs may be the input chroma planes.
        cv::Mat dr = in.dr.clone(), db = in.db.clone();
        later.proc(in.y0, in.y1, dr, db, dr, db);
        EXPECT_EQ(cv::countNonZero(rDr != dr) + cv::countNonZero(rDb != db), 0);
    }
    testing::internal::GetCapturedStdout();
}

TEST(TColorAdjD3, SameBitsAtOneTwoAndFourThreads) {
    Planes const in = makePlanes(97, 301, 9);
    int const saved = omp_get_max_threads();
    cv::Mat firstDr, firstDb;
    std::vector<std::uint16_t> firstTable;
    testing::internal::CaptureStdout();
    for (int threads : {1, 2, 4}) {
        omp_set_num_threads(threads);
        Open t = make();
        t.setAmounts(-0.4f, 0.6f, 0.3f, 1.2f);
        cv::Mat oDr, oDb;
        t.proc(in.y0, in.y1, in.dr, in.db, oDr, oDb);
        std::vector<std::uint16_t> table(t.m_lutDr, t.m_lutDr + 35937);
        table.insert(table.end(), t.m_lutDb, t.m_lutDb + 35937);
        if (threads == 1) {
            firstDr = oDr, firstDb = oDb, firstTable = table;
            continue;
        }
        EXPECT_TRUE(table == firstTable) << threads;
        EXPECT_EQ(cv::countNonZero(oDr != firstDr) + cv::countNonZero(oDb != firstDb), 0) << threads;
    }
    testing::internal::GetCapturedStdout();
    omp_set_num_threads(saved);
}

}  // namespace
