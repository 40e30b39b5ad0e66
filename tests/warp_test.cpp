// The perspective warps: each member's rule, and the vector variants.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "kernel_conformance.h"
#include "registration/warp_kernels.h"
#include "test_util.h"
#include "velmora/warp.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;
using Matrix = std::vector<double>;
using PlaneWarp = void (*)(double*, unsigned char*, unsigned char*, int, int);

Matrix Translation(double tx, double ty) { return {1, 0, tx, 0, 1, ty, 0, 0, 1}; }
Matrix Diagonal(double scale, double last) { return {scale, 0, 0, 0, scale, 0, 0, 0, last}; }

Bytes Warp(PlaneWarp warp, Matrix H, Bytes src, int w, int h, Bytes dst) {
  warp(H.data(), src.data(), dst.data(), w, h);
  return dst;
}

// Bilinear: positions 0 to width - 1 inclusive, the double blend rounds half away (20.5 -> 21),
// fixed point truncates 11-bit weights (0.3 -> 614, 12.99 -> 12); nearest rounds, then bounds.
TEST(PlaneWarps, BlendsAndBoundsOfEachMember) {
  const Bytes src = {10, 20, 21, 40, 50, 60, 10, 20, 21, 40, 50, 60};
  // Member, H's shift (the half-resolution members move by twice as much), the first row.
  const std::tuple<PlaneWarp, double, double, Bytes> cases[] = {
      {perspectiveWarp, 0.5, 0, {15, 21, 31, 45, 55, 255}},
      {perspectiveWarp, 5, 1, {60, 255, 255, 255, 255, 255}},  // exactly the last column and row
      {perspectiveWarpOP, 0.25, 0, {15, 20, 30, 45, 55, 255}},
      {perspectiveWarpOP, 0.15, 0, {12, 20, 26, 42, 52, 255}},
      {perspectiveWarpOP, -0.2, 0, {255, 15, 20, 32, 45, 55}},  // -0.4 is out of view
      {perspectiveWarpNN, -0.2, 0, {10, 20, 21, 40, 50, 60}},   // -0.4 rounds to 0
      {perspectiveWarpNN, 0.3, 0, {20, 21, 40, 50, 60, 255}},   // 5.6 rounds to the width
  };
  for (const auto& [warp, tx, ty, row] : cases) {
    const Bytes dst = Warp(warp, Translation(tx, ty), src, 6, 2, Bytes(12));
    EXPECT_EQ(Bytes(dst.begin(), dst.begin() + 6), row) << tx;
    // 0 / 0 everywhere, infinite and beyond-int positions: all out of view.
    for (Matrix H :
         {Diagonal(0, 0), Translation(INFINITY, 0), Translation(0, 1e300), Translation(-3e9, 0)}) {
      EXPECT_EQ(Warp(warp, H, src, 6, 2, Bytes(12, 7)), Bytes(12, 255)) << H[2];
    }
  }
}

// Split: luma by the fixed-point warp, chroma over 2x2 blocks, nearest, then a truncating mean.
// Direct: a shift of 4 moves luma by 4 (0 out of view) and chroma by 4 pairs, not 2; chroma whose
// luma is out of view is untouched, with luma in view but chroma not (128, 128).
TEST(FrameWarps, SplitMeanOfNearestChromaDirectChromaUntouchedOr128) {
  const int w = 12, h = 8, n = w * h;
  const Bytes src = testutil::Packed(testutil::RandomFrame(w, h, 4)), before(src.size(), 77);
  // Half a pixel right: columns 2p, 2p + 1 read pairs p, p + 1; in place alike.
  Matrix H = Translation(0.25, 0);
  const Bytes split = Warp(perspectiveWarpYUV_OP, H, src, w, h, before);
  const Bytes luma = Warp(perspectiveWarpOP, H, src, w, h, Bytes(n));
  Bytes in_place = src;
  perspectiveWarpYUV_OP(H.data(), in_place.data(), in_place.data(), w, h);
  EXPECT_EQ(in_place, split);
  const Bytes direct = Warp(perspectiveWarpYUV, Translation(4, 0), src, w, h, before);
  for (int i = 0; i < n + n / 2; ++i) {
    const int x = i % w, p = x / 2;  // chroma: the pair, whose luma column is 2p
    const int chroma = 2 * p + 4 > w - 1 ? 77 : p + 4 < w / 2 ? src[i + 8] : 128;
    ASSERT_EQ(direct[i], i >= n ? chroma : x + 4 < w ? src[i + 4] : 0) << i;
    EXPECT_EQ(split[i], i < n ? luma[i] : (2 * src[i] + 2 * (x + 2 < w ? src[i + 2] : 255)) >> 2);
  }
  // Odd width, the lone last chroma byte: split sums itself twice, the next row's first and 255
  // below; direct leaves it unwritten.
  const Bytes odd = testutil::Packed(testutil::RandomFrame(5, 2, 8));
  Bytes split_odd = odd, direct_odd = odd;
  split_odd[14] = static_cast<uint8_t>((2 * odd[14] + odd[10] + 255) >> 2);
  direct_odd[14] = 77;
  EXPECT_EQ(Warp(perspectiveWarpYUV_OP, Translation(0, 0), odd, 5, 2, Bytes(15, 77)), split_odd);
  EXPECT_EQ(Warp(perspectiveWarpYUV, Translation(0, 0), odd, 5, 2, Bytes(15, 77)), direct_odd);
}

