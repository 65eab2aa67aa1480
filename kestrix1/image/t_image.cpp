#include "kestrix1/image/t_image.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"

namespace {

char const kSizeNotEqual[] = "ERROR - TImage::copyFrom - size is not equal";
char const kTypeNotMatch[] = "ERROR - TImage::copyFrom - type not match";
char const kSwapWrongType[] = "ERROR -  TImage::swapC4RBCannel() - wrong type";
// clang-format off
char const kYCMSizes[] = "TImage::YCMToRgba16u - imY.size()!=out.size() || TImage::dec2Size(imY.size()) != imC.size()";
// clang-format on
char const kHalfWrongType[] = "ERROR - TImage::halfY8U - wrong type";
char const kInputType[] = "ERROR - TImage - input of the wrong type";
char const kOutputView[] = "ERROR - TImage - output of the wrong type or size";
char const kUpdateSizes[] = "ERROR - TImage::updateCfromYChange - sizes do not match";

using u8 = std::uint8_t;
using u16 = std::uint16_t;

int bytesPerPixel(TImage::IMTYPE type) {
    switch (type) {
        case TImage::Y16U:
            return 2;
        case TImage::RGBA8U:
            return 4;
        case TImage::RGBA16U:
            return 8;
        default:
            return 1;
    }
}

int cvTypeOf(TImage::IMTYPE type) {
    switch (type) {
        case TImage::Y16U:
            return CV_16UC1;
        case TImage::RGBA8U:
            return CV_8UC4;
        case TImage::RGBA16U:
            return CV_16UC4;
        default:
            return CV_8UC1;
    }
}

bool sameSize(TSize const &a, TSize const &b) {
    return a == b || (a.isEmpty() && b.isEmpty());
}

IppiSize ippSize(TSize const &s) {
    return {s.width, s.height};
}

template <class T>
T *rowOf(TImage const &im, int y, int plane = 0) {
    return reinterpret_cast<T *>(im.m_data[plane] + std::int64_t(y) * im.m_step[0]);
}

// Gives an owned output the type and size it needs (keeping its planes when they fit); a
// wrapped output must already have them.
void prepareOutput(TImage &out, TImage::IMTYPE type, TSize const &size) {
    if (out.m_owned) {
        if (out.m_type != type) {
            out.free();
            out.m_type = type;
        }
        out.resize(size);
    }
    kxRequire(out.m_type == type && sameSize(out.size(), size), kOutputView);
}

// rint for |v| < 2^22: adding and taking away 1.5 x 2^23 leaves the integer nearest to v,
// ties to even, in the default rounding mode. Unlike lrintf it vectorises, and the results
// are limited afterwards in integers, which vectorises too.
inline int rintSmall(float v) {
    return int((v + 12582912.0f) - 12582912.0f);
}

inline int clampi(int v, int lo, int hi) {
    return std::min(std::max(v, lo), hi);
}

// Channel reader of packed pixels: 16-bit values as they are, 8-bit ones widened by << 8;
// Swap reads a blue, green, red, alpha pixel as red, green, blue, alpha.
template <class S, bool Swap>
struct Rgba {
    static constexpr int kWiden = sizeof(S) == 1 ? 8 : 0;
    static int r(S const *p) { return int(p[Swap ? 2 : 0]) << kWiden; }
    static int g(S const *p) { return int(p[1]) << kWiden; }
    static int b(S const *p) { return int(p[Swap ? 0 : 2]) << kWiden; }
    static int a(S const *p) { return int(p[3]) << kWiden; }
};

// Never negative: only the top needs limiting.
inline int lumaOf(int r, int g, int b) {
    return std::min(rintSmall(0.299f * float(r) + 0.587f * float(g) + 0.114f * float(b)), 65535);
}

// Y of one row of packed pixels. A plain loop over x that the compiler vectorises.
template <class S, bool Swap>
KX_VECTOR_CLONES void lumaRow(S const *s, u16 *y, int w) {
    using Px = Rgba<S, Swap>;
    for (int x = 0; x < w; ++x)
        y[x] = u16(lumaOf(Px::r(s + 4 * x), Px::g(s + 4 * x), Px::b(s + 4 * x)));
}

// Colour and alpha of `n` whole 2 x 2 blocks from two rows of pixels and their Y.
template <class S, bool Swap>
KX_VECTOR_CLONES void blockRow(S const *__restrict s0, S const *__restrict s1,
                               u16 const *__restrict y0, u16 const *__restrict y1,
                               u8 *__restrict c0, u8 *__restrict c1, u8 *__restrict m, int n) {
    using Px = Rgba<S, Swap>;
    for (int i = 0; i < n; ++i) {
        S const *a = s0 + 8 * i, *b = s1 + 8 * i;
        int const sy = y0[2 * i] + y0[2 * i + 1] + y1[2 * i] + y1[2 * i + 1];
        int const sr = Px::r(a) + Px::r(a + 4) + Px::r(b) + Px::r(b + 4);
        int const sb = Px::b(a) + Px::b(a + 4) + Px::b(b) + Px::b(b + 4);
        int const sa = Px::a(a) + Px::a(a + 4) + Px::a(b) + Px::a(b + 4);
        c0[i] = u8(clampi((sr - sy) / 2048 + 128, 0, 255));
        c1[i] = u8(clampi((sb - sy) / 2048 + 128, 0, 255));
        m[i] = u8(sa >> 10);
    }
}

// YCM of packed pixels, two rows at a time. An odd last row or column is read twice, which
// gives exactly the formulas over the pixels present: doubling the sums of a 1- or 2-pixel
// block and dividing by the 4-pixel divisor is the same division.
template <class S, bool Swap>
void packedToYCM(S const *in, std::int64_t inStep, TSize size, TImage &Y, TImage &C, TImage &M) {
    int const w = size.width, h = size.height;
    TSize const half = TImage::dec2Size(size);
    int const pairs = w / 2;
    parallelRows(half.height, std::int64_t(w) * h, [&](int hy) {
        int const r0 = 2 * hy;
        int const r1 = std::min(r0 + 1, h - 1);
        auto const *s0 =
            reinterpret_cast<S const *>(reinterpret_cast<u8 const *>(in) + r0 * inStep);
        auto const *s1 =
            reinterpret_cast<S const *>(reinterpret_cast<u8 const *>(in) + r1 * inStep);
        u16 *y0 = rowOf<u16>(Y, r0);
        u16 *y1 = rowOf<u16>(Y, r1);
        lumaRow<S, Swap>(s0, y0, w);
        if (r1 != r0) lumaRow<S, Swap>(s1, y1, w);
        u8 *c0 = rowOf<u8>(C, hy, 0);
        u8 *c1 = rowOf<u8>(C, hy, 1);
        u8 *m = rowOf<u8>(M, hy);
        blockRow<S, Swap>(s0, s1, y0, y1, c0, c1, m, pairs);
        if (w & 1) {
            // The last column as a block of itself, read twice.
            S const e0[8] = {s0[4 * (w - 1)],     s0[4 * (w - 1) + 1], s0[4 * (w - 1) + 2],
                             s0[4 * (w - 1) + 3], s0[4 * (w - 1)],     s0[4 * (w - 1) + 1],
                             s0[4 * (w - 1) + 2], s0[4 * (w - 1) + 3]};
            S const e1[8] = {s1[4 * (w - 1)],     s1[4 * (w - 1) + 1], s1[4 * (w - 1) + 2],
                             s1[4 * (w - 1) + 3], s1[4 * (w - 1)],     s1[4 * (w - 1) + 1],
                             s1[4 * (w - 1) + 2], s1[4 * (w - 1) + 3]};
            u16 const ey0[2] = {y0[w - 1], y0[w - 1]};
            u16 const ey1[2] = {y1[w - 1], y1[w - 1]};
            blockRow<S, Swap>(e0, e1, ey0, ey1, c0 + pairs, c1 + pairs, m + pairs, 1);
        }
    });
}

// Checks of the way back from YCM, and the full-size colour and alpha planes it reads:
// both C planes and M enlarged by 2 with cubic interpolation.
void checkYCM(TImage const &Y, TImage const &C, TImage const &M) {
    kxRequire(Y.m_type == TImage::Y16U && C.m_type == TImage::C8U2 && M.m_type == TImage::M8U,
              kInputType);
    TSize const half = TImage::dec2Size(Y.size());
    kxRequire(sameSize(half, C.size()) && sameSize(half, M.size()), kYCMSizes);
}

// Enlargement by 2 with the cubic of Keys (a = -0.75), one full-size row at a time. Output
// 2k shows the half-size position k - 0.25 and output 2k + 1 the position k + 0.25, so only
// two sets of weights occur; in 256ths they are whole numbers, and the enlargement is exact
// integer arithmetic rounded once at the end. Edges are replicated.
constexpr int kNear = 225, kMid = 67, kFar = -27, kEnd = -9;  // distance 0.25, 0.75, 1.25, 1.75

struct CubicRow2X {
    std::vector<int> column;  // vertical sums of one row, two replicated pixels either side

