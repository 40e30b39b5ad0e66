// AVX2 row kernels of the perspective warps, eight destination pixels at a time: the mapping in
// double (two groups of four lanes, the same products and exact divisions as the scalar rule),
// the samples fetched by gathers (or, in the split frame warp, shuffled out of short windows of
// the rows), the blends in integers or double. Each row is finished by the scalar rule. Compiled with -mavx2 only (no FMA): every product is rounded on its own.
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
Positions FullScale(const Matrix& m, const double* H, const BilinearSource& src, int x, int y,
                    int x_step = 1) {
  const double yd = static_cast<double>(y);
  const __m256d h1y = _mm256_set1_pd(H[1] * yd);
  const __m256d h4y = _mm256_set1_pd(H[4] * yd);
  const __m256d h7y = _mm256_set1_pd(H[7] * yd);
  // Columns x + x_step * i, i = 0 .. 7 (exact).
  const __m256d steps = _mm256_mul_pd(_mm256_setr_pd(0.0, 1.0, 2.0, 3.0), _mm256_set1_pd(x_step));
  Positions p;
  for (int g = 0; g < 2; ++g) {
    const __m256d xs =
        _mm256_add_pd(_mm256_set1_pd(static_cast<double>(x + 4 * g * x_step)), steps);
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

// The bytes at base + off (and the next one, if it lies in the plane) of eight lanes, moved to
// the low end of each lane, from one 4-byte gather placed inside the plane's `size` bytes (4 or
// more) so that nothing past it is read. A lane whose second byte would lie beyond gets 0 there,
// and a lane whose first byte would (off >= size) gets 0 in both: the callers give such bytes a
// weight of 0 or replace them.
__m256i WordAt(const uint8_t* base, __m256i off, int size) {
  const __m256i start = _mm256_min_epi32(
      _mm256_max_epi32(_mm256_sub_epi32(off, _mm256_set1_epi32(2)), _mm256_setzero_si256()),
      _mm256_set1_epi32(size - 4));
  const __m256i word = _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), start, 1);
  return _mm256_srlv_epi32(word, _mm256_slli_epi32(_mm256_sub_epi32(off, start), 3));
}

// The four bytes at base + off .. off + 3 of eight lanes (those beyond the plane's `size` bytes,
// 4 or more, as 0), from one 4-byte gather placed inside it.
__m256i QuadAt(const uint8_t* base, __m256i off, int size) {
  const __m256i start = _mm256_min_epi32(off, _mm256_set1_epi32(size - 4));
  const __m256i word = _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), start, 1);
  return _mm256_srlv_epi32(word, _mm256_slli_epi32(_mm256_sub_epi32(off, start), 3));
}

// WordAt's two bytes as two int16 (first, second) per lane, ready for a 16-bit multiply-add.
__m256i PairAt(const uint8_t* base, __m256i off, int size) {
  const __m256i spread = _mm256_setr_epi8(0, -1, 1, -1, 4, -1, 5, -1, 8, -1, 9, -1, 12, -1, 13, -1,
                                          0, -1, 1, -1, 4, -1, 5, -1, 8, -1, 9, -1, 12, -1, 13, -1);
  return _mm256_shuffle_epi8(WordAt(base, off, size), spread);
}

// The bytes at base + off and base + off + dx (dx 0 or 1) of eight lanes, from a plane of `size`
// bytes (4 or more).
void GatherPairs(const uint8_t* base, __m256i off, __m256i dx, int size, __m256i* a, __m256i* b) {
  const __m256i word = WordAt(base, off, size);
  const __m256i byte = _mm256_set1_epi32(0xff);
  *a = _mm256_and_si256(word, byte);
  *b = _mm256_and_si256(_mm256_srlv_epi32(word, _mm256_slli_epi32(dx, 3)), byte);
}

// Eight values 0..255 in int32 lanes, stored as eight bytes.
void Store8(uint8_t* p, __m256i v) {
  const __m128i words =
      _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
}

// The floors, the fractions (position - floor) and the in-view mask of eight positions of the
// double-precision bilinear rule; out-of-view lanes are moved to 0 before any conversion.
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

