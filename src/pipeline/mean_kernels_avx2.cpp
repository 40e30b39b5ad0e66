// AVX2 variants of the running-mean kernels. Compiled with -mavx2 only (no FMA): each product and
// quotient is rounded on its own, exactly as in the scalar definitions.
#include <immintrin.h>

#include "pipeline/mean_kernels.h"

namespace velmora {
namespace avx2 {

void AccumulateMean(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const double folded = static_cast<double>(n);
  const double total = static_cast<double>(static_cast<int64_t>(n) + 1);
  // sample / (n + 1) takes one of 256 values per call. The table holds each of them computed by
  // the same division, so looking it up is exact and leaves one division per mean instead of two.
  double share[256];
  for (int s = 0; s < 256; ++s) share[s] = static_cast<double>(s) / total;

  const __m256d folded4 = _mm256_set1_pd(folded);
  const __m256d total4 = _mm256_set1_pd(total);
  const int64_t body = count - count % 8;
  for (int64_t i = 0; i < body; i += 8) {
    const __m256d lo = _mm256_set_pd(share[sample[i + 3]], share[sample[i + 2]],
                                     share[sample[i + 1]], share[sample[i]]);
    const __m256d hi = _mm256_set_pd(share[sample[i + 7]], share[sample[i + 6]],
                                     share[sample[i + 5]], share[sample[i + 4]]);
    const __m256d m_lo = _mm256_loadu_pd(mean + i);
    const __m256d m_hi = _mm256_loadu_pd(mean + i + 4);
    const __m256d kept_lo = _mm256_div_pd(_mm256_mul_pd(m_lo, folded4), total4);
    const __m256d kept_hi = _mm256_div_pd(_mm256_mul_pd(m_hi, folded4), total4);
    _mm256_storeu_pd(mean + i, _mm256_add_pd(kept_lo, lo));
    _mm256_storeu_pd(mean + i + 4, _mm256_add_pd(kept_hi, hi));
  }
  scalar::AccumulateMean(mean + body, sample + body, count - body, n);
}

void MeanToBytes(const double* mean, uint8_t* out, int64_t count) {
  // cvttpd2dq truncates toward zero to int32 like the scalar conversion; the low 8 bits of each
  // int32 are masked out and packed (the masked values never saturate in the packs).
  const __m128i low_byte = _mm_set1_epi32(0xFF);
  const int64_t body = count - count % 16;
  for (int64_t i = 0; i < body; i += 16) {
    const __m128i a = _mm_and_si128(_mm256_cvttpd_epi32(_mm256_loadu_pd(mean + i)), low_byte);
    const __m128i b = _mm_and_si128(_mm256_cvttpd_epi32(_mm256_loadu_pd(mean + i + 4)), low_byte);
    const __m128i c = _mm_and_si128(_mm256_cvttpd_epi32(_mm256_loadu_pd(mean + i + 8)), low_byte);
    const __m128i d = _mm_and_si128(_mm256_cvttpd_epi32(_mm256_loadu_pd(mean + i + 12)), low_byte);
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(a, b), _mm_packus_epi32(c, d));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), bytes);
  }
  scalar::MeanToBytes(mean + body, out + body, count - body);
}

}  // namespace avx2
}  // namespace velmora
