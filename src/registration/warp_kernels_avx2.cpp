// AVX2 row kernels of the perspective warps, eight destination pixels at a time: the mapping in
// double (two groups of four lanes, the same products and exact divisions as the scalar rule),
// the samples fetched by gathers, the blends in 32-bit integers or double. Each row is finished
// by the scalar rule. Compiled with -mavx2 only (no FMA): every product is rounded on its own.
// No library templates or shared inline helpers here: an instantiation built with -mavx2 could
// be the copy the linker keeps for all.
#include <immintrin.h>

#include "registration/warp_kernels.h"

namespace velmora {
namespace avx2 {
namespace {

constexpr int kStep = 8;

// The nine elements broadcast once per row.
struct Matrix {
  explicit Matrix(const double* H) {
    for (int i = 0; i < 9; ++i) h[i] = _mm256_set1_pd(H[i]);
  }
  __m256d h[9];
};

// Source positions of eight consecutive pixels of a row: lanes 0..3 in [0], 4..7 in [1].
struct Positions {
  __m256d x[2];
  __m256d y[2];
};

// Columns x + 4g .. x + 4g + 3 as doubles (exact).
__m256d Columns(int x, int g) {
  return _mm256_add_pd(_mm256_set1_pd(static_cast<double>(x + 4 * g)),
                       _mm256_setr_pd(0.0, 1.0, 2.0, 3.0));
}

// 2 * H(x / 2, y / 2): hx = x * 0.5, w = H8 + (H6 hx + H7 hy), sx = 2 ((H2 + (H0 hx + H1 hy)) / w).
Positions HalfScale(const Matrix& m, const double* H, int x, int y) {
  const double hy = static_cast<double>(y) * 0.5;
  const __m256d h1y = _mm256_set1_pd(H[1] * hy);
  const __m256d h4y = _mm256_set1_pd(H[4] * hy);
  const __m256d h7y = _mm256_set1_pd(H[7] * hy);
  const __m256d two = _mm256_set1_pd(2.0);
  Positions p;
  for (int g = 0; g < 2; ++g) {
    const __m256d hx = _mm256_mul_pd(Columns(x, g), _mm256_set1_pd(0.5));
    const __m256d w = _mm256_add_pd(m.h[8], _mm256_add_pd(_mm256_mul_pd(m.h[6], hx), h7y));
    const __m256d nx = _mm256_add_pd(m.h[2], _mm256_add_pd(_mm256_mul_pd(m.h[0], hx), h1y));
    const __m256d ny = _mm256_add_pd(m.h[5], _mm256_add_pd(_mm256_mul_pd(m.h[3], hx), h4y));
    p.x[g] = _mm256_mul_pd(two, _mm256_div_pd(nx, w));
    p.y[g] = _mm256_mul_pd(two, _mm256_div_pd(ny, w));
  }
  return p;
}

// H(x, y) plus the source's offsets.
Positions FullScale(const Matrix& m, const double* H, const BilinearSource& src, int x, int y) {
  const double yd = static_cast<double>(y);
  const __m256d h1y = _mm256_set1_pd(H[1] * yd);
  const __m256d h4y = _mm256_set1_pd(H[4] * yd);
  const __m256d h7y = _mm256_set1_pd(H[7] * yd);
  Positions p;
  for (int g = 0; g < 2; ++g) {
    const __m256d xs = Columns(x, g);
    const __m256d w = _mm256_add_pd(m.h[8], _mm256_add_pd(_mm256_mul_pd(m.h[6], xs), h7y));
    const __m256d nx = _mm256_add_pd(m.h[2], _mm256_add_pd(_mm256_mul_pd(m.h[0], xs), h1y));
    const __m256d ny = _mm256_add_pd(m.h[5], _mm256_add_pd(_mm256_mul_pd(m.h[3], xs), h4y));
    p.x[g] = _mm256_add_pd(_mm256_div_pd(nx, w), _mm256_set1_pd(src.offset_x));
    p.y[g] = _mm256_add_pd(_mm256_div_pd(ny, w), _mm256_set1_pd(src.offset_y));
  }
  return p;
}

// 0 <= v <= last, ordered compares: NaN lanes are false.
__m256d InRange(__m256d v, double last) {
  return _mm256_and_pd(_mm256_cmp_pd(v, _mm256_setzero_pd(), _CMP_GE_OQ),
                       _mm256_cmp_pd(v, _mm256_set1_pd(last), _CMP_LE_OQ));
}

// Eight int32 lanes from two groups of four double lanes.
__m256i Join(__m128i lo, __m128i hi) { return _mm256_set_m128i(hi, lo); }

// A double lane mask (all ones or zeros) as an int32 lane mask of the group's four lanes.
__m128i MaskToInt(__m256d m) {
  const __m256i odd_dropped = _mm256_permutevar8x32_epi32(_mm256_castpd_si256(m),
                                                          _mm256_setr_epi32(0, 2, 4, 6, 0, 0, 0, 0));
  return _mm256_castsi256_si128(odd_dropped);
}

// Rounding to nearest with halves away from zero, as std::round: the truncation plus one step
// away from zero when the (exactly computed) fraction reaches one half. Infinities and NaN pass
// through (their fraction is NaN).
__m256d RoundHalfAway(__m256d v) {
  const __m256d sign_bit = _mm256_set1_pd(-0.0);
  const __m256d t = _mm256_round_pd(v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
  const __m256d frac = _mm256_andnot_pd(sign_bit, _mm256_sub_pd(v, t));
  const __m256d away = _mm256_or_pd(_mm256_set1_pd(1.0), _mm256_and_pd(v, sign_bit));
  const __m256d up = _mm256_cmp_pd(frac, _mm256_set1_pd(0.5), _CMP_GE_OQ);
  return _mm256_add_pd(t, _mm256_and_pd(up, away));
}

// The bytes at base + off and base + off + dx (dx 0 or 1) of eight lanes, from one 4-byte gather
// that holds both, placed inside the plane's `size` bytes (4 or more) so nothing past it is read.
void GatherPairs(const uint8_t* base, __m256i off, __m256i dx, int size, __m256i* a, __m256i* b) {
  const __m256i start = _mm256_min_epi32(
      _mm256_max_epi32(_mm256_sub_epi32(off, _mm256_set1_epi32(2)), _mm256_setzero_si256()),
      _mm256_set1_epi32(size - 4));
  const __m256i word = _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), start, 1);
  const __m256i shift = _mm256_slli_epi32(_mm256_sub_epi32(off, start), 3);
  const __m256i byte = _mm256_set1_epi32(0xff);
  *a = _mm256_and_si256(_mm256_srlv_epi32(word, shift), byte);
  *b = _mm256_and_si256(
      _mm256_srlv_epi32(word, _mm256_add_epi32(shift, _mm256_slli_epi32(dx, 3))), byte);
}

// The bytes at base + off of eight lanes, from a plane of `size` bytes (4 or more).
__m256i GatherBytes(const uint8_t* base, __m256i off, int size) {
  __m256i a, unused;
  GatherPairs(base, off, _mm256_setzero_si256(), size, &a, &unused);
  return a;
}

// Eight values 0..255 in int32 lanes, stored as eight bytes.
void Store8(uint8_t* p, __m256i v) {
  const __m128i words =
      _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
}

// The integer parts (floor) and the in-view mask of in-range positions; out-of-view lanes are
// moved to 0 before any conversion. frac receives position - floor.
struct Cells {
  __m256i x0, y0, mask;
  __m256d fx[2], fy[2];
};

Cells Split(const Positions& p, double max_x, double max_y) {
  Cells c;
  __m128i x0[2], y0[2], mask[2];
  for (int g = 0; g < 2; ++g) {
    const __m256d in = _mm256_and_pd(InRange(p.x[g], max_x), InRange(p.y[g], max_y));
    const __m256d sx = _mm256_and_pd(p.x[g], in);
    const __m256d sy = _mm256_and_pd(p.y[g], in);
    const __m256d fl_x = _mm256_floor_pd(sx);
    const __m256d fl_y = _mm256_floor_pd(sy);
    x0[g] = _mm256_cvttpd_epi32(fl_x);
    y0[g] = _mm256_cvttpd_epi32(fl_y);
    c.fx[g] = _mm256_sub_pd(sx, fl_x);
    c.fy[g] = _mm256_sub_pd(sy, fl_y);
    mask[g] = MaskToInt(in);
  }
  c.x0 = Join(x0[0], x0[1]);
  c.y0 = Join(y0[0], y0[1]);
  c.mask = Join(mask[0], mask[1]);
  return c;
}

// The fixed-point bilinear rule on eight positions of a width x height plane; 255 out of view.
__m256i FixedPoint8(const uint8_t* src, int width, int height, const Positions& p) {
  const Cells c = Split(p, width - 1.0, height - 1.0);
  const __m256d scale = _mm256_set1_pd(2048.0);
  const __m256i wx = Join(_mm256_cvttpd_epi32(_mm256_mul_pd(c.fx[0], scale)),
                          _mm256_cvttpd_epi32(_mm256_mul_pd(c.fx[1], scale)));
  const __m256i wy = Join(_mm256_cvttpd_epi32(_mm256_mul_pd(c.fy[0], scale)),
                          _mm256_cvttpd_epi32(_mm256_mul_pd(c.fy[1], scale)));
  const __m256i one = _mm256_set1_epi32(1);
  const __m256i x1 = _mm256_min_epi32(_mm256_add_epi32(c.x0, one), _mm256_set1_epi32(width - 1));
  const __m256i y1 = _mm256_min_epi32(_mm256_add_epi32(c.y0, one), _mm256_set1_epi32(height - 1));
  const __m256i w = _mm256_set1_epi32(width);
  const __m256i top = _mm256_add_epi32(_mm256_mullo_epi32(c.y0, w), c.x0);
  const __m256i bottom = _mm256_add_epi32(_mm256_mullo_epi32(y1, w), c.x0);
  const __m256i dx = _mm256_sub_epi32(x1, c.x0);  // 0 on the last column
  __m256i tl, tr, bl, br;
  GatherPairs(src, top, dx, width * height, &tl, &tr);
  GatherPairs(src, bottom, dx, width * height, &bl, &br);
  // Products below 2^31: signed 32-bit multiplies give the unsigned results.
  const __m256i full = _mm256_set1_epi32(2048);
  const __m256i iwy = _mm256_sub_epi32(full, wy);
  const __m256i left = _mm256_add_epi32(_mm256_mullo_epi32(iwy, tl), _mm256_mullo_epi32(wy, bl));
  const __m256i right = _mm256_add_epi32(_mm256_mullo_epi32(iwy, tr), _mm256_mullo_epi32(wy, br));
  const __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(left, _mm256_sub_epi32(full, wx)),
                                       _mm256_mullo_epi32(right, wx));
  return _mm256_blendv_epi8(_mm256_set1_epi32(255), _mm256_srli_epi32(sum, 22), c.mask);
}

// Nearest positions: rounded, tested against width and height, out-of-view lanes moved to 0.
struct Nearest {
  __m256i x, y, mask;
};

Nearest Round8(const Positions& p, int width, int height) {
  __m128i x[2], y[2], mask[2];
  for (int g = 0; g < 2; ++g) {
    const __m256d rx = RoundHalfAway(p.x[g]);
    const __m256d ry = RoundHalfAway(p.y[g]);
    const __m256d in = _mm256_and_pd(
        _mm256_and_pd(_mm256_cmp_pd(rx, _mm256_setzero_pd(), _CMP_GE_OQ),
                      _mm256_cmp_pd(rx, _mm256_set1_pd(width), _CMP_LT_OQ)),
        _mm256_and_pd(_mm256_cmp_pd(ry, _mm256_setzero_pd(), _CMP_GE_OQ),
                      _mm256_cmp_pd(ry, _mm256_set1_pd(height), _CMP_LT_OQ)));
    x[g] = _mm256_cvttpd_epi32(_mm256_and_pd(rx, in));
    y[g] = _mm256_cvttpd_epi32(_mm256_and_pd(ry, in));
    mask[g] = MaskToInt(in);
  }
  return {Join(x[0], x[1]), Join(y[0], y[1]), Join(mask[0], mask[1])};
}

// The replicated chroma planes at eight nearest positions: the pair at chroma row y / 2, byte
// x & ~1 of a plane of `chroma` bytes. Bytes beyond it, and out-of-view lanes, give 255.
void ChromaPairs8(const uint8_t* src_uv, int width, int chroma, const Nearest& n, __m256i* first,
                  __m256i* second) {
  const __m256i at = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srli_epi32(n.y, 1),
                                                         _mm256_set1_epi32(width)),
                                      _mm256_andnot_si256(_mm256_set1_epi32(1), n.x));
  const __m256i limit = _mm256_set1_epi32(chroma);
  const __m256i valid0 = _mm256_and_si256(n.mask, _mm256_cmpgt_epi32(limit, at));
  const __m256i at1 = _mm256_add_epi32(at, _mm256_set1_epi32(1));
  const __m256i valid1 = _mm256_and_si256(n.mask, _mm256_cmpgt_epi32(limit, at1));
  // One 4-byte gather ending at the second byte (or the plane's last one) holds both bytes.
  const __m256i safe = _mm256_and_si256(at, valid0);
  const __m256i end = _mm256_min_epi32(_mm256_add_epi32(safe, _mm256_set1_epi32(1)),
                                       _mm256_set1_epi32(chroma - 1));
  const __m256i start = _mm256_max_epi32(_mm256_sub_epi32(end, _mm256_set1_epi32(3)),
                                         _mm256_setzero_si256());
  const __m256i word = _mm256_i32gather_epi32(reinterpret_cast<const int*>(src_uv), start, 1);
  const __m256i shift = _mm256_slli_epi32(_mm256_sub_epi32(safe, start), 3);
  const __m256i byte = _mm256_set1_epi32(0xff);
  const __m256i fill = _mm256_set1_epi32(255);
  const __m256i b0 = _mm256_and_si256(_mm256_srlv_epi32(word, shift), byte);
  const __m256i b1 = _mm256_and_si256(
      _mm256_srlv_epi32(word, _mm256_add_epi32(shift, _mm256_set1_epi32(8))), byte);
  *first = _mm256_blendv_epi8(fill, b0, valid0);
  *second = _mm256_blendv_epi8(fill, b1, valid1);
}

}  // namespace

void FixedPointRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                   int y, int x_begin) {
  const Matrix m(H);
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    Store8(dst_row + x, FixedPoint8(src, width, height, HalfScale(m, H, x, y)));
  }
  scalar::FixedPointRow(H, src, dst_row, width, height, y, x);
}

void NearestRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                int y, int x_begin) {
  const Matrix m(H);
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    const Nearest n = Round8(HalfScale(m, H, x, y), width, height);
    const __m256i at = _mm256_add_epi32(_mm256_mullo_epi32(n.y, _mm256_set1_epi32(width)), n.x);
    const __m256i v = GatherBytes(src, at, width * height);
    Store8(dst_row + x, _mm256_blendv_epi8(_mm256_set1_epi32(255), v, n.mask));
  }
  scalar::NearestRow(H, src, dst_row, width, height, y, x);
}

void BilinearRow(const double* H, const BilinearSource& src, uint8_t* dst_row, int width, int y,
                 uint8_t fill, int x_begin) {
  const Matrix m(H);
  const __m256d one = _mm256_set1_pd(1.0);
  // The bytes a sample may read: up to the last column of the last row. The pair gathers of a
  // sample of one byte need four of them.
  const int size = src.last_row * src.stride + src.last_col * src.step + 1;
  int x = x_begin;
  for (; src.step == 1 && size >= 4 && x + kStep <= width; x += kStep) {
    const Cells c = Split(FullScale(m, H, src, x, y), src.max_x, src.max_y);
    const __m256i inc = _mm256_set1_epi32(1);
    const __m256i x1 = _mm256_min_epi32(_mm256_add_epi32(c.x0, inc),
                                        _mm256_set1_epi32(src.last_col));
    const __m256i y1 = _mm256_min_epi32(_mm256_add_epi32(c.y0, inc),
                                        _mm256_set1_epi32(src.last_row));
    const __m256i stride = _mm256_set1_epi32(src.stride);
    const __m256i left = _mm256_mullo_epi32(c.x0, _mm256_set1_epi32(src.step));
    const __m256i top = _mm256_add_epi32(_mm256_mullo_epi32(c.y0, stride), left);
    const __m256i bottom = _mm256_add_epi32(_mm256_mullo_epi32(y1, stride), left);
    const __m256i dx = _mm256_sub_epi32(x1, c.x0);  // 0 on the last column
    __m256i tl, tr, bl, br;
    GatherPairs(src.plane, top, dx, size, &tl, &tr);
    GatherPairs(src.plane, bottom, dx, size, &bl, &br);
    __m128i value[2];
    for (int g = 0; g < 2; ++g) {
      const auto half = [g](__m256i v) {
        return _mm256_cvtepi32_pd(g == 0 ? _mm256_castsi256_si128(v)
                                         : _mm256_extracti128_si256(v, 1));
      };
      const __m256d fx = c.fx[g], fy = c.fy[g];
      const __m256d gx = _mm256_sub_pd(one, fx), gy = _mm256_sub_pd(one, fy);
      // fy (1 - fx) bl + (1 - fx)(1 - fy) tl, then + fx (1 - fy) tr, then + fx fy br.
      __m256d v = _mm256_add_pd(_mm256_mul_pd(_mm256_mul_pd(fy, gx), half(bl)),
                                _mm256_mul_pd(_mm256_mul_pd(gx, gy), half(tl)));
      v = _mm256_add_pd(v, _mm256_mul_pd(_mm256_mul_pd(fx, gy), half(tr)));
      v = _mm256_add_pd(v, _mm256_mul_pd(_mm256_mul_pd(fx, fy), half(br)));
      value[g] = _mm256_cvttpd_epi32(RoundHalfAway(v));
    }
    Store8(dst_row + x,
           _mm256_blendv_epi8(_mm256_set1_epi32(fill), Join(value[0], value[1]), c.mask));
  }
  scalar::BilinearRow(H, src, dst_row, width, y, fill, x);
}

