// The velmora tool run as a user runs it: a subprocess on files in a temporary directory.
#include <gtest/gtest.h>
#include <png.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "convert.h"
#include "frame_source.h"
#include "image_writer.h"
#include "cli_harness.h"
#include "test_util.h"
#include "velmora/yuv.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary
using testutil::Packed;

TEST(VelmoraLongexp, RawOutputEqualsAnIndependentRunningMean) {
  constexpr int kWidth = 64, kHeight = 48;
  TempDir dir;
  // Three files of one frame each, then one file of five frames back to back.
  testutil::ReferenceMean mean;
  std::vector<uint8_t> multi;
  for (int i = 0; i < 8; ++i) {
    const testutil::Frame frame = testutil::RandomFrame(kWidth, kHeight, 20240611 + i);
    mean.Fold(frame);
    const std::vector<uint8_t> bytes = Packed(frame);
    if (i < 3) WriteFile(dir / ("f" + std::to_string(i) + ".yuv"), bytes);
    if (i >= 3) multi.insert(multi.end(), bytes.begin(), bytes.end());
  }
  WriteFile(dir / "multi.yuv", multi);
  const std::vector<std::string> inputs = {"f0.yuv", "f1.yuv", "f2.yuv", "multi.yuv"};

  // The pipeline does not tell the chroma orders apart, so the mean of the same bytes is the
  // same in either; only the requested output layout may swap the chroma pairs.
  const std::vector<uint8_t> expected = Packed(mean.Result(kWidth, kHeight));
  const std::vector<uint8_t> swapped = SwapChroma(expected, kWidth, kHeight);
  struct Case {
    const char* format;
    const char* output;
    std::vector<std::string> extra;
    const std::vector<uint8_t>* want;
  };
  const Case cases[] = {
      {"nv12", "out.yuv", {}, &expected},  {"nv12", "out.yuv", {"--isa", "scalar"}, &expected},
      {"nv12", "out.nv12", {}, &expected}, {"nv12", "out.nv21", {}, &swapped},
      {"nv21", "out.yuv", {}, &expected},  {"nv21", "out.nv21", {}, &expected},
      {"nv21", "out.NV12", {}, &swapped},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.format) + " -> " + c.output);
    std::vector<std::string> args = {"longexp", "--size", "64x48", "--format", c.format};
    args.insert(args.end(), inputs.begin(), inputs.end());
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    args.insert(args.end(), {"-o", c.output});
    const RunResult run = RunTool(args, dir.path());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, "");  // the library's log lines stay out of the tool's output
    EXPECT_EQ(run.err, "");  // and no progress line when standard error is not a terminal
    EXPECT_TRUE(ReadFile(dir / c.output) == *c.want);
    fs::remove(dir / c.output);
  }
  EXPECT_EQ(dir.List(), (std::vector<std::string>{"f0.yuv", "f1.yuv", "f2.yuv", "multi.yuv"}));
}

TEST(VelmoraLongexp, VerboseShowsTheLibraryLogOnStandardOutput) {
  TempDir dir;
  WriteFile(dir / "f.yuv", Packed(testutil::RandomFrame(16, 8, 7)));
  const RunResult run =
      RunTool({"longexp", "--size", "16x8", "f.yuv", "-o", "out.yuv", "--verbose"}, dir.path());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_NE(run.out.find("Algorithm [INFO]"), std::string::npos) << run.out;
}

