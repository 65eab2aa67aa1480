#include "kestrix1/frame/errors.h"

#include <string>

#include "kestrix1/frame/kestrix.h"

void kxThrow(char const *text) {
    throw text;
}

void kxThrowTrace(char const *where, int line, char const *text) {
    // One buffer per thread: the host catches the pointer after this frame is gone.
    static thread_local std::string composed;
    composed = Kestrix::traceMsg(where, line, text);
    throw static_cast<char const *>(composed.c_str());
}
