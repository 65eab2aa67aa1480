// Smoothing, clipping and cumulation of histogram bins, shared by the 1024-bin histograms of
// MHist and the 256-bin ones of HistTransfer. Internal.
#pragma once

// v truncated towards zero and held inside the range of int (NaN gives 0), so that counts
// read from a damaged text never make the conversion undefined.
int kxTruncInt(double v);

// out[0] = (h0 + h1) / 2, out[i] = (h[i-1] + h[i+1]) / 4 + h[i] / 2 for 0 < i < n - 1, and
// out[n-1] = (out[n-2] + h[n-1]) / 2 from the new value before it; in float, truncated.
// out must not be h.
void kxSmoothBins3(int const *h, int *out, int n);

// n bins in place convolved with a Gaussian of s bins cut at radius R (1 <= R <= n), weights
// exp(-i^2 / (2 s^2)) over 1 + 2 sum, in double; the ends reflect about the outer edges, so no
// count is lost; results truncated. Parallel over bins, the same at any thread count.
void kxGaussianBins(int *bins, int n, float s, int R);

// The clip level of a histogram at ratio x: from `level` at x = 0 to share x level at 0.05,
// then falling as the cube of 1 - (x - 0.05) / 0.95 towards 1.5 x tail x level, where tail is
// the share of one bin (1/1024, 1/256).
int kxClipLevel(float x, float level, float share, float tail);

// C[0] = 0 and C[i + 1] = C[i] + bins[i] over the total, for i < n, then `closing` more
// entries repeating C[n], and to all a ramp of 0.001 / n a step (C[i] += i 0.001 / n) that
// makes the list strictly rising. Bins with no count at all count as flat, so no total of zero
// is divided by. C holds n + 1 + closing entries.
void kxCumulateBins(int const *bins, int n, double *C, int closing);
