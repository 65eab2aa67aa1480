// The sample photograph that commands take when given no input, built into the program so that
// `kestrix` needs no file beside it. The assembler copies the file's bytes into read-only data;
// CMake names the file and rebuilds this object when it changes.
#include <vector>

#include "cli/image_file.h"

asm(".section .rodata\n"
    ".balign 16\n"
    "kxSamplePhotoBegin:\n"
    ".incbin \"" KESTRIX_SAMPLE_PHOTO
    "\"\n"
    "kxSamplePhotoEnd:\n"
    ".previous\n");

extern "C" unsigned char const kxSamplePhotoBegin[], kxSamplePhotoEnd[];

std::vector<unsigned char> samplePhoto() {
    return std::vector<unsigned char>(kxSamplePhotoBegin, kxSamplePhotoEnd);
}
