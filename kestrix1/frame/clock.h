// The library's processor clock and the text of its trace lines. Internal.
//
// Timing and trace lines count processor time in milliseconds, whatever the C runtime's
// CLOCKS_PER_SEC, so that a clock difference divided by 1000.0 is in seconds.
#pragma once

#include <string>

// Processor time of the process in milliseconds, from the C runtime's clock().
long kxClockMs();

// The trace line of Kestrix::traceMsg for a given time in seconds.
std::string composeTrace(double seconds, char const *where, int line, char const *text);
