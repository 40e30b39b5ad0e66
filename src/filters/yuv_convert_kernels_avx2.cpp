// AVX2 rows of the YUV to RGB plane conversion, 32 pixels at a time; each row is finished by the
// scalar rule. Compiled with -mavx2 only (no FMA), so every product is rounded on its own and
// the float results are those of the scalar definition. The chroma terms are computed once per
// pair and then spread over the pair's two pixels: the same products, fewer of them.
#include <immintrin.h>

#include "filters/yuv_convert_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

constexpr int kStep = 32;

__m256i Load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
void Store(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Eight bytes from p as floats.
__m256 BytesToFloat(__m128i bytes) { return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes)); }

// Four groups of eight int32 as 32 bytes in index order, each saturated to 0..255 by the packs.
__m256i Narrow(const __m256i in[4]) {
  const __m256i words =
      _mm256_packus_epi16(_mm256_packus_epi32(in[0], in[1]), _mm256_packus_epi32(in[2], in[3]));
  // The packs interleave the 128-bit lanes; put the groups of four back in order.
  return _mm256_permutevar8x32_epi32(words, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// The definition clamps to 0..255 in float and then truncates. Truncating first and saturating
// the integer to 0..255 gives the same byte (values in (-1, 0) and (255, 256) truncate to the
// bound anyway), and the results stay far inside int32 (|v| < 500), so the saturating packs of
// Narrow do the clamp.
__m256i Truncate(__m256 v) { return _mm256_cvttps_epi32(v); }

// Values of eight pairs spread over their sixteen pixels: [a0 a0 a1 a1 a2 a2 a3 a3], [a4 .. a7 a7].
void Spread(__m256 a, __m256 out[2]) {
  out[0] = _mm256_permutevar8x32_ps(a, _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3));
  out[1] = _mm256_permutevar8x32_ps(a, _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7));
}

template <bool kUFirst>
void Row(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, int width) {
  const __m256 bias = _mm256_set1_ps(128.0f);
  const __m256 kRv = _mm256_set1_ps(1.370705f);
  const __m256 kGu = _mm256_set1_ps(-0.337633f);
  const __m256 kGv = _mm256_set1_ps(-0.698001f);
  const __m256 kBu = _mm256_set1_ps(1.732446f);
  // Per 128-bit lane: the eight first bytes of the pairs, then the eight second bytes.
  const __m256i split = _mm256_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15,
                                         0, 2, 4, 6, 8, 10, 12, 14, 1, 3, 5, 7, 9, 11, 13, 15);
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    // Sixteen pairs: first bytes in the low half, second bytes in the high half.
    const __m256i pairs = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(Load(uv + x), split),
                                                   _MM_SHUFFLE(3, 1, 2, 0));
    const __m128i firsts = _mm256_castsi256_si128(pairs);
    const __m128i seconds = _mm256_extracti128_si256(pairs, 1);
    const __m128i us = kUFirst ? firsts : seconds;
    const __m128i vs = kUFirst ? seconds : firsts;

    __m256 rv[4], gu[4], gv[4], bu[4];  // per pixel, in index order
    for (int half = 0; half < 2; ++half) {
      const __m256 cu = _mm256_sub_ps(BytesToFloat(half ? _mm_srli_si128(us, 8) : us), bias);
      const __m256 cv = _mm256_sub_ps(BytesToFloat(half ? _mm_srli_si128(vs, 8) : vs), bias);
      Spread(_mm256_mul_ps(cv, kRv), rv + 2 * half);
      Spread(_mm256_mul_ps(cu, kGu), gu + 2 * half);
      Spread(_mm256_mul_ps(cv, kGv), gv + 2 * half);
      Spread(_mm256_mul_ps(cu, kBu), bu + 2 * half);
    }

    const __m256i luma = Load(y + x);
    const __m128i lo = _mm256_castsi256_si128(luma);
    const __m128i hi = _mm256_extracti128_si256(luma, 1);
    const __m128i groups[4] = {lo, _mm_srli_si128(lo, 8), hi, _mm_srli_si128(hi, 8)};
    __m256i ri[4], gi[4], bi[4];
    for (int k = 0; k < 4; ++k) {
      const __m256 yf = BytesToFloat(groups[k]);
      // Addition commutes exactly, so rv + y is the definition's V' * c + Y.
      ri[k] = Truncate(_mm256_add_ps(rv[k], yf));
      gi[k] = Truncate(_mm256_add_ps(_mm256_add_ps(yf, gu[k]), gv[k]));
      bi[k] = Truncate(_mm256_add_ps(bu[k], yf));
    }
    Store(r + x, Narrow(ri));
    Store(g + x, Narrow(gi));
    Store(b + x, Narrow(bi));
  }
  // body is even, so the remaining pixels still find their pairs at (x & ~1).
  if (body < width) {
    (kUFirst ? scalar::Nv12ToRgbRow : scalar::Nv21ToRgbRow)(y + body, uv + body, r + body,
                                                            g + body, b + body, width - body);
  }
}

}  // namespace

void Nv12ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  Row<true>(y, uv, r, g, b, width);
}

void Nv21ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  Row<false>(y, uv, r, g, b, width);
}

const YuvConvertKernels kYuvConvert = {Nv12ToRgbRow, Nv21ToRgbRow};

}  // namespace avx2
}  // namespace velmora
