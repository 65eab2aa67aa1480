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

TEST_F(TProgressTest, ReportsThousandthsOfTheStageStackAndEndAdvancesTheParent) {
    EXPECT_TRUE(p.prog());  // one stage of 100 steps
    p.prog(25, 100);
    p.start(0.5f);
    p.prog(50, 100);  // a quarter + half of a half
    p.start(0.5f);
    p.prog(1, 4);  // + a quarter of a quarter
    p.prog();      // + two quarters of a quarter
    p.done();      // whatever stages were open
    p.start(0.5f);
    p.reset();  // back to one stage at 0, without reporting
    EXPECT_TRUE(p.m_fractions == std::vector<float>{1.0f} && p.m_counts == std::vector<int>{0});
    p.start(0.5f);
    p.prog(100, 100);
    EXPECT_TRUE(p.end());  // the parent at 50 of 100
    // Nested: each level adds trunc(count + total x fraction).
    p.start(1.0f / 3.0f);
    p.start(0.5f);
    p.end();  // child of 0.5 over a stage of 100: + 50
    p.end();  // 50 + trunc(100 / 3) = 83
    p.end();  // closing the only stage reports 0; on the empty stack nothing moves
    EXPECT_TRUE(p.end() && p.prog() && p.prog(5, 10));
    EXPECT_EQ(seen, (std::vector<int>{10, 250, 500, 562, 625, 1000, 500, 500, 666, 830, 0, 0, 0}));
}

TEST_F(TProgressTest, OverrunStretchesTheTotalAndTheHostCancelsEachTime) {
    p.prog(5, 4);             // total becomes trunc(6 x 1.2) = 7
    p.prog();                 // 6 of 7
    p.prog(1000, 100);        // stretched to 1201: stays below 1000
    p.m_totals.back() = 100;  // a count far past the total as the host left it
    p.m_counts.back() = 100;
    p.start(1.0f);
    p.prog(100, 100);  // 2.0 overall is capped
    EXPECT_EQ(seen, (std::vector<int>{714, 857, 832, 1000}));
    answer = false;
    EXPECT_FALSE(p.prog());
    EXPECT_FALSE(p.end());  // no state remembers the cancel: the host is asked again
    EXPECT_TRUE(TProgress(&callback, nullptr).prog(50, 100));  // a null user pointer silences
    EXPECT_TRUE(TProgress().prog());                           // no host, nothing to cancel
    EXPECT_EQ(seen.size(), 6u);
}
