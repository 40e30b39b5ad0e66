// Per-sample kernels of the descriptor: the gradient orientation by the fast arctangent and the
// gradient magnitude over flat sample arrays. The scalar functions are the definitions; the ISA
// variants give bit-identical results and finish with the scalar rule.
#ifndef VELMORA_REGISTRATION_DESCRIPTORS_KERNELS_H
#define VELMORA_REGISTRATION_DESCRIPTORS_KERNELS_H

#include "common/cpu.h"

namespace velmora {

// For i in 0 .. count - 1: orientation[i] = FastArctan(dy[i], dx[i]) in degrees [0, 360) and
// magnitude[i] = sqrt(dx[i]^2 + dy[i]^2), all in single precision. Outputs must not overlap the
// inputs.
using OrientationMagnitudeFn = void (*)(const float* dx, const float* dy, float* orientation,
                                        float* magnitude, int count);

struct DescriptorKernels {
  OrientationMagnitudeFn orientation_magnitude;
};

namespace scalar {
void OrientationMagnitude(const float* dx, const float* dy, float* orientation, float* magnitude,
                          int count);
extern const DescriptorKernels kDescriptor;
}  // namespace scalar
namespace avx2 {
extern const DescriptorKernels kDescriptor;
}  // namespace avx2
namespace neon {
extern const DescriptorKernels kDescriptor;
}  // namespace neon

const DescriptorKernels& DescriptorKernelsFor(Isa isa);

// The fast arctangent of one sample (the rule the kernels apply element by element).
float FastArctan(float dy, float dx);

// The polynomial's constants and the guard against a zero denominator (single precision).
constexpr float kAtanEps = 2.220446e-16f;
constexpr float kAtanC1 = 57.283627f;
constexpr float kAtanC3 = -18.667446f;
constexpr float kAtanC5 = 8.9140005f;
constexpr float kAtanC7 = -2.5397246f;

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_DESCRIPTORS_KERNELS_H
