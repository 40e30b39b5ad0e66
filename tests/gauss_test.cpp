// The smoothing filters: the 3x3 blurs on known patterns and borders, the recursive Gaussian's
// coefficients, gain and shift, and the row pass that the column pass overwrites.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "common/cpu.h"
#include "kernel_conformance.h"
#include "filters/gauss_kernels.h"
#include "velmora/filters.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Floats = std::vector<float>;

TEST(GaussBlur8, WeighsTheNeighbourhood121TruncatesAndLeavesTheBorder) {
  // An impulse of 255 spreads as 255 * {1, 2, 4} / 16, each truncated: 15, 31, 63 (63.75 rounded
  // would be 64; no other integer weights give these).
  const int w = 5, h = 5;
  Bytes src(w * h, 0);
  src[2 * w + 2] = 255;
  Bytes dst(w * h, 0xEE);
  gaussBlur(src.data(), dst.data(), w, h);
  const int expected[3][3] = {{15, 31, 15}, {31, 63, 31}, {15, 31, 15}};
  for (int r = 0; r < h; ++r) {
    for (int x = 0; x < w; ++x) {
      const bool border = r == 0 || x == 0 || r == h - 1 || x == w - 1;
      EXPECT_EQ(dst[r * w + x], border ? 0xEE : expected[r - 1][x - 1]) << r << "," << x;
    }
  }
}

TEST(GaussBlur, WritesNothingBelowThreeRowsOrColumns) {
  const std::pair<int, int> sizes[] = {{2, 9}, {9, 2}, {1, 1}, {0, 5}};
  for (const auto& [w, h] : sizes) {
    const size_t n = static_cast<size_t>(w) * h;
    Bytes src(n, 90), dst(n, 7);
    gaussBlur(src.data(), dst.data(), w, h);
    EXPECT_EQ(dst, Bytes(n, 7)) << w << "x" << h;
    Floats fsrc(n, 90.0f), fdst(n, 7.0f);
    gaussBlur(fsrc.data(), fdst.data(), w, h);
    EXPECT_EQ(fdst, Floats(n, 7.0f)) << w << "x" << h;
  }
}

TEST(GaussBlurFloat, SumsTheWeightsInReadingOrderAndMayRunInPlace) {
  const int w = 6, h = 5;
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> value(-100.0f, 100.0f);
  Floats src(w * h);
  for (float& v : src) v = value(rng);
  Floats dst(w * h, -1.0f);
  gaussBlur(src.data(), dst.data(), w, h);

  const float c = 0.0947416f, e = 0.118318f, m = 0.147761f;
  const float weight[9] = {c, e, c, e, m, e, c, e, c};
  for (int r = 0; r < h; ++r) {
    for (int x = 0; x < w; ++x) {
      if (r == 0 || x == 0 || r == h - 1 || x == w - 1) {
        EXPECT_EQ(dst[r * w + x], -1.0f);
        continue;
      }
      float sum = 0.0f;  // one rounded product after another, top-left first
      for (int k = 0; k < 9; ++k) {
        const float product = weight[k] * src[(r - 1 + k / 3) * w + (x - 1 + k % 3)];
        sum = sum + product;
      }
      EXPECT_EQ(dst[r * w + x], sum) << r << "," << x;
    }
  }
  // In place: the blur reads a copy of the source, so the result equals the one into dst and the
  // border keeps the source's values.
  Floats same = src;
  gaussBlur(same.data(), same.data(), w, h);
  for (int i = 0; i < w * h; ++i) {
    const int r = i / w, x = i % w;
    const bool border = r == 0 || x == 0 || r == h - 1 || x == w - 1;
    EXPECT_EQ(same[i], border ? src[i] : dst[i]) << i;
  }
}

// Coefficients worked out independently in double precision with single-precision q, q2, q3 and
// square root, for each branch of q and either side of its limits.
TEST(ComputeGaussCoefs, PicksTheBranchOfQAndRoundsAsDefined) {
  const float below_half = std::nextafter(0.5f, 0.0f), below_linear = std::nextafter(2.5f, 0.0f);
  struct Coefs {
    double B, b[4];
  };
  // Below 0.5 (and for NaN, which fails both comparisons) q is a constant.
  const Coefs constant_q = {0x1.ae3ae8e9a7530p-1, {0x1.e0d29bb65df0cp+0, 0x1.47bb8c01a32cap-2,
                                                   -0x1.5393d247906ccp-6, 0x1.4ea5135a82e88p-11}};
  const struct {
    float sigma;
    Coefs want;
  } cases[] = {
      {0.2f, constant_q},
      {below_half, constant_q},
      {std::numeric_limits<float>::quiet_NaN(), constant_q},
      {0.5f, {0x1.ae3aec0634912p-1,
              {0x1.e0d2983c25040p+0, 0x1.47bb7c533cdf2p-2, -0x1.5393b49d97636p-6,
               0x1.4ea4e92210386p-11}}},
      // The square root rounded to float before it is scaled shows here.
      {1.0f, {0x1.153532fd08150p-1,
              {0x1.751f367d30163p+1, 0x1.a9af42feff6d3p+0, -0x1.6f8b5703ec02fp-2,
               0x1.0d35fff75104dp-5}}},
      {below_linear, {0x1.29b5b4abdbc58p-3,
                      {0x1.5b6e8e90a9e6fp+3, 0x1.06018ccea2489p+4, -0x1.1a40e0ddd8d7ap+3,
                       0x1.b958d0c656abep+0}}},
      {2.5f, {0x1.45a7af7ad1840p-3,
              {0x1.3d9e08bb7d178p+3, 0x1.ce9089322e33ep+3, -0x1.e2eb3dfdaa4fcp+2,
               0x1.700f475bff045p+0}}},
      {5.0f, {0x1.acfc46e5ad1e0p-6,
              {0x1.e2441343eab36p+5, 0x1.0c53af53bd124p+7, -0x1.97af5bd400a7cp+6,
               0x1.a766f2b3b1077p+4}}},
  };
  for (const auto& c : cases) {
    GaussCoefs g;
    computeGaussCoefs(&g, c.sigma);
    SCOPED_TRACE("sigma " + std::to_string(c.sigma));
    EXPECT_EQ(g.N, 3);
    EXPECT_TRUE(g.sigma == c.sigma || (std::isnan(g.sigma) && std::isnan(c.sigma)));
    EXPECT_EQ(g.B, c.want.B);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(g.b[k], c.want.b[k]) << "b[" << k << "]";
  }
}

