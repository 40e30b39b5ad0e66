// NEON row kernels of the perspective warps (AArch64), eight destination pixels at a time: the
// mapping in double (four groups of two lanes, the same products and exact divisions as the
// scalar rule), samples loaded lane by lane (no gathers on NEON), the blends in 32-bit integers or
// double. Each row is finished by the scalar rule. Built with -ffp-contract=off: every product
// is rounded on its own. Positions are tested before any conversion and out-of-view lanes moved
// to 0, so the saturating conversions of arm64 never meet a NaN or a huge value.
#include <arm_neon.h>

#include "registration/warp_kernels.h"

namespace velmora {
namespace neon {
namespace {

constexpr int kStep = 8;
constexpr int kGroups = 4;  // of two double lanes

struct Positions {
  float64x2_t x[kGroups];
  float64x2_t y[kGroups];
};

// Columns x + 2g and x + 2g + 1 as doubles (exact).
float64x2_t Columns(int x, int g) {
  const float64x2_t lane = {0.0, 1.0};
  return vaddq_f64(vdupq_n_f64(static_cast<double>(x + 2 * g)), lane);
}

// 2 * H(x / 2, y / 2): hx = x * 0.5, w = H8 + (H6 hx + H7 hy), sx = 2 ((H2 + (H0 hx + H1 hy)) / w).
Positions HalfScale(const double* H, int x, int y) {
  const double hy = static_cast<double>(y) * 0.5;
  const float64x2_t h1y = vdupq_n_f64(H[1] * hy), h4y = vdupq_n_f64(H[4] * hy);
  const float64x2_t h7y = vdupq_n_f64(H[7] * hy), two = vdupq_n_f64(2.0);
  Positions p;
  for (int g = 0; g < kGroups; ++g) {
    const float64x2_t hx = vmulq_f64(Columns(x, g), vdupq_n_f64(0.5));
    const float64x2_t w = vaddq_f64(vdupq_n_f64(H[8]), vaddq_f64(vmulq_n_f64(hx, H[6]), h7y));
    const float64x2_t nx = vaddq_f64(vdupq_n_f64(H[2]), vaddq_f64(vmulq_n_f64(hx, H[0]), h1y));
    const float64x2_t ny = vaddq_f64(vdupq_n_f64(H[5]), vaddq_f64(vmulq_n_f64(hx, H[3]), h4y));
    p.x[g] = vmulq_f64(two, vdivq_f64(nx, w));
    p.y[g] = vmulq_f64(two, vdivq_f64(ny, w));
  }
  return p;
}

// H(x, y) plus the source's offsets, for columns x + x_step * i, i = 0 .. 7.
Positions FullScale(const double* H, const BilinearSource& src, int x, int y, int x_step = 1) {
  const double yd = static_cast<double>(y);
  const float64x2_t h1y = vdupq_n_f64(H[1] * yd), h4y = vdupq_n_f64(H[4] * yd);
  const float64x2_t h7y = vdupq_n_f64(H[7] * yd);
  Positions p;
  for (int g = 0; g < kGroups; ++g) {
    const float64x2_t xs = {static_cast<double>(x + 2 * g * x_step),
                            static_cast<double>(x + (2 * g + 1) * x_step)};
    const float64x2_t w = vaddq_f64(vdupq_n_f64(H[8]), vaddq_f64(vmulq_n_f64(xs, H[6]), h7y));
    const float64x2_t nx = vaddq_f64(vdupq_n_f64(H[2]), vaddq_f64(vmulq_n_f64(xs, H[0]), h1y));
    const float64x2_t ny = vaddq_f64(vdupq_n_f64(H[5]), vaddq_f64(vmulq_n_f64(xs, H[3]), h4y));
    p.x[g] = vaddq_f64(vdivq_f64(nx, w), vdupq_n_f64(src.offset_x));
    p.y[g] = vaddq_f64(vdivq_f64(ny, w), vdupq_n_f64(src.offset_y));
  }
  return p;
}

// 0 <= v <= last; NaN lanes are false.
uint64x2_t InRange(float64x2_t v, double last) {
  return vandq_u64(vcgeq_f64(v, vdupq_n_f64(0.0)), vcleq_f64(v, vdupq_n_f64(last)));
}

// Lanes of groups g and g + 1 as four int32 or uint32 lanes.
int32x4_t JoinInt(int64x2_t a, int64x2_t b) { return vcombine_s32(vmovn_s64(a), vmovn_s64(b)); }
uint32x4_t JoinMask(uint64x2_t a, uint64x2_t b) {
  return vcombine_u32(vmovn_u64(a), vmovn_u64(b));
}

// Eight values 0..255 (two vectors of four) stored as eight bytes.
void Store8(uint8_t* p, uint32x4_t lo, uint32x4_t hi) {
  vst1_u8(p, vmovn_u16(vcombine_u16(vmovn_u32(lo), vmovn_u32(hi))));
}

// Integer parts (floor) and fractions of in-view positions, out-of-view lanes moved to 0, and
// the in-view mask; lanes 0..3 in [0], 4..7 in [1].
struct Cells {
  int32x4_t x0[2], y0[2];
  uint32x4_t mask[2];
  float64x2_t fx[kGroups], fy[kGroups];
};

Cells Split(const Positions& p, double max_x, double max_y) {
  Cells c;
  int64x2_t x0[kGroups], y0[kGroups];
  uint64x2_t in[kGroups];
  for (int g = 0; g < kGroups; ++g) {
    in[g] = vandq_u64(InRange(p.x[g], max_x), InRange(p.y[g], max_y));
    const float64x2_t sx = vbslq_f64(in[g], p.x[g], vdupq_n_f64(0.0));
    const float64x2_t sy = vbslq_f64(in[g], p.y[g], vdupq_n_f64(0.0));
    const float64x2_t fl_x = vrndmq_f64(sx), fl_y = vrndmq_f64(sy);
    x0[g] = vcvtq_s64_f64(fl_x);
    y0[g] = vcvtq_s64_f64(fl_y);
    c.fx[g] = vsubq_f64(sx, fl_x);
    c.fy[g] = vsubq_f64(sy, fl_y);
  }
  for (int h = 0; h < 2; ++h) {
    c.x0[h] = JoinInt(x0[2 * h], x0[2 * h + 1]);
    c.y0[h] = JoinInt(y0[2 * h], y0[2 * h + 1]);
    c.mask[h] = JoinMask(in[2 * h], in[2 * h + 1]);
  }
  return c;
}

// The four lanes (half h of the step) of bilinear blends of their four samples, in double, in the
// definition's order, rounded half away from zero.
int32x4_t Blend(const Cells& c, int h, uint32x4_t tl, uint32x4_t tr, uint32x4_t bl,
                uint32x4_t br) {
  const float64x2_t one = vdupq_n_f64(1.0);
  int64x2_t rounded[2];
  for (int k = 0; k < 2; ++k) {
    const auto lanes = [k](uint32x4_t v) {
      return vcvtq_f64_u64(vmovl_u32(k == 0 ? vget_low_u32(v) : vget_high_u32(v)));
    };
    const float64x2_t fx = c.fx[2 * h + k], fy = c.fy[2 * h + k];
    const float64x2_t gx = vsubq_f64(one, fx), gy = vsubq_f64(one, fy);
    // fy (1 - fx) bl + (1 - fx)(1 - fy) tl, then + fx (1 - fy) tr, then + fx fy br.
    float64x2_t v = vaddq_f64(vmulq_f64(vmulq_f64(fy, gx), lanes(bl)),
                              vmulq_f64(vmulq_f64(gx, gy), lanes(tl)));
    v = vaddq_f64(v, vmulq_f64(vmulq_f64(fx, gy), lanes(tr)));
    v = vaddq_f64(v, vmulq_f64(vmulq_f64(fx, fy), lanes(br)));
    rounded[k] = vcvtq_s64_f64(vrndaq_f64(v));
  }
  return JoinInt(rounded[0], rounded[1]);
}


// Four lanes of bytes at base + off and base + off + dx, loaded one by one.
void LoadPairs(const uint8_t* base, int32x4_t off, int32x4_t dx, uint32x4_t* a, uint32x4_t* b) {
  int32_t o[4], d[4];
  uint32_t va[4], vb[4];
  vst1q_s32(o, off);
  vst1q_s32(d, dx);
  for (int i = 0; i < 4; ++i) {
    va[i] = base[o[i]];
    vb[i] = base[o[i] + d[i]];
  }
  *a = vld1q_u32(va);
  *b = vld1q_u32(vb);
}

// The fixed-point bilinear rule on eight positions of a width x height plane; 255 out of view.
void FixedPoint8(const uint8_t* src, int width, int height, const Positions& p, uint8_t* out) {
  const Cells c = Split(p, width - 1.0, height - 1.0);
  uint32x4_t value[2];
  for (int h = 0; h < 2; ++h) {
    const auto weight = [](float64x2_t f) { return vcvtq_s64_f64(vmulq_n_f64(f, 2048.0)); };
    const uint32x4_t wx = vreinterpretq_u32_s32(JoinInt(weight(c.fx[2 * h]), weight(c.fx[2 * h + 1])));
    const uint32x4_t wy = vreinterpretq_u32_s32(JoinInt(weight(c.fy[2 * h]), weight(c.fy[2 * h + 1])));
    const int32x4_t x1 = vminq_s32(vaddq_s32(c.x0[h], vdupq_n_s32(1)), vdupq_n_s32(width - 1));
    const int32x4_t y1 = vminq_s32(vaddq_s32(c.y0[h], vdupq_n_s32(1)), vdupq_n_s32(height - 1));
    const int32x4_t w = vdupq_n_s32(width);
    const int32x4_t dx = vsubq_s32(x1, c.x0[h]);
    uint32x4_t tl, tr, bl, br;
    LoadPairs(src, vaddq_s32(vmulq_s32(c.y0[h], w), c.x0[h]), dx, &tl, &tr);
    LoadPairs(src, vaddq_s32(vmulq_s32(y1, w), c.x0[h]), dx, &bl, &br);
    const uint32x4_t full = vdupq_n_u32(2048);
    const uint32x4_t iwy = vsubq_u32(full, wy);
    const uint32x4_t left = vaddq_u32(vmulq_u32(iwy, tl), vmulq_u32(wy, bl));
    const uint32x4_t right = vaddq_u32(vmulq_u32(iwy, tr), vmulq_u32(wy, br));
    const uint32x4_t sum =
        vaddq_u32(vmulq_u32(left, vsubq_u32(full, wx)), vmulq_u32(right, wx));
    value[h] = vbslq_u32(c.mask[h], vshrq_n_u32(sum, 22), vdupq_n_u32(255));
  }
  Store8(out, value[0], value[1]);
}

// Nearest positions: rounded half away from zero (FRINTA, as std::round), tested against width
// and height, out-of-view lanes moved to 0.
struct Nearest {
  int32x4_t x[2], y[2];
  uint32x4_t mask[2];
};

Nearest Round8(const Positions& p, int width, int height) {
  int64x2_t x[kGroups], y[kGroups];
  uint64x2_t in[kGroups];
  const float64x2_t zero = vdupq_n_f64(0.0);
  for (int g = 0; g < kGroups; ++g) {
    const float64x2_t rx = vrndaq_f64(p.x[g]), ry = vrndaq_f64(p.y[g]);
    in[g] = vandq_u64(vandq_u64(vcgeq_f64(rx, zero), vcltq_f64(rx, vdupq_n_f64(width))),
                      vandq_u64(vcgeq_f64(ry, zero), vcltq_f64(ry, vdupq_n_f64(height))));
    x[g] = vcvtq_s64_f64(vbslq_f64(in[g], rx, zero));
    y[g] = vcvtq_s64_f64(vbslq_f64(in[g], ry, zero));
  }
  Nearest n;
  for (int h = 0; h < 2; ++h) {
    n.x[h] = JoinInt(x[2 * h], x[2 * h + 1]);
    n.y[h] = JoinInt(y[2 * h], y[2 * h + 1]);
    n.mask[h] = JoinMask(in[2 * h], in[2 * h + 1]);
  }
  return n;
}

// The replicated chroma planes at four nearest positions: the pair at chroma row y / 2, byte
// x & ~1 of a plane of `chroma` bytes. Bytes beyond it, and out-of-view lanes, give 255.
void ChromaPairs4(const uint8_t* src_uv, int width, int chroma, int32x4_t x, int32x4_t y,
                  uint32x4_t mask, uint32x4_t* first, uint32x4_t* second) {
  const int32x4_t at =
      vaddq_s32(vmulq_s32(vshrq_n_s32(y, 1), vdupq_n_s32(width)), vbicq_s32(x, vdupq_n_s32(1)));
  int32_t o[4];
  uint32_t m[4], a[4], b[4];
  vst1q_s32(o, at);
  vst1q_u32(m, mask);
  for (int i = 0; i < 4; ++i) {
    a[i] = m[i] != 0 && o[i] < chroma ? src_uv[o[i]] : 255;
    b[i] = m[i] != 0 && o[i] + 1 < chroma ? src_uv[o[i] + 1] : 255;
  }
  *first = vld1q_u32(a);
  *second = vld1q_u32(b);
}

}  // namespace

void FixedPointRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                   int y, int x_begin) {
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    FixedPoint8(src, width, height, HalfScale(H, x, y), dst_row + x);
  }
  scalar::FixedPointRow(H, src, dst_row, width, height, y, x);
}

void NearestRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                int y, int x_begin) {
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    const Nearest n = Round8(HalfScale(H, x, y), width, height);
    uint32x4_t value[2];
    for (int h = 0; h < 2; ++h) {
      uint32x4_t v, unused;
      LoadPairs(src, vaddq_s32(vmulq_s32(n.y[h], vdupq_n_s32(width)), n.x[h]), vdupq_n_s32(0),
                &v, &unused);
      value[h] = vbslq_u32(n.mask[h], v, vdupq_n_u32(255));
    }
    Store8(dst_row + x, value[0], value[1]);
  }
  scalar::NearestRow(H, src, dst_row, width, height, y, x);
}

void BilinearRow(const double* H, const BilinearSource& src, uint8_t* dst_row, int width, int y,
                 uint8_t fill, int x_begin) {
  int x = x_begin;
  for (; x + kStep <= width; x += kStep) {
    const Cells c = Split(FullScale(H, src, x, y), src.max_x, src.max_y);
    uint32x4_t value[2];
    for (int h = 0; h < 2; ++h) {
      const int32x4_t x1 = vminq_s32(vaddq_s32(c.x0[h], vdupq_n_s32(1)), vdupq_n_s32(src.last_col));
      const int32x4_t y1 = vminq_s32(vaddq_s32(c.y0[h], vdupq_n_s32(1)), vdupq_n_s32(src.last_row));
      const int32x4_t step = vdupq_n_s32(src.step), stride = vdupq_n_s32(src.stride);
      const int32x4_t left = vmulq_s32(c.x0[h], step);
      const int32x4_t dx = vmulq_s32(vsubq_s32(x1, c.x0[h]), step);
      uint32x4_t tl, tr, bl, br;
      LoadPairs(src.plane, vaddq_s32(vmulq_s32(c.y0[h], stride), left), dx, &tl, &tr);
      LoadPairs(src.plane, vaddq_s32(vmulq_s32(y1, stride), left), dx, &bl, &br);
      value[h] = vbslq_u32(c.mask[h], vreinterpretq_u32_s32(Blend(c, h, tl, tr, bl, br)),
                           vdupq_n_u32(fill));
    }
    Store8(dst_row + x, value[0], value[1]);
  }
  scalar::BilinearRow(H, src, dst_row, width, y, fill, x);
}

