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
    EXPECT_EQ(sized.rows, 3);
    EXPECT_EQ(sized.cols, 4);
    EXPECT_EQ(sized.type(), CV_16UC1);
    EXPECT_EQ(sized.uid().id(), empty.uid().id() + 1);

    cv::Mat plain(2, 2, CV_8U, cv::Scalar(7));
    TMat wrapped(fx(24), plain);
    EXPECT_EQ(wrapped.data, plain.data);  // shares the pixels
    EXPECT_EQ(wrapped.depends().size(), 0);
}

TEST(TMat, CopyConstructionSharesPixelsWithAFreshStamp) {
    TUid source;
    TMat a(fx(8), 2, 2, CV_8U);
    a.depends().addDepedentUid(&source);
    TMat b(a);
    EXPECT_EQ(b.data, a.data);
    EXPECT_NE(b.m_uid_p, a.m_uid_p);
    EXPECT_NE(b.uid().id(), a.uid().id());
    EXPECT_EQ(b.uid().m_owner_p, &b);
    EXPECT_EQ(b.parent(), fx(8));
    EXPECT_EQ(b.depends().size(), 1);
}

TEST(TMat, AssigningAMatKeepsStampParentAndDependencies) {
    TUid source;
    TMat a(fx(8), 2, 2, CV_8U);
    a.depends().addDepedentUid(&source);
    TUid *const stamp = a.m_uid_p;
    int const id = a.uid().id();
    cv::Mat other(5, 5, CV_32F);
    a = other;
    EXPECT_EQ(a.data, other.data);
    EXPECT_EQ(a.m_uid_p, stamp);
    EXPECT_EQ(a.uid().id(), id);
    EXPECT_EQ(a.parent(), fx(8));
    EXPECT_EQ(a.depends().size(), 1);
}

TEST(TMat, AssigningATMatTakesOverItsStamp) {
    TUid source;
    TMat a(fx(8), 2, 2, CV_8U);
    a.depends().addDepedentUid(&source);
    {
        TMat b(fx(16));
        b = a;
        EXPECT_EQ(b.data, a.data);
        EXPECT_EQ(b.m_uid_p, a.m_uid_p);  // one stamp for both
        EXPECT_EQ(b.parent(), fx(8));
        EXPECT_EQ(b.depends().size(), 1);
        b.uid().update();
        EXPECT_EQ(a.uid().id(), b.uid().id());
    }
    // The stamp outlives the matrix that took it over.
    a.uid().update();
    EXPECT_NE(a.uid().id(), 0);
}

TEST(TMat, CopyTMatCopiesPixelsParentAndDependencies) {
    TUid source;
    TMat a(fx(8), 3, 3, CV_16UC1);
    a.setTo(cv::Scalar(1234));
    a.depends().addDepedentUid(&source);
    TMat target(fx(16));
    int const targetId = target.uid().id();
    a.copyTMat(target);
    EXPECT_NE(target.data, a.data);
    EXPECT_EQ(cv::countNonZero(target != 1234), 0);
    EXPECT_EQ(target.parent(), fx(8));
    EXPECT_EQ(target.depends().size(), 1);
    EXPECT_EQ(target.uid().id(), targetId);
    target.setParent(fx(32));
    EXPECT_EQ(target.parent(), fx(32));
}
