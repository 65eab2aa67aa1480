// The mask painter on a 24-megapixel mask: what a host runs while the user drags a gradient
// or moves a refinement slider.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

#include <opencv2/core.hpp>

#include "bench/support/bench.h"
#include "kestrix1/filters/guided.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/mask/t_draw_mask.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

// ---- gradients and refinement

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

// A working image made from the standard inputs, attached once per process.
TDrawMask &attached() {
    static TPImage image = [] {
        TPImage im;
        im.create(6000, 4000, false);
        inputs().y16.copyTo(im.m_Y);
        inputs().dr16.copyTo(im.m_Dr);
        inputs().db16.copyTo(im.m_Db);
        return im;
    }();
    static TDrawMask painter = [] {
        TDrawMask d;
        d.setInImage(&image, false);
        return d;
    }();
    return painter;
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
            TDrawMask *d = &attached();
            d->setMaskContrast(0.2f);
            d->setMaskOffset(0.0f);
            return Op([src, dst, d] { d->postFilter(*src, *dst, 8, 0.5f); });
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
