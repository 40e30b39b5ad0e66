#include <cstdlib>
#include <cstring>

#include "common/dispatch.h"
#include "filters/sharpen_kernels.h"
#include "velmora/filters.h"

namespace velmora {

int32_t TruncateToInt32(float v) {
  if (v != v) return 0;
  if (v >= 2147483648.0f) return INT32_MAX;
  if (v <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(v);
}

namespace scalar {

void BlurRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* out,
             int width) {
  for (int x = 1; x < width - 1; ++x) {
    const int sum = above[x - 1] + 2 * above[x] + above[x + 1] + 2 * row[x - 1] + 4 * row[x] +
                    2 * row[x + 1] + below[x - 1] + 2 * below[x] + below[x + 1];
    int value = sum / 16;  // 0..255 already; clamped all the same
    if (value > 255) value = 255;
    if (value < 0) value = 0;
    out[x] = static_cast<uint8_t>(value);
  }
}

namespace {

// Luma of one pixel; returns whether it was sharpened and leaves the new value in *n.
inline bool SharpenPixel(int y, int b, int threshold, float amount, int* n) {
  int d = y - b;
  if (d < 0) d = -d;
  if (!(d > threshold)) return false;
  // (amount + 1) formed once; the two products rounded separately, then subtracted.
  const float gain = amount + 1.0f;
  const float lifted = gain * static_cast<float>(y);
  const float lowered = static_cast<float>(b) * amount;
  int v = TruncateToInt32(lifted - lowered);
  if (v < 0) v = 0;
  if (v > 255) v = 255;
  *n = v;
  return true;
}

}  // namespace

void SharpenLumaRow(const uint8_t* src_y, const uint8_t* blur, uint8_t* dst_y, int width,
                    int threshold, float amount) {
  for (int x = 0; x < width; ++x) {
    const int y = src_y[x];
    int n = y;
    SharpenPixel(y, blur[x], threshold, amount, &n);
    dst_y[x] = static_cast<uint8_t>(n);
  }
}

void SharpenChromaRow(const uint8_t* src_y, const uint8_t* blur, const uint8_t* src_uv,
                      uint8_t* dst_y, uint8_t* dst_uv, int width, int threshold, float amount) {
  for (int x = 0; x < width; ++x) {
    const int y = src_y[x];
    int n = y;
    if (!SharpenPixel(y, blur[x], threshold, amount, &n)) {
      dst_y[x] = static_cast<uint8_t>(y);
      dst_uv[x] = src_uv[x];
      continue;
    }
    dst_y[x] = static_cast<uint8_t>(n);
    // The luma source is read again after the output was written: in place this divides the new
    // value by itself (plus 1e-5); out of place it divides by the old one.
    const int y2 = src_y[x];
    const float ratio = static_cast<float>(static_cast<double>(n) / (static_cast<double>(y2) + 1e-5));
    const float cv = static_cast<float>(src_uv[x] - 128) * ratio + 128.0f;
    // Not clamped: the chroma result wraps to its low eight bits.
    dst_uv[x] = static_cast<uint8_t>(TruncateToInt32(cv));
  }
}

const SharpenKernels kSharpen{BlurRow, SharpenLumaRow, SharpenChromaRow};

}  // namespace scalar

const SharpenKernels& SharpenKernelsFor(Isa isa) {
  static const IsaTable<SharpenKernels> t{&scalar::kSharpen, VELMORA_AVX2(kSharpen),
                                          VELMORA_NEON(kSharpen)};
  return Pick(t, isa);
}

namespace {

bool Overlaps(const uint8_t* a, const uint8_t* b, int width) {
  // As addresses: the rows may lie in unrelated buffers.
  const uintptr_t x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
  return x < y + static_cast<uintptr_t>(width) && y < x + static_cast<uintptr_t>(width);
}

// A destination row may be processed many pixels at a time when it is its source row exactly
// (each pixel reads its own index before writing it) or shares no byte with it.
bool SameOrApart(const uint8_t* dst, const uint8_t* src, int width) {
  return dst == src || !Overlaps(dst, src, width);
}

}  // namespace

void sharpenFilter(const SharpenKernels& kernels, unsigned char* srcY, unsigned char* srcUV,
                   unsigned char* dstY, unsigned char* dstUV, int width, int height, int threshold,
                   float amount) {
  if (width < 1 || height < 1) return;  // no row or no column: nothing is written

  const int64_t stride = width;
  uint8_t* blur = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(stride * height)));
  if (blur == nullptr) return;

  const SharpenKernels& vector = kernels;
  const SharpenKernels& plain = scalar::kSharpen;

  // The blur has no value on the outermost rows and columns. They are given the source luma, so
  // border pixels compare equal to their blur and stay unchanged (unless threshold < 0).
  if (width < 3 || height < 3) {
    std::memcpy(blur, srcY, static_cast<size_t>(stride * height));
  } else {
    std::memcpy(blur, srcY, static_cast<size_t>(width));
    std::memcpy(blur + stride * (height - 1), srcY + stride * (height - 1), static_cast<size_t>(width));
    for (int r = 1; r < height - 1; ++r) {
      const uint8_t* row = srcY + stride * r;
      uint8_t* out = blur + stride * r;
      out[0] = row[0];
      out[width - 1] = row[width - 1];
      // The whole blur is done before any output byte is written: in-place calls are safe.
      vector.blur_row(row - stride, row, row + stride, out, width);
    }
  }

  const int chroma_rows = height / 2;
  for (int r = 0; r < height; ++r) {
    const uint8_t* sy = srcY + stride * r;
    const uint8_t* b = blur + stride * r;
    uint8_t* dy = dstY + stride * r;
    if (r < chroma_rows) {
      // Chroma row r is driven by luma row r, byte x by luma pixel x.
      const uint8_t* suv = srcUV + stride * r;
      uint8_t* duv = dstUV + stride * r;
      const bool vector_ok = SameOrApart(dy, sy, width) && SameOrApart(duv, suv, width) &&
                             !Overlaps(dy, suv, width) && !Overlaps(duv, sy, width) &&
                             !Overlaps(dy, duv, width);
      (vector_ok ? vector : plain).chroma_row(sy, b, suv, dy, duv, width, threshold, amount);
    } else {
      const bool vector_ok = width > 15 && SameOrApart(dy, sy, width);
      (vector_ok ? vector : plain).luma_row(sy, b, dy, width, threshold, amount);
    }
  }
  std::free(blur);
}

}  // namespace velmora

void sharpenFilter(unsigned char* srcY, unsigned char* srcUV, unsigned char* dstY,
                   unsigned char* dstUV, int width, int height, int threshold, float amount) {
  velmora::sharpenFilter(velmora::SharpenKernelsFor(velmora::ActiveIsa()), srcY, srcUV, dstY,
                         dstUV, width, height, threshold, amount);
}
