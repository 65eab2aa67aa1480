// TDrawMask: an 8-bit mask painted over a photograph, to limit where an effect applies.
//
// A host queues commands (brush dots gated by colour, gradients, soft colour-gated discs,
// inversion, fills, copies, edge-aware refinement) and proc replays those not yet run. Four
// planes at the working image's size hold the work:
// - committed: the mask as committed so far; undo, redo and copies work on it;
// - paint: the coverage of the current stroke, gradient or shape (maskMat() returns it);
// - rendered: the committed mask with the paint composited over it, what a host shows;
// - source: the unrefined mask while a refinement is on trial, or the base under a shape.
// A ring of eight raw copies of the committed mask gives undo and redo. Copies of the object
// are deep.
//
// How strokes reach the committed mask (our choice, where the painter's parts leave it open):
// dots and gradients lay coverage into the paint mask and mark a render pending; "render"
// composites paint over committed into the rendered mask with the blend value; and the
// paint is committed (committed = rendered, paint cleared) whenever something else is about
// to work on the committed mask: the start of the next stroke, a new gradient, a fill, an
// inversion, a shape, a refinement, a copy, and snapshot. A gradient (or shape) queued
// right after another replaces it, as when a host re-queues one while the user drags.
// proc renders before it returns, so the rendered mask always shows what was queued.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "kestrix1/filters/tg_filter.h"
#include "kestrix1/frame/export.h"
#include "kestrix1/mask/t_mask_cmd.h"

class TPImage;

class KESTRIX1_EXPORT TDrawMask {
public:
    static constexpr int kLutSize = 8000;    // brush table entries: radii below this
    static constexpr int kSinCosSize = 3600;  // tenths of a degree
    static constexpr int kHistSlots = 8;      // states kept for undo and redo

    TDrawMask();
    // Deep copies: masks, commands, tables and history are the copy's own. The image
    // pointer is shared (the host owns the image).
    TDrawMask(TDrawMask const &other);
    TDrawMask &operator=(TDrawMask const &other);
    ~TDrawMask();

    // --- The image and the model -----------------------------------------------------------

    // Attaches the image (the host keeps it alive while the painter uses it) and sizes the
    // four masks to its Y plane: paint 0, committed 255, rendered a copy of committed,
    // source empty. With scaleExisting and a committed mask of another size, that mask is
    // first scaled to the new size (nearest, rows in parallel) and kept. Input Y becomes
    // the Y plane in float times 1.5259021896696422e-5; input R, G, B are filled from the
    // image (float, 0..1, at the working size). The full size becomes the image's size
    // unless setFullSize gave one. The history is cleared and the committed mask recorded as
    // its first state (start, current and end 0), so that undo can come back to it. The
    // command list is left alone. A null image detaches: nothing else changes.
    // Throws "Error - TFDrawMask::resetMask - ippStsError" when the fill fails.
    void setInImage(TPImage *image, bool scaleExisting);

    // The photograph's size when the working image is a reduction of it: gradient points and
    // refinement radii given in full-size pixels are scaled by working / full. 0 or less
    // means the working size.
    void setFullSize(int width, int height);
    int getFullWidth() const;
    int getFullHeight() const;

    // Runs every command queued since the last proc, in order (see TMaskCmd::DrawType), then
    // renders. Returns true. A second proc with nothing queued does nothing.
    bool proc();
    // True when commands wait for proc.
    bool bNeedUpdate() const;

    // A header of the paint mask.
    cv::Mat maskMat() const { return m_paint; }
    cv::Mat const &committedMask() const { return m_committed; }
    cv::Mat const &renderedMask() const { return m_rendered; }
    cv::Mat const &sourceMask() const { return m_source; }

    // The rendered mask under rect (in full-size pixels), reduced by `scale` (1, 2, 4, ...;
    // below 1 counts as 1): rect is scaled to the working size, clipped to the mask, and the
    // part is resized (area) to the rect's size divided by scale. Empty when nothing overlaps.
    cv::Mat getMaskRoi(cv::Rect_<int> const &rect, int scale) const;

