#include "kestrix1/hist/bin_smoothing.h"

#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/kernels/parallel.h"

int kxTruncInt(double v) {
    if (!(v == v)) return 0;
    if (v >= 2147483647.0) return 2147483647;
    if (v <= -2147483648.0) return -2147483647 - 1;
    return int(v);
}

void kxSmoothBins3(int const *h, int *out, int n) {
    out[0] = int((float(h[0]) + float(h[1])) * 0.5f);
    for (int i = 1; i < n - 1; ++i)
        out[i] = int((float(h[i - 1]) + float(h[i + 1])) * 0.25f + float(h[i]) * 0.5f);
    out[n - 1] = int((float(out[n - 2]) + float(h[n - 1])) * 0.5f);
}

void kxGaussianBins(int *bins, int n, float s, int R) {
    double const c = 0.5 / (double(s) * s);
    // Weights summed on one thread, so the sum does not depend on the number of threads.
    std::vector<double> g(std::size_t(R) + 1);
    double sum = 0.0;
    for (int i = 1; i <= R; ++i) {
        g[i] = std::exp(-double(i) * i * c);
        sum += g[i];
    }
    sum = 1.0 + 2.0 * sum;
    for (int i = 1; i <= R; ++i)
        g[i] /= sum;
    std::vector<double> buffer(3 * std::size_t(n));  // mirrored, plain, mirrored
    for (int b = 0; b < n; ++b)
        buffer[n - 1 - b] = buffer[n + b] = buffer[3 * n - 1 - b] = bins[b];
    double const *mid = buffer.data() + n;
    parallelRows(n, std::int64_t(n) * R, [&](int b) {
        double v = mid[b] / sum;
        for (int i = 1; i <= R; ++i)
            v += g[i] * (mid[b - i] + mid[b + i]);
        bins[b] = kxTruncInt(v);
    });
}

int kxClipLevel(float x, float level, float share, float tail) {
    if (x < 0.05f) {
        float const f = 1.0f - x / 0.05f;
        return int((1.0f - f) * share * level + level * f);
    }
    float f = 1.0f - (x - 0.05f) / 0.95f;
    f = f * f * f;
    return int((1.0f - f) * level * 1.5f * tail + f * share * level);
}

void kxCumulateBins(int const *bins, int n, double *C, int closing) {
    C[0] = 0.0;
    for (int b = 0; b < n; ++b)
        C[b + 1] = C[b] + bins[b];
    double const total = C[n];
    for (int i = 0; i <= n; ++i)
        C[i] = total > 0.0 ? C[i] / total : double(i) / n;
    for (int i = n + 1; i <= n + closing; ++i)
        C[i] = C[n];
    double const ramp = 0.001 / n;
    for (int i = 0; i <= n + closing; ++i)
        C[i] += i * ramp;
}