// The eight lanes' bilinear blends of their four samples (int32 lanes), in double, in the
// definition's order, rounded half away from zero.
__m256i Blend(const Cells& c, __m256i tl, __m256i tr, __m256i bl, __m256i br) {
  const __m256d one = _mm256_set1_pd(1.0);
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
    // v >= 0 (a blend of bytes with weights in 0..1): halves away from zero are halves up,
    // the floor plus one when the exact fraction reaches one half.
    const __m256d fl = _mm256_floor_pd(v);
    const __m256d up = _mm256_cmp_pd(_mm256_sub_pd(v, fl), _mm256_set1_pd(0.5), _CMP_GE_OQ);
    value[g] = _mm256_cvttpd_epi32(_mm256_add_pd(fl, _mm256_and_pd(up, one)));
  }
  return Join(value[0], value[1]);
}


// What the fixed-point and the nearest rules need of eight positions, from one floor per
// coordinate. The nearest rule's view is the wider one: round(s) lies in 0 .. size - 1 exactly
// when -0.5 < s < size - 0.5 (halves go away from zero: -0.5 gives -1, size - 0.5 gives size).
// Lanes outside it are moved to 0 before the floor, so no conversion meets a NaN or a huge value;
// the fixed-point view 0 <= s <= size - 1 lies inside it, so its lanes keep their own floor.
// round(s) is the floor plus one when the exact fraction s - floor(s) reaches one half (for
// -0.5 < s < 0 that fraction is above one half, giving 0, as round does).
struct Grid {
  __m256i x0, y0;            // floors
  __m256i wx, wy;            // (int)(fraction * 2048)
  __m256i rx, ry;            // nearest positions
  __m256i bilinear, nearest;  // in-view masks of the two rules
};

Grid MakeGrid(const Positions& p, int width, int height) {
  __m128i x0[2], y0[2], wx[2], wy[2], rx[2], ry[2], bilinear[2], nearest[2];
  const __m256d half = _mm256_set1_pd(0.5), one = _mm256_set1_pd(1.0);
  const __m256d scale = _mm256_set1_pd(2048.0);
  for (int g = 0; g < 2; ++g) {
    const __m256d sx = p.x[g], sy = p.y[g];
    const __m256d near = _mm256_and_pd(
        _mm256_and_pd(_mm256_cmp_pd(sx, _mm256_set1_pd(-0.5), _CMP_GT_OQ),
                      _mm256_cmp_pd(sx, _mm256_set1_pd(width - 0.5), _CMP_LT_OQ)),
        _mm256_and_pd(_mm256_cmp_pd(sy, _mm256_set1_pd(-0.5), _CMP_GT_OQ),
                      _mm256_cmp_pd(sy, _mm256_set1_pd(height - 0.5), _CMP_LT_OQ)));
    const __m256d bil = _mm256_and_pd(InRange(sx, width - 1.0), InRange(sy, height - 1.0));
    const __m256d mx = _mm256_and_pd(sx, near), my = _mm256_and_pd(sy, near);
    const __m256d fl_x = _mm256_floor_pd(mx), fl_y = _mm256_floor_pd(my);
    const __m256d fx = _mm256_sub_pd(mx, fl_x), fy = _mm256_sub_pd(my, fl_y);
    x0[g] = _mm256_cvttpd_epi32(fl_x);
    y0[g] = _mm256_cvttpd_epi32(fl_y);
    wx[g] = _mm256_cvttpd_epi32(_mm256_mul_pd(fx, scale));
    wy[g] = _mm256_cvttpd_epi32(_mm256_mul_pd(fy, scale));
    rx[g] = _mm256_cvttpd_epi32(
        _mm256_add_pd(fl_x, _mm256_and_pd(_mm256_cmp_pd(fx, half, _CMP_GE_OQ), one)));
    ry[g] = _mm256_cvttpd_epi32(
        _mm256_add_pd(fl_y, _mm256_and_pd(_mm256_cmp_pd(fy, half, _CMP_GE_OQ), one)));
    bilinear[g] = MaskToInt(bil);
    nearest[g] = MaskToInt(near);
  }
  return {Join(x0[0], x0[1]), Join(y0[0], y0[1]), Join(wx[0], wx[1]), Join(wy[0], wy[1]),
          Join(rx[0], rx[1]), Join(ry[0], ry[1]), Join(bilinear[0], bilinear[1]),
          Join(nearest[0], nearest[1])};
}

