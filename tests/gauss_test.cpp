// The smoothing filters: 3x3 blurs, the recursive Gaussian's coefficients, gain, shift and passes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "kernel_conformance.h"
#include "filters/gauss_kernels.h"
#include "test_util.h"
#include "velmora/filters.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Floats = std::vector<float>;

// 255 as 255 * {1, 2, 4} / 16 truncated (not 64), 1.0f as the float weights; borders and planes
// under three rows or columns untouched.
TEST(GaussBlur, ImpulseSpreadsAsTheWeightsInsideAnUntouchedBorder) {
  Bytes src(25, 0), dst(25, 0xEE);
  Floats fsrc(25, 0.0f), fdst(25, -1.0f);
  src[12] = 255;
  fsrc[12] = 1.0f;
  gaussBlur(src.data(), dst.data(), 5, 5);
  gaussBlur(fsrc.data(), fdst.data(), 5, 5);
  const Bytes want = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 15,   31,   15,   0xEE, 0xEE, 31,  63,
                      31,   0xEE, 0xEE, 15,   31,   15,   0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(dst, want);
  for (int i = 0; i < 25; ++i) {
    const int k = want[i];
    EXPECT_EQ(fdst[i], k == 15 ? 0.0947416f : k == 31 ? 0.118318f : k == 63 ? 0.147761f : -1.0f);
  }
  for (const auto& [w, h] : {std::pair{2, 9}, {9, 2}, {1, 1}, {0, 5}}) {
    const size_t n = size_t(w) * h;
    Bytes bytes(n, 90), bytes_out(n, 7);
    Floats floats(n, 90.0f), floats_out(n, 7.0f);
    gaussBlur(bytes.data(), bytes_out.data(), w, h);
    gaussBlur(floats.data(), floats_out.data(), w, h);
    EXPECT_TRUE(bytes_out == Bytes(n, 7) && floats_out == Floats(n, 7.0f)) << w << "x" << h;
  }
}

// Worked apart: any other order, grouping, fused or double accumulation gives another float.
TEST(GaussBlur, FloatsSumRoundedProductsInReadingOrderFromACopyOfTheSource) {
  Floats one = {255, 1, 1e8f, 1, 7, 255, 100, 3, 100}, out(9, -1.0f);
  gaussBlur(one.data(), out.data(), 3, 3);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(out[i], i == 4 ? 0x1.212172p+23f : -1.0f) << i;
  // In place equals apart inside (rows already written are not read back) and keeps the border.
  const int w = 6, h = 5;
  const Bytes bytes = testutil::RandomBytes(w * h, 3);
  Floats src(bytes.begin(), bytes.end()), apart(w * h, -1.0f), same = src;
  gaussBlur(src.data(), apart.data(), w, h);
  gaussBlur(same.data(), same.data(), w, h);
  for (int i = 0; i < w * h; ++i) EXPECT_EQ(same[i], apart[i] == -1.0f ? src[i] : apart[i]) << i;
}

