#include "kestrix1/frame/geometry.h"

#include <cstdlib>

TUpdateRect::TUpdateRect() : m_changeId(std::rand()) {}

void TUpdateRect::setChanged() {
    m_changeId = std::rand();
}

void TUpdateRect::setChanged(TRect const &rect) {
    m_rect = rect;
    m_changeId = std::rand();
}
