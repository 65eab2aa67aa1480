#include "kestrix1/mask/t_mask_cmd.h"

TMaskParam::TMaskParam(cv::Point_<int> const &pt, unsigned char v, int r, int inner, float fl,
                       bool gate, bool refPoint)
    : value(v),
      radius(r),
      innerRadius(inner),
      flow(fl),
      useColorGate(gate),
      useRefPoint(refPoint),
      pt1(pt) {}

TMaskParam::TMaskParam(cv::Point_<int> const &start, cv::Point_<int> const &end, int type)
    : gradientType(type), pt1(start), pt2(end) {}

TMaskParam::TMaskParam(cv::Point_<int> const &pt, float a, float b, float c)
    : pt1(pt), f1(a), f2(b), f3(c) {}

TMaskParam::TMaskParam(cv::Point_<int> const &pt, float a, float b, float c, float d, bool flag)
    : pt1(pt), f1(a), f2(b), f3(c), f4(d), superFlag(flag) {}

TMaskParam::TMaskParam(float radiusFactor, float strength, float offset, float contrast)
    : post{radiusFactor, strength, offset, contrast} {}

TMaskParam::TMaskParam(TDrawMask *source) : maskSource(source) {}

TMaskCmd::TMaskCmd(DrawType t, std::unique_ptr<TMaskParam> p) : type(t), param(std::move(p)) {}

TMaskCmd::TMaskCmd(TMaskCmd const &other)
    : type(other.type), param(other.param ? std::make_unique<TMaskParam>(*other.param) : nullptr) {}

TMaskCmd &TMaskCmd::operator=(TMaskCmd const &other) {
    if (this != &other) {
        type = other.type;
        param = other.param ? std::make_unique<TMaskParam>(*other.param) : nullptr;
    }
    return *this;
}
