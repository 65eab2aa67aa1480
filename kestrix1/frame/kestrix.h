// Kestrix: the library's trace channel to the host.
//
// A host that wants to see the library's trace lines registers a sink with setQDebugFunc.
// Without a sink nothing is formatted, so trace calls cost a pointer test.
#pragma once

#include <string>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT Kestrix {
public:
    using DebugFunc = void (*)(char const *);

    // The host's debug sink; null until setQDebugFunc is called.
    static DebugFunc m_tDebug_p;

    // Stores the sink (null switches tracing off).
    static void setQDebugFunc(DebugFunc func);

    // Composes a trace line: the processor time in seconds as "%09.3f", then
    // " - <line> - ", then where, " : ", text and a closing " - ".
    // Example: "00011.500 - 106 - upSize2X : out2X is not allocated - ".
    static std::string traceMsg(char const *where, int line, char const *text);

    // Hands traceMsg(where, line, text) to the sink; does nothing at all without one.
    static void toQDebug(char const *where, int line, char const *text);
};
