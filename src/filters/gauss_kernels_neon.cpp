// NEON rows of the 3x3 blurs, 16 bytes or four floats at a time; each row is finished by the
// scalar rule. Separate multiplies and adds, never a fused or chained multiply-add: every product
// is rounded before it is added.
#include <arm_neon.h>

#include <algorithm>

#include "filters/gauss_kernels.h"

namespace velmora {
namespace neon {

void GaussBlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
                  int width) {
  constexpr int kStep = 16;
  constexpr int kChunk = 512;  // outputs per pass over the column sums, which stay in L1
  // Outputs 1 .. width - 2, the body in whole steps.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  // Column sums a + 2r + b of columns x0 - 1 .. x0 + n: each is formed once and read by three
  // outputs, where a blur straight from the rows would form it three times.
  uint16_t sums[kChunk + 2];
  for (int x0 = 1; x0 < 1 + body; x0 += kChunk) {
    const int n = std::min(kChunk, 1 + body - x0);
    const int c0 = x0 - 1;
    // n / 16 groups cover columns c0 .. c0 + n - 1 without reading past the row; the last two
    // columns are summed one by one.
    for (int j = 0; j < n; j += 16) {
      const uint8x16_t a = vld1q_u8(above + c0 + j), r = vld1q_u8(row + c0 + j),
                       b = vld1q_u8(below + c0 + j);
      vst1q_u16(sums + j,
                vaddq_u16(vaddl_u8(vget_low_u8(a), vget_low_u8(b)), vshll_n_u8(vget_low_u8(r), 1)));
      vst1q_u16(sums + j + 8, vaddq_u16(vaddl_u8(vget_high_u8(a), vget_high_u8(b)),
                                        vshll_n_u8(vget_high_u8(r), 1)));
    }
    for (int c = c0 + n; c < c0 + n + 2; ++c) {
      sums[c - c0] = static_cast<uint16_t>(above[c] + 2 * row[c] + below[c]);
    }
    // Output x0 + i = (sums[i] + 2 sums[i + 1] + sums[i + 2]) / 16; at most 4080 / 16 = 255,
    // so the narrowing shift loses nothing.
    for (int i = 0; i < n; i += kStep) {
      uint8x8_t half[2];
      for (int h = 0; h < 2; ++h) {
        const uint16_t* s = sums + i + 8 * h;
        const uint16x8_t mid = vld1q_u16(s + 1);
        const uint16x8_t total =
            vaddq_u16(vaddq_u16(vld1q_u16(s), vld1q_u16(s + 2)), vaddq_u16(mid, mid));
        half[h] = vshrn_n_u16(total, 4);
      }
      vst1q_u8(out + x0 + i, vcombine_u8(half[0], half[1]));
    }
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::BlurRow(above + body, row + body, below + body, out + body, width - body);
}

void GaussBlurRowFloat(const float* above, const float* row, const float* below, float* out,
                       int width) {
  constexpr int kStep = 4;
  // Outputs 1 .. width - 2; a step reads one float either side of its four outputs.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  const float32x4_t corner = vdupq_n_f32(kGaussCorner);
  const float32x4_t edge = vdupq_n_f32(kGaussEdge);
  const float32x4_t centre = vdupq_n_f32(kGaussCentre);
  for (int x = 1; x < 1 + body; x += kStep) {
    // The definition's order, lane by lane: from 0.0, top-left to bottom-right.
    float32x4_t sum = vdupq_n_f32(0.0f);
    sum = vaddq_f32(sum, vmulq_f32(corner, vld1q_f32(above + x - 1)));
    sum = vaddq_f32(sum, vmulq_f32(edge, vld1q_f32(above + x)));
    sum = vaddq_f32(sum, vmulq_f32(corner, vld1q_f32(above + x + 1)));
    sum = vaddq_f32(sum, vmulq_f32(edge, vld1q_f32(row + x - 1)));
    sum = vaddq_f32(sum, vmulq_f32(centre, vld1q_f32(row + x)));
    sum = vaddq_f32(sum, vmulq_f32(edge, vld1q_f32(row + x + 1)));
    sum = vaddq_f32(sum, vmulq_f32(corner, vld1q_f32(below + x - 1)));
    sum = vaddq_f32(sum, vmulq_f32(edge, vld1q_f32(below + x)));
    sum = vaddq_f32(sum, vmulq_f32(corner, vld1q_f32(below + x + 1)));
    vst1q_f32(out + x, sum);
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::GaussBlurRowFloat(above + body, row + body, below + body, out + body, width - body);
}

const GaussKernels kGauss = {GaussBlurRow, GaussBlurRowFloat};

}  // namespace neon
}  // namespace velmora
