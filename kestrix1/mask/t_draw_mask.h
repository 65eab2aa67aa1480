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
    static constexpr int kLutSize = 8000;     // brush table entries: radii below this
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
    void cmdDrawADot(cv::Point_<int> const &pt, unsigned char value, int radius, int innerRadius,
                     float flow, bool useColorGate, bool useRefPoint);
    void cmdDrawADot(TMaskParam const &dot);
    void cmdDrawEnd();
    // Size, then a, b and c of drawSuperMask (c: how strictly colour gates the disc), and a
    // flag that travels with the command.
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

    // A gradient from p to q into plane (CV_8UC1), rows in parallel. Each pixel gets a ramp
    // position v, and the value round(255 (1 - S(v))) with the smoothstep S(v) = 0 below 0,
    // 1 above 1, v (3 - 2 v) v between, entered by the merge mode (1 minimum with the old
    // value, 2 maximum, else overwrite). With dx = q.x - p.x, dy = q.y - p.y, in float:
    // - 0 linear: k = (p.x - q.x) / (dy + 1e-7), c = p.y - p.x k, D = q.x k + c - q.y +
    //   0.0001, v = (x k + c - y) / D: 255 up to the line through p, 0 from the line through q.
    //   With p and q on one row the 1e-7 keeps k large and finite.
    // - 1 radial: v = ((x - p.x)^2 + (y - p.y)^2) / L2, L2 = dx^2 + dy^2 (a plane of 0 when
    //   L2 <= 0.5, which coinciding points never reach as they return first).
    // - 2 angular: a0 = atan2(p.y - q.y, dx + 0.0001) in degrees (plus 360 when p.y - q.y <
    //   0), a the same of (p.y - y, x - p.x + 0.0001), a' = a - a0 (plus 360 when negative),
    //   v = 1 - a' / 360: a hard seam along the start direction. The arctangent is our own
    //   vectorised one, within 2e-7 rad of the C library's, so a value can differ by one
    //   level where the rounding is a tie, and a pixel whose centre lies exactly on the seam
    //   may fall on either side of it.
    // - 3 mirrored linear: as 0 with v = |x k + c - y| / |D|. We take the magnitude of D, so
    //   that the band is 255 on the line through p and reaches 0 at q's line on both sides
    //   whatever the direction from p to q (a signed D would fill the plane with 255 for
    //   half of the directions).
    // - 4 corner: hx = p.x - (p.x + q.x + p.y - q.y) / 2 and hy = (dx + p.y + q.y) / 2 - p.y
    //   with integer (truncating) divisions, as the integer points suggest; k1 = hx / (hy +
    //   0.0001), k2 = hy / (0.0001 - hx), c1 = p.y - p.x k1, c2 = p.y - p.x k2, g1 = sqrt(k2^2
    //   + 1), g2 = sqrt(k1^2 + 1), W = (|q.x k2 - q.y + c2| + 0.0001) / g1; v = max(|k2 x + c2
    //   - y| / g1, |k1 x + c1 - y| / g2) / W: the larger distance to two lines through p.
    // p == q, a type outside 0..4, or an empty plane or one not CV_8UC1 does nothing.
    void drawGradientMask(cv::Mat &plane, int type, cv::Point_<int> &p, cv::Point_<int> &q);
    // A soft disc at centre gated by the centre's colour, then guided-filtered along Y.
    // Needs an attached image of plane's size (else nothing is drawn). The centre is clamped
    // into the plane; reference colour Y0 from inputY, Dr0, Db0 from the image's half-size
    // planes at (x / 2, y / 2) divided by 65535. w, h = the larger pixel distance from the
    // centre to the first or last column and row; R2 = w^2 + h^2. Outer radius squared
    // = max(1, trunc(R2 ((size - 0.8) 8 + 2.004))) above size 0.8, else with (2.48 size +
    // 0.02); inner radius = trunc((0.98 size + 0.02) (max(w, h, centre.y) / 6)), the division
    // in floating point, then squared; these in double. Edge e = 2 - (size - 0.92) 18.75
    // above 0.92, else 2. Per pixel (float, d2 the integer squared distance): coverage 1
    // when inner^2 > d2, else exp((d2 - inner^2) / (-0.01 - (outer^2 - inner^2)) e); q =
    // (1.2 |Y - Y0| + 6 (|Dr - Dr0| + |Db - Db0|)) (1.44 c + 0.56) / (0.01 + coverage);
    // value = coverage (1 - S(q)) 255. Merge mode 1 or 2 takes the minimum or maximum of the
    // rounded value and the old one; otherwise round((value - lo) 255 / (hi - lo)),
    // saturated, with lo = 0, hi = 255 up to size 0.95 and above it g = trunc((size - 0.95)
    // 200), lo = clamp(-g, 0, 254), hi = clamp(255 - g, 1, 255). Finally filterGuidedByY of
    // plane onto itself along the image's Y plane, radius 1, eps 0.0001, the object's guided
    // filter, one pass. c sets how strictly colour gates the disc (0 most lenient, 1 strictest); a
    // and b are kept for hosts (they travel with the command) and change nothing here. Planes up to
    // 32767 pixels a side.
    void drawSuperMask(cv::Mat &plane, cv::Point_<int> &centre, float size, float a, float b,
                       float c);
    // The outline of a superellipse into plane with value: for i = 0..3599 (tenths of a
    // degree, from the top) r = (|cos / a|^e1 + |sin / b|^e2)^(-1 / m) and the point (cx -
    // sin r, cy + cos r) truncated; cv::line (8-connected, thickness 1) joins each point to
    // the one before, starting from the last. m = e1 = e2 = 2 and a = b draw a circle.
    // Serial. a or b below 1, m == 0 or an empty plane draws nothing.
    void drawSuperShapeLUT(cv::Mat &plane, int value, int cx, int cy, int a, int b, float m,
                           float e1, float e2);
    // Fills the sine and cosine tables once: entry i is sin, cos of i 0.0017453292519943296
    // (i tenths of a degree), computed in double and stored as float.
    void comSinCosLUT();

    // --- Rendering and refinement ----------------------------------------------------------

    // out = round(value a + (1 - a) base) in float, a = coverage / 255; mode 1 keeps the
    // smaller of that and base, mode 2 the larger, any other mode that. A coverage of 0 gives
    // base in every mode. out is created at base's size; base and coverage must be CV_8UC1
    // of one size, else nothing is done. Rows in parallel. Returns true.
    bool renderMask(cv::Mat &base, cv::Mat &coverage, cv::Mat &out, unsigned char value, int mode);
    // Smooths src into dst, then stretches dst in place by the stored low and high (set
    // them first with setMaskContrast and setMaskOffset). Smoothing: below strength 0.01
    // three box passes of side 2 radius + 1 (boxFilterSmooth); otherwise filterGuidedByY
    // along inputY with radius and eps = ((j + 1) - t) / 10^j, t = 3 strength, j = trunc(t):
    // strength 0.01 gives 0.97, 1 gives 0.001, so a larger strength tracks edges more
    // closely, in steps of ten. A radius below 1 or no attached image copies src instead.
    void postFilter(cv::Mat &src, cv::Mat &dst, int radius, float strength);
    // The stored stretch from src into dst: with span = high - low, v -> round(((clamp(v,
    // low, high) - low) c) / 32), c = min(8160 / span, 255) in integers, ties to even,
    // saturated to 255. A span of 255 (or below 1) leaves dst as it is. Returns false only
    // when a pixel primitive fails.
    bool scaleAlpha(cv::Mat &src, cv::Mat &dst);
    // setMaskContrast(c) and then scaleAlpha(src, dst).
    void contrastMask(float c, cv::Mat &src, cv::Mat &dst);
    // setMaskOffset(o) and then scaleAlpha(src, dst).
    void offsetMask(float o, cv::Mat &src, cv::Mat &dst);
    // plane = 255 - plane (xor with 255). Throws "Error - TFDrawMask::invertMask -
    // ippStsError" when the primitive fails (an empty plane).
    void invertMask(cv::Mat &plane);
    // Fills plane with value. Throws "Error - TFDrawMask::resetMask - ippStsError" when the
    // primitive fails (an empty plane).
    void resetMask(cv::Mat &plane, unsigned char value);
    // One BilateralFilter pass over dst guided by src (sampling sampleS, sampleR); a dst of
    // another size or type starts as a copy of src.
    void bilateralSmooth(cv::Mat &src, cv::Mat &dst, int sampleS, int sampleR);
    // passes box means of side 2 radius + 1 with replicated borders, each rounded to 8 bits,
    // from src into dst (created at src's size). A radius or passes below 1 copies src.
    void boxFilterSmooth(cv::Mat &src, cv::Mat &dst, int radius, int passes);
    // low = k / 2, high = 255 - k with k = trunc(100 clamp(c, 0, 1)): 0 gives 0..255 (no
    // change), 1 gives 50..155.
    void setMaskContrast(float c);
    // g = trunc(100 clamp(o, -1, 1)); low = clamp(trunc(low - g), 0, 254), high =
    // clamp(trunc(high - g), 1, 255): after setMaskContrast(1), setMaskOffset(1) gives 0..55.
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
    int m_nextIdx = -1;              // the last command run, -1 when none
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
