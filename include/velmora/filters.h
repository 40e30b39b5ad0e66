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

// ---- Gaussian smoothing ----------------------------------------------------------------------
// Planes are row-major with the row stride equal to width; float planes hold one float per pixel.

// Coefficients of the recursive (Young and van Vliet) Gaussian of order 3.
struct GaussCoefs {
  int N;        // order of the recursion, always 3
  float sigma;  // the standard deviation the coefficients were computed for
  double B;     // gain of the input sample
  double b[4];  // b[0] the divisor; b[1] .. b[3] weigh the previous three outputs
};

// 3x3 binomial blur (1 2 1 / 2 4 2 / 1 2 1, sum / 16 truncated) of the interior pixels; the first
// and last rows and columns of dst keep what they had, and nothing is written unless both sides
// are at least 3. dst must not be src: the rows above would be read after they were blurred.
VELMORA_EXPORT void gaussBlur(unsigned char* src, unsigned char* dst, int width, int height);

// 3x3 sampled Gaussian (sigma 1.5) of the interior pixels, summed in single precision; borders of
// dst keep what they had. The source is copied first, so dst may be src.
VELMORA_EXPORT void gaussBlur(float* src, float* dst, int width, int height);

// Fills coefs for the recursive Gaussian of standard deviation sigma.
VELMORA_EXPORT void computeGaussCoefs(GaussCoefs* coefs, float sigma);

// Forward and backward recursion along one line of length samples lying step floats apart,
// written to dst at the positions read from src. The output is shifted three samples toward the
// end of the line. A length that cannot be allocated ends the process.
VELMORA_EXPORT void recursiveGauss(float* src, float* dst, int length, int step,
                                   GaussCoefs* coefs) noexcept;

// Recursive Gaussian of a plane: a pass along the rows, then one along the columns, both reading
// src. The column pass overwrites the whole row pass, so dst is src filtered along columns only.
VELMORA_EXPORT void gaussSmooth(float* src, float* dst, int width, int height,
                                float sigma) noexcept;

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