    // Row y of the enlarged plane into dst (w pixels).
    KX_VECTOR_CLONES void operator()(TImage const &src, int plane, int y, u8 *__restrict dst,
                                     int w) {
        int const hh = src.size().height, hw = src.size().width;
        column.resize(std::size_t(hw) + 4);
        int const k = y / 2;
        // Even rows read k-2..k+1, odd rows k-1..k+2.
        int const first = (y & 1) ? k - 1 : k - 2;
        int const wt[4] = {(y & 1) ? kFar : kEnd, (y & 1) ? kNear : kMid, (y & 1) ? kMid : kNear,
                           (y & 1) ? kEnd : kFar};
        u8 const *r[4];
        for (int t = 0; t < 4; ++t)
            r[t] = rowOf<u8>(src, clampi(first + t, 0, hh - 1), plane);
        int *c = column.data() + 2;
        for (int i = 0; i < hw; ++i)
            c[i] = wt[0] * r[0][i] + wt[1] * r[1][i] + wt[2] * r[2][i] + wt[3] * r[3][i];
        c[-2] = c[-1] = c[0];
        c[hw] = c[hw + 1] = c[hw - 1];
        int const pairs = w / 2;
        for (int i = 0; i < pairs; ++i) {
            int const even = kEnd * c[i - 2] + kMid * c[i - 1] + kNear * c[i] + kFar * c[i + 1];
            int const odd = kFar * c[i - 1] + kNear * c[i] + kMid * c[i + 1] + kEnd * c[i + 2];
            dst[2 * i] = u8(clampi((even + 32768) >> 16, 0, 255));
            dst[2 * i + 1] = u8(clampi((odd + 32768) >> 16, 0, 255));
        }
        if (w & 1) {
            int const i = pairs;
            int const even = kEnd * c[i - 2] + kMid * c[i - 1] + kNear * c[i] + kFar * c[i + 1];
            dst[w - 1] = u8(clampi((even + 32768) >> 16, 0, 255));
        }
    }
};

// Writes one packed pixel of 16-bit values as 16-bit, or as 8-bit ((v + 128) >> 8).
template <class D, bool Swap>
inline void storeRgba(D *d, int r, int g, int b, int a) {
    if constexpr (sizeof(D) == 1) {
        r = std::min((r + 128) >> 8, 255);
        g = std::min((g + 128) >> 8, 255);
        b = std::min((b + 128) >> 8, 255);
        a = std::min((a + 128) >> 8, 255);
    }
    d[Swap ? 2 : 0] = D(r);
    d[1] = D(g);
    d[Swap ? 0 : 2] = D(b);
    d[3] = D(a);
}

// One row back from Y and full-size colour and alpha to packed pixels.
template <class D, bool Swap>
KX_VECTOR_CLONES void ycmRow(u16 const *__restrict ys, u8 const *__restrict cr,
                             u8 const *__restrict cb, u8 const *__restrict ms, D *__restrict d,
                             int w) {
    for (int x = 0; x < w; ++x) {
        float const yv = ys[x];
        float const r = float(int(cr[x]) - 128) * 512.0f + yv;
        float const b = float(int(cb[x]) - 128) * 512.0f + yv;
        float const g = (yv - 0.299f * r - 0.114f * b) / 0.587f;
        float const a = float(ms[x]) * 255.997f;
        storeRgba<D, Swap>(d + 4 * x, clampi(rintSmall(r), 0, 65535),
                           clampi(rintSmall(g), 0, 65535), clampi(rintSmall(b), 0, 65535),
                           std::min(rintSmall(a), 65535));
    }
}

template <class D, bool Swap>
void ycmToPacked(TImage const &Y, TImage const &C, TImage const &M, D *out, std::int64_t outStep) {
    TSize const size = Y.size();
    int const w = size.width;
    // C and M are enlarged a row at a time into scratch of each thread, rather than into
    // three full-size planes that would be fresh pages on every call.
    parallelBands(size.height, std::int64_t(w) * size.height, [&](int first, int end) {
        CubicRow2X enlarge;
        std::vector<u8> rows(std::size_t(w) * 3);
        u8 *cr = rows.data(), *cb = cr + w, *ms = cb + w;
        for (int y = first; y < end; ++y) {
            enlarge(C, 0, y, cr, w);
            enlarge(C, 1, y, cb, w);
            enlarge(M, 0, y, ms, w);
            ycmRow<D, Swap>(rowOf<u16>(Y, y), cr, cb, ms,
                            reinterpret_cast<D *>(reinterpret_cast<u8 *>(out) + y * outStep), w);
        }
    });
}

}  // namespace