void SplitRows(const double* H, const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y,
               uint8_t* dst_uv, int width, int height, int y, int x_begin) {
  const int chroma = (height / 2) * width;
  int x = x_begin;
  // Whole blocks of both rows only: the spill of an odd width's last column and an odd height's
  // last row are left to the scalar rule.
  if (y + 1 < height) {
    for (; x + kStep <= (width & ~1); x += kStep) {
      uint32x4_t sum0[2] = {vdupq_n_u32(0), vdupq_n_u32(0)};
      uint32x4_t sum1[2] = {vdupq_n_u32(0), vdupq_n_u32(0)};
      for (int r = 0; r < 2; ++r) {
        // One mapping serves the luma sample and the nearest chroma sample of a pixel.
        const Positions p = HalfScale(H, x, y + r);
        FixedPoint8(src_y, width, height, p, dst_y + static_cast<int64_t>(y + r) * width + x);
        const Nearest n = Round8(p, width, height);
        for (int h = 0; h < 2; ++h) {
          uint32x4_t c0, c1;
          ChromaPairs4(src_uv, width, chroma, n.x[h], n.y[h], n.mask[h], &c0, &c1);
          sum0[h] = vaddq_u32(sum0[h], c0);
          sum1[h] = vaddq_u32(sum1[h], c1);
        }
      }
      // Neighbouring columns added, then the two bytes of each block interleaved.
      const uint32x4_t blocks0 = vpaddq_u32(sum0[0], sum0[1]);
      const uint32x4_t blocks1 = vpaddq_u32(sum1[0], sum1[1]);
      Store8(dst_uv + static_cast<int64_t>(y / 2) * width + x,
             vshrq_n_u32(vzip1q_u32(blocks0, blocks1), 2),
             vshrq_n_u32(vzip2q_u32(blocks0, blocks1), 2));
    }
  }
  scalar::SplitRows(H, src_y, src_uv, dst_y, dst_uv, width, height, y, x);
}

