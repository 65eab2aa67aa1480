// TDetails3: the detail effect. See the header for the model; this file keeps the stages
// apart so that proc() can run only the ones the host marked dirty.
#include "kestrix1/effects/t_details3.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kestrix1/blocks/block_processor.h"
#include "kestrix1/filters/dt_filter.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/t_progress.h"
#include "kestrix1/image/scaling.h"
#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"
#include "kestrix1/kernels/px_dispatch.h"
#include "kestrix1/tables/t_light_adj_lut_d3.h"
#include "kestrix1/tables/t_lut1d.h"

using cv::Mat;

namespace {

using u16 = std::uint16_t;

// ---- band weights ---------------------------------------------------------------------------

// The ramp behind the three bands: 3 j, one more from j = 78 on so that it ends on 256.
// The missing unit at 8..77 and 178..247 (bands summing to 255) is part of the effect's look.
constexpr int ramp(int j) {
    return j <= 77 ? 3 * j : 3 * j + 1;
}
constexpr int shadowAt(int i) {
    return i <= 85 ? ramp(85 - i) : 0;
}
constexpr int middleAt(int i) {
    return i <= 85 ? ramp(i) : (i <= 169 ? 256 : ramp(255 - i));
}
constexpr int highlightAt(int i) {
    return i >= 170 ? ramp(i - 170) : 0;
}

#define KX_W16(F, b)                                                                          \
    F(b + 0), F(b + 1), F(b + 2), F(b + 3), F(b + 4), F(b + 5), F(b + 6), F(b + 7), F(b + 8), \
        F(b + 9), F(b + 10), F(b + 11), F(b + 12), F(b + 13), F(b + 14), F(b + 15)
#define KX_W256(F)                                                                           \
    KX_W16(F, 0), KX_W16(F, 16), KX_W16(F, 32), KX_W16(F, 48), KX_W16(F, 64), KX_W16(F, 80), \
        KX_W16(F, 96), KX_W16(F, 112), KX_W16(F, 128), KX_W16(F, 144), KX_W16(F, 160),       \
        KX_W16(F, 176), KX_W16(F, 192), KX_W16(F, 208), KX_W16(F, 224), KX_W16(F, 240)

// ---- per-level table settings ---------------------------------------------------------------

// Gain ceiling and threshold range per level: finer levels take stronger gains.
constexpr float kLevelKHigh[3] = {5.0f, 4.0f, 3.5f};
constexpr int kLevelThresholdRange[3] = {9830, 8191, 7372};

// A TLut16U whose entries can be copied out, so that the three passes of a level can be
// applied in one sweep over the plane instead of three.
class LevelLut : public TLut16U {
public:
    LevelLut() : TLut16U(0.0f, 6.0f, 8191, 0.35f) {}
    void copyTo(u16 *dst) const { std::memcpy(dst, lut16U(), 65536 * sizeof(u16)); }
};

// ---- row kernels ----------------------------------------------------------------------------

inline u16 clamp16(int v) {
    return u16(std::min(65535, std::max(0, v)));
}

// sum / 256 rounded towards zero: a bias of 255 before the arithmetic shift when negative.
inline int div256TowardsZero(int sum) {
    return (sum + ((sum >> 31) & 255)) >> 8;
}

// One pixel of the band mix. y selects the bands, s, m, h are the three passes.
inline u16 mixPixel(u16 y, int s, int m, int h) {
    int const i = y >> 8;
    int const sum = (s - 32768) * TDetails3::s_shadowWeight[i] +
                    (m - 32768) * TDetails3::s_middleWeight[i] +
                    (h - 32768) * TDetails3::s_highlightWeight[i];
    return clamp16(div256TowardsZero(sum) + 32768);
}

// h may be one of the other planes: each pixel is read before it is written.
void mixRow(u16 const *y, u16 const *s, u16 const *m, u16 *h, int w) {
    for (int x = 0; x < w; ++x)
        h[x] = mixPixel(y[x], s[x], m[x], h[x]);
}

// raw (+ extra - 32768, saturated) through the shadow, middle and base tables, mixed by the
// bands of y. Reads raw and extra before writing dst, so dst may be raw.
void tableMixRow(u16 const *raw, u16 const *extra, u16 const *y, u16 const *tables, u16 *dst,
                 int w) {
    u16 const *ts = tables;
    u16 const *tm = tables + 65536;
    u16 const *th = tables + 2 * 65536;
    for (int x = 0; x < w; ++x) {
        int const r = extra ? clamp16(int(raw[x]) + int(extra[x]) - 32768) : raw[x];
        dst[x] = mixPixel(y[x], ts[r], tm[r], th[r]);
    }
}

KX_VECTOR_CLONES void addExtraRow(u16 const *__restrict raw, u16 const *__restrict extra,
                                  u16 *__restrict dst, int w) {
    for (int x = 0; x < w; ++x)
        dst[x] = clamp16(int(raw[x]) + int(extra[x]) - 32768);
}

// dst = clamp(base + 2 (a + b + c) - 196608); any input may be dst.
KX_VECTOR_CLONES void sumRow(u16 const *base, u16 const *a, u16 const *b, u16 const *c, u16 *dst,
                             int w) {
    for (int x = 0; x < w; ++x)
        dst[x] = clamp16(int(base[x]) + 2 * (int(a[x]) + int(b[x]) + int(c[x])) - 196608);
}

// y = sat16(rint(y + k0 + dr kdr + db kdb)), each step rounded to float in this order.
// Rounding to nearest with ties to even is done by the 1.5 * 2^23 shift, exact for the
// clamped range and free of a rounding-mode instruction so that the loop vectorises.
template <class C>
void chromaMixRow(C const *__restrict dr, C const *__restrict db, u16 *__restrict y, int w,
                  float k0, float kdr, float kdb) {
    float const shift = 12582912.0f;
    for (int x = 0; x < w; ++x) {
        float v = float(y[x]) + k0;
        v = v + float(dr[x]) * kdr;
        v = v + float(db[x]) * kdb;
        v = std::min(65535.0f, std::max(0.0f, v));
        v = (v + shift) - shift;
        y[x] = u16(int(v));
    }
}

template <class C>
void chromaMix(Mat const &dr, Mat const &db, Mat &y, float k0, float kdr, float kdb) {
    int const w = y.cols;
    parallelRows(y.rows, std::int64_t(y.rows) * w, [&](int r) {
        chromaMixRow(dr.ptr<C>(r), db.ptr<C>(r), y.ptr<u16>(r), w, k0, kdr, kdb);
    });
}

// The area of a full-size plane that TPImage::MatRoi copies at zoom 1: from (x, y), width
// and height capped at the plane's end.
Mat zoomOneArea(Mat const &in, cv::Rect_<int> const &roi) {
    int const x1 = std::min(roi.x + roi.width, in.cols);
    int const y1 = std::min(roi.y + roi.height, in.rows);
    return in(cv::Rect(roi.x, roi.y, x1 - roi.x, y1 - roi.y));
}

// The region of a plane as TPImage::MatRoi makes it. Above zoom 1 a 16-bit region is
// resampled into `dst` itself when dst is this object's alone and already of the region's
// shape: hosts pan and zoom previews all the time, and a fresh plane for each would cost more
// to fault in than the resampling does.
void regionOf(Mat const &in, cv::Rect_<int> const &roi, int scale, Mat &dst) {
    bool const reuse = scale > 1 && in.type() == CV_16UC1 && dst.type() == CV_16UC1 &&
                       dst.u != nullptr && dst.u->refcount == 1 && dst.rows == roi.height &&
                       dst.cols == roi.width;
    if (!reuse) {
        dst = TPImage::MatRoi(in, roi.x, roi.y, roi.width, roi.height, scale, false, false);
        return;
    }
    int const x1 = std::min(roi.x + scale * roi.width, in.cols);
    int const y1 = std::min(roi.y + scale * roi.height, in.rows);
    downSizeNX(in(cv::Rect(roi.x, roi.y, x1 - roi.x, y1 - roi.y)), dst, scale, 4);
}

bool sameShape(Mat const &a, Mat const &b) {
    return a.rows == b.rows && a.cols == b.cols;
}

void requireWorkPlane(Mat const &m, Mat const &like, char const *text) {
    kxRequire(m.type() == CV_16UC1 && sameShape(m, like), text);
}

}  // namespace