// ---- life cycle ------------------------------------------------------------------------------

TImage::TImage(IMTYPE type, TSize const &size) {
    init(type);
    resize(size);
}

TImage::TImage(TSize const &size, unsigned char *data, int step, bool swapRB) {
    init(RGBA8U);
    m_owned = 0;
    m_size = size;
    m_data[0] = data;
    m_step[0] = step;
    m_step[1] = 4;
    if (swapRB && !size.isEmpty()) swapC4RBCannel();
}

TImage::TImage(TSize const &size, unsigned short *data, int step, bool swapRB) {
    init(RGBA16U);
    m_owned = 0;
    m_size = size;
    m_data[0] = reinterpret_cast<unsigned char *>(data);
    m_step[0] = step;
    m_step[1] = 8;
    if (swapRB && !size.isEmpty()) swapC4RBCannel();
}

TImage::TImage(TImage const &other) {
    init(other.m_type);
    copyFrom(other);
}

TImage &TImage::operator=(TImage const &other) {
    copyFrom(other);
    return *this;
}

TImage::~TImage() {
    free();
}

void TImage::free() {
    if (!m_owned) return;
    pxFree(m_data[0]);
    pxFree(m_data[1]);
    for (auto &p : m_data)
        p = nullptr;
    m_size = TSize();
    m_update.setChanged();
}

