// Row kernels of the NV12/NV21 to RGB plane conversion. The scalar functions are the definition;
// the ISA variants give bit-identical bytes and finish their rows with the scalar rule.
#ifndef VELMORA_FILTERS_YUV_CONVERT_KERNELS_H
#define VELMORA_FILTERS_YUV_CONVERT_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// One row of width pixels: pixel x takes luma y[x] and the chroma pair at uv + (x & ~1), read
// as (U, V) by the NV12 row and (V, U) by the NV21 row, and writes r[x], g[x], b[x].
using YuvToRgbRowFn = void (*)(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g,
                               uint8_t* b, int width);

struct YuvConvertKernels {
  YuvToRgbRowFn nv12_row;
  YuvToRgbRowFn nv21_row;
};

#define VELMORA_YUV_CONVERT_KERNELS                                                          \
  void Nv12ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, \
                    int width);                                                              \
  void Nv21ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, \
                    int width);                                                              \
  extern const YuvConvertKernels kYuvConvert;

namespace scalar {
VELMORA_YUV_CONVERT_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_YUV_CONVERT_KERNELS
}  // namespace avx2
namespace neon {
VELMORA_YUV_CONVERT_KERNELS
}  // namespace neon

#undef VELMORA_YUV_CONVERT_KERNELS

const YuvConvertKernels& YuvConvertKernelsFor(Isa isa);

// The whole conversion over a kernel table: rows of width pixels with stride width + padding,
// chroma row r / 2 for luma row r. u_first selects NV12 (true) or NV21.
void ConvertYuvToRgbPlanes(const YuvConvertKernels& kernels, bool u_first, const uint8_t* y,
                           const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, int width,
                           int height, int padding);

}  // namespace velmora

#endif  // VELMORA_FILTERS_YUV_CONVERT_KERNELS_H
