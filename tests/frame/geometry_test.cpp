#include "kestrix1/frame/geometry.h"

#include <cstdlib>

#include <gtest/gtest.h>

TEST(Geometry, EmptySizesRectangleFieldsAndChangeMarksDrawnFromRand) {
    for (TSize s : {TSize(), TSize(0, 5), TSize(5, 0), TSize(-1, -1)})
        EXPECT_TRUE(s.isEmpty()) << s.width << "x" << s.height;
    EXPECT_FALSE(TSize(1, 1).isEmpty());
    TRect const r(TPoint(1, 2), TSize(3, 4));
    EXPECT_EQ(TRect(r.origin(), r.size()), TRect(1, 2, 3, 4));
    EXPECT_TRUE(r != TRect(1, 2, 3, 5) && r != TRect(0, 2, 3, 4) && r.size() != TSize(3, 5));
    EXPECT_EQ(TImRegion().m_factor, 1);  // the host's region record starts with factor 1
    // The constructor draws the first change mark, each change the next.
    std::srand(7);
    int const fourth = (std::rand(), std::rand(), std::rand(), std::rand());
    std::srand(7);
    TUpdateRect u;
    u.setChanged(TRect(1, 1, 2, 2));
    u.setChanged(TRect(5, 6, 7, 8));  // replaces, no union
    u.setChanged();
    EXPECT_EQ(u.m_changeId, fourth);
    EXPECT_EQ(u.rect(), TRect(5, 6, 7, 8));
    TUpdateRect v = u;
    EXPECT_TRUE(v == u);
    v.m_changeId = u.m_changeId + 1;
    EXPECT_FALSE(v == u);
}
