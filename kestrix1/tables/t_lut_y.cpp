#include "kestrix1/tables/t_lut_y.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "kestrix1/frame/errors.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_geometry.h"
#include "kestrix1/kernels/px_memory.h"
#include "kestrix1/kernels/px_point.h"

namespace {

// TLutY16U was split from TLutYDrDb and speaks with its name; hosts match these texts.
// clang-format off
char const kProcTypes[] = "ERROR - TLutYDrDb::proc - inY16U.type()!=CV_16UC1 || inDr8U.type!=CV_8UC1 || inDb8U.type()!=CV_8UC1";
// clang-format on
char const kProcSizes[] =
    "ERROR - TLutYDrDb::proc inY16U.size != inDr8U.size || inY16U.size!= inDb8U.size";
char const kProcInOutType[] = "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1";
char const kNoYTable[] = "ERROR - TLutYDrDb::applyYLUT - !m_lutY_p";
char const kApplyYType[] =
    "ERROR -  TLutYDrDb::applyYLUT(const Mat &inY, Mat &outY) - inY.type() != CV_16UC1";
char const kNoCTable[] = "ERROR - TLutYDrDb::applyCLUT - m_NC<1 ";
char const kCTypes[] =
    "ERROR -TLutYDrDb::applyCLUT: inDr.type() !=inDb_p.type() || inDr.type() != CV_8UC1";
char const kLutYType[] = "ERROR - TLutY::apply - wrong type";
char const kLutCType[] = "ERROR - TLutC::apply - wrong type";
char const kTableBuffer[] = "ERROR - TLutYDrDb::computeLUT - ippsMalloc_8u";

using u8 = std::uint8_t;
using u16 = std::uint16_t;

constexpr int kEntries = 65536;
constexpr int kYSamples = 4096;  // Y table samples, every 16th code
constexpr int kCSamples = 128;   // chroma samples a side, every other 8-bit code
constexpr int kCSide = 256;

IppiSize sizeOf(cv::Mat const &m) {
    return {m.cols, m.rows};
}

// A resize work buffer for the given regions, freed with the object.
struct ResizeBuffer {
    u8 *p = nullptr;
    ResizeBuffer(IppiRect src, IppiRect dst, int interpolation) {
        int bytes = 0;
        if (pxResizeBufferSize(src, dst, 1, interpolation, &bytes) == pxStsNoErr)
            p = ippsMalloc_8u(bytes);
        kxRequire(p != nullptr, kTableBuffer);
    }
    ~ResizeBuffer() { pxFree(p); }
    ResizeBuffer(ResizeBuffer const &) = delete;
    ResizeBuffer &operator=(ResizeBuffer const &) = delete;
};

// The Y table: sample(i) gives the mapped Y of Y = 16 i for the 4096 samples, which a linear
// enlargement by 16 with square pixels spreads over the 65536 entries: entry x shows sample
// position u = (x + 0.5) / 16 - 0.5, and positions before the first sample or past the last
// (65520) take its value. The interpolation is written out here, in the float arithmetic and
// rounding of the 16-bit resize kernel, so that the table costs no trip through a thread pool.
template <class Sample>
void buildYTable(u16 *lut, Sample &&sample) {
    std::vector<u16> s(kYSamples);
    // The mapping is the costly part: always share it out.
    parallelRows(kYSamples, [&](int i) { s[std::size_t(i)] = sample(i); });
    for (int x = 0; x < kEntries; ++x) {
        float fx = float((x + 0.5) / 16.0 - 0.5);
        int sx = int(std::floor(fx));
        fx -= float(sx);
        if (sx < 0) {
            sx = 0;
            fx = 0.0f;
        } else if (sx >= kYSamples - 1) {
            sx = kYSamples - 1;
            fx = 0.0f;
        }
        int const next = std::min(sx + 1, kYSamples - 1);
        lut[x] = cv::saturate_cast<u16>(float(s[std::size_t(sx)]) * (1.0f - fx) +
                                        float(s[std::size_t(next)]) * fx);
    }
}

void applyYTable(u16 const *lut, cv::Mat const &inY, cv::Mat &outY) {
    kxRequire(lut != nullptr, kNoYTable);
    kxRequire(inY.type() == CV_16UC1, kApplyYType);
    outY.create(inY.size(), CV_16UC1);
    if (inY.empty()) return;
    pxLutPalette(inY.ptr<u16>(), int(inY.step), outY.ptr<u16>(), int(outY.step), sizeOf(inY), lut,
                 16);
}

// One chroma table at a given Y from a mapping on (Y, dr, db).
struct ChromaBuilder {
    // (Parentheses: braces would pick cv::Mat's initializer-list constructor.)
    cv::Mat smallDr = cv::Mat(kCSamples, kCSamples, CV_8UC1);
    cv::Mat smallDb = cv::Mat(kCSamples, kCSamples, CV_8UC1);
    cv::Mat bigDr = cv::Mat(kCSide, kCSide, CV_8UC1);
    cv::Mat bigDb = cv::Mat(kCSide, kCSide, CV_8UC1);
    IppiRect const src{0, 0, kCSamples, kCSamples};
    IppiRect const dst{0, 0, kCSide, kCSide};
    ResizeBuffer buffer{src, dst, pxInterLinear};