// interBorder mirrors luma with the edge repeated, replicates a chroma row above and below, mirrors
// one pair each side (swapped); perspectiveWarpYUV_B reads chroma x one pair too far, y right.
TEST(BorderedFrame, MirroredBordersAndTheWarpsOffsets) {
  const int w = 6, h = 6, bw = w + 4, n = w * h;
  Bytes src = testutil::Packed(testutil::RandomFrame(w, h, 6)), dst(bw * (h + 4) * 3 / 2);
  interBorder(src.data(), dst.data(), w, h);
  const auto mirror = [](int i, int n) { return i < 0 ? -1 - i : i >= n ? 2 * n - 1 - i : i; };
  for (int r = 0; r < (h + 4) * 3 / 2; ++r) {
    const int from = r < h + 4 ? mirror(r - 2, h) : h + std::clamp(r - h - 5, 0, h / 2 - 1);
    for (int c = 0; c < bw; ++c) {
      ASSERT_EQ(dst[r * bw + c], src[from * w + mirror(c - 2, w)]) << r << "," << c;
    }
  }
  Bytes expected = src;  // each chroma pair the next one, the last the border's swapped pair
  for (int i = n; i < n + n / 2; ++i) expected[i] = src[i - i % w + mirror(i % w + 2, w)];
  EXPECT_EQ(Warp(perspectiveWarpYUV_B, Translation(0, 0), src, w, h, Bytes(src.size())), expected);
  // A single pixel fills the bordered luma; with no chroma row the bordered chroma is neutral.
  Bytes pixel = {42}, tiny(25 + 10, 0), neutral(25 + 10, 128);
  std::fill_n(neutral.begin(), 25, 42);
  interBorder(pixel.data(), tiny.data(), 1, 1);
  EXPECT_EQ(tiny, neutral);
}

// Every member through every kind: near-identity, rotations, strong perspective, half-pixel steps,
// positions NaN, inf and beyond int; large frames: the first seed, near-identity, as registration.
struct WarpFamily {
  static constexpr const char* kName = "Warp";
  using Kernels = WarpKernels;
  static const Kernels& For(Isa isa) { return WarpKernelsFor(isa); }
  struct Case {
    int w, h;
    Bytes src;
    std::vector<Matrix> hs;
  };
  static Case Make(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Case c{w, h, testutil::Packed(testutil::RandomFrame(w, h, seed)), {}};
    c.hs = {Translation(0, 0),     Translation(0.25, -0.75), Translation(-0.5, 1.5),
            Translation(1e300, 0), Translation(2e9, -2e9),   Diagonal(0, 0),
            Diagonal(1, 0),        Diagonal(1e12, 1)};
    for (int i = 0; i < 6; ++i) {
      c.hs.push_back({1 + 0.01 * u(rng), 0.01 * u(rng), 3 * u(rng), 0.01 * u(rng),
                      1 + 0.01 * u(rng), 3 * u(rng), 1e-5 * u(rng), 1e-5 * u(rng), 1});
      const double a = 3.2 * u(rng), cosine = std::cos(a), sine = std::sin(a);
      c.hs.push_back({cosine, -sine, w * u(rng), sine, cosine, h * u(rng), 0, 0, 1});
      c.hs.push_back({1 + u(rng), u(rng), w * u(rng), u(rng), 1 + u(rng), h * u(rng),
                      4 * u(rng) / w, 4 * u(rng) / std::max(h, 1), 1 + 0.5 * u(rng)});
    }
    if (w * h > 100000) c.hs = seed == 1 ? std::vector<Matrix>{c.hs[8]} : std::vector<Matrix>{};
    return c;
  }
  static Bytes Run(const Kernels& k, const Case& c) {
    const uint8_t *src = c.src.data(), *uv = src + c.w * c.h;
    Bytes out;
    for (const Matrix& H : c.hs) {
      std::vector<Bytes> d(6, Bytes(c.src.size(), 0x5A));
      WarpFixedPointPlane(k, H.data(), src, d[0].data(), c.w, c.h);
      WarpNearestPlane(k, H.data(), src, d[1].data(), c.w, c.h);
      WarpBilinearPlane(k, H.data(), src, d[2].data(), c.w, c.h);
      WarpYuvSplit(k, H.data(), src, uv, d[3].data(), d[3].data() + c.w * c.h, c.w, c.h);
      WarpYuvDirect(k, H.data(), src, d[4].data(), c.w, c.h, false);
      WarpYuvDirect(k, H.data(), src, d[5].data(), c.w, c.h, true);
      for (const Bytes& dst : d) out.insert(out.end(), dst.begin(), dst.end());
    }
    return out;
  }
  static std::vector<ConformanceSize> Sizes() {
    std::vector<ConformanceSize> sizes = ConformanceSizes();
    sizes.insert(sizes.end(), {{1921, 3}, {1920, 1080}});
    return sizes;
  }
};

TEST_P(KernelConformance, Warp) { ExpectMatchesScalar<WarpFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
