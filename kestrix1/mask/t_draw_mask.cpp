// The model of TDrawMask: the image, the command list and its replay, and the history ring.
#include "kestrix1/mask/t_draw_mask.h"

#include <algorithm>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "kestrix1/image/tp_image.h"
#include "kestrix1/kernels/parallel.h"

namespace {

using cv::Mat;

// Limits of the commands' floats: shapes take 0..1, a refinement's radius at most this many
// working pixels.
constexpr int kMaxPostRadius = 512;

float clampf(float v, float lo, float hi) {
    return std::min(hi, std::max(lo, v));
}

// dst = src row by row, rows in parallel; dst takes src's size. Nothing to do when dst is a
// header of src's pixels.
void copyRows(Mat const &src, Mat &dst) {
    if (dst.data == src.data && dst.size() == src.size()) return;
    dst.create(src.size(), CV_8UC1);
    parallelRows(src.rows, std::int64_t(src.total()),
                 [&](int y) { std::memcpy(dst.ptr(y), src.ptr(y), std::size_t(src.cols)); });
}

// src into dst at dst's size, nearest neighbour, rows in parallel.
void scaleNearest(Mat const &src, Mat &dst) {
    parallelRows(dst.rows, std::int64_t(dst.total()), [&](int y) {
        std::uint8_t const *s = src.ptr(int(std::int64_t(y) * src.rows / dst.rows));
        std::uint8_t *d = dst.ptr(y);
        for (int x = 0; x < dst.cols; ++x)
            d[x] = s[std::int64_t(x) * src.cols / dst.cols];
    });
}

}  // namespace

TDrawMask::TDrawMask() = default;
TDrawMask::~TDrawMask() = default;

TDrawMask::TDrawMask(TDrawMask const &other) {
    *this = other;
}

TDrawMask &TDrawMask::operator=(TDrawMask const &other) {
    if (this == &other) return *this;
    m_rendered = other.m_rendered.clone();
    m_committed = other.m_committed.clone();
    m_paint = other.m_paint.clone();
    m_source = other.m_source.clone();
    m_blendValue = other.m_blendValue;
    m_dirty = other.m_dirty;
    m_postActive = other.m_postActive;
    m_renderPending = other.m_renderPending;
    m_applyFlag = other.m_applyFlag;
    m_lastType = other.m_lastType;
    m_paintLive = other.m_paintLive;
    m_mergeMode = other.m_mergeMode;
    m_commands = other.m_commands;
    m_nextIdx = other.m_nextIdx;
    auto copyTable = [](std::unique_ptr<float[]> const &t, int n) {
        std::unique_ptr<float[]> out;
        if (t) {
            out.reset(new float[n]);
            std::copy(t.get(), t.get() + n, out.get());
        }
        return out;
    };
    m_lut = copyTable(other.m_lut, kLutSize);
    m_sin = copyTable(other.m_sin, kSinCosSize);
    m_cos = copyTable(other.m_cos, kSinCosSize);
    m_strokeStarted = other.m_strokeStarted;
    m_lutOuter = other.m_lutOuter;
    m_lutInner = other.m_lutInner;
    m_refPoint = other.m_refPoint;
    m_prevPoint = other.m_prevPoint;
    m_gradStart = other.m_gradStart;
    m_gradEnd = other.m_gradEnd;
    m_contrastLow = other.m_contrastLow;
    m_contrastHigh = other.m_contrastHigh;
    m_histStart = other.m_histStart;
    m_histCur = other.m_histCur;
    m_histEnd = other.m_histEnd;
    m_hist = other.m_hist;
    m_histRowBytes = other.m_histRowBytes;
    m_histHigh = other.m_histHigh;
    m_histLow = other.m_histLow;
    m_inputY = other.m_inputY.clone();
    m_inputR = other.m_inputR.clone();
    m_inputG = other.m_inputG.clone();
    m_inputB = other.m_inputB.clone();
    m_image = other.m_image;
    m_fullW = other.m_fullW;
    m_fullH = other.m_fullH;
    std::copy(other.m_clip, other.m_clip + 6, m_clip);
    std::copy(other.m_area, other.m_area + 4, m_area);
    m_gf = TGFilter();  // work planes only: the copy makes its own
    return *this;
}

// ---- the image ------------------------------------------------------------------------------

