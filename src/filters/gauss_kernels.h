// Row kernels of the 3x3 blurs. The scalar functions are the definitions; the ISA variants give
// bit-identical results and finish their rows with the scalar rule.
#ifndef VELMORA_FILTERS_GAUSS_KERNELS_H
#define VELMORA_FILTERS_GAUSS_KERNELS_H

#include "common/cpu.h"
#include "filters/sharpen_kernels.h"

namespace velmora {

// The 8-bit blur is the sharpen filter's: its scalar BlurRow (BlurRowFn) is the definition for
// both. The vector GaussBlurRow variants give the same bytes with each column sum formed once
// instead of three times.

// out[x] for x = 1 .. width - 2: the 3x3 neighbourhood weighted 0.0947416f at the corners,
// 0.118318f at the edges and 0.147761f at the centre, summed in single precision from 0.0 in
// reading order (top-left .. bottom-right), each product rounded before it is added.
// out[0] and out[width - 1] are not written. Needs width >= 3.
using BlurRowFloatFn = void (*)(const float* above, const float* row, const float* below,
                                float* out, int width);

// The sampled Gaussian of standard deviation 1.5, normalised over the 3x3 window (the three
// rounded weights sum to slightly below 1).
constexpr float kGaussCorner = 0.0947416f;
constexpr float kGaussEdge = 0.118318f;
constexpr float kGaussCentre = 0.147761f;

struct GaussKernels {
  BlurRowFn blur_row;
  BlurRowFloatFn blur_row_f;
};

#define VELMORA_GAUSS_KERNELS                                                              \
  void GaussBlurRowFloat(const float* above, const float* row, const float* below, float* out, \
                         int width);                                                       \
  extern const GaussKernels kGauss;

namespace scalar {
VELMORA_GAUSS_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_GAUSS_KERNELS
void GaussBlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
                  int width);
}  // namespace avx2
namespace neon {
VELMORA_GAUSS_KERNELS
void GaussBlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
                  int width);
}  // namespace neon

#undef VELMORA_GAUSS_KERNELS

const GaussKernels& GaussKernelsFor(Isa isa);

// The exported blurs over a given kernel table.
void GaussBlurPlane(const GaussKernels& k, const uint8_t* src, uint8_t* dst, int width,
                    int height);
void GaussBlurPlane(const GaussKernels& k, const float* src, float* dst, int width, int height);

}  // namespace velmora

#endif  // VELMORA_FILTERS_GAUSS_KERNELS_H
