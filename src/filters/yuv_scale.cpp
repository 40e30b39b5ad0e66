// Resampling of NV12 frames held in one buffer (luma, then chroma at byte width * height, both
// with the width as stride): bilinear for the whole frame or its luma, box average for luma.
#include <cstdint>
#include <cstring>

#include "velmora/yuv.h"

namespace velmora {
namespace {

// A neighbour index: one past i, at most last and then at least 0 (in that order, so that an
// empty source gives 0).
inline int NextIndex(int i, int last) {
  int next = i + 1;
  if (next > last) next = last;
  if (next < 0) next = 0;
  return next;
}

// The bilinear rule in single precision, each product rounded: across the row first, then
// down. Truncated and stored without a clamp: the weights sum to one, so rounding can lift a
// value a little above 255 but never to 256.
inline uint8_t Bilinear(float wx, float wy, uint8_t p00, uint8_t p01, uint8_t p10, uint8_t p11) {
  const float top = (1.0f - wx) * static_cast<float>(p00) + wx * static_cast<float>(p01);
  const float bottom = (1.0f - wx) * static_cast<float>(p10) + wx * static_cast<float>(p11);
  return static_cast<uint8_t>(static_cast<int>((1.0f - wy) * top + wy * bottom));
}

void Resample(const uint8_t* src, uint8_t* dst, int src_width, int src_height, int dst_width,
              int dst_height, bool with_chroma) {
  if (dst_height < 1) return;
  const float sx = static_cast<float>(src_width) / static_cast<float>(dst_width);
  const float sy = static_cast<float>(src_height) / static_cast<float>(dst_height);
  const int64_t sw = src_width;
  const int64_t dw = dst_width;
  const uint8_t* src_uv = src + sw * src_height;
  uint8_t* dst_uv = dst + dw * dst_height;
  const int64_t src_pairs = src_width / 2;  // pairs per chroma row
  const int64_t dst_pairs = dst_width / 2;

  for (int j = 0; j < dst_height; ++j) {
    const float fy = sy * static_cast<float>(j);
    const int y0 = static_cast<int>(fy);  // not limited: the scale keeps it inside the source
    const int y1 = NextIndex(y0, src_height - 1);
    const float wy = fy - static_cast<float>(y0);
    const int cy0 = static_cast<int>(sy * static_cast<float>(j / 2));
    const int cy1 = NextIndex(cy0, src_height / 2 - 1);
    const uint8_t* row0 = src + y0 * sw;
    const uint8_t* row1 = src + y1 * sw;
    const bool chroma_row = with_chroma && j % 2 == 0;

    for (int i = 0; i < dst_width; ++i) {
      const float fx = sx * static_cast<float>(i);
      const int x0 = static_cast<int>(fx);
      const int x1 = NextIndex(x0, src_width - 1);
      const float wx = fx - static_cast<float>(x0);
      dst[j * dw + i] = Bilinear(wx, wy, row0[x0], row0[x1], row1[x0], row1[x1]);

      if (!chroma_row || i % 2 != 0) continue;
      const int cx0 = static_cast<int>(sx * static_cast<float>(i / 2));
      const int cx1 = NextIndex(cx0, src_width / 2 - 1);
      const uint8_t* c00 = src_uv + 2 * (cy0 * src_pairs + cx0);
      const uint8_t* c01 = src_uv + 2 * (cy0 * src_pairs + cx1);
      const uint8_t* c10 = src_uv + 2 * (cy1 * src_pairs + cx0);
      const uint8_t* c11 = src_uv + 2 * (cy1 * src_pairs + cx1);
      // The pair's stride is dst_width / 2 while the column runs to (dst_width - 1) / 2: with an
      // odd dst_width the last pair of a row lands on the first pair of the next row (which that
      // row then overwrites). Kept, as callers' buffers are sized for it.
      uint8_t* out = dst_uv + 2 * ((i / 2) + (j / 2) * dst_pairs);
      for (int b = 0; b < 2; ++b) {
        // The weights of the luma position (i, j), not the fractions of the chroma position
        // sx * (i / 2), sy * (j / 2): this is the resampler's rule, keep it.
        out[b] = Bilinear(wx, wy, c00[b], c01[b], c10[b], c11[b]);
      }
    }
  }
}

}  // namespace
}  // namespace velmora

int NV12Linear(unsigned char* src, unsigned char* dst, int srcWidth, int srcHeight, int dstWidth,
               int dstHeight) {
  velmora::Resample(src, dst, srcWidth, srcHeight, dstWidth, dstHeight, true);
  return 0;
}

int NV12Linear_Y(unsigned char* src, unsigned char* dst, int srcWidth, int srcHeight,
                 int dstWidth, int dstHeight) {
  velmora::Resample(src, dst, srcWidth, srcHeight, dstWidth, dstHeight, false);
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
