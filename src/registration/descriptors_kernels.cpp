#include "registration/descriptors_kernels.h"

#include <cmath>

#include "common/dispatch.h"

namespace velmora {

float FastArctan(float dy, float dx) {
  const float ax = std::fabs(dx);
  const float ay = std::fabs(dy);
  float a;
  // An odd polynomial in the ratio of the smaller to the larger component, degrees; its error
  // (44.990456 at 45 degrees) is part of every descriptor.
  if (ax >= ay) {
    const float c = ay / (ax + kAtanEps);
    const float c2 = c * c;
    a = c * (c2 * (c2 * (c2 * kAtanC7 + kAtanC5) + kAtanC3) + kAtanC1);
  } else {
    const float c = ax / (ay + kAtanEps);
    const float c2 = c * c;
    a = 90.0f - c * (c2 * (c2 * (c2 * kAtanC7 + kAtanC5) + kAtanC3) + kAtanC1);
  }
  if (dx < 0) a = 180.0f - a;
  if (dy < 0) a = 360.0f - a;
  return a;
}

namespace scalar {

void OrientationMagnitude(const float* dx, const float* dy, float* orientation, float* magnitude,
                          int count) {
  for (int i = 0; i < count; ++i) orientation[i] = FastArctan(dy[i], dx[i]);
  for (int i = 0; i < count; ++i) magnitude[i] = std::sqrt(dx[i] * dx[i] + dy[i] * dy[i]);
}

const DescriptorKernels kDescriptor{OrientationMagnitude};

}  // namespace scalar

const DescriptorKernels& DescriptorKernelsFor(Isa isa) {
  static const IsaTable<DescriptorKernels> t{&scalar::kDescriptor, VELMORA_AVX2(kDescriptor),
                                             VELMORA_NEON(kDescriptor)};
  return Pick(t, isa);
}

}  // namespace velmora
