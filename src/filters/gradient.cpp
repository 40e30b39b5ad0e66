// The gradient and morphology primitives over caller-owned planes and arrays.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "filters/gradient_kernels.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

bool Overlaps(const void* a, size_t a_bytes, const void* b, size_t b_bytes) {
  const uintptr_t x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
  return x < y + b_bytes && y < x + a_bytes;
}

// The vector rows read several neighbours before they write; a plane written over its own input
// must see the pixel-by-pixel order of the plain rule, so it takes the scalar rows.
const GradientKernels& PlaneKernels(const void* dst, size_t dst_bytes, const void* src,
                                    size_t src_bytes) {
  if (Overlaps(dst, dst_bytes, src, src_bytes)) return scalar::kGradient;
  return GradientKernelsFor(ActiveIsa());
}

// Element-wise arrays: an output equal to an input is fine for every variant (each element reads
// its own index before writing it); any other overlap takes the plain element order.
bool SameOrApart(const float* dst, const float* src, int count) {
  const size_t bytes = static_cast<size_t>(count) * sizeof(float);
  return dst == src || !Overlaps(dst, bytes, src, bytes);
}

}  // namespace
}  // namespace velmora

void sobel(unsigned char* src, int* gx, int* gy, int width, int height) {
  using namespace velmora;
  if (width < 3 || height < 3) return;
  const size_t w = static_cast<size_t>(width), n = w * static_cast<size_t>(height);
  // Inputs are bytes and outputs int32: an overlap is the caller's own undefined mix, but keep
  // even that in the plain order.
  const bool apart = !Overlaps(gx, n * 4, src, n) && !Overlaps(gy, n * 4, src, n) &&
                     !Overlaps(gx, n * 4, gy, n * 4);
  const GradientKernels& k = apart ? GradientKernelsFor(ActiveIsa()) : scalar::kGradient;
  for (int r = 1; r < height - 1; ++r) {
    const uint8_t* row = src + w * r;
    k.sobel_row(row - w, row, row + w, gx + w * r, gy + w * r, width);
  }
}

// The first argument is accepted and never read: the detector passes its Dyy map there, and the
// response is computed from the other three.
void medblur(float* /*unused*/, float* sxx, float* sxy, float* syy, int width, int height,
             float* dst) {
  using namespace velmora;
  if (width < 3 || height < 3) return;
  const size_t w = static_cast<size_t>(width), bytes = w * height * sizeof(float);
  const bool apart = !Overlaps(dst, bytes, sxx, bytes) && !Overlaps(dst, bytes, sxy, bytes) &&
                     !Overlaps(dst, bytes, syy, bytes);
  const GradientKernels& k = apart ? GradientKernelsFor(ActiveIsa()) : scalar::kGradient;
  for (int r = 1; r < height - 1; ++r) {
    const size_t at = w * r;
    k.min_eigen_row({sxx + at - w, sxx + at, sxx + at + w}, {sxy + at - w, sxy + at, sxy + at + w},
                    {syy + at - w, syy + at, syy + at + w}, dst + at, width);
  }
}

void dilate(float* src, float* dst, int width, int height) {
  using namespace velmora;
  if (width < 3 || height < 3) return;
  const size_t w = static_cast<size_t>(width), bytes = w * height * sizeof(float);
  const GradientKernels& k = PlaneKernels(dst, bytes, src, bytes);
  for (int r = 1; r < height - 1; ++r) {
    const size_t at = w * r;
    k.dilate_row({src + at - w, src + at, src + at + w}, dst + at, width);
  }
}

float Arctan_(float y, float x) { return velmora::ArctanOf(y, x); }

void calcArctan(float* y, float* x, float* dst, int count) {
  using namespace velmora;
  if (count < 1) return;
  const bool vector_ok = SameOrApart(dst, y, count) && SameOrApart(dst, x, count);
  (vector_ok ? GradientKernelsFor(ActiveIsa()) : scalar::kGradient).arctan(y, x, dst, count);
}

float Magnitude_(float a, float b) { return velmora::MagnitudeOf(a, b); }

void calcMagnitude(float* a, float* b, float* dst, int count) {
  using namespace velmora;
  if (count < 1) return;
  const bool vector_ok = SameOrApart(dst, a, count) && SameOrApart(dst, b, count);
  (vector_ok ? GradientKernelsFor(ActiveIsa()) : scalar::kGradient).magnitude(a, b, dst, count);
}

// Not vectorised: a vector exponential would not give the C library's expf bit for bit.
void calcExp(float* src, float* dst, int count) {
  for (int i = 0; i < count; ++i) dst[i] = expf(src[i]);
}
