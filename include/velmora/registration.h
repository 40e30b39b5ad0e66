// Velmora registration: judging and applying a new homography estimate.
// Exported C++ functions in the global namespace.
#ifndef VELMORA_REGISTRATION_H
#define VELMORA_REGISTRATION_H

#include "velmora/export.h"

// The running crop rectangle, owned by the caller: the part of the frame that stayed valid after
// every warp so far. Normally started at (0, 0, width, height); it only ever shrinks.
struct Rect {
  int left;    // smallest valid column
  int top;     // smallest valid row
  int right;   // largest valid column bound
  int bottom;  // largest valid row bound
};

// Closed-form inverse of the 3x3 matrix h into inv. A singular h gives infinities or NaNs.
VELMORA_EXPORT void invert(double* h, double* inv);

// Sum of |a[i] - b[i]| over the nine coefficients, the running sum kept in float.
VELMORA_EXPORT float diffH(double* a, double* b);

// hinv maps the half-size grid of a width x height frame to source positions. Returns 1 (frame to
// be thrown, cropRect untouched) when the top-left corner moves by more than half the frame;
// otherwise narrows cropRect to the region that stays valid and returns 0.
VELMORA_EXPORT int cropAndThrow(double* hinv, Rect* cropRect, int width, int height);

#endif  // VELMORA_REGISTRATION_H
