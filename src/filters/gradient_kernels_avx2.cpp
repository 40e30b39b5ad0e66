// AVX2 variants of the gradient kernels: 16 Sobel pixels or 8 floats at a time, each row or array
// finished by the scalar rule. Compiled with -mavx2 only (no FMA): every product is rounded on its
// own; divisions and square roots are the exact instructions.
#include <immintrin.h>

#include "filters/gradient_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

// 16 bytes from p as 16 int16.
__m256i Bytes16(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

void Store8x2(int32_t* p, __m256i v16) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p),
                      _mm256_cvtepi16_epi32(_mm256_castsi256_si128(v16)));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + 8),
                      _mm256_cvtepi16_epi32(_mm256_extracti128_si256(v16, 1)));
}

// Box sum of eight pixels from x on: the scalar accumulator's +0 start and term order.
__m256 BoxSum(const FloatRows& s, int x) {
  __m256 sum = _mm256_setzero_ps();
  for (int dx = 1; dx >= -1; --dx) {
    sum = _mm256_add_ps(sum, _mm256_loadu_ps(s.above + x + dx));
    sum = _mm256_add_ps(sum, _mm256_loadu_ps(s.row + x + dx));
    sum = _mm256_add_ps(sum, _mm256_loadu_ps(s.below + x + dx));
  }
  return sum;
}

}  // namespace

void SobelRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, int32_t* gx,
              int32_t* gy, int width) {
  // Outputs 1 .. width - 2; the sums stay within +-1020, so int16 lanes are exact.
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 16;
  for (int x = 1; x < 1 + body; x += 16) {
    const __m256i al = Bytes16(above + x - 1), ac = Bytes16(above + x), ar = Bytes16(above + x + 1);
    const __m256i rl = Bytes16(row + x - 1), rr = Bytes16(row + x + 1);
    const __m256i bl = Bytes16(below + x - 1), bc = Bytes16(below + x), br = Bytes16(below + x + 1);
    const __m256i right = _mm256_add_epi16(_mm256_add_epi16(ar, br), _mm256_slli_epi16(rr, 1));
    const __m256i left = _mm256_add_epi16(_mm256_add_epi16(al, bl), _mm256_slli_epi16(rl, 1));
    const __m256i down = _mm256_add_epi16(_mm256_add_epi16(bl, br), _mm256_slli_epi16(bc, 1));
    const __m256i up = _mm256_add_epi16(_mm256_add_epi16(al, ar), _mm256_slli_epi16(ac, 1));
    Store8x2(gx + x, _mm256_sub_epi16(right, left));
    Store8x2(gy + x, _mm256_sub_epi16(down, up));
  }
  if (body < outputs)
    scalar::SobelRow(above + body, row + body, below + body, gx + body, gy + body, width - body);
}

void MinEigenRow(const FloatRows& sxx, const FloatRows& sxy, const FloatRows& syy, float* dst,
                 int width) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 8;
  const __m256 half = _mm256_set1_ps(0.5f);
  for (int x = 1; x < 1 + body; x += 8) {
    const __m256 a = BoxSum(sxx, x), b = BoxSum(sxy, x), c = BoxSum(syy, x);
    const __m256 h = _mm256_mul_ps(a, half), k = _mm256_mul_ps(c, half);
    const __m256 d = _mm256_sub_ps(h, k);
    const __m256 root =
        _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(b, b), _mm256_mul_ps(d, d)));
    _mm256_storeu_ps(dst + x, _mm256_sub_ps(_mm256_add_ps(h, k), root));
  }
  if (body < outputs) {
    const FloatRows xx{sxx.above + body, sxx.row + body, sxx.below + body};
    const FloatRows xy{sxy.above + body, sxy.row + body, sxy.below + body};
    const FloatRows yy{syy.above + body, syy.row + body, syy.below + body};
    scalar::MinEigenRow(xx, xy, yy, dst + body, width - body);
  }
}

void DilateRow(const FloatRows& src, float* dst, int width) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 8;
  for (int x = 1; x < 1 + body; x += 8) {
    // max_ps(c, m) is (c > m) ? c : m, which is the running rule "replace when m < c" exactly,
    // NaN and signed zeros included.
    __m256 m = _mm256_loadu_ps(src.above + x + 1);
    m = _mm256_max_ps(_mm256_loadu_ps(src.row + x + 1), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.below + x + 1), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.above + x), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.row + x), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.below + x), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.above + x - 1), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.row + x - 1), m);
    m = _mm256_max_ps(_mm256_loadu_ps(src.below + x - 1), m);
    _mm256_storeu_ps(dst + x, m);
  }
  if (body < outputs) {
    const FloatRows rest{src.above + body, src.row + body, src.below + body};
    scalar::DilateRow(rest, dst + body, width - body);
  }
}

void Arctan(const float* y, const float* x, float* dst, int count) {
  const int body = count - count % 8;
  const __m256 sign = _mm256_set1_ps(-0.0f), zero = _mm256_setzero_ps();
  const __m256 eps = _mm256_set1_ps(kArctanEps);
  for (int i = 0; i < body; i += 8) {
    const __m256 vy = _mm256_loadu_ps(y + i), vx = _mm256_loadu_ps(x + i);
    const __m256 ax = _mm256_andnot_ps(sign, vx), ay = _mm256_andnot_ps(sign, vy);
    const __m256 flat = _mm256_cmp_ps(ax, ay, _CMP_GE_OQ);  // ax >= ay; false for NaN
    const __m256 num = _mm256_blendv_ps(ax, ay, flat);
    const __m256 den = _mm256_add_ps(_mm256_blendv_ps(ay, ax, flat), eps);
    const __m256 t = _mm256_div_ps(num, den);
    const __m256 t2 = _mm256_mul_ps(t, t);
    __m256 p = _mm256_add_ps(_mm256_mul_ps(t2, _mm256_set1_ps(kArctanC7)),
                             _mm256_set1_ps(kArctanC5));
    p = _mm256_add_ps(_mm256_mul_ps(t2, p), _mm256_set1_ps(kArctanC3));
    p = _mm256_add_ps(_mm256_mul_ps(t2, p), _mm256_set1_ps(kArctanC1));
    p = _mm256_mul_ps(t, p);
    __m256 a = _mm256_blendv_ps(_mm256_sub_ps(_mm256_set1_ps(90.0f), p), p, flat);
    a = _mm256_blendv_ps(a, _mm256_sub_ps(_mm256_set1_ps(180.0f), a),
                         _mm256_cmp_ps(vx, zero, _CMP_LT_OQ));
    a = _mm256_blendv_ps(a, _mm256_sub_ps(_mm256_set1_ps(360.0f), a),
                         _mm256_cmp_ps(vy, zero, _CMP_LT_OQ));
    _mm256_storeu_ps(dst + i, a);
  }
  if (body < count) scalar::Arctan(y + body, x + body, dst + body, count - body);
}

void Magnitude(const float* a, const float* b, float* dst, int count) {
  const int body = count - count % 8;
  for (int i = 0; i < body; i += 8) {
    const __m256 va = _mm256_loadu_ps(a + i), vb = _mm256_loadu_ps(b + i);
    _mm256_storeu_ps(dst + i,
                     _mm256_sqrt_ps(_mm256_add_ps(_mm256_mul_ps(va, va), _mm256_mul_ps(vb, vb))));
  }
  if (body < count) scalar::Magnitude(a + body, b + body, dst + body, count - body);
}

const GradientKernels kGradient{SobelRow, MinEigenRow, DilateRow, Arctan, Magnitude};

}  // namespace avx2
}  // namespace velmora
