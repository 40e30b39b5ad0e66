#include "filters/gauss_kernels.h"

namespace velmora {
namespace scalar {

void GaussBlurRowFloat(const float* above, const float* row, const float* below, float* out,
                       int width) {
  for (int x = 1; x < width - 1; ++x) {
    float sum = 0.0f;
    sum += kGaussCorner * above[x - 1];
    sum += kGaussEdge * above[x];
    sum += kGaussCorner * above[x + 1];
    sum += kGaussEdge * row[x - 1];
    sum += kGaussCentre * row[x];
    sum += kGaussEdge * row[x + 1];
    sum += kGaussCorner * below[x - 1];
    sum += kGaussEdge * below[x];
    sum += kGaussCorner * below[x + 1];
    out[x] = sum;
  }
}

const GaussKernels kGauss = {BlurRow, GaussBlurRowFloat};

}  // namespace scalar

const GaussKernels& GaussKernelsFor(Isa isa) {
  switch (isa) {
#if defined(VELMORA_HAVE_AVX2)
    case Isa::kAvx2:
      return avx2::kGauss;
#endif
#if defined(VELMORA_HAVE_NEON)
    case Isa::kNeon:
      return neon::kGauss;
#endif
    default:
      return scalar::kGauss;
  }
}

}  // namespace velmora