void SplitRows(const double* H, const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y,
               uint8_t* dst_uv, int width, int height, int y, int x_begin) {
  const Matrix m(H);
  const int chroma = (height / 2) * width;
  int x = x_begin;
  // Whole blocks of both rows only: the spill of an odd width's last column and an odd height's
  // last row are left to the scalar rule.
  if (y + 1 < height) {
    for (; x + kStep <= (width & ~1); x += kStep) {
      __m256i sum0 = _mm256_setzero_si256(), sum1 = _mm256_setzero_si256();
      for (int r = 0; r < 2; ++r) {
        // One mapping serves the luma sample and the nearest chroma sample of a pixel.
        const Positions p = HalfScale(m, H, x, y + r);
        Store8(dst_y + static_cast<int64_t>(y + r) * width + x,
               FixedPoint8(src_y, width, height, p));
        __m256i c0, c1;
        ChromaPairs8(src_uv, width, chroma, Round8(p, width, height), &c0, &c1);
        sum0 = _mm256_add_epi32(sum0, c0);
        sum1 = _mm256_add_epi32(sum1, c1);
      }
      // Neighbouring columns added: per 128-bit lane [0 of block a, b; 1 of block a, b], then
      // put in pair order [0 a, 1 a, 0 b, 1 b].
      const __m256i blocks =
          _mm256_shuffle_epi32(_mm256_hadd_epi32(sum0, sum1), _MM_SHUFFLE(3, 1, 2, 0));
      Store8(dst_uv + static_cast<int64_t>(y / 2) * width + x, _mm256_srli_epi32(blocks, 2));
    }
  }
  scalar::SplitRows(H, src_y, src_uv, dst_y, dst_uv, width, height, y, x);
}

const WarpKernels kWarp{FixedPointRow, NearestRow, BilinearRow, SplitRows};

}  // namespace avx2
}  // namespace velmora
