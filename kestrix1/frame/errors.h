// How kestrix1 reports wrong arguments. Internal.
//
// Every error is thrown as a `char const *` to its text, checked on entry before any output
// is touched. Literal texts live for the whole process. A text composed with a trace prefix
// is kept in a per-thread buffer, so the pointer the host catches stays valid until the next
// composed error on the same thread.
#pragma once

// Throws the literal text.
[[noreturn]] void kxThrow(char const *text);

// Composes Kestrix::traceMsg(where, line, text) and throws a pointer to it.
[[noreturn]] void kxThrowTrace(char const *where, int line, char const *text);

// Throws the literal text unless ok holds.
inline void kxRequire(bool ok, char const *text) {
    if (!ok) kxThrow(text);
}

// Throws the literal text when a kernel returned a non-zero status.
inline void kxRequireStatus(int status, char const *text) {
    if (status != 0) kxThrow(text);
}