    // The image planes the colour gate reads, at the working size: Y in float 0..1 and
    // R, G, B in float 0..1 (empty before setInImage).
    cv::Mat const &inputY() const { return m_inputY; }
    cv::Mat const &inputR() const { return m_inputR; }
    cv::Mat const &inputG() const { return m_inputG; }
    cv::Mat const &inputB() const { return m_inputB; }

    // --- Queueing: nothing is drawn until proc ---------------------------------------------

    void cmdSetValue(unsigned char value);
    void cmdInvert();
    void cmdSetColorPicker(cv::Point_<int> const &pt);
    void cmdDrawStart();
    void cmdDrawADot(cv::Point_<int> const &pt, unsigned char value, int radius,
                     int innerRadius, float flow, bool useColorGate, bool useRefPoint);
    void cmdDrawADot(TMaskParam const &dot);
    void cmdDrawEnd();
    // Size and three floats (the second is the colour tolerance), and a flag; see
    // drawSuperMask.
    void cmdDrawSuperMask(cv::Point_<int> const &pt, float size, float f2, float f3, float f4,
                          bool flag);
    // Start and end in full-size pixels, type 0..4 (see drawGradientMask).
    void cmdDrawGradientMask(cv::Point_<int> const &start, cv::Point_<int> const &end, int type);
    // Radius factor (the radius in full-size pixels), strength 0..1, offset -1..1, contrast
    // 0..1; see postFilter.
    void cmdPostFilter(float radiusFactor, float strength, float offset, float contrast);
    // apply false keeps the refinement, true drops it and brings back the unrefined mask.
    void applyButtonClicked(bool apply);
    void cmdCopyMaskFrom(TDrawMask *source);

    // --- History ---------------------------------------------------------------------------

    // Records the current mask (the unrefined one while a refinement is on trial) as a new
    // state after the current one; redo states beyond it are dropped, and the oldest is
    // dropped when all eight slots are taken. Pending paint is committed first.
    void snapshot();
    // Steps back or forward one state and copies it to the committed mask (and the
    // rendered one). dirty becomes true when a step was taken, false when there was none.
    void undo();
    void redo();
    // Clears the paint mask, drops every command and a refinement on trial, sets dirty and
    // render pending, and records the committed mask as the history's first state.
    void reset();
    // Copies source's committed mask now (when source is not null): dirty true, nothing
    // pending, no refinement on trial.
    void copyMaskFrom(TDrawMask *source);

    bool bdirty() const { return m_dirty; }
    void setDirty(bool dirty) { m_dirty = dirty; }
    // The value strokes lay down (and 255 minus it for a fill).
    void setMaskBlendValue(unsigned char value) { m_blendValue = value; }
    unsigned char maskBlendValue() const { return m_blendValue; }
    // How gradients and shapes enter the paint mask: 1 minimum of new and old, 2 maximum,
    // anything else (the start value 0) overwrites.
    void setMergeMode(int mode) { m_mergeMode = mode; }
    int mergeMode() const { return m_mergeMode; }

    // --- The brush -------------------------------------------------------------------------

