// The tool's pure pieces, linked in directly: size parsing, output kinds, colour conversion and
// the frame sources.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "demo_scene.h"
#include "frame_reader.h"
#include "frame_source.h"
#include "image_writer.h"
#include "test_util.h"

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
      {"x.Nv21", true, OutputKind::kNv21},     {"x.jpg", false, OutputKind::kPng},
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

TEST(YuvToRgb, FullRangeBt601RoundedAndClamped) {
  struct Case {
    uint8_t y, u, v;
    uint8_t r, g, b;
  };
  // Worked by hand from R = Y + 1.402 Cr, G = Y - 0.344136 Cb - 0.714136 Cr, B = Y + 1.772 Cb.
  const Case cases[] = {
      {128, 128, 128, 128, 128, 128}, {0, 128, 128, 0, 0, 0},
      {255, 128, 128, 255, 255, 255}, {100, 128, 129, 101, 99, 100},  // 101.402, 99.286
      {100, 128, 130, 103, 99, 100},                                  // 102.804, 98.572
      {100, 129, 128, 100, 100, 102},                                 // 99.656, 101.772
      {76, 85, 255, 254, 0, 0},                                       // 254.054, 0.103, -0.196
      {255, 128, 255, 255, 164, 255},                                 // 433.054, 164.305
      {150, 44, 21, 0, 255, 1},                                       // -0.014, 255.320, 1.152
      {29, 255, 107, 0, 0, 254},                                      // -0.442, 0.292, 254.044
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.y) + "," + std::to_string(c.u) + "," + std::to_string(c.v));
    const Rgb rgb = YuvToRgb(c.y, c.u, c.v);
    EXPECT_EQ(rgb.r, c.r);
    EXPECT_EQ(rgb.g, c.g);
    EXPECT_EQ(rgb.b, c.b);
  }
}

TEST(FrameToRgb, EachTwoByTwoBlockSharesItsChromaPairInEitherOrder) {
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
        const Rgb want = YuvToRgb(128, u_first ? block.first : block.second,
                                  u_first ? block.second : block.first);
        const uint8_t* got = &rgb[3 * (row * 4 + column)];
        EXPECT_EQ(got[0], want.r) << row << "," << column;
        EXPECT_EQ(got[1], want.g) << row << "," << column;
        EXPECT_EQ(got[2], want.b) << row << "," << column;
      }
    }
  }
  // The blocks differ, so a wrong block or order could not go unnoticed.
  EXPECT_NE(YuvToRgb(128, 128, 255).r, YuvToRgb(128, 255, 128).r);
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