void TDrawMask::setInImage(TPImage *image, bool scaleExisting) {
    if (image == nullptr) {
        m_image = nullptr;
        return;
    }
    cv::Size const size(image->width(), image->height());
    Mat committed(size, CV_8UC1);
    bool const keep = scaleExisting && !m_committed.empty();
    if (keep && m_committed.size() != size)
        scaleNearest(m_committed, committed);
    else if (keep)
        copyRows(m_committed, committed);
    else
        resetMask(committed, 255);
    m_committed = committed;
    m_paint.create(size, CV_8UC1);
    resetMask(m_paint, 0);
    copyRows(m_committed, m_rendered);
    m_source.release();
    m_postActive = false;
    m_renderPending = m_paintLive = false;
    m_lastType = TMaskCmd::Nothing;
    m_image = image;
    m_area[0] = 0, m_area[1] = 0, m_area[2] = size.width - 1, m_area[3] = size.height - 1;

    // The colour gate's planes: Y as stored, and R, G, B from Y and the half-size colour
    // differences, all 0..1 in float.
    image->m_Y.convertTo(m_inputY, CV_32F, 1.5259021896696422e-5);
    m_inputR.create(size, CV_32FC1);
    m_inputG.create(size, CV_32FC1);
    m_inputB.create(size, CV_32FC1);
    Mat const &Y = image->m_Y, &Dr = image->m_Dr, &Db = image->m_Db;
    parallelRows(size.height, std::int64_t(size.area()) * 4, [&](int y) {
        std::uint16_t const *py = Y.ptr<std::uint16_t>(y);
        std::uint16_t const *pr = Dr.ptr<std::uint16_t>(y / 2), *pb = Db.ptr<std::uint16_t>(y / 2);
        float *r = m_inputR.ptr<float>(y), *g = m_inputG.ptr<float>(y), *b = m_inputB.ptr<float>(y);
        for (int x = 0; x < size.width; ++x) {
            float const Yv = py[x], R = Yv + 2.0f * pr[x / 2] - 65536.0f,
                        B = Yv + 2.0f * pb[x / 2] - 65536.0f;
            float const G = (Yv - 0.299f * R - 0.114f * B) * 1.7036f;
            r[x] = clampf(R / 65535.0f, 0.0f, 1.0f);
            g[x] = clampf(G / 65535.0f, 0.0f, 1.0f);
            b[x] = clampf(B / 65535.0f, 0.0f, 1.0f);
        }
    });
    m_histRowBytes = size.width;
    recordFirstState();
}

void TDrawMask::setFullSize(int width, int height) {
    m_fullW = width;
    m_fullH = height;
}

int TDrawMask::getFullWidth() const {
    return m_fullW > 0 ? m_fullW : m_committed.cols;
}
int TDrawMask::getFullHeight() const {
    return m_fullH > 0 ? m_fullH : m_committed.rows;
}

cv::Mat TDrawMask::getMaskRoi(cv::Rect_<int> const &rect, int scale) const {
    if (m_rendered.empty() || rect.width < 1 || rect.height < 1) return Mat();
    double const sx = double(m_rendered.cols) / getFullWidth();
    double const sy = double(m_rendered.rows) / getFullHeight();
    cv::Rect const r(int(rect.x * sx), int(rect.y * sy), std::max(1, int(rect.width * sx)),
                     std::max(1, int(rect.height * sy)));
    cv::Rect const inside = r & cv::Rect(0, 0, m_rendered.cols, m_rendered.rows);
    if (inside.empty()) return Mat();
    int const s = std::max(1, scale);
    cv::Size const out(std::max(1, rect.width / s), std::max(1, rect.height / s));
    Mat part;
    cv::resize(m_rendered(inside), part, out, 0, 0, cv::INTER_AREA);
    return part;
}

// ---- queueing ---------------------------------------------------------------------------------

namespace {

template <class... Args>
void queue(std::vector<TMaskCmd> &list, TMaskCmd::DrawType type, Args &&...args) {
    list.emplace_back(type, std::make_unique<TMaskParam>(std::forward<Args>(args)...));
}

}  // namespace

