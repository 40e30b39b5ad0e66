// NEON variants of the gradient kernels: 8 Sobel pixels or 4 floats at a time, each row or array
// finished by the scalar rule. The build keeps -ffp-contract=off, so no multiply-add is fused;
// vdivq and vsqrtq are exact.
#include <arm_neon.h>

#include "filters/gradient_kernels.h"

namespace velmora {
namespace neon {
namespace {

int16x8_t Bytes8(const uint8_t* p) { return vreinterpretq_s16_u16(vmovl_u8(vld1_u8(p))); }

void Store4x2(int32_t* p, int16x8_t v) {
  vst1q_s32(p, vmovl_s16(vget_low_s16(v)));
  vst1q_s32(p + 4, vmovl_s16(vget_high_s16(v)));
}

float32x4_t BoxSum(const FloatRows& s, int x) {
  float32x4_t sum = vdupq_n_f32(0.0f);  // the scalar accumulator's +0 start
  for (int dx = 1; dx >= -1; --dx) {
    sum = vaddq_f32(sum, vld1q_f32(s.above + x + dx));
    sum = vaddq_f32(sum, vld1q_f32(s.row + x + dx));
    sum = vaddq_f32(sum, vld1q_f32(s.below + x + dx));
  }
  return sum;
}

// The running rule "replace m when m < c": vmaxq would return NaN for any NaN, so select.
float32x4_t Keep(float32x4_t m, float32x4_t c) { return vbslq_f32(vcltq_f32(m, c), c, m); }

}  // namespace

void SobelRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, int32_t* gx,
              int32_t* gy, int width) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 8;
  for (int x = 1; x < 1 + body; x += 8) {
    const int16x8_t al = Bytes8(above + x - 1), ac = Bytes8(above + x), ar = Bytes8(above + x + 1);
    const int16x8_t rl = Bytes8(row + x - 1), rr = Bytes8(row + x + 1);
    const int16x8_t bl = Bytes8(below + x - 1), bc = Bytes8(below + x), br = Bytes8(below + x + 1);
    const int16x8_t right = vaddq_s16(vaddq_s16(ar, br), vshlq_n_s16(rr, 1));
    const int16x8_t left = vaddq_s16(vaddq_s16(al, bl), vshlq_n_s16(rl, 1));
    const int16x8_t down = vaddq_s16(vaddq_s16(bl, br), vshlq_n_s16(bc, 1));
    const int16x8_t up = vaddq_s16(vaddq_s16(al, ar), vshlq_n_s16(ac, 1));
    Store4x2(gx + x, vsubq_s16(right, left));
    Store4x2(gy + x, vsubq_s16(down, up));
  }
  if (body < outputs)
    scalar::SobelRow(above + body, row + body, below + body, gx + body, gy + body, width - body);
}

void MinEigenRow(const FloatRows& sxx, const FloatRows& sxy, const FloatRows& syy, float* dst,
                 int width) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 4;
  const float32x4_t half = vdupq_n_f32(0.5f);
  for (int x = 1; x < 1 + body; x += 4) {
    const float32x4_t a = BoxSum(sxx, x), b = BoxSum(sxy, x), c = BoxSum(syy, x);
    const float32x4_t h = vmulq_f32(a, half), k = vmulq_f32(c, half);
    const float32x4_t d = vsubq_f32(h, k);
    const float32x4_t root = vsqrtq_f32(vaddq_f32(vmulq_f32(b, b), vmulq_f32(d, d)));
    vst1q_f32(dst + x, vsubq_f32(vaddq_f32(h, k), root));
  }
  if (body < outputs) {
    const FloatRows xx{sxx.above + body, sxx.row + body, sxx.below + body};
    const FloatRows xy{sxy.above + body, sxy.row + body, sxy.below + body};
    const FloatRows yy{syy.above + body, syy.row + body, syy.below + body};
    scalar::MinEigenRow(xx, xy, yy, dst + body, width - body);
  }
}

void DilateRow(const FloatRows& src, float* dst, int width) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 4;
  for (int x = 1; x < 1 + body; x += 4) {
    float32x4_t m = vld1q_f32(src.above + x + 1);
    m = Keep(m, vld1q_f32(src.row + x + 1));
    m = Keep(m, vld1q_f32(src.below + x + 1));
    m = Keep(m, vld1q_f32(src.above + x));
    m = Keep(m, vld1q_f32(src.row + x));
    m = Keep(m, vld1q_f32(src.below + x));
    m = Keep(m, vld1q_f32(src.above + x - 1));
    m = Keep(m, vld1q_f32(src.row + x - 1));
    m = Keep(m, vld1q_f32(src.below + x - 1));
    vst1q_f32(dst + x, m);
  }
  if (body < outputs) {
    const FloatRows rest{src.above + body, src.row + body, src.below + body};
    scalar::DilateRow(rest, dst + body, width - body);
  }
}

void Arctan(const float* y, const float* x, float* dst, int count) {
  const int body = count - count % 4;
  const float32x4_t zero = vdupq_n_f32(0.0f), eps = vdupq_n_f32(kArctanEps);
  for (int i = 0; i < body; i += 4) {
    const float32x4_t vy = vld1q_f32(y + i), vx = vld1q_f32(x + i);
    const float32x4_t ax = vabsq_f32(vx), ay = vabsq_f32(vy);
    const uint32x4_t flat = vcgeq_f32(ax, ay);  // ax >= ay; false for NaN
    const float32x4_t num = vbslq_f32(flat, ay, ax);
    const float32x4_t den = vaddq_f32(vbslq_f32(flat, ax, ay), eps);
    const float32x4_t t = vdivq_f32(num, den);
    const float32x4_t t2 = vmulq_f32(t, t);
    float32x4_t p = vaddq_f32(vmulq_f32(t2, vdupq_n_f32(kArctanC7)), vdupq_n_f32(kArctanC5));
    p = vaddq_f32(vmulq_f32(t2, p), vdupq_n_f32(kArctanC3));
    p = vaddq_f32(vmulq_f32(t2, p), vdupq_n_f32(kArctanC1));
    p = vmulq_f32(t, p);
    float32x4_t a = vbslq_f32(flat, p, vsubq_f32(vdupq_n_f32(90.0f), p));
    a = vbslq_f32(vcltq_f32(vx, zero), vsubq_f32(vdupq_n_f32(180.0f), a), a);
    a = vbslq_f32(vcltq_f32(vy, zero), vsubq_f32(vdupq_n_f32(360.0f), a), a);
    vst1q_f32(dst + i, a);
  }
  if (body < count) scalar::Arctan(y + body, x + body, dst + body, count - body);
}

void Magnitude(const float* a, const float* b, float* dst, int count) {
  const int body = count - count % 4;
  for (int i = 0; i < body; i += 4) {
    const float32x4_t va = vld1q_f32(a + i), vb = vld1q_f32(b + i);
    vst1q_f32(dst + i, vsqrtq_f32(vaddq_f32(vmulq_f32(va, va), vmulq_f32(vb, vb))));
  }
  if (body < count) scalar::Magnitude(a + body, b + body, dst + body, count - body);
}

const GradientKernels kGradient{SobelRow, MinEigenRow, DilateRow, Arctan, Magnitude};

}  // namespace neon
}  // namespace velmora
