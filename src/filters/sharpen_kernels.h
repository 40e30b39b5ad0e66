// Row kernels of the sharpen filter. The scalar functions are the definitions; the ISA variants
// give bit-identical results, finish their rows with the scalar rule and are chosen at run time
// (see common/dispatch.h).
#ifndef VELMORA_FILTERS_SHARPEN_KERNELS_H
#define VELMORA_FILTERS_SHARPEN_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// out[x] = (1 2 1 / 2 4 2 / 1 2 1 weighted sum of the 3x3 neighbourhood) / 16, truncated, for
// x = 1 .. width - 2. out[0] and out[width - 1] are not written. Needs width >= 3.
using BlurRowFn = void (*)(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                           uint8_t* out, int width);

// A row without a chroma partner: each pixel whose |luma - blur| exceeds threshold becomes
// clamp(trunc((amount + 1) * y - b * amount), 0, 255) in single precision; the others are copied.
// Vector variants need dst either equal to src or not overlapping it.
using SharpenLumaRowFn = void (*)(const uint8_t* src_y, const uint8_t* blur, uint8_t* dst_y,
                                  int width, int threshold, float amount);

// A row that carries chroma: luma as above, and where a pixel is sharpened the chroma byte of the
// same index becomes the low 8 bits of (uv - 128) * ratio + 128, ratio = n / (src_y re-read
// after dst_y was written + 1e-5) rounded to float; otherwise the chroma byte is copied.
// Vector variants need each destination either equal to its source or overlapping nothing.
using SharpenChromaRowFn = void (*)(const uint8_t* src_y, const uint8_t* blur,
                                    const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv,
                                    int width, int threshold, float amount);

struct SharpenKernels {
  BlurRowFn blur_row;
  SharpenLumaRowFn luma_row;
  SharpenChromaRowFn chroma_row;
};

namespace scalar {
void BlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
             int width);
void SharpenLumaRow(const uint8_t* src_y, const uint8_t* blur, uint8_t* dst_y, int width,
                    int threshold, float amount);
void SharpenChromaRow(const uint8_t* src_y, const uint8_t* blur, const uint8_t* src_uv,
                      uint8_t* dst_y, uint8_t* dst_uv, int width, int threshold, float amount);
extern const SharpenKernels kSharpen;
}  // namespace scalar
namespace avx2 {
extern const SharpenKernels kSharpen;
}  // namespace avx2
namespace neon {
extern const SharpenKernels kSharpen;
}  // namespace neon

const SharpenKernels& SharpenKernelsFor(Isa isa);

// sharpenFilter (velmora/filters.h) on the given kernels: the exported function runs it on
// SharpenKernelsFor(ActiveIsa()); tests and benchmarks name the variant. Rows whose buffers
// overlap in a way the vector rows do not allow run on the scalar rows whatever the table.
void sharpenFilter(const SharpenKernels& kernels, unsigned char* srcY, unsigned char* srcUV,
                   unsigned char* dstY, unsigned char* dstUV, int width, int height, int threshold,
                   float amount);

// The float-to-int conversion of the filter: truncation toward zero, saturating at the limits
// of int32 (NaN gives 0), as the arm64 conversion instruction does.
int32_t TruncateToInt32(float v);

}  // namespace velmora

#endif  // VELMORA_FILTERS_SHARPEN_KERNELS_H
