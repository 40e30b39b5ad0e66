#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "test_util.h"
#include "velmora/filters.h"

namespace {

// A 3x4 frame whose one chroma-carrying interior pixel (row 1, column 1) has luma y and a blur of
// exactly b: its eight neighbours share the value v with 4y + 12v in [16b, 16b + 15].
struct Probe {
  static constexpr int kWidth = 3, kHeight = 4, kPixel = 1 * kWidth + 1;
  std::vector<uint8_t> y, uv = std::vector<uint8_t>(kWidth * (kHeight / 2), 128);
  Probe(int luma, int blur, int chroma) {
    const int v = (16 * blur - 4 * luma + 11) / 12;
    EXPECT_TRUE(v >= 0 && v <= 255) << "no neighbourhood for y=" << luma << " b=" << blur;
    y.assign(kWidth * kHeight, static_cast<uint8_t>(v));
    y[kPixel] = static_cast<uint8_t>(luma);
    uv[kPixel] = static_cast<uint8_t>(chroma);
  }
};

struct Case {
  int y, b, uv, threshold;
  float amount;
  int luma_out, chroma_in_place, chroma_out_of_place;
};

// The pipeline's own worked numbers (threshold 2, amount 1), then the extremes of the rule.
const Case kCases[] = {
    {100, 90, 200, 2, 1.0f, 110, 200, 207},
    {100, 90, 60, 2, 1.0f, 110, 60, 53},
    {10, 40, 200, 2, 1.0f, 0, 128, 128},  // luma clamps to 0: chroma goes to 128
    {200, 180, 30, 2, 1.0f, 220, 30, 20},
    {250, 200, 129, 2, 1.0f, 255, 129, 129},  // luma clamps to 255
    {100, 99, 77, 2, 1.0f, 100, 77, 77},      // |difference| 1 is not above 2
    {100, 98, 77, 2, 1.0f, 100, 77, 77},      // 2 is not above 2 either
    {100, 97, 77, 2, 1.0f, 103, 77, 75},
    {20, 5, 250, 2, 1.0f, 35, 249, 85},  // out of place: 341 wraps to 85
    {20, 5, 0, 2, 1.0f, 35, 0, 161},     // out of place: -95.99 truncates to -95, wraps to 161
    {90, 100, 200, 2, 0.0f, 90, 200, 200},  // amount 0: luma kept, chroma through the ratio
    {0, 100, 200, 2, 0.0f, 0, 128, 128},    // amount 0, luma 0: chroma to 128
    {50, 50, 200, -1, 1.0f, 50, 199, 199},  // negative threshold sharpens equal luma too
    // Old luma 0 out of place: the ratio is n / 1e-5 and the chroma saturates at the int32 limits
    // before its low 8 bits are kept.
    {0, 191, 255, 2, -1.0f, 191, 255, 255},
    {0, 191, 0, 2, -1.0f, 191, 0, 0},
};

TEST(SharpenFilter, ReproducesTheWorkedPixelsInPlaceAndOutOfPlace) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::Message() << "y=" << c.y << " b=" << c.b << " uv=" << c.uv
                                    << " threshold=" << c.threshold << " amount=" << c.amount);
    Probe in_place(c.y, c.b, c.uv);
    sharpenFilter(in_place.y.data(), in_place.uv.data(), in_place.y.data(), in_place.uv.data(),
                  Probe::kWidth, Probe::kHeight, c.threshold, c.amount);
    EXPECT_EQ(in_place.y[Probe::kPixel], c.luma_out);
    EXPECT_EQ(in_place.uv[Probe::kPixel], c.chroma_in_place);

    Probe source(c.y, c.b, c.uv);
    std::vector<uint8_t> y(source.y.size()), uv(source.uv.size());
    sharpenFilter(source.y.data(), source.uv.data(), y.data(), uv.data(), Probe::kWidth,
                  Probe::kHeight, c.threshold, c.amount);
    EXPECT_EQ(y[Probe::kPixel], c.luma_out);
    EXPECT_EQ(uv[Probe::kPixel], c.chroma_out_of_place);
    EXPECT_EQ(source.y, Probe(c.y, c.b, c.uv).y) << "source luma must stay untouched";
  }
}

// The reference is written independently of the library, borders (compared with their own luma)
// and odd heights (chroma row r follows luma row r) included.
TEST(SharpenFilter, MatchesTheReferenceRuleOnRandomFramesInPlaceAndOutOfPlace) {
  const int sizes[][2] = {{1, 1}, {1, 2}, {2, 2}, {2, 3}, {3, 3}, {4, 5}, {16, 2}, {17, 9},
                          {31, 33}, {33, 31}, {64, 48}, {100, 3}, {3, 100}};
  const struct {
    int threshold;
    float amount;
  } settings[] = {{2, 1.0f}, {0, 0.5f}, {-1, 2.0f}, {10, -0.75f}, {2, 0.0f}, {300, 1.0f}};
  uint32_t seed = 1;
  for (const auto& size : sizes) {
    for (const auto& s : settings) {
      const int w = size[0], h = size[1];
      SCOPED_TRACE(testing::Message() << w << "x" << h << " t=" << s.threshold << " a=" << s.amount);
      const testutil::Frame frame = testutil::RandomFrame(w, h, seed++);
      for (const bool in_place : {false, true}) {
        testutil::Frame want = frame, got = frame, src = frame;
        testutil::Frame& dst = in_place ? src : got;
        const testutil::Frame& ref_src = in_place ? want : frame;  // in place, luma is re-read new
        testutil::ReferenceSharpen(ref_src.y.data(), ref_src.uv.data(), want.y.data(),
                                   want.uv.data(), w, h, s.threshold, s.amount);
        sharpenFilter(src.y.data(), src.uv.data(), dst.y.data(), dst.uv.data(), w, h,
                      s.threshold, s.amount);
        EXPECT_EQ(dst.y, want.y) << (in_place ? "in place" : "apart");
        EXPECT_EQ(dst.uv, want.uv) << (in_place ? "in place" : "apart");
      }
    }
  }
}

TEST(SharpenFilter, WritesNothingForEmptyFrames) {
  std::vector<uint8_t> y(16, 7), uv(16, 9);
  for (const auto& size : {std::pair{0, 4}, std::pair{4, 0}, std::pair{-3, 4}, std::pair{4, -3}}) {
    sharpenFilter(y.data(), uv.data(), y.data(), uv.data(), size.first, size.second, -1, 5.0f);
  }
  EXPECT_EQ(y, std::vector<uint8_t>(16, 7));
  EXPECT_EQ(uv, std::vector<uint8_t>(16, 9));
}

}  // namespace
