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

#endif  // VELMORA_FILTERS_H
