// Velmora registration: judging and applying a new homography estimate.
// Exported C++ functions in the global namespace.
#ifndef VELMORA_REGISTRATION_H
#define VELMORA_REGISTRATION_H

#include <vector>

#include "velmora/export.h"
#include "velmora/features.h"

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

// ---- Registration driver ------------------------------------------------------------------------
// Registers one frame onto a reference from their keypoints and descriptors (calImageFeatures on
// the half-size lumas): the descriptors of A are matched against those of B, the best 15 % of
// the matches give an estimate with keypointsA ~ newH * keypointsB, which is rejected when it
// jumps by more than 80 from H or when cropAndThrow refuses it; otherwise the frame is warped
// through newH (a half-size-grid map from destination pixels to source positions) and H becomes
// newH. A rejected frame sets *throwFlag to 1 (never cleared here) and leaves H, cropRect and
// the destination untouched. width and height are the full frame size.
//
// imageRegistration also prints the estimate's first eight coefficients and its jump from H on
// standard output, and warps a frame held in one buffer (luma, then chroma pairs).
VELMORA_EXPORT void imageRegistration(unsigned char* src, unsigned char* dst,
                                      std::vector<float*>& descA, std::vector<float*>& descB,
                                      std::vector<Pointf>& keypointsA,
                                      std::vector<Pointf>& keypointsB, int width, int height,
                                      char* throwFlag, Rect* cropRect, double* H);

// imageRegistration without the printing, over planes held apart.
VELMORA_EXPORT void imageRegistration_1(unsigned char* srcY, unsigned char* srcUV,
                                        unsigned char* dstY, unsigned char* dstUV,
                                        std::vector<float*>& descA, std::vector<float*>& descB,
                                        std::vector<Pointf>& keypointsA,
                                        std::vector<Pointf>& keypointsB, int width, int height,
                                        char* throwFlag, Rect* cropRect, double* H);

#endif  // VELMORA_REGISTRATION_H
