// The gradient and morphology primitives: their worked values, the orders and comparisons that
// make them exact, the untouched borders, and their vector kernels against the scalar ones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "filters/gradient_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

uint32_t Bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

TEST(Arctan, TakesThePolynomialsValues) {
  const struct {
    float y, x, degrees;
  } cases[] = {
      {0, 0, 0},           {1, 0, 90},           {0, -1, 180},        {-1, 0, 270},
      {1, 1, 44.990456f},  {-1, -1, 224.99045f}, {1, 2, 26.567104f},  {-3, 4, 323.1363f},
      {-0.0f, -1, 180},    // negative zero is not negative
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Bits(Arctan_(c.y, c.x)), Bits(c.degrees)) << c.y << ", " << c.x;
    float y = c.y, x = c.x, out = -1;
    calcArctan(&y, &x, &out, 1);
    EXPECT_EQ(Bits(out), Bits(c.degrees));
  }
}

TEST(ElementWise, CountsBelowOneWriteNothingAndValuesFollowTheirRule) {
  float a[2] = {3, 1e20f}, b[2] = {4, 1e20f}, out[2] = {7, 7};
  calcArctan(a, b, out, 0);
  calcMagnitude(a, b, out, -1);
  calcExp(a, out, 0);
  EXPECT_EQ(out[0], 7);
  EXPECT_EQ(Magnitude_(3, 4), 5);
  EXPECT_EQ(Magnitude_(1e20f, 1e20f), INFINITY);  // the squares overflow single precision
  calcExp(a, out, 1);
  EXPECT_EQ(out[0], expf(3.0f));
}

// An output that overlaps its input by part of an array sees the values already written, as the
// element-by-element rule does; the vector path must not read ahead of it.
TEST(ElementWise, PartlyOverlappingOutputFollowsElementOrder) {
  std::mt19937 rng(3);
  for (int count : {9, 40}) {
    std::vector<float> y = testutil::RandomFloats(count + 1, rng(), 1000),
                       x = testutil::RandomFloats(count, rng(), 1000);
    std::vector<float> expected = y;
    for (int i = 0; i < count; ++i) expected[i + 1] = Arctan_(expected[i], x[i]);
    calcArctan(y.data(), x.data(), y.data() + 1, count);
    for (int i = 0; i <= count; ++i) EXPECT_EQ(Bits(y[i]), Bits(expected[i])) << i;
  }
}

TEST(Sobel, RampsGiveEightAndBordersStayUnwritten) {
  const int w = 7, h = 5;
  std::vector<uint8_t> ramp_x(w * h), ramp_y(w * h);
  for (int r = 0; r < h; ++r) {
    for (int x = 0; x < w; ++x) {
      ramp_x[r * w + x] = static_cast<uint8_t>(x);
      ramp_y[r * w + x] = static_cast<uint8_t>(3 * r);
    }
  }
  std::vector<int> gx(w * h, -99), gy(w * h, -99);
  sobel(ramp_x.data(), gx.data(), gy.data(), w, h);
  for (int r = 0; r < h; ++r) {
    for (int x = 0; x < w; ++x) {
      const bool border = r == 0 || x == 0 || r == h - 1 || x == w - 1;
      EXPECT_EQ(gx[r * w + x], border ? -99 : 8);
      EXPECT_EQ(gy[r * w + x], border ? -99 : 0);
    }
  }
  sobel(ramp_y.data(), gx.data(), gy.data(), w, h);
  EXPECT_EQ(gx[w + 1], 0);
  EXPECT_EQ(gy[w + 1], 24);  // positive downward
}

TEST(ThreeByThree, SizesBelowThreeWriteNothing) {
  for (const auto& size : {std::pair<int, int>{2, 9}, {9, 2}, {0, 0}}) {
    std::vector<uint8_t> bytes(18, 200);
    std::vector<int> gx(18, -1), gy(18, -1);
    std::vector<float> f(18, 1.0f), out(18, -1.0f);
    sobel(bytes.data(), gx.data(), gy.data(), size.first, size.second);
    medblur(nullptr, f.data(), f.data(), f.data(), size.first, size.second, out.data());
    dilate(f.data(), out.data(), size.first, size.second);
    EXPECT_EQ(gx, std::vector<int>(18, -1));
    EXPECT_EQ(gy, std::vector<int>(18, -1));
    EXPECT_EQ(out, std::vector<float>(18, -1.0f));
  }
}

// Constant planes with sxy = 0 give 9 times the smaller constant; sxy adds the off-diagonal.
TEST(Medblur, GivesTheSmallerEigenvalueAndIgnoresItsFirstArgument) {
  const int w = 4, h = 3;
  const struct {
    float xx, xy, yy, expected;
  } cases[] = {{2, 0, 5, 18}, {5, 0, 2, 18}, {1, 0.5f, 1, 4.5f}, {3, -1, 3, 18}};
  for (const auto& c : cases) {
    std::vector<float> xx(w * h, c.xx), xy(w * h, c.xy), yy(w * h, c.yy), out(w * h, -7);
    medblur(nullptr, xx.data(), xy.data(), yy.data(), w, h, out.data());  // nullptr: never read
    EXPECT_EQ(out, (std::vector<float>{-7, -7, -7, -7, -7, c.expected, c.expected, -7, -7, -7,
                                       -7, -7}));
  }
  // The box sums start from +0: planes of -0 give +0, not -0.
  std::vector<float> minus(9, -0.0f), out(9, -7);
  medblur(nullptr, minus.data(), minus.data(), minus.data(), 3, 3, out.data());
  EXPECT_EQ(Bits(out[4]), Bits(0.0f));
}