int const TDetails3::s_shadowWeight[256] = {KX_W256(shadowAt)};
int const TDetails3::s_middleWeight[256] = {KX_W256(middleAt)};
int const TDetails3::s_highlightWeight[256] = {KX_W256(highlightAt)};

#undef KX_W256
#undef KX_W16

// ---- life cycle -----------------------------------------------------------------------------

TDetails3::TDetails3()
    : m_reserved{0, 0},
      detailAmount{},
      detailThreshold{},
      lightParam{},
      colorMix{},
      levelDirty{false, false, false},
      baseDirty(false),
      roi(0, 0, 0, 0),
      roiScale(1),
      roiChanged(false) {}

TDetails3::TDetails3(TDetails3 const &other) {
    *this = other;
}

TDetails3 &TDetails3::operator=(TDetails3 const &other) {
    if (this == &other) return *this;
    std::copy_n(other.m_reserved, 2, m_reserved);
    std::copy_n(&other.detailAmount[0][0], 9, &detailAmount[0][0]);
    std::copy_n(&other.detailThreshold[0][0], 9, &detailThreshold[0][0]);
    std::copy_n(other.lightParam, 6, lightParam);
    std::copy_n(other.colorMix, 3, colorMix);
    std::copy_n(other.levelDirty, 3, levelDirty);
    baseDirty = other.baseDirty;
    srcY = other.srcY;
    for (int n = 0; n < 3; ++n)
        srcDetail[n] = other.srcDetail[n];
    srcDr = other.srcDr;
    srcDb = other.srcDb;
    roi = other.roi;
    roiScale = other.roiScale;
    roiChanged = other.roiChanged;
    roiBase = other.roiBase;
    for (int n = 0; n < 3; ++n)
        roiDetail[n] = other.roiDetail[n];
    roiY = other.roiY;
    return *this;
}

