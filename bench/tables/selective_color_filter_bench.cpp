// Selective colour on the 24-megapixel photograph: the packed table paths beside plain
// scalar loops of the same formulas, the block smoothing beside the same filter run on the
// whole plane at once, and the working-space paths on the half-size planes (Y reduced by
// area to the 3000 x 2000 of Dr and Db) beside plain scalar loops.
#include <algorithm>
#include <cmath>
#include <memory>

#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/tables/selective_color_filter.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using Set = SelectiveColorFilter::SelectiveColorParameters;
using u16 = std::uint16_t;

// ---- packed table paths -----------------------------------------------------------------

// Eight Gaussian tables and three sets with an amount in every slot.
struct Tables {
    SelectiveColorFilter f;
    Set s[3];
    SelectiveColorFilter::OverallParameters o{0.05f, -0.1f, 0.02f};
    Tables() {
        float mult[8], centre[8];
        for (int k = 0; k < 8; ++k) {
            mult[k] = -1.0f / 900, centre[k] = 45.0f * k;
            s[0][k] = 0.3f * std::sin(float(k));
            s[1][k] = 0.4f * std::cos(float(k));
            s[2][k] = 0.05f * float(k - 3);
        }
        f.setupLUT16U(8, mult, centre);
    }
};

// The photograph as packed 16-bit hue, lightness, saturation (hue 0..65535).
cv::Mat const &packedHls() {
    static cv::Mat const hls = [] {
        cv::Mat f, out;
        inputs().bgr8.convertTo(f, CV_32F, 1.0 / 255);
        cv::cvtColor(f, f, cv::COLOR_BGR2HLS);
        f.convertTo(out, CV_16U, 1.0, 0.0);
        out.forEach<cv::Vec3w>([&](cv::Vec3w &p, int const *pos) {
            cv::Vec3f const v = f.at<cv::Vec3f>(pos[0], pos[1]);
            p = {u16(v[0] / 360 * 65535), u16(v[1] * 65535), u16(v[2] * 65535)};
        });
        return out;
    }();
    return hls;
}

float clamp1(float k) {
    return std::min(1.0f, std::max(-1.0f, k));
}
u16 tr(float v) {
    return u16(std::min(65535.0f, std::max(0.0f, v)));
}

// The plain loops: per pixel eight table reads per set, then the path's steps.
void plainPacked(Tables const &t, cv::Mat &img, bool hsv) {
    float const add[3] = {t.o.lightness * 65535, t.o.saturation * 65535, t.o.hue * 65535};
    for (int r = 0; r < img.rows; ++r)
        for (int c = 0; c < img.cols; ++c) {
            cv::Vec3w &p = img.at<cv::Vec3w>(r, c);
            float sum[3] = {add[0], add[1], add[2]};
            for (int j = 0; j < 3; ++j) {
                float acc = 0;
                for (int k = 0; k < 8; ++k)
                    acc += t.s[j][k] * float(t.f.lut(k)[p[0]]);
                sum[j] += acc;
            }
            float x = sum[2] / 65535 + p[0] / 65535.0f;
            x = x > 1 ? x - 1 : x < 0 ? x + 1 : x;
            float const A = p[1], B = p[2];
            float const mA = std::min(4 * A / 65535, 1.0f), mB = std::min(4 * B / 65535, 1.0f);
            float const m = mA * mB, k = clamp1(sum[0] * m / 65535), k2 = clamp1(sum[1] / 65535);
            float const L = hsv ? B : A, S = hsv ? A : B;
            u16 const L2 = tr(k > 0 ? L * (1 - k) + 65535 * k : L * (k + 1));
            u16 const S2 = tr(k2 > 0 ? S * (1 - m * k2) + 65535 * m * k2 : S * (k2 + 1));
            p = hsv ? cv::Vec3w(tr(65535 * x), S2, L2) : cv::Vec3w(tr(65535 * x), L2, S2);
        }
}

// ---- block smoothing --------------------------------------------------------------------

// Y reduced to the chroma size, beside Dr and Db: three planes of one size.
std::vector<cv::Mat> const &halfPlanes() {
    static std::vector<cv::Mat> const p = [] {
        cv::Mat y;
        cv::resize(inputs().y16, y, inputs().dr16.size(), 0, 0, cv::INTER_AREA);
        return std::vector<cv::Mat>{y, inputs().dr16, inputs().db16};
    }();
    return p;
}

