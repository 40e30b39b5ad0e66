// The sharpen filter: the worked pixels, the rule on random frames against an independent
// reference, and every vector variant of its row kernels against the scalar definition.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
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

// A 3x4 frame whose one chroma-carrying interior pixel (row 1, column 1) has luma y and a blur of
// exactly b: its eight neighbours share the value v with 4y + 12v in [16b, 16b + 15].
struct Probe {
  static constexpr int kWidth = 3, kHeight = 4, kPixel = 1 * kWidth + 1;
  Bytes y, uv = Bytes(kWidth * (kHeight / 2), 128);
  Probe(int luma, int blur, int chroma) {
    const int v = (16 * blur - 4 * luma + 11) / 12;
    EXPECT_TRUE(v >= 0 && v <= 255) << "no neighbourhood for y=" << luma << " b=" << blur;
    y.assign(kWidth * kHeight, static_cast<uint8_t>(v));
    y[kPixel] = static_cast<uint8_t>(luma);
    uv[kPixel] = static_cast<uint8_t>(chroma);
  }
};

TEST(SharpenFilter, ReproducesTheWorkedPixelsInPlaceAndOutOfPlace) {
  const struct {
    int y, b, uv, threshold;
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
      {20, 5, 250, 2, 1.0f, 35, 249, 85},       // apart: 341 wraps to 85
      {20, 5, 0, 2, 1.0f, 35, 0, 161},          // apart: -95.99 truncates to -95, wraps to 161
      {0, 100, 200, 2, 0.0f, 0, 128, 128},      // amount 0 keeps luma; luma 0: chroma to 128
      {50, 50, 200, -1, 1.0f, 50, 199, 199},    // negative threshold sharpens equal luma too
      // Old luma 0 apart: the ratio is n / 1e-5; the chroma saturates at the int32 limits before
      // its low 8 bits are kept.
      {0, 191, 255, 2, -1.0f, 191, 255, 255},
      {0, 191, 0, 2, -1.0f, 191, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "y=" << c.y << " b=" << c.b << " uv=" << c.uv
                                    << " threshold=" << c.threshold << " amount=" << c.amount);
    Probe in_place(c.y, c.b, c.uv), source(c.y, c.b, c.uv);
    ::sharpenFilter(in_place.y.data(), in_place.uv.data(), in_place.y.data(), in_place.uv.data(),
                    Probe::kWidth, Probe::kHeight, c.threshold, c.amount);
    EXPECT_EQ(in_place.y[Probe::kPixel], c.luma_out);
    EXPECT_EQ(in_place.uv[Probe::kPixel], c.chroma_in_place);
    Bytes y(source.y.size()), uv(source.uv.size());
    ::sharpenFilter(source.y.data(), source.uv.data(), y.data(), uv.data(), Probe::kWidth,
                    Probe::kHeight, c.threshold, c.amount);
    EXPECT_EQ(y[Probe::kPixel], c.luma_out);
    EXPECT_EQ(uv[Probe::kPixel], c.chroma_apart);
    EXPECT_EQ(source.y, Probe(c.y, c.b, c.uv).y) << "source luma must stay untouched";
  }
}

// Against a reference written apart from the library: borders (compared with their own luma, the
// choice for the blur's unwritten cells), odd heights (chroma row r follows luma row r), in place
// (luma re-read new) and apart; empty and negative sizes write nothing.
TEST(SharpenFilter, MatchesTheReferenceRuleOnRandomFrames) {
  const int sizes[][2] = {{1, 1},  {1, 2},  {2, 3},   {3, 3},   {4, 5},
                          {16, 2}, {17, 9}, {33, 31}, {100, 3}, {3, 100}};
  const struct {
    int threshold;
    float amount;
  } settings[] = {{2, 1.0f}, {0, 0.5f}, {-1, 2.0f}, {10, -0.75f}, {2, 0.0f}, {300, 1.0f}};
  uint32_t seed = 1;
  for (const auto& size : sizes) {
    for (const auto& s : settings) {
      const int w = size[0], h = size[1];
      SCOPED_TRACE(testing::Message()
                   << w << "x" << h << " t=" << s.threshold << " a=" << s.amount);
      const testutil::Frame frame = testutil::RandomFrame(w, h, seed++);
      for (const bool in_place : {false, true}) {
        testutil::Frame want = frame, got = frame, src = frame;
        testutil::Frame& dst = in_place ? src : got;
        const testutil::Frame& ref_src = in_place ? want : frame;
        testutil::ReferenceSharpen(ref_src.y.data(), ref_src.uv.data(), want.y.data(),
                                   want.uv.data(), w, h, s.threshold, s.amount);
        ::sharpenFilter(src.y.data(), src.uv.data(), dst.y.data(), dst.uv.data(), w, h, s.threshold,
                        s.amount);
        EXPECT_EQ(dst.y, want.y) << (in_place ? "in place" : "apart");
        EXPECT_EQ(dst.uv, want.uv) << (in_place ? "in place" : "apart");
      }
    }
  }
  Bytes y(16, 7), uv(16, 9);
  for (const auto& [w, h] : {std::pair{0, 4}, std::pair{4, 0}, std::pair{-3, 4}, std::pair{4, -3}})
    ::sharpenFilter(y.data(), uv.data(), y.data(), uv.data(), w, h, -1, 5.0f);
  EXPECT_EQ(y, Bytes(16, 7));
  EXPECT_EQ(uv, Bytes(16, 9));
}

