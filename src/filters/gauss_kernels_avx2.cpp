// AVX2 rows of the 3x3 blurs, 32 bytes or eight floats at a time; each row is finished by the
// scalar rule. Compiled with -mavx2 only (no FMA): every product is rounded before it is added.
#include <immintrin.h>

#include <algorithm>

#include "filters/gauss_kernels.h"

namespace velmora {
namespace avx2 {

void GaussBlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
                  int width) {
  constexpr int kStep = 32;
  constexpr int kChunk = 512;  // outputs per pass over the column sums, which stay in L1
  // Outputs 1 .. width - 2, the body in whole steps.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  // Column sums a + 2r + b of columns x0 - 1 .. x0 + n, in natural order: each is formed once and
  // read by three outputs, where a blur straight from the rows would form it three times.
  alignas(32) uint16_t sums[kChunk + 2];
  for (int x0 = 1; x0 < 1 + body; x0 += kChunk) {
    const int n = std::min(kChunk, 1 + body - x0);
    const int c0 = x0 - 1;
    // n / 16 groups cover columns c0 .. c0 + n - 1 without reading past the row; the last two
    // columns are summed one by one.
    for (int j = 0; j < n; j += 16) {
      const __m128i* at = reinterpret_cast<const __m128i*>(above + c0 + j);
      const __m128i* rt = reinterpret_cast<const __m128i*>(row + c0 + j);
      const __m128i* bt = reinterpret_cast<const __m128i*>(below + c0 + j);
      const __m256i a = _mm256_cvtepu8_epi16(_mm_loadu_si128(at));
      const __m256i r = _mm256_cvtepu8_epi16(_mm_loadu_si128(rt));
      const __m256i b = _mm256_cvtepu8_epi16(_mm_loadu_si128(bt));
      const __m256i sum = _mm256_add_epi16(_mm256_add_epi16(a, b), _mm256_add_epi16(r, r));
      _mm256_store_si256(reinterpret_cast<__m256i*>(sums + j), sum);
    }
    for (int c = c0 + n; c < c0 + n + 2; ++c) {
      sums[c - c0] = static_cast<uint16_t>(above[c] + 2 * row[c] + below[c]);
    }
    // Output x0 + i = (sums[i] + 2 sums[i + 1] + sums[i + 2]) / 16; at most 4080 / 16 = 255,
    // so the saturating pack is the clamp.
    for (int i = 0; i < n; i += kStep) {
      __m256i half[2];
      for (int h = 0; h < 2; ++h) {
        const uint16_t* s = sums + i + 16 * h;
        const __m256i left = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
        const __m256i mid = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 1));
        const __m256i right = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 2));
        const __m256i total =
            _mm256_add_epi16(_mm256_add_epi16(left, right), _mm256_add_epi16(mid, mid));
        half[h] = _mm256_srli_epi16(total, 4);
      }
      // The pack interleaves the 128-bit lanes; put the quarters back in order.
      const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(half[0], half[1]), 0xD8);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x0 + i), bytes);
    }
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::BlurRow(above + body, row + body, below + body, out + body, width - body);
}

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

const GaussKernels kGauss = {GaussBlurRow, GaussBlurRowFloat};

}  // namespace avx2
}  // namespace velmora
