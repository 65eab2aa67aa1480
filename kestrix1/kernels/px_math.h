// Vector elementary functions over runs of floats or doubles. Internal.
//
// Thin wrappers over SLEEF's vector functions of at most one unit in the last place
// (Sleef_..._u10): each call runs as wide as the CPU allows (AVX-512, AVX2, else 128-bit
// vectors that SLEEF itself dispatches), and a run that does not fill the last vector is
// padded, so every element goes through the same code wherever it sits in its run. Results
// thus depend only on the value and on the machine's widest vectors, never on how a plane
// is cut into rows, chunks or thread shares. Outputs may be the inputs' runs.
#pragma once

// dst = e^src, computed in double and rounded once: the float nearest the exact value but
// for the rarest inputs, as a correctly rounding C library would give. Small differences
// in a weight can move a truncation further on by a whole code.
void pxMathExp(float const *src, float *dst, int n);
// dst = 2^src.
void pxMathExp2(float const *src, float *dst, int n);
// sinOut = sin(src), cosOut = cos(src), in double.
void pxMathSinCos(double const *src, double *sinOut, double *cosOut, int n);