void TDrawMask::cmdSetValue(unsigned char value) {
    TMaskParam p;
    p.value = value;
    queue(m_commands, TMaskCmd::SetValue, p);
}
void TDrawMask::cmdInvert() {
    m_commands.emplace_back(TMaskCmd::Invert);
}
void TDrawMask::cmdSetColorPicker(cv::Point_<int> const &pt) {
    TMaskParam p;
    p.pt1 = pt;
    queue(m_commands, TMaskCmd::ColorPicker, p);
}
void TDrawMask::cmdDrawStart() {
    m_commands.emplace_back(TMaskCmd::DrawStart);
}
void TDrawMask::cmdDrawADot(cv::Point_<int> const &pt, unsigned char value, int radius,
                            int innerRadius, float flow, bool useColorGate, bool useRefPoint) {
    queue(m_commands, TMaskCmd::DrawDot, pt, value, radius, innerRadius, flow, useColorGate,
          useRefPoint);
}
void TDrawMask::cmdDrawADot(TMaskParam const &dot) {
    queue(m_commands, TMaskCmd::DrawDot, dot);
}
void TDrawMask::cmdDrawEnd() {
    m_commands.emplace_back(TMaskCmd::DrawEnd);
}
void TDrawMask::cmdDrawSuperMask(cv::Point_<int> const &pt, float size, float f2, float f3,
                                 float f4, bool flag) {
    queue(m_commands, TMaskCmd::SuperMask, pt, size, f2, f3, f4, flag);
}
void TDrawMask::cmdDrawGradientMask(cv::Point_<int> const &start, cv::Point_<int> const &end,
                                    int type) {
    queue(m_commands, TMaskCmd::GradientMask, start, end, type);
}
void TDrawMask::cmdPostFilter(float radiusFactor, float strength, float offset, float contrast) {
    queue(m_commands, TMaskCmd::PostFilter, radiusFactor, strength, offset, contrast);
}
void TDrawMask::applyButtonClicked(bool apply) {
    m_applyFlag = apply;
    TMaskParam p;
    p.value = apply ? 1 : 0;
    queue(m_commands, TMaskCmd::Apply, p);
}
void TDrawMask::cmdCopyMaskFrom(TDrawMask *source) {
    queue(m_commands, TMaskCmd::CopyMask, source);
}

bool TDrawMask::bNeedUpdate() const {
    return m_nextIdx + 1 < int(m_commands.size());
}

void TDrawMask::emptyCmdStack() {
    m_commands.clear();
    m_nextIdx = -1;
}

// ---- replay -----------------------------------------------------------------------------------

void TDrawMask::render() {
    if (!m_renderPending) return;
    if (m_rendered.data == m_committed.data) m_rendered = Mat(m_committed.size(), CV_8UC1);
    renderMask(m_committed, m_paint, m_rendered, m_blendValue, 0);
    m_renderPending = false;
}

void TDrawMask::commitPaint() {
    if (!m_paintLive) return;
    render();
    copyRows(m_rendered, m_committed);
    resetMask(m_paint, 0);
    m_paintLive = false;
}

void TDrawMask::postRestore() {
    if (!m_postActive) return;
    copyRows(m_source, m_committed);
    m_postActive = false;
}

