// Geometry values of kestrix1: points, sizes, rectangles, the record of the last change of
// an image, and the region record that plane images carry for their host.
#pragma once

#include "kestrix1/frame/export.h"

struct KESTRIX1_EXPORT TPoint {
    int x = 0;
    int y = 0;

    TPoint() = default;
    TPoint(int x_, int y_) : x(x_), y(y_) {}
};

struct KESTRIX1_EXPORT TSize {
    int width = 0;
    int height = 0;

    TSize() = default;
    TSize(int w, int h) : width(w), height(h) {}

    // True when either side is below 1, so negative sizes are empty too.
    bool isEmpty() const { return width < 1 || height < 1; }

    bool operator==(TSize const &o) const { return width == o.width && height == o.height; }
    bool operator!=(TSize const &o) const { return !(*this == o); }
};

struct KESTRIX1_EXPORT TRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    TRect() = default;
    TRect(int x_, int y_, int w, int h) : x(x_), y(y_), width(w), height(h) {}
    TRect(TPoint const &origin, TSize const &size)
        : x(origin.x), y(origin.y), width(size.width), height(size.height) {}

    TPoint origin() const { return TPoint(x, y); }
    TSize size() const { return TSize(width, height); }

    bool operator==(TRect const &o) const {
        return x == o.x && y == o.y && width == o.width && height == o.height;
    }
    bool operator!=(TRect const &o) const { return !(*this == o); }
};

// The last change of an image: a cheap change mark drawn from rand() (not an identity; two
// marks in a row may be equal) and the rectangle that changed last. Rectangles are not
// merged: each change replaces the one before.
class KESTRIX1_EXPORT TUpdateRect {
public:
    // Draws a first change mark; the rectangle is empty.
    TUpdateRect();

    // Draws a new change mark.
    void setChanged();

    // Stores the rectangle and draws a new change mark.
    void setChanged(TRect const &rect);

    TRect const &rect() const { return m_rect; }

    // Same rectangle and same change mark.
    bool operator==(TUpdateRect const &o) const {
        return m_rect == o.m_rect && m_changeId == o.m_changeId;
    }

    int m_changeId;
    TRect m_rect;
};

// Five integers that plane images carry for their host: a position (x, y), a factor that
// starts at 1, and two more integers. The library only creates and copies them.
struct KESTRIX1_EXPORT TImRegion {
    int m_x = 0;
    int m_y = 0;
    int m_factor = 1;
    int m_width = 0;
    int m_height = 0;
};
