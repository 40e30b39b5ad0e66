// The tool's pure pieces, linked in directly: size parsing, output kinds and names, colour
// conversion both ways and the frame sources.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "convert.h"
#include "demo_scene.h"
#include "frame_reader.h"
#include "frame_source.h"
#include "image_writer.h"
#include "test_util.h"
#include "velmora/yuv.h"
#include "inputs.h"
#include "rgb_to_nv12.h"

namespace velmora::tool {
namespace {

TEST(ParseSize, AcceptsEvenNonZeroWidthByHeightOnly) {
  struct Case {
    const char* text;
    uint32_t width, height;  // 0 when refused
    const char* why;         // part of the reason when refused
  };
  const Case cases[] = {
      {"64x48", 64, 48, ""},
      {"1920X1080", 1920, 1080, ""},
      {"2x2", 2, 2, ""},
      {"16384x16384", 16384, 16384, ""},
      {"0064x0048", 64, 48, ""},
      {"63x48", 0, 0, "even"},
      {"64x47", 0, 0, "even"},
      {"0x48", 0, 0, "non-zero"},
      {"64x0", 0, 0, "non-zero"},
      {"16386x2", 0, 0, "at most 16384"},
      {"99999999999999999999x2", 0, 0, "at most 16384"},
      {"", 0, 0, "WIDTHxHEIGHT"},
      {"64", 0, 0, "WIDTHxHEIGHT"},
      {"64x", 0, 0, "WIDTHxHEIGHT"},
      {"x48", 0, 0, "WIDTHxHEIGHT"},
      {"64x48x2", 0, 0, "WIDTHxHEIGHT"},
      {"-64x48", 0, 0, "WIDTHxHEIGHT"},
      {"64 x48", 0, 0, "WIDTHxHEIGHT"},
      {"64x48 ", 0, 0, "WIDTHxHEIGHT"},
      {"6.4x48", 0, 0, "WIDTHxHEIGHT"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    FrameGeometry geometry;
    std::string why;
    const bool ok = ParseSize(c.text, &geometry, &why);
    EXPECT_EQ(ok, c.width != 0);
    if (ok) {
      EXPECT_EQ(geometry.width, c.width);
      EXPECT_EQ(geometry.height, c.height);
      EXPECT_EQ(geometry.frameBytes(), size_t{c.width} * c.height * 3 / 2);
    } else {
      EXPECT_NE(why.find(c.why), std::string::npos) << why;
    }
  }
}

TEST(OutputKindForPath, ChoosesByExtensionIgnoringCase) {
  struct Case {
    const char* path;
    bool known;
    OutputKind kind;
  };
  const Case cases[] = {
      {"out.png", true, OutputKind::kPng},     {"dir/OUT.PNG", true, OutputKind::kPng},
      {"a.b.yuv", true, OutputKind::kRaw},     {"x.nv12", true, OutputKind::kNv12},
      {"x.Nv21", true, OutputKind::kNv21},     {"x.jpg", true, OutputKind::kJpeg},
      {"x.JPEG", true, OutputKind::kJpeg},     {"x.gif", false, OutputKind::kPng},
      {"png", false, OutputKind::kPng},        {".png", false, OutputKind::kPng},
      {"dir/.png", false, OutputKind::kPng},   {"x.png/", false, OutputKind::kPng},
      {"x.nv12.tmp", false, OutputKind::kPng},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    OutputKind kind = OutputKind::kPng;
    EXPECT_EQ(OutputKindForPath(c.path, &kind), c.known);
    if (c.known) {
      EXPECT_EQ(kind, c.kind);
    }
  }
}

// One pixel through the library's conversion, the pair given as U, V.
uint8_t LibraryRgb(uint8_t y, uint8_t u, uint8_t v, int channel) {
  uint8_t pair[2] = {u, v}, rgb[3];
  NV12toRGBA8888(&y, pair, &rgb[0], &rgb[1], &rgb[2], 1, 1, 0, 0);
  return rgb[channel];
}

TEST(FrameToRgb, InterleavesTheLibrarysColoursEachBlockWithItsPairInEitherOrder) {
  // 4x4 luma of 128; chroma row 0 pairs (128,255) (255,128), row 1 pairs (0,128) (128,0).
  const FrameGeometry geometry{4, 4};
  std::vector<uint8_t> frame(geometry.frameBytes(), 128);
  const uint8_t chroma[] = {128, 255, 255, 128, 0, 128, 128, 0};
  std::copy(std::begin(chroma), std::end(chroma), frame.begin() + 16);

  struct Block {
    uint8_t first, second;
  };
  const Block blocks[2][2] = {{{128, 255}, {255, 128}}, {{0, 128}, {128, 0}}};
  for (const ChromaOrder order : {ChromaOrder::kNv12, ChromaOrder::kNv21}) {
    SCOPED_TRACE(ChromaOrderName(order));
    const std::vector<uint8_t> rgb = FrameToRgb(frame.data(), geometry, order);
    ASSERT_EQ(rgb.size(), 16u * 3);
    for (int row = 0; row < 4; ++row) {
      for (int column = 0; column < 4; ++column) {
        const Block& block = blocks[row / 2][column / 2];
        const bool u_first = order == ChromaOrder::kNv12;
        const uint8_t u = u_first ? block.first : block.second;
        const uint8_t v = u_first ? block.second : block.first;
        for (int channel = 0; channel < 3; ++channel) {
          EXPECT_EQ(rgb[3 * (row * 4 + column) + channel], LibraryRgb(128, u, v, channel))
              << row << "," << column << " channel " << channel;
        }
      }
    }
  }
  // The blocks differ, so a wrong block or order could not go unnoticed.
  EXPECT_NE(LibraryRgb(128, 128, 255, 0), LibraryRgb(128, 255, 128, 0));
}

TEST(RgbToFrame, InvertsTheLibrarysConversionRoundedWithChromaFromBlockMeans) {
  // Worked by hand, inverting R = Y + 1.370705 V', G = Y - 0.337633 U' - 0.698001 V',
  // B = Y + 1.732446 U': red is Y 76.20, U' -43.98, V' 130.44 (V 258.4, clamped to 255).
  struct Case {
    std::vector<uint8_t> rgb;  // 2x2 pixels
    uint8_t y[4], u, v;
  };
  const Case cases[] = {
      {{77, 77, 77, 77, 77, 77, 77, 77, 77, 77, 77, 77}, {77, 77, 77, 77}, 128, 128},
      {{255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0}, {76, 76, 76, 76}, 84, 255},
      // Red beside black: the pair is the mean of the unclamped offsets (V' 65.22 -> 193), not
      // of clamped bytes (which would give 192).
      {{255, 0, 0, 0, 0, 0, 255, 0, 0, 0, 0, 0}, {76, 0, 76, 0}, 106, 193},
  };
  for (const Case& c : cases) {
    for (const ChromaOrder order : {ChromaOrder::kNv12, ChromaOrder::kNv21}) {
      SCOPED_TRACE(testing::Message() << int(c.y[0]) << " " << ChromaOrderName(order));
      const std::vector<uint8_t> frame = RgbToFrame(RgbImage{2, 2, c.rgb}, order);
      const bool u_first = order == ChromaOrder::kNv12;
      EXPECT_EQ(frame, (std::vector<uint8_t>{c.y[0], c.y[1], c.y[2], c.y[3], u_first ? c.u : c.v,
                                             u_first ? c.v : c.u}));
    }
  }
  // In-gamut colours come back through the library's truncating conversion within one step.
  std::mt19937 random(4);
  for (int i = 0; i < 200; ++i) {
    const uint8_t y = 60 + random() % 136, u = 108 + random() % 40, v = 108 + random() % 40;
    std::vector<uint8_t> rgb;
    for (int p = 0; p < 4; ++p)
      for (int channel = 0; channel < 3; ++channel) rgb.push_back(LibraryRgb(y, u, v, channel));
    const std::vector<uint8_t> frame = RgbToFrame(RgbImage{2, 2, rgb}, ChromaOrder::kNv12);
    EXPECT_NEAR(frame[0], y, 1);
    EXPECT_NEAR(frame[4], u, 1);
    EXPECT_NEAR(frame[5], v, 1);
  }
}

TEST(OutputPattern, OneFrameNumberAsPercentDWithOptionalZeroPadding) {
  struct Case {
    const char* pattern;
    bool valid, numbered;
    const char* seventh;  // the name of frame 7
  };
  const Case cases[] = {
      {"frame%03d.png", true, true, "frame007.png"}, {"f%d.png", true, true, "f7.png"},
      {"dir/%2d.png", true, true, "dir/ 7.png"},      {"plain.png", true, false, "plain.png"},
      {"100%%.png", true, false, "100%.png"},        {"a%%%d.png", true, true, "a%7.png"},
      {"f%s.png", false, false, ""},                 {"f%d%d.png", false, false, ""},
      {"f%.png", false, false, ""},                  {"f%-3d.png", false, false, ""},
      {"f%123d.png", false, false, ""},              {"f%", false, false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern);
    bool numbered = false;
    std::string error;
    EXPECT_EQ(ParseOutputPattern(c.pattern, &numbered, &error), c.valid);
    if (!c.valid) {
      EXPECT_NE(error.find("one frame number"), std::string::npos) << error;
      continue;
    }
    EXPECT_EQ(numbered, c.numbered);
    EXPECT_EQ(OutputPathFor(c.pattern, numbered, 7), c.seventh);
  }
}

TEST(RgbToNv12, FullRangeBt601WithChromaFromTheMeanOfEachBlock) {
  // A 3x3 picture (odd: its last column and row are cropped), so a 2x2 frame. Red, green, blue
  // and white; their mean (127.5, 127.5, 127.5) is grey. The cropped pixels are black, so using
  // them would show.
  const uint8_t rgb[3 * 9] = {255, 0, 0, 0, 255, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255,
                              0,   0, 0, 0, 0,   0, 0, 0, 0, 0, 0, 0};
  uint8_t frame[6];
  RgbToNv12(rgb, 9, FrameGeometry{2, 2}, frame);
  // Y: 76.245, 149.685, 29.07, 255; U, V of grey: 128 - 0 and 128 + 0 (both sums weigh 0).
  const uint8_t want[6] = {76, 150, 29, 255, 128, 128};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(frame[i], want[i]) << i;
  // One colour alone, clamped: red gives U 84.98 -> 85 and V 255.5 -> 255.
  const uint8_t red[12] = {255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0};
  RgbToNv12(red, 6, FrameGeometry{2, 2}, frame);
  EXPECT_EQ(frame[4], 85);
  EXPECT_EQ(frame[5], 255);
}

TEST(SelectedCount, SkipsThenTakesOneInEveryUpToTheLimit) {
  struct Case {
    size_t count, start, every, limit, want;
  };
  const Case cases[] = {
      {10, 0, 1, kUnknownFrameCount, 10}, {10, 3, 1, kUnknownFrameCount, 7},
      {10, 0, 3, kUnknownFrameCount, 4},  {10, 1, 3, kUnknownFrameCount, 3},
      {10, 0, 1, 4, 4},                   {10, 10, 1, kUnknownFrameCount, 0},
      {10, 20, 2, 5, 0},                  {kUnknownFrameCount, 2, 2, 5, kUnknownFrameCount},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SelectedCount(c.count, c.start, c.every, c.limit), c.want)
        << c.count << " " << c.start << " " << c.every << " " << c.limit;
  }
}

TEST(FileFrameSource, YieldsEveryFrameOfEveryFileInOrder) {
  const FrameGeometry geometry{4, 2};  // 12 bytes a frame
  testutil::TempDir dir;
  auto write = [&](const std::string& name, uint8_t first, size_t frames) {
    std::vector<uint8_t> bytes;
    for (size_t f = 0; f < frames; ++f) bytes.resize(bytes.size() + 12, uint8_t(first + f));
    testutil::WriteFile(dir / name, bytes);
    return dir / name;
  };
  const std::vector<std::string> paths = {write("a", 10, 1), write("b", 20, 3), write("c", 30, 2)};

  std::string error;
  std::unique_ptr<FileFrameSource> source =
      FileFrameSource::Open(paths, geometry, ChromaOrder::kNv21, &error);
  ASSERT_NE(source, nullptr) << error;
  EXPECT_EQ(source->frameCount(), 6u);
  EXPECT_EQ(source->order(), ChromaOrder::kNv21);
  std::vector<uint8_t> frame(geometry.frameBytes());
  for (const uint8_t want : {10, 20, 21, 22, 30, 31}) {
    ASSERT_TRUE(source->next(frame.data(), &error)) << error;
    EXPECT_EQ(frame, std::vector<uint8_t>(geometry.frameBytes(), want));
  }
  EXPECT_FALSE(source->next(frame.data(), &error));
  EXPECT_EQ(error, "");  // the end, not a failure
}

TEST(DemoScene, WaterMovesBetweenFramesWhileTheSceneStaysStill) {
  DemoScene scene;
  const FrameGeometry geometry = scene.geometry();  // 1280x720: the demo's PNG test pins it
  EXPECT_EQ(scene.frameCount(), 40u);

  std::vector<uint8_t> first(geometry.frameBytes()), second(geometry.frameBytes());
  std::string error;
  ASSERT_TRUE(scene.next(first.data(), &error));
  ASSERT_TRUE(scene.next(second.data(), &error));
  size_t sky_changes = 0, river_changes = 0;
  for (size_t y = 0; y < 720; ++y) {
    for (size_t x = 0; x < 1280; ++x) {
      const size_t i = y * 1280 + x;
      if (first[i] == second[i]) continue;
      if (y < 300) ++sky_changes;                // sky, hills and forest
      if (y >= 400 && y < 560) ++river_changes;  // mid-river
    }
  }
  EXPECT_EQ(sky_changes, 0u);
  EXPECT_GT(river_changes, 1280u * 160 / 4);

  // Deterministic: a second scene draws the same first frame.
  DemoScene again;
  std::vector<uint8_t> repeat(geometry.frameBytes());
  ASSERT_TRUE(again.next(repeat.data(), &error));
  EXPECT_TRUE(repeat == first);
}

}  // namespace
}  // namespace velmora::tool