TDetails3::~TDetails3() = default;

// ---- setup ----------------------------------------------------------------------------------

bool TDetails3::setup(Mat const &src, TProgress *) {
    srcY.create(src.size(), src.type());
    for (Mat &d : srcDetail)
        d.create(src.size(), src.type());
    roiChanged = true;
    return true;
}

bool TDetails3::setup(Mat const &y, Mat const &detail0, Mat const &detail1, Mat const &detail2,
                      Mat const &dr, Mat db, TProgress *progress) {
    srcY = y;
    srcDetail[0] = detail0;
    srcDetail[1] = detail1;
    srcDetail[2] = detail2;

    upSize2XGuidedByY(srcY, dr, srcDr, false, 4);
    if (progress && !progress->prog(20, 100)) return false;
    upSize2XGuidedByY(srcY, db, srcDb, false, 4);
    if (progress && !progress->prog(40, 100)) return false;

    // The smoothing radius follows the picture's size, within limits that keep small
    // pictures from smearing and large ones from costing too much.
    float sigma = float(double(srcY.rows + srcY.cols) * 0.00390625);
    sigma = std::min(32.0f, std::max(4.0f, sigma));

    // In place, block by block: the float work planes stay at one block's size.
    std::vector<Mat> planes{srcDr, srcDb};
    BlockProcessor blocks;
    blocks.initialize(planes, planes, 1024, 1024, true, 32, 0, BlockProcessor::EDGE_TAPER_LINEAR);
    DTFilter filter;
    filter.setup(sigma, 4259.71f, 3, DTFilter::L1);

    int rect[4] = {0, 0, srcY.cols, srcY.rows};
    std::vector<Mat> block;
    Mat pair, work;
    std::vector<Mat> back;
    while (blocks.getBlockImage(rect, block)) {
        if (!block.empty()) {
            cv::merge(block, pair);
            pair.convertTo(work, CV_32FC2, 1.0, 0.0);
            filter.proc(work, work, 0);
            work.convertTo(pair, CV_16UC2);
            cv::split(pair, back);
            // The block buffers must keep their pixels' address: copy into them.
            for (std::size_t i = 0; i < block.size() && i < back.size(); ++i)
                back[i].copyTo(block[i]);
        }
        blocks.writeBackBlock();
    }

    levelDirty[0] = levelDirty[1] = levelDirty[2] = true;
    baseDirty = true;
    roiChanged = true;
    return progress ? progress->prog(100, 100) : true;
}

// ---- proc -----------------------------------------------------------------------------------

