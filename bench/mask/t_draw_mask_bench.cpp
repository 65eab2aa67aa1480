// The mask painter on a 24-megapixel working image: the history beside a plain copy of the
// mask, and (below) the brush, the gradients and the refinement beside plain loops or the
// library's own filters.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/filters/guided.h"
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

// ---- gradients and refinement ---------------------------------------------------------------

std::int64_t const kMaskBytes = std::int64_t(6000) * 4000;

// The ramps of the gradients as a plain loop would write them: one thread, one pixel at a
// time, the vectoriser kept off so that the peer stays scalar.
#define KX_SCALAR __attribute__((optimize("no-tree-vectorize"))) __attribute__((noinline))

KX_SCALAR int rampByte(float v) {
    v = std::min(std::max(v, 0.0f), 1.0f);
    return int(std::lround((1.0f - v * (3.0f - 2.0f * v) * v) * 255.0f));
}

KX_SCALAR void scalarGradient(cv::Mat &m, int type, cv::Point p, cv::Point q) {
    float const dx = float(q.x - p.x), dy = float(q.y - p.y);
    float const k = float(p.x - q.x) / (dy + 1e-7f), c = float(p.y) - float(p.x) * k;
    float const D = float(q.x) * k + c - float(q.y) + 0.0001f, L2 = dx * dx + dy * dy;
    float const y0 = float(p.y - q.y);
    float const a0 = std::atan2(y0, dx + 0.0001f) * 180.0f / 3.14159265f + (y0 < 0 ? 360 : 0);
    int const hx = p.x - (p.x + q.x + p.y - q.y) / 2, hy = (q.x - p.x + p.y + q.y) / 2 - p.y;
    float const k1 = float(hx) / (float(hy) + 0.0001f), k2 = float(hy) / (0.0001f - float(hx));
    float const c1 = float(p.y) - float(p.x) * k1, c2 = float(p.y) - float(p.x) * k2;
    float const g1 = std::sqrt(k2 * k2 + 1), g2 = std::sqrt(k1 * k1 + 1);
    float const W = (std::fabs(float(q.x) * k2 - float(q.y) + c2) + 0.0001f) / g1;
    for (int y = 0; y < m.rows; ++y) {
        std::uint8_t *row = m.ptr<std::uint8_t>(y);
        float const fy = float(y);
        for (int x = 0; x < m.cols; ++x) {
            float const fx = float(x);
            float v;
            if (type == 0) {
                v = (fx * k + c - fy) / D;
            } else if (type == 3) {
                v = std::fabs(fx * k + c - fy) / std::fabs(D);
            } else if (type == 1) {
                v = ((fx - float(p.x)) * (fx - float(p.x)) +
                     (fy - float(p.y)) * (fy - float(p.y))) /
                    L2;
            } else if (type == 2) {
                float const up = float(p.y) - fy;
                float a = std::atan2(up, fx - float(p.x) + 0.0001f) * 180.0f / 3.14159265f;
                a += up < 0 ? 360.0f : 0.0f;
                float d = a - a0;
                d += d < 0 ? 360.0f : 0.0f;
                v = 1.0f - d / 360.0f;
            } else {
                v = std::max(std::fabs(k2 * fx + c2 - fy) / g1, std::fabs(k1 * fx + c1 - fy) / g2) /
                    W;
            }
            row[x] = std::uint8_t(rampByte(v));
        }
    }
}

int const gradientsRegistered = [] {
    char const *names[5] = {"linear", "radial", "angular", "mirrored", "corner"};
    for (int type = 0; type < 5; ++type) {
        std::string const name = std::string("DrawMask_gradient_") + names[type];
        add(
            name, "kestrix1",
            [type] {
                auto m = std::make_shared<cv::Mat>(4000, 6000, CV_8UC1, cv::Scalar(0));
                auto d = std::make_shared<TDrawMask>();
                return Op([m, d, type] {
                    cv::Point p(1500, 3100), q(4200, 900);
                    d->drawGradientMask(*m, type, p, q);
                });
            },
            kMaskBytes);
        add(
            name, "scalar",
            [type] {
                auto m = std::make_shared<cv::Mat>(4000, 6000, CV_8UC1, cv::Scalar(0));
                return Op([m, type] { scalarGradient(*m, type, {1500, 3100}, {4200, 900}); });
            },
            kMaskBytes);
    }

    // Refinement of a mask with a hard disc edge: guided path, strength 0.5, radius 8, and a
    // contrast of 0.2 applied after it.
    auto mask = [] {
        cv::Mat m(4000, 6000, CV_8UC1, cv::Scalar(0));
        for (int y = 0; y < m.rows; ++y)
            for (int x = 0; x < m.cols; ++x)
                m.at<std::uint8_t>(y, x) =
                    (x - 3000) * (x - 3000) + (y - 2000) * (y - 2000) < 1500 * 1500 ? 255 : 0;
        return m;
    };
    add(
        "DrawMask_postFilter", "kestrix1",
        [mask] {
            auto src = std::make_shared<cv::Mat>(mask());
            auto dst = std::make_shared<cv::Mat>(src->size(), CV_8UC1);
            auto p = std::make_shared<Painter>();
            p->mask.setMaskContrast(0.2f);
            p->mask.setMaskOffset(0.0f);
            return Op([src, dst, p] { p->mask.postFilter(*src, *dst, 8, 0.5f); });
        },
        2 * kMaskBytes);
    add(
        "DrawMask_postFilter", "guided",
        [mask] {
            auto src = std::make_shared<cv::Mat>(mask());
            auto dst = std::make_shared<cv::Mat>(src->size(), CV_8UC1);
            auto gf = std::make_shared<TGFilter>();
            return Op([src, dst, gf] {
                cv::Mat guide = inputs().y32f;
                filterGuidedByY(*dst, *src, guide, 8, 0.5f / 10.0f, gf.get(), 1);
            });
        },
        2 * kMaskBytes);
    return 0;
}();

}  // namespace
