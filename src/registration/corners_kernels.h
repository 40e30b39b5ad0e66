// Row kernels of the corner detector: its own passes, and (through the table) the derivative,
// response and dilation rows of filters/gradient_kernels.h. The scalar functions are the
// definitions; the ISA variants give bit-identical results and finish their rows with the scalar
// rule.
#ifndef VELMORA_REGISTRATION_CORNERS_KERNELS_H
#define VELMORA_REGISTRATION_CORNERS_KERNELS_H

#include <cstdint>

#include "common/cpu.h"
#include "filters/gradient_kernels.h"

namespace velmora {

// Gradient products of width entries, each formed in double and rounded once to float:
//   dxx = float((scale * dx) * dx), dxy = float((scale * dx) * dy), dyy = float((scale * dy) * dy)
using ProductRowFn = void (*)(const int32_t* dx, const int32_t* dy, double scale, float* dxx,
                              float* dxy, float* dyy, int width);

// The running maximum over row[0 .. width - 1] in index order: an entry replaces it only when
// strictly greater. Returns the new running value.
using RowMaxFn = float (*)(const float* row, int width, float running);

// In place: every entry <= threshold becomes 0; the others keep their value.
using CutRowFn = void (*)(float* row, int width, float threshold);

// Writes to xs, left to right, the columns x in 1 .. width - 2 whose response is not 0 and
// equals its dilated value exactly; returns how many. xs needs room for width entries.
using PeakRowFn = int (*)(const float* response, const float* dilated, int width, int32_t* xs);

// The detector's rows of one ISA, with the gradient rows of the same ISA that it runs on
// (derivatives, response, dilation).
struct CornerKernels {
  const GradientKernels* gradient;
  ProductRowFn product_row;
  RowMaxFn row_max;
  CutRowFn cut_row;
  PeakRowFn peak_row;
};

#define VELMORA_CORNER_KERNELS                                                                   \
  void ProductRow(const int32_t* dx, const int32_t* dy, double scale, float* dxx, float* dxy,   \
                  float* dyy, int width);                                                        \
  float RowMax(const float* row, int width, float running);                                     \
  void CutRow(float* row, int width, float threshold);                                          \
  int PeakRow(const float* response, const float* dilated, int width, int32_t* xs);             \
  extern const CornerKernels kCorner;

namespace scalar {
VELMORA_CORNER_KERNELS
}  // namespace scalar
namespace avx2 {
VELMORA_CORNER_KERNELS
}  // namespace avx2
namespace neon {
VELMORA_CORNER_KERNELS
}  // namespace neon

#undef VELMORA_CORNER_KERNELS

const CornerKernels& CornerKernelsFor(Isa isa);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_CORNERS_KERNELS_H
