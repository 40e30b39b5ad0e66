// The tool's pieces, linked in directly: size parsing, output kinds and names, colour conversion
// both ways, frame selection, and the demo's burst: water that moves over a still scene, and,
// hand-held, folded with and without alignment, judged on the still part against a steady,
// noiseless camera's picture.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "aligner.h"
#include "bt601.h"
#include "convert.h"
#include "demo_scene.h"
#include "image_writer.h"
#include "inputs.h"
#include "longexp.h"
#include "velmora/filters.h"
#include "velmora/yuv.h"

namespace velmora::tool {
namespace {

TEST(ParseSize, AcceptsEvenNonZeroWidthByHeightOnly) {
  const std::tuple<const char*, uint32_t, uint32_t> accepted[] = {
      {"64x48", 64, 48}, {"1920X1080", 1920, 1080}, {"16384x16384", 16384, 16384}, {"2x2", 2, 2},
      {"0064x0048", 64, 48}};
  for (const auto& [text, width, height] : accepted) {
    FrameGeometry geometry;
    std::string why;
    EXPECT_TRUE(ParseSize(text, &geometry, &why)) << text << ": " << why;
    EXPECT_EQ(std::make_pair(geometry.width, geometry.height), std::make_pair(width, height));
  }
  const std::pair<const char*, const char*> refused[] = {  // the text, part of the reason
      {"63x48", "even"}, {"64x47", "even"}, {"0x48", "non-zero"}, {"64x0", "non-zero"},
      {"16386x2", "at most 16384"}, {"99999999999999999999x2", "at most 16384"},
      {"", "WIDTHxHEIGHT"},        {"64", "WIDTHxHEIGHT"},     {"64x", "WIDTHxHEIGHT"},
      {"x48", "WIDTHxHEIGHT"},     {"64x48x2", "WIDTHxHEIGHT"}, {"-64x48", "WIDTHxHEIGHT"},
      {"64 x48", "WIDTHxHEIGHT"},  {"64x48 ", "WIDTHxHEIGHT"}};
  for (const auto& [text, reason] : refused) {
    FrameGeometry geometry;
    std::string why;
    EXPECT_FALSE(ParseSize(text, &geometry, &why)) << text;
    EXPECT_NE(why.find(reason), std::string::npos) << text << ": " << why;
  }
}

// The kinds themselves are chosen in the tool's runs; here the names that look alike.
TEST(OutputKindForPath, ChoosesByTheLastExtensionIgnoringCase) {
  OutputKind kind = OutputKind::kPng;
  EXPECT_TRUE(OutputKindForPath("a.png.yuv", &kind) && kind == OutputKind::kRaw);
  EXPECT_TRUE(OutputKindForPath("dir/OUT.Png", &kind) && kind == OutputKind::kPng);
  for (const char* path : {"png", ".png", "dir/.png", "x.png/", "x.nv12.tmp"})
    EXPECT_FALSE(OutputKindForPath(path, &kind)) << path;
}

// The tool's colour rule both ways: the worked values pin RgbToNv12's coefficients, cropping and
// block means; the round trip pins FrameToRgb as its inverse, block by block, in either order.
TEST(Bt601, WorkedValuesAndTheRoundTripOfEveryBlock) {
  // A 3x3 picture (odd: its last column and row are cropped), so a 2x2 frame. Red, green, blue
  // and white; their mean (127.5, 127.5, 127.5) is grey. The cropped pixels are black, so using
  // them would show.
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

  // 4x4 pictures of four flat 2x2 blocks, colours on a grid of steps of 17: with Y, U and V
  // rounded, each channel comes back within one step (a wrong coefficient, block or pair order
  // is off by several at the saturated colours).
  const size_t n = 16, colours = n * n * n;
  for (const ChromaOrder order : {ChromaOrder::kNv12, ChromaOrder::kNv21}) {
    for (size_t c = 0; c < colours; c += 4) {
      uint8_t picture[16 * 3], nv12[24];
      for (size_t p = 0; p < 16; ++p) {
        const size_t colour = (c + (p / 8) * 2 + (p % 4) / 2) % colours;
        picture[3 * p] = uint8_t(17 * (colour / (n * n)));
        picture[3 * p + 1] = uint8_t(17 * (colour / n % n));
        picture[3 * p + 2] = uint8_t(17 * (colour % n));
      }
      RgbToNv12(picture, 12, FrameGeometry{4, 4}, nv12, order);
      const std::vector<uint8_t> back = FrameToRgb(nv12, FrameGeometry{4, 4}, order);
      for (size_t i = 0; i < 48; ++i) {
        ASSERT_LE(std::abs(back[i] - picture[i]), 1)
            << "colour " << c << " byte " << i << " " << ChromaOrderName(order);
      }
    }
  }
}

TEST(OutputPattern, OneFrameNumberAsPercentDWithOptionalZeroPadding) {
  struct Case {
    const char* pattern;
    bool numbered;
    const char* seventh;  // the name of frame 7
  };
  const Case valid[] = {{"frame%03d.png", true, "frame007.png"}, {"f%d.png", true, "f7.png"},
                        {"dir/%2d.png", true, "dir/ 7.png"},     {"plain.png", false, "plain.png"},
                        {"100%%.png", false, "100%.png"},        {"a%%%d.png", true, "a%7.png"}};
  for (const Case& c : valid) {
    bool numbered = !c.numbered;
    std::string error;
    EXPECT_TRUE(ParseOutputPattern(c.pattern, &numbered, &error)) << c.pattern;
    EXPECT_EQ(numbered, c.numbered) << c.pattern;
    EXPECT_EQ(OutputPathFor(c.pattern, c.numbered, 7), c.seventh);
  }
  for (const char* pattern : {"f%s.png", "f%d%d.png", "f%.png", "f%-3d.png", "f%123d.png", "f%"}) {
    bool numbered = false;
    std::string error;
    EXPECT_FALSE(ParseOutputPattern(pattern, &numbered, &error)) << pattern;
    EXPECT_NE(error.find("one frame number"), std::string::npos) << error;
  }
}

TEST(SelectedCount, SkipsThenTakesOneInEveryUpToTheLimit) {
  constexpr size_t kAll = kUnknownFrameCount;
  const size_t cases[][5] = {  // count, start, every, limit, selected
      {10, 0, 1, kAll, 10}, {10, 3, 1, kAll, 7},  {10, 0, 3, kAll, 4}, {10, 1, 3, kAll, 3},
      {10, 0, 1, 4, 4},     {10, 10, 1, kAll, 0}, {10, 20, 2, 5, 0},   {kAll, 2, 2, 5, kAll}};
  for (const auto& c : cases) {
    EXPECT_EQ(SelectedCount(c[0], c[1], c[2], c[3]), c[4])
        << c[0] << " " << c[1] << " " << c[2] << " " << c[3];
  }
}

constexpr int kW = int(DemoScene::kWidth), kH = int(DemoScene::kHeight);

TEST(DemoScene, WaterMovesBetweenFramesWhileTheSceneStaysStill) {
  DemoScene scene, again;
  EXPECT_EQ(scene.frameCount(), 40u);
  std::vector<uint8_t> first(scene.geometry().frameBytes()), second(first), repeat(first);
  std::string error;
  ASSERT_TRUE(scene.next(first.data(), &error) && scene.next(second.data(), &error));
  size_t sky_changes = 0, river_changes = 0;
  for (size_t i = 0; i < size_t{kW} * kH; ++i) {
    if (first[i] == second[i]) continue;
    if (i / kW < 300) ++sky_changes;                     // sky, hills and forest
    if (i / kW >= 400 && i / kW < 560) ++river_changes;  // mid-river
  }
  EXPECT_EQ(sky_changes, 0u);
  EXPECT_GT(river_changes, size_t{kW} * 160 / 4);
  ASSERT_TRUE(again.next(repeat.data(), &error));
  EXPECT_TRUE(repeat == first);  // a second scene draws the same first frame
}

// PSNR of the luma of picture (the full frame) over the still pixels inside crop.
double StillPsnr(const std::vector<uint8_t>& picture, const std::vector<uint8_t>& truth,
                 const std::vector<uint8_t>& still, const Rect& crop) {
  double sum = 0.0;
  long n = 0;
  for (int y = crop.top; y < crop.bottom; ++y) {
    for (int x = crop.left; x < crop.right; ++x) {
      const size_t i = size_t(y) * kW + x;
      if (!still[i]) continue;
      const double d = double(picture[i]) - double(truth[i]);
      sum += d * d;
      ++n;
    }
  }
  return 10.0 * std::log10(255.0 * 255.0 / (sum / static_cast<double>(n)));
}

TEST(Align, ShakenDemoGainsAtLeastSixDecibelsOnItsStillPart) {
  // The reference: the steady scene as the library would sharpen a picture of it.
  DemoScene steady;
  std::vector<uint8_t> truth(size_t(kW) * kH * 3 / 2);
  steady.stillScene(truth.data());
  uint8_t* const uv = truth.data() + kW * kH;
  sharpenFilter(truth.data(), uv, truth.data(), uv, kW, kH, 2, 1.0f);
  // Away from the water by more than the shake and the warp's reach.
  const std::vector<uint8_t> still = steady.stillRegion(12);

  std::string error;
  RunSummary summary;
  DemoScene shaken_plain(true), shaken(true);
  std::vector<uint8_t> plain, aligned;
  ASSERT_TRUE(RunLongExposure(shaken_plain, nullptr, &plain, &summary, &error)) << error;
  Aligner aligner({DemoScene::kWidth, DemoScene::kHeight});
  ASSERT_TRUE(RunLongExposure(shaken, nullptr, &aligned, &summary, &error, &aligner)) << error;
  EXPECT_GE(aligner.aligned(), DemoScene::kFrames / 3);

  const double psnr_plain = StillPsnr(plain, truth, still, aligner.crop());
  const double psnr_aligned = StillPsnr(aligned, truth, still, aligner.crop());
  RecordProperty("psnr_plain", std::to_string(psnr_plain));
  RecordProperty("psnr_aligned", std::to_string(psnr_aligned));
  EXPECT_GE(psnr_aligned, 30.0) << "unaligned " << psnr_plain;
  EXPECT_GE(psnr_aligned - psnr_plain, 6.0) << "aligned " << psnr_aligned;
}

}  // namespace
}  // namespace velmora::tool
