#include "kestrix1/frame/geometry.h"

#include <cstdlib>

#include <gtest/gtest.h>

TEST(Geometry, SizesBelowOneAreEmpty) {
    EXPECT_TRUE(TSize().isEmpty());
    EXPECT_TRUE(TSize(0, 5).isEmpty());
    EXPECT_TRUE(TSize(5, 0).isEmpty());
    EXPECT_TRUE(TSize(-1, -1).isEmpty());
    EXPECT_FALSE(TSize(1, 1).isEmpty());
}

TEST(Geometry, RectanglesCompareAllFourFields) {
    TRect const r(TPoint(1, 2), TSize(3, 4));
    EXPECT_EQ(r, TRect(1, 2, 3, 4));
    EXPECT_EQ(r.origin().x, 1);
    EXPECT_EQ(r.origin().y, 2);
    EXPECT_EQ(r.size(), TSize(3, 4));
    EXPECT_NE(r, TRect(1, 2, 3, 5));
    EXPECT_NE(r, TRect(0, 2, 3, 4));
    EXPECT_EQ(TRect(), TRect(0, 0, 0, 0));
}

TEST(Geometry, UpdateRectDrawsChangeMarksFromRand) {
    std::srand(7);
    int const first = std::rand();
    int const second = std::rand();
    int const third = std::rand();
    std::srand(7);
    TUpdateRect u;
    EXPECT_EQ(u.m_changeId, first);
    EXPECT_EQ(u.rect(), TRect());
    u.setChanged(TRect(1, 1, 2, 2));
    EXPECT_EQ(u.m_changeId, second);
    u.setChanged(TRect(5, 6, 7, 8));  // replaces, no union
    EXPECT_EQ(u.m_changeId, third);
    EXPECT_EQ(u.rect(), TRect(5, 6, 7, 8));

    TUpdateRect v = u;
    EXPECT_TRUE(v == u);
    v.m_changeId = u.m_changeId + 1;
    EXPECT_FALSE(v == u);
}

TEST(Geometry, RegionStartsWithFactorOne) {
    TImRegion r;
    EXPECT_EQ(r.m_x, 0);
    EXPECT_EQ(r.m_y, 0);
    EXPECT_EQ(r.m_factor, 1);
    EXPECT_EQ(r.m_width, 0);
    EXPECT_EQ(r.m_height, 0);
    r.m_height = 9;
    TImRegion s;
    s = r;
    EXPECT_EQ(s.m_height, 9);
}