// Right column top to bottom, then centre, then left: 1e8 absorbs the fours before -1e8 cancels
// it. A row-major or bottom-up order would keep 8.
TEST(Medblur, SumsRightColumnFirstTopToBottom) {
  const std::vector<float> plane = {0, -1e8f, 1e8f,  //
                                    0, 0,     4,     //
                                    0, 0,     4};
  const std::vector<float> zero(9, 0.0f);
  std::vector<float> out(9, -1);
  // sxx = syy = the plane and sxy = 0: the response is the box sum itself.
  medblur(nullptr, const_cast<float*>(plane.data()), const_cast<float*>(zero.data()),
          const_cast<float*>(plane.data()), 3, 3, out.data());
  EXPECT_EQ(out[4], 0.0f);
}

TEST(Dilate, RunsItsOrderWithAStrictComparison) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  // Neighbourhood of the single interior pixel, row-major; the first entry of the running order
  // is the top-right one (index 2).
  const struct {
    std::vector<float> in;
    float expected;
  } cases[] = {
      {{1, 2, 3, 4, 9, 5, 6, 7, 8}, 9},
      {{1, 2, nan, 4, 9, 5, 6, 7, 8}, nan},  // a NaN first is never replaced
      {{1, 2, 3, 4, nan, 5, 6, 7, 8}, 8},    // a NaN later is never taken
      {{0, 0, -0.0f, 0, 0, 0, 0, 0, 0}, -0.0f},  // +0 is not greater than -0
      {{-0.0f, -0.0f, 0, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f}, 0.0f},
  };
  for (const auto& c : cases) {
    std::vector<float> in = c.in, out(9, -5);
    dilate(in.data(), out.data(), 3, 3);
    EXPECT_EQ(Bits(out[4]), Bits(c.expected));
    EXPECT_EQ(out[0], -5);
  }
}

// ---- The vector kernels against their scalar definitions ------------------------------------

using testutil::RandomFloats;

// Bytes with the extremes over-represented and floats mostly ordinary (so that the nine-term
// sums are not all NaN). Each row kernel runs over every interior row of planes that start from
// a fixed fill; the element kernels over whole arrays, apart and in place over either input.
struct GradientFamily {
  static constexpr const char* kName = "Gradient";
  using Kernels = GradientKernels;
  static const Kernels& For(Isa isa) { return GradientKernelsFor(isa); }
  struct Case {
    int width, height;
    std::vector<uint8_t> bytes;
    std::vector<float> a, b, c;
  };

  static Case Make(int w, int h, uint32_t seed) {
    const size_t n = static_cast<size_t>(w) * h;
    std::mt19937 rng(seed);
    Case c{w, h, std::vector<uint8_t>(n), RandomFloats(n, seed + 1, 60),
           RandomFloats(n, seed + 2, 60), RandomFloats(n, seed + 3, 60)};
    for (uint8_t& v : c.bytes) v = static_cast<uint8_t>(rng() % 4 == 0 ? 255 * (rng() % 2) : rng());
    return c;
  }

  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const size_t w = c.width, n = w * c.height;
    std::vector<int32_t> gx(n, 0x5A5A), gy(n, 0x5A5A);
    std::vector<float> eigen(n, 77.0f), dilated(n, 77.0f);
    for (int r = 1; r + 1 < c.height; ++r) {
      const size_t at = w * r;
      const uint8_t* row = c.bytes.data() + at;
      k.sobel_row(row - w, row, row + w, gx.data() + at, gy.data() + at, c.width);
      const float *a = c.a.data() + at, *b = c.b.data() + at, *d = c.c.data() + at;
      k.min_eigen_row({a - w, a, a + w}, {b - w, b, b + w}, {d - w, d, d + w}, eigen.data() + at,
                      c.width);
      k.dilate_row({a - w, a, a + w}, dilated.data() + at, c.width);
    }
    const int count = static_cast<int>(n);
    std::vector<float> angle(n), first = c.a, second = c.b, length(n), in_place = c.a;
    k.arctan(c.a.data(), c.b.data(), angle.data(), count);
    k.arctan(first.data(), c.b.data(), first.data(), count);
    k.arctan(c.a.data(), second.data(), second.data(), count);
    k.magnitude(c.a.data(), c.b.data(), length.data(), count);
    k.magnitude(in_place.data(), c.b.data(), in_place.data(), count);
    std::vector<uint8_t> out;
    AppendBytes(out, gx);
    AppendBytes(out, gy);
    for (const auto* v : {&eigen, &dilated, &angle, &first, &second, &length, &in_place}) {
      AppendBytes(out, *v);
    }
    return out;
  }
};

TEST_P(KernelConformance, Gradient) { ExpectMatchesScalar<GradientFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
