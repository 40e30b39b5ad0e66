// Row kernels of the 3x3 blurs. The scalar functions are the definitions; the ISA variants give
// bit-identical results and finish their rows with the scalar rule.
#ifndef VELMORA_FILTERS_GAUSS_KERNELS_H
#define VELMORA_FILTERS_GAUSS_KERNELS_H

#include "common/cpu.h"
#include "filters/sharpen_kernels.h"

namespace velmora {

// The 8-bit blur is the sharpen filter's: its scalar BlurRow (BlurRowFn) is the definition for
// both. The plain plane function runs it on every interior row. The vector variants give the
// same bytes from the separable sum, row after row down the plane: each source row's horizontal
// 1 2 1 sums are formed once (not three times, as a blur straight from the rows would), and the
// vertical 1 2 1 adds the pair sums of the rows before and after, kept in a small ring. Integer
// sums of at most 4080 are exact in any order.

// dst = the 8-bit blur of the width x height plane src (interior pixels only; the border rows
// and columns of dst keep what they held). dst must not overlap src. Needs width >= 3 and
// height >= 3.
using BlurPlaneFn = void (*)(const uint8_t* src, uint8_t* dst, int width, int height);

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
  BlurPlaneFn blur_plane;
  BlurRowFloatFn blur_row_f;
};

#define VELMORA_GAUSS_KERNELS                                                              \
  void GaussBlurPlane8(const uint8_t* src, uint8_t* dst, int width, int height);            \
  void GaussBlurRowFloat(const float* above, const float* row, const float* below, float* out, \
                         int width);                                                       \
  extern const GaussKernels kGauss;

namespace scalar {
VELMORA_GAUSS_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_GAUSS_KERNELS
}  // namespace avx2
namespace neon {
VELMORA_GAUSS_KERNELS
}  // namespace neon

#undef VELMORA_GAUSS_KERNELS

const GaussKernels& GaussKernelsFor(Isa isa);

// The exported blurs over a given kernel table.
void GaussBlurPlane(const GaussKernels& k, const uint8_t* src, uint8_t* dst, int width,
                    int height);
void GaussBlurPlane(const GaussKernels& k, const float* src, float* dst, int width, int height);

}  // namespace velmora

#endif  // VELMORA_FILTERS_GAUSS_KERNELS_H
