// The smoothing filters: 3x3 blurs, the recursive Gaussian's coefficients, gain, shift and passes.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "filters/gauss_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;
using Floats = std::vector<float>;

template <class T>
std::vector<T> Blurred(std::vector<T> src, std::vector<T> dst, int width, int height) {
  gaussBlur(src.data(), dst.data(), width, height);
  return dst;
}

// 255 as 255 * {1, 2, 4} / 16 truncated (not 64), in float as 255 times the float weights (one
// product each, the zeros add nothing); the border untouched.
TEST(GaussBlur, ImpulseSpreadsAsTheWeightsInsideAnUntouchedBorder) {
  Bytes src(25, 0);
  src[12] = 255;
  const Bytes want = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 15,   31,   15,   0xEE, 0xEE, 31,  63,
                      31,   0xEE, 0xEE, 15,   31,   15,   0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
  EXPECT_EQ(Blurred(src, Bytes(25, 0xEE), 5, 5), want);
  const Floats fdst = Blurred(Floats(src.begin(), src.end()), Floats(25, -1.0f), 5, 5);
  for (int i = 0; i < 25; ++i) {
    const float weight = want[i] == 15 ? 0.0947416f : want[i] == 31 ? 0.118318f : 0.147761f;
    EXPECT_EQ(fdst[i], want[i] == 0xEE ? -1.0f : 255 * weight) << i;
  }
}

// Worked apart: any other order, grouping, fused or double accumulation gives another float.
TEST(GaussBlur, FloatsSumRoundedProductsInReadingOrderFromACopyOfTheSource) {
  const Floats one = {255, 1, 1e8f, 1, 7, 255, 100, 3, 100}, unset(9, -1.0f);
  EXPECT_EQ(Blurred(one, unset, 3, 3), (Floats{-1, -1, -1, -1, 0x1.212172p+23f, -1, -1, -1, -1}));
  // In place equals apart inside (rows already written are not read back) and keeps the border.
  const int w = 6, h = 5;
  const Bytes bytes = testutil::RandomBytes(w * h, 3);
  Floats src(bytes.begin(), bytes.end()), same = src;
  gaussBlur(same.data(), same.data(), w, h);
  EXPECT_EQ(same, Blurred(src, src, w, h));
}

// Worked apart: double with float q, q2, q3 and root, each branch and both sides; NaN fails both.
TEST(ComputeGaussCoefs, PicksTheBranchOfQAndRoundsAsDefined) {
  // sigma, B, b[0] .. b[3]; 0x1.fffffep-2 and 0x1.3ffffep+1 are the floats just below 0.5 and 2.5.
  const std::array<double, 6> cases[] = {
      {0x1.fffffep-2, 0x1.ae3ae8e9a7530p-1, 0x1.e0d29bb65df0cp+0, 0x1.47bb8c01a32cap-2,
       -0x1.5393d247906ccp-6, 0x1.4ea5135a82e88p-11},
      {NAN, 0x1.ae3ae8e9a7530p-1, 0x1.e0d29bb65df0cp+0, 0x1.47bb8c01a32cap-2, -0x1.5393d247906ccp-6,
       0x1.4ea5135a82e88p-11},
      {0.5, 0x1.ae3aec0634912p-1, 0x1.e0d2983c25040p+0, 0x1.47bb7c533cdf2p-2, -0x1.5393b49d97636p-6,
       0x1.4ea4e92210386p-11},
      // The square root rounded to float before it is scaled shows here.
      {1.0, 0x1.153532fd08150p-1, 0x1.751f367d30163p+1, 0x1.a9af42feff6d3p+0, -0x1.6f8b5703ec02fp-2,
       0x1.0d35fff75104dp-5},
      {0x1.3ffffep+1, 0x1.29b5b4abdbc58p-3, 0x1.5b6e8e90a9e6fp+3, 0x1.06018ccea2489p+4,
       -0x1.1a40e0ddd8d7ap+3, 0x1.b958d0c656abep+0},
      {2.5, 0x1.45a7af7ad1840p-3, 0x1.3d9e08bb7d178p+3, 0x1.ce9089322e33ep+3, -0x1.e2eb3dfdaa4fcp+2,
       0x1.700f475bff045p+0},
  };
  for (const auto& c : cases) {
    GaussCoefs g;
    computeGaussCoefs(&g, static_cast<float>(c[0]));
    EXPECT_EQ(std::vector<double>(c.begin() + 1, c.end()),
              (std::vector<double>{g.B, g.b[0], g.b[1], g.b[2], g.b[3]}));
  }
}

// Worked apart (double recursion, float storage), sigma 1, step 2: the forward pass starts from
// the first sample, the backward one from the last forward value, read from its boundary cells:
// peak at 7. gaussSmooth: each output column that of its source column alone, the row pass lost.
TEST(RecursiveGauss, PeaksThreeAfterAnImpulseAndSmoothsColumnsOnly) {
  const Floats want = {0x1.3e9b8cp+5f, 0x1.3a2d12p+5f, 0x1.2a0dfcp+5f, 0x1.f6f9aep+4f,
                       0x1.4b0a5ep+4f, 0x1.31a214p+4f, 0x1.d2abc2p+4f, 0x1.7285f4p+5f,
                       0x1.c750bap+4f, 0x1.044e84p+4f, 0x1.765c3ap+3f, 0x1.4bbafap+3f};
  Floats line(24, 10.0f), out(24, -1.0f);
  line[0] = 40.0f;
  line[8] = 100.0f;
  GaussCoefs g;
  computeGaussCoefs(&g, 1.0f);
  recursiveGauss(line.data(), out.data(), 12, 2, &g);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(out[i], i % 2 ? -1.0f : want[i / 2]) << i;
  const int w = 23, h = 17;
  const Bytes bytes = testutil::RandomBytes(w * h, 11);
  Floats src(bytes.begin(), bytes.end()), smooth(w * h, 0.0f), columns(w * h, -1.0f);
  gaussSmooth(src.data(), smooth.data(), w, h, 2.0f);
  computeGaussCoefs(&g, 2.0f);
  for (int x = 0; x < w; ++x) recursiveGauss(src.data() + x, columns.data() + x, h, w, &g);
  EXPECT_EQ(smooth, columns);
}

// Whole planes: 8-bit apart, float apart and in place, values that show a lost rounding or order.
struct GaussFamily {
  static constexpr const char* kName = "Gauss";
  using Kernels = GaussKernels;
  static const Kernels& For(Isa isa) { return GaussKernelsFor(isa); }
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
  static Bytes Run(const Kernels& k, const Case& c) {
    Bytes blurred(c.bytes.size(), 0x5A), out;
    Floats apart(c.floats.size(), -5.0f), in_place = c.floats;
    GaussBlurPlane(k, c.bytes.data(), blurred.data(), c.width, c.height);
    GaussBlurPlane(k, c.floats.data(), apart.data(), c.width, c.height);
    GaussBlurPlane(k, in_place.data(), in_place.data(), c.width, c.height);
    AppendBytes(out, blurred);
    AppendBytes(out, apart);
    AppendBytes(out, in_place);
    return out;
  }
};

TEST_P(KernelConformance, Gauss) { ExpectMatchesScalar<GaussFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
