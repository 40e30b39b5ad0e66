// NEON rows of the YUV to RGB plane conversion (AArch64), 16 pixels at a time; each row is
// finished by the scalar rule. Separate multiplies and adds (never vmla/vfma), built with
// -ffp-contract=off: every product is rounded on its own, as in the definition. The chroma terms
// are computed once per pair and spread over the pair's two pixels.
#include <arm_neon.h>

#include "filters/yuv_convert_kernels.h"

namespace velmora {
namespace neon {
namespace {

constexpr int kStep = 16;

// Eight bytes as two groups of four floats.
void BytesToFloat(uint8x8_t bytes, float32x4_t out[2]) {
  const uint16x8_t wide = vmovl_u8(bytes);
  out[0] = vcvtq_f32_u32(vmovl_u16(vget_low_u16(wide)));
  out[1] = vcvtq_f32_u32(vmovl_u16(vget_high_u16(wide)));
}

// The definition clamps to 0..255 in float and then truncates. Truncating first and saturating
// the integer to 0..255 gives the same byte (values in (-1, 0) and (255, 256) truncate to the
// bound anyway), and the results stay far inside int32 (|v| < 500), so the saturating narrows
// of Narrow do the clamp.
int32x4_t Truncate(float32x4_t v) { return vcvtq_s32_f32(v); }

uint8x16_t Narrow(const int32x4_t in[4]) {
  const uint16x8_t lo = vcombine_u16(vqmovun_s32(in[0]), vqmovun_s32(in[1]));
  const uint16x8_t hi = vcombine_u16(vqmovun_s32(in[2]), vqmovun_s32(in[3]));
  return vcombine_u8(vqmovn_u16(lo), vqmovn_u16(hi));
}

// Four pair values over their eight pixels: [a0 a0 a1 a1], [a2 a2 a3 a3].
void Spread(float32x4_t a, float32x4_t* out) {
  out[0] = vzip1q_f32(a, a);
  out[1] = vzip2q_f32(a, a);
}

template <bool kUFirst>
void Row(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, int width) {
  const float32x4_t bias = vdupq_n_f32(128.0f);
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    const uint8x8x2_t pairs = vld2_u8(uv + x);  // eight pairs, split into first and second bytes
    float32x4_t us[2], vs[2];
    BytesToFloat(pairs.val[kUFirst ? 0 : 1], us);
    BytesToFloat(pairs.val[kUFirst ? 1 : 0], vs);
    float32x4_t rv[4], gu[4], gv[4], bu[4];  // per pixel, in index order
    for (int k = 0; k < 2; ++k) {
      const float32x4_t cu = vsubq_f32(us[k], bias);
      const float32x4_t cv = vsubq_f32(vs[k], bias);
      Spread(vmulq_n_f32(cv, 1.370705f), rv + 2 * k);
      Spread(vmulq_n_f32(cu, -0.337633f), gu + 2 * k);
      Spread(vmulq_n_f32(cv, -0.698001f), gv + 2 * k);
      Spread(vmulq_n_f32(cu, 1.732446f), bu + 2 * k);
    }
    const uint8x16_t luma = vld1q_u8(y + x);
    float32x4_t yf[4];
    BytesToFloat(vget_low_u8(luma), yf);
    BytesToFloat(vget_high_u8(luma), yf + 2);
    int32x4_t ri[4], gi[4], bi[4];
    for (int k = 0; k < 4; ++k) {
      // Addition commutes exactly, so rv + y is the definition's V' * c + Y.
      ri[k] = Truncate(vaddq_f32(rv[k], yf[k]));
      gi[k] = Truncate(vaddq_f32(vaddq_f32(yf[k], gu[k]), gv[k]));
      bi[k] = Truncate(vaddq_f32(bu[k], yf[k]));
    }
    vst1q_u8(r + x, Narrow(ri));
    vst1q_u8(g + x, Narrow(gi));
    vst1q_u8(b + x, Narrow(bi));
  }
  // body is even, so the remaining pixels still find their pairs at (x & ~1).
  if (body < width) {
    (kUFirst ? scalar::Nv12ToRgbRow : scalar::Nv21ToRgbRow)(y + body, uv + body, r + body,
                                                            g + body, b + body, width - body);
  }
}

}  // namespace

void Nv12ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  Row<true>(y, uv, r, g, b, width);
}

void Nv21ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  Row<false>(y, uv, r, g, b, width);
}

const YuvConvertKernels kYuvConvert = {Nv12ToRgbRow, Nv21ToRgbRow};

}  // namespace neon
}  // namespace velmora