TEST(VelmoraLongexp, PngOutputIsTheFrameInColourInEitherChromaOrder) {
  constexpr int kWidth = 32, kHeight = 16;
  TempDir dir;
  // Flat luma, so that the mean of one frame is the frame and the sharpen leaves it alone; random
  // chroma, so that a wrong pair order or block shows.
  testutil::Frame flat = testutil::RandomFrame(kWidth, kHeight, 9);
  flat.y.assign(flat.y.size(), 90);
  const std::vector<uint8_t> frame = Packed(flat);
  WriteFile(dir / "flat.yuv", frame);
  for (const auto& [name, order] : {std::pair{"nv12", velmora::tool::ChromaOrder::kNv12},
                                    std::pair{"nv21", velmora::tool::ChromaOrder::kNv21}}) {
    SCOPED_TRACE(name);
    const RunResult run = RunTool(
        {"longexp", "--size", "32x16", "--format", name, "flat.yuv", "-o", "flat.png"}, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Png png;
    ASSERT_TRUE(ReadPng(dir / "flat.png", &png));
    EXPECT_EQ(png.width, uint32_t{kWidth});
    EXPECT_EQ(png.height, uint32_t{kHeight});
    EXPECT_TRUE(png.rgb == velmora::tool::FrameToRgb(frame.data(), {kWidth, kHeight}, order));
  }
}

TEST(VelmoraConvert, RawFramesBecomeNumberedPngsOptionallyResampled) {
  using velmora::tool::ChromaOrder;
  TempDir dir;
  std::vector<std::vector<uint8_t>> frames;
  for (uint32_t i = 0; i < 3; ++i) frames.push_back(Packed(testutil::RandomFrame(16, 8, 17 + i)));
  std::vector<uint8_t> two = frames[0];
  two.insert(two.end(), frames[1].begin(), frames[1].end());
  WriteFile(dir / "two.yuv", two);
  WriteFile(dir / "one.yuv", frames[2]);

  for (const auto& [format, order] :
       {std::pair{"nv12", ChromaOrder::kNv12}, std::pair{"nv21", ChromaOrder::kNv21}}) {
    for (const bool scaled : {false, true}) {
      SCOPED_TRACE(std::string(format) + (scaled ? " scaled to 8x6" : ""));
      std::vector<std::string> args = {"convert", "--size", "16x8", "--format", format,
                                       "two.yuv", "one.yuv", "-o", "f%02d.png"};
      if (scaled) args.insert(args.end(), {"--scale", "8x6"});
      const RunResult run = RunTool(args, dir.path());
      ASSERT_EQ(run.exit_code, 0) << run.err;
      EXPECT_EQ(run.out + run.err, "");
      for (int n = 0; n < 3; ++n) {
        std::vector<uint8_t> frame = frames[n];
        if (scaled) {
          std::vector<uint8_t> small(FrameBytes(8, 6));
          NV12Linear(frame.data(), small.data(), 16, 8, 8, 6);
          frame = small;
        }
        Png png;
        const std::string name = "f0" + std::to_string(n + 1) + ".png";
        ASSERT_TRUE(ReadPng(dir / name, &png)) << name;
        EXPECT_EQ(png.width, scaled ? 8u : 16u);
        EXPECT_TRUE(png.rgb ==
                    velmora::tool::FrameToRgb(frame.data(), {png.width, png.height}, order))
            << name;
        fs::remove(dir / name);
      }
      EXPECT_EQ(dir.List(), (std::vector<std::string>{"one.yuv", "two.yuv"}));
    }
  }
}

TEST(VelmoraConvert, PngImagesBecomeRawFramesBackToBackInTheOutputsOrder) {
  using velmora::tool::RgbImage;
  TempDir dir;
  std::vector<RgbImage> images = {{4, 2, {}}, {4, 2, {}}, {8, 4, {}}};
  for (size_t i = 0; i < images.size(); ++i) {
    RgbImage& image = images[i];
    image.rgb = testutil::RandomBytes(size_t(image.width) * image.height * 3, 23 + i);
    ASSERT_TRUE(WritePng(dir / ("i" + std::to_string(i) + ".png"), image.width, image.height,
                         image.rgb));
  }
  // The tool's RGB-to-frame conversion (its values are pinned by the tool_parts tests), the
  // frames one after the other.
  auto frames = [&](velmora::tool::ChromaOrder order, bool scaled) {
    std::vector<uint8_t> all;
    for (size_t i = scaled ? 1 : 0; i < (scaled ? 3u : 2u); ++i) {
      std::vector<uint8_t> frame = velmora::tool::RgbToFrame(images[i], order);
      const velmora::tool::FrameGeometry size{images[i].width, images[i].height};
      if (scaled) frame = velmora::tool::ScaleFrame(frame, size, {2, 2});
      all.insert(all.end(), frame.begin(), frame.end());
    }
    return all;
  };
  using velmora::tool::ChromaOrder;
  const std::vector<uint8_t> nv12 = frames(ChromaOrder::kNv12, false);
  const std::vector<uint8_t> nv21 = frames(ChromaOrder::kNv21, false);
  const std::vector<uint8_t> scaled = frames(ChromaOrder::kNv12, true);
  struct Case {
    std::vector<std::string> args;
    const char* output;
    const std::vector<uint8_t>* want;
  };
  const Case cases[] = {
      {{"i0.png", "i1.png"}, "out.nv12", &nv12},
      {{"i0.png", "i1.png"}, "out.nv21", &nv21},
      {{"i0.png", "i1.png"}, "out.yuv", &nv12},
      {{"i0.png", "i1.png", "--format", "nv21"}, "out.yuv", &nv21},
      // Images of different sizes need --scale.
      {{"i1.png", "i2.png", "--scale", "2x2"}, "small.nv12", &scaled},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output);
    std::vector<std::string> args = {"convert", "-o", c.output};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const RunResult run = RunTool(args, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_TRUE(ReadFile(dir / c.output) == *c.want);
  }
}

TEST(VelmoraCli, BadInputGivesOneErrorLineExitTwoAndNoOutput) {
  TempDir dir;
  const std::vector<uint8_t> frame(FrameBytes(64, 48), 100);
  WriteFile(dir / "good.yuv", frame);
  WriteFile(dir / "short.yuv", std::vector<uint8_t>(1000, 1));
  WriteFile(dir / "empty.yuv", {});
  WriteFile(dir / "keep.png", {'o', 'l', 'd'});
  fs::create_directory(dir / "subdir");
  ASSERT_TRUE(WritePng(dir / "img.png", 4, 2, std::vector<uint8_t>(24, 9)));
  ASSERT_TRUE(WritePng(dir / "wide.png", 6, 2, std::vector<uint8_t>(36, 9)));
  ASSERT_TRUE(WritePng(dir / "odd.png", 3, 2, std::vector<uint8_t>(18, 9)));

  struct Case {
    std::vector<std::string> args;
    const char* names;  // what the error line must mention
  };
  const Case cases[] = {
      {{"longexp", "--size", "64x48", "missing.yuv", "-o", "out.png"}, "missing.yuv: No such file"},
      {{"longexp", "--size", "64x48", "good.yuv", "subdir", "-o", "out.png"},
       "subdir: not a regular file"},
      {{"longexp", "--size", "64x48", "good.yuv", "short.yuv", "-o", "out.png"},
       "short.yuv: size 1000 bytes is not a multiple of the frame size 4608 (64x48 nv12)"},
      {{"longexp", "--size", "64x48", "empty.yuv", "-o", "out.png"}, "empty.yuv: file is empty"},
      // Each reason of a refused size is ParseSize's own test; here, that it reaches the user.
      {{"longexp", "--size", "63x48", "good.yuv", "-o", "out.png"},
       "'63x48': width and height must be even"},
      {{"longexp", "good.yuv", "-o", "out.png"}, "good.yuv: raw frames need --size WxH"},
      {{"longexp", "--size", "64x48", "--format", "yuyv", "good.yuv", "-o", "out.png"},
       "'yuyv': unknown format"},
      {{"longexp", "--size", "64x48", "good.yuv", "-o", "out.gif"},
       "out.gif: unknown output extension"},
      {{"longexp", "--size", "64x48", "good.yuv"}, "missing -o"},
      {{"longexp", "--size", "64x48", "good.yuv", "-o"}, "-o needs a value"},
      {{"longexp", "--size", "64x48", "-o", "out.png"}, "no inputs"},
      {{"longexp", "--size", "64x48", "good.yuv", "-o", "nowhere/out.png"},
       "nowhere/out.png: cannot create"},
      {{"longexp", "--size", "64x48", "good.yuv", "--frobnicate", "-o", "out.png"},
       "unknown option '--frobnicate'"},
      {{"longexp", "--size", "64x48", "--isa", "mmx", "good.yuv", "-o", "out.png"},
       "'mmx': unknown instruction set"},
      {{"longexp", "--size", "64x48", "--verbose=yes", "good.yuv", "-o", "out.png"},
       "--verbose takes no value"},
      // A bad input leaves an existing output file as it was.
      {{"longexp", "--size", "64x48", "good.yuv", "short.yuv", "-o", "keep.png"},
       "short.yuv: size 1000"},
      {{"convert", "--size", "64x48", "good.yuv", "good.yuv", "-o", "out.png"},
       "2 frames need a numbered output name"},
      {{"convert", "good.yuv", "-o", "out.png"}, "missing --size"},
      {{"convert", "--size", "64x48", "good.yuv", "-o", "out.nv12"}, "raw frames convert to PNG"},
      {{"convert", "--size", "64x48", "good.yuv", "-o", "f%s.png"}, "one frame number"},
      {{"convert", "--size", "64x48", "--scale", "3x3", "good.yuv", "-o", "out.png"},
       "--scale '3x3': width and height must be even"},
      {{"convert", "--size", "64x48", "short.yuv", "-o", "f%d.png"}, "short.yuv: size 1000"},
      {{"convert", "img.png", "-o", "out.png"}, "PNG input converts to raw frames"},
      {{"convert", "img.png", "good.yuv", "-o", "out.nv12"}, "inputs mix PNG images and raw"},
      {{"convert", "img.png", "odd.png", "-o", "out.nv12"}, "odd.png: 3x2: NV12/NV21 needs even"},
      {{"convert", "img.png", "wide.png", "-o", "out.nv12"},
       "wide.png: 6x2 differs from the first image's 4x2"},
      {{"convert", "img.png", "keep.png", "-o", "out.nv12"}, "keep.png: cannot read PNG"},
      {{"convert", "--size", "4x2", "img.png", "-o", "out.nv12"}, "--size is for raw input"},
      {{"convert", "--format", "nv21", "img.png", "-o", "out.nv12"}, "contradicts"},
      {{"convert", "-o", "out.nv12"}, "no input files"},
      {{"demo", "good.yuv"}, "demo takes no input files"},
      {{"timelapse"}, "unknown command 'timelapse'"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{}, "missing command"},
  };
  const std::vector<std::string> before = dir.List();
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += " " + arg;
    SCOPED_TRACE("velmora" + joined);
    const RunResult run = RunTool(c.args, dir.path());
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(CountLines(run.err), 1u) << run.err;
    EXPECT_EQ(run.err.rfind("velmora: error: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(c.names), std::string::npos) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(dir.List(), before);
  }
  EXPECT_TRUE(ReadFile(dir / "keep.png") == (std::vector<uint8_t>{'o', 'l', 'd'}));
}

TEST(VelmoraCli, UnreadableInputIsReportedBeforeAnyWork) {
  if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
  TempDir dir;
  WriteFile(dir / "good.yuv", std::vector<uint8_t>(FrameBytes(8, 8), 1));
  WriteFile(dir / "locked.yuv", std::vector<uint8_t>(FrameBytes(8, 8), 1));
  fs::permissions(dir / "locked.yuv", fs::perms::none);
  const RunResult run =
      RunTool({"longexp", "--size", "8x8", "good.yuv", "locked.yuv", "-o", "out.png"}, dir.path());
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "velmora: error: locked.yuv: Permission denied\n");
  EXPECT_FALSE(fs::exists(dir / "out.png"));
}

TEST(VelmoraCli, HelpAndVersionGoToStandardOutput) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    const char* starts;
  };
  const Case cases[] = {
      {{"--help"}, "usage: velmora <command>"},
      {{"-h"}, "usage: velmora <command>"},
      {{"longexp", "--help"}, "usage: velmora longexp [options] INPUT... -o OUT"},
      {{"longexp", "--size", "bad", "-h"}, "usage: velmora longexp"},
      {{"demo", "--help"}, "usage: velmora demo"},
      {{"convert", "--help"}, "usage: velmora convert"},
      {{"--version"}, "velmora 0.1.0 (library Velmora_Verion_0.1.0)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.front());
    const RunResult run = RunTool(c.args, dir.path());
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out.rfind(c.starts, 0), 0u) << run.out;
    EXPECT_EQ(run.err, "");
  }
  EXPECT_TRUE(dir.List().empty());
}

