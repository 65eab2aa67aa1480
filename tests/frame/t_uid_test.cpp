#include "kestrix1/frame/t_uid.h"

#include <climits>
#include <vector>

#include <gtest/gtest.h>

#include "kestrix1/frame/uid_counter.h"

TEST(TUid, StampsComeFromOneCounterThatSkipsZeroAndDependenciesStayDirtyUntilCleaned) {
    int owner = 0;
    TUid a(&owner), b;
    EXPECT_TRUE(a.m_owner_p == &owner && b.id() == a.id() + 1);
    a.update();
    a.set(5);  // a foreign stamp, the counter stays
    EXPECT_TRUE(kxPeekUid() == b.id() + 2 && a.id() == 5);
    int const saved = kxPeekUid();
    kxSetUidCounter(-1);
    TUid c, d;
    kxSetUidCounter(INT_MAX);
    TUid e, f;
    kxSetUidCounter(saved);
    EXPECT_EQ((std::vector<int>{c.id(), d.id(), e.id(), f.id()}),
              (std::vector<int>{-1, 1, INT_MAX, INT_MIN}));
    TUid source, other, stranger;
    TUidDepends deps;
    EXPECT_FALSE(deps.dirty(nullptr));  // empty list
    deps.addDepedentUid(&source);
    deps.addDepedentUid(&other);
    EXPECT_EQ(&deps.uid(1), &other);
    EXPECT_TRUE(deps.dirty(nullptr) && deps.dirty(&source));
    deps.clean(&source);  // only the first entry for `source`
    EXPECT_TRUE(!deps.dirty(&source) && deps.dirty(&other) && deps.dirty(nullptr));
    deps.clean(nullptr);
    int const recorded = source.id();
    EXPECT_FALSE(deps.dirty(nullptr));
    source.update();
    deps.clean(&stranger);  // changes nothing
    EXPECT_TRUE(deps.dirty(&source) && deps.dirty(nullptr));
    EXPECT_FALSE(deps.dirty(&other) || deps.dirty(&stranger));
    // clear() forgets the watched stamps but keeps the recorded values: a new entry at index
    // 0 of m_uids is compared with the value recorded for `source`, its own 0 sits at index 2.
    deps.clear();
    TUid second;
    deps.addDepedentUid(&second);
    EXPECT_EQ(deps.m_seenIds, (std::vector<int>{recorded, other.id(), 0}));
    EXPECT_EQ(deps.size(), 1);
    EXPECT_TRUE(deps.dirty(&second));
    second.set(recorded);
    EXPECT_FALSE(deps.dirty(&second));
}