    template <class Map>
    void build(u16 *lut, u16 y, Map &&map) {
        parallelRows(kCSamples, [&](int r) {
            u8 *dr = smallDr.ptr<u8>(r);
            u8 *db = smallDb.ptr<u8>(r);
            for (int c = 0; c < kCSamples; ++c) {
                u16 yy = y;
                u8 a = u8(r << 1), b = u8(c << 1);
                map(yy, a, b);
                dr[c] = a;
                db[c] = b;
            }
        });
        enlarge(smallDr, bigDr);
        enlarge(smallDb, bigDb);
        parallelRows(kCSide, kEntries, [&](int r) {
            u8 const *dr = bigDr.ptr<u8>(r);
            u8 const *db = bigDb.ptr<u8>(r);
            u16 *out = lut + r * kCSide;
            for (int c = 0; c < kCSide; ++c)
                out[c] = u16((dr[c] << 8) | db[c]);
        });
    }

    void enlarge(cv::Mat const &in, cv::Mat &out) {
        pxResize(in.ptr<u8>(), sizeOf(in), int(in.step), src, out.ptr<u8>(), int(out.step), dst,
                 2.0, 2.0, 0.0, 0.0, pxInterLinear, buffer.p);
    }
};

void checkChroma(cv::Mat const &inDr, cv::Mat const &inDb) {
    kxRequire(inDr.type() == inDb.type() && inDr.type() == CV_8UC1 && inDr.size() == inDb.size(),
              kCTypes);
}

// Both chroma planes through one table.
void applyOneTable(u16 const *lut, cv::Mat const &inDr, cv::Mat const &inDb, cv::Mat &outDr,
                   cv::Mat &outDb) {
    outDr.create(inDr.size(), CV_8UC1);
    outDb.create(inDr.size(), CV_8UC1);
    int const w = inDr.cols;
    parallelRows(inDr.rows, std::int64_t(w) * inDr.rows, [&](int y) {
        u8 const *dr = inDr.ptr<u8>(y);
        u8 const *db = inDb.ptr<u8>(y);
        u8 *odr = outDr.ptr<u8>(y);
        u8 *odb = outDb.ptr<u8>(y);
        for (int x = 0; x < w; ++x) {
            u16 const t = lut[(dr[x] << 8) | db[x]];
            odr[x] = u8(t >> 8);
            odb[x] = u8(t & 255);
        }
    });
}

void allocTables(u16 **tables, int slots, int count) {
    for (int k = 0; k < count && k < slots; ++k)
        if (tables[k] == nullptr) tables[k] = pxMalloc_16u(kEntries);
}

}  // namespace

// ---- TLutY16U --------------------------------------------------------------------------------

TLutY16U::TLutY16U() : m_lutY_p(nullptr) {
    setupYLUT();
}

TLutY16U::~TLutY16U() = default;

void TLutY16U::setupYLUT() {
    if (m_lutY_p != nullptr) return;
    m_lutYOwner.reset(pxMalloc_16u(kEntries), pxFree);
    m_lutY_p = m_lutYOwner.get();
}

void TLutY16U::computeLUT16U(bool recompute) {
    if (!recompute || m_lutY_p == nullptr) return;
    buildYTable(m_lutY_p, [this](int i) {
        // Neutral chroma of the 16-bit coding, as the table has always been sampled.
        unsigned short y = u16(16 * i), dr = 32767, db = 32767;
        mapYDrDb(y, dr, db);
        return y;
    });
}