void DirectChromaRow(const double* H, const BilinearSource& luma, const BilinearSource& chroma,
                     uint8_t* dst_pairs, int width, int y, int x_begin) {
  int x = x_begin;
  // Eight blocks a step: luma columns x, x + 2, .. x + 14, chroma columns x / 2 .. x / 2 + 7.
  for (; x + 2 * kStep <= width; x += 2 * kStep) {
    const Positions at = FullScale(H, luma, x, y, 2);
    uint64_t luma_in[2 * kGroups];
    for (int g = 0; g < kGroups; ++g) {
      vst1q_u64(luma_in + 2 * g, vandq_u64(InRange(at.x[g], luma.max_x),
                                           InRange(at.y[g], luma.max_y)));
    }
    bool any = false;
    for (uint64_t in : luma_in) any = any || in != 0;
    // No block with its luma in view: nothing is written.
    if (!any) continue;
    const Cells c = Split(FullScale(H, chroma, x / 2, y / 2), chroma.max_x, chroma.max_y);
    uint32_t pair[2][2 * kGroups];  // [byte][block]
    for (int h = 0; h < 2; ++h) {
      const int32x4_t x1 =
          vminq_s32(vaddq_s32(c.x0[h], vdupq_n_s32(1)), vdupq_n_s32(chroma.last_col));
      const int32x4_t y1 =
          vminq_s32(vaddq_s32(c.y0[h], vdupq_n_s32(1)), vdupq_n_s32(chroma.last_row));
      const int32x4_t step = vdupq_n_s32(chroma.step), stride = vdupq_n_s32(chroma.stride);
      const int32x4_t left = vmulq_s32(c.x0[h], step);
      const int32x4_t dx = vmulq_s32(vsubq_s32(x1, c.x0[h]), step);
      for (int b = 0; b < 2; ++b) {
        uint32x4_t tl, tr, bl, br;
        LoadPairs(chroma.plane + b, vaddq_s32(vmulq_s32(c.y0[h], stride), left), dx, &tl, &tr);
        LoadPairs(chroma.plane + b, vaddq_s32(vmulq_s32(y1, stride), left), dx, &bl, &br);
        // Out of the chroma view: 128.
        vst1q_u32(pair[b] + 4 * h,
                  vbslq_u32(c.mask[h], vreinterpretq_u32_s32(Blend(c, h, tl, tr, bl, br)),
                            vdupq_n_u32(128)));
      }
    }
    // Blocks out of the luma view keep the destination's bytes.
    for (int i = 0; i < 2 * kGroups; ++i) {
      if (luma_in[i] == 0) continue;
      dst_pairs[x + 2 * i] = static_cast<uint8_t>(pair[0][i]);
      dst_pairs[x + 2 * i + 1] = static_cast<uint8_t>(pair[1][i]);
    }
  }
  scalar::DirectChromaRow(H, luma, chroma, dst_pairs, width, y, x);
}

const WarpKernels kWarp{FixedPointRow, NearestRow, BilinearRow, SplitRows, DirectChromaRow};

}  // namespace neon
}  // namespace velmora
