// The mask painter on a 24-megapixel working image: the history beside a plain copy of the
// mask, and (below) the brush, the gradients and the refinement beside plain loops or the
// library's own filters.
#include <memory>

#include "bench/support/bench.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// ---- history --------------------------------------------------------------------------------

// A painter over the standard photograph, with two states recorded.
struct Painter {
    TPImage image;
    TDrawMask mask;
    Painter() {
        image.create(inputs().y16.cols, inputs().y16.rows, false);
        inputs().y16.copyTo(image.m_Y);
        inputs().dr16.copyTo(image.m_Dr);
        inputs().db16.copyTo(image.m_Db);
        mask.setInImage(&image, false);
        mask.snapshot();
    }
};

int const historyCases = [] {
    std::int64_t const bytes = std::int64_t(inputs().y16.total()) * 2;
    add(
        "MaskSnapshot", "kestrix1",
        [] {
            auto p = std::make_shared<Painter>();
            return Op([p] { p->mask.snapshot(); });
        },
        bytes);
    add(
        "MaskUndoRedo", "kestrix1",
        [] {
            auto p = std::make_shared<Painter>();
            return Op([p] {  // one step each way: two states restored
                p->mask.undo();
                p->mask.redo();
            });
        },
        2 * bytes);
    // A stroke of 200 gated dots of radius 100 along a diagonal, queued and replayed by proc
    // (with the fill that a fresh replay starts with): reported in ms, no peer.
    add(
        "MaskStroke200", "kestrix1",
        [] {
            auto p = std::make_shared<Painter>();
            return Op([p] {
                p->mask.reset();
                p->mask.setMaskBlendValue(255);
                p->mask.cmdDrawStart();
                for (int i = 0; i < 200; ++i)
                    p->mask.cmdDrawADot({1000 + 20 * i, 800 + 10 * i}, 255, 100, 30, 0.8f, true,
                                        false);
                p->mask.cmdDrawEnd();
                p->mask.proc();
            });
        },
        0);
    for (char const *name : {"MaskSnapshot", "MaskUndoRedo"}) {
        bool const twice = name[4] == 'U';
        add(
            name, "copy",
            [twice] {
                auto src = std::make_shared<cv::Mat>(inputs().y16.size(), CV_8UC1, cv::Scalar(7));
                auto dst = std::make_shared<cv::Mat>(src->clone());
                return Op([=] {
                    src->copyTo(*dst);
                    if (twice) dst->copyTo(*src);
                });
            },
            twice ? 2 * bytes : bytes);
    }
    return 0;
}();

}  // namespace
