// The sharpen filter: the worked pixels of its scalar definition, the rule on random frames
// against an independent reference, and every vector variant against the scalar one.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "filters/sharpen_kernels.h"
#include "kernel_conformance.h"
#include "test_util.h"
#include "velmora/filters.h"

namespace velmora {
namespace {

using Bytes = std::vector<uint8_t>;

// The worked pixels: each rule of one pixel (threshold strictly above, clamping, the ratio in
// double from the old luma apart and from the new one in place, wrapping, saturation).
TEST(SharpenDefinition, ReproducesTheWorkedPixelsInPlaceAndApart) {
  // y, blurred y, chroma, threshold, amount; luma out, chroma in place, chroma apart.
  const std::tuple<uint8_t, uint8_t, uint8_t, int, float, int, int, int> cases[] = {
      // The pipeline's own worked numbers (threshold 2, amount 1), then the extremes of the rule.
      {100, 90, 200, 2, 1.0f, 110, 200, 207},
      {100, 90, 60, 2, 1.0f, 110, 60, 53},
      {200, 180, 30, 2, 1.0f, 220, 30, 20},
      {10, 40, 200, 2, 1.0f, 0, 128, 128},      // luma clamps to 0: chroma goes to 128
      {250, 200, 129, 2, 1.0f, 255, 129, 129},  // luma clamps to 255
      {100, 98, 77, 2, 1.0f, 100, 77, 77},      // |difference| 2 is not above 2
      {20, 5, 250, 2, 1.0f, 35, 249, 85},       // apart: 341 wraps to 85
      {20, 5, 0, 2, 1.0f, 35, 0, 161},          // apart: -95.99 truncates to -95, wraps to 161
      {0, 100, 200, 2, 0.0f, 0, 128, 128},      // amount 0 keeps luma; luma 0: chroma to 128
      {50, 50, 200, -1, 1.0f, 50, 199, 199},    // a negative threshold sharpens equal luma too
      // Old luma 0 apart: the ratio is n / 1e-5; the chroma saturates at the int32 limits before
      // its low 8 bits are kept.
      {0, 191, 255, 2, -1.0f, 191, 255, 255},
      {0, 191, 0, 2, -1.0f, 191, 0, 0}};
  for (auto [y, b, uv, threshold, amount, luma, in_place, apart] : cases) {
    uint8_t y_out = 0, uv_out = 0;
    scalar::SharpenChromaRow(&y, &b, &uv, &y_out, &uv_out, 1, threshold, amount);
    scalar::SharpenChromaRow(&y, &b, &uv, &y, &uv, 1, threshold, amount);
    EXPECT_EQ(std::tuple(int{y_out}, int{uv_out}, int{y}, int{uv}),
              std::tuple(luma, apart, luma, in_place));
  }
}

// Against a reference written apart from the library: borders (compared with their own luma, the
// choice for the blur's unwritten cells), odd heights (chroma row r follows luma row r), in place
// (luma re-read new) and apart.
TEST(SharpenFilter, MatchesTheReferenceRuleOnRandomFrames) {
  const int sizes[][2] = {{1, 1}, {1, 2}, {3, 3}, {4, 5}, {16, 2}, {17, 9}, {100, 3}, {3, 100}};
  const std::pair<int, float> settings[] = {{2, 1.0f}, {0, 0.5f}, {-1, 2.0f}, {10, -0.75f}};
  for (const auto& [w, h] : sizes)
    for (const auto& [threshold, amount] : settings) {
      const testutil::Frame frame = testutil::RandomFrame(w, h, w * 1000 + h * 10 + threshold);
      for (const bool in_place : {false, true}) {
        testutil::Frame want = frame, src = frame, got = frame;
        testutil::Frame &ref_in = in_place ? want : src, &in = in_place ? got : src;
        testutil::ReferenceSharpen(ref_in.y.data(), ref_in.uv.data(), want.y.data(), want.uv.data(),
                                   w, h, threshold, amount);
        ::sharpenFilter(in.y.data(), in.uv.data(), got.y.data(), got.uv.data(), w, h, threshold,
                        amount);
        EXPECT_EQ(std::tie(got.y, got.uv), std::tie(want.y, want.uv))
            << w << "x" << h << " t=" << threshold << " a=" << amount << " in place " << in_place;
      }
    }
}

// Thresholds that sharpen everything, nothing and the usual few between; amounts from none to far
// beyond the saturation of the float-to-int conversions.
const int kThresholds[] = {INT32_MIN, -7, -1, 0, 1, 2, 9, 254, 255, 1000, INT32_MAX};
const float kAmounts[] = {0.0f,   1.0f, -1.0f, 0.5f,     2.25f,     -3.7f, 1e30f,
                          -1e30f, 3e5f, -3e5f, INFINITY, -INFINITY, NAN};

// The whole filter, luma and chroma each in place or apart, on random bytes with the extremes
// (where clamping, division by 1e-5 and wrapping happen) and repeated neighbours over-represented:
// its blur, luma-only and chroma rows all run on the table under test.
struct SharpenFamily {
  static constexpr const char* kName = "Sharpen";
  using Kernels = SharpenKernels;
  static const Kernels& For(Isa isa) { return SharpenKernelsFor(isa); }

  struct Case : testutil::Frame {
    std::pair<int, float> settings[2];
  };
  // One byte in eight from {0, 1, 2, 127, 128, 129, 254, 255}, one in sixteen a repeat.
  static Bytes Edgy(std::mt19937& rng, size_t count) {
    Bytes v(count);
    for (size_t i = 0; i < count; ++i) {
      const uint32_t p = rng() % 16, byte = rng() % 256;
      v[i] = p < 2 ? byte % 8 / 3 * 127 + byte % 8 % 3 : p == 2 && i > 0 ? v[i - 1] : byte;
    }
    return v;
  }
  // The pipeline's setting and one pair of the tables (11 thresholds by 13 amounts): over the
  // harness's sizes and seeds every pair meets frames of three rows or more (a chroma row,
  // luma-only rows, a real blur).
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t k = (width * 3 + seed + height * 33) % 143;
    const size_t w = width;
    return {{width, height, Edgy(rng, w * height), Edgy(rng, w * (height / 2))},
            {{2, 1.0f}, {kThresholds[k / 13], kAmounts[k % 13]}}};
  }
  static Bytes Run(const Kernels& k, const Case& c) {
    Bytes out;
    for (const auto& [threshold, amount] : c.settings)
      for (int mode = 0; mode < 4; ++mode) {
        Bytes y = c.y, uv = c.uv, y_out(y.size(), 0x77), uv_out(uv.size(), 0x88);
        sharpenFilter(k, y.data(), uv.data(), mode & 1 ? y.data() : y_out.data(),
                      mode & 2 ? uv.data() : uv_out.data(), c.width, c.height, threshold, amount);
        for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
      }
    return out;
  }
};

TEST_P(KernelConformance, Sharpen) { ExpectMatchesScalar<SharpenFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
