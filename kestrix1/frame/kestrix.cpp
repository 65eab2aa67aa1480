#include "kestrix1/frame/kestrix.h"

#include "kestrix1/frame/clock.h"

Kestrix::DebugFunc Kestrix::m_tDebug_p = nullptr;

void Kestrix::setQDebugFunc(DebugFunc func) {
    m_tDebug_p = func;
}

std::string Kestrix::traceMsg(char const *where, int line, char const *text) {
    return composeTrace(kxClockMs() / 1000.0, where, line, text);
}

void Kestrix::toQDebug(char const *where, int line, char const *text) {
    if (m_tDebug_p == nullptr) return;
    m_tDebug_p(traceMsg(where, line, text).c_str());
}