bool TDrawMask::proc() {
    if (m_committed.empty()) return true;  // no image yet: the commands wait
    if (m_nextIdx == -1) {
        resetMask(m_committed, 255);
        copyRows(m_committed, m_rendered);
        resetMask(m_paint, 0);
        m_postActive = false;
    }
    double const toWorkX = double(m_committed.cols) / getFullWidth();
    double const toWorkY = double(m_committed.rows) / getFullHeight();
    while (m_nextIdx + 1 < int(m_commands.size())) {
        TMaskCmd const &cmd = m_commands[std::size_t(++m_nextIdx)];
        TMaskParam *const p = cmd.param.get();
        bool const again = cmd.type == m_lastType;
        switch (cmd.type) {
            case TMaskCmd::SetValue:  // the blend value decides, not the command's own
                resetMask(m_paint, 0);
                m_renderPending = m_paintLive = false;
                resetMask(m_committed, static_cast<unsigned char>(255 - m_blendValue));
                copyRows(m_committed, m_rendered);
                m_dirty = true;
                break;
            case TMaskCmd::Invert:
                commitPaint();
                postRestore();
                invertMask(m_committed);
                copyRows(m_committed, m_rendered);
                m_dirty = true;
                m_renderPending = false;
                break;
            case TMaskCmd::ColorPicker:
                m_refPoint = p->pt1;
                break;
            case TMaskCmd::DrawStart:
                commitPaint();
                m_strokeStarted = 1;
                postRestore();
                copyRows(m_committed, m_rendered);
                resetMask(m_paint, 0);
                break;
            case TMaskCmd::DrawDot:
                drawStrokeDot(p->useColorGate, p);
                m_prevPoint = p->pt1;
                m_strokeStarted = 0;
                m_renderPending = m_paintLive = true;
                m_dirty = true;
                break;
            case TMaskCmd::SuperMask: {
                // A new shape takes the mask under it as its base; a shape right after a shape
                // (a slider being dragged) is drawn again over the same base.
                if (!again) {
                    postRestore();
                    commitPaint();
                    copyRows(m_committed, m_source);
                }
                render();
                float const f[4] = {clampf(p->f1, 0, 1), clampf(p->f2, 0, 1), clampf(p->f3, 0, 1),
                                    clampf(p->f4, 0, 1)};
                cv::Point_<int> at = p->pt1;
                resetMask(m_paint, 0);
                drawSuperMask(m_paint, at, f[0], f[1], f[2], f[3]);
                if (m_source.size() != m_paint.size()) copyRows(m_committed, m_source);
                renderMask(m_source, m_paint, m_committed, m_blendValue, 0);
                copyRows(m_committed, m_rendered);
                resetMask(m_paint, 0);
                m_dirty = true;
                break;
            }
            case TMaskCmd::GradientMask: {
                if (!again) commitPaint();  // a new gradient; one right after redraws the last
                postRestore();
                copyRows(m_committed, m_rendered);
                cv::Point_<int> a(int(p->pt1.x * toWorkX), int(p->pt1.y * toWorkY));
                cv::Point_<int> b(int(p->pt2.x * toWorkX), int(p->pt2.y * toWorkY));
                cv::Point_<int> aIn(std::clamp(a.x, 0, m_paint.cols - 1),
                                    std::clamp(a.y, 0, m_paint.rows - 1));
                cv::Point_<int> bIn(std::clamp(b.x, 0, m_paint.cols - 1),
                                    std::clamp(b.y, 0, m_paint.rows - 1));
                setPointInsideMat(m_gradStart, a, m_paint, aIn);
                setPointInsideMat(m_gradEnd, b, m_paint, bIn);
                drawGradientMask(m_paint, p->gradientType, m_gradStart, m_gradEnd);
                m_renderPending = m_paintLive = true;
                m_dirty = true;
                break;
            }
            case TMaskCmd::PostFilter: {
                float const factor = clampf(p->post[0], 0, float(kMaxPostRadius));
                float const strength = clampf(p->post[1], 0, 1);
                render();
                if (!m_postActive) {  // the unrefined mask goes aside: every trial starts from it
                    commitPaint();
                    copyRows(m_committed, m_source);
                    m_postActive = true;
                }
                int const radius = std::min(kMaxPostRadius, int(factor * toWorkX));
                setMaskContrast(p->post[3]);
                setMaskOffset(p->post[2]);
                postFilter(m_source, m_committed, radius, strength);
                copyRows(m_committed, m_rendered);
                m_dirty = true;
                break;
            }
            case TMaskCmd::Apply:
                if (p->value == 0) {  // keep the refinement
                    m_postActive = false;
                    m_dirty = true;
                } else if (m_postActive) {  // drop it
                    postRestore();
                    copyRows(m_committed, m_rendered);
                    m_dirty = true;
                }
                break;
            case TMaskCmd::CopyMask:
                if (p->maskSource != nullptr) {
                    resetMask(m_paint, 0);
                    m_renderPending = m_paintLive = false;
                    m_postActive = false;
                    copyFrom(*p->maskSource);
                }
                m_dirty = true;
                break;
            default:  // stroke end and type 8: nothing to draw
                break;
        }
        m_lastType = cmd.type;
    }
    render();
    return true;
}

void TDrawMask::copyFrom(TDrawMask const &source) {
    Mat const &from = source.m_committed;
    if (from.empty() || m_committed.empty()) return;
    if (from.size() == m_committed.size())
        copyRows(from, m_committed);
    else
        scaleNearest(from, m_committed);
    copyRows(m_committed, m_rendered);
}

