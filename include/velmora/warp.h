// Velmora perspective warps: exported C++ functions in the global namespace.
//
// Every homography is nine doubles, row-major, used as an inverse map: for each destination pixel
// it gives the source position to sample. Planes are 8-bit with a row stride equal to the width;
// a frame buffer holds the luma plane, then height / 2 rows of width bytes of chroma pairs.
#ifndef VELMORA_WARP_H
#define VELMORA_WARP_H

#include "velmora/export.h"

// One plane, bilinear in double precision, H applied at full scale; out of view 255.
VELMORA_EXPORT void perspectiveWarp(double* H, unsigned char* src, unsigned char* dst, int width,
                                    int height);

// One plane, bilinear with 11-bit fixed-point weights (truncating), H estimated at half
// resolution: the source position of (x, y) is 2 * H(x / 2, y / 2); out of view 255.
VELMORA_EXPORT void perspectiveWarpOP(double* H, unsigned char* src, unsigned char* dst, int width,
                                      int height);

// One plane, nearest neighbour (halves rounded away from zero), half-resolution H as above;
// out of view 255.
VELMORA_EXPORT void perspectiveWarpNN(double* H, unsigned char* src, unsigned char* dst, int width,
                                      int height);

// A whole frame in one pass: luma and chroma pairs bilinear in double, H at the scale of each
// plane. Out-of-view luma is 0 and leaves its block's chroma pair untouched; an in-view block
// whose chroma position is out of view gets the pair (128, 128).
VELMORA_EXPORT void perspectiveWarpYUV(double* H, unsigned char* src, unsigned char* dst,
                                       int width, int height);

// As perspectiveWarpYUV, over a copy of the frame with mirrored borders (see interBorder).
VELMORA_EXPORT void perspectiveWarpYUV_B(double* H, unsigned char* src, unsigned char* dst,
                                         int width, int height);

// Writes to dst the frame with a border of two luma pixels and one chroma pair (one chroma row)
// on every side: a luma plane of (width + 4) x (height + 4), then (height + 4) / 2 chroma rows of
// width + 4 bytes. dst must hold (width + 4) * (height + 4) * 3 / 2 bytes.
VELMORA_EXPORT void interBorder(unsigned char* src, unsigned char* dst, int width, int height);

// A whole frame through the half-resolution H: luma with perspectiveWarpOP, each chroma byte of
// the pairs replicated to full resolution, warped with perspectiveWarpNN and averaged back over
// 2x2 blocks. Out of view, luma and chroma are 255. dst may be src.
VELMORA_EXPORT void perspectiveWarpYUV_OP(double* H, unsigned char* src, unsigned char* dst,
                                          int width, int height);

// perspectiveWarpYUV_OP with the planes of source and destination apart.
VELMORA_EXPORT void perspectiveWarpYUV_OP_1(double* H, unsigned char* srcY, unsigned char* srcUV,
                                            unsigned char* dstY, unsigned char* dstUV, int width,
                                            int height);

#endif  // VELMORA_WARP_H
