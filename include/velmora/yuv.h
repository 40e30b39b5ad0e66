// Velmora YUV utilities: NV12/NV21 conversion and scaling, raw YUV files. Exported C++ functions
// in the global namespace, over caller-owned buffers; nothing is checked, nothing is allocated
// for the caller.
#ifndef VELMORA_YUV_H
#define VELMORA_YUV_H

#include <string>

#include "velmora/export.h"

// Converts an NV12 frame (chroma pairs U, V) to three separate 8-bit planes, red, green and blue;
// despite the name no interleaved pixels and no alpha are produced. Every plane, the sources'
// and the outputs', has the row stride width + padding; the padding bytes of the outputs are not
// written. Full-range BT.601 in single precision, clamped to 0..255 and truncated. The last
// argument is accepted and ignored.
VELMORA_EXPORT void NV12toRGBA8888(unsigned char* srcY, unsigned char* srcUV,
                                   unsigned char* dstR, unsigned char* dstG,
                                   unsigned char* dstB, int width, int height, int padding,
                                   int unused);

// As NV12toRGBA8888 for NV21 frames (chroma pairs V, U).
VELMORA_EXPORT void NV21toRGBA8888(unsigned char* srcY, unsigned char* srcUV,
                                   unsigned char* dstR, unsigned char* dstG,
                                   unsigned char* dstB, int width, int height, int padding,
                                   int unused);

// Bilinear resampling of a whole NV12 frame held in one buffer (chroma directly behind the
// luma, stride = width). Chroma is written for even destination columns and rows only, with the
// interpolation weights of that luma position and a chroma stride of dstWidth / 2 pairs (with
// an odd dstWidth a row's last pair lands on the next row). Returns 0.
VELMORA_EXPORT int NV12Linear(unsigned char* src, unsigned char* dst, int srcWidth,
                              int srcHeight, int dstWidth, int dstHeight);

// The luma half of NV12Linear; nothing behind dstWidth * dstHeight is written. Returns 0.
VELMORA_EXPORT int NV12Linear_Y(unsigned char* src, unsigned char* dst, int srcWidth,
                                int srcHeight, int dstWidth, int dstHeight);

// Integer box-average downscaling of the luma plane only, in blocks of srcWidth / dstWidth by
// srcHeight / dstHeight; source rows and columns beyond the last whole block are ignored, and
// rows are zero when the block height is 0. The chroma plane of dst is not written. Returns 0.
VELMORA_EXPORT int NV12AvgScaling(unsigned char* src, unsigned char* dst, int srcWidth,
                                  int srcHeight, int dstWidth, int dstHeight);

// Raw headerless YUV 4:2:0 files: width * height luma bytes, then (width * height) / 2 chroma
// bytes; (width * height * 3) / 2 in all. A file that cannot be opened is logged and nothing is
// transferred; short reads and writes are not reported.

// Reads one whole frame. The file is opened for reading and update ("rb+"), so a file that is
// not writable is not read.
VELMORA_EXPORT void readYUVFile(std::string path, unsigned char* frame, int width, int height);
VELMORA_EXPORT void writeYUVFile(std::string path, unsigned char* frame, int width, int height);
// Writes each double truncated toward zero to int32 (saturating), keeping its low eight bits:
// 255.9 gives 255, 256.0 gives 0, -1.0 gives 255.
VELMORA_EXPORT void writeYUVFile(std::string path, double* frame, int width, int height);

// The same from and to separate luma and chroma buffers; always return 0. ReadYUVFile opens its
// file read-only ("rb").
VELMORA_EXPORT int ReadYUVFile(unsigned char* lumaBuf, unsigned char* chromaBuf, const char* path,
                               int width, int height);
VELMORA_EXPORT int WriteYUVFile(unsigned char* lumaBuf, unsigned char* chromaBuf,
                                const char* path, int width, int height);
VELMORA_EXPORT int WriteYUVFile(double* lumaBuf, double* chromaBuf, const char* path, int width,
                                int height);

#endif  // VELMORA_YUV_H
