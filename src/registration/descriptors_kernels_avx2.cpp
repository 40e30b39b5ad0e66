// AVX2 descriptor sample kernels, eight samples at a time; the remainder takes the scalar rule.
// Compiled with -mavx2 only (no FMA): every product is rounded on its own, and the division and
// square root are the exact IEEE ones.
#include <immintrin.h>

#include "registration/descriptors_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

void OrientationMagnitude(const float* dx, const float* dy, float* orientation, float* magnitude,
                          int count) {
  const __m256 sign = _mm256_set1_ps(-0.0f);
  const __m256 zero = _mm256_setzero_ps();
  const __m256 eps = _mm256_set1_ps(kAtanEps);
  const __m256 c1 = _mm256_set1_ps(kAtanC1), c3 = _mm256_set1_ps(kAtanC3);
  const __m256 c5 = _mm256_set1_ps(kAtanC5), c7 = _mm256_set1_ps(kAtanC7);
  int i = 0;
  for (; i + 8 <= count; i += 8) {
    const __m256 x = _mm256_loadu_ps(dx + i);
    const __m256 y = _mm256_loadu_ps(dy + i);
    const __m256 ax = _mm256_andnot_ps(sign, x);
    const __m256 ay = _mm256_andnot_ps(sign, y);
    // Both branches of the scalar rule share the polynomial; only its argument and the final
    // reflection differ, so pick the operands first and the result last.
    const __m256 x_wins = _mm256_cmp_ps(ax, ay, _CMP_GE_OQ);
    const __m256 num = _mm256_blendv_ps(ax, ay, x_wins);
    const __m256 den = _mm256_blendv_ps(ay, ax, x_wins);
    const __m256 c = _mm256_div_ps(num, _mm256_add_ps(den, eps));
    const __m256 c2 = _mm256_mul_ps(c, c);
    __m256 p = _mm256_add_ps(_mm256_mul_ps(c2, c7), c5);
    p = _mm256_add_ps(_mm256_mul_ps(c2, p), c3);
    p = _mm256_add_ps(_mm256_mul_ps(c2, p), c1);
    p = _mm256_mul_ps(c, p);
    __m256 a = _mm256_blendv_ps(_mm256_sub_ps(_mm256_set1_ps(90.0f), p), p, x_wins);
    a = _mm256_blendv_ps(a, _mm256_sub_ps(_mm256_set1_ps(180.0f), a),
                         _mm256_cmp_ps(x, zero, _CMP_LT_OQ));
    a = _mm256_blendv_ps(a, _mm256_sub_ps(_mm256_set1_ps(360.0f), a),
                         _mm256_cmp_ps(y, zero, _CMP_LT_OQ));
    _mm256_storeu_ps(orientation + i, a);
    const __m256 m2 = _mm256_add_ps(_mm256_mul_ps(x, x), _mm256_mul_ps(y, y));
    _mm256_storeu_ps(magnitude + i, _mm256_sqrt_ps(m2));
  }
  scalar::OrientationMagnitude(dx + i, dy + i, orientation + i, magnitude + i, count - i);
}

}  // namespace

const DescriptorKernels kDescriptor{OrientationMagnitude};

}  // namespace avx2
}  // namespace velmora
