// Row kernels of the bilinear NV12 resampler. The scalar functions are the definition; the ISA
// variants give bit-identical bytes and finish their rows with the scalar rule.
#ifndef VELMORA_FILTERS_YUV_SCALE_KERNELS_H
#define VELMORA_FILTERS_YUV_SCALE_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// Destination luma columns i in [begin, end) of one row: fx = sx * i, x0 = trunc(fx),
// x1 = x0 + 1 limited to 0..src_width - 1, wx = fx - x0; out[i] = trunc((1 - wy) * ((1 - wx) *
// row0[x0] + wx * row0[x1]) + wy * ((1 - wx) * row1[x0] + wx * row1[x1])), single precision.
using LinearLumaRowFn = void (*)(const uint8_t* row0, const uint8_t* row1, uint8_t* out,
                                 int src_width, float sx, float wy, int begin, int end);

// Destination chroma pairs k in [begin, end) of one row (pair k belongs to luma column 2k):
// cx0 = trunc(sx * k), cx1 = cx0 + 1 limited to 0..src_pairs - 1; both bytes of out pair k by
// the rule above over pairs cx0 and cx1 of pairs0 and pairs1, with the weight wx of column 2k.
using LinearChromaRowFn = void (*)(const uint8_t* pairs0, const uint8_t* pairs1, uint8_t* out,
                                   int src_pairs, float sx, float wy, int begin, int end);

struct YuvScaleKernels {
  LinearLumaRowFn luma_row;
  LinearChromaRowFn chroma_row;
};

#define VELMORA_YUV_SCALE_KERNELS                                                             \
  void LinearLumaRow(const uint8_t* row0, const uint8_t* row1, uint8_t* out, int src_width,   \
                     float sx, float wy, int begin, int end);                                 \
  void LinearChromaRow(const uint8_t* pairs0, const uint8_t* pairs1, uint8_t* out,            \
                       int src_pairs, float sx, float wy, int begin, int end);                \
  extern const YuvScaleKernels kYuvScale;

namespace scalar {
VELMORA_YUV_SCALE_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_YUV_SCALE_KERNELS
}  // namespace avx2

#undef VELMORA_YUV_SCALE_KERNELS

// The variant for isa; arm64 runs the scalar rows (no gather to build a NEON variant on).
const YuvScaleKernels& YuvScaleKernelsFor(Isa isa);

// NV12Linear (with_chroma) or NV12Linear_Y over a kernel table.
void ResampleNv12(const YuvScaleKernels& kernels, const uint8_t* src, uint8_t* dst,
                  int src_width, int src_height, int dst_width, int dst_height, bool with_chroma);

}  // namespace velmora

#endif  // VELMORA_FILTERS_YUV_SCALE_KERNELS_H
