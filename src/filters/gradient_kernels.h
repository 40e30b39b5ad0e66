// Row and element kernels of the gradient and morphology primitives. The scalar functions are the
// definitions; the ISA variants give bit-identical results and finish with the scalar rule.
#ifndef VELMORA_FILTERS_GRADIENT_KERNELS_H
#define VELMORA_FILTERS_GRADIENT_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// Three consecutive rows of a float plane around the row being computed.
struct FloatRows {
  const float* above;
  const float* row;
  const float* below;
};

// Sobel of columns 1 .. width - 2 (gx, gy[0] and [width - 1] are not written); needs width >= 3:
//   gx = (2 P(1, 0) + P(1, -1) + P(1, 1)) - P(-1, -1) - 2 P(-1, 0) - P(-1, 1)
//   gy = (2 P(0, 1) + P(-1, 1) + P(1, 1)) - P(-1, -1) - 2 P(0, -1) - P(1, -1)
using SobelRowFn = void (*)(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                            int32_t* gx, int32_t* gy, int width);

// Smaller eigenvalue of the box-summed matrix for columns 1 .. width - 2 (see medblur).
using MinEigenRowFn = void (*)(const FloatRows& sxx, const FloatRows& sxy, const FloatRows& syy,
                               float* dst, int width);

// 3x3 dilation of columns 1 .. width - 2 (see dilate).
using DilateRowFn = void (*)(const FloatRows& src, float* dst, int width);

// dst[i] = ArctanOf(y[i], x[i]) and dst[i] = MagnitudeOf(a[i], b[i]) for i < count. Vector
// variants need dst either equal to an input or overlapping none.
using ArctanFn = void (*)(const float* y, const float* x, float* dst, int count);
using MagnitudeFn = void (*)(const float* a, const float* b, float* dst, int count);

#define VELMORA_GRADIENT_KERNELS                                                                \
  void SobelRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, int32_t* gx,    \
                int32_t* gy, int width);                                                        \
  void MinEigenRow(const FloatRows& sxx, const FloatRows& sxy, const FloatRows& syy,            \
                   float* dst, int width);                                                      \
  void DilateRow(const FloatRows& src, float* dst, int width);                                  \
  void Arctan(const float* y, const float* x, float* dst, int count);                           \
  void Magnitude(const float* a, const float* b, float* dst, int count);                        \
  extern const GradientKernels kGradient;

struct GradientKernels {
  SobelRowFn sobel_row;
  MinEigenRowFn min_eigen_row;
  DilateRowFn dilate_row;
  ArctanFn arctan;
  MagnitudeFn magnitude;
};

namespace scalar {
VELMORA_GRADIENT_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_GRADIENT_KERNELS
}  // namespace avx2
namespace neon {
VELMORA_GRADIENT_KERNELS
}  // namespace neon

#undef VELMORA_GRADIENT_KERNELS

const GradientKernels& GradientKernelsFor(Isa isa);

// The angle rule of one element, degrees in [0, 360):
//   ax = |x|, ay = |y|, eps = 2.220446e-16f;
//   ax >= ay: a = p(ay / (ax + eps)); otherwise a = 90 - p(ax / (ay + eps));
//   p(t) = t * (t2 * (t2 * (t2 * c7 + c5) + c3) + c1), t2 = t * t;
//   x < 0: a = 180 - a; then y < 0: a = 360 - a.
float ArctanOf(float y, float x);

// sqrt(a * a + b * b) in single precision.
float MagnitudeOf(float a, float b);

// The polynomial's constants, shared by every variant.
constexpr float kArctanEps = 2.220446e-16f;
constexpr float kArctanC1 = 57.283627f;
constexpr float kArctanC3 = -18.667446f;
constexpr float kArctanC5 = 8.9140005f;
constexpr float kArctanC7 = -2.5397246f;

}  // namespace velmora

#endif  // VELMORA_FILTERS_GRADIENT_KERNELS_H
