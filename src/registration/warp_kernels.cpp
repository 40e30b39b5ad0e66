#include "registration/warp_kernels.h"

#include <algorithm>
#include <cmath>

#include "common/dispatch.h"

namespace velmora {
namespace {

// Whether 0 <= v <= last. Written as a conjunction of the two in-view tests, so that NaN (a zero
// projective denominator over a zero numerator) is out of view like an infinity is.
bool InRange(double v, double last) { return v >= 0.0 && v <= last; }

// The fixed-point bilinear sample at the in-view position (sx, sy) of a width x height plane.
uint8_t FixedPointSample(const uint8_t* src, int width, int height, double sx, double sy) {
  const int x0 = static_cast<int>(std::floor(sx));
  const int y0 = static_cast<int>(std::floor(sy));
  // On the last column or row (an inclusive bound) the neighbour repeats the edge sample.
  const int x1 = std::min(x0 + 1, width - 1);
  const int y1 = std::min(y0 + 1, height - 1);
  // 11-bit weights, truncated toward zero: 0..2047.
  const uint32_t wx = static_cast<uint32_t>(static_cast<int>((sx - x0) * 2048.0));
  const uint32_t wy = static_cast<uint32_t>(static_cast<int>((sy - y0) * 2048.0));
  const uint8_t* top = src + static_cast<int64_t>(y0) * width;
  const uint8_t* bottom = src + static_cast<int64_t>(y1) * width;
  const uint32_t tl = top[x0], tr = top[x1], bl = bottom[x0], br = bottom[x1];
  // No rounding term before the shift: the blend truncates (15.5 gives 15).
  return static_cast<uint8_t>((((2048u - wy) * tl + wy * bl) * (2048u - wx) +
                               ((2048u - wy) * tr + wy * br) * wx) >>
                              22);
}

// Nearest-neighbour position: rounded with halves away from zero, then tested against width and
// height (not width - 1: a position of width - 0.6 rounds to width and is out of view, one of
// -0.4 rounds to 0 and is in view). The test runs on the rounded double, so only in-view
// positions are converted to int.
bool NearestPosition(double sx, double sy, int width, int height, int* rx, int* ry) {
  const double x = std::round(sx);
  const double y = std::round(sy);
  if (!(x >= 0.0 && x < width && y >= 0.0 && y < height)) return false;
  *rx = static_cast<int>(x);
  *ry = static_cast<int>(y);
  return true;
}

}  // namespace

void HalfScaleMap(const double* H, int x, int y, double* sx, double* sy) {
  const double hx = static_cast<double>(x) * 0.5;
  const double hy = static_cast<double>(y) * 0.5;
  const double w = H[8] + (H[6] * hx + H[7] * hy);
  *sx = 2.0 * ((H[2] + (H[0] * hx + H[1] * hy)) / w);
  *sy = 2.0 * ((H[5] + (H[3] * hx + H[4] * hy)) / w);
}

void FullScaleMap(const double* H, double x, double y, double* sx, double* sy) {
  const double w = H[8] + (H[6] * x + H[7] * y);
  *sx = (H[2] + (H[0] * x + H[1] * y)) / w;
  *sy = (H[5] + (H[3] * x + H[4] * y)) / w;
}

bool BilinearPosition(const double* H, const BilinearSource& src, double x, double y, double* sx,
                      double* sy) {
  FullScaleMap(H, x, y, sx, sy);
  *sx += src.offset_x;
  *sy += src.offset_y;
  return InRange(*sx, src.max_x) && InRange(*sy, src.max_y);
}

uint8_t BilinearSample(const BilinearSource& src, double sx, double sy, int byte) {
  const int x0 = static_cast<int>(std::floor(sx));
  const int y0 = static_cast<int>(std::floor(sy));
  const int x1 = std::min(x0 + 1, src.last_col);
  const int y1 = std::min(y0 + 1, src.last_row);
  const double fx = sx - x0;
  const double fy = sy - y0;
  const uint8_t* top = src.plane + static_cast<int64_t>(y0) * src.stride + byte;
  const uint8_t* bottom = src.plane + static_cast<int64_t>(y1) * src.stride + byte;
  const double tl = top[x0 * src.step], tr = top[x1 * src.step];
  const double bl = bottom[x0 * src.step], br = bottom[x1 * src.step];
  // This order of products and sums: bottom-left first, then top-left, top-right, bottom-right.
  const double v =
      fy * (1.0 - fx) * bl + (1.0 - fx) * (1.0 - fy) * tl + fx * (1.0 - fy) * tr + fx * fy * br;
  return static_cast<uint8_t>(static_cast<int>(std::round(v)));
}

void SplitChromaSample(const double* H, const uint8_t* src_uv, int width, int height, int64_t flat,
                       int* first, int* second) {
  *first = *second = 255;
  const int64_t plane = static_cast<int64_t>(width) * height;
  if (flat >= plane) return;
  const int x = static_cast<int>(flat % width);
  const int y = static_cast<int>(flat / width);
  double sx, sy;
  HalfScaleMap(H, x, y, &sx, &sy);
  int rx, ry;
  if (!NearestPosition(sx, sy, width, height, &rx, &ry)) return;
  // The replicated planes: pixel (rx, ry) holds the pair at chroma row ry / 2, byte rx & ~1.
  const int64_t chroma = static_cast<int64_t>(height / 2) * width;
  const int64_t at = static_cast<int64_t>(ry / 2) * width + (rx & ~1);
  if (at < chroma) *first = src_uv[at];
  if (at + 1 < chroma) *second = src_uv[at + 1];
}

namespace scalar {

void FixedPointRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                   int y, int x_begin) {
  for (int x = x_begin; x < width; ++x) {
    double sx, sy;
    HalfScaleMap(H, x, y, &sx, &sy);
    // Inclusive bounds: a position exactly on the last row or column is sampled.
    const bool in_view = InRange(sx, width - 1) && InRange(sy, height - 1);
    dst_row[x] = in_view ? FixedPointSample(src, width, height, sx, sy) : 255;
  }
}

void NearestRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,
                int y, int x_begin) {
  for (int x = x_begin; x < width; ++x) {
    double sx, sy;
    HalfScaleMap(H, x, y, &sx, &sy);
    int rx, ry;
    const bool in_view = NearestPosition(sx, sy, width, height, &rx, &ry);
    dst_row[x] = in_view ? src[static_cast<int64_t>(ry) * width + rx] : 255;
  }
}

