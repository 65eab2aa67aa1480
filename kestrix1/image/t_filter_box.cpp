#include "kestrix1/image/t_filter_box.h"

#include <algorithm>
#include <cstdint>
#include <opencv2/imgproc.hpp>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/t_image.h"
#include "kestrix1/kernels/px_filter.h"

namespace {

// One pass into out: the plane with r reflected pixels around it, then the mean of each
// (2r + 1)-square centred on a pixel. out may share no pixels with m's frame, which is a copy.
template <class T>
void boxPass(cv::Mat const &m, int r, cv::Mat &out) {
    cv::Mat framed;
    cv::copyMakeBorder(m, framed, r, r, r, r, cv::BORDER_REFLECT_101);
    out.create(m.size(), m.type());
    int const side = 2 * r + 1;
    // The arguments are valid by construction, so the kernel's status is always success.
    (void)pxFilterBox(framed.ptr<T>(r) + r, int(framed.step), out.ptr<T>(), int(out.step),
                      {m.cols, m.rows}, {side, side}, {r, r});
}

}  // namespace

bool tFilterBox(TImage const *in_p, TImage *out_p, int radius, int passes, TProgress *progress) {
    kxRequire(in_p->type() == out_p->type(), "tFilterBox - in_p->type() != out_p->type()");
    bool const wide = in_p->type() == TImage::Y16U;
    kxRequire(wide || in_p->type() == TImage::C8U2, kxErrFilterBoxType);

    if (radius < 1 || passes < 1 || in_p->isEmpty()) {
        out_p->copyFrom(*in_p);
        return progress ? progress->prog() : false;
    }
    kxRequire(out_p->size() == in_p->size(), "ERROR - TImage::copyFrom - size is not equal");

    // Shrinking by f keeps the working box within 109 pixels; a plane smaller than f keeps
    // one pixel a side. The last step writes straight into out_p's plane, unless a progress
    // answer could still cancel after it.
    int const f = radius / 54 + 1, r = radius / f;
    cv::Mat const full = in_p->toMat();
    cv::Mat target = out_p->toMat(), m = full;
    if (f > 1)
        cv::resize(full, m, {std::max(1, full.cols / f), std::max(1, full.rows / f)}, 0, 0,
                   cv::INTER_LINEAR);
    for (int pass = 0; pass < passes; ++pass) {
        bool const direct = f == 1 && pass + 1 == passes && !progress;
        cv::Mat next;
        cv::Mat &dst = direct ? target : next;
        wide ? boxPass<std::uint16_t>(m, r, dst) : boxPass<std::uint8_t>(m, r, dst);
        m = dst;
        if (progress && progress->prog()) return true;
    }
    if (f > 1)
        cv::resize(m, target, full.size(), 0, 0, cv::INTER_LINEAR);
    else if (m.data != target.data)
        m.copyTo(target);
    return progress ? progress->prog() : false;
}
