// The perspective warps: each member's rule, and the vector variants.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
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

Bytes RandomFrameBuffer(int width, int height, uint32_t seed) {
  return testutil::Packed(testutil::RandomFrame(width, height, seed));
}

Bytes Warp(PlaneWarp warp, Matrix H, Bytes src, int w, int h, Bytes dst) {
  warp(H.data(), src.data(), dst.data(), w, h);
  return dst;
}

// Bilinear: positions 0 to width - 1 inclusive, the double blend rounds half away (20.5 -> 21),
// fixed point truncates 11-bit weights (0.3 -> 614, 12.99 -> 12); nearest rounds, then bounds.
TEST(PlaneWarps, BlendsAndBoundsOfEachMember) {
  const Bytes src = {10, 20, 21, 40, 50, 60, 10, 20, 21, 40, 50, 60};
  const struct {
    PlaneWarp warp;
    double tx, ty;  // of H; the half-resolution members move by twice as much
    Bytes row;
  } cases[] = {
      {perspectiveWarp, 0.5, 0, {15, 21, 31, 45, 55, 255}},
      {perspectiveWarp, 5, 1, {60, 255, 255, 255, 255, 255}},  // exactly the last column and row
      {perspectiveWarpOP, 0.25, 0, {15, 20, 30, 45, 55, 255}},
      {perspectiveWarpOP, 0.15, 0, {12, 20, 26, 42, 52, 255}},
      {perspectiveWarpOP, -0.2, 0, {255, 15, 20, 32, 45, 55}},  // -0.4 is out of view
      {perspectiveWarpNN, -0.2, 0, {10, 20, 21, 40, 50, 60}},   // -0.4 rounds to 0
      {perspectiveWarpNN, 0.3, 0, {20, 21, 40, 50, 60, 255}},   // 5.6 rounds to the width
  };
  for (const auto& c : cases) {
    const Bytes dst = Warp(c.warp, Translation(c.tx, c.ty), src, 6, 2, Bytes(12));
    EXPECT_EQ(Bytes(dst.begin(), dst.begin() + 6), c.row) << c.tx;
    // 0 / 0 everywhere, infinite and beyond-int positions: all out of view.
    for (Matrix H : {Matrix(9, 0.0), Translation(INFINITY, 0), Translation(0, 1e300),
                     Translation(-3e9, 0)}) {
      EXPECT_EQ(Warp(c.warp, H, src, 6, 2, Bytes(12, 7)), Bytes(12, 255)) << H[2];
    }
  }
}

// Near-identity, rotations, strong perspective, half-pixel steps; positions NaN, inf, beyond int.
std::vector<Matrix> Homographies(int w, int h, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<Matrix> hs = {Translation(0, 0), Translation(0.25, -0.75), Translation(-0.5, 1.5),
                            Matrix(9, 0.0), Translation(1e300, 0), {1, 0, 0, 0, 1, 0, 0, 0, 0},
                            {1e12, 0, 0, 0, 1e12, 0, 0, 0, 1}, {1, 0, 2e9, 0, 1, -2e9, 0, 0, 1}};
  for (int i = 0; i < 6; ++i) {
    hs.push_back({1 + 0.01 * u(rng), 0.01 * u(rng), 3 * u(rng), 0.01 * u(rng), 1 + 0.01 * u(rng),
                  3 * u(rng), 1e-5 * u(rng), 1e-5 * u(rng), 1});
    const double a = 3.2 * u(rng), c = std::cos(a), s = std::sin(a);
    hs.push_back({c, -s, w * u(rng), s, c, h * u(rng), 0, 0, 1});
    hs.push_back({1 + u(rng), u(rng), w * u(rng), u(rng), 1 + u(rng), h * u(rng),
                  4 * u(rng) / w, 4 * u(rng) / std::max(h, 1), 1 + 0.5 * u(rng)});
  }
  return hs;
}

// Luma by the fixed-point warp; chroma over 2x2 blocks, nearest, then a truncating mean.
TEST(SplitFrameWarp, NearestChromaFoldedByATruncatingMean) {
  const int w = 8, h = 4, n = w * h;
  const Bytes src = RandomFrameBuffer(w, h, 4);
  // Half a pixel right: columns 2p, 2p + 1 read pairs p, p + 1; in place and planes apart alike.
  Matrix H = Translation(0.25, 0);
  const Bytes dst = Warp(perspectiveWarpYUV_OP, H, src, w, h, Bytes(src.size()));
  EXPECT_EQ(Bytes(dst.begin(), dst.begin() + n),
            Warp(perspectiveWarpOP, H, Bytes(src.begin(), src.begin() + n), w, h, Bytes(n)));
  for (int i = n; i < n + n / 2; ++i) {
    EXPECT_EQ(dst[i], (2 * src[i] + 2 * ((i - n) % w + 2 < w ? src[i + 2] : 255)) >> 2) << i;
  }
  Bytes in_place = src, planes = src, apart(src.size());
  perspectiveWarpYUV_OP(H.data(), in_place.data(), in_place.data(), w, h);
  perspectiveWarpYUV_OP_1(H.data(), planes.data(), planes.data() + n, apart.data(),
                          apart.data() + n, w, h);
  EXPECT_EQ(in_place, dst);
  EXPECT_EQ(apart, dst);
  // Odd width: the lone last chroma byte sums itself twice, the next row's first, and 255 below.
  const Bytes odd = RandomFrameBuffer(5, 2, 8);
  Bytes expected = odd;
  expected[14] = static_cast<uint8_t>((2 * odd[14] + odd[10] + 255) >> 2);
  EXPECT_EQ(Warp(perspectiveWarpYUV_OP, Translation(0, 0), odd, 5, 2, Bytes(odd.size())), expected);
}

