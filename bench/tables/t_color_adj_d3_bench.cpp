// The colour table over (Y, Dr, Db) on the 24-megapixel photograph's half-size planes:
// proc beside a plain scalar trilinear loop of the same formula on the same inputs, and the
// recomputation of the table.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <sstream>

#include <opencv2/imgproc.hpp>

#include "bench/support/bench.h"
#include "kestrix1/tables/t_color_adj_d3.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

struct Adj : TColorAdjD3 {
    Adj() : TColorAdjD3(0.5f, 0.6f, 0.7f, 0.4f, 3.0f, 0.8f) {}
    using TColorAdjD3::computeLUT16U;
    using TColorAdjD3::m_lutDb;
    using TColorAdjD3::m_lutDr;

    // Recomputes with the timing line kept off the benchmark's output.
    void recompute() {
        std::ostringstream sink;
        std::streambuf *const old = std::cout.rdbuf(sink.rdbuf());
        setAmounts(0.3f, -0.2f, 0.2f, 1.0f);
        computeLUT16U();
        std::cout.rdbuf(old);
    }
};

inline double rnd16(double v) {
    return std::clamp(std::nearbyint(v), 0.0, 65535.0);
}

// The plain loop: per pixel the brightening scale, then sixteen table reads.
void plainProc(Adj const &t, cv::Mat const &y0, cv::Mat const &y1, cv::Mat const &dr,
               cv::Mat const &db, cv::Mat &oDr, cv::Mat &oDb) {
    for (int r = 0; r < y0.rows; ++r)
        for (int c = 0; c < y0.cols; ++c) {
            int const v0 = y0.at<std::uint16_t>(r, c), v1 = y1.at<std::uint16_t>(r, c);
            float const s = std::max(1.0f, (v1 + 655.3f) / (v0 + 655.3f));
            int const cr = int(rnd16((dr.at<std::uint16_t>(r, c) - 32768.0f) * s + 32768.0f));
            int const cb = int(rnd16((db.at<std::uint16_t>(r, c) - 32768.0f) * s + 32768.0f));
            int const i = ((v1 >> 11) * 33 + (cr >> 11)) * 33 + (cb >> 11);
            float const fy = (v1 & 2047) / 2048.0f, fr = (cr & 2047) / 2048.0f,
                        fb = (cb & 2047) / 2048.0f;
            for (int ch = 0; ch < 2; ++ch) {
                std::uint16_t const *T = (ch == 0 ? t.m_lutDr : t.m_lutDb) + i;
                float const lo =
                    (1 - fr) * (T[0] * (1 - fb) + T[1] * fb) + (T[33] * (1 - fb) + T[34] * fb) * fr;
                float const hi = (1 - fr) * (T[1089] * (1 - fb) + T[1090] * fb) +
                                 (T[1122] * (1 - fb) + T[1123] * fb) * fr;
                (ch == 0 ? oDr : oDb).at<std::uint16_t>(r, c) =
                    std::uint16_t(rnd16((1 - fy) * lo + hi * fy));
            }
        }
}

int const registered = [] {
    cv::Mat const dr = inputs().dr16, db = inputs().db16;
    cv::Mat y0, y1;
    cv::resize(inputs().y16, y0, dr.size(), 0, 0, cv::INTER_AREA);
    y0.convertTo(y1, CV_16U, 1.15, 800.0);  // the brightened second Y
    std::int64_t const bytes = std::int64_t(dr.total()) * 2 * 6;

    add(
        "ColorAdjProc", "kestrix1",
        [=] {
            auto t = std::make_shared<Adj>();
            t->recompute();
            cv::Mat oDr(dr.size(), CV_16UC1), oDb(dr.size(), CV_16UC1);
            return Op([=]() mutable { t->proc(y0, y1, dr, db, oDr, oDb); });
        },
        bytes);
    add(
        "ColorAdjProc", "scalar",
        [=] {
            auto t = std::make_shared<Adj>();
            t->recompute();
            cv::Mat oDr(dr.size(), CV_16UC1), oDb(dr.size(), CV_16UC1);
            return Op([=]() mutable { plainProc(*t, y0, y1, dr, db, oDr, oDb); });
        },
        bytes);
    add(
        "ColorAdjComputeLUT", "kestrix1",
        [] {
            auto t = std::make_shared<Adj>();
            return Op([t] { t->recompute(); });
        },
        2 * 35937 * 2);
    return 0;
}();

}  // namespace
