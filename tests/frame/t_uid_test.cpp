#include "kestrix1/frame/t_uid.h"

#include <climits>

#include <gtest/gtest.h>

#include "kestrix1/frame/uid_counter.h"

TEST(TUid, StampsComeFromOneCounter) {
    int owner = 0;
    TUid a(&owner);
    TUid b;
    EXPECT_EQ(b.id(), a.id() + 1);
    EXPECT_EQ(a.m_owner_p, &owner);
    a.update();
    EXPECT_EQ(a.id(), b.id() + 1);
    EXPECT_EQ(kxPeekUid(), a.id() + 1);
    a.set(5);  // a foreign stamp, the counter stays
    EXPECT_EQ(a.id(), 5);
    EXPECT_EQ(kxPeekUid(), b.id() + 2);
    b = a;
    EXPECT_EQ(b.id(), 5);
    EXPECT_EQ(b.m_owner_p, &owner);
}

TEST(TUid, CounterSkipsZeroOnWrap) {
    int const saved = kxPeekUid();
    kxSetUidCounter(-1);
    TUid a;
    TUid b;
    EXPECT_EQ(a.id(), -1);
    EXPECT_EQ(b.id(), 1);
    kxSetUidCounter(INT_MAX);
    TUid c;
    TUid d;
    EXPECT_EQ(c.id(), INT_MAX);
    EXPECT_EQ(d.id(), INT_MIN);
    kxSetUidCounter(saved);
}

TEST(TUidDepends, NewDependencyIsDirtyUntilCleaned) {
    TUid source;
    TUid other;
    TUidDepends deps;
    EXPECT_FALSE(deps.dirty(nullptr));  // empty list
    deps.addDepedentUid(&source);
    deps.addDepedentUid(&other);
    EXPECT_EQ(deps.size(), 2);
    EXPECT_EQ(&deps.uid(1), &other);
    EXPECT_TRUE(deps.dirty(nullptr));
    EXPECT_TRUE(deps.dirty(&source));

    deps.clean(&source);  // only the first entry for `source`
    EXPECT_FALSE(deps.dirty(&source));
    EXPECT_TRUE(deps.dirty(&other));
    EXPECT_TRUE(deps.dirty(nullptr));
    deps.clean(nullptr);
    EXPECT_FALSE(deps.dirty(nullptr));

    source.update();
    EXPECT_TRUE(deps.dirty(&source));
    EXPECT_FALSE(deps.dirty(&other));
    TUid stranger;
    EXPECT_FALSE(deps.dirty(&stranger));
    deps.clean(&stranger);  // changes nothing
    EXPECT_TRUE(deps.dirty(nullptr));
}

TEST(TUidDepends, ClearForgetsStampsButKeepsRecordedValues) {
    TUid first;
    TUid second;
    TUidDepends deps;
    deps.addDepedentUid(&first);
    deps.clean(nullptr);
    deps.clear();
    EXPECT_EQ(deps.size(), 0);
    ASSERT_EQ(deps.m_seenIds.size(), 1u);

    // The new pointer sits at index 0 of m_uids but its own 0 at index 1 of m_seenIds: it
    // is compared with the value recorded for `first`.
    deps.addDepedentUid(&second);
    EXPECT_EQ(deps.m_seenIds, (std::vector<int>{first.id(), 0}));
    EXPECT_TRUE(deps.dirty(&second));
    second.set(first.id());
    EXPECT_FALSE(deps.dirty(&second));
}