// MakeGrid for the common block whose eight positions all lie in the fixed-point view (so in the
// nearest one too): no lane needs moving, the masks are all ones, and the nearest position is
// the floor plus one where the weight reaches 1024 (the fraction times 2048 is exact, so its
// truncation reaches 1024 exactly when the fraction reaches one half). False, and nothing
// filled, when a lane is out of view.
bool InViewGrid(const Positions& p, int width, int height, Grid* grid) {
  const __m256d bil0 = _mm256_and_pd(InRange(p.x[0], width - 1.0), InRange(p.y[0], height - 1.0));
  const __m256d bil1 = _mm256_and_pd(InRange(p.x[1], width - 1.0), InRange(p.y[1], height - 1.0));
  if (_mm256_movemask_pd(_mm256_and_pd(bil0, bil1)) != 0xF) return false;
  const __m256d scale = _mm256_set1_pd(2048.0);
  __m128i x0[2], y0[2], wx[2], wy[2];
  for (int g = 0; g < 2; ++g) {
    const __m256d fl_x = _mm256_floor_pd(p.x[g]), fl_y = _mm256_floor_pd(p.y[g]);
    x0[g] = _mm256_cvttpd_epi32(fl_x);
    y0[g] = _mm256_cvttpd_epi32(fl_y);
    wx[g] = _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_sub_pd(p.x[g], fl_x), scale));
    wy[g] = _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_sub_pd(p.y[g], fl_y), scale));
  }
  grid->x0 = Join(x0[0], x0[1]);
  grid->y0 = Join(y0[0], y0[1]);
  grid->wx = Join(wx[0], wx[1]);
  grid->wy = Join(wy[0], wy[1]);
  const __m256i half = _mm256_set1_epi32(1023);
  grid->rx = _mm256_sub_epi32(grid->x0, _mm256_cmpgt_epi32(grid->wx, half));
  grid->ry = _mm256_sub_epi32(grid->y0, _mm256_cmpgt_epi32(grid->wy, half));
  grid->bilinear = grid->nearest = _mm256_set1_epi32(-1);
  return true;
}

// The fixed-point blend of eight cells whose top and bottom pairs (left, right as two int16 per
// lane) are given. The integer blend is exact, so it may run horizontally first (one 16-bit
// multiply-add per row of the cell): the same value as the definition's vertical-first order.
__m256i FixedPointBlend(__m256i top_pairs, __m256i bottom_pairs, const Grid& g) {
  const __m256i full = _mm256_set1_epi32(2048);
  const __m256i weights =
      _mm256_or_si256(_mm256_sub_epi32(full, g.wx), _mm256_slli_epi32(g.wx, 16));
  const __m256i upper = _mm256_madd_epi16(top_pairs, weights);
  const __m256i lower = _mm256_madd_epi16(bottom_pairs, weights);
  // Below 2^31: signed 32-bit multiplies give the unsigned results.
  const __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(upper, _mm256_sub_epi32(full, g.wy)),
                                       _mm256_mullo_epi32(lower, g.wy));
  return _mm256_srli_epi32(sum, 22);
}

// The fixed-point bilinear rule; 255 out of view. The neighbours are not clamped: on the last
// column (row) the position is exactly that column (row), so the weight of the neighbour after
// it is 0 and whatever is read there (the next row's first byte, or 0 past the plane) adds
// nothing.
__m256i FixedPoint8(const uint8_t* src, int width, int height, const Grid& g) {
  const int size = width * height;
  const __m256i w = _mm256_set1_epi32(width);
  const __m256i top = _mm256_and_si256(_mm256_add_epi32(_mm256_mullo_epi32(g.y0, w), g.x0),
                                       g.bilinear);
  const __m256i bottom = _mm256_add_epi32(top, w);
  const __m256i value = FixedPointBlend(PairAt(src, top, size), PairAt(src, bottom, size), g);
  return _mm256_blendv_epi8(_mm256_set1_epi32(255), value, g.bilinear);
}

