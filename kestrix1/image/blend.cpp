#include "kestrix1/image/blend.h"

#include <cstdint>

#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/kernels/parallel.h"

namespace {

// The mode's candidate for the pixel: the top one, or the darker or lighter of the two.
template <int Mode, class T>
inline float candidate(T b, T t) {
    if (Mode == 1) return float(b < t ? b : t);
    if (Mode == 2) return float(b > t ? b : t);
    return float(t);
}

// Float to the plane's type: truncation towards zero for the integer types, through int so
// that a value out of range wraps instead of being undefined.
template <class T>
inline T stored(float v) {
    return static_cast<T>(static_cast<int>(v));
}
template <>
inline float stored<float>(float v) {
    return v;
}

// One row of one of the eighteen cases (three types, three modes, mask or not).
template <class T, int Mode>
void blendRow(T const *b, T const *t, std::uint8_t const *m, T *o, int n, float opacity,
              float perLevel) {
    if (m) {
        for (int i = 0; i < n; ++i) {
            float const a = float(m[i]) * perLevel;
            o[i] = stored<T>(candidate<Mode>(b[i], t[i]) * a + float(b[i]) * (1.0f - a));
        }
    } else {
        float const rest = 1.0f - opacity;
        for (int i = 0; i < n; ++i)
            o[i] = stored<T>(candidate<Mode>(b[i], t[i]) * opacity + float(b[i]) * rest);
    }
}

template <class T, int Mode>
void blendPlane(cv::Mat const &in0, cv::Mat const &in1, cv::Mat const &mask, cv::Mat &out,
                float opacity) {
    float const perLevel = float(double(opacity) / 255.0);
    bool const masked = !mask.empty();
    parallelRows(in0.rows, std::int64_t(in0.rows) * in0.cols, [&](int y) {
        blendRow<T, Mode>(in0.ptr<T>(y), in1.ptr<T>(y),
                          masked ? mask.ptr<std::uint8_t>(y) : nullptr, out.ptr<T>(y), in0.cols,
                          opacity, perLevel);
    });
}

template <class T>
void blendType(cv::Mat const &in0, cv::Mat const &in1, cv::Mat const &mask, cv::Mat &out,
               float opacity, int mode) {
    switch (mode) {
        case 0:
            return blendPlane<T, 0>(in0, in1, mask, out, opacity);
        case 1:
            return blendPlane<T, 1>(in0, in1, mask, out, opacity);
        case 2:
            return blendPlane<T, 2>(in0, in1, mask, out, opacity);
        default:
            return;  // an unknown mode writes nothing
    }
}

}  // namespace

void blendAlpha(cv::Mat const &in0, cv::Mat const &in1, cv::Mat const &mask, cv::Mat &out,
                float opacity, int mode) {
    if (in0.empty() || in1.empty()) return;
    kxRequire(in0.type() == in1.type(), kxErrBlendAlphaType);
    kxRequire(in0.size() == in1.size(), "ERROR - blendAlpha - in0.size() !=in1.size()");
    int const type = in0.type();
    kxRequire(type == CV_8UC1 || type == CV_16UC1 || type == CV_32FC1,
              "ERROR - blendAlpha - in0 type");
    kxRequire(mask.empty() || (mask.type() == CV_8UC1 && mask.size() == in0.size()),
              "ERROR - blendAlpha - mask must be empty or CV_8UC1 of in0's size");

    out.create(in0.size(), type);
    if (type == CV_8UC1)
        blendType<std::uint8_t>(in0, in1, mask, out, opacity, mode);
    else if (type == CV_16UC1)
        blendType<std::uint16_t>(in0, in1, mask, out, opacity, mode);
    else
        blendType<float>(in0, in1, mask, out, opacity, mode);
}

void blendC(unsigned char const *in, int inStep, unsigned char *out, int outStep, int width,
            int height, float factor) {
    if (width < 1 || height < 1) return;
    parallelRows(height, std::int64_t(width) * height, [&](int y) {
        unsigned char const *s = in + std::ptrdiff_t(y) * inStep;
        unsigned char *d = out + std::ptrdiff_t(y) * outStep;
        for (int x = 0; x < width; ++x)
            d[x] = cv::saturate_cast<unsigned char>(float(s[x]) * factor);
    });
}
