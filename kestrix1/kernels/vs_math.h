// Element-wise float operations over runs of n values, for the weights of the weighted least
// squares smoother. Internal.
//
// Each result may be written over an input (y equal to a or b). Nothing is checked: n below 1
// does nothing, and values outside a function's domain give what the C library gives there
// (ln of 0 is -inf, of a negative value NaN; 0 to a negative power +inf).
//
// vsSub, vsAbs and vsDiv are single IEEE operations, so every instruction set gives the same
// bits. vsLn and vsPowx are computed in double by SLEEF (at most one unit in the last place of
// the double) and rounded once to float: the float nearest the exact value but for the rarest
// inputs, and the same float whatever vector width the running CPU offers, since the double
// results of the different widths lie within a few units of 2^-52 of each other and only an
// exact value that close to the middle between two floats could round differently.
// (NaN results are NaN at every width, but not always the same NaN.)
#pragma once

// y[i] = ln(a[i]).
void vsLn(int n, float const *a, float *y);
// y[i] = a[i] - b[i].
void vsSub(int n, float const *a, float const *b, float *y);
// y[i] = |a[i]|.
void vsAbs(int n, float const *a, float *y);
// y[i] = a[i] ^ b, b one value for all.
void vsPowx(int n, float const *a, float b, float *y);
// y[i] = a[i] / b[i].
void vsDiv(int n, float const *a, float const *b, float *y);
