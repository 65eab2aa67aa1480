#include "kestrix1/frame/t_mat.h"

#include <gtest/gtest.h>

namespace {

TFx *fx(std::uintptr_t n) {
    return reinterpret_cast<TFx *>(n);
}

}  // namespace

TEST(TMat, ConstructorsTakeFreshStamps) {
    TMat empty(fx(8));
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.parent(), fx(8));
    EXPECT_EQ(empty.uid().m_owner_p, &empty);
    TMat sized(fx(16), 3, 4, CV_16UC1);
    EXPECT_EQ(sized.size(), cv::Size(4, 3));
    EXPECT_EQ(sized.type(), CV_16UC1);
    EXPECT_EQ(sized.uid().id(), empty.uid().id() + 1);
    cv::Mat plain(2, 2, CV_8U);
    TMat wrapped(fx(24), plain);
    EXPECT_EQ(wrapped.data, plain.data);  // shares the pixels
    EXPECT_EQ(wrapped.depends().size(), 0);
}

TEST(TMat, CopiesAssignmentsAndDeepCopies) {
    TUid source;
    TMat a(fx(8), 2, 2, CV_8U);
    a.depends().addDepedentUid(&source);
    TMat b(a);  // shared pixels, a fresh stamp of its own
    EXPECT_EQ(b.data, a.data);
    EXPECT_NE(b.m_uid_p, a.m_uid_p);
    EXPECT_NE(b.uid().id(), a.uid().id());
    EXPECT_EQ(b.uid().m_owner_p, &b);
    EXPECT_TRUE(b.parent() == fx(8) && b.depends().size() == 1);

    TUid *const stamp = b.m_uid_p;
    int const id = b.uid().id();
    cv::Mat other(5, 5, CV_32F);
    b = other;  // a plain matrix: only the pixels change
    EXPECT_EQ(b.data, other.data);
    EXPECT_TRUE(b.m_uid_p == stamp && b.uid().id() == id);
    EXPECT_TRUE(b.parent() == fx(8) && b.depends().size() == 1);
    {
        TMat c(fx(16));
        c = a;  // takes over a's stamp: one stamp for both
        EXPECT_EQ(c.data, a.data);
        EXPECT_EQ(c.m_uid_p, a.m_uid_p);
        EXPECT_TRUE(c.parent() == fx(8) && c.depends().size() == 1);
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
    EXPECT_TRUE(target.parent() == fx(8) && target.depends().size() == 1);
    EXPECT_EQ(target.uid().id(), targetId);
    target.setParent(fx(32));
    EXPECT_EQ(target.parent(), fx(32));
}
