#include "filters/gauss_kernels.h"

#include <cstddef>

#include "common/dispatch.h"

namespace velmora {
namespace scalar {

void GaussBlurPlane8(const uint8_t* src, uint8_t* dst, int width, int height) {
  const ptrdiff_t stride = width;
  for (int r = 1; r < height - 1; ++r) {
    const uint8_t* row = src + stride * r;
    BlurRow(row - stride, row, row + stride, dst + stride * r, width);
  }
}

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

const GaussKernels kGauss = {GaussBlurPlane8, GaussBlurRowFloat};

}  // namespace scalar

const GaussKernels& GaussKernelsFor(Isa isa) {
  static const IsaTable<GaussKernels> t{&scalar::kGauss, VELMORA_AVX2(kGauss),
                                        VELMORA_NEON(kGauss)};
  return Pick(t, isa);
}

}  // namespace velmora
