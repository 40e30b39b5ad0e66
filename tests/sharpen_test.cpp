// The sharpen filter: the worked pixels of its scalar definition, the rule on random frames
// against an independent reference, and every vector variant against the scalar one.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "filters/sharpen_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(SharpenDefinition, ReproducesTheWorkedPixelsInPlaceAndApart) {
  const struct {
    uint8_t y, b, uv;
    int threshold;
    float amount;
    int luma_out, chroma_in_place, chroma_apart;
  } cases[] = {
      // The pipeline's own worked numbers (threshold 2, amount 1), then the extremes of the rule.
      {100, 90, 200, 2, 1.0f, 110, 200, 207},
      {100, 90, 60, 2, 1.0f, 110, 60, 53},
      {10, 40, 200, 2, 1.0f, 0, 128, 128},  // luma clamps to 0: chroma goes to 128
      {200, 180, 30, 2, 1.0f, 220, 30, 20},
      {250, 200, 129, 2, 1.0f, 255, 129, 129},  // luma clamps to 255
      {100, 99, 77, 2, 1.0f, 100, 77, 77},      // |difference| 1 is not above 2
      {100, 98, 77, 2, 1.0f, 100, 77, 77},      // nor is 2
      {20, 5, 250, 2, 1.0f, 35, 249, 85},       // apart: 341 wraps to 85
      {20, 5, 0, 2, 1.0f, 35, 0, 161},          // apart: -95.99 truncates to -95, wraps to 161
      {0, 100, 200, 2, 0.0f, 0, 128, 128},      // amount 0 keeps luma; luma 0: chroma to 128
      {50, 50, 200, -1, 1.0f, 50, 199, 199},    // a negative threshold sharpens equal luma too
      // Old luma 0 apart: the ratio is n / 1e-5; the chroma saturates at the int32 limits before
      // its low 8 bits are kept.
      {0, 191, 255, 2, -1.0f, 191, 255, 255},
      {0, 191, 0, 2, -1.0f, 191, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "y=" << int{c.y} << " b=" << int{c.b} << " uv="
                                    << int{c.uv} << " t=" << c.threshold << " a=" << c.amount);
    uint8_t y = c.y, uv = c.uv, y_out = 0, uv_out = 0;
    scalar::SharpenChromaRow(&y, &c.b, &uv, &y_out, &uv_out, 1, c.threshold, c.amount);
    EXPECT_EQ(std::make_pair(int{y_out}, int{uv_out}), std::make_pair(c.luma_out, c.chroma_apart));
    scalar::SharpenChromaRow(&y, &c.b, &uv, &y, &uv, 1, c.threshold, c.amount);
    EXPECT_EQ(std::make_pair(int{y}, int{uv}), std::make_pair(c.luma_out, c.chroma_in_place));
  }
}

// Against a reference written apart from the library: borders (compared with their own luma, the
// choice for the blur's unwritten cells), odd heights (chroma row r follows luma row r), in place
// (luma re-read new) and apart; empty and negative sizes write nothing.
TEST(SharpenFilter, MatchesTheReferenceRuleOnRandomFrames) {
  const int sizes[][2] = {{1, 1}, {1, 2}, {2, 3}, {3, 3}, {4, 5}, {16, 2}, {17, 9}, {33, 31},
                          {100, 3}, {3, 100}};
  const std::pair<int, float> settings[] = {{2, 1.0f},    {0, 0.5f},  {-1, 2.0f},
                                            {10, -0.75f}, {2, 0.0f}, {300, 1.0f}};
  uint32_t seed = 1;
  for (const auto& [w, h] : sizes) {
    for (const auto& [threshold, amount] : settings) {
      SCOPED_TRACE(testing::Message() << w << "x" << h << " t=" << threshold << " a=" << amount);
      const testutil::Frame frame = testutil::RandomFrame(w, h, seed++);
      for (const bool in_place : {false, true}) {
        testutil::Frame want = frame, got = frame, src = frame;
        testutil::Frame& dst = in_place ? src : got;
        const testutil::Frame& ref_src = in_place ? want : frame;
        testutil::ReferenceSharpen(ref_src.y.data(), ref_src.uv.data(), want.y.data(),
                                   want.uv.data(), w, h, threshold, amount);
        ::sharpenFilter(src.y.data(), src.uv.data(), dst.y.data(), dst.uv.data(), w, h, threshold,
                        amount);
        EXPECT_EQ(dst.y, want.y) << (in_place ? "in place" : "apart");
        EXPECT_EQ(dst.uv, want.uv) << (in_place ? "in place" : "apart");
      }
    }
  }
  Bytes y(16, 7), uv(16, 9);
  for (const auto& [w, h] : {std::pair{0, 4}, {4, 0}, {-3, 4}, {4, -3}})
    ::sharpenFilter(y.data(), uv.data(), y.data(), uv.data(), w, h, -1, 5.0f);
  EXPECT_EQ(y, Bytes(16, 7));
  EXPECT_EQ(uv, Bytes(16, 9));
}

