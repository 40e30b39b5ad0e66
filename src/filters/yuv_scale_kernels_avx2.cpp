// AVX2 rows of the bilinear resampler, eight samples at a time; each row is finished by the
// scalar rule. The neighbours of a sample are fetched with one 32-bit gather per source row
// (x0 and x0 + 1 are adjacent bytes, two adjacent pairs are four), so the body stops where such
// a gather would reach past the row. Compiled with -mavx2 only (no FMA): every product is
// rounded on its own, as in the definition.
#include <immintrin.h>

#include "filters/yuv_scale_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

constexpr int kStep = 8;

// The first index in [begin, end) from which trunc(sx * scale * i) exceeds last, rounded down
// to whole steps from begin: the positions before it are safe to gather. The truncated
// position does not decrease with i, so the search walks back from end.
int BodyEnd(float sx, int scale, int last, int begin, int end) {
  int body = end;
  while (body > begin && static_cast<int>(sx * static_cast<float>(body - 1)) * scale > last) --body;
  return body - (body - begin) % kStep;
}

// Byte n (0..3) of each 32-bit lane, as floats.
__m256 ByteOf(__m256i v, int n) {
  const __m256i shifted = n == 0   ? v
                          : n == 1 ? _mm256_srli_epi32(v, 8)
                          : n == 2 ? _mm256_srli_epi32(v, 16)
                                   : _mm256_srli_epi32(v, 24);
  return _mm256_cvtepi32_ps(_mm256_and_si256(shifted, _mm256_set1_epi32(0xFF)));
}

// The definition's rule: across the row first, then down, each product rounded; truncated.
__m256i Bilinear(__m256 wx, __m256 wy, __m256 p00, __m256 p01, __m256 p10, __m256 p11) {
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 ux = _mm256_sub_ps(one, wx);
  const __m256 top = _mm256_add_ps(_mm256_mul_ps(ux, p00), _mm256_mul_ps(wx, p01));
  const __m256 bottom = _mm256_add_ps(_mm256_mul_ps(ux, p10), _mm256_mul_ps(wx, p11));
  const __m256 v =
      _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, wy), top), _mm256_mul_ps(wy, bottom));
  return _mm256_cvttps_epi32(v);
}

__m256i Gather(const uint8_t* base, __m256i offsets) {
  return _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), offsets, 1);
}

}  // namespace

void LinearLumaRow(const uint8_t* row0, const uint8_t* row1, uint8_t* out, int src_width, float sx,
                   float wy, int begin, int end) {
  // x0 + 3 within the row: then x1 = x0 + 1 needs no limit either.
  const int body = BodyEnd(sx, 1, src_width - 4, begin, end);
  const __m256 vsx = _mm256_set1_ps(sx), vwy = _mm256_set1_ps(wy);
  __m256i index =
      _mm256_add_epi32(_mm256_set1_epi32(begin), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  for (int i = begin; i < body; i += kStep) {
    const __m256 fx = _mm256_mul_ps(vsx, _mm256_cvtepi32_ps(index));
    const __m256i x0 = _mm256_cvttps_epi32(fx);
    const __m256 wx = _mm256_sub_ps(fx, _mm256_cvtepi32_ps(x0));
    const __m256i g0 = Gather(row0, x0), g1 = Gather(row1, x0);
    const __m256i v = Bilinear(wx, vwy, ByteOf(g0, 0), ByteOf(g0, 1), ByteOf(g1, 0), ByteOf(g1, 1));
    // Values 0..255: the packs keep them, lanes 0-3 and 4-7 land in dwords 0 and 4.
    const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(v, v), _mm256_setzero_si256());
    const __m256i both =
        _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm256_castsi256_si128(both));
    index = _mm256_add_epi32(index, _mm256_set1_epi32(kStep));
  }
  scalar::LinearLumaRow(row0, row1, out, src_width, sx, wy, body, end);
}

void LinearChromaRow(const uint8_t* pairs0, const uint8_t* pairs1, uint8_t* out, int src_pairs,
                     float sx, float wy, int begin, int end) {
  // Pairs cx0 and cx0 + 1 (bytes 2 cx0 .. 2 cx0 + 3) within the row: cx1 needs no limit.
  const int body = BodyEnd(sx, 2, 2 * src_pairs - 4, begin, end);
  const __m256 vsx = _mm256_set1_ps(sx), vwy = _mm256_set1_ps(wy);
  __m256i index =
      _mm256_add_epi32(_mm256_set1_epi32(begin), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  for (int k = begin; k < body; k += kStep) {
    // The weight of luma column 2k, as in the definition.
    const __m256 fx = _mm256_mul_ps(vsx, _mm256_cvtepi32_ps(_mm256_add_epi32(index, index)));
    const __m256 wx = _mm256_sub_ps(fx, _mm256_cvtepi32_ps(_mm256_cvttps_epi32(fx)));
    const __m256i cx0 = _mm256_cvttps_epi32(_mm256_mul_ps(vsx, _mm256_cvtepi32_ps(index)));
    const __m256i offsets = _mm256_add_epi32(cx0, cx0);
    const __m256i g0 = Gather(pairs0, offsets), g1 = Gather(pairs1, offsets);
    // Bytes 0 and 1 are pair cx0, bytes 2 and 3 pair cx1.
    const __m256i first =
        Bilinear(wx, vwy, ByteOf(g0, 0), ByteOf(g0, 2), ByteOf(g1, 0), ByteOf(g1, 2));
    const __m256i second =
        Bilinear(wx, vwy, ByteOf(g0, 1), ByteOf(g0, 3), ByteOf(g1, 1), ByteOf(g1, 3));
    // Each pair as one 16-bit word, then the eight words in order.
    const __m256i words = _mm256_or_si256(first, _mm256_slli_epi32(second, 8));
    const __m256i packed =
        _mm256_permute4x64_epi64(_mm256_packus_epi32(words, words), _MM_SHUFFLE(3, 1, 2, 0));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * k), _mm256_castsi256_si128(packed));
    index = _mm256_add_epi32(index, _mm256_set1_epi32(kStep));
  }
  scalar::LinearChromaRow(pairs0, pairs1, out, src_pairs, sx, wy, body, end);
}

const YuvScaleKernels kYuvScale = {LinearLumaRow, LinearChromaRow};

}  // namespace avx2
}  // namespace velmora
