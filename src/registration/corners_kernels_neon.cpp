// NEON variants of the corner detector's rows, 4 entries at a time (products 2 doubles at a
// time), each row finished by the scalar rule. The build keeps -ffp-contract=off.
#include <arm_neon.h>

#include "registration/corners_kernels.h"

namespace velmora {
namespace neon {
namespace {

// The running rule "replace m when m < c"; vmaxq would let a NaN through.
float32x4_t Keep(float32x4_t m, float32x4_t c) { return vbslq_f32(vcltq_f32(m, c), c, m); }

float32x4_t Join(float64x2_t lo, float64x2_t hi) {
  // vcvt_f32_f64 rounds to nearest, as the scalar conversion does.
  return vcombine_f32(vcvt_f32_f64(lo), vcvt_f32_f64(hi));
}

}  // namespace

void ProductRow(const int32_t* dx, const int32_t* dy, double scale, float* dxx, float* dxy,
                float* dyy, int width) {
  const int body = width - width % 4;
  const float64x2_t s = vdupq_n_f64(scale);
  for (int i = 0; i < body; i += 4) {
    const int32x4_t vx = vld1q_s32(dx + i), vy = vld1q_s32(dy + i);
    const float64x2_t xl = vcvtq_f64_s64(vmovl_s32(vget_low_s32(vx)));
    const float64x2_t xh = vcvtq_f64_s64(vmovl_s32(vget_high_s32(vx)));
    const float64x2_t yl = vcvtq_f64_s64(vmovl_s32(vget_low_s32(vy)));
    const float64x2_t yh = vcvtq_f64_s64(vmovl_s32(vget_high_s32(vy)));
    const float64x2_t sxl = vmulq_f64(s, xl), sxh = vmulq_f64(s, xh);
    const float64x2_t syl = vmulq_f64(s, yl), syh = vmulq_f64(s, yh);
    vst1q_f32(dxx + i, Join(vmulq_f64(sxl, xl), vmulq_f64(sxh, xh)));
    vst1q_f32(dxy + i, Join(vmulq_f64(sxl, yl), vmulq_f64(sxh, yh)));
    vst1q_f32(dyy + i, Join(vmulq_f64(syl, yl), vmulq_f64(syh, yh)));
  }
  if (body < width)
    scalar::ProductRow(dx + body, dy + body, scale, dxx + body, dxy + body, dyy + body,
                       width - body);
}

float RowMax(const float* row, int width, float running) {
  const int body = width - width % 4;
  if (body > 0) {
    // Lanes start from the running value and follow the strictly-greater rule; folding them by
    // the same rule gives the value of the scan in index order (see the AVX2 variant).
    float32x4_t m = vdupq_n_f32(running);
    for (int i = 0; i < body; i += 4) m = Keep(m, vld1q_f32(row + i));
    float lanes[4];
    vst1q_f32(lanes, m);
    for (float lane : lanes) {
      if (lane > running) running = lane;
    }
  }
  return scalar::RowMax(row + body, width - body, running);
}

void CutRow(float* row, int width, float threshold) {
  const int body = width - width % 4;
  const float32x4_t t = vdupq_n_f32(threshold);
  for (int i = 0; i < body; i += 4) {
    const float32x4_t v = vld1q_f32(row + i);
    vst1q_f32(row + i, vbslq_f32(vcleq_f32(v, t), vdupq_n_f32(0.0f), v));
  }
  if (body < width) scalar::CutRow(row + body, width - body, threshold);
}

int PeakRow(const float* response, const float* dilated, int width, int32_t* xs) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 4;
  const float32x4_t zero = vdupq_n_f32(0.0f);
  int n = 0;
  for (int x = 1; x < 1 + body; x += 4) {
    const float32x4_t r = vld1q_f32(response + x);
    const uint32x4_t peak = vbicq_u32(vceqq_f32(r, vld1q_f32(dilated + x)), vceqq_f32(r, zero));
    if (vmaxvq_u32(peak) == 0) continue;  // most groups hold no peak
    uint32_t lanes[4];
    vst1q_u32(lanes, peak);
    for (int k = 0; k < 4; ++k) {
      if (lanes[k] != 0) xs[n++] = x + k;
    }
  }
  if (body < outputs) {
    const int more = scalar::PeakRow(response + body, dilated + body, width - body, xs + n);
    for (int i = n; i < n + more; ++i) xs[i] += body;
    n += more;
  }
  return n;
}

const CornerKernels kCorner{&kGradient, ProductRow, RowMax, CutRow, PeakRow};

}  // namespace neon
}  // namespace velmora
