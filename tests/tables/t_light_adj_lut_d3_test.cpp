// The light-adjust table: its parameters and curve, and single pixels worked by hand.
#include "kestrix1/tables/t_light_adj_lut_d3.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

namespace {

struct Open : TLightAdjLUTd3 {
    using TLightAdjLUTd3::m_contrast;
    using TLightAdjLUTd3::m_curve;
    using TLightAdjLUTd3::m_exposure;

    unsigned short y(int Y) {
        unsigned short y = std::uint16_t(Y), dr = 32768, db = 32768;
        mapYDrDb(y, dr, db);
        return y;
    }
};

TEST(TLightAdjLUTd3, ParametersCurveAndPixelsByHand) {
    Open t;
    t.setupParams(1.0f, 1.0f, 0, 0, 0, 0);
    EXPECT_TRUE(t.m_exposure == 0.343f && t.m_contrast == 3.0f);
    t.setupParams(-1.0f, -1.0f, 0, 0, 0, 0);
    EXPECT_TRUE(t.m_exposure == -0.343f && t.m_contrast == 1.0f / 6.0f);
    // Neutral: ends at x = 0.5 -+ 0.5 / 1.4 (entries 9 and 54 lie on them), symmetric about
    // (0.5, 0.5). A lifted upper shoulder (c) raises the upper half only; d lowers the lower.
    t.setupParams(0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(t.m_curve[8] == 0.0f && t.m_curve[55] == 1.0f && t.m_curve[10] > 0.0f);
    EXPECT_NEAR(t.m_curve[18] + t.m_curve[45], 1.0f, 1e-5);
    float const upper = t.m_curve[45], lower = t.m_curve[18];
    EXPECT_EQ(t.y(0), 0);  // black stays black whatever the gain
    t.setupParams(0, 0, 1.0f, -1.0f, 0, 0);
    EXPECT_TRUE(t.m_curve[45] > upper && t.m_curve[18] < lower);

    // A huge exposure drives the gain to its limit 8. Grey Y = 1000 keeps G = 1000
    // (0.587 x 1.7036 rounds back), so Y' = 8000 (0.299 + 0.114) + 38469.047 x 8000 / 65535.
    t.setupParams(10.0f, 0, 0, 0, 0, 0);
    EXPECT_EQ(t.y(1000), 8000);
    // Brighter greys: the user curve at its top (1.001) over the reference line n + 1 / 90
    // between its knots, and 1 from knot 54 on. No grey turns white.
    for (int Y : {8192, 40000}) {
        double const n = Y / 65535.0, gain = 1.001 / (n + 1.0 / 90 + 0.001);
        EXPECT_NEAR(t.y(Y), 65535 * n * gain, 3.0) << Y;
    }
    EXPECT_NEAR(t.y(65000), 65000, 1.0);
    // A huge negative exposure: user = 0.001 below the first knot over the reference 1 at the top.
    t.setupParams(-10.0f, 0, 0, 0, 0, 0);
    EXPECT_NEAR(t.y(65535), 65535 * 0.001 / 1.001, 1.0);
    // A saturated red brightened past 1 is pulled towards its least component until R is
    // 1: the Dr that comes out is that of R = 65535 against the new Y.
    t.setupParams(2.0f, 0, 0, 0, 0, 0);
    unsigned short Y = 30000, Dr = 50000, Db = 32768;
    t.mapYDrDb(Y, Dr, Db);
    EXPECT_LT(Y, 65535);
    EXPECT_NEAR(Dr, std::lround(0.5 * (65535.0 - Y) + 32768.0), 1.0);
}

}  // namespace
