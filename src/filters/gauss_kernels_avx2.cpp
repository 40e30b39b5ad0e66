// AVX2 rows of the float 3x3 blur, eight pixels at a time; each row is finished by the scalar
// rule. Compiled with -mavx2 only (no FMA): every product is rounded before it is added.
#include <immintrin.h>

#include "filters/gauss_kernels.h"

namespace velmora {
namespace avx2 {

void GaussBlurRowFloat(const float* above, const float* row, const float* below, float* out,
                       int width) {
  constexpr int kStep = 8;
  // Outputs 1 .. width - 2; a step reads one float either side of its eight outputs.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  const __m256 corner = _mm256_set1_ps(kGaussCorner);
  const __m256 edge = _mm256_set1_ps(kGaussEdge);
  const __m256 centre = _mm256_set1_ps(kGaussCentre);
  for (int x = 1; x < 1 + body; x += kStep) {
    // The definition's order, lane by lane: from 0.0, top-left to bottom-right.
    __m256 sum = _mm256_setzero_ps();
    sum = _mm256_add_ps(sum, _mm256_mul_ps(corner, _mm256_loadu_ps(above + x - 1)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(edge, _mm256_loadu_ps(above + x)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(corner, _mm256_loadu_ps(above + x + 1)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(edge, _mm256_loadu_ps(row + x - 1)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(centre, _mm256_loadu_ps(row + x)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(edge, _mm256_loadu_ps(row + x + 1)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(corner, _mm256_loadu_ps(below + x - 1)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(edge, _mm256_loadu_ps(below + x)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(corner, _mm256_loadu_ps(below + x + 1)));
    _mm256_storeu_ps(out + x, sum);
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::GaussBlurRowFloat(above + body, row + body, below + body, out + body, width - body);
}

// The 8-bit rows are the sharpen filter's.
const GaussKernels kGauss = {BlurRow, GaussBlurRowFloat};

}  // namespace avx2
}  // namespace velmora
