// NEON row kernels of the sharpen filter (AArch64), 16 pixels at a time; each row is finished by
// the scalar rule. Built with -ffp-contract=off: every product is rounded on its own. The vector
// float-to-int conversion truncates and saturates (NaN gives 0) exactly as TruncateToInt32.
#include <arm_neon.h>

#include "filters/sharpen_kernels.h"

namespace velmora {
namespace neon {
namespace {

constexpr int kStep = 16;

// The 16 bytes of v as four groups of four uint32, in index order.
void Widen(uint8x16_t v, uint32x4_t out[4]) {
  const uint16x8_t lo = vmovl_u8(vget_low_u8(v));
  const uint16x8_t hi = vmovl_u8(vget_high_u8(v));
  out[0] = vmovl_u16(vget_low_u16(lo));
  out[1] = vmovl_u16(vget_high_u16(lo));
  out[2] = vmovl_u16(vget_low_u16(hi));
  out[3] = vmovl_u16(vget_high_u16(hi));
}

// The low byte of each of 16 int32, in index order.
uint8x16_t LowBytes(const int32x4_t in[4]) {
  const int16x8_t lo = vcombine_s16(vmovn_s32(in[0]), vmovn_s32(in[1]));
  const int16x8_t hi = vcombine_s16(vmovn_s32(in[2]), vmovn_s32(in[3]));
  return vreinterpretq_u8_s8(vcombine_s8(vmovn_s16(lo), vmovn_s16(hi)));
}

// Which pixels are sharpened: |y - b| > threshold, as a byte mask.
struct Threshold {
  explicit Threshold(int threshold)
      : limit(vdupq_n_u8(static_cast<uint8_t>(threshold < 0 ? 0 : threshold > 255 ? 255 : threshold))),
        all(vdupq_n_u8(threshold < 0 ? 0xFF : 0)) {}
  uint8x16_t Sharpened(uint8x16_t y, uint8x16_t b) const {
    // A negative threshold sharpens every pixel, 0 included; 255 and above none.
    return vorrq_u8(vcgtq_u8(vabdq_u8(y, b), limit), all);
  }
  uint8x16_t limit;
  uint8x16_t all;
};

// New luma of 16 pixels as int32 groups: clamp(trunc((amount + 1) * y - b * amount), 0, 255).
struct LumaRule {
  explicit LumaRule(float amount) : gain(vdupq_n_f32(amount + 1.0f)), amount(vdupq_n_f32(amount)) {}
  void Apply(uint8x16_t y, uint8x16_t b, int32x4_t out[4]) const {
    uint32x4_t yi[4], bi[4];
    Widen(y, yi);
    Widen(b, bi);
    for (int k = 0; k < 4; ++k) {
      const float32x4_t lifted = vmulq_f32(gain, vcvtq_f32_u32(yi[k]));
      const float32x4_t lowered = vmulq_f32(vcvtq_f32_u32(bi[k]), amount);
      const int32x4_t v = vcvtq_s32_f32(vsubq_f32(lifted, lowered));
      out[k] = vminq_s32(vmaxq_s32(v, vdupq_n_s32(0)), vdupq_n_s32(255));
    }
  }
  float32x4_t gain;
  float32x4_t amount;
};

// The ratio n / (y2 + 1e-5) of four pixels, divided in double and rounded to float.
float32x4_t Ratio(int32x4_t n, int32x4_t y2) {
  const float64x2_t eps = vdupq_n_f64(1e-5);
  const float64x2_t lo = vdivq_f64(vcvtq_f64_s64(vmovl_s32(vget_low_s32(n))),
                                   vaddq_f64(vcvtq_f64_s64(vmovl_s32(vget_low_s32(y2))), eps));
  const float64x2_t hi = vdivq_f64(vcvtq_f64_s64(vmovl_s32(vget_high_s32(n))),
                                   vaddq_f64(vcvtq_f64_s64(vmovl_s32(vget_high_s32(y2))), eps));
  return vcvt_high_f32_f64(vcvt_f32_f64(lo), hi);
}

// (uv - 128) * ratio + 128, truncated with saturation; the caller keeps the low byte.
int32x4_t Chroma(uint32x4_t uv, float32x4_t ratio) {
  const float32x4_t centred = vcvtq_f32_s32(vsubq_s32(vreinterpretq_s32_u32(uv), vdupq_n_s32(128)));
  return vcvtq_s32_f32(vaddq_f32(vmulq_f32(centred, ratio), vdupq_n_f32(128.0f)));
}

}  // namespace

void BlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
             int width) {
  // Outputs 1 .. width - 2; a step reads one byte either side of its 16 outputs.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  for (int x = 1; x < 1 + body; x += kStep) {
    // Column sums a + 2r + b at offsets -1, 0, +1, in 16-bit lanes.
    uint16x8_t lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
      const int at = x - 1 + k;
      const uint8x16_t a = vld1q_u8(above + at), r = vld1q_u8(row + at), b = vld1q_u8(below + at);
      lo[k] = vaddq_u16(vaddl_u8(vget_low_u8(a), vget_low_u8(b)), vshll_n_u8(vget_low_u8(r), 1));
      hi[k] = vaddq_u16(vaddl_u8(vget_high_u8(a), vget_high_u8(b)), vshll_n_u8(vget_high_u8(r), 1));
    }
    // sum <= 4080, so sum / 16 <= 255 fits a byte without clamping.
    const uint16x8_t sum_lo = vaddq_u16(vaddq_u16(lo[0], lo[2]), vshlq_n_u16(lo[1], 1));
    const uint16x8_t sum_hi = vaddq_u16(vaddq_u16(hi[0], hi[2]), vshlq_n_u16(hi[1], 1));
    vst1q_u8(out + x, vcombine_u8(vshrn_n_u16(sum_lo, 4), vshrn_n_u16(sum_hi, 4)));
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::BlurRow(above + body, row + body, below + body, out + body, width - body);
}

