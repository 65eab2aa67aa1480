// The mask painter on a 24-megapixel working image: the history beside a plain copy of the
// mask, and (below) the brush, the gradients and the refinement beside plain loops or the
// library's own filters.
#include <cmath>
#include <memory>
#include <vector>

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

// ---- brush ----------------------------------------------------------------------------------

// A colour-gated soft dot of radius 100 (inner 30) in the middle of the image, beside the
// same formula written as one plain loop over the square.
constexpr int kDotRadius = 100, kDotInner = 30;

int const brushRegistered = [] {
    cv::Point const centre(3000, 2000);
    std::int64_t const side = 2 * kDotRadius + 1;
    std::int64_t const bytes = side * side * (4 + 1 + 1) + side * side / 4 * 4;
    add(
        "BrushGatedDot", "kestrix1",
        [centre] {
            auto p = std::make_shared<Painter>();
            p->mask.updateLUT(kDotRadius, kDotInner);
            return Op([p, centre] {
                p->mask.brushMaskDotLUT(255, 0.8f, centre, kDotRadius, true, false);
            });
        },
        bytes);
    add(
        "BrushGatedDot", "scalar",
        [centre] {
            auto lut = std::make_shared<std::vector<float>>(TDrawMask::kLutSize, 0.0f);
            for (int d = 0; d < kDotRadius; ++d) {
                double const t =
                    d < kDotInner ? 0.0 : double(d - kDotInner) / (kDotRadius - kDotInner);
                (*lut)[d] = float((std::exp(-2 * t * t) - std::exp(-2.0)) / (1 - std::exp(-2.0)));
            }
            cv::Mat yf;
            inputs().y16.convertTo(yf, CV_32F, 1.5259021896696422e-5);
            cv::Mat mask(yf.size(), CV_8UC1, cv::Scalar(0));
            cv::Mat dr = inputs().dr16, db = inputs().db16;
            return Op([=]() mutable {
                float const y0 = yf.at<float>(centre);
                float const dr0 = dr.at<std::uint16_t>(centre / 2) / 65535.0f;
                float const db0 = db.at<std::uint16_t>(centre / 2) / 65535.0f;
                double const v = int(255 * 0.8f);
                for (int y = centre.y - kDotRadius; y <= centre.y + kDotRadius; ++y)
                    for (int x = centre.x - kDotRadius; x <= centre.x + kDotRadius; ++x) {
                        int const dx = x - centre.x, dy = y - centre.y;
                        float const w = (*lut)[int(std::sqrt(float(dx * dx + dy * dy)) + 0.5f)];
                        double const num =
                            1.5 * std::fabs(yf.at<float>(y, x) - y0) +
                            6.0 * (double(std::fabs(dr.at<std::uint16_t>(y / 2, x / 2) / 65535.0f -
                                                    dr0)) +
                                   double(std::fabs(db.at<std::uint16_t>(y / 2, x / 2) / 65535.0f -
                                                    db0)));
                        double const q = std::min(1.0, num / (w + 0.1));
                        double const g = w * (1 - q * q * (3 - 2 * q));
                        std::uint8_t &m = mask.at<std::uint8_t>(y, x);
                        m = std::uint8_t(int(v * g + m * (1.0 - g)));
                    }
            });
        },
        bytes);
    return 0;
}();

}  // namespace