// compute2's work on the whole plane: the colour guide, then one guided pass per chroma plane.
void wholeGuided(std::vector<cv::Mat> const &in, float const *scale, std::vector<cv::Mat> &out,
                 TGFilter &gf) {
    std::vector<cv::Mat> g(3);
    in[0].convertTo(g[0], CV_32F, 1.0 / 65536);
    for (int i = 1; i < 3; ++i)
        in[i].convertTo(g[i], CV_32F, scale[i] / 65536, (32768 - 32768 * scale[i]) / 65536);
    in[0].copyTo(out[0]);
    for (int i = 1; i < 3; ++i) {
        cv::Mat r;
        gf.setup(g, g[i], 8, 100.0f / 65535);
        gf.proc16U(g, r);
        r.convertTo(out[i], CV_16U, 1 / scale[i], 32768 - 32768 / scale[i]);
    }
}

// compute4's work on the whole plane: scaled planes and guide merged, one recursive pass.
void wholeDT(std::vector<cv::Mat> const &in, float const *scale, std::vector<cv::Mat> &out) {
    std::vector<cv::Mat> f(3), g(3);
    for (int i = 0; i < 3; ++i) {
        in[i].convertTo(f[i], CV_32F, scale[i] / 65536);
        in[i].convertTo(g[i], CV_32F, 1.0 / 65536);
    }
    cv::Mat merged, guide, result;
    cv::merge(f, merged);
    cv::merge(g, guide);
    DTFilter dt;
    dt.setup(16, 3000.0f / 65536, 3, DTFilter::L1);
    dt.proc(merged, guide, result, 0);
    cv::split(result, f);
    for (int i = 0; i < 3; ++i)
        f[i].convertTo(out[i], CV_16U, 65536 / scale[i]);
}

int const registered = [] {
    std::int64_t const packedBytes = std::int64_t(inputs().bgr8.total()) * 6 * 2;
    struct Path {
        char const *name;
        int kind;
    };
    for (Path const p : {Path{"PackedHLS", 0}, Path{"PackedHSV", 1}, Path{"PackedHLSSimple", 2},
                         Path{"PackedHSVSimple", 3}}) {
        add(
            p.name, "kestrix1",
            [kind = p.kind] {
                auto t = std::make_shared<Tables>();
                auto img = std::make_shared<cv::Mat>(packedHls().clone());
                cv::Mat hue;
                cv::extractChannel(*img, hue, 0);
                // Worked in place again and again: the cost hardly depends on the values.
                return Op([=] {
                    if (kind == 0)
                        t->f.procInHLSSpace(*img, hue, hue, t->s[0], t->s[1], t->s[2], t->o);
                    if (kind == 1)
                        t->f.procInHSVSpace(*img, hue, hue, t->s[0], t->s[1], t->s[2], t->o);
                    if (kind == 2) t->f.procInHLSSpaceSimple(*img, t->s[0], t->s[1], t->s[2], t->o);
                    if (kind == 3) t->f.procInHSVSpaceSimple(*img, t->s[0], t->s[1], t->s[2], t->o);
                });
            },
            packedBytes);
        // The scalar loop of procInHLSSpace's formula stands for both HLS forms, and that of
        // procInHSVSpace for both HSV forms: the simple forms do a little more per pixel.
        add(
            p.name, "scalar",
            [hsv = p.kind % 2 == 1] {
                auto t = std::make_shared<Tables>();
                auto img = std::make_shared<cv::Mat>(packedHls().clone());
                return Op([=] { plainPacked(*t, *img, hsv); });
            },
            packedBytes);
    }

    std::int64_t const planeBytes = std::int64_t(halfPlanes()[0].total()) * 2 * 6;
    static float scale[3] = {1.0f, 1.5f, 1.5f};
    add(
        "Compute2", "kestrix1",
        [] {
            auto f = std::make_shared<SelectiveColorFilter>();
            auto in = halfPlanes();
            auto out = std::make_shared<std::vector<cv::Mat>>();
            return Op([=]() mutable { f->compute2(in, scale, *out, 8, 100); });
        },
        planeBytes);
    add(
        "Compute2", "whole",
        [] {
            auto gf = std::make_shared<TGFilter>();
            auto out = std::make_shared<std::vector<cv::Mat>>(3);
            return Op([=] { wholeGuided(halfPlanes(), scale, *out, *gf); });
        },
        planeBytes);
    add(
        "Compute4", "kestrix1",
        [] {
            auto f = std::make_shared<SelectiveColorFilter>();
            auto in = halfPlanes();
            auto out = std::make_shared<std::vector<cv::Mat>>();
            return Op([=]() mutable { f->compute4(in, scale, in, *out, 16, 3000); });
        },
        planeBytes);
    add(
        "Compute4", "whole",
        [] {
            auto out = std::make_shared<std::vector<cv::Mat>>(3);
            return Op([=] { wholeDT(halfPlanes(), scale, *out); });
        },
        planeBytes);
    return 0;
}();

// ---- working-space paths: proc (three sets) and proc2 -------------------------------------
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

int const registeredYDrDb = [] {
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