// A registration homography moves eight neighbouring pixels by about the same amount, so their
// cells usually lie within 16 columns and two rows of each other. Then three 16-byte loads of the
// rows they touch and byte shuffles fetch all the samples, where gathers would fetch each lane
// on its own. A Window says where such a block starts and each lane's offset into it.
struct Window {
  int x, y;        // the block's first column and row in the plane
  __m256i pick;    // per lane, shuffle indices of the bytes at dx and dx + 1 as two int16
  __m256i second;  // lanes whose row is y + 1 (all ones), else y
};

// Whether the eight (col, row) fit a window of 16 columns (col - x in 0 .. 14, so that col + 1 is
// inside too) and two rows (row - y in 0 .. 1), starting at the smaller of the first and last
// lane. Bounds against the plane are the caller's.
bool FitWindow(__m256i col, __m256i row, Window* w) {
  const int col_first = _mm256_cvtsi256_si32(col), col_last = _mm256_extract_epi32(col, 7);
  const int row_first = _mm256_cvtsi256_si32(row), row_last = _mm256_extract_epi32(row, 7);
  w->x = col_first < col_last ? col_first : col_last;
  w->y = row_first < row_last ? row_first : row_last;
  const __m256i dx = _mm256_sub_epi32(col, _mm256_set1_epi32(w->x));
  const __m256i dy = _mm256_sub_epi32(row, _mm256_set1_epi32(w->y));
  // Unsigned bounds: a negative offset is huge.
  const __m256i dx_max = _mm256_set1_epi32(14), one = _mm256_set1_epi32(1);
  const __m256i fits =
      _mm256_and_si256(_mm256_cmpeq_epi32(_mm256_max_epu32(dx, dx_max), dx_max),
                       _mm256_cmpeq_epi32(_mm256_max_epu32(dy, one), one));
  if (_mm256_movemask_epi8(fits) != -1) return false;
  // Bytes dx, zero, dx + 1, zero: the two samples as int16.
  w->pick = _mm256_add_epi32(_mm256_add_epi32(dx, _mm256_slli_epi32(dx, 16)),
                             _mm256_set1_epi32(static_cast<int>(0x80018000u)));
  w->second = _mm256_cmpeq_epi32(dy, one);
  return true;
}

// The pairs at each lane's offset, from 16 bytes at `row` in both 128-bit lanes.
__m256i WindowPairs(const uint8_t* row, const Window& w) {
  const __m256i bytes =
      _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row)));
  return _mm256_shuffle_epi8(bytes, w.pick);
}

// FixedPoint8 of an in-view grid from a window, when the cells fit one inside the plane (rows
// y .. y + 2, columns x .. x + 15); false otherwise.
bool FixedPointWindow8(const uint8_t* src, int width, int height, const Grid& g, __m256i* out) {
  Window w;
  if (!FitWindow(g.x0, g.y0, &w) || w.x + 16 > width || w.y + 2 > height - 1) return false;
  const uint8_t* row = src + static_cast<int64_t>(w.y) * width + w.x;
  const __m256i p0 = WindowPairs(row, w), p1 = WindowPairs(row + width, w);
  const __m256i p2 = WindowPairs(row + 2 * width, w);
  *out = FixedPointBlend(_mm256_blendv_epi8(p0, p1, w.second),
                         _mm256_blendv_epi8(p1, p2, w.second), g);
  return true;
}

// The replicated chroma planes at the nearest positions: the pair at chroma row y / 2, byte
// x & ~1 of a plane of `chroma` bytes (4 or more). Bytes beyond it, and out-of-view lanes,
// give 255.
void ChromaPairs8(const uint8_t* src_uv, int width, int chroma, const Grid& g, __m256i* first,
                  __m256i* second) {
  const __m256i at = _mm256_add_epi32(
      _mm256_mullo_epi32(_mm256_srli_epi32(g.ry, 1), _mm256_set1_epi32(width)),
      _mm256_andnot_si256(_mm256_set1_epi32(1), g.rx));
  const __m256i limit = _mm256_set1_epi32(chroma);
  const __m256i valid0 = _mm256_and_si256(g.nearest, _mm256_cmpgt_epi32(limit, at));
  const __m256i valid1 = _mm256_and_si256(
      g.nearest, _mm256_cmpgt_epi32(limit, _mm256_add_epi32(at, _mm256_set1_epi32(1))));
  const __m256i word = WordAt(src_uv, _mm256_and_si256(at, valid0), chroma);
  const __m256i byte = _mm256_set1_epi32(0xff);
  const __m256i fill = _mm256_set1_epi32(255);
  *first = _mm256_blendv_epi8(fill, _mm256_and_si256(word, byte), valid0);
  *second = _mm256_blendv_epi8(fill, _mm256_and_si256(_mm256_srli_epi32(word, 8), byte), valid1);
}