void TImage::init(IMTYPE type) {
    m_type = type;
    m_owned = 1;
    m_size = TSize();
    for (int i = 0; i < 4; ++i) {
        m_data[i] = nullptr;
        m_step[i] = 0;
    }
    m_region = TImRegion();
    m_update = TUpdateRect();
}

void TImage::resize(TSize const &size) {
    if (!m_owned || size == m_size) return;
    free();  // draws the new change stamp
    m_step[1] = bytesPerPixel(m_type);
    if (size.isEmpty()) return;
    int step = 0;
    switch (m_type) {
        case Y16U:
            m_data[0] =
                reinterpret_cast<u8 *>(pxMallocImage_16u(size.width, size.height, 1, &step));
            break;
        case RGBA16U:
            m_data[0] =
                reinterpret_cast<u8 *>(pxMallocImage_16u(size.width, size.height, 4, &step));
            break;
        case RGBA8U:
            m_data[0] = pxMallocImage_8u(size.width, size.height, 4, &step);
            break;
        case C8U2: {
            // Both planes have the same width, so the allocator gives them the same step.
            m_data[0] = pxMallocImage_8u(size.width, size.height, 1, &step);
            int step1 = 0;
            m_data[1] = pxMallocImage_8u(size.width, size.height, 1, &step1);
            break;
        }
        default:
            m_data[0] = pxMallocImage_8u(size.width, size.height, 1, &step);
            break;
    }
    m_step[0] = step;
    m_size = size;
}

