#include "kestrix1/frame/t_mat.h"

#include <utility>

#include <gtest/gtest.h>

static TFx *fx(std::uintptr_t n) {
    return reinterpret_cast<TFx *>(n);
}

TEST(TMat, StampsParentsAndDependenciesThroughCopiesAndAssignments) {
    TMat empty(fx(8)), a(fx(8), 2, 2, CV_8U);
    cv::Mat plain(2, 2, CV_8U);
    TMat wrapped(fx(24), plain);  // shares the pixels; every constructor takes a stamp
    EXPECT_TRUE(wrapped.data == plain.data && wrapped.uid().id() == empty.uid().id() + 2);
    EXPECT_EQ(empty.uid().m_owner_p, &empty);
    TUid source;
    a.depends().addDepedentUid(&source);
    TMat b(a);  // shared pixels, parent and dependencies, a fresh stamp of its own
    EXPECT_TRUE(b.data == a.data && b.uid().m_owner_p == &b && b.uid().id() != a.uid().id());
    EXPECT_EQ(std::make_pair(b.parent(), b.depends().size()), std::make_pair(fx(8), 1));
    TUid *const stamp = b.m_uid_p;
    cv::Mat other(5, 5, CV_32F);
    b = other;  // a plain matrix: only the pixels change
    EXPECT_TRUE(b.data == other.data && b.m_uid_p == stamp);
    EXPECT_EQ(std::make_pair(b.parent(), b.depends().size()), std::make_pair(fx(8), 1));
    {
        TMat c(fx(16));
        c = a;  // takes over a's stamp: one stamp for both
        EXPECT_TRUE(c.data == a.data && c.m_uid_p == a.m_uid_p);
        EXPECT_EQ(std::make_pair(c.parent(), c.depends().size()), std::make_pair(fx(8), 1));
    }
    a.uid().update();  // the stamp outlives the matrix that took it over
    // A deep copy takes parent and dependencies; the target keeps its stamp.
    a.setTo(cv::Scalar(123));
    TMat target(fx(16));
    int const targetId = target.uid().id();
    a.copyTMat(target);
    EXPECT_TRUE(target.data != a.data && cv::countNonZero(target != 123) == 0);
    EXPECT_EQ(std::make_pair(target.parent(), target.depends().size()), std::make_pair(fx(8), 1));
    EXPECT_EQ(target.uid().id(), targetId);
}