// ChromaPairs8 of an in-view grid from a window of two chroma rows, when the pairs fit one
// inside the chroma plane of `rows` rows; false otherwise.
bool ChromaWindow8(const uint8_t* src_uv, int width, int rows, const Grid& g, __m256i* first,
                   __m256i* second) {
  Window w;
  const __m256i pair_col = _mm256_andnot_si256(_mm256_set1_epi32(1), g.rx);
  if (!FitWindow(pair_col, _mm256_srli_epi32(g.ry, 1), &w) || w.x + 16 > width ||
      w.y + 1 > rows - 1) {
    return false;
  }
  const uint8_t* row = src_uv + static_cast<int64_t>(w.y) * width + w.x;
  const __m256i pairs = _mm256_blendv_epi8(WindowPairs(row, w), WindowPairs(row + width, w),
                                           w.second);
  *first = _mm256_and_si256(pairs, _mm256_set1_epi32(0xffff));
  *second = _mm256_srli_epi32(pairs, 16);
  return true;
}

}  // namespace

void FixedPointRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                   int y, int x_begin) {
  const Matrix m(H);
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    Store8(dst_row + x, FixedPoint8(src, width, height, MakeGrid(HalfScale(m, H, x, y), width, height)));
  }
  scalar::FixedPointRow(H, src, dst_row, width, height, y, x);
}

void NearestRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                int y, int x_begin) {
  const Matrix m(H);
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    const Grid g = MakeGrid(HalfScale(m, H, x, y), width, height);
    const __m256i at = _mm256_and_si256(
        _mm256_add_epi32(_mm256_mullo_epi32(g.ry, _mm256_set1_epi32(width)), g.rx), g.nearest);
    const __m256i v = _mm256_and_si256(WordAt(src, at, width * height), _mm256_set1_epi32(0xff));
    Store8(dst_row + x, _mm256_blendv_epi8(_mm256_set1_epi32(255), v, g.nearest));
  }
  scalar::NearestRow(H, src, dst_row, width, height, y, x);
}

