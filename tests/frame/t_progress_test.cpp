#include "kestrix1/frame/t_progress.h"

#include <vector>

#include <gtest/gtest.h>

// A progress object whose host records what it sees and answers with `answer`.
class TProgressTest : public ::testing::Test {
protected:
    static bool callback(int thousandths, void *user) {
        auto *self = static_cast<TProgressTest *>(user);
        self->seen.push_back(thousandths);
        return self->answer;
    }

    std::vector<int> seen;
    bool answer = true;
    TProgress p{&callback, this};
};

TEST_F(TProgressTest, ReportsThousandthsOfTheStageStack) {
    EXPECT_TRUE(p.prog());  // one stage of 100 steps
    EXPECT_TRUE(p.prog(25, 100));
    p.start(0.5f);
    EXPECT_TRUE(p.prog(50, 100));       // a quarter + half of a half
    EXPECT_EQ(p.m_counts.front(), 25);  // the parent's count stays while a child runs
    p.start(0.5f);
    EXPECT_TRUE(p.prog(1, 4));  // + a quarter of a quarter
    EXPECT_TRUE(p.prog());      // + two quarters of a quarter
    EXPECT_EQ(seen, (std::vector<int>{10, 250, 500, 562, 625}));
    p.done();  // whatever stages were open
    EXPECT_EQ(seen.back(), 1000);
    EXPECT_EQ(p.m_counts, std::vector<int>{100});
    EXPECT_EQ(p.m_totals, std::vector<int>{100});
    p.start(0.5f);
    p.reset();  // back to one stage at 0, without reporting
    EXPECT_EQ(seen.size(), 6u);
    EXPECT_EQ(p.m_fractions, std::vector<float>{1.0f});
    EXPECT_EQ(p.m_counts, std::vector<int>{0});
}

TEST_F(TProgressTest, EndAdvancesTheParentByTheChildsShare) {
    p.start(0.5f);
    p.prog(100, 100);
    EXPECT_TRUE(p.end());
    EXPECT_EQ(p.m_counts, std::vector<int>{50});
    EXPECT_EQ(p.m_fractions.size(), 1u);
    EXPECT_EQ(seen.back(), 500);
    // Nested: a third of a third adds trunc(count + total x fraction) at each level.
    p.start(1.0f / 3.0f);
    p.start(0.5f);
    p.end();  // child of 0.5 over a stage of 100: + 50
    EXPECT_EQ(p.m_counts.back(), 50);
    p.end();  // 50 + trunc(100 / 3) = 83
    EXPECT_EQ(p.m_counts, std::vector<int>{83});
    EXPECT_EQ(seen.back(), 830);
    // Closing the only stage reports 0; on the empty stack nothing happens.
    seen.clear();
    p.end();
    EXPECT_TRUE(p.m_totals.empty());
    EXPECT_TRUE(p.end());
    EXPECT_EQ(seen, std::vector<int>{0});
}

TEST_F(TProgressTest, OverrunStretchesTheTotal) {
    p.prog(5, 4);  // total becomes trunc(6 x 1.2) = 7
    EXPECT_EQ(p.m_totals.back(), 7);
    EXPECT_EQ(seen.back(), 714);
    p.prog();  // 6 of 7
    EXPECT_EQ(seen.back(), 857);
    p.prog(1000, 100);  // stretched to 1201: stays below 1000
    EXPECT_EQ(p.m_totals.back(), 1201);
    EXPECT_EQ(seen.back(), 832);
    p.m_totals.back() = 100;  // a count far past the total as the host left it
    p.m_counts.back() = 100;
    p.start(1.0f);
    p.prog(100, 100);
    EXPECT_EQ(seen.back(), 1000);  // 2.0 overall is capped
}

TEST_F(TProgressTest, HostCancelsByAnsweringFalseUnlessTheUserPointerIsNull) {
    answer = false;
    EXPECT_FALSE(p.prog());
    EXPECT_FALSE(p.prog());  // no state remembers the cancel: the host is asked again
    EXPECT_EQ(seen.size(), 2u);
    p.start(0.5f);
    EXPECT_FALSE(p.end());
    TProgress silent(&callback, nullptr);
    EXPECT_TRUE(silent.prog());
    EXPECT_TRUE(silent.prog(50, 100));
    silent.done();
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_TRUE(TProgress().prog());  // no host, nothing to cancel
}
