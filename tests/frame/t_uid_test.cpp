#include "kestrix1/frame/t_uid.h"

#include <climits>
#include <utility>

#include <gtest/gtest.h>

#include "kestrix1/frame/uid_counter.h"

TEST(TUid, StampsComeFromOneCounterThatSkipsZeroOnWrap) {
    int owner = 0;
    TUid a(&owner), b;
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

    int const saved = kxPeekUid();
    kxSetUidCounter(-1);
    TUid c, d;
    EXPECT_EQ(std::make_pair(c.id(), d.id()), std::make_pair(-1, 1));
    kxSetUidCounter(INT_MAX);
    TUid e, f;
    EXPECT_EQ(std::make_pair(e.id(), f.id()), std::make_pair(INT_MAX, INT_MIN));
    kxSetUidCounter(saved);
}

TEST(TUidDepends, NewDependencyIsDirtyUntilCleaned) {
    TUid source, other;
    TUidDepends deps;
    EXPECT_FALSE(deps.dirty(nullptr));  // empty list
    deps.addDepedentUid(&source);
    deps.addDepedentUid(&other);
    EXPECT_EQ(deps.size(), 2);
    EXPECT_EQ(&deps.uid(1), &other);
    EXPECT_TRUE(deps.dirty(nullptr) && deps.dirty(&source));
    deps.clean(&source);  // only the first entry for `source`
    EXPECT_FALSE(deps.dirty(&source));
    EXPECT_TRUE(deps.dirty(&other) && deps.dirty(nullptr));
    deps.clean(nullptr);
    int const recorded = source.id();
    EXPECT_FALSE(deps.dirty(nullptr));
    source.update();
    EXPECT_TRUE(deps.dirty(&source));
    EXPECT_FALSE(deps.dirty(&other));
    TUid stranger;
    EXPECT_FALSE(deps.dirty(&stranger));
    deps.clean(&stranger);  // changes nothing
    EXPECT_TRUE(deps.dirty(nullptr));

    // clear() forgets the watched stamps but keeps the recorded values: a new entry at index
    // 0 of m_uids is compared with the value recorded for `source`, its own 0 sits at index 2.
    deps.clear();
    EXPECT_EQ(deps.size(), 0);
    TUid second;
    deps.addDepedentUid(&second);
    EXPECT_EQ(deps.m_seenIds, (std::vector<int>{recorded, other.id(), 0}));
    EXPECT_TRUE(deps.dirty(&second));
    second.set(recorded);
    EXPECT_FALSE(deps.dirty(&second));
}
