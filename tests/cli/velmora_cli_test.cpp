// The velmora tool's surface as a user meets it: convert both ways, help and errors, the
// progress line and the demo.
#include "bt601.h"
#include "cli_harness.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary
using velmora::tool::ChromaOrder;

// convert both ways, with the tool's own conversions (pinned in tool_parts_test) as the
// expectation; help; and a fault of each kind told in one line.
TEST(VelmoraCli, EveryConvertAndHelpCommandLineGivesItsFilesOrOneErrorLine) {
  TempDir dir;
  const std::vector<uint8_t> raw = testutil::RandomBytes(FrameBytes(16, 8) * 3, 17);
  WriteFile(dir / "two.yuv", {raw.begin(), raw.begin() + FrameBytes(16, 8) * 2});
  WriteFile(dir / "one.yuv", {raw.begin() + FrameBytes(16, 8) * 2, raw.end()});
  const std::vector<uint8_t> images = testutil::RandomBytes(4 * 2 * 3 * 2, 23);  // two, RGB
  WritePicture(dir / "i0.png", 4, 2, {images.begin(), images.begin() + 24});
  WritePicture(dir / "i1.png", 4, 2, {images.begin() + 24, images.end()});
  WritePicture(dir / "odd.png", 3, 2, std::vector<uint8_t>(18, 9));
  WriteFile(dir / "bad.png", {'o', 'l', 'd'});
  // The raw frames as PNGs, maybe resampled to 8x6; the images as frames.
  auto pngs = [&](ChromaOrder order, bool scaled) {
    const velmora::tool::FrameGeometry size = {scaled ? 8u : 16u, scaled ? 6u : 8u};
    std::vector<uint8_t> all;
    for (auto at = raw.begin(); at != raw.end(); at += long(FrameBytes(16, 8))) {
      std::vector<uint8_t> frame(at, at + long(FrameBytes(16, 8)));
      if (scaled) frame = velmora::tool::ScaleFrame(frame, {16, 8}, size);
      const std::vector<uint8_t> rgb = velmora::tool::FrameToRgb(frame.data(), size, order);
      all.insert(all.end(), rgb.begin(), rgb.end());
    }
    return all;
  };
  auto frames = [&](ChromaOrder order) {
    std::vector<uint8_t> all(FrameBytes(4, 2) * 2);
    for (size_t i = 0; i < 2; ++i)
      velmora::tool::RgbToNv12(&images[24 * i], 12, {4, 2}, &all[FrameBytes(4, 2) * i], order);
    return all;
  };
  const std::vector<ToolRun> runs = {
      {"convert --size 16x8 two.yuv one.yuv -o f%02d.png", pngs(ChromaOrder::kNv12, false)},
      {"convert --size 16x8 --format nv21 --scale 8x6 two.yuv one.yuv -o f%02d.png",
       pngs(ChromaOrder::kNv21, true)},
      {"convert i0.png i1.png -o out.yuv", frames(ChromaOrder::kNv12)},
      {"convert i0.png i1.png -o out.nv21", frames(ChromaOrder::kNv21)},
      {"convert --size 16x8 two.yuv one.yuv -o a.png", {}, "3 frames need a numbered output"},
      {"convert two.yuv -o out.png", {}, "missing --size"},
      {"convert --size 16x8 two.yuv -o out.nv12", {}, "raw frames convert to PNG"},
      {"convert i0.png one.yuv -o out.nv12", {}, "inputs mix PNG images and raw"},
      {"convert i0.png odd.png -o out.nv12", {}, "odd.png: 3x2: NV12/NV21 needs even"},
      {"convert i0.png bad.png -o out.nv12", {}, "bad.png: cannot read PNG"},
      {"convert --format nv21 i0.png -o out.nv12", {}, "contradicts"},
      {"timelapse", {}, "unknown command 'timelapse'"},
      {"--frobnicate", {}, "unknown option '--frobnicate'"},
      {"", {}, "missing command"},
      {"--help", {}, "", 0, "usage: velmora <command>"},
      {"longexp --size bad -h", {}, "", 0, "usage: velmora longexp"},  // help before complaints
      {"--version", {}, "", 0, "velmora 0.1.0 (library Velmora_Verion_0.1.0)"},
  };
  for (const ToolRun& run : runs) ExpectRun(dir, run);
}

TEST(VelmoraCli, ProgressLineOnlyWhenStandardErrorIsATerminal) {
  TempDir dir;
  WriteFile(dir / "burst.yuv", testutil::RandomBytes(FrameBytes(32, 16) * 6, 3));
  const RunResult run = RunTool("longexp --size 32x16 --start 1 --every 2 burst.yuv -o out.yuv",
                                dir.path(), {}, true);
  EXPECT_EQ(run.exit_code, 0);
  // Rewritten in place with carriage returns (each clearing what a longer line left), ended by
  // a newline once all frames are in; the speed and the time left once there is a speed. Of
  // frames 1, 3 and 5, the count is known from the start.
  EXPECT_EQ(run.err.rfind("\rvelmora: folded 0/3 frames\033[K", 0), 0u) << run.err;
  EXPECT_NE(run.err.find("\rvelmora: folded 3/3 frames, "), std::string::npos) << run.err;
  EXPECT_NE(run.err.find(" fps, 0 s left\033[K\r\n"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.back(), '\n');
}

TEST(VelmoraDemo, WritesA1280x720PngAndSaysWhere) {
  TempDir dir;
  const RunResult run = RunTool("demo", dir.path());
  velmora::tool::RgbImage png;
  std::string error;
  ASSERT_TRUE(velmora::tool::ReadPngFile(dir / "velmora-demo.png", &png, &error)) << run.err;
  EXPECT_EQ(run.out, "wrote " + fs::canonical(dir / "velmora-demo.png").string() + "\n");
  EXPECT_EQ(std::make_tuple(run.exit_code, run.err, dir.List(), png.width, png.height),
            std::make_tuple(0, "", std::vector<std::string>{"velmora-demo.png"}, 1280u, 720u));
}

}  // namespace
