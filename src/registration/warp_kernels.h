// Row kernels of the perspective warps. The scalar functions are the definitions; the ISA variants
// give bit-identical results and finish their rows with the scalar rule.
//
// Every kernel keeps the per-pixel products of the mapping (no incremental coordinates: stepping
// x by adding H[0] would round differently), and tests each mapped coordinate in double before
// any float-to-int conversion, so a NaN, an infinity or a huge position never reaches a
// conversion (whose result for such values differs between x86 and arm64): all of them are simply
// out of view. Rows are written from column x_begin to width - 1.
#ifndef VELMORA_REGISTRATION_WARP_KERNELS_H
#define VELMORA_REGISTRATION_WARP_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// Where the double-precision bilinear sampler of the direct frame warps reads, and how a mapped
// position is placed in that plane.
struct BilinearSource {
  const uint8_t* plane;
  int stride;       // bytes from one row to the next
  int step;         // bytes from one sample to the next (1 for luma, 2 for chroma pairs)
  int last_col;     // neighbours are clamped to this column and row
  int last_row;
  double max_x;     // in view when 0 <= sx <= max_x and 0 <= sy <= max_y (inclusive)
  double max_y;
  double offset_x;  // added to the mapped position (the border of a bordered copy)
  double offset_y;
};

// One row y of perspectiveWarpOP or perspectiveWarpNN: dst_row receives columns of row y of the
// warped plane src (width x height, stride width).
using HalfScaleRowFn = void (*)(const double* H, const uint8_t* src, uint8_t* dst_row, int width,
                                int height, int y, int x_begin);

// One row y of a plane warped with H at full scale and the double-precision bilinear blend;
// out-of-view pixels become fill.
using BilinearRowFn = void (*)(const double* H, const BilinearSource& src, uint8_t* dst_row,
                               int width, int y, uint8_t fill, int x_begin);

// The split frame warp on the row pair y, y + 1 (y even): luma rows y and y + 1 (those below
// height) through the fixed-point rule, and the chroma bytes of the 2x2 blocks starting at even
// columns x >= x_begin (x_begin even), each the truncated mean of four nearest-neighbour samples
// of the replicated chroma planes. See SplitChromaSample for the odd sizes. The six planes of
// the plain rule are never built: the three warps of a pixel share its one mapping, and the
// replicated chroma is read straight from the source pairs; the bytes are the same.
using SplitRowsFn = void (*)(const double* H, const uint8_t* src_y, const uint8_t* src_uv,
                             uint8_t* dst_y, uint8_t* dst_uv, int width, int height, int y,
                             int x_begin);

// The chroma of the direct frame warps on the even row y: each block at an even column
// x >= x_begin (with x + 1 < width) whose top-left luma (x, y) is in view of `luma` gets, at
// dst_pairs[x] and dst_pairs[x + 1], the two bilinear samples of `chroma` at H(x / 2, y / 2)
// (at full scale on the chroma grid), or 128 and 128 when that is out of view; a block whose
// luma is out of view keeps the bytes it had.
using DirectChromaRowFn = void (*)(const double* H, const BilinearSource& luma,
                                   const BilinearSource& chroma, uint8_t* dst_pairs, int width,
                                   int y, int x_begin);

#define VELMORA_WARP_KERNELS                                                                      \
  void FixedPointRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height, \
                     int y, int x_begin);                                                         \
  void NearestRow(const double* H, const uint8_t* src, uint8_t* dst_row, int width, int height,   \
                  int y, int x_begin);                                                            \
  void BilinearRow(const double* H, const BilinearSource& src, uint8_t* dst_row, int width, int y, \
                   uint8_t fill, int x_begin);                                                    \
  void SplitRows(const double* H, const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y,    \
                 uint8_t* dst_uv, int width, int height, int y, int x_begin);                     \
  void DirectChromaRow(const double* H, const BilinearSource& luma, const BilinearSource& chroma, \
                       uint8_t* dst_pairs, int width, int y, int x_begin);

namespace scalar {
VELMORA_WARP_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_WARP_KERNELS
}  // namespace avx2
namespace neon {
VELMORA_WARP_KERNELS
}  // namespace neon

#undef VELMORA_WARP_KERNELS

struct WarpKernels {
  HalfScaleRowFn fixed_point_row;  // perspectiveWarpOP
  HalfScaleRowFn nearest_row;      // perspectiveWarpNN
  BilinearRowFn bilinear_row;      // perspectiveWarp and the luma of the direct frame warps
  SplitRowsFn split_rows;          // perspectiveWarpYUV_OP
  DirectChromaRowFn direct_chroma_row;  // the chroma of perspectiveWarpYUV and _B
};

namespace scalar {
extern const WarpKernels kWarp;
}  // namespace scalar
namespace avx2 {
extern const WarpKernels kWarp;
}  // namespace avx2
namespace neon {
extern const WarpKernels kWarp;
}  // namespace neon

const WarpKernels& WarpKernelsFor(Isa isa);

// The exported warps over a kernel table, for tests and benchmarks to pick the variant.
void WarpFixedPointPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                         int width, int height);
void WarpNearestPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                      int width, int height);
void WarpBilinearPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                       int width, int height);
void WarpYuvSplit(const WarpKernels& k, const double* H, const uint8_t* src_y,
                  const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv, int width, int height);
// bordered: perspectiveWarpYUV_B, else perspectiveWarpYUV.
void WarpYuvDirect(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                   int width, int height, bool bordered);

// The pieces of the scalar rule the other functions share.
//
// Source position of destination (x, y) under the half-resolution convention: 2 * H(x/2, y/2).
void HalfScaleMap(const double* H, int x, int y, double* sx, double* sy);
// Source position of destination (x, y) with H at full scale (before any border offset).
void FullScaleMap(const double* H, double x, double y, double* sx, double* sy);
// Maps destination (x, y) at full scale into src (offsets added) and tells whether the position
// is in view (a NaN position is not).
bool BilinearPosition(const double* H, const BilinearSource& src, double x, double y, double* sx,
                      double* sy);
// The double-precision bilinear sample of bytes `byte` (0 or 1 within a sample of `step` bytes)
// at the in-view position (sx, sy), rounded with halves away from zero.
uint8_t BilinearSample(const BilinearSource& src, double sx, double sy, int byte);

// The chroma pair (first byte, second byte) of the warped, replicated chroma planes at flat
// index `flat` of a width x height plane. The plain rule of the split family reads the planes as
// flat arrays: for an odd width the column after the last even one is the next row's first
// pixel, and for an odd height the row after the last one lies beyond the planes. Whatever that
// rule would read beyond a plane (warped or source chroma) counts as 255, the family's fill.
void SplitChromaSample(const double* H, const uint8_t* src_uv, int width, int height, int64_t flat,
                       int* first, int* second);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_WARP_KERNELS_H
