// NEON kernels of the 3x3 blurs, 16 bytes or four floats at a time; each row is finished by the
// scalar rule. Separate multiplies and adds, never a fused or chained multiply-add: every product
// is rounded before it is added.
#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "filters/gauss_kernels.h"

namespace velmora {
namespace neon {

namespace {

// The horizontal 1 2 1 sums of the 16 columns c .. c + 15 of a row (p points at column c), by
// parity: even lane k is column c + 2k, odd lane k is column c + 2k + 1. A pairwise widening add
// sums each byte pair (2k, 2k + 1) of a load, so the loads at c - 1, c and c + 1 give the pair
// sums left of, on and right of each even column, and two adds finish both parities.
inline void RowSums(const uint8_t* p, uint16x8_t* even, uint16x8_t* odd) {
  const uint16x8_t left = vpaddlq_u8(vld1q_u8(p - 1));
  const uint16x8_t centre = vpaddlq_u8(vld1q_u8(p));
  const uint16x8_t right = vpaddlq_u8(vld1q_u8(p + 1));
  *even = vaddq_u16(left, centre);
  *odd = vaddq_u16(centre, right);
}

// Totals of at most 4080, by parity, stored as bytes in column order: each quotient by 16 fits a
// byte; the odd one is inserted above the even one in each 16-bit lane.
inline void Store(uint8_t* out, uint16x8_t total_even, uint16x8_t total_odd) {
  const uint16x8_t joined = vsliq_n_u16(vshrq_n_u16(total_even, 4), vshrq_n_u16(total_odd, 4), 8);
  vst1q_u8(out, vreinterpretq_u8_u16(joined));
}

// Outputs c .. c + 16 * n - 1 of every interior row, row after row, with each vector's last
// horizontal sums h and pair sums p = h(r - 1) + h(r) kept in `ring` (4 n vectors): the total of
// row r is p(r) + p(r + 1), so each source row is read once.
void BlurTile(const uint8_t* src, uint8_t* dst, ptrdiff_t stride, int height, int c, int n,
              uint16x8_t* ring) {
  for (int v = 0; v < n; ++v) {
    uint16x8_t* s = ring + 4 * v;
    uint16x8_t even0, odd0;
    RowSums(src + c + 16 * v, &even0, &odd0);
    RowSums(src + stride + c + 16 * v, &s[0], &s[1]);
    s[2] = vaddq_u16(even0, s[0]);
    s[3] = vaddq_u16(odd0, s[1]);
  }
  int r = 1;
  // Two rows at a time: the ring is read and written once per pair.
  for (; r + 1 < height - 1; r += 2) {
    const uint8_t* below = src + stride * (r + 1) + c;
    uint8_t* out = dst + stride * r + c;
    for (int v = 0; v < n; ++v) {
      uint16x8_t* s = ring + 4 * v;
      uint16x8_t even1, odd1, even2, odd2;
      RowSums(below + 16 * v, &even1, &odd1);
      RowSums(below + stride + 16 * v, &even2, &odd2);
      const uint16x8_t pe1 = vaddq_u16(s[0], even1), po1 = vaddq_u16(s[1], odd1);
      const uint16x8_t pe2 = vaddq_u16(even1, even2), po2 = vaddq_u16(odd1, odd2);
      Store(out + 16 * v, vaddq_u16(s[2], pe1), vaddq_u16(s[3], po1));
      Store(out + stride + 16 * v, vaddq_u16(pe1, pe2), vaddq_u16(po1, po2));
      s[0] = even2;
      s[1] = odd2;
      s[2] = pe2;
      s[3] = po2;
    }
  }
  if (r < height - 1) {
    const uint8_t* below = src + stride * (r + 1) + c;
    uint8_t* out = dst + stride * r + c;
    for (int v = 0; v < n; ++v) {
      const uint16x8_t* s = ring + 4 * v;
      uint16x8_t even, odd;
      RowSums(below + 16 * v, &even, &odd);
      Store(out + 16 * v, vaddq_u16(s[2], vaddq_u16(s[0], even)),
            vaddq_u16(s[3], vaddq_u16(s[1], odd)));
    }
  }
}

// A step of 8 outputs from c, walking down the plane with its sums in registers.
void BlurStrip8(const uint8_t* src, uint8_t* dst, ptrdiff_t stride, int height, int c) {
  const auto row_sums = [](const uint8_t* p, uint16x4_t* even, uint16x4_t* odd) {
    const uint16x4_t centre = vpaddl_u8(vld1_u8(p));
    *even = vadd_u16(vpaddl_u8(vld1_u8(p - 1)), centre);
    *odd = vadd_u16(centre, vpaddl_u8(vld1_u8(p + 1)));
  };
  uint16x4_t h_even, h_odd, even0, odd0;
  row_sums(src + c, &even0, &odd0);
  row_sums(src + stride + c, &h_even, &h_odd);
  uint16x4_t p_even = vadd_u16(even0, h_even), p_odd = vadd_u16(odd0, h_odd);
  for (int r = 1; r < height - 1; ++r) {
    uint16x4_t even, odd;
    row_sums(src + stride * (r + 1) + c, &even, &odd);
    const uint16x4_t next_even = vadd_u16(h_even, even), next_odd = vadd_u16(h_odd, odd);
    const uint16x4_t joined = vsli_n_u16(vshr_n_u16(vadd_u16(p_even, next_even), 4),
                                         vshr_n_u16(vadd_u16(p_odd, next_odd), 4), 8);
    vst1_u8(dst + stride * r + c, vreinterpret_u8_u16(joined));
    h_even = even;
    h_odd = odd;
    p_even = next_even;
    p_odd = next_odd;
  }
}

}  // namespace

void GaussBlurPlane8(const uint8_t* src, uint8_t* dst, int width, int height) {
  const ptrdiff_t stride = width;
  // Outputs 1 .. width - 2: tiles of whole 16-column vectors, then one vector ending at the last
  // column; planes narrower than that take a step of 8, then the scalar rule on each row's rest.
  // A step at c reads columns c - 1 .. c + its width, inside the row.
  constexpr int kTile = 128;  // vectors per tile: a ring of 8 KiB
  uint16x8_t ring[4 * kTile];
  int c = 1;
  while (c + 16 <= width - 1) {
    int n = (width - 1 - c) / 16;
    if (n > kTile) n = kTile;
    BlurTile(src, dst, stride, height, c, n, ring);
    c += 16 * n;
  }
  if (c < width - 1 && width - 1 - 16 >= 1) {
    // One more vector, ending at the last output column: it writes again some outputs already
    // written, with the same values (dst is never src), instead of a narrower step and the
    // scalar rule.
    BlurTile(src, dst, stride, height, width - 1 - 16, 1, ring);
    c = width - 1;
  }
  if (c + 8 <= width - 1) {
    BlurStrip8(src, dst, stride, height, c);
    c += 8;
  }
  if (c < width - 1) {
    // The scalar row from column c - 1 writes outputs c .. width - 2.
    for (int r = 1; r < height - 1; ++r) {
      const uint8_t* row = src + stride * r + c - 1;
      scalar::BlurRow(row - stride, row, row + stride, dst + stride * r + c - 1, width - c + 1);
    }
  }
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

const GaussKernels kGauss = {GaussBlurPlane8, GaussBlurRowFloat};

}  // namespace neon
}  // namespace velmora
