// NEON rows of the float 3x3 blur, four pixels at a time; each row is finished by the scalar
// rule. Separate multiplies and adds, never a fused or chained multiply-add: every product is
// rounded before it is added.
#include <arm_neon.h>

#include "filters/gauss_kernels.h"

namespace velmora {
namespace neon {

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

// The 8-bit rows are the sharpen filter's.
const GaussKernels kGauss = {BlurRow, GaussBlurRowFloat};

}  // namespace neon
}  // namespace velmora
