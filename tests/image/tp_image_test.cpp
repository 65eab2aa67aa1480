// Tests of TPImage's life cycle: sizes, create, sharing copies, stamps, release, getfY.
#include "kestrix1/image/tp_image.h"

#include <gtest/gtest.h>

#include "tests/support/images.h"

namespace {

// The five planes of an image, in declared order.
std::vector<cv::Mat const *> planes(TPImage const &im) {
    return {&im.m_Y, &im.m_fY, &im.m_Dr, &im.m_Db, &im.m_halfMask};
}

// A filled 5 x 3 image with an m_fY (flat 1000), odd-valued fields and one dependency.
void fill(TPImage &im, TUid const *watched) {
    im.create(5, 3, false);
    im.m_Y = kxtest::ramp(3, 5, CV_16UC1);
    im.m_fY = cv::Mat(2, 3, CV_16UC1, cv::Scalar(1000));
    im.m_halfMask.setTo(7);
    im.m_scale = 0.5f;
    im.m_x = 3;
    im.m_y = 4;
    im.m_level = 2;
    im.depends().addDepedentUid(watched);
}

// Whether the four fields hold what create gives, or what fill gives.
bool fields(TPImage const &im, bool created) {
    return created ? im.m_scale == 1.0f && im.m_level == 1 && im.m_x == 0 && im.m_y == 0
                   : im.m_scale == 0.5f && im.m_level == 2 && im.m_x == 3 && im.m_y == 4;
}

TEST(TPImage, SizesFollowHalfRoundedUp) {
    EXPECT_EQ(TPImage::half(0) + TPImage::half(1) + TPImage::half(2), 2);
    EXPECT_EQ(TPImage::half(3), 2);
    EXPECT_EQ(TPImage::half(4099), 2050);
    TPImage im(5, 3);
    EXPECT_TRUE(im.m_Y.size() == cv::Size(5, 3) && im.m_Y.type() == CV_16UC1 && im.m_fY.empty());
    for (cv::Mat const *m : {&im.m_Dr, &im.m_Db, &im.m_halfMask})
        EXPECT_EQ(m->size(), cv::Size(3, 2));
    EXPECT_TRUE(im.m_Dr.type() == CV_16UC1 && im.m_halfMask.type() == CV_8UC1);
    EXPECT_TRUE(im.hWidth() == 3 && im.hHeight() == 2 && fields(im, true) && !im.bEmpty());
    EXPECT_TRUE(TPImage().bEmpty() && TPImage(0, 7).bEmpty());
    EXPECT_EQ(TPImage(1, 9).m_Dr.size(), cv::Size(1, 5));
}

TEST(TPImage, CreateKeepsPlanesOnlyAtThePresentSizeAndReleaseDropsThem) {
    TUid watched;
    TPImage im;
    fill(im, &watched);
    int const id = im.uid()->id();
    uchar const *yData = im.m_Y.data, *fyData = im.m_fY.data;
    im.create(5, 3, true);  // same size: no plane changes, the fields are reset
    EXPECT_TRUE(im.m_Y.data == yData && im.m_fY.data == fyData && fields(im, true));

    TPImage other(im);  // keeps the old planes when im takes another size
    im.create(6, 4, false);
    EXPECT_TRUE(im.m_fY.empty() && im.m_Y.size() == cv::Size(6, 4) &&
                im.m_Dr.size() == cv::Size(3, 2));
    EXPECT_TRUE(other.m_Y.size() == cv::Size(5, 3) && other.m_fY.data == fyData);
    EXPECT_EQ(im.uid()->id(), id);  // create leaves the stamp alone

    fill(other, &watched);
    other.release();
    for (cv::Mat const *m : planes(other))
        EXPECT_TRUE(m->empty());
    EXPECT_TRUE(other.bEmpty() && other.m_level == 1);
    EXPECT_TRUE(other.m_scale == 0.5f && other.m_x == 3 && other.m_y == 4);  // these stay
}

TEST(TPImage, GetfYSharesYOrEnlargesTheHalfPlane) {
    TPImage im(5, 3);
    EXPECT_EQ(im.getfY().data, im.m_Y.data);
    TUid watched;
    fill(im, &watched);
    cv::Mat const yBefore = im.m_Y.clone(), full = im.getfY();
    EXPECT_TRUE(full.data != im.m_Y.data && full.size() == cv::Size(5, 3));
    EXPECT_EQ(cv::countNonZero(full != 1000), 0);  // a flat plane enlarges to a flat plane
    EXPECT_EQ(cv::norm(im.m_Y, yBefore, cv::NORM_INF), 0.0);
}

TEST(TPImage, CopiesShareAndCarryTheIdOnlyCloneIsDeep) {
    int const live = TPImage::liveCount();
    TUid watched, other;
    TPImage b;
    fill(b, &watched);
    TPImage copy(b);
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(planes(copy)[i]->data, planes(b)[i]->data) << "plane " << i;
    EXPECT_TRUE(fields(copy, false) && copy.uid() != b.uid());
    EXPECT_TRUE(copy.uid()->id() == b.uid()->id() && copy.depends().size() == 0);

    TPImage a(2, 2);
    TUid *const ownStamp = a.uid();
    a.depends().addDepedentUid(&other);
    a = b;
    EXPECT_TRUE(a.uid() == ownStamp && a.uid()->id() == b.uid()->id());
    EXPECT_TRUE(a.depends().size() == 1 && fields(a, false));  // dependencies stay
    a.m_Y.at<ushort>(1, 2) = 12345;
    EXPECT_EQ(b.m_Y.at<ushort>(1, 2), 12345);

    a = b.clone();
    EXPECT_TRUE(a.uid()->id() == b.uid()->id() && fields(a, false));
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_NE(planes(a)[i]->data, planes(b)[i]->data) << "plane " << i;
        EXPECT_EQ(cv::norm(*planes(a)[i], *planes(b)[i], cv::NORM_INF), 0.0) << "plane " << i;
    }
    a.m_Y.at<ushort>(1, 2) = 1;
    EXPECT_EQ(b.m_Y.at<ushort>(1, 2), 12345);
    EXPECT_EQ(TPImage::liveCount(), live + 3);  // the clone's temporary is gone again
}

TEST(TPImage, ForeignStampIsWrittenButNeverDeleted) {
    int const live = TPImage::liveCount();
    TUid host;  // on the stack: a delete of it fails the sanitizer build
    TPImage source(3, 3);
    {
        TPImage im(4, 4);
        im.setUid(&host);
        EXPECT_TRUE(im.uid() == &host && im.m_uidIsForeign);
        im = source;
        EXPECT_EQ(host.id(), source.uid()->id());
        im.setUid(&host);  // replacing a foreign stamp does not delete it either
        std::vector<unsigned short> px(4 * 2 * 2, 500);
        im.convertFrom(px.data(), 2, 2, 8);
        EXPECT_NE(host.id(), source.uid()->id());  // conversions from the host take a new one
    }
    EXPECT_NE(host.id(), 0);
    EXPECT_EQ(TPImage::liveCount(), live + 1);
}

}  // namespace
