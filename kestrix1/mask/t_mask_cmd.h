// TMaskParam and TMaskCmd: the recorded commands of the mask painter.
//
// A host paints by queueing commands on a TDrawMask; each command is a type and, for the
// types that need them, the parameters it was given. The painter keeps the list and replays
// what is new at its next proc, so that a stroke's dots are drawn in one batch.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"

class TDrawMask;

// The parameters of one command. Each constructor fills its own group of fields and leaves
// every other field at its start value (points at 0, 0; flow 1; everything else 0 or null).
class KESTRIX1_EXPORT TMaskParam {
public:
    unsigned char value = 0;    // dot and set-value: the value laid down, 0..255
    int radius = 0;             // dot: outer radius in pixels, below 8000
    int innerRadius = 0;        // dot: full coverage up to here
    float flow = 1.0f;          // dot: strength, 0..1
    bool useColorGate = false;  // dot: keep the dot to colours like the reference
    bool useRefPoint = false;   // dot: the reference is the colour picker's point, not the centre
    int gradientType = 0;       // gradient: 0..4
    cv::Point_<int> pt1{
        0, 0};  // all drawing: the dot's centre, the gradient's start, the shape's anchor
    cv::Point_<int> pt2{0, 0};     // gradient: its end
    float f1 = 0, f2 = 0, f3 = 0;  // super mask: size, then the command's second and third float
    int reserved[2] = {0, 0};
    float f4 = 0;                     // super mask: the fourth float
    bool superFlag = false;           // super mask: the flag of its command
    float post[4] = {0, 0, 0, 0};     // refinement: radius factor, strength, offset, contrast
    TDrawMask *maskSource = nullptr;  // copy: the painter whose committed mask is copied

    TMaskParam() = default;
    // A dot: centre, value, outer and inner radius, flow, colour gate, reference point.
    TMaskParam(cv::Point_<int> const &pt, unsigned char value, int radius, int innerRadius,
               float flow, bool useColorGate, bool useRefPoint);
    // A gradient from start to end of the given type.
    TMaskParam(cv::Point_<int> const &start, cv::Point_<int> const &end, int type);
    // A shape at pt with three floats, or four floats and a flag.
    TMaskParam(cv::Point_<int> const &pt, float f1, float f2, float f3);
    TMaskParam(cv::Point_<int> const &pt, float f1, float f2, float f3, float f4, bool flag);
    // A refinement: radius factor, strength, offset, contrast.
    TMaskParam(float radiusFactor, float strength, float offset, float contrast);
    // A copy of another painter's committed mask.
    explicit TMaskParam(TDrawMask *source);
};

// One recorded command: its type and, for the types that take them, its own parameters.
class KESTRIX1_EXPORT TMaskCmd {
public:
    // What a command does when proc replays it.
    enum DrawType {
        SetValue = 0,      // fill the committed mask (with 255 minus the blend value)
        Invert = 1,        // invert the committed mask
        ColorPicker = 2,   // remember a point as the colour reference
        DrawStart = 3,     // begin a stroke
        DrawDot = 4,       // one brush dot
        DrawEnd = 5,       // end a stroke
        SuperMask = 6,     // a colour-gated soft disc
        GradientMask = 7,  // a gradient between two points
        Nothing = 8,       // no pixel work
        PostFilter = 9,    // refine the mask along the image's edges
        Apply = 10,        // keep or drop the refinement
        CopyMask = 11,     // copy another painter's mask
    };

    DrawType type = Nothing;
    std::unique_ptr<TMaskParam> param;  // null for the types without parameters

    TMaskCmd() = default;
    TMaskCmd(DrawType type, std::unique_ptr<TMaskParam> param = nullptr);
    TMaskCmd(TMaskCmd const &other);  // copies the parameters
    TMaskCmd &operator=(TMaskCmd const &other);
};
