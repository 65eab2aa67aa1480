// TMR's recipes on the 24-megapixel photograph: a is its Y plane with Dr and Db enlarged to
// full size, b the same three planes mirrored left to right, so that the two images differ
// everywhere. The block recipes (proc3, proc4, proc5) stand beside the same chain run on the
// whole planes without blocks ("whole"), written here with the same float steps: their
// ratio is the price of the blocks. The AFilter recipes (proc, proc1, proc2, proc6), which
// make one or two passes of the filter over the image, run at 24 megapixels and on the
// photograph reduced to 3000 x 2000 (6 megapixels) for quicker runs.
#include <omp.h>

#include <cstdint>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/blocks/tmr.h"
#include "kestrix1/kernels/parallel.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;
using Planes = std::vector<cv::Mat>;

constexpr float kSigmaS = 24.0f;
constexpr float kSigmaR = 0.1f;
constexpr float kIn = 1.52587890625e-05f;

Planes photoPlanes(cv::Size size) {
    Planes a(3);
    cv::resize(inputs().y16, a[0], size, 0, 0, cv::INTER_AREA);
    cv::resize(inputs().dr16, a[1], size, 0, 0, cv::INTER_LINEAR);
    cv::resize(inputs().db16, a[2], size, 0, 0, cv::INTER_LINEAR);
    return a;
}

Planes mirrored(Planes const &a) {
    Planes b(3);
    for (int i = 0; i < 3; ++i)
        cv::flip(a[i], b[i], 1);
    return b;
}

// Three 16-bit planes interleaved into float, v / 65536.
void mergeF(Planes const &p, cv::Mat &dst) {
    dst.create(p[0].size(), CV_32FC3);
    parallelRows(p[0].rows, [&](int y) {
        float *o = dst.ptr<float>(y);
        for (int c = 0; c < 3; ++c) {
            std::uint16_t const *s = p[c].ptr<std::uint16_t>(y);
            for (int x = 0; x < p[0].cols; ++x)
                o[3 * x + c] = float(s[x]) * kIn;
        }
    });
}

// out[c] = sat16(rint((f + (p - q)) 65536)) per channel; p, q may be empty.
void backTo16(cv::Mat const &f, cv::Mat const &p, cv::Mat const &q, Planes &out) {
    out.resize(3);
    for (auto &o : out)
        o.create(f.size(), CV_16U);
    parallelRows(f.rows, [&](int y) {
        float const *F = f.ptr<float>(y);
        float const *P = p.empty() ? nullptr : p.ptr<float>(y);
        float const *Q = q.empty() ? nullptr : q.ptr<float>(y);
        for (int c = 0; c < 3; ++c) {
            std::uint16_t *o = out[c].ptr<std::uint16_t>(y);
            for (int x = 0; x < f.cols; ++x) {
                float const d = P ? P[3 * x + c] - Q[3 * x + c] : 0.0f;
                o[x] = cv::saturate_cast<std::uint16_t>((F[3 * x + c] + d) * 65536.0f);
            }
        }
    });
}

// The whole-plane chains, with their work planes kept from call to call.
struct Whole {
    DTFilter dt;
    cv::Mat x, p, q, f;
    Planes t1, t2, out;

    void proc5(Planes const &a, Planes const &b) {
        dt.setup(kSigmaS, kSigmaR, 3, DTFilter::L1);
        mergeF(a, x);
        mergeF(b, q);
        dt.proc(x, q, x, 0);
        dt.proc(q, f, 0);
        backTo16(x, q, f, out);
    }
    void proc4(Planes const &a, Planes const &b, Planes const &c) {
        dt.setup(kSigmaS, kSigmaR, 3, DTFilter::L2);
        mergeF(a, x);
        mergeF(b, q);
        dt.proc(x, q, x, 0);
        backTo16(x, cv::Mat(), cv::Mat(), out);
        for (int i = 0; i < 3; ++i)
            cv::addWeighted(out[i], 1.0, c[i], 1.0, -32768.0, out[i]);
    }
    void sweep(Planes const &X, Planes const &P, Planes const &Q, Planes &r) {
        mergeF(X, x);
        dt.proc(x, f, 0);
        mergeF(P, p);
        mergeF(Q, q);
        backTo16(f, p, q, r);
    }
    void proc3(Planes const &a, Planes const &b) {
        dt.setup(kSigmaS, kSigmaR, 3, DTFilter::L2);
        sweep(b, a, b, t1);
        sweep(a, a, t1, t2);
        sweep(t2, a, t1, out);
    }
};

