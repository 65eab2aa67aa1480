// The selective colour filter on the 24-megapixel photograph's half-size planes (Y reduced
// by area to the 3000 x 2000 of Dr and Db).
#include <algorithm>
#include <cmath>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/tables/selective_color_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using Set = SelectiveColorFilter::SelectiveColorParameters;
using u16 = std::uint16_t;

// ---- Working-space paths: proc (three sets) and proc2 ---------------------------------------
// Beside each, "scalar": a plain single-threaded loop of the same formulas with the C
// library's exp (float), pow, atan, sin and cos (double).

struct Sets {
    Set l{{0.4f, 0, -0.3f, 0.2f, 0.5f, -0.2f, 0, 0.3f}};
    Set f{{0.3f, 0, 0.2f, -0.4f, 0.1f, 0.3f, 0, 0}};
    Set s{{0.5f, 0, -0.4f, 0.6f, 0.3f, 0.2f, 0, -0.3f}};
    Set h{{0.1f, 0, -0.05f, 0.08f, -0.1f, 0.06f, 0, 0.04f}};
};

double sat16(double v) {
    return std::clamp(std::nearbyint(v), 0.0, 65535.0);
}

// One pixel of the three- or four-set path (F null for three), in place.
void plainPixel(Sets const &c, int code, int wv, u16 &Y, u16 &Dr, u16 &Db, u16 *F) {
    double const pi = 3.14159265358979323846, w = wv / 65535.0;
    float const deg = float(code / 65535.0 * 360.0), hw = deg - std::ceil(deg / 360) * 360;
    float m[6];
    for (int k = 0; k < 6; ++k) {
        float const ct = 60.0f * k, hi = std::max(hw, ct), lo = std::min(hw, ct),
                    d = std::min(360 - hi + lo, hi - lo);
        m[k] = std::exp(d * d / -1236.0f);
    }
    auto sum = [&](Set const &s, int last) {
        int const slot[6] = {0, 2, 3, 4, 5, last};
        double v = 0;
        for (int k = 0; k < 6; ++k)
            v += double(s[slot[k]]) * m[k];
        return v;
    };
    Y = u16(sat16(65535 * std::pow(Y / 65535.0, std::pow(4.0, -(1.8 * sum(c.l, 7) * w)))));
    if (F != nullptr) {
        double const v = (*F - 32768) / 65535.0;
        double const p = std::pow(std::fabs(v), std::pow(4.0, -(1.8 * sum(c.f, 5) * w)));
        *F = u16(sat16(65535 * (v < 0 ? -p : p) + 32768));
    }
    double const a = Dr - 32768, b = Db - 32768;
    double t = b == 0 ? (a > 0 ? pi / 2 : -pi / 2) : std::atan(a / b);
    t += (b < 0 ? pi : 0) + pi * sum(c.h, 7);
    float const fa = float(a) / 32768, fb = float(b) / 32768;
    float const r = std::sqrt(fa * fa + fb * fb) * 32768;
    double const g = std::exp2(sum(c.s, 7));
    double const d1 = std::clamp(std::trunc(r * std::sin(t) + 32768), 0.0, 65535.0);
    double const b1 = std::clamp(std::trunc(r * std::cos(t) + 32768), 0.0, 65535.0);
    Dr = u16(sat16((d1 - 32768) * g + 32768));
    Db = u16(sat16((b1 - 32768) * g + 32768));
}

// Hue and range of one pixel, as compHueRange makes them.
void plainHueRange(int Y, int Dr, int Db, int &code, int &range) {
    float const y = float(Y), R = y + 2.0f * Dr - 65536.0f, B = y + 2.0f * Db - 65536.0f;
    float const G = (y - 0.299f * R - 0.114f * B) / 0.587f;
    float const mx = std::max(R, std::max(G, B)), rg = mx - std::min(R, std::min(G, B));
    if (std::fabs(double(rg)) < 1e-6) {
        code = range = 0;
        return;
    }
    float h = 0;
    if (R == mx) h = (G - B) * 60.0f / rg;
    if (G == mx) h = (B - R) * 60.0f / rg + 120.0f;
    if (B == mx) h = 240.0f + (R - G) * 60.0f / rg;
    if (h < 0) h += 360.0f;
    code = int(std::min(h / 360.0f * 65535.0f, 65535.0f));
    range = int(std::min(rg, 65535.0f));
}

int const registered = [] {
    cv::Mat const dr = inputs().dr16, db = inputs().db16;
    cv::Mat y, detail;
    cv::resize(inputs().y16, y, dr.size(), 0, 0, cv::INTER_AREA);
    cv::GaussianBlur(y, detail, cv::Size(0, 0), 4.0);
    cv::addWeighted(y, 1.0, detail, -1.0, 32768.0, detail, CV_16U);  // a further plane
    std::vector<cv::Mat> in{y, dr, db, detail}, hr(2);
    SelectiveColorFilter().compHueRange(in, hr);
    cv::Mat const hue = hr[0], range = hr[1];
    std::int64_t const pixels = std::int64_t(y.total());
    Sets const c;

    add(
        "SelectiveColorProc", "kestrix1",
        [=] {
            auto work = std::make_shared<std::vector<cv::Mat>>(3);
            return Op([=] {
                for (int i = 0; i < 3; ++i)
                    kxbench::copyPlane(in[i], (*work)[i]);
                std::vector<cv::Mat> none;
                SelectiveColorFilter().proc(*work, none, hue, range, c.l, c.s, c.h);
            });
        },
        pixels * 2 * 8);
    add(
        "SelectiveColorProc", "scalar",
        [=] {
            auto work = std::make_shared<std::vector<cv::Mat>>(3);
            return Op([=] {
                std::vector<cv::Mat> &o = *work;
                for (int i = 0; i < 3; ++i)
                    kxbench::copyPlane(in[i], o[i]);
                for (int r = 0; r < y.rows; ++r)
                    for (int x = 0; x < y.cols; ++x)
                        plainPixel(c, hue.at<u16>(r, x), range.at<u16>(r, x), o[0].at<u16>(r, x),
                                   o[1].at<u16>(r, x), o[2].at<u16>(r, x), nullptr);
            });
        },
        pixels * 2 * 8);
    add(
        "SelectiveColorProc2", "kestrix1",
        [=] {
            auto out = std::make_shared<std::vector<cv::Mat>>();
            return Op([=] {
                std::vector<cv::Mat> src = in;
                SelectiveColorFilter().proc2(src, *out, c.l, c.f, c.s, c.h);
            });
        },
        pixels * 2 * 8);
    add(
        "SelectiveColorProc2", "scalar",
        [=] {
            auto out = std::make_shared<std::vector<cv::Mat>>(4);
            return Op([=] {
                std::vector<cv::Mat> &o = *out;
                for (int i = 0; i < 4; ++i)
                    kxbench::copyPlane(in[i], o[i]);
                for (int r = 0; r < y.rows; ++r)
                    for (int x = 0; x < y.cols; ++x) {
                        int code, rg;
                        plainHueRange(y.at<u16>(r, x), dr.at<u16>(r, x), db.at<u16>(r, x), code,
                                      rg);
                        plainPixel(c, code, rg, o[0].at<u16>(r, x), o[1].at<u16>(r, x),
                                   o[2].at<u16>(r, x), &o[3].at<u16>(r, x));
                    }
            });
        },
        pixels * 2 * 8);
    return 0;
}();

}  // namespace