bool TLutY16U::proc(cv::Mat &inOutY16U) {
    if (inOutY16U.empty()) return true;
    kxRequire(inOutY16U.type() == CV_16UC1, kProcInOutType);
    computeLUT16U(true);
    applyYLUT(inOutY16U, inOutY16U);
    return true;
}

void TLutY16U::applyYLUT(cv::Mat const &inY, cv::Mat &outY) {
    applyYTable(m_lutY_p, inY, outY);
}

// ---- TLutYDrDb -------------------------------------------------------------------------------

TLutYDrDb::TLutYDrDb(int nc) : m_lutY_p(pxMalloc_16u(kEntries)), m_NC(-1), m_ceilNC(5) {
    for (auto &p : m_lutC_p)
        p = nullptr;
    setupCLUT(nc);
}

TLutYDrDb::~TLutYDrDb() {
    pxFree(m_lutY_p);
    for (auto *p : m_lutC_p)
        pxFree(p);
}

int TLutYDrDb::setupCLUT(int nc) {
    m_NC = std::min({nc, 5, m_ceilNC});
    int const n = numCLUT();
    allocTables(m_lutC_p, 32, n);
    bool released = false;
    for (int k = n; k < 32; ++k) {
        if (m_lutC_p[k] == nullptr) continue;
        pxFree(m_lutC_p[k]);
        m_lutC_p[k] = nullptr;
        released = true;
    }
    // Released tables don't come back: the count a caller lowered stays the ceiling.
    if (released) m_ceilNC = m_NC;
    return n;
}

void TLutYDrDb::computeLUT() {
    if (m_lutY_p != nullptr) {
        buildYTable(m_lutY_p, [this](int i) {
            unsigned short y = u16(16 * i);
            unsigned char dr = 128, db = 128;
            mapYDrDb(y, dr, db);
            return y;
        });
    }
    int const n = numCLUT();
    if (n < 1 || (n >= 2 && m_lutY_p == nullptr)) return;
    auto map = [this](unsigned short &y, unsigned char &dr, unsigned char &db) {
        mapYDrDb(y, dr, db);
    };
    if (n == 1) {
        ChromaBuilder builder;
        builder.build(m_lutC_p[0], 32767, map);  // rows of samples in parallel
        return;
    }
    // Band k is sampled at its centre: bin = round(65535 / n), half = round(32767 / n).
    int const bin = std::min(int(std::lround(65535.0 / n)), 65535);
    int const half = std::min(int(std::lround(32767.0 / n)), 65535);
    // Whole tables per thread: one team for all of them rather than three per table. Each
    // table comes out as it would alone, since the loops inside run on the calling thread.
    parallelBands(n, std::int64_t(n) * kCSamples * kCSamples, [&](int k0, int k1) {
        ChromaBuilder builder;
        for (int k = k0; k < k1; ++k)
            builder.build(m_lutC_p[k], u16(k * bin + half), map);
    });
}

void TLutYDrDb::applyCLUT(cv::Mat const &inDr, cv::Mat const &inDb, cv::Mat &outDr,
                          cv::Mat &outDb) {
    checkChroma(inDr, inDb);
    kxRequire(numCLUT() >= 1, kNoCTable);
    applyOneTable(m_lutC_p[0], inDr, inDb, outDr, outDb);
}

void TLutYDrDb::applyCLUT(cv::Mat const &inY, cv::Mat const &inDr, cv::Mat const &inDb,
                          cv::Mat &outDr, cv::Mat &outDb) {
    checkChroma(inDr, inDb);
    kxRequire(inY.type() == CV_16UC1 && inY.size() == inDr.size(), kCTypes);
    int const n = numCLUT();
    kxRequire(n >= 1, kNoCTable);
    if (n == 1) {
        applyOneTable(m_lutC_p[0], inDr, inDb, outDr, outDb);
        return;
    }
    outDr.create(inDr.size(), CV_8UC1);
    outDb.create(inDr.size(), CV_8UC1);
    int const shift = 16 - m_NC;
    int const width = 1 << shift;
    u16 const *const *tables = m_lutC_p;
    int const w = inDr.cols;
    parallelRows(inDr.rows, std::int64_t(w) * inDr.rows, [&](int y) {
        u16 const *ys = inY.ptr<u16>(y);
        u8 const *dr = inDr.ptr<u8>(y);
        u8 const *db = inDb.ptr<u8>(y);
        u8 *odr = outDr.ptr<u8>(y);
        u8 *odb = outDb.ptr<u8>(y);
        for (int x = 0; x < w; ++x) {
            int const yv = ys[x];
            int lo = yv >> shift;
            int hi = lo + 1;
            if (hi > n - 1) {
                hi = n - 1;
                lo = n - 2;
            }
            // The weight is a whole number (0, 1 or 2), so integer arithmetic gives exactly
            // the truncated products.
            int const wt = ((hi + 1) * width - yv) / width;
            int const e = (dr[x] << 8) | db[x];
            int const a = tables[lo][e];
            int const b = tables[hi][e];
            odr[x] = cv::saturate_cast<u8>((a >> 8) * wt + (b >> 8) * (1 - wt));
            odb[x] = cv::saturate_cast<u8>((a & 255) * wt + (b & 255) * (1 - wt));
        }
    });
}