    // The brush table for outer radius r and inner radius ri: 1 below ri, then
    // (exp(-2 t^2) - exp(-2)) / (1 - exp(-2)) with t = (d - ri) / (r - ri) up to r, 0 from
    // r on (all 1 below r when r == ri). Rebuilt only when a radius changes. Throws "ERROR --
    // TDrawMask::updateLUT - Inner circle is larger than outter circle." when ri > r.
    void updateLUT(int r, int ri);
    // Sets the clip rectangle of a dot of radius r at centre against the whole mask (which
    // becomes the allowed area): the square's columns and rows that lie on the mask, and the
    // mask pixel of the first. Dots clip through it; a dot wholly off the mask draws nothing.
    void checkBoundary(cv::Point_<int> &centre, int r);
    // out = candidate when it lies inside plane, else fallback.
    void setPointInsideMat(cv::Point_<int> &out, cv::Point_<int> &candidate, cv::Mat &plane,
                           cv::Point_<int> &fallback);
    // One dot of a stroke: brushDumbDot when p's radii are equal and gate is false (proc
    // passes the dot's colour-gate flag), else updateLUT and brushMaskDotLUT.
    void drawStrokeDot(bool gate, TMaskParam *p);
    // A soft dot from the brush table into the paint mask: coverage w = table[trunc(d +
    // 0.5)]; with the gate, g = w (1 - q^2 (3 - 2q)), q = min(1, (1.5 |Y - Y0| + 6 (|Dr - Dr0|
    // + |Db - Db0|)) / (w + 0.1)) and m = trunc(V g + m (1 - g)); without it m = rint(V w + m
    // (1 - w)), V = trunc(value flow). The reference colour is read at the colour picker's
    // point when useRefPoint, else at the centre, held inside the mask; Dr, Db at the
    // half-size planes' pixel (x / 2, y / 2). Before any table exists, updateLUT(r, r).
    void brushMaskDotLUT(unsigned char value, float flow, cv::Point_<int> centre, int r,
                         bool useColorGate, bool useRefPoint);
    // The same with the table built from (r, ri) first, the gate's denominator in float.
    void brushMaskDot(unsigned char value, float flow, cv::Point_<int> centre, int r, int ri,
                      bool useColorGate, bool useRefPoint);
    // A hard disc: pixels within r of the centre are set to value (flow is not used).
    void brushDumbDot(unsigned char value, float flow, cv::Point_<int> centre, int r);

    // --- Gradients and shapes --------------------------------------------------------------

    // A gradient of type 0..4 (linear, radial, angular, mirrored linear, corner) from p to q
    // into plane through the smoothstep and the merge mode; p == q or another type does
    // nothing.
    void drawGradientMask(cv::Mat &plane, int type, cv::Point_<int> &p, cv::Point_<int> &q);
    // A soft disc at centre gated by the centre's colour, then guided-filtered along Y.
    void drawSuperMask(cv::Mat &plane, cv::Point_<int> &centre, float size, float a, float b,
                       float c);
    // The outline of a superellipse of semi-axes a, b and exponents m, e1, e2 at (cx, cy).
    void drawSuperShapeLUT(cv::Mat &plane, int value, int cx, int cy, int a, int b, float m,
                           float e1, float e2);
    // Fills the sine and cosine tables once.
    void comSinCosLUT();

    // --- Rendering and refinement ----------------------------------------------------------