void addRecipe(
    std::string const &name,
    std::function<void(TMR &, Planes const &, Planes const &, Planes const &, Planes &)> recipe,
    Planes const &a, Planes const &b) {
    std::int64_t const bytes = std::int64_t(a[0].total()) * 2 * 9;
    add(
        name, "kestrix1",
        [recipe, a, b] {
            auto t = std::make_shared<TMR>();
            t->setup(kSigmaS, kSigmaR);
            auto out = std::make_shared<Planes>();
            return Op([t, out, recipe, a, b] { recipe(*t, a, b, a, *out); });
        },
        bytes);
}

// A recipe of two lists in and one out, as addRecipe takes it.
using TwoListRecipe = bool (TMR::*)(Planes const &, Planes const &, Planes &);
std::function<void(TMR &, Planes const &, Planes const &, Planes const &, Planes &)> plain(
    TwoListRecipe recipe) {
    return [recipe](TMR &t, Planes const &x, Planes const &y, Planes const &, Planes &o) {
        (t.*recipe)(x, y, o);
    };
}

int const registered = [] {
    Planes const a = photoPlanes(inputs().y16.size()), b = mirrored(a);
    addRecipe("TMR_proc3", plain(&TMR::proc3), a, b);
    addRecipe(
        "TMR_proc4",
        [](TMR &t, Planes const &x, Planes const &y, Planes const &c, Planes &o) {
            t.proc4(x, y, c, o);
        },
        a, b);
    addRecipe("TMR_proc5", plain(&TMR::proc5), a, b);
    std::int64_t const bytes = std::int64_t(a[0].total()) * 2 * 9;
    auto whole = [&](char const *name, std::function<void(Whole &)> run) {
        add(
            name, "whole",
            [run] {
                auto w = std::make_shared<Whole>();
                return Op([w, run] { run(*w); });
            },
            bytes);
    };
    whole("TMR_proc3", [a, b](Whole &w) { w.proc3(a, b); });
    whole("TMR_proc4", [a, b](Whole &w) { w.proc4(a, b, a); });
    whole("TMR_proc5", [a, b](Whole &w) { w.proc5(a, b); });

    // The AFilter recipes at 6 and at 24 megapixels: "TMR_proc_6MP", "TMR_proc_24MP", ...
    Planes const s = photoPlanes({3000, 2000}), m = mirrored(s);
    for (bool full : {false, true}) {
        Planes const &x = full ? a : s, &y = full ? b : m;
        std::string const size = full ? "_24MP" : "_6MP";
        std::pair<char const *, TwoListRecipe> const recipes[] = {{"TMR_proc", &TMR::proc},
                                                                  {"TMR_proc1", &TMR::proc1},
                                                                  {"TMR_proc2", &TMR::proc2},
                                                                  {"TMR_proc6", &TMR::proc6}};
        for (auto const &[name, recipe] : recipes)
            addRecipe(name + size, plain(recipe), x, y);
    }

    cv::Mat const y = a[0], yb = b[0];
    add(
        "TMR_procC1", "kestrix1",
        [y, yb] {
            auto t = std::make_shared<TMR>();
            t->setup(kSigmaS, kSigmaR);
            auto work = std::make_shared<cv::Mat>(y.clone());
            return Op([t, work, yb] { t->procC1(*work, yb, nullptr); });
        },
        std::int64_t(y.total()) * 2 * 3);
    add(
        "TMR_procC2", "kestrix1",
        [y, yb] {
            auto t = std::make_shared<TMR>();
            t->setup(kSigmaS, kSigmaR);
            auto work = std::make_shared<cv::Mat>(y.clone());
            return Op([t, work, yb] { t->procC2(*work, yb); });
        },
        std::int64_t(y.total()) * 2 * 3);
    return 0;
}();

}  // namespace
