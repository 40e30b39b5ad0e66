#include "filters/gradient_kernels.h"

#include <cmath>

#include "common/dispatch.h"

namespace velmora {

float ArctanOf(float y, float x) {
  const float ax = std::fabs(x), ay = std::fabs(y);
  float a;
  if (ax >= ay) {
    const float t = ay / (ax + kArctanEps);
    const float t2 = t * t;
    a = t * (t2 * (t2 * (t2 * kArctanC7 + kArctanC5) + kArctanC3) + kArctanC1);
  } else {
    const float t = ax / (ay + kArctanEps);
    const float t2 = t * t;
    a = 90.0f - t * (t2 * (t2 * (t2 * kArctanC7 + kArctanC5) + kArctanC3) + kArctanC1);
  }
  // Plain comparisons: -0.0 is not negative, so Arctan(-0.0, -1) is 180, not 180 mirrored.
  if (x < 0) a = 180.0f - a;
  if (y < 0) a = 360.0f - a;
  return a;
}

float MagnitudeOf(float a, float b) { return std::sqrt(a * a + b * b); }

namespace scalar {

void SobelRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, int32_t* gx,
              int32_t* gy, int width) {
  for (int x = 1; x < width - 1; ++x) {
    gx[x] = (2 * row[x + 1] + above[x + 1] + below[x + 1]) - above[x - 1] - 2 * row[x - 1] -
            below[x - 1];
    gy[x] = (2 * below[x] + below[x - 1] + below[x + 1]) - above[x - 1] - 2 * above[x] -
            above[x + 1];
  }
}

namespace {

// The 3x3 box sum in single precision: right column, then centre, then left, each top to bottom,
// into an accumulator that starts at +0 (so an all -0 neighbourhood sums to +0).
float BoxSum(const FloatRows& s, int x) {
  float sum = 0.0f;
  for (int dx = 1; dx >= -1; --dx) {
    sum += s.above[x + dx];
    sum += s.row[x + dx];
    sum += s.below[x + dx];
  }
  return sum;
}

}  // namespace

void MinEigenRow(const FloatRows& sxx, const FloatRows& sxy, const FloatRows& syy, float* dst,
                 int width) {
  for (int x = 1; x < width - 1; ++x) {
    const float a = BoxSum(sxx, x), b = BoxSum(sxy, x), c = BoxSum(syy, x);
    const float h = a * 0.5f, k = c * 0.5f;
    const float bb = b * b, d = h - k, dd = d * d;  // each product rounded before the sum
    dst[x] = (h + k) - std::sqrt(bb + dd);
  }
}

void DilateRow(const FloatRows& src, float* dst, int width) {
  for (int x = 1; x < width - 1; ++x) {
    // The nine neighbours in the fixed order of the running comparison; a candidate wins only
    // when the running value is strictly less, so a NaN first stays and a NaN later is ignored.
    const float n[9] = {src.above[x + 1], src.row[x + 1], src.below[x + 1],
                        src.above[x],     src.row[x],     src.below[x],
                        src.above[x - 1], src.row[x - 1], src.below[x - 1]};
    float m = n[0];
    for (int i = 1; i < 9; ++i) {
      if (m < n[i]) m = n[i];
    }
    dst[x] = m;
  }
}

void Arctan(const float* y, const float* x, float* dst, int count) {
  for (int i = 0; i < count; ++i) dst[i] = ArctanOf(y[i], x[i]);
}

void Magnitude(const float* a, const float* b, float* dst, int count) {
  for (int i = 0; i < count; ++i) dst[i] = MagnitudeOf(a[i], b[i]);
}

const GradientKernels kGradient{SobelRow, MinEigenRow, DilateRow, Arctan, Magnitude};

}  // namespace scalar

const GradientKernels& GradientKernelsFor(Isa isa) {
  static const IsaTable<GradientKernels> t{&scalar::kGradient, VELMORA_AVX2(kGradient),
                                           VELMORA_NEON(kGradient)};
  return Pick(t, isa);
}

}  // namespace velmora
