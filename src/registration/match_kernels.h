// Distance kernels of the descriptor matcher. Candidates are packed in panels of kPanel
// descriptors, element k of candidate j at panels[(j / kPanel) * kPanel * 64 + k * kPanel +
// j % kPanel] (the last panel padded), so that a vector variant loads element k of several
// candidates at once and gives each candidate a lane of its own: every sum keeps its order.
#ifndef VELMORA_REGISTRATION_MATCH_KERNELS_H
#define VELMORA_REGISTRATION_MATCH_KERNELS_H

#include "common/cpu.h"

namespace velmora {

constexpr int kDescriptorLength = 64;
constexpr int kPanel = 8;
constexpr int kPanelFloats = kPanel * kDescriptorLength;

// dist[j] = the distance of a to packed candidate j, j = 0 .. count - 1, each by DistanceRule.
using DistancesFn = void (*)(const float* a, const float* panels, int count, float* dist);

struct MatchKernels {
  DistancesFn distances;
};

namespace scalar {
void Distances(const float* a, const float* panels, int count, float* dist);
extern const MatchKernels kMatch;
}  // namespace scalar
namespace avx2 {
extern const MatchKernels kMatch;
}  // namespace avx2
namespace neon {
extern const MatchKernels kMatch;
}  // namespace neon

const MatchKernels& MatchKernelsFor(Isa isa);

// The distance of two descriptors, b's elements stride floats apart: each difference and its
// square in single precision, added to a double sum in index order; the float square root of
// the sum rounded to float.
float DistanceRule(const float* a, const float* b, int stride);

// Packs count descriptors into panels (malloc'd, zero padding; the caller frees them).
float* PackPanels(float* const* descriptors, int count);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_MATCH_KERNELS_H
