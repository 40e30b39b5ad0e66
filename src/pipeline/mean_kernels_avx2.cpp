// AVX2 variants of the running-mean kernels. Compiled with -mavx2 only (no FMA): each product and
// quotient is rounded on its own, exactly as in the scalar definitions. No library templates
// here: an instantiation built with -mavx2 could be the copy the linker keeps for all.
#include <immintrin.h>

#include "pipeline/mean_kernels.h"

namespace velmora {
namespace avx2 {

namespace {

constexpr int64_t kPrefetchAhead = 512;  // doubles, 4 KiB

// The vector body over the first count - count % 8 entries; returns how many it did. With
// kDivide false the division by n + 1 = 1 is left out: it is exact and changes nothing, NaN
// payloads included.
template <bool kDivide>
int64_t FoldBody(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const double total = static_cast<double>(static_cast<int64_t>(n) + 1);
  double share[256];
  FoldShares(n, share);

  const __m256d folded4 = _mm256_set1_pd(static_cast<double>(n));
  const __m256d total4 = _mm256_set1_pd(total);
  const int64_t body = count - count % 8;
  for (int64_t i = 0; i < body; i += 8) {
    // The lookups fill the out-of-order window, leaving too few cache misses in flight for the
    // hardware prefetcher alone; fetching the means ahead keeps memory busy.
    _mm_prefetch(reinterpret_cast<const char*>(mean + i + kPrefetchAhead), _MM_HINT_T0);
    for (int64_t j = i; j < i + 8; j += 4) {
      const __m256d shares = _mm256_set_pd(share[sample[j + 3]], share[sample[j + 2]],
                                           share[sample[j + 1]], share[sample[j]]);
      __m256d kept = _mm256_mul_pd(_mm256_loadu_pd(mean + j), folded4);
      if (kDivide) kept = _mm256_div_pd(kept, total4);
      _mm256_storeu_pd(mean + j, _mm256_add_pd(kept, shares));
    }
  }
  return body;
}

}  // namespace

void AccumulateMean(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const int64_t body =
      n == 0 ? FoldBody<false>(mean, sample, count, n) : FoldBody<true>(mean, sample, count, n);
  scalar::AccumulateMean(mean + body, sample + body, count - body, n);
}

VELMORA_READS_MEANS_UNLOCKED void MeanToBytes(const double* mean, uint8_t* out, int64_t count) {
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

const MeanKernels kMean{AccumulateMean, MeanToBytes};

}  // namespace avx2
}  // namespace velmora