TEST(VelmoraCli, ProgressLineOnlyWhenStandardErrorIsATerminal) {
  TempDir dir;
  WriteFile(dir / "burst.yuv", testutil::RandomBytes(FrameBytes(32, 16) * 4, 3));
  const std::vector<std::string> command =
      ToolCommand({"longexp", "--size", "32x16", "burst.yuv", "-o", "out.yuv"});
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) Exec(command, dir.path());
  std::string shown;
  char buffer[256];
  for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0;) shown.append(buffer, size_t(n));
  close(terminal);
  EXPECT_EQ(ExitCode(pid), 0);
  // Rewritten in place with carriage returns (each clearing what a longer line left), ended by
  // a newline once all frames are in; the speed and the time left once there is a speed.
  EXPECT_EQ(shown.rfind("\rvelmora: folded 0/4 frames\033[K", 0), 0u) << shown;
  EXPECT_NE(shown.find("\rvelmora: folded 4/4 frames, "), std::string::npos) << shown;
  EXPECT_NE(shown.find(" fps, 0 s left\033[K\r\n"), std::string::npos) << shown;
  EXPECT_EQ(shown.back(), '\n');
}

TEST(VelmoraDemo, WritesA1280x720PngAndSaysWhere) {
  TempDir dir;
  const RunResult run = RunTool({"demo"}, dir.path());
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(CountLines(run.out), 1u) << run.out;
  EXPECT_EQ(run.out.rfind("wrote ", 0), 0u) << run.out;
  EXPECT_NE(run.out.find("/velmora-demo.png\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(dir.List(), std::vector<std::string>{"velmora-demo.png"});
  Png png;
  ASSERT_TRUE(ReadPng(dir / "velmora-demo.png", &png));
  EXPECT_EQ(png.width, 1280u);
  EXPECT_EQ(png.height, 720u);
}

}  // namespace