bool TDetails3::proc(cv::Rect_<int> region, int scale, Mat extra) {
    setRoi(region, scale);
    bool const zoomOne = roiScale == 1;

    if (roiChanged || baseDirty) {
        // At zoom 1 the region is copied into the plane kept from the last call, which
        // spares a fresh allocation; other zooms resample, into that plane where they can.
        if (zoomOne && srcY.type() == CV_16UC1)
            zoomOneArea(srcY, roi).copyTo(roiBase);
        else
            regionOf(srcY, roi, roiScale, roiBase);
        if (std::fabs(colorMix[0]) >= 0.01f || std::fabs(colorMix[1]) >= 0.01f ||
            std::fabs(colorMix[2]) >= 0.01f) {
            Mat &dr = m_roiChroma[0], &db = m_roiChroma[1];
            // modYWithC only reads the chroma, so at zoom 1 a view of the area does.
            bool const view = zoomOne && !srcDr.empty() && !srcDb.empty() &&
                              (srcDr.type() == CV_16UC1 || srcDr.type() == CV_8UC1) &&
                              (srcDb.type() == CV_16UC1 || srcDb.type() == CV_8UC1);
            if (view) {
                dr = zoomOneArea(srcDr, roi);
                db = zoomOneArea(srcDb, roi);
            } else {
                regionOf(srcDr, roi, roiScale, dr);
                regionOf(srcDb, roi, roiScale, db);
            }
            modYWithC(dr, db, colorMix[0], colorMix[1], colorMix[2], roiBase);
            // A view must not keep the source planes alive past them; a resampled region is
            // kept for the next preview.
            if (view) dr = db = Mat();
        }
        TLightAdjLUTd3 light;
        light.setupParams(lightParam[0], lightParam[1], lightParam[2], lightParam[3], lightParam[4],
                          lightParam[5]);
        light.proc(roiBase);
    }

    if (sameShape(extra, roiDetail[0])) levelDirty[0] = true;

    LevelLut lut;
    for (int n = 0; n < 3; ++n) {
        if (!(roiChanged || baseDirty || levelDirty[n])) continue;
        lut.setKRange(0.0f, kLevelKHigh[n], kLevelThresholdRange[n], 0.35f);

        // raw: the bare region; dst: roiDetail[n]. At zoom 1 raw is a view of the source
        // and the copy happens inside the table sweep.
        Mat raw;
        Mat const &src = srcDetail[n];
        if (zoomOne && src.type() == CV_16UC1) {
            raw = zoomOneArea(src, roi);
            roiDetail[n].create(raw.size(), CV_16UC1);
        } else {
            regionOf(src, roi, roiScale, roiDetail[n]);
            raw = roiDetail[n];
        }
        Mat &dst = roiDetail[n];

        Mat add;  // extra, when it is added in the sweep
        if (n == 0 && !extra.empty() && sameShape(extra, dst)) {
            if (extra.type() == CV_16UC1 && dst.type() == CV_16UC1) {
                add = extra;
            } else {
                if (raw.data != dst.data) raw.copyTo(dst);
                cv::addWeighted(dst, 1.0, extra, 1.0, -32768.0, dst, -1);
                raw = dst;
            }
        }

        if (bNeedSHMix(n)) {
            kxRequire(dst.type() == CV_16UC1,
                      "ERROR - TLut1D::apply - src.depth() is not the table's input type");
            requireWorkPlane(roiBase, dst, "ERROR - TDetails3::mixSMH - planes differ");
            if (m_tables.size() != 3 * 65536) m_tables.assign(3 * 65536, 0);
            u16 *tables = m_tables.data();
            float const *a = detailAmount[n];
            float const *t = detailThreshold[n];
            lut.setupLinearThreshold(a[1], t[1], a[0], t[0]);
            lut.copyTo(tables);
            lut.setupLinearThreshold(a[2], t[2], a[0], t[0]);
            lut.copyTo(tables + 65536);
            lut.setupLinearThreshold(a[0], t[0], 0.0f, 0.0f);
            lut.copyTo(tables + 2 * 65536);
            int const w = dst.cols;
            parallelRows(dst.rows, std::int64_t(dst.rows) * w * 8, [&](int r) {
                tableMixRow(raw.ptr<u16>(r), add.empty() ? nullptr : add.ptr<u16>(r),
                            roiBase.ptr<u16>(r), tables, dst.ptr<u16>(r), w);
            });
        } else if (!add.empty()) {
            int const w = dst.cols;
            parallelRows(dst.rows, std::int64_t(dst.rows) * w, [&](int r) {
                addExtraRow(raw.ptr<u16>(r), add.ptr<u16>(r), dst.ptr<u16>(r), w);
            });
        } else if (raw.data != dst.data) {
            raw.copyTo(dst);
        }
    }

    if (roiChanged || baseDirty || levelDirty[0] || levelDirty[1] || levelDirty[2]) {
        for (Mat const &d : roiDetail)
            requireWorkPlane(d, roiBase, "ERROR - TDetails3::addEdges - planes differ");
        roiY.create(roiBase.size(), CV_16UC1);
        int const w = roiBase.cols;
        parallelRows(roiBase.rows, std::int64_t(roiBase.rows) * w, [&](int r) {
            sumRow(roiBase.ptr<u16>(r), roiDetail[0].ptr<u16>(r), roiDetail[1].ptr<u16>(r),
                   roiDetail[2].ptr<u16>(r), roiY.ptr<u16>(r), w);
        });
    }

    roiChanged = false;
    baseDirty = false;
    levelDirty[0] = levelDirty[1] = levelDirty[2] = false;
    return true;
}

