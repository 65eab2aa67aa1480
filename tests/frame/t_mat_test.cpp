#include "kestrix1/frame/t_mat.h"

#include <utility>

#include <gtest/gtest.h>

namespace {

TFx *fx(std::uintptr_t n) {
    return reinterpret_cast<TFx *>(n);
}

// The parent of a matrix and the number of its dependencies.
std::pair<TFx *, int> links(TMat &m) {
    return {m.parent(), m.depends().size()};
}

}  // namespace

TEST(TMat, StampsParentsAndDependenciesThroughCopiesAndAssignments) {
    TMat empty(fx(8));
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.parent(), fx(8));
    EXPECT_EQ(empty.uid().m_owner_p, &empty);
    TMat a(fx(8), 2, 2, CV_8U);
    EXPECT_EQ(a.uid().id(), empty.uid().id() + 1);
    cv::Mat plain(2, 2, CV_8U);
    TMat wrapped(fx(24), plain);
    EXPECT_EQ(wrapped.data, plain.data);  // shares the pixels
    EXPECT_EQ(wrapped.depends().size(), 0);

    TUid source;
    a.depends().addDepedentUid(&source);
    TMat b(a);  // shared pixels, a fresh stamp of its own
    EXPECT_EQ(b.data, a.data);
    EXPECT_NE(b.m_uid_p, a.m_uid_p);
    EXPECT_NE(b.uid().id(), a.uid().id());
    EXPECT_EQ(b.uid().m_owner_p, &b);
    EXPECT_EQ(links(b), std::make_pair(fx(8), 1));

    TUid *const stamp = b.m_uid_p;
    int const id = b.uid().id();
    cv::Mat other(5, 5, CV_32F);
    b = other;  // a plain matrix: only the pixels change
    EXPECT_EQ(b.data, other.data);
    EXPECT_EQ(b.m_uid_p, stamp);
    EXPECT_EQ(b.uid().id(), id);
    EXPECT_EQ(links(b), std::make_pair(fx(8), 1));
    {
        TMat c(fx(16));
        c = a;  // takes over a's stamp: one stamp for both
        EXPECT_EQ(c.data, a.data);
        EXPECT_EQ(c.m_uid_p, a.m_uid_p);
        EXPECT_EQ(links(c), std::make_pair(fx(8), 1));
        c.uid().update();
        EXPECT_EQ(a.uid().id(), c.uid().id());
    }
    a.uid().update();  // the stamp outlives the matrix that took it over
    EXPECT_NE(a.uid().id(), 0);

    // A deep copy takes parent and dependencies; the target keeps its stamp.
    a.setTo(cv::Scalar(123));
    TMat target(fx(16));
    int const targetId = target.uid().id();
    a.copyTMat(target);
    EXPECT_NE(target.data, a.data);
    EXPECT_EQ(cv::countNonZero(target != 123), 0);
    EXPECT_EQ(links(target), std::make_pair(fx(8), 1));
    EXPECT_EQ(target.uid().id(), targetId);
    target.setParent(fx(32));
    EXPECT_EQ(target.parent(), fx(32));
}