void BilinearRow(const double* H, const BilinearSource& src, uint8_t* dst_row, int width, int y,
                 uint8_t fill, int x_begin) {
  const Matrix m(H);
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
    Store8(dst_row + x,
           _mm256_blendv_epi8(_mm256_set1_epi32(fill), Blend(c, tl, tr, bl, br), c.mask));
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
  const int end = width & ~1;
  if (y + 1 < height && x + kStep <= end) {
    // The divisions are the slowest part and nothing else waits on a block's own: each step maps
    // the next block while it samples the one mapped before, so the divider runs alongside.
    Positions next[2] = {HalfScale(m, H, x, y), HalfScale(m, H, x, y + 1)};
    for (; x + kStep <= end; x += kStep) {
      const Positions current[2] = {next[0], next[1]};
      if (x + 2 * kStep <= end) {
        next[0] = HalfScale(m, H, x + kStep, y);
        next[1] = HalfScale(m, H, x + kStep, y + 1);
      }
      __m256i sum0 = _mm256_setzero_si256(), sum1 = _mm256_setzero_si256();
      for (int r = 0; r < 2; ++r) {
        // One mapping serves the luma sample and the nearest chroma sample of a pixel.
        const Positions& p = current[r];
        // Blocks wholly in view whose samples lie close together read them from windows; the
        // others, through gathers.
        Grid g;
        __m256i luma, c0, c1;
        if (!InViewGrid(p, width, height, &g) ||
            !FixedPointWindow8(src_y, width, height, g, &luma) ||
            !ChromaWindow8(src_uv, width, height / 2, g, &c0, &c1)) {
          g = MakeGrid(p, width, height);
          luma = FixedPoint8(src_y, width, height, g);
          ChromaPairs8(src_uv, width, chroma, g, &c0, &c1);
        }
        Store8(dst_y + static_cast<int64_t>(y + r) * width + x, luma);
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

void DirectChromaRow(const double* H, const BilinearSource& luma, const BilinearSource& chroma,
                     uint8_t* dst_pairs, int width, int y, int x_begin) {
  const Matrix m(H);
  // The bytes a chroma sample may read: up to the second byte of the last pair of the last row.
  const int size = chroma.last_row * chroma.stride + chroma.last_col * chroma.step + 2;
  const __m256i inc = _mm256_set1_epi32(1);
  int x = x_begin;
  // Eight blocks a step: luma columns x, x + 2, .. x + 14, chroma columns x / 2 .. x / 2 + 7.
  for (; size >= 4 && x + 16 <= width; x += 16) {
    const Positions at = FullScale(m, H, luma, x, y, 2);
    const __m256d luma_in[2] = {
        _mm256_and_pd(InRange(at.x[0], luma.max_x), InRange(at.y[0], luma.max_y)),
        _mm256_and_pd(InRange(at.x[1], luma.max_x), InRange(at.y[1], luma.max_y))};
    // No block with its luma in view: nothing is written.
    if (_mm256_movemask_pd(_mm256_or_pd(luma_in[0], luma_in[1])) == 0) continue;
    const Cells c = Split(FullScale(m, H, chroma, x / 2, y / 2), chroma.max_x, chroma.max_y);
    const __m256i y1 = _mm256_min_epi32(_mm256_add_epi32(c.y0, inc),
                                        _mm256_set1_epi32(chroma.last_row));
    const __m256i stride = _mm256_set1_epi32(chroma.stride);
    const __m256i left = _mm256_slli_epi32(c.x0, 1);  // two bytes a pair
    // The pair at x0 and the one after it (weight 0 on the last column, where it may be the next
    // row's or 0 past the plane).
    const __m256i top = QuadAt(chroma.plane, _mm256_add_epi32(_mm256_mullo_epi32(c.y0, stride),
                                                              left), size);
    const __m256i bottom = QuadAt(chroma.plane, _mm256_add_epi32(_mm256_mullo_epi32(y1, stride),
                                                                 left), size);
    __m256i bytes = _mm256_setzero_si256();
    for (int b = 0; b < 2; ++b) {
      const __m256i mask = _mm256_set1_epi32(0xff);
      const __m256i tl = _mm256_and_si256(_mm256_srli_epi32(top, 8 * b), mask);
      const __m256i tr = _mm256_and_si256(_mm256_srli_epi32(top, 8 * b + 16), mask);
      const __m256i bl = _mm256_and_si256(_mm256_srli_epi32(bottom, 8 * b), mask);
      const __m256i br = _mm256_and_si256(_mm256_srli_epi32(bottom, 8 * b + 16), mask);
      // Out of the chroma view: 128.
      const __m256i sample =
          _mm256_blendv_epi8(_mm256_set1_epi32(128), Blend(c, tl, tr, bl, br), c.mask);
      bytes = _mm256_or_si256(bytes, _mm256_slli_epi32(sample, 8 * b));
    }
    // The eight pairs as 16-bit lanes in order, beside the luma view as 16-bit masks; blocks
    // out of the luma view keep the destination's bytes.
    const __m256i keep = _mm256_srli_epi32(Join(MaskToInt(luma_in[0]), MaskToInt(luma_in[1])), 16);
    const __m256i packed =
        _mm256_permute4x64_epi64(_mm256_packus_epi32(bytes, keep), _MM_SHUFFLE(3, 1, 2, 0));
    __m128i* out = reinterpret_cast<__m128i*>(dst_pairs + x);
    _mm_storeu_si128(out, _mm_blendv_epi8(_mm_loadu_si128(out), _mm256_castsi256_si128(packed),
                                          _mm256_extracti128_si256(packed, 1)));
  }
  scalar::DirectChromaRow(H, luma, chroma, dst_pairs, width, y, x);
}

const WarpKernels kWarp{FixedPointRow, NearestRow, BilinearRow, SplitRows, DirectChromaRow};

}  // namespace avx2
}  // namespace velmora