Mat &TDetails3::getRoiY() {
    return roiY;
}

// ---- helpers --------------------------------------------------------------------------------

void TDetails3::setRoi(cv::Rect_<int> region, int scale) {
    if (region != roi || scale != roiScale) {
        roiChanged = true;
        roi = region;
        roiScale = scale;
    }
}

bool TDetails3::bNeedSHMix(int level) {
    for (int k = 0; k < 3; ++k)
        if (bNZ(detailAmount[level][k]) || bNZ(detailThreshold[level][k])) return true;
    return false;
}

void TDetails3::mixSMH(Mat const &y, Mat const &s, Mat const &m, Mat &h) {
    requireWorkPlane(h, h, "ERROR - TDetails3::mixSMH - planes differ");
    requireWorkPlane(y, h, "ERROR - TDetails3::mixSMH - planes differ");
    requireWorkPlane(s, h, "ERROR - TDetails3::mixSMH - planes differ");
    requireWorkPlane(m, h, "ERROR - TDetails3::mixSMH - planes differ");
    int const w = h.cols;
    parallelRows(h.rows, std::int64_t(h.rows) * w * 4, [&](int r) {
        mixRow(y.ptr<u16>(r), s.ptr<u16>(r), m.ptr<u16>(r), h.ptr<u16>(r), w);
    });
}

void TDetails3::modYWithC(Mat const &dr, Mat const &db, float a, float b, float c, Mat &y) {
    bool const bytes = dr.type() == CV_8UC1 && db.type() == CV_8UC1;
    bool const words = dr.type() == CV_16UC1 && db.type() == CV_16UC1;
    if (!bytes && !words) kxThrowTrace("TDetails3::modYWithC", 331, "bad dr type");
    requireWorkPlane(y, y, "ERROR - TDetails3::modYWithC - planes differ");
    kxRequire(sameShape(dr, y) && sameShape(db, y), "ERROR - TDetails3::modYWithC - planes differ");

    float const a2 = a * 2.5f;
    float const b2 = b * 2.5f;
    float const c2 = c * 2.5f;
    if (bytes) {
        float const kdr = (a2 - b2) * 256.0f;
        float const kdb = (c2 - b2) * 256.0f;
        float const k0 = ((0.0f - a2 - c2) * 128.0f + b2 * 256.0f) * 256.0f;
        chromaMix<std::uint8_t>(dr, db, y, k0, kdr, kdb);
    } else {
        float const kdr = a2 - b2;
        float const kdb = c2 - b2;
        float const k0 = ((b2 - (a2 - b2)) - c2) * 32768.0f;
        chromaMix<u16>(dr, db, y, k0, kdr, kdb);
    }
}

void TDetails3::addEdges(Mat const &a, Mat const &b, Mat const &c, Mat &dst) {
    requireWorkPlane(dst, dst, "ERROR - TDetails3::addEdges - planes differ");
    requireWorkPlane(a, dst, "ERROR - TDetails3::addEdges - planes differ");
    requireWorkPlane(b, dst, "ERROR - TDetails3::addEdges - planes differ");
    requireWorkPlane(c, dst, "ERROR - TDetails3::addEdges - planes differ");
    int const w = dst.cols;
    parallelRows(dst.rows, std::int64_t(dst.rows) * w, [&](int r) {
        sumRow(dst.ptr<u16>(r), a.ptr<u16>(r), b.ptr<u16>(r), c.ptr<u16>(r), dst.ptr<u16>(r), w);
    });
}

void TDetails3::computeYCurve(int *xs, int *ys, int *count) {
    // The last y is one above the last x on purpose: the curve's user reads it as "to the
    // top of the range, inclusive".
    *count = 3;
    xs[0] = 0;
    xs[1] = 32768;
    xs[2] = 65535;
    ys[0] = 0;
    ys[1] = 32768;
    ys[2] = 65536;
}

bool TDetails3::bNZ(float v) {
    return double(v) >= double(0.01f) || double(v) <= -double(0.01f);
}

bool TDetails3::neq(float a, float b) {
    return 0.01f <= std::fabs(a - b);
}