// Thresholds that sharpen everything, nothing and the usual few between; amounts from none to
// far beyond the saturation of the float-to-int conversions.
const int kThresholds[] = {INT32_MIN, -7, -1, 0, 1, 2, 9, 254, 255, 1000, INT32_MAX};
const float kAmounts[] = {0.0f,   1.0f, -1.0f, 0.5f,     2.25f,     -3.7f, 1e30f,
                          -1e30f, 3e5f, -3e5f, INFINITY, -INFINITY, NAN};

// Row kernels on random rows (extremes, where clamping, division by 1e-5 and wrapping happen, and
// runs of one value over-represented; a blur near the luma, so small thresholds split pixels both
// ways) and the whole filter on a photograph-like frame, flat stretches beside edges.
struct SharpenFamily {
  static constexpr const char* kName = "Sharpen";
  using Kernels = SharpenKernels;
  static const Kernels& For(Isa isa) { return SharpenKernelsFor(isa); }

  struct Case {
    int width, height;
    Bytes rows, blur, rows_uv, luma, chroma;
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
  // Lone rows up to 33 wide meet every threshold with every amount (a third of the pairs per
  // seed, the seeds taking turns); the rest one pair drawn at random beside the pipeline's,
  // which keeps the walk quick under an emulator.
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    const size_t plane = static_cast<size_t>(width) * height;
    Case c{width,
           height,
           Edgy(rng, plane),
           Bytes(plane),
           Edgy(rng, plane),
           testutil::TexturedImage(width, height, seed),
           Edgy(rng, size_t(width) * (height / 2))};
    for (size_t i = 0; i < plane; ++i) {
      const int near = std::clamp(c.rows[i] + static_cast<int>(rng() % 9) - 4, 0, 255);
      c.blur[i] = static_cast<uint8_t>(rng() % 8 == 0 ? rng() % 256 : near);
    }
    const bool every = height == 1 && width <= 33;
    for (size_t k = 0, pick = rng() % 143; k < 143; ++k) {
      if (every ? k % 3 == seed % 3 : k == pick)
        c.settings.push_back({kThresholds[k / 13], kAmounts[k % 13]});
    }
    return c;
  }
  static Bytes Run(const Kernels& k, const Case& c) {
    const int w = c.width;
    Bytes out;
    auto row = [&](const Bytes& plane, int r) { return plane.data() + static_cast<size_t>(r) * w; };
    for (int r = 0; r < c.height; ++r) {
      Bytes blurred(w, 0xC3);  // the first and last bytes are not written: the fill must survive
      k.blur_row(row(c.rows, std::max(r - 1, 0)), row(c.rows, r),
                 row(c.rows, std::min(r + 1, c.height - 1)), blurred.data(), w);
      AppendBytes(out, blurred);
    }
    for (const auto& [threshold, amount] : c.settings) {
      for (int r = 0; r < c.height; ++r) {
        const Bytes src(row(c.rows, r), row(c.rows, r) + w);
        Bytes apart(w, 0x3C), in_place = src;
        k.luma_row(src.data(), row(c.blur, r), apart.data(), w, threshold, amount);
        k.luma_row(in_place.data(), row(c.blur, r), in_place.data(), w, threshold, amount);
        AppendBytes(out, apart);
        AppendBytes(out, in_place);
        // Luma and chroma each in place or apart: the luma re-read is the new one or the old one.
        for (int mode = 0; mode < 4; ++mode) {
          Bytes y = src, uv(row(c.rows_uv, r), row(c.rows_uv, r) + w);
          Bytes y_out(w, 0x11), uv_out(w, 0x22);
          k.chroma_row(y.data(), row(c.blur, r), uv.data(), mode & 1 ? y.data() : y_out.data(),
                       mode & 2 ? uv.data() : uv_out.data(), w, threshold, amount);
          for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
        }
      }
      // The whole filter apart, then in place on its own output.
      Bytes y = c.luma, uv = c.chroma, y_out(y.size(), 0x77), uv_out(uv.size(), 0x88);
      sharpenFilter(k, y.data(), uv.data(), y_out.data(), uv_out.data(), w, c.height, threshold,
                    amount);
      sharpenFilter(k, y_out.data(), uv_out.data(), y_out.data(), uv_out.data(), w, c.height,
                    threshold, amount);
      for (const Bytes* b : {&y, &uv, &y_out, &uv_out}) AppendBytes(out, *b);
    }
    return out;
  }
};

TEST_P(KernelConformance, Sharpen) { ExpectMatchesScalar<SharpenFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