void TImage::copyFrom(TImage const &other) {
    if (!m_owned || &other == this) return;
    if (m_type != other.m_type) {
        free();
        m_type = other.m_type;
    }
    resize(other.m_size);
    if (isEmpty() || other.isEmpty()) return;
    IppiSize const sz = ippSize(m_size);
    switch (m_type) {
        case Y16U:
            pxCopy(reinterpret_cast<u16 const *>(other.m_data[0]), other.step(),
                   reinterpret_cast<u16 *>(m_data[0]), step(), sz, 1);
            break;
        case RGBA16U:
            pxCopy(reinterpret_cast<u16 const *>(other.m_data[0]), other.step(),
                   reinterpret_cast<u16 *>(m_data[0]), step(), sz, 4);
            break;
        case RGBA8U:
            pxCopy(other.m_data[0], other.step(), m_data[0], step(), sz, 4);
            break;
        case C8U2:
            pxCopy(other.m_data[1], other.step(), m_data[1], step(), sz, 1);
            [[fallthrough]];
        default:
            pxCopy(other.m_data[0], other.step(), m_data[0], step(), sz, 1);
            break;
    }
}

unsigned char *TImage::dataPtr(int row, int col, int plane) const {
    return m_data[plane] + std::int64_t(row) * m_step[0] + std::int64_t(col) * m_step[1];
}

cv::Mat TImage::toMat(int plane) const {
    if (isEmpty()) return cv::Mat();
    int const p = m_type == C8U2 && plane == 1 ? 1 : 0;
    return cv::Mat(m_size.height, m_size.width, cvTypeOf(m_type), m_data[p],
                   std::size_t(m_step[0]));
}

void TImage::fromMat(cv::Mat const &m, int plane) {
    kxRequire(m.cols == m_size.width && m.rows == m_size.height, kSizeNotEqual);
    if (isEmpty()) return;
    kxRequire(m.type() == cvTypeOf(m_type) && m.dims <= 2, kTypeNotMatch);
    cv::Mat dst = toMat(plane);
    m.copyTo(dst);  // dst is a header over our plane of the right size and type: no realloc
}

void TImage::swapC4RBCannel() {
    kxRequire(m_type == RGBA8U || m_type == RGBA16U, kSwapWrongType);
    if (isEmpty()) return;
    int const w = m_size.width;
    auto swapRows = [&](auto tag) {
        using T = decltype(tag);
        parallelRows(m_size.height, std::int64_t(w) * m_size.height, [&](int y) {
            T *p = rowOf<T>(*this, y);
            for (int x = 0; x < w; ++x)
                std::swap(p[4 * x], p[4 * x + 2]);
        });
    };
    if (m_type == RGBA8U)
        swapRows(u8());
    else
        swapRows(u16());
}

TSize TImage::dec2Size(TSize const &size) {
    return TSize(TPImage::half(size.width), TPImage::half(size.height));
}