// Worked apart: double with float q, q2, q3 and root, each branch and both sides; NaN fails both.
TEST(ComputeGaussCoefs, PicksTheBranchOfQAndRoundsAsDefined) {
  struct Coefs {
    double B, b[4];
  };
  const Coefs constant_q = {0x1.ae3ae8e9a7530p-1, {0x1.e0d29bb65df0cp+0, 0x1.47bb8c01a32cap-2,
                                                   -0x1.5393d247906ccp-6, 0x1.4ea5135a82e88p-11}};
  const std::pair<float, Coefs> cases[] = {
      {0.2f, constant_q},
      {std::nextafter(0.5f, 0.0f), constant_q},
      {NAN, constant_q},
      {0.5f, {0x1.ae3aec0634912p-1, {0x1.e0d2983c25040p+0, 0x1.47bb7c533cdf2p-2,
                                     -0x1.5393b49d97636p-6, 0x1.4ea4e92210386p-11}}},
      // The square root rounded to float before it is scaled shows here.
      {1.0f, {0x1.153532fd08150p-1, {0x1.751f367d30163p+1, 0x1.a9af42feff6d3p+0,
                                     -0x1.6f8b5703ec02fp-2, 0x1.0d35fff75104dp-5}}},
      {std::nextafter(2.5f, 0.0f), {0x1.29b5b4abdbc58p-3,
                                    {0x1.5b6e8e90a9e6fp+3, 0x1.06018ccea2489p+4,
                                     -0x1.1a40e0ddd8d7ap+3, 0x1.b958d0c656abep+0}}},
      {2.5f, {0x1.45a7af7ad1840p-3, {0x1.3d9e08bb7d178p+3, 0x1.ce9089322e33ep+3,
                                     -0x1.e2eb3dfdaa4fcp+2, 0x1.700f475bff045p+0}}},
      {5.0f, {0x1.acfc46e5ad1e0p-6, {0x1.e2441343eab36p+5, 0x1.0c53af53bd124p+7,
                                     -0x1.97af5bd400a7cp+6, 0x1.a766f2b3b1077p+4}}},
  };
  for (const auto& [sigma, want] : cases) {
    GaussCoefs g;
    computeGaussCoefs(&g, sigma);
    SCOPED_TRACE("sigma " + std::to_string(sigma));
    EXPECT_EQ(g.N, 3);
    EXPECT_TRUE(g.sigma == sigma || (std::isnan(g.sigma) && std::isnan(sigma)));
    EXPECT_EQ(g.B, want.B);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(g.b[k], want.b[k]) << "b[" << k << "]";
  }
}

// Worked apart (double recursion, float storage), sigma 1: the forward pass starts from the first
// sample, the backward one from the last forward value, read from its boundary cells: peak at 7.
TEST(RecursiveGauss, PeaksThreeAfterAnImpulseWithUnitGain) {
  const Floats want = {0x1.3e9b8cp+5f, 0x1.3a2d12p+5f, 0x1.2a0dfcp+5f, 0x1.f6f9aep+4f,
                       0x1.4b0a5ep+4f, 0x1.31a214p+4f, 0x1.d2abc2p+4f, 0x1.7285f4p+5f,
                       0x1.c750bap+4f, 0x1.044e84p+4f, 0x1.765c3ap+3f, 0x1.4bbafap+3f};
  Floats line(want.size(), 10.0f), out(want.size(), -1.0f);
  line[0] = 40.0f;
  line[4] = 100.0f;
  GaussCoefs g;
  computeGaussCoefs(&g, 1.0f);
  recursiveGauss(line.data(), out.data(), static_cast<int>(line.size()), 1, &g);
  EXPECT_EQ(out, want);
  // B + (b1 + b2 + b3) / b0 = 1: unit gain however short the line or wide the filter.
  for (const float sigma : {0.3f, 1.0f, 12.0f}) {
    computeGaussCoefs(&g, sigma);
    for (const int length : {1, 2, 300}) {
      Floats flat(length, 42.5f), smooth(length, 0.0f);
      recursiveGauss(flat.data(), smooth.data(), length, 1, &g);
      for (float v : smooth) ASSERT_NEAR(v, 42.5f, 42.5f * 2e-5f) << sigma << " " << length;
    }
  }
}

// Each output column is the recursive filter of that source column alone: the row pass is lost.
TEST(GaussSmooth, KeepsOnlyTheColumnPass) {
  const int w = 23, h = 17;
  const Bytes bytes = testutil::RandomBytes(w * h, 11);
  Floats src(bytes.begin(), bytes.end()), out(w * h, 0.0f);
  gaussSmooth(src.data(), out.data(), w, h, 2.0f);
  GaussCoefs g;
  computeGaussCoefs(&g, 2.0f);
  for (int x = 0; x < w; ++x) {
    Floats column(h), filtered(h);
    for (int r = 0; r < h; ++r) column[r] = src[r * w + x];
    recursiveGauss(column.data(), filtered.data(), h, 1, &g);
    for (int r = 0; r < h; ++r) ASSERT_EQ(out[r * w + x], filtered[r]) << r << "," << x;
  }
}

// Whole planes: 8-bit apart, float apart and in place, values that show a lost rounding or order.
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
    Case c{width, height, testutil::RandomBytes(n, seed), testutil::RandomFloats(n, seed, 16)};
    // No NaN in: which of two NaNs a sum keeps follows the compiler's operand order, not the rule.
    for (float& f : c.floats) f = std::isnan(f) ? -INFINITY : f;
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
