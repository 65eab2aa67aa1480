// Recursive Gaussian smoothing of a row of table entries. Internal.
//
// Tables that must not jump (the contrast line with a gap around mid-grey, the remap table
// of the local-Laplacian filter, the chroma-floor rows of the colour adjustment) are
// softened by this one routine. It is Alvarez and Mazorra's recursive filter: `passes`
// rounds of a first-order causal and anti-causal sweep with the pole nu chosen from sigma,
// the ends weighted by 1 / (1 - nu) as if the row continued with its end values, and the
// total gain divided out, so a constant row stays constant. Work happens on a float copy of
// the row; entries are written back rounded to nearest (ties to even) and saturated.
//
// Nothing happens for a null row, n < 1, sigma <= 0 or passes <= 0. The cost is 4 x passes
// x n multiply-adds and does not depend on sigma. Callable from any thread; each thread
// keeps its own float copy between calls.
#pragma once

#include <cstdint>

void smoothTable(std::uint8_t *row, int n, float sigma, int passes);
void smoothTable(std::uint16_t *row, int n, float sigma, int passes);
