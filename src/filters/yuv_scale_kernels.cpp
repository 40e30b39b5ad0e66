// The bilinear resampler's rows, one sample at a time: the definition the vector rows match.
#include "filters/yuv_scale_kernels.h"

#include "common/dispatch.h"

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

}  // namespace

namespace scalar {

void LinearLumaRow(const uint8_t* row0, const uint8_t* row1, uint8_t* out, int src_width,
                   float sx, float wy, int begin, int end) {
  for (int i = begin; i < end; ++i) {
    const float fx = sx * static_cast<float>(i);
    const int x0 = static_cast<int>(fx);
    const int x1 = NextIndex(x0, src_width - 1);
    const float wx = fx - static_cast<float>(x0);
    out[i] = Bilinear(wx, wy, row0[x0], row0[x1], row1[x0], row1[x1]);
  }
}

void LinearChromaRow(const uint8_t* pairs0, const uint8_t* pairs1, uint8_t* out, int src_pairs,
                     float sx, float wy, int begin, int end) {
  for (int k = begin; k < end; ++k) {
    // The weight of the luma column 2k, not the fraction of the chroma position sx * k: this
    // is the resampler's rule, keep it.
    const float fx = sx * static_cast<float>(2 * k);
    const float wx = fx - static_cast<float>(static_cast<int>(fx));
    const int cx0 = static_cast<int>(sx * static_cast<float>(k));
    const int cx1 = NextIndex(cx0, src_pairs - 1);
    for (int b = 0; b < 2; ++b) {
      out[2 * k + b] = Bilinear(wx, wy, pairs0[2 * cx0 + b], pairs0[2 * cx1 + b],
                                pairs1[2 * cx0 + b], pairs1[2 * cx1 + b]);
    }
  }
}

const YuvScaleKernels kYuvScale = {LinearLumaRow, LinearChromaRow};

}  // namespace scalar

// No NEON rows: arm64 has no gather to fetch the neighbours with.
const YuvScaleKernels& YuvScaleKernelsFor(Isa isa) {
  static const IsaTable<YuvScaleKernels> t{&scalar::kYuvScale, VELMORA_AVX2(kYuvScale), nullptr};
  return Pick(t, isa);
}

void ResampleNv12(const YuvScaleKernels& kernels, const uint8_t* src, uint8_t* dst,
                  int src_width, int src_height, int dst_width, int dst_height, bool with_chroma) {
  if (dst_height < 1) return;
  const float sx = static_cast<float>(src_width) / static_cast<float>(dst_width);
  const float sy = static_cast<float>(src_height) / static_cast<float>(dst_height);
  const int64_t sw = src_width;
  const int64_t dw = dst_width;
  const uint8_t* src_uv = src + sw * src_height;
  uint8_t* dst_uv = dst + dw * dst_height;
  // Half sizes by signed division, toward zero.
  const int src_pairs = src_width / 2;
  const int64_t dst_pairs = dst_width / 2;

  for (int j = 0; j < dst_height; ++j) {
    const float fy = sy * static_cast<float>(j);
    const int y0 = static_cast<int>(fy);  // not limited: the scale keeps it inside the source
    const int y1 = NextIndex(y0, src_height - 1);
    const float wy = fy - static_cast<float>(y0);
    kernels.luma_row(src + y0 * sw, src + y1 * sw, dst + j * dw, src_width, sx, wy, 0,
                     dst_width);
    if (!with_chroma || j % 2 != 0) continue;

    // Chroma for the even columns of an even row.
    const int cy0 = static_cast<int>(sy * static_cast<float>(j / 2));
    const int cy1 = NextIndex(cy0, src_height / 2 - 1);
    // The pair's stride is dst_width / 2 while the columns run to (dst_width - 1) / 2: with an
    // odd dst_width the last pair of a row lands on the first pair of the next row (which that
    // row then overwrites). Kept, as callers' buffers are sized for it.
    kernels.chroma_row(src_uv + 2 * (cy0 * static_cast<int64_t>(src_pairs)),
                       src_uv + 2 * (cy1 * static_cast<int64_t>(src_pairs)),
                       dst_uv + 2 * ((j / 2) * dst_pairs), src_pairs, sx, wy, 0,
                       (dst_width + 1) / 2);
  }
}

}  // namespace velmora
