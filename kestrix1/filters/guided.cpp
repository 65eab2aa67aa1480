#include "kestrix1/filters/guided.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "kestrix1/frame/clock.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/timing.h"

namespace {

char const kEmptyY[] = "ERROR - filterGuidedByY - Guide or Input data can not be empty...";
char const kDepthsRGB[] = "ERROR - filterGuidedByRGB - Guide data need to use same data type...";
char const kEstimateY[] = "filterGuidedByY - guided filtering estimate - ";
char const kProcY[] = "filterGuidedByY - guided filtering proc - ";
char const kEstimateRGB[] = "filterGuidedByRGB - guided filtering estimate - ";
char const kProcRGB[] = "filterGuidedByRGB - guided filtering proc - ";

// The float values of 1/255 and 1/65535, the scales of the estimate's inputs.
constexpr float k8UScale = 0.003921569f;
constexpr float k16UScale = 1.5259022e-5f;

// A guide in 0..1: integer guides scaled, a float guide shared, other depths left empty.
cv::Mat guideToFloat(cv::Mat const &g, int depth) {
    cv::Mat f;
    if (depth == CV_8U)
        g.convertTo(f, CV_32F, double(k8UScale));
    else if (depth == CV_16U)
        g.convertTo(f, CV_32F, double(k16UScale));
    else if (depth == CV_32F)
        f = g;
    return f;
}

float targetScale(int depth, float otherwise) {
    return depth == CV_8U ? k8UScale : depth == CV_16U ? k16UScale : otherwise;
}

cv::Rect commonRect(cv::Mat const &a, cv::Mat const &b) {
    return {0, 0, std::min(a.cols, b.cols), std::min(a.rows, b.rows)};
}

// The caller's filter, or one that lives as long as the returned holder.
TGFilter *filterFor(TGFilter *gf, std::unique_ptr<TGFilter> &holder) {
    if (gf != nullptr) return gf;
    holder = std::make_unique<TGFilter>();
    return holder.get();
}

}  // namespace

void filterGuidedByY(cv::Mat &out, cv::Mat &p, cv::Mat &guide, int r, float eps, TGFilter *gf,
                     int n) {
    kxRequire(!guide.empty() && !p.empty(), kEmptyY);
    out.create(p.size(), p.type());
    cv::Rect const rect = commonRect(p, guide);
    cv::Mat g0 = guide(rect), p0 = p(rect), out0 = out(rect);
    cv::Mat g32 = guideToFloat(g0, g0.depth());
    float const s = targetScale(p.depth(), 1.0f);
    cv::Mat t(rect.size(), CV_32F);
    p0.convertTo(t, CV_32F, double(s));
    std::unique_ptr<TGFilter> holder;
    TGFilter *filter = filterFor(gf, holder);
    if (n == 1) {
        long start = kxClockMs();
        filter->setup({g32}, t, r, eps);
        kxPrintTiming(kEstimateY, start);
        g32.release();
        t.release();
        start = kxClockMs();
        filter->proc({g0}, out0);
        kxPrintTiming(kProcY, start);
        return;
    }
    for (int pass = 0; pass < n; ++pass) {
        filter->setup({g32}, t, r, eps);
        filter->proc({g0}, out0);
        out0.convertTo(t, CV_32F, double(s));
    }
}

void filterGuidedByRGB(cv::Mat &out, cv::Mat &p, cv::Mat &guideR, cv::Mat &guideG, cv::Mat &guideB,
                       int r, float eps, TGFilter *gf, int n) {
    kxRequire(guideR.depth() == guideG.depth() && guideR.depth() == guideB.depth(), kDepthsRGB);
    out.create(p.size(), p.type());
    cv::Rect const rect = commonRect(p, guideR);
    kxClockMs();  // read and dropped, as the timing of this call always began
    std::vector<cv::Mat> const g0 = {guideR(rect), guideG(rect), guideB(rect)};
    std::vector<cv::Mat> g32;
    for (cv::Mat const &g : g0)
        g32.push_back(guideToFloat(g, g0[0].depth()));
    cv::Mat p0 = p(rect), out0 = out(rect), t;
    // A float target is scaled by 0 on a single pass: hosts rely on it.
    float const s = targetScale(p.depth(), n == 1 ? 0.0f : 1.0f);
    std::unique_ptr<TGFilter> holder;
    TGFilter *filter = filterFor(gf, holder);
    auto pass = [&](bool releaseInputs) {
        p0.convertTo(t, CV_32F, double(s));
        long start = kxClockMs();
        filter->setup(g32, t, r, eps);
        kxPrintTiming(kEstimateRGB, start);
        if (releaseInputs) {
            g32.clear();
            t.release();
        }
        start = kxClockMs();
        filter->proc(g0, out0);
        kxPrintTiming(kProcRGB, start);
    };
    if (n == 1) {
        pass(true);
        return;
    }
    for (int i = 0; i < n; ++i)
        pass(false);
}
