// NEON distances, one candidate per double lane: element k of eight candidates is two loads, each
// squared difference is widened to double and added to its candidate's own sum, so every sum runs
// in index order exactly as the scalar rule (separate multiply and add, no vfma). Candidates past
// the last full panel take the scalar rule.
#include <arm_neon.h>

#include <cstddef>

#include "registration/match_kernels.h"

namespace velmora {
namespace neon {

namespace {

void Distances(const float* a, const float* panels, int count, float* dist) {
  const int full = count / kPanel;
  for (int p = 0; p < full; ++p) {
    const float* b = panels + static_cast<size_t>(p) * kPanelFloats;
    float64x2_t s0 = vdupq_n_f64(0.0), s1 = vdupq_n_f64(0.0);
    float64x2_t s2 = vdupq_n_f64(0.0), s3 = vdupq_n_f64(0.0);
    for (int k = 0; k < kDescriptorLength; ++k) {
      const float32x4_t ak = vdupq_n_f32(a[k]);
      const float32x4_t d0 = vsubq_f32(ak, vld1q_f32(b + k * kPanel));
      const float32x4_t d1 = vsubq_f32(ak, vld1q_f32(b + k * kPanel + 4));
      const float32x4_t q0 = vmulq_f32(d0, d0);
      const float32x4_t q1 = vmulq_f32(d1, d1);
      s0 = vaddq_f64(s0, vcvt_f64_f32(vget_low_f32(q0)));
      s1 = vaddq_f64(s1, vcvt_high_f64_f32(q0));
      s2 = vaddq_f64(s2, vcvt_f64_f32(vget_low_f32(q1)));
      s3 = vaddq_f64(s3, vcvt_high_f64_f32(q1));
    }
    // Each sum rounded to float, then the float square root.
    vst1q_f32(dist + p * kPanel, vsqrtq_f32(vcvt_high_f32_f64(vcvt_f32_f64(s0), s1)));
    vst1q_f32(dist + p * kPanel + 4, vsqrtq_f32(vcvt_high_f32_f64(vcvt_f32_f64(s2), s3)));
  }
  for (int j = full * kPanel; j < count; ++j) {
    dist[j] = DistanceRule(a, panels + static_cast<size_t>(full) * kPanelFloats + j % kPanel,
                           kPanel);
  }
}

}  // namespace

const MatchKernels kMatch{Distances};

}  // namespace neon
}  // namespace velmora