void SharpenLumaRow(const uint8_t* src_y, const uint8_t* blur, uint8_t* dst_y, int width,
                    int threshold, float amount) {
  const Threshold test(threshold);
  const LumaRule rule(amount);
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    const uint8x16_t y = vld1q_u8(src_y + x), b = vld1q_u8(blur + x);
    int32x4_t n[4];
    rule.Apply(y, b, n);
    vst1q_u8(dst_y + x, vbslq_u8(test.Sharpened(y, b), LowBytes(n), y));
  }
  scalar::SharpenLumaRow(src_y + body, blur + body, dst_y + body, width - body, threshold, amount);
}

void SharpenChromaRow(const uint8_t* src_y, const uint8_t* blur, const uint8_t* src_uv,
                      uint8_t* dst_y, uint8_t* dst_uv, int width, int threshold, float amount) {
  const Threshold test(threshold);
  const LumaRule rule(amount);
  // The luma re-read after the write is the new value in place, the old one otherwise.
  const bool in_place = dst_y == src_y;
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    const uint8x16_t y = vld1q_u8(src_y + x), b = vld1q_u8(blur + x), uv = vld1q_u8(src_uv + x);
    const uint8x16_t sharpened = test.Sharpened(y, b);
    if (vmaxvq_u8(sharpened) == 0) {  // nothing to change here
      vst1q_u8(dst_y + x, y);
      vst1q_u8(dst_uv + x, uv);
      continue;
    }
    int32x4_t n[4], y2[4], c[4];
    uint32x4_t uvi[4];
    rule.Apply(y, b, n);
    if (in_place) {
      for (int k = 0; k < 4; ++k) y2[k] = n[k];
    } else {
      uint32x4_t yi[4];
      Widen(y, yi);
      for (int k = 0; k < 4; ++k) y2[k] = vreinterpretq_s32_u32(yi[k]);
    }
    Widen(uv, uvi);
    for (int k = 0; k < 4; ++k) c[k] = Chroma(uvi[k], Ratio(n[k], y2[k]));
    vst1q_u8(dst_y + x, vbslq_u8(sharpened, LowBytes(n), y));
    vst1q_u8(dst_uv + x, vbslq_u8(sharpened, LowBytes(c), uv));
  }
  scalar::SharpenChromaRow(src_y + body, blur + body, src_uv + body, dst_y + body, dst_uv + body,
                           width - body, threshold, amount);
}

const SharpenKernels kSharpen{BlurRow, SharpenLumaRow, SharpenChromaRow};

}  // namespace neon
}  // namespace velmora
