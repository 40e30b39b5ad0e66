// NEON descriptor sample kernels, four samples at a time; the remainder takes the scalar rule.
// Built with -ffp-contract=off, and written with separate multiplies and adds (no vfma), so every
// product is rounded on its own; vdivq_f32 and vsqrtq_f32 are the exact IEEE operations.
#include <arm_neon.h>

#include "registration/descriptors_kernels.h"

namespace velmora {
namespace neon {
namespace {

void OrientationMagnitude(const float* dx, const float* dy, float* orientation, float* magnitude,
                          int count) {
  const float32x4_t zero = vdupq_n_f32(0.0f);
  const float32x4_t eps = vdupq_n_f32(kAtanEps);
  const float32x4_t c1 = vdupq_n_f32(kAtanC1), c3 = vdupq_n_f32(kAtanC3);
  const float32x4_t c5 = vdupq_n_f32(kAtanC5), c7 = vdupq_n_f32(kAtanC7);
  int i = 0;
  for (; i + 4 <= count; i += 4) {
    const float32x4_t x = vld1q_f32(dx + i);
    const float32x4_t y = vld1q_f32(dy + i);
    const float32x4_t ax = vabsq_f32(x);
    const float32x4_t ay = vabsq_f32(y);
    const uint32x4_t x_wins = vcgeq_f32(ax, ay);
    const float32x4_t num = vbslq_f32(x_wins, ay, ax);
    const float32x4_t den = vbslq_f32(x_wins, ax, ay);
    const float32x4_t c = vdivq_f32(num, vaddq_f32(den, eps));
    const float32x4_t c2 = vmulq_f32(c, c);
    float32x4_t p = vaddq_f32(vmulq_f32(c2, c7), c5);
    p = vaddq_f32(vmulq_f32(c2, p), c3);
    p = vaddq_f32(vmulq_f32(c2, p), c1);
    p = vmulq_f32(c, p);
    float32x4_t a = vbslq_f32(x_wins, p, vsubq_f32(vdupq_n_f32(90.0f), p));
    a = vbslq_f32(vcltq_f32(x, zero), vsubq_f32(vdupq_n_f32(180.0f), a), a);
    a = vbslq_f32(vcltq_f32(y, zero), vsubq_f32(vdupq_n_f32(360.0f), a), a);
    vst1q_f32(orientation + i, a);
    const float32x4_t m2 = vaddq_f32(vmulq_f32(x, x), vmulq_f32(y, y));
    vst1q_f32(magnitude + i, vsqrtq_f32(m2));
  }
  scalar::OrientationMagnitude(dx + i, dy + i, orientation + i, magnitude + i, count - i);
}

}  // namespace

const DescriptorKernels kDescriptor{OrientationMagnitude};

}  // namespace neon
}  // namespace velmora
