// The tool's pieces, linked in directly: size parsing, output names, colour conversion both ways.
#include <gtest/gtest.h>

#include <tuple>

#include "bt601.h"
#include "convert.h"

namespace velmora::tool {
namespace {

// Even, non-zero sides up to 16384 written WIDTHxHEIGHT and nothing more; a refusal says why.
TEST(ParseSize, AcceptsEvenNonZeroWidthByHeightOnly) {
  const std::tuple<const char*, uint32_t, uint32_t, const char*> cases[] = {
      {"64x48", 64, 48, ""}, {"1920X1080", 1920, 1080, ""}, {"2x2", 2, 2, ""},
      {"0064x0048", 64, 48, ""}, {"16384x16384", 16384, 16384, ""}, {"63x48", 0, 0, "even"},
      {"64x47", 0, 0, "even"}, {"0x48", 0, 0, "non-zero"}, {"64x0", 0, 0, "non-zero"},
      {"16386x2", 0, 0, "at most 16384"}, {"99999999999999999999x2", 0, 0, "at most 16384"},
      {"", 0, 0, "WIDTHxHEIGHT"}, {"64", 0, 0, "WIDTHxHEIGHT"}, {"64x", 0, 0, "WIDTHxHEIGHT"},
      {"x48", 0, 0, "WIDTHxHEIGHT"}, {"64x48x2", 0, 0, "WIDTHxHEIGHT"},
      {"-64x48", 0, 0, "WIDTHxHEIGHT"}, {"64x48 ", 0, 0, "WIDTHxHEIGHT"}};
  for (const auto& [text, width, height, reason] : cases) {
    FrameGeometry geometry;
    std::string why;
    EXPECT_EQ(ParseSize(text, &geometry, &why), width != 0) << text;
    EXPECT_NE(why.find(reason), std::string::npos) << text << ": " << why;
    if (width == 0) continue;
    EXPECT_EQ(std::make_pair(geometry.width, geometry.height), std::make_pair(width, height));
  }
}

// The tool's colour rule both ways: the worked values pin RgbToNv12's coefficients, cropping and
// block means; the round trip pins FrameToRgb as its inverse, block by block, in either order.
TEST(Bt601, WorkedValuesAndTheRoundTripOfEveryBlock) {
  // A 3x3 picture cropped to 2x2: red, green, blue, white, whose mean is grey, and black beyond.
  const uint8_t rgb[3 * 9] = {255, 0, 0, 0, 255, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255};
  uint8_t frame[6];
  RgbToNv12(rgb, 9, FrameGeometry{2, 2}, frame);
  // Y: 76.245, 149.685, 29.07, 255; U, V of grey: 128 - 0 and 128 + 0 (both sums weigh 0).
  EXPECT_EQ(std::vector<uint8_t>(frame, frame + 6),
            (std::vector<uint8_t>{76, 150, 29, 255, 128, 128}));
  // One colour alone, clamped: red gives U 84.98 -> 85 and V 255.5 -> 255, here V first.
  const uint8_t red[12] = {255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0};
  RgbToNv12(red, 6, FrameGeometry{2, 2}, frame, ChromaOrder::kNv21);
  EXPECT_EQ(std::make_pair(frame[4], frame[5]), std::make_pair(uint8_t{255}, uint8_t{85}));
  // Four flat 2x2 blocks on a grid of steps of 17 come back within one step each (a wrong
  // coefficient, block or pair order is off by several at the saturated colours).
  for (const ChromaOrder order : {ChromaOrder::kNv12, ChromaOrder::kNv21}) {
    for (size_t c = 0; c < 4096; c += 4) {
      uint8_t picture[16 * 3], nv12[24];
      for (size_t i = 0; i < 48; ++i) {  // pixel i / 3 lies in block i / 24 * 2 + i / 6 % 2
        const size_t colour = (c + i / 24 * 2 + i / 6 % 2) % 4096;
        picture[i] = uint8_t(17 * (colour >> (8 - 4 * (i % 3)) & 15));
      }
      RgbToNv12(picture, 12, FrameGeometry{4, 4}, nv12, order);
      const std::vector<uint8_t> back = FrameToRgb(nv12, FrameGeometry{4, 4}, order);
      for (size_t i = 0; i < 48; ++i)
        ASSERT_LE(std::abs(back[i] - picture[i]), 1) << c << " " << i << ChromaOrderName(order);
    }
  }
}

TEST(OutputPattern, OneFrameNumberAsPercentDWithOptionalZeroPadding) {
  const std::tuple<const char*, bool, const char*> cases[] = {  // numbered, frame 7, or refused
      {"frame%03d.png", true, "frame007.png"}, {"f%d.png", true, "f7.png"},
      {"dir/%2d.png", true, "dir/ 7.png"},     {"plain.png", false, "plain.png"},
      {"100%%.png", false, "100%.png"},        {"a%%%d.png", true, "a%7.png"},
      {"f%s.png", false, nullptr},   {"f%d%d.png", false, nullptr}, {"f%.png", false, nullptr},
      {"f%-3d.png", false, nullptr}, {"f%123d.png", false, nullptr}, {"f%", false, nullptr}};
  for (const auto& [pattern, numbered, seventh] : cases) {
    bool found = !numbered;
    std::string error;
    EXPECT_EQ(ParseOutputPattern(pattern, &found, &error), seventh != nullptr) << pattern;
    EXPECT_EQ(error.find("one frame number") != std::string::npos, seventh == nullptr) << error;
    if (seventh == nullptr) continue;
    EXPECT_EQ(std::make_pair(found, OutputPathFor(pattern, numbered, 7)),
              std::make_pair(numbered, std::string(seventh)));
  }
}

}  // namespace
}  // namespace velmora::tool
