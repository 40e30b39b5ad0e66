// Velmora image filters: exported C++ functions in the global namespace.
#ifndef VELMORA_FILTERS_H
#define VELMORA_FILTERS_H

#include "velmora/flowing_water.h"

// Thresholded unsharp mask of a two-plane YUV 4:2:0 frame (NV12 or NV21; chroma bytes are
// treated alike). Luma is sharpened against its 3x3 binomial blur where |luma - blur| > threshold;
// the chroma byte at the same row and column index of a sharpened pixel is rescaled by
// new luma / (luma re-read from srcY + 1e-5) around 128 and wraps to 8 bits. width is also the row
// stride of both planes; the chroma plane has height / 2 rows. dst may equal src (in place).
// Border pixels (first and last row and column) are compared with their own luma, so they are
// left unchanged unless threshold is negative.
VELMORA_EXPORT void sharpenFilter(unsigned char* srcY, unsigned char* srcUV, unsigned char* dstY,
                                  unsigned char* dstUV, int width, int height, int threshold,
                                  float amount);

// ---- Gradient and morphology primitives ------------------------------------------------------
// Planes are row-major with the row stride equal to width. The three 3x3 operators run only when
// width >= 3 and height >= 3, visit rows and columns 1 .. size - 2, and leave the first and last
// rows and columns of their outputs unwritten.

// Sobel gradient of an 8-bit plane in integers: gx positive to the right, gy positive downward.
VELMORA_EXPORT void sobel(unsigned char* src, int* gx, int* gy, int width, int height);

// Smaller eigenvalue of [[A, B], [B, C]], A, B and C being the 3x3 box sums of sxx, sxy and syy
// (single precision, right column, then centre, then left, each top to bottom). The corner
// response of goodFeaturesToTrack; the first argument is accepted and not read, and the name is
// kept although no median is involved.
VELMORA_EXPORT void medblur(float* unused, float* sxx, float* sxy, float* syy, int width,
                            int height, float* dst);

// 3x3 grey-level dilation: the largest neighbour, by a running strictly-less comparison in the
// order top-right, right, bottom-right, top, centre, bottom, top-left, left, bottom-left (a NaN
// in the top-right stays, a NaN elsewhere is never taken).
VELMORA_EXPORT void dilate(float* src, float* dst, int width, int height);

// Angle of (x, y) in degrees in [0, 360) by a fixed odd polynomial; its error is part of the
// result (Arctan_(1, 1) is 44.990456, not 45). Negative zero counts as not negative.
VELMORA_EXPORT float Arctan_(float y, float x);
VELMORA_EXPORT void calcArctan(float* y, float* x, float* dst, int count);

// sqrt(a * a + b * b) in single precision.
VELMORA_EXPORT float Magnitude_(float a, float b);
VELMORA_EXPORT void calcMagnitude(float* a, float* b, float* dst, int count);

// dst[i] = expf(src[i]).
VELMORA_EXPORT void calcExp(float* src, float* dst, int count);

#endif  // VELMORA_FILTERS_H