void TLutYDrDb::applyYLUT(cv::Mat const &inY, cv::Mat &outY) {
    applyYTable(m_lutY_p, inY, outY);
}

bool TLutYDrDb::proc(cv::Mat const &inY16U, cv::Mat const &inDr8U, cv::Mat const &inDb8U,
                     cv::Mat &outY16U, cv::Mat &outDr8U, cv::Mat &outDb8U) {
    if (inY16U.empty()) return true;
    kxRequire(inY16U.type() == CV_16UC1 && inDr8U.type() == CV_8UC1 && inDb8U.type() == CV_8UC1,
              kProcTypes);
    kxRequire(inDr8U.size() == inY16U.size() && inDb8U.size() == inY16U.size(), kProcSizes);
    computeLUT();
    if (numCLUT() >= 1) applyCLUT(inY16U, inDr8U, inDb8U, outDr8U, outDb8U);
    applyYLUT(inY16U, outY16U);
    return true;
}

bool TLutYDrDb::proc(cv::Mat &inOutY16U) {
    if (inOutY16U.empty()) return true;
    kxRequire(inOutY16U.type() == CV_16UC1, kProcInOutType);
    computeLUT();
    applyYLUT(inOutY16U, inOutY16U);
    return true;
}

// ---- TLut2D, TLutY, TLutC --------------------------------------------------------------------

TLut2D::TLut2D(int n) : m_n(std::clamp(n, 0, 16)) {
    for (auto &p : m_lut_p)
        p = nullptr;
    allocTables(m_lut_p, 16, m_n);
}

TLut2D::~TLut2D() {
    for (auto *p : m_lut_p)
        pxFree(p);
}

TLutY::TLutY() : m_lut_p(pxMalloc_16u(kEntries)) {}

TLutY::~TLutY() {
    pxFree(m_lut_p);
}

void TLutY::setLinear() {
    for (int i = 0; i < kEntries; ++i)
        m_lut_p[i] = u16(i);
}

void TLutY::apply(TImage &image) {
    kxRequire(image.m_type == TImage::Y16U, kLutYType);
    if (image.isEmpty()) return;
    auto *p = reinterpret_cast<u16 *>(image.m_data[0]);
    pxLutPalette(p, image.step(), p, image.step(),
                 IppiSize{image.size().width, image.size().height}, m_lut_p, 16);
}

TLutC::TLutC(int n) : m_n(std::clamp(n, 0, 32)) {
    for (auto &p : m_lut_p)
        p = nullptr;
    allocTables(m_lut_p, 32, m_n);
}

TLutC::~TLutC() {
    for (auto *p : m_lut_p)
        pxFree(p);
}

void TLutC::setLinear() {
    for (int k = 0; k < m_n; ++k)
        for (int i = 0; i < kEntries; ++i)
            m_lut_p[k][i] = u16(i);
}

void TLutC::apply(TImage &image) {
    kxRequire(image.m_type == TImage::C8U2 && m_n >= 1, kLutCType);
    if (image.isEmpty()) return;
    cv::Mat dr = image.toMat(0);
    cv::Mat db = image.toMat(1);
    applyOneTable(m_lut_p[0], dr, db, dr, db);
}

void TLutC::apply(TImage const &src, TImage &c) {
    (void)c;
    // The half-size luminance that a fuller mapping would read; nothing is written yet.
    if (src.m_type == TImage::Y16U) (void)src.halfY8U();
}
