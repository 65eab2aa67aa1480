// Tests of TPImage's life cycle: sizes, create, release, getfY, sharing copies and stamps.
#include "kestrix1/image/tp_image.h"

#include <gtest/gtest.h>

#include "tests/support/images.h"

namespace {

cv::Mat TPImage::*const kPlanes[] = {&TPImage::m_Y, &TPImage::m_fY, &TPImage::m_Dr, &TPImage::m_Db,
                                     &TPImage::m_halfMask};

// A 5 x 3 image with an m_fY (flat 1000) and fields other than those create gives.
void fill(TPImage &im) {
    im.create(5, 3, false);
    im.m_Y = kxtest::ramp(3, 5, CV_16UC1);
    im.m_fY = cv::Mat(2, 3, CV_16UC1, cv::Scalar(1000));
    im.m_scale = 0.5f;
    im.m_x = 3;
    im.m_y = 4;
    im.m_level = 2;
}

bool filled(TPImage const &im) {
    return im.m_scale == 0.5f && im.m_level == 2 && im.m_x == 3 && im.m_y == 4;
}

TEST(TPImage, SizesCreateReleaseAndGetfY) {
    EXPECT_TRUE(TPImage::half(0) == 0 && TPImage::half(2) == 1 && TPImage::half(4099) == 2050);
    TPImage im(5, 3);
    EXPECT_TRUE(im.m_Y.size() == cv::Size(5, 3) && im.m_Y.type() == CV_16UC1 && im.m_fY.empty());
    EXPECT_TRUE(im.m_Dr.size() == cv::Size(3, 2) && im.m_Db.size() == cv::Size(3, 2));
    EXPECT_TRUE(im.m_halfMask.size() == cv::Size(3, 2) && im.m_halfMask.type() == CV_8UC1);
    EXPECT_TRUE(TPImage().bEmpty() && !im.bEmpty() && TPImage(1, 9).m_Dr.size() == cv::Size(1, 5));
    EXPECT_EQ(im.getfY().data, im.m_Y.data);

    fill(im);
    cv::Mat const yBefore = im.m_Y.clone(), full = im.getfY();
    EXPECT_TRUE(full.size() == cv::Size(5, 3) && cv::countNonZero(full != 1000) == 0);  // flat
    EXPECT_TRUE(full.data != im.m_Y.data && cv::norm(im.m_Y, yBefore, cv::NORM_INF) == 0);

    int const id = im.uid()->id();
    uchar const *yData = im.m_Y.data, *fyData = im.m_fY.data;
    im.create(5, 3, true);  // same size: no plane changes, the fields are reset
    EXPECT_TRUE(im.m_Y.data == yData && im.m_fY.data == fyData);
    EXPECT_TRUE(im.m_scale == 1.0f && im.m_level == 1 && im.m_x == 0 && im.m_y == 0);
    im.create(5, 4, false);  // another height alone is another size
    EXPECT_TRUE(im.m_fY.empty() && im.m_Y.size() == cv::Size(5, 4));
    EXPECT_TRUE(im.m_Dr.size() == cv::Size(3, 2) && im.uid()->id() == id);  // stamp untouched

    fill(im);
    im.release();
    for (cv::Mat TPImage::*p : kPlanes)
        EXPECT_TRUE((im.*p).empty());
    EXPECT_TRUE(im.m_level == 1 && im.m_scale == 0.5f && im.m_x == 3 && im.m_y == 4);
}

TEST(TPImage, CopiesShareAndCarryTheIdCloneIsDeepForeignStampsStay) {
    int const live = TPImage::liveCount();
    TUid watched, other, host;  // host on the stack: a delete of it fails the sanitizer build
    TPImage b;
    fill(b);
    b.depends().addDepedentUid(&watched);
    TPImage copy(b), a(2, 2);
    TUid *const ownStamp = a.uid();
    a.depends().addDepedentUid(&other);
    a = b;
    for (cv::Mat TPImage::*p : kPlanes)
        EXPECT_TRUE((copy.*p).data == (b.*p).data && (a.*p).data == (b.*p).data);
    EXPECT_TRUE(filled(copy) && copy.uid() != b.uid() && copy.uid()->id() == b.uid()->id());
    EXPECT_TRUE(copy.depends().size() == 0 && a.depends().size() == 1);  // a's dependencies stay
    EXPECT_TRUE(filled(a) && a.uid() == ownStamp && a.uid()->id() == b.uid()->id());

    a = b.clone();
    EXPECT_TRUE(a.uid()->id() == b.uid()->id() && filled(a));
    for (cv::Mat TPImage::*p : kPlanes)
        EXPECT_TRUE((a.*p).data != (b.*p).data && cv::norm(a.*p, b.*p, cv::NORM_INF) == 0.0);
    EXPECT_EQ(TPImage::liveCount(), live + 3);  // the clone's temporary is gone again

    {
        TPImage im(4, 4);
        im.setUid(&host);
        EXPECT_TRUE(im.uid() == &host && im.m_uidIsForeign);
        im = b;
        EXPECT_EQ(host.id(), b.uid()->id());
        im.setUid(&host);  // replacing a foreign stamp does not delete it either
        std::vector<unsigned short> px(4 * 2 * 2, 500);
        im.convertFrom(px.data(), 2, 2, 8);
        EXPECT_NE(host.id(), b.uid()->id());  // conversions from the host take a new one
    }
    EXPECT_EQ(TPImage::liveCount(), live + 3);
}

}  // namespace
