// Resampling of NV12 frames held in one buffer (luma, then chroma at byte width * height, both
// with the width as stride): bilinear for the whole frame or its luma, box average for luma.
#include <cstdint>
#include <cstring>

#include "filters/yuv_scale_kernels.h"
#include "velmora/yuv.h"

int NV12Linear(unsigned char* src, unsigned char* dst, int srcWidth, int srcHeight, int dstWidth,
               int dstHeight) {
  using namespace velmora;
  ResampleNv12(YuvScaleKernelsFor(ActiveIsa()), src, dst, srcWidth, srcHeight, dstWidth,
               dstHeight, true);
  return 0;
}

int NV12Linear_Y(unsigned char* src, unsigned char* dst, int srcWidth, int srcHeight,
                 int dstWidth, int dstHeight) {
  using namespace velmora;
  ResampleNv12(YuvScaleKernelsFor(ActiveIsa()), src, dst, srcWidth, srcHeight, dstWidth,
               dstHeight, false);
  return 0;
}

// Luma only, whatever the name says: the chroma plane of dst is left as it was.
int NV12AvgScaling(unsigned char* src, unsigned char* dst, int srcWidth, int srcHeight,
                   int dstWidth, int dstHeight) {
  if (dstHeight < 1) return 0;
  // Whole blocks only: source rows and columns beyond the last one are ignored.
  const int fx = dstWidth != 0 ? srcWidth / dstWidth : 0;
  const int fy = srcHeight / dstHeight;
  const int area = fx * fy;
  const int64_t sw = srcWidth;
  for (int j = 0; j < dstHeight; ++j) {
    unsigned char* out = dst + static_cast<int64_t>(j) * dstWidth;
    if (fy < 1) {
      // Taller than the source: no block to average, the row is black.
      if (dstWidth > 0) std::memset(out, 0, static_cast<size_t>(dstWidth));
      continue;
    }
    for (int i = 0; i < dstWidth; ++i) {
      // 64 bits: a block of the whole of a large frame would overflow 32.
      int64_t sum = 0;
      for (int64_t r = static_cast<int64_t>(j) * fy; r < static_cast<int64_t>(j) * fy + fy; ++r) {
        const unsigned char* row = src + r * sw + static_cast<int64_t>(i) * fx;
        for (int c = 0; c < fx; ++c) sum += row[c];
      }
      out[i] = static_cast<unsigned char>(area != 0 ? sum / area : 0);
    }
  }
  return 0;
}