TEST(RecursiveGauss, HasUnitGainOnAConstantLine) {
  for (float sigma : {0.3f, 1.0f, 2.0f, 4.0f, 12.0f}) {
    GaussCoefs g;
    computeGaussCoefs(&g, sigma);
    EXPECT_NEAR(g.B + (g.b[1] + g.b[2] + g.b[3]) / g.b[0], 1.0, 1e-12);
    for (int length : {1, 2, 7, 300}) {
      Floats line(length, 42.5f), out(length, 0.0f);
      recursiveGauss(line.data(), out.data(), length, 1, &g);
      for (int i = 0; i < length; ++i) {
        ASSERT_NEAR(out[i], 42.5f, 42.5f * 2e-5f) << "sigma " << sigma << " at " << i;
      }
    }
  }
}

TEST(RecursiveGauss, PeaksThreeSamplesAfterAnImpulse) {
  // Worked out independently (double recursion, float storage) for sigma 1 and an impulse of 100
  // at index 4: the peak sits at 7.
  const Floats expected = {
      0x1.b212c4p-8f, 0x1.a0df46p-6f, 0x1.b2b90ap-4f, 0x1.d64cd0p-2f, 0x1.e726fcp+0f,
      0x1.bd6598p+2f, 0x1.4765b6p+4f, 0x1.4134aep+5f, 0x1.4765b2p+4f, 0x1.bd6550p+2f,
      0x1.e72218p+0f, 0x1.d5fc1cp-2f, 0x1.ae2b46p-4f, 0x1.6cbeaap-6f};
  const int length = static_cast<int>(expected.size());
  GaussCoefs g;
  computeGaussCoefs(&g, 1.0f);
  Floats line(length, 0.0f), out(length, -1.0f);
  line[4] = 100.0f;
  recursiveGauss(line.data(), out.data(), length, 1, &g);
  for (int i = 0; i < length; ++i) EXPECT_EQ(out[i], expected[i]) << i;
}

// Each output column is the recursive filter of that source column alone: the row pass is
// overwritten.
TEST(GaussSmooth, KeepsOnlyTheColumnPass) {
  const int w = 23, h = 17;
  const float sigma = 2.0f;
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> value(0.0f, 255.0f);
  Floats src(w * h), out(w * h, 0.0f);
  for (float& v : src) v = value(rng);
  gaussSmooth(src.data(), out.data(), w, h, sigma);
  GaussCoefs g;
  computeGaussCoefs(&g, sigma);
  for (int x = 0; x < w; ++x) {
    Floats column(h), filtered(h);
    for (int r = 0; r < h; ++r) column[r] = src[r * w + x];
    recursiveGauss(column.data(), filtered.data(), h, 1, &g);
    for (int r = 0; r < h; ++r) ASSERT_EQ(out[r * w + x], filtered[r]) << r << "," << x;
  }
}

// The blur rows of every vector variant against the scalar ones, through whole planes: 8-bit
// apart, float apart and in place, with values where a lost rounding or another order would show.
struct GaussFamily {
  static constexpr const char* kName = "Gauss";
  using Kernels = velmora::GaussKernels;
  static const Kernels& For(velmora::Isa isa) { return velmora::GaussKernelsFor(isa); }
  struct Case {
    int width, height;
    Bytes bytes;
    Floats floats;
  };
  static Case Make(int width, int height, uint32_t seed) {
    const size_t n = static_cast<size_t>(width) * height;
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_real_distribution<float> value(-1e4f, 1e4f);
    const float specials[] = {0.0f, -0.0f, 1e-40f, -1e-40f, 3e38f, -3e38f,
                              std::numeric_limits<float>::infinity(), 1.0f, 255.0f};
    Case c{width, height, Bytes(n), Floats(n)};
    for (auto& b : c.bytes) b = static_cast<uint8_t>(byte(rng));
    for (auto& f : c.floats) f = byte(rng) < 16 ? specials[byte(rng) % 9] : value(rng);
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const size_t n = c.bytes.size();
    Bytes blurred(n, 0x5A);
    Floats apart(n, -5.0f), in_place = c.floats;
    velmora::GaussBlurPlane(k, c.bytes.data(), blurred.data(), c.width, c.height);
    velmora::GaussBlurPlane(k, c.floats.data(), apart.data(), c.width, c.height);
    velmora::GaussBlurPlane(k, in_place.data(), in_place.data(), c.width, c.height);
    std::vector<uint8_t> out;
    velmora::AppendBytes(out, blurred);
    velmora::AppendBytes(out, apart);
    velmora::AppendBytes(out, in_place);
    return out;
  }
};

}  // namespace

namespace velmora {
TEST_P(KernelConformance, Gauss) { ExpectMatchesScalar<GaussFamily>(GetParam()); }
}  // namespace velmora
