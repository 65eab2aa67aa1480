#include "kestrix1/frame/geometry.h"

#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

TEST(Geometry, SizesBelowOneAreEmptyAndRectanglesCompareAllFourFields) {
    for (TSize s : {TSize(), TSize(0, 5), TSize(5, 0), TSize(-1, -1)})
        EXPECT_TRUE(s.isEmpty()) << s.width << "x" << s.height;
    EXPECT_FALSE(TSize(1, 1).isEmpty());
    TRect const r(TPoint(1, 2), TSize(3, 4));
    EXPECT_EQ(r, TRect(1, 2, 3, 4));
    EXPECT_EQ(TRect(r.origin(), r.size()), r);
    EXPECT_EQ(r.size(), TSize(3, 4));
    EXPECT_NE(r, TRect(1, 2, 3, 5));
    EXPECT_NE(r, TRect(0, 2, 3, 4));
    EXPECT_EQ(TRect(), TRect(0, 0, 0, 0));
    // The host's region record starts with factor 1.
    TImRegion const region;
    EXPECT_EQ((std::vector<int>{region.m_x, region.m_y, region.m_factor, region.m_width,
                                region.m_height}),
              (std::vector<int>{0, 0, 1, 0, 0}));
}

TEST(Geometry, UpdateRectDrawsChangeMarksFromRand) {
    std::srand(7);
    int const first = std::rand(), second = std::rand(), third = std::rand();
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
