// AVX2 distances, one candidate per lane: element k of eight candidates is one load, its squared
// difference is widened to double and added to that candidate's own sum, so every sum runs in
// index order exactly as the scalar rule. Two panels at a time keep four addition chains in
// flight. Candidates past the last full panel take the scalar rule.
#include <immintrin.h>

#include <cstddef>

#include "registration/match_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

// The float square roots of eight double sums rounded to float.
__m256 Finish(__m256d lo, __m256d hi) {
  const __m256 sums = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(lo)),
                                           _mm256_cvtpd_ps(hi), 1);
  return _mm256_sqrt_ps(sums);
}

void Distances(const float* a, const float* panels, int count, float* dist) {
  const int full = count / kPanel;
  int p = 0;
  for (; p + 2 <= full; p += 2) {
    const float* b0 = panels + static_cast<size_t>(p) * kPanelFloats;
    const float* b1 = b0 + kPanelFloats;
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    __m256d s2 = _mm256_setzero_pd(), s3 = _mm256_setzero_pd();
    for (int k = 0; k < kDescriptorLength; ++k) {
      const __m256 ak = _mm256_broadcast_ss(a + k);
      const __m256 d0 = _mm256_sub_ps(ak, _mm256_loadu_ps(b0 + k * kPanel));
      const __m256 d1 = _mm256_sub_ps(ak, _mm256_loadu_ps(b1 + k * kPanel));
      const __m256 q0 = _mm256_mul_ps(d0, d0);
      const __m256 q1 = _mm256_mul_ps(d1, d1);
      s0 = _mm256_add_pd(s0, _mm256_cvtps_pd(_mm256_castps256_ps128(q0)));
      s1 = _mm256_add_pd(s1, _mm256_cvtps_pd(_mm256_extractf128_ps(q0, 1)));
      s2 = _mm256_add_pd(s2, _mm256_cvtps_pd(_mm256_castps256_ps128(q1)));
      s3 = _mm256_add_pd(s3, _mm256_cvtps_pd(_mm256_extractf128_ps(q1, 1)));
    }
    _mm256_storeu_ps(dist + p * kPanel, Finish(s0, s1));
    _mm256_storeu_ps(dist + (p + 1) * kPanel, Finish(s2, s3));
  }
  for (; p < full; ++p) {
    const float* b = panels + static_cast<size_t>(p) * kPanelFloats;
    __m256d s0 = _mm256_setzero_pd(), s1 = _mm256_setzero_pd();
    for (int k = 0; k < kDescriptorLength; ++k) {
      const __m256 d = _mm256_sub_ps(_mm256_broadcast_ss(a + k), _mm256_loadu_ps(b + k * kPanel));
      const __m256 q = _mm256_mul_ps(d, d);
      s0 = _mm256_add_pd(s0, _mm256_cvtps_pd(_mm256_castps256_ps128(q)));
      s1 = _mm256_add_pd(s1, _mm256_cvtps_pd(_mm256_extractf128_ps(q, 1)));
    }
    _mm256_storeu_ps(dist + p * kPanel, Finish(s0, s1));
  }
  for (int j = full * kPanel; j < count; ++j) {
    dist[j] = DistanceRule(a, panels + static_cast<size_t>(full) * kPanelFloats + j % kPanel,
                           kPanel);
  }
}

}  // namespace

const MatchKernels kMatch{Distances};

}  // namespace avx2
}  // namespace velmora