    // out = rint(value a + (1 - a) base), a = coverage / 255; mode 1 keeps the smaller of that
    // and base, mode 2 the larger, any other mode that. Returns true.
    bool renderMask(cv::Mat &base, cv::Mat &coverage, cv::Mat &out, unsigned char value, int mode);
    // Smooths src into dst (box below strength 0.01, else guided along Y with eps stepping
    // by powers of ten), then applies the stored contrast and offset.
    void postFilter(cv::Mat &src, cv::Mat &dst, int radius, float strength);
    // The stored stretch [low, high] to 0..255, from src into dst.
    bool scaleAlpha(cv::Mat &src, cv::Mat &dst);
    void contrastMask(float c, cv::Mat &src, cv::Mat &dst);
    void offsetMask(float o, cv::Mat &src, cv::Mat &dst);
    // Throws "Error - TFDrawMask::invertMask - ippStsError" when the primitive fails.
    void invertMask(cv::Mat &plane);
    // Throws "Error - TFDrawMask::resetMask - ippStsError" when the primitive fails.
    void resetMask(cv::Mat &plane, unsigned char value);
    void bilateralSmooth(cv::Mat &src, cv::Mat &dst, int sampleS, int sampleR);
    void boxFilterSmooth(cv::Mat &src, cv::Mat &dst, int radius, int passes);
    // low = k / 2, high = 255 - k with k = trunc(100 clamp(c, 0, 1)).
    void setMaskContrast(float c);
    // g = trunc(100 clamp(o, -1, 1)); low and high move down by g within 0..254 and 1..255.
    void setMaskOffset(float o);
    int contrastLow() const { return m_contrastLow; }
    int contrastHigh() const { return m_contrastHigh; }

protected:
    // History ring (see snapshot): start, current and end index, -1 when empty.
    void addHist(cv::Mat const &plane);
    bool undoMask(cv::Mat &plane);
    bool redoMask(cv::Mat &plane);
    void clearRedos();
    int histStatus() const;  // bit 0: an undo exists; bit 1: a redo exists; 0 while S < 0
    void clearMaskHist();
    void copyInHist(cv::Mat const &plane);
    void copyOutHist(cv::Mat &plane);
    // Slot C into the committed mask, the rendered mask a header of it (render gives it
    // pixels of its own again), the paint cleared: a state as undo and redo bring it back.
    void restoreState();
    bool isHistEmpty() const { return m_histStart < 0; }
    int incHistIdx(int i) const { return i >= m_histHigh ? m_histLow : i + 1; }
    int decHistIdx(int i) const { return i <= m_histLow ? m_histHigh : i - 1; }
    void emptyCmdStack();
    // Clears the history and records the committed mask as state 0 (S = C = E = 0).
    void recordFirstState();
    // Composites pending paint into the rendered mask (mode 0, blend value).
    void render();
    // render, then committed = rendered and the paint cleared.
    void commitPaint();
    // If a refinement is on trial, brings the unrefined mask back and ends the trial.
    void postRestore();
    // The committed mask becomes source's (scaled, nearest, when the sizes differ).
    void copyFrom(TDrawMask const &source);

    cv::Mat m_rendered, m_committed, m_paint, m_source;  // CV_8UC1, working size
    unsigned char m_blendValue = 0;
    bool m_dirty = false;
    bool m_postActive = false;
    bool m_renderPending = false;
    bool m_applyFlag = false;
    // The type of the last command run: a shape or gradient right after one of its kind
    // (a slider or a drag) is drawn again over the same base.
    int m_lastType = TMaskCmd::Nothing;
    bool m_paintLive = false;  // the paint mask holds coverage not yet in the committed mask
    int m_mergeMode = 0;
    std::vector<TMaskCmd> m_commands;
    int m_nextIdx = -1;  // the last command run, -1 when none
    std::unique_ptr<float[]> m_lut;  // brush table, kLutSize entries
    int m_strokeStarted = 0;
    int m_lutOuter = -1, m_lutInner = -1;
    cv::Point_<int> m_refPoint{0, 0}, m_prevPoint{0, 0}, m_gradStart{0, 0}, m_gradEnd{0, 0};
    std::unique_ptr<float[]> m_sin, m_cos;  // kSinCosSize entries each
    int m_contrastLow = 0, m_contrastHigh = 255;
    int m_histStart = -1, m_histCur = -1, m_histEnd = -1;
    std::array<std::vector<unsigned char>, kHistSlots> m_hist;  // row-major states
    int m_histRowBytes = 0;
    int m_histHigh = kHistSlots - 1, m_histLow = 0;
    cv::Mat m_inputY, m_inputR, m_inputG, m_inputB;  // CV_32FC1, working size
    TPImage *m_image = nullptr;
    int m_fullW = 0, m_fullH = 0;  // 0: the working size
    // Dot clipping: x offset and end in the brush square, y offset and end, first mask
    // pixel x and y; then the allowed area left, top, right, bottom (inclusive).
    int m_clip[6] = {0, 0, 0, 0, 0, 0};
    int m_area[4] = {0, 0, 0, 0};
    TGFilter m_gf;  // the refinement's and the shapes' guided filter
};
