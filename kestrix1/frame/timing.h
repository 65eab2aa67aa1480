// Timing lines on standard output, the library's only console output. Internal.
#pragma once

// "<label><seconds> s." and a new line, with seconds = (now - startMs) / 1000 in single
// precision, both clock values taken from kxClockMs().
void kxPrintTiming(char const *label, long startMs);

// "<label><seconds>" and a new line, for the lines that print a plain number.
void kxPrintTimingNumber(char const *label, long startMs);