TEST(DirectFrameWarp, LumaZeroOutOfViewChromaUntouchedOr128) {
  const int w = 12, h = 8, n = w * h;
  const Bytes src = RandomFrameBuffer(w, h, 5), before(src.size(), 77);
  // Everything out of view: luma 0, chroma as the destination held it.
  for (PlaneWarp warp : {perspectiveWarpYUV, perspectiveWarpYUV_B}) {
    Bytes expected = before;
    std::fill(expected.begin(), expected.begin() + n, 0);
    EXPECT_EQ(Warp(warp, Translation(-100, 0), src, w, h, before), expected);
  }
  // A shift of 4 moves chroma by 4 pairs, not 2; luma in view but chroma not: (128, 128).
  const Bytes dst = Warp(perspectiveWarpYUV, Translation(4, 0), src, w, h, before);
  for (int i = n; i < n + n / 2; ++i) {
    const int p = (i - n) % w / 2;  // the pair, whose luma column is 2p
    ASSERT_EQ(dst[i], 2 * p + 4 > w - 1 ? 77 : p + 4 < w / 2 ? src[i + 8] : 128) << i;
  }
  const Bytes odd = RandomFrameBuffer(5, 3, 8);  // the lone last chroma byte is not written
  Bytes expected(odd.begin(), odd.end() - 1), fill(odd.size(), 77);
  expected.push_back(77);
  EXPECT_EQ(Warp(perspectiveWarpYUV, Translation(0, 0), odd, 5, 3, fill), expected);
}

// interBorder mirrors luma with the edge repeated, replicates a chroma row above and below, mirrors
// one pair each side (swapped); perspectiveWarpYUV_B reads chroma x one pair too far, y right.
TEST(BorderedFrame, MirroredBordersAndTheWarpsOffsets) {
  const int w = 6, h = 6, bw = w + 4, n = w * h;
  Bytes src = RandomFrameBuffer(w, h, 6), dst(bw * (h + 4) * 3 / 2);
  interBorder(src.data(), dst.data(), w, h);
  const auto mirror = [](int i, int n) { return i < 0 ? -1 - i : i >= n ? 2 * n - 1 - i : i; };
  for (int r = 0; r < h + 4; ++r) {
    for (int c = 0; c < bw; ++c) {
      ASSERT_EQ(dst[r * bw + c], src[mirror(r - 2, h) * w + mirror(c - 2, w)]) << r << "," << c;
    }
  }
  for (int r = 0; r < h / 2 + 2; ++r) {
    const uint8_t* s = src.data() + n + std::clamp(r - 1, 0, h / 2 - 1) * w;
    const uint8_t* b = dst.data() + bw * (h + 4) + r * bw;
    EXPECT_EQ(Bytes(b + 2, b + w + 2), Bytes(s, s + w));
    EXPECT_EQ((Bytes{b[0], b[1], b[w + 2], b[w + 3]}), (Bytes{s[1], s[0], s[w - 1], s[w - 2]}));
  }
  Bytes expected = src;  // each chroma pair the next one, the last the border's swapped pair
  for (int r = 0; r < h / 2; ++r) {
    uint8_t* row = expected.data() + n + r * w;
    std::rotate(row, row + 2, row + w);
    row[w - 2] = row[w - 3];
    row[w - 1] = row[w - 4];
  }
  EXPECT_EQ(Warp(perspectiveWarpYUV_B, Translation(0, 0), src, w, h, Bytes(src.size())), expected);
  // A single pixel fills the bordered luma; with no chroma row the bordered chroma is neutral.
  Bytes pixel = {42}, tiny(25 + 10, 0);
  expected.assign(25, 42);
  expected.resize(tiny.size(), 128);
  interBorder(pixel.data(), tiny.data(), 1, 1);
  EXPECT_EQ(tiny, expected);
}

// Every member through every kind; large frames: first seed, near-identity, as registration has.
struct WarpFamily {
  static constexpr const char* kName = "Warp";
  using Kernels = WarpKernels;
  static const Kernels& For(Isa isa) { return WarpKernelsFor(isa); }
  struct Case {
    int width, height;
    Bytes src, before;
    std::vector<Matrix> homographies;
  };
  static Case Make(int width, int height, uint32_t seed) {
    Case c{width, height, RandomFrameBuffer(width, height, seed), {}, {}};
    c.before = testutil::RandomBytes(c.src.size(), seed + 1);
    c.homographies = Homographies(width, height, seed);
    if (width * height > 100000) {
      c.homographies = seed == 1 ? std::vector<Matrix>{c.homographies[8]} : std::vector<Matrix>{};
    }
    return c;
  }
  static Bytes Run(const Kernels& k, const Case& c) {
    const int w = c.width, h = c.height;
    const uint8_t* src = c.src.data();
    Bytes out;
    for (const Matrix& H : c.homographies) {
      for (int member = 0; member < 6; ++member) {
        Bytes dst = c.before;
        switch (member) {
          case 0: WarpFixedPointPlane(k, H.data(), src, dst.data(), w, h); break;
          case 1: WarpNearestPlane(k, H.data(), src, dst.data(), w, h); break;
          case 2: WarpBilinearPlane(k, H.data(), src, dst.data(), w, h); break;
          case 3:
            WarpYuvSplit(k, H.data(), src, src + w * h, dst.data(), dst.data() + w * h, w, h);
            break;
          default: WarpYuvDirect(k, H.data(), src, dst.data(), w, h, member == 5);
        }
        out.insert(out.end(), dst.begin(), dst.end());
      }
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
