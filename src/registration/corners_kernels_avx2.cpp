// AVX2 variants of the corner detector's rows, 8 entries at a time (products 4 doubles at a
// time), each row finished by the scalar rule. Compiled with -mavx2 only (no FMA).
#include <immintrin.h>

#include "registration/corners_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

// Four int32 as doubles (exact).
__m256d Lo(__m256i v) { return _mm256_cvtepi32_pd(_mm256_castsi256_si128(v)); }
__m256d Hi(__m256i v) { return _mm256_cvtepi32_pd(_mm256_extracti128_si256(v, 1)); }

// Rounds four doubles to float each (the current rounding mode, as the scalar conversion does)
// and joins two such halves.
__m256 ToFloat(__m256d lo, __m256d hi) {
  return _mm256_set_m128(_mm256_cvtpd_ps(hi), _mm256_cvtpd_ps(lo));
}

}  // namespace

void ProductRow(const int32_t* dx, const int32_t* dy, double scale, float* dxx, float* dxy,
                float* dyy, int width) {
  const int body = width - width % 8;
  const __m256d s = _mm256_set1_pd(scale);
  for (int i = 0; i < body; i += 8) {
    const __m256i vx = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dx + i));
    const __m256i vy = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dy + i));
    const __m256d xl = Lo(vx), xh = Hi(vx), yl = Lo(vy), yh = Hi(vy);
    const __m256d sxl = _mm256_mul_pd(s, xl), sxh = _mm256_mul_pd(s, xh);
    const __m256d syl = _mm256_mul_pd(s, yl), syh = _mm256_mul_pd(s, yh);
    _mm256_storeu_ps(dxx + i, ToFloat(_mm256_mul_pd(sxl, xl), _mm256_mul_pd(sxh, xh)));
    _mm256_storeu_ps(dxy + i, ToFloat(_mm256_mul_pd(sxl, yl), _mm256_mul_pd(sxh, yh)));
    _mm256_storeu_ps(dyy + i, ToFloat(_mm256_mul_pd(syl, yl), _mm256_mul_pd(syh, yh)));
  }
  if (body < width)
    scalar::ProductRow(dx + body, dy + body, scale, dxx + body, dxy + body, dyy + body,
                       width - body);
}

float RowMax(const float* row, int width, float running) {
  const int body = width - width % 8;
  if (body > 0) {
    // Every lane starts from the running value and keeps the rule "replace only when strictly
    // greater" (max_ps(c, m) is c > m ? c : m): a NaN is never taken, a NaN start never leaves,
    // and +0 and -0 do not replace each other. Folding the lanes by the same rule gives the
    // value of the scan in index order.
    __m256 m = _mm256_set1_ps(running);
    for (int i = 0; i < body; i += 8) m = _mm256_max_ps(_mm256_loadu_ps(row + i), m);
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, m);
    for (float lane : lanes) {
      if (lane > running) running = lane;
    }
  }
  return scalar::RowMax(row + body, width - body, running);
}

void CutRow(float* row, int width, float threshold) {
  const int body = width - width % 8;
  const __m256 t = _mm256_set1_ps(threshold);
  for (int i = 0; i < body; i += 8) {
    const __m256 v = _mm256_loadu_ps(row + i);
    _mm256_storeu_ps(row + i, _mm256_andnot_ps(_mm256_cmp_ps(v, t, _CMP_LE_OQ), v));
  }
  if (body < width) scalar::CutRow(row + body, width - body, threshold);
}

int PeakRow(const float* response, const float* dilated, int width, int32_t* xs) {
  const int outputs = width > 2 ? width - 2 : 0;
  const int body = outputs - outputs % 8;
  const __m256 zero = _mm256_setzero_ps();
  int n = 0;
  for (int x = 1; x < 1 + body; x += 8) {
    const __m256 r = _mm256_loadu_ps(response + x);
    const __m256 same = _mm256_cmp_ps(r, _mm256_loadu_ps(dilated + x), _CMP_EQ_OQ);
    const __m256 peak = _mm256_andnot_ps(_mm256_cmp_ps(r, zero, _CMP_EQ_OQ), same);
    for (unsigned bits = static_cast<unsigned>(_mm256_movemask_ps(peak)); bits != 0;
         bits &= bits - 1) {
      xs[n++] = x + __builtin_ctz(bits);
    }
  }
  if (body < outputs) {
    const int more = scalar::PeakRow(response + body, dilated + body, width - body, xs + n);
    for (int i = n; i < n + more; ++i) xs[i] += body;
    n += more;
  }
  return n;
}

const CornerKernels kCorner{&kGradient, ProductRow, RowMax, CutRow, PeakRow};

}  // namespace avx2
}  // namespace velmora
