// The conversion rule, one pixel at a time: the definition the vector variants must match.
#include "filters/yuv_convert_kernels.h"

#include "common/dispatch.h"

namespace velmora {
namespace scalar {
namespace {

// Single precision throughout, each product rounded before its addition, in this order. The
// coefficients are the camera's own (close to full-range BT.601, not exactly it).
// "Not >= 0" rather than "< 0", so that a NaN would also become 0.
inline uint8_t ClampToByte(float v) {
  if (!(v >= 0.0f)) v = 0.0f;
  if (v > 255.0f) v = 255.0f;
  return static_cast<uint8_t>(static_cast<int>(v));
}

inline void ConvertPixel(uint8_t luma, uint8_t u, uint8_t v, uint8_t* r, uint8_t* g, uint8_t* b) {
  const float y = static_cast<float>(luma);
  const float cu = static_cast<float>(u) - 128.0f;
  const float cv = static_cast<float>(v) - 128.0f;
  *r = ClampToByte(cv * 1.370705f + y);
  *g = ClampToByte((y + cu * -0.337633f) + cv * -0.698001f);
  *b = ClampToByte(cu * 1.732446f + y);
}

}  // namespace

void Nv12ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  for (int x = 0; x < width; ++x) {
    const uint8_t* pair = uv + (x & ~1);
    ConvertPixel(y[x], pair[0], pair[1], r + x, g + x, b + x);
  }
}

void Nv21ToRgbRow(const uint8_t* y, const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b,
                  int width) {
  for (int x = 0; x < width; ++x) {
    const uint8_t* pair = uv + (x & ~1);
    ConvertPixel(y[x], pair[1], pair[0], r + x, g + x, b + x);
  }
}

const YuvConvertKernels kYuvConvert = {Nv12ToRgbRow, Nv21ToRgbRow};

}  // namespace scalar

const YuvConvertKernels& YuvConvertKernelsFor(Isa isa) {
  static const IsaTable<YuvConvertKernels> t{&scalar::kYuvConvert, VELMORA_AVX2(kYuvConvert),
                                             VELMORA_NEON(kYuvConvert)};
  return Pick(t, isa);
}

void ConvertYuvToRgbPlanes(const YuvConvertKernels& kernels, bool u_first, const uint8_t* y,
                           const uint8_t* uv, uint8_t* r, uint8_t* g, uint8_t* b, int width,
                           int height, int padding) {
  if (height < 1 || width < 1) return;
  const YuvToRgbRowFn row = u_first ? kernels.nv12_row : kernels.nv21_row;
  const int64_t stride = static_cast<int64_t>(width) + padding;
  for (int64_t line = 0; line < height; ++line) {
    const int64_t at = line * stride;
    // Two luma rows share one chroma row.
    row(y + at, uv + (line / 2) * stride, r + at, g + at, b + at, width);
  }
}

}  // namespace velmora