cv::Mat TImage::halfY8U() const {
    kxRequire(m_type == Y16U, kHalfWrongType);
    if (isEmpty()) return cv::Mat();
    TSize const half = dec2Size(m_size);
    cv::Mat out(half.height, half.width, CV_8UC1);
    int const w = m_size.width, h = m_size.height;
    // A missing last row or column is read twice: twice the sum of 1 or 2 pixels shifted by
    // 10 is their mean reduced to 8 bits.
    parallelRows(half.height, std::int64_t(w) * h, [&](int hy) {
        u16 const *s0 = rowOf<u16>(*this, 2 * hy);
        u16 const *s1 = rowOf<u16>(*this, std::min(2 * hy + 1, h - 1));
        u8 *d = out.ptr<u8>(hy);
        int const pairs = w / 2;
        for (int hx = 0; hx < pairs; ++hx)
            d[hx] = u8((s0[2 * hx] + s0[2 * hx + 1] + s1[2 * hx] + s1[2 * hx + 1]) >> 10);
        if (w & 1) d[pairs] = u8((2 * (s0[w - 1] + s1[w - 1])) >> 10);
    });
    return out;
}

// ---- conversions -----------------------------------------------------------------------------

void TImage::rgba8uTo16u(TImage const &in, TImage &out) {
    kxRequire(in.m_type == RGBA8U, kInputType);
    prepareOutput(out, RGBA16U, in.m_size);
    if (in.isEmpty()) return;
    int const n = 4 * in.m_size.width;
    parallelRows(in.m_size.height, std::int64_t(n) * in.m_size.height, [&](int y) {
        u8 const *s = rowOf<u8>(in, y);
        u16 *d = rowOf<u16>(out, y);
        for (int i = 0; i < n; ++i)
            d[i] = u16(s[i] << 8);
    });
}

void TImage::rgba16uTo8u(TImage const &in, TImage &out) {
    kxRequire(in.m_type == RGBA16U, kInputType);
    prepareOutput(out, RGBA8U, in.m_size);
    if (in.isEmpty()) return;
    int const n = 4 * in.m_size.width;
    parallelRows(in.m_size.height, std::int64_t(n) * in.m_size.height, [&](int y) {
        u16 const *s = rowOf<u16>(in, y);
        u8 *d = rowOf<u8>(out, y);
        for (int i = 0; i < n; ++i)
            d[i] = u8(std::min((int(s[i]) + 128) >> 8, 255));
    });
}

void TImage::rgba16uToYCM(TImage const &in, TImage &Y, TImage &C, TImage &M) {
    kxRequire(in.m_type == RGBA16U, kInputType);
    TSize const half = dec2Size(in.m_size);
    prepareOutput(Y, Y16U, in.m_size);
    prepareOutput(C, C8U2, half);
    prepareOutput(M, M8U, half);
    if (in.isEmpty()) return;
    packedToYCM<u16, false>(reinterpret_cast<u16 const *>(in.m_data[0]), in.step(), in.m_size, Y, C,
                            M);
}

void TImage::rgba8uToYCM(TImage const &in, TImage &Y, TImage &C, TImage &M) {
    kxRequire(in.m_type == RGBA8U, kInputType);
    TSize const half = dec2Size(in.m_size);
    prepareOutput(Y, Y16U, in.m_size);
    prepareOutput(C, C8U2, half);
    prepareOutput(M, M8U, half);
    if (in.isEmpty()) return;
    // Widening happens as the pixels are read, without a 16-bit copy of the image.
    packedToYCM<u8, false>(in.m_data[0], in.step(), in.m_size, Y, C, M);
}

void TImage::YCMToRgba16u(TImage const &Y, TImage const &C, TImage const &M, TImage &out) {
    checkYCM(Y, C, M);
    kxRequire(sameSize(Y.size(), out.size()), kYCMSizes);
    prepareOutput(out, RGBA16U, Y.size());
    if (Y.isEmpty()) return;
    ycmToPacked<u16, false>(Y, C, M, reinterpret_cast<u16 *>(out.m_data[0]), out.step());
}

void TImage::YCMToRgba8u(TImage const &Y, TImage const &C, TImage const &M, TImage &out) {
    checkYCM(Y, C, M);
    prepareOutput(out, RGBA8U, Y.size());
    if (Y.isEmpty()) return;
    // The reduction to 8 bits happens as the pixels are written.
    ycmToPacked<u8, false>(Y, C, M, out.m_data[0], out.step());
}

