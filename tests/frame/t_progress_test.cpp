#include "kestrix1/frame/t_progress.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

// Records what the host sees and answers with `answer`.
struct Host {
    std::vector<int> seen;
    bool answer = true;

    static bool callback(int thousandths, void *user) {
        auto *self = static_cast<Host *>(user);
        self->seen.push_back(thousandths);
        return self->answer;
    }
};

}  // namespace

TEST(TProgress, StartsWithOneStageOfOneHundredStepsAndDoneReportsFull) {
    TProgress const none;
    EXPECT_TRUE(none.m_callback_p == nullptr && none.m_user_p == nullptr);
    Host host;
    TProgress p(&Host::callback, &host);
    EXPECT_EQ(p.m_fractions, std::vector<float>{1.0f});
    EXPECT_EQ(p.m_totals, std::vector<int>{100});
    EXPECT_EQ(p.m_counts, std::vector<int>{0});
    p.start(0.25f);
    p.start(0.5f);
    p.prog(3, 10);
    host.seen.clear();
    p.done();  // whatever stages were open
    EXPECT_EQ(host.seen, std::vector<int>{1000});
    EXPECT_EQ(p.m_counts, std::vector<int>{100});
    EXPECT_EQ(p.m_totals, std::vector<int>{100});
    p.start(0.5f);
    p.reset();  // without reporting
    EXPECT_EQ(host.seen.size(), 1u);
    EXPECT_EQ(p.m_fractions, std::vector<float>{1.0f});
    EXPECT_EQ(p.m_counts, std::vector<int>{0});
}

TEST(TProgress, ReportsThousandthsOfTheStageStack) {
    Host host;
    TProgress p(&Host::callback, &host);
    EXPECT_TRUE(p.prog(25, 100));
    p.start(0.5f);
    EXPECT_TRUE(p.prog(50, 100));       // a quarter + half of a half
    EXPECT_EQ(p.m_counts.front(), 25);  // the parent's count stays while a child runs
    p.start(0.5f);
    EXPECT_TRUE(p.prog(1, 4));  // + a quarter of a quarter
    EXPECT_TRUE(p.prog());      // + two quarters of a quarter
    EXPECT_EQ(host.seen, (std::vector<int>{250, 500, 562, 625}));
}

TEST(TProgress, EndAdvancesTheParentByTheChildsShare) {
    Host host;
    TProgress p(&Host::callback, &host);
    p.start(0.5f);
    p.prog(100, 100);
    EXPECT_TRUE(p.end());
    EXPECT_EQ(p.m_counts, std::vector<int>{50});
    EXPECT_EQ(p.m_fractions.size(), 1u);
    EXPECT_EQ(host.seen.back(), 500);
    // Nested: a third of a third adds trunc(count + total x fraction) at each level.
    p.start(1.0f / 3.0f);
    p.start(0.5f);
    p.end();  // child of 0.5 over a stage of 100: + 50
    EXPECT_EQ(p.m_counts.back(), 50);
    p.end();  // 50 + trunc(100 / 3) = 83
    EXPECT_EQ(p.m_counts, std::vector<int>{83});
    EXPECT_EQ(host.seen.back(), 830);
    // Closing the only stage reports 0; on the empty stack nothing happens.
    host.seen.clear();
    p.end();
    EXPECT_TRUE(p.m_totals.empty());
    EXPECT_TRUE(p.end());
    EXPECT_EQ(host.seen, std::vector<int>{0});
}

TEST(TProgress, OverrunStretchesTheTotal) {
    Host host;
    TProgress p(&Host::callback, &host);
    p.prog(5, 4);  // total becomes trunc(6 x 1.2) = 7
    EXPECT_EQ(p.m_totals.back(), 7);
    EXPECT_EQ(host.seen.back(), 714);
    p.prog();  // 6 of 7
    EXPECT_EQ(host.seen.back(), 857);
    p.prog(1000, 100);  // stretched to 1201: stays below 1000
    EXPECT_EQ(p.m_totals.back(), 1201);
    EXPECT_EQ(host.seen.back(), 832);
    p.m_totals.back() = 100;  // a count far past the total as the host left it
    p.m_counts.back() = 100;
    p.start(1.0f);
    p.prog(100, 100);
    EXPECT_EQ(host.seen.back(), 1000);  // 2.0 overall is capped
}

TEST(TProgress, HostCancelsByAnsweringFalseUnlessTheUserPointerIsNull) {
    Host host;
    host.answer = false;
    TProgress silent(&Host::callback, nullptr);
    EXPECT_TRUE(silent.prog());
    EXPECT_TRUE(silent.prog(50, 100));
    silent.done();
    EXPECT_TRUE(host.seen.empty());
    EXPECT_TRUE(TProgress().prog());  // no host, nothing to cancel
    TProgress p(&Host::callback, &host);
    EXPECT_FALSE(p.prog());
    EXPECT_FALSE(p.prog());  // no state remembers the cancel: the host is asked again
    EXPECT_EQ(host.seen.size(), 2u);
    p.start(0.5f);
    EXPECT_FALSE(p.end());
}