// ---- history ------------------------------------------------------------------------------

int TDrawMask::histStatus() const {
    if (m_histStart < 0) return 0;
    return (m_histCur != m_histStart ? 1 : 0) | (m_histCur != m_histEnd ? 2 : 0);
}

void TDrawMask::clearMaskHist() {
    m_histStart = m_histCur = m_histEnd = -1;
}

void TDrawMask::clearRedos() {
    m_histEnd = std::max(m_histCur, 0);
}

void TDrawMask::copyInHist(cv::Mat const &plane) {
    std::vector<unsigned char> &slot = m_hist[std::size_t(m_histCur)];
    m_histRowBytes = plane.cols;
    slot.resize(std::size_t(plane.cols) * std::size_t(plane.rows));
    parallelRows(plane.rows, std::int64_t(plane.total()), [&](int y) {
        std::memcpy(slot.data() + std::size_t(y) * std::size_t(m_histRowBytes), plane.ptr(y),
                    std::size_t(plane.cols));
    });
}

void TDrawMask::copyOutHist(cv::Mat &plane) {
    std::vector<unsigned char> const &slot = m_hist[std::size_t(m_histCur)];
    if (slot.size() != std::size_t(plane.cols) * std::size_t(plane.rows)) return;  // another size
    parallelRows(plane.rows, std::int64_t(plane.total()), [&](int y) {
        std::memcpy(plane.ptr(y), slot.data() + std::size_t(y) * std::size_t(m_histRowBytes),
                    std::size_t(plane.cols));
    });
}

void TDrawMask::addHist(cv::Mat const &plane) {
    m_histCur = incHistIdx(m_histCur);
    if (m_histCur == m_histStart) m_histStart = incHistIdx(m_histStart);
    m_histEnd = m_histCur;
    copyInHist(plane);
}

bool TDrawMask::undoMask(cv::Mat &plane) {
    if (!(histStatus() & 1)) return false;
    m_histCur = decHistIdx(m_histCur);
    copyOutHist(plane);
    return true;
}

bool TDrawMask::redoMask(cv::Mat &plane) {
    if (!(histStatus() & 2)) return false;
    m_histCur = incHistIdx(m_histCur);
    copyOutHist(plane);
    return true;
}

void TDrawMask::recordFirstState() {
    clearMaskHist();
    if (m_committed.empty()) return;
    m_histCur = m_histStart = m_histEnd = 0;
    copyInHist(m_committed);
}

void TDrawMask::snapshot() {
    if (m_committed.empty()) return;
    commitPaint();
    addHist(m_postActive ? m_source : m_committed);
}

void TDrawMask::restoreState() {
    std::vector<unsigned char> const &slot = m_hist[std::size_t(m_histCur)];
    Mat &c = m_committed;
    if (slot.size() != std::size_t(c.cols) * std::size_t(c.rows)) return;  // another size
    copyOutHist(c);
    m_rendered = c;  // nothing is painted over it: the rendered mask is the committed one
    if (m_paintLive) resetMask(m_paint, 0);
    m_renderPending = m_paintLive = m_postActive = false;
}

void TDrawMask::undo() {
    m_dirty = !m_committed.empty() && (histStatus() & 1);
    if (!m_dirty) return;
    m_histCur = decHistIdx(m_histCur);
    restoreState();
}

void TDrawMask::redo() {
    m_dirty = !m_committed.empty() && (histStatus() & 2);
    if (!m_dirty) return;
    m_histCur = incHistIdx(m_histCur);
    restoreState();
}

void TDrawMask::reset() {
    if (!m_paint.empty()) resetMask(m_paint, 0);
    m_paintLive = false;
    m_dirty = true;
    m_renderPending = true;
    m_postActive = false;
    emptyCmdStack();
    if (!m_committed.empty()) copyRows(m_committed, m_rendered);
    recordFirstState();
}

void TDrawMask::copyMaskFrom(TDrawMask *source) {
    if (source == nullptr) return;
    if (!m_paint.empty()) resetMask(m_paint, 0);
    m_paintLive = false;
    copyFrom(*source);
    m_dirty = true;
    m_postActive = false;
    m_renderPending = false;
}
