#include "registration/match_kernels.h"

#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "common/dispatch.h"

namespace velmora {

float DistanceRule(const float* a, const float* b, int stride) {
  double sum = 0.0;
  for (int k = 0; k < kDescriptorLength; ++k) {
    const float diff = a[k] - b[k * stride];
    sum += static_cast<double>(diff * diff);
  }
  return std::sqrt(static_cast<float>(sum));
}

float* PackPanels(float* const* descriptors, int count) {
  const int panels = (count + kPanel - 1) / kPanel;
  float* packed = static_cast<float*>(std::calloc(static_cast<size_t>(panels) * kPanelFloats,
                                                  sizeof(float)));
  for (int j = 0; j < count; ++j) {
    float* lane = packed + static_cast<size_t>(j / kPanel) * kPanelFloats + j % kPanel;
    for (int k = 0; k < kDescriptorLength; ++k) lane[k * kPanel] = descriptors[j][k];
  }
  return packed;
}

namespace scalar {

void Distances(const float* a, const float* panels, int count, float* dist) {
  for (int j = 0; j < count; ++j) {
    dist[j] = DistanceRule(a, panels + static_cast<size_t>(j / kPanel) * kPanelFloats + j % kPanel,
                           kPanel);
  }
}

const MatchKernels kMatch{Distances};

}  // namespace scalar

const MatchKernels& MatchKernelsFor(Isa isa) {
  static const IsaTable<MatchKernels> t{&scalar::kMatch, VELMORA_AVX2(kMatch), VELMORA_NEON(kMatch)};
  return Pick(t, isa);
}

}  // namespace velmora
