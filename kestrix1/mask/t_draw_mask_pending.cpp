// Stand-ins for the drawing members while they are written: weak definitions that the real
// ones replace at link time. This file goes when they are all in.
#include <opencv2/core.hpp>

#include "kestrix1/mask/t_draw_mask.h"

#define KX_WEAK __attribute__((weak))

KX_WEAK void TDrawMask::resetMask(cv::Mat &plane, unsigned char value) { plane.setTo(value); }
KX_WEAK void TDrawMask::invertMask(cv::Mat &plane) { cv::bitwise_not(plane, plane); }
KX_WEAK bool TDrawMask::renderMask(cv::Mat &base, cv::Mat &coverage, cv::Mat &out,
                                   unsigned char value, int) {
    cv::Mat a;
    coverage.convertTo(a, CV_32F, 1.0 / 255);
    cv::Mat b;
    base.convertTo(b, CV_32F);
    cv::Mat r = b.mul(1 - a) + a * value;
    r.convertTo(out, CV_8U);
    return true;
}
KX_WEAK void TDrawMask::postFilter(cv::Mat &src, cv::Mat &dst, int, float) { src.copyTo(dst); }
KX_WEAK void TDrawMask::setMaskContrast(float) {}
KX_WEAK void TDrawMask::setMaskOffset(float) {}
KX_WEAK void TDrawMask::drawSuperMask(cv::Mat &, cv::Point_<int> &, float, float, float, float) {}
KX_WEAK void TDrawMask::drawGradientMask(cv::Mat &, int, cv::Point_<int> &, cv::Point_<int> &) {}
KX_WEAK void TDrawMask::drawStrokeDot(bool, TMaskParam *) {}
KX_WEAK void TDrawMask::setPointInsideMat(cv::Point_<int> &out, cv::Point_<int> &candidate,
                                          cv::Mat &, cv::Point_<int> &) {
    out = candidate;
}