void BilinearRow(const double* H, const BilinearSource& src, uint8_t* dst_row, int width, int y,
                 uint8_t fill, int x_begin) {
  for (int x = x_begin; x < width; ++x) {
    double sx, sy;
    const bool in_view = BilinearPosition(H, src, x, y, &sx, &sy);
    dst_row[x] = in_view ? BilinearSample(src, sx, sy, 0) : fill;
  }
}

void SplitRows(const double* H, const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y,
               uint8_t* dst_uv, int width, int height, int y, int x_begin) {
  for (int r = y; r < y + 2 && r < height; ++r) {
    FixedPointRow(H, src_y, dst_y + static_cast<int64_t>(r) * width, width, height, r, x_begin);
  }
  const int64_t chroma = static_cast<int64_t>(height / 2) * width;
  for (int x = x_begin; x < width; x += 2) {
    const int64_t flat = static_cast<int64_t>(y) * width + x;
    int sum0 = 0, sum1 = 0;
    for (int64_t f : {flat, flat + 1, flat + width, flat + width + 1}) {
      int c0, c1;
      SplitChromaSample(H, src_uv, width, height, f, &c0, &c1);
      sum0 += c0;
      sum1 += c1;
    }
    // For an odd width the pair of the last even column spills into the next chroma row (which
    // that row's blocks overwrite later); the last row's spill, and every block of an odd
    // height's last row, would fall beyond the plane and is dropped.
    const int64_t at = static_cast<int64_t>(y / 2) * width + x;
    if (at < chroma) dst_uv[at] = static_cast<uint8_t>(sum0 >> 2);
    if (at + 1 < chroma) dst_uv[at + 1] = static_cast<uint8_t>(sum1 >> 2);
  }
}

void DirectChromaRow(const double* H, const BilinearSource& luma, const BilinearSource& chroma,
                     uint8_t* dst_pairs, int width, int y, int x_begin) {
  for (int x = x_begin; x + 1 < width; x += 2) {
    double sx, sy;
    // A block whose top-left luma is out of view keeps the chroma the destination held.
    if (!BilinearPosition(H, luma, x, y, &sx, &sy)) continue;
    // H at the same scale on the chroma grid, without the half-resolution correction: a
    // translation moves the chroma by the full luma offset in chroma pixels. Kept.
    uint8_t* pair = dst_pairs + x;
    if (BilinearPosition(H, chroma, x / 2, y / 2, &sx, &sy)) {
      pair[0] = BilinearSample(chroma, sx, sy, 0);
      pair[1] = BilinearSample(chroma, sx, sy, 1);
    } else {
      pair[0] = pair[1] = 128;
    }
  }
}

const WarpKernels kWarp{FixedPointRow, NearestRow, BilinearRow, SplitRows, DirectChromaRow};

}  // namespace scalar

const WarpKernels& WarpKernelsFor(Isa isa) {
  static const IsaTable<WarpKernels> t{&scalar::kWarp, VELMORA_AVX2(kWarp), VELMORA_NEON(kWarp)};
  return Pick(t, isa);
}

}  // namespace velmora
