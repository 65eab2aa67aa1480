// MHist::compute and ColorTransfer::proc on the 24-megapixel photograph as three 16-bit
// planes, beside the same twelve rounds made of plain OpenCV calls: cv::transform for each
// turn, cv::calcHist per channel, and for the transfer a 16-bit table look-up per channel
// (in parallel over rows, as cv::LUT does for 8 bits) and cv::transform back.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "bench/support/bench.h"
#include "kestrix1/hist/color_transfer.h"

namespace {

using kxbench::add;
using kxbench::inputs;
using kxbench::Op;

std::vector<cv::Mat> planes16() {
    cv::Mat wide;
    inputs().bgr8.convertTo(wide, CV_16UC3, 257.0);
    std::vector<cv::Mat> planes;
    cv::split(wide, planes);
    return planes;
}

// Turn r as a matrix for cv::transform on unsigned data centred on 32768, so that
// cv::calcHist (which takes no signed 16-bit data) can count it.
cv::Matx34f turn(float const (*m)[4]) {
    cv::Matx34f t;
    for (int i = 0; i < 3; ++i) {
        float sum = 0;
        for (int k = 0; k < 3; ++k)
            sum += (t(i, k) = m[i][k]);
        t(i, 3) = 32768.0f * (1.0f - sum);
    }
    return t;
}

void countChannels(cv::Mat const &img) {
    int const bins[] = {1024};
    float const range[] = {0.f, 65536.f};
    float const *ranges[] = {range};
    for (int c = 0; c < 3; ++c) {
        cv::Mat hist;
        cv::calcHist(&img, 1, &c, cv::Mat(), hist, 1, bins, ranges);
        benchmark::DoNotOptimize(hist.data);
    }
}

// The OpenCV rounds; with tables, the transfer's look-up and turn back as well.
void openCvRounds(std::vector<cv::Mat> const &planes, std::vector<std::uint16_t> const *tables) {
    cv::Mat merged, img, work, looked;
    cv::merge(planes, merged);
    merged.convertTo(img, CV_16UC3, 0.4640727096341327, 17561.7);
    for (int r = 0; r < 12; ++r) {
        cv::transform(img, work, turn(MHist::gR[r]));
        countChannels(work);
        if (tables == nullptr) continue;
        looked.create(work.size(), CV_16UC3);
        cv::parallel_for_(cv::Range(0, work.rows), [&](cv::Range const &rows) {
            for (int y = rows.start; y < rows.end; ++y) {
                std::uint16_t const *s = work.ptr<std::uint16_t>(y);
                std::uint16_t *d = looked.ptr<std::uint16_t>(y);
                for (int x = 0; x < 3 * work.cols; x += 3)
                    for (int c = 0; c < 3; ++c)
                        d[x + c] = tables[c][s[x + c]];
            }
        });
        cv::transform(looked, img, turn(MHist::gRinv[r]));
    }
    if (tables != nullptr) img.convertTo(merged, CV_16UC3, 2.154834747314453, -37843.0);
}

int const registered = [] {
    std::int64_t const bytes = std::int64_t(inputs().bgr8.total()) * 6;
    add(
        "MHistCompute", "kestrix1",
        [] {
            auto planes = std::make_shared<std::vector<cv::Mat>>(planes16());
            return Op([planes] {
                MHist h;
                h.compute(*planes);
                benchmark::DoNotOptimize(h.Hist.data);
            });
        },
        bytes);
    add(
        "MHistCompute", "opencv",
        [] {
            auto planes = std::make_shared<std::vector<cv::Mat>>(planes16());
            return Op([planes] { openCvRounds(*planes, nullptr); });
        },
        bytes);
    add(
        "ColorTransferProc", "kestrix1",
        [] {
            auto planes = std::make_shared<std::vector<cv::Mat>>(planes16());
            auto t = std::make_shared<ColorTransfer>();
            MHist image, reference;
            image.compute(*planes);
            std::vector<cv::Mat> other(3);
            for (int c = 0; c < 3; ++c)
                other[c] = (*planes)[(c + 1) % 3];
            reference.compute(other);
            t->updateF(reference, image);
            auto out = std::make_shared<std::vector<cv::Mat>>();
            return Op([planes, t, out] { t->proc(*planes, *out); });
        },
        bytes * 2);
    add(
        "ColorTransferProc", "opencv",
        [] {
            auto planes = std::make_shared<std::vector<cv::Mat>>(planes16());
            auto tables = std::make_shared<std::vector<std::vector<std::uint16_t>>>(3);
            for (int c = 0; c < 3; ++c) {
                (*tables)[c].resize(65536);
                for (int v = 0; v < 65536; ++v)
                    (*tables)[c][v] = std::uint16_t(std::min(65535, v + 3 * c));
            }
            return Op([planes, tables] { openCvRounds(*planes, tables->data()); });
        },
        bytes * 2);
    return 0;
}();

}  // namespace