// Thresholds that sharpen everything, nothing and the usual few between; amounts from none to far
// beyond the saturation of the float-to-int conversions.
const int kThresholds[] = {INT32_MIN, -7, -1, 0, 1, 2, 9, 254, 255, 1000, INT32_MAX};
const float kAmounts[] = {0.0f, 1.0f,  -1.0f,  0.5f,     2.25f,     -3.7f, 1e30f,
                          -1e30f, 3e5f, -3e5f, INFINITY, -INFINITY, NAN};

// The whole filter, luma and chroma each in place or apart, on a photograph-like frame (flat
// stretches beside edges, small differences to split small thresholds) or on random bytes with
// the extremes (where clamping, division by 1e-5 and wrapping happen) over-represented: its blur,
// luma-only and chroma rows all run on the table under test.
struct SharpenFamily {
  static constexpr const char* kName = "Sharpen";
  using Kernels = SharpenKernels;
  static const Kernels& For(Isa isa) { return SharpenKernelsFor(isa); }

  struct Case {
    int width, height;
    Bytes luma, chroma;
    std::vector<std::pair<int, float>> settings{{2, 1.0f}};
  };
  static Bytes Edgy(std::mt19937& rng, size_t count) {
    static const uint8_t kEdges[] = {0, 1, 2, 127, 128, 129, 254, 255};
    Bytes v(count);
    for (size_t i = 0; i < count; ++i) {
      const uint32_t p = rng() % 16, byte = rng() % 256;
      v[i] = p < 2 ? kEdges[byte % 8] : p == 2 && i > 0 ? v[i - 1] : static_cast<uint8_t>(byte);
    }
    return v;
  }
  // Five-row frames up to 33 wide (a chroma row and luma-only rows with a real blur) meet every
  // threshold with every amount, a third of the pairs per seed; the others one pair drawn at
  // random beside the pipeline's, which keeps the walk quick under an emulator.
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t plane = static_cast<size_t>(width) * height;
    Case c{width, height,
           seed % 2 ? testutil::TexturedImage(width, height, seed) : Edgy(rng, plane),
           Edgy(rng, static_cast<size_t>(width) * (height / 2))};
    const bool every = height == 5 && width <= 33;
    const size_t amounts = std::size(kAmounts), pairs = std::size(kThresholds) * amounts;
    for (size_t k = 0, pick = rng() % pairs; k < pairs; ++k) {
      if (every ? k % 3 == seed % 3 : k == pick)
        c.settings.push_back({kThresholds[k / amounts], kAmounts[k % amounts]});
    }
    return c;
  }
  static Bytes Run(const Kernels& k, const Case& c) {
    Bytes out;
    for (const auto& [threshold, amount] : c.settings) {
      for (int mode = 0; mode < 4; ++mode) {
        Bytes y = c.luma, uv = c.chroma, y_out(y.size(), 0x77), uv_out(uv.size(), 0x88);
        sharpenFilter(k, y.data(), uv.data(), mode & 1 ? y.data() : y_out.data(),
                      mode & 2 ? uv.data() : uv_out.data(), c.width, c.height, threshold, amount);
        for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
      }
    }
    return out;
  }
};

TEST_P(KernelConformance, Sharpen) { ExpectMatchesScalar<SharpenFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