void TImage::bgra8uToTImage(unsigned char const *in, int width, int height, int stride, TImage &Y,
                            TImage &C, TImage &M) {
    TSize const size(width, height);
    TSize const half = dec2Size(size);
    prepareOutput(Y, Y16U, size);
    prepareOutput(C, C8U2, half);
    prepareOutput(M, M8U, half);
    if (size.isEmpty()) return;
    // Blue and red change places as the pixels are read; the host's buffer stays as it is.
    packedToYCM<u8, true>(in, stride, size, Y, C, M);
}

void TImage::timageToBgra8u(TImage const &Y, TImage const &C, TImage const &M, unsigned char *out,
                            int stride) {
    checkYCM(Y, C, M);
    if (Y.isEmpty()) return;
    ycmToPacked<u8, true>(Y, C, M, out, stride);
}

void TImage::updateCfromYChange(TImage const &Y0, TImage const &C0, TImage const &Y1, TImage &C1,
                                float eps) {
    kxRequire(Y0.m_type == Y16U && Y1.m_type == Y16U && C0.m_type == C8U2, kInputType);
    TSize const half = dec2Size(Y0.size());
    kxRequire(sameSize(Y0.size(), Y1.size()) && sameSize(half, C0.size()), kUpdateSizes);
    prepareOutput(C1, C8U2, half);
    if (Y0.isEmpty()) return;
    cv::Mat const h0 = Y0.halfY8U();
    cv::Mat const h1 = Y1.halfY8U();
    float const e = eps * 255.0f;
    parallelRows(half.height, std::int64_t(half.width) * half.height, [&](int y) {
        u8 const *a0 = h0.ptr<u8>(y);
        u8 const *a1 = h1.ptr<u8>(y);
        u8 const *cr = rowOf<u8>(C0, y, 0);
        u8 const *cb = rowOf<u8>(C0, y, 1);
        u8 *dr = rowOf<u8>(C1, y, 0);
        u8 *db = rowOf<u8>(C1, y, 1);
        for (int x = 0; x < half.width; ++x) {
            float const y0 = a0[x], y1 = a1[x];
            float const yn = y0 / 255.0f;
            float const r = float(int(cr[x]) - 128) * 0.0078125f + yn;
            float const b = float(int(cb[x]) - 128) * 0.0078125f + yn;
            float const ratio = (y1 + e) / (y0 + e);
            float const r1 = r * ratio;
            float const b1 = b * ratio;
            float const g = (yn - 0.299f * r - 0.114f * b) / 0.587f;
            float const yy = g * 0.587f * ratio + 0.299f * r1 + 0.114f * b1;
            dr[x] = cv::saturate_cast<u8>((r1 - yy) * 128.4f + 128.0f);
            db[x] = cv::saturate_cast<u8>((b1 - yy) * 128.4f + 128.0f);
        }
    });
}

void TImage::RGB2YUV(float r, float g, float b, unsigned char &C1, unsigned char &C2) {
    float const y = 0.299f * r + 0.587f * g + 0.114f * b;
    C1 = cv::saturate_cast<u8>((r - y) * 128.4f + 128.0f);
    C2 = cv::saturate_cast<u8>((b - y) * 128.4f + 128.0f);
}

void TImage::RGB2YUV(float r, float g, float b, unsigned short &Y, unsigned char &C1,
                     unsigned char &C2) {
    RGB2YUV(r, g, b, C1, C2);
    float const y = 0.299f * r + 0.587f * g + 0.114f * b;
    Y = cv::saturate_cast<u16>(y * 65535.4f);
}

void TImage::YUV2RGB(unsigned short Y, unsigned char C1, unsigned char C2, float &r, float &g,
                     float &b) {
    float const y = float(Y) / 65535.0f;
    r = float(int(C1) - 128) * 0.0078125f + y;
    b = float(int(C2) - 128) * 0.0078125f + y;
    g = (y - 0.299f * r - 0.114f * b) / 0.587f;
}
