// AVX2 row kernels of the sharpen filter, 32 pixels at a time; each row is finished by the scalar
// rule. Compiled with -mavx2 only (no FMA): every product is rounded on its own. No library
// templates here: an instantiation built with -mavx2 could be the copy the linker keeps for all.
#include <immintrin.h>

#include "filters/sharpen_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

constexpr int kStep = 32;

__m256i Load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
void Store(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// The 32 bytes of v as four groups of eight int32, in index order.
void Widen(__m256i v, __m256i out[4]) {
  const __m128i lo = _mm256_castsi256_si128(v);
  const __m128i hi = _mm256_extracti128_si256(v, 1);
  out[0] = _mm256_cvtepu8_epi32(lo);
  out[1] = _mm256_cvtepu8_epi32(_mm_srli_si128(lo, 8));
  out[2] = _mm256_cvtepu8_epi32(hi);
  out[3] = _mm256_cvtepu8_epi32(_mm_srli_si128(hi, 8));
}

// Inverse of Widen for values 0..255.
__m256i Narrow(const __m256i in[4]) {
  const __m256i words =
      _mm256_packus_epi16(_mm256_packus_epi32(in[0], in[1]), _mm256_packus_epi32(in[2], in[3]));
  // The packs interleave the 128-bit lanes; put the groups of four back in order.
  return _mm256_permutevar8x32_epi32(words, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// Which pixels are sharpened: |y - b| > threshold, as a byte mask.
struct Threshold {
  explicit Threshold(int threshold)
      : limit(_mm256_set1_epi8(static_cast<char>(threshold < 0 ? 0 : threshold > 255 ? 255 : threshold))),
        can_keep(_mm256_set1_epi8(threshold < 0 ? 0 : -1)) {}
  __m256i Sharpened(__m256i y, __m256i b) const {
    const __m256i d = _mm256_or_si256(_mm256_subs_epu8(y, b), _mm256_subs_epu8(b, y));
    const __m256i within = _mm256_cmpeq_epi8(_mm256_min_epu8(d, limit), d);  // d <= limit
    // A negative threshold sharpens every pixel, 0 included.
    return _mm256_andnot_si256(_mm256_and_si256(within, can_keep), _mm256_set1_epi8(-1));
  }
  __m256i limit;
  __m256i can_keep;
};

// New luma of 32 pixels as int32 groups: clamp(trunc((amount + 1) * y - b * amount), 0, 255).
// Clamping in float before the truncation gives the same bytes as the saturating truncation
// followed by the integer clamp, NaN included (max_ps returns its second operand, 0).
struct LumaRule {
  explicit LumaRule(float amount)
      : gain(_mm256_set1_ps(amount + 1.0f)), amount(_mm256_set1_ps(amount)) {}
  void Apply(__m256i y, __m256i b, __m256i out[4]) const {
    __m256i yi[4], bi[4];
    Widen(y, yi);
    Widen(b, bi);
    for (int k = 0; k < 4; ++k) {
      const __m256 lifted = _mm256_mul_ps(gain, _mm256_cvtepi32_ps(yi[k]));
      const __m256 lowered = _mm256_mul_ps(_mm256_cvtepi32_ps(bi[k]), amount);
      const __m256 v = _mm256_sub_ps(lifted, lowered);
      const __m256 clamped =
          _mm256_min_ps(_mm256_max_ps(v, _mm256_setzero_ps()), _mm256_set1_ps(255.0f));
      out[k] = _mm256_cvttps_epi32(clamped);
    }
  }
  __m256 gain;
  __m256 amount;
};

// The ratio n / (y2 + 1e-5) of eight pixels, divided in double and rounded to float.
__m256 Ratio(__m256i n, __m256i y2) {
  const __m256d eps = _mm256_set1_pd(1e-5);
  const __m256d lo =
      _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(n)),
                    _mm256_add_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(y2)), eps));
  const __m256d hi =
      _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(n, 1)),
                    _mm256_add_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(y2, 1)), eps));
  return _mm256_set_m128(_mm256_cvtpd_ps(hi), _mm256_cvtpd_ps(lo));
}

// Low 8 bits (in an int32) of (uv - 128) * ratio + 128 truncated with saturation. cvttps2dq
// yields 0x80000000 out of range and for NaN, whose low byte already matches INT32_MIN and 0;
// only the positive overflow needs INT32_MAX's low byte, 0xFF.
__m256i Chroma(__m256i uv, __m256 ratio) {
  const __m256 centred = _mm256_cvtepi32_ps(_mm256_sub_epi32(uv, _mm256_set1_epi32(128)));
  const __m256 cv = _mm256_add_ps(_mm256_mul_ps(centred, ratio), _mm256_set1_ps(128.0f));
  const __m256i overflow =
      _mm256_castps_si256(_mm256_cmp_ps(cv, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ));
  const __m256i truncated = _mm256_or_si256(_mm256_cvttps_epi32(cv), overflow);
  return _mm256_and_si256(truncated, _mm256_set1_epi32(0xFF));
}

}  // namespace

void BlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
             int width) {
  // Outputs 1 .. width - 2; a step reads one byte either side of its 32 outputs.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % kStep;
  const __m256i zero = _mm256_setzero_si256();
  for (int x = 1; x < 1 + body; x += kStep) {
    // Column sums a + 2r + b at offsets -1, 0, +1, in 16-bit lanes. Unpacking against zero
    // interleaves the lanes, and the final pack undoes it.
    __m256i lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
      const int at = x - 1 + k;
      const __m256i a = Load(above + at), r = Load(row + at), b = Load(below + at);
      lo[k] = _mm256_add_epi16(
          _mm256_add_epi16(_mm256_unpacklo_epi8(a, zero), _mm256_unpacklo_epi8(b, zero)),
          _mm256_slli_epi16(_mm256_unpacklo_epi8(r, zero), 1));
      hi[k] = _mm256_add_epi16(
          _mm256_add_epi16(_mm256_unpackhi_epi8(a, zero), _mm256_unpackhi_epi8(b, zero)),
          _mm256_slli_epi16(_mm256_unpackhi_epi8(r, zero), 1));
    }
    // sum <= 4080, so sum / 16 <= 255 and the saturating pack is the clamp.
    const __m256i sum_lo =
        _mm256_add_epi16(_mm256_add_epi16(lo[0], lo[2]), _mm256_slli_epi16(lo[1], 1));
    const __m256i sum_hi =
        _mm256_add_epi16(_mm256_add_epi16(hi[0], hi[2]), _mm256_slli_epi16(hi[1], 1));
    Store(out + x, _mm256_packus_epi16(_mm256_srli_epi16(sum_lo, 4), _mm256_srli_epi16(sum_hi, 4)));
  }
  // The scalar rule on the rest: its output 1 is ours at 1 + body.
  if (body < outputs)
    scalar::BlurRow(above + body, row + body, below + body, out + body, width - body);
}

void SharpenLumaRow(const uint8_t* src_y, const uint8_t* blur, uint8_t* dst_y, int width,
                    int threshold, float amount) {
  const Threshold test(threshold);
  const LumaRule rule(amount);
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    const __m256i y = Load(src_y + x), b = Load(blur + x);
    __m256i n[4];
    rule.Apply(y, b, n);
    Store(dst_y + x, _mm256_blendv_epi8(y, Narrow(n), test.Sharpened(y, b)));
  }
  scalar::SharpenLumaRow(src_y + body, blur + body, dst_y + body, width - body, threshold, amount);
}

void SharpenChromaRow(const uint8_t* src_y, const uint8_t* blur, const uint8_t* src_uv,
                      uint8_t* dst_y, uint8_t* dst_uv, int width, int threshold, float amount) {
  const Threshold test(threshold);
  const LumaRule rule(amount);
  // The luma re-read after the write is the new value in place, the old one otherwise.
  const bool in_place = dst_y == src_y;
  const int body = width - width % kStep;
  for (int x = 0; x < body; x += kStep) {
    const __m256i y = Load(src_y + x), b = Load(blur + x), uv = Load(src_uv + x);
    const __m256i sharpened = test.Sharpened(y, b);
    if (_mm256_testz_si256(sharpened, sharpened)) {  // nothing to change here
      Store(dst_y + x, y);
      Store(dst_uv + x, uv);
      continue;
    }
    __m256i n[4], y2[4], c[4], uvi[4];
    rule.Apply(y, b, n);
    if (in_place) {
      for (int k = 0; k < 4; ++k) y2[k] = n[k];
    } else {
      Widen(y, y2);
    }
    Widen(uv, uvi);
    for (int k = 0; k < 4; ++k) c[k] = Chroma(uvi[k], Ratio(n[k], y2[k]));
    Store(dst_y + x, _mm256_blendv_epi8(y, Narrow(n), sharpened));
    Store(dst_uv + x, _mm256_blendv_epi8(uv, Narrow(c), sharpened));
  }
  scalar::SharpenChromaRow(src_y + body, blur + body, src_uv + body, dst_y + body, dst_uv + body,
                           width - body, threshold, amount);
}

const SharpenKernels kSharpen{BlurRow, SharpenLumaRow, SharpenChromaRow};

}  // namespace avx2
}  // namespace velmora
