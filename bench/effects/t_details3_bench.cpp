// TDetails3 on the 24-megapixel photograph: the once-per-image setup and the three proc
// calls a host makes most (a slider on one level at full size, a zoomed-out preview of a new
// region, and a repaint with nothing changed), each beside a copy of one 16-bit plane.
#include <memory>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/effects/t_details3.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// Base and detail planes as a host makes them: box blurs of growing size, each difference
// halved and recentred on 32768, the widest blur as the base.
struct Planes {
    cv::Mat base, detail[3];
};

Planes const &planes() {
    static Planes const p = [] {
        Planes out;
        cv::Mat y, b[3];
        inputs().y16.convertTo(y, CV_32F);
        int const sizes[3] = {3, 9, 33};
        for (int k = 0; k < 3; ++k)
            cv::blur(y, b[k], cv::Size(sizes[k], sizes[k]));
        cv::Mat const finer[3] = {y, b[0], b[1]};
        for (int k = 0; k < 3; ++k)
            cv::Mat((finer[k] - b[k]) * 0.5 + 32768.0).convertTo(out.detail[k], CV_16U);
        b[2].convertTo(out.base, CV_16U);
        return out;
    }();
    return p;
}

// One effect set up once per process; each case works on a copy, which shares its planes.
TDetails3 const &loaded() {
    static TDetails3 const d = [] {
        TDetails3 e;
        Planes const &p = planes();
        e.setup(p.base, p.detail[0], p.detail[1], p.detail[2], inputs().dr16, inputs().db16,
                nullptr);
        for (int n = 0; n < 3; ++n)
            e.detailAmount[n][0] = 0.3f;
        e.detailAmount[1][1] = 0.2f;
        e.detailThreshold[2][0] = 0.1f;
        e.lightParam[1] = 0.2f;
        e.colorMix[0] = 0.1f;
        return e;
    }();
    return d;
}

std::int64_t const kPlaneBytes = std::int64_t(6000) * 4000 * 2;

void copyPeer(std::string const &name) {
    add(
        name, "copy",
        [] {
            cv::Mat dst(inputs().y16.size(), CV_16UC1);
            return Op([dst]() mutable { kxbench::copyPlane(inputs().y16, dst); });
        },
        2 * kPlaneBytes);
}

int const registered = [] {
    add(
        "Details3_setup", "kestrix1",
        [] {
            auto d = std::make_shared<TDetails3>();
            return Op([d] {
                Planes const &p = planes();
                d->setup(p.base, p.detail[0], p.detail[1], p.detail[2], inputs().dr16,
                         inputs().db16, nullptr);
            });
        },
        6 * kPlaneBytes);
    copyPeer("Details3_setup");

    // A slider on level 0, whole picture at zoom 1.
    cv::Rect_<int> const whole(0, 0, 6000, 4000);
    add(
        "Details3_procLevel", "kestrix1",
        [whole] {
            auto d = std::make_shared<TDetails3>(loaded());
            d->proc(whole, 1, cv::Mat());
            return Op([d, whole] {
                d->detailAmount[0][0] = d->detailAmount[0][0] == 0.3f ? 0.4f : 0.3f;
                d->levelDirty[0] = true;
                d->proc(whole, 1, cv::Mat());
            });
        },
        6 * kPlaneBytes);
    copyPeer("Details3_procLevel");

    // A new 2560 x 1600 preview region at zoom 2: everything is recomputed.
    add(
        "Details3_procPreview", "kestrix1",
        [] {
            auto d = std::make_shared<TDetails3>(loaded());
            auto flip = std::make_shared<int>(0);
            return Op([d, flip] {
                *flip ^= 2;
                d->proc(cv::Rect_<int>(400 + *flip, 400, 2560, 1600), 2, cv::Mat());
            });
        },
        6 * kPlaneBytes / 6);
    copyPeer("Details3_procPreview");

    // A repaint: same region, nothing dirty.
    add(
        "Details3_procClean", "kestrix1",
        [whole] {
            auto d = std::make_shared<TDetails3>(loaded());
            d->proc(whole, 1, cv::Mat());
            return Op([d, whole] { d->proc(whole, 1, cv::Mat()); });
        },
        0);
    copyPeer("Details3_procClean");
    return 0;
}();

}  // namespace
