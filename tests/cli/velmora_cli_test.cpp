// The velmora tool run as a user runs it: a subprocess on files in a temporary directory.
#include <gtest/gtest.h>
#include <pty.h>

#include "cli_harness.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary

TEST(VelmoraLongexp, RawOutputEqualsAnIndependentRunningMean) {
  constexpr int kWidth = 64, kHeight = 48;
  TempDir dir;
  std::mt19937 random(20240611);
  // Three files of one frame each, then one file of five frames back to back.
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 8; ++i) frames.push_back(RandomFrame(kWidth, kHeight, &random));
  for (int i = 0; i < 3; ++i) WriteFile(dir / ("f" + std::to_string(i) + ".yuv"), frames[i]);
  std::vector<uint8_t> multi;
  for (int i = 3; i < 8; ++i) multi.insert(multi.end(), frames[i].begin(), frames[i].end());
  WriteFile(dir / "multi.yuv", multi);
  const std::vector<std::string> inputs = {"f0.yuv", "f1.yuv", "f2.yuv", "multi.yuv"};

  // The pipeline does not tell the chroma orders apart, so the mean of the same bytes is the
  // same in either; only the requested output layout may swap the chroma pairs.
  const std::vector<uint8_t> expected = ReferenceLongExposure(frames, kWidth, kHeight);
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
    EXPECT_EQ(run.err, "");
    EXPECT_TRUE(ReadFile(dir / c.output) == *c.want);
    fs::remove(dir / c.output);
  }
  EXPECT_EQ(dir.list(), (std::vector<std::string>{"f0.yuv", "f1.yuv", "f2.yuv", "multi.yuv"}));
}

TEST(VelmoraLongexp, VerboseShowsTheLibraryLogOnStandardOutput) {
  TempDir dir;
  std::mt19937 random(7);
  WriteFile(dir / "f.yuv", RandomFrame(16, 8, &random));
  for (const bool verbose : {false, true}) {
    std::vector<std::string> args = {"longexp", "--size", "16x8", "f.yuv", "-o", "out.yuv"};
    if (verbose) args.push_back("--verbose");
    const RunResult run = RunTool(args, dir.path());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out.find("Algorithm [INFO]") != std::string::npos, verbose) << run.out;
  }
}

TEST(VelmoraLongexp, PngOutputDecodesToTheFrameColours) {
  constexpr int kWidth = 32, kHeight = 16;
  TempDir dir;
  struct Case {
    const char* format;
    uint8_t y, first, second;  // luma, then the chroma pair as stored
    uint8_t r, g, b;
  };
  const Case cases[] = {
      {"nv12", 128, 128, 128, 128, 128, 128},  // grey
      {"nv12", 76, 85, 255, 254, 0, 0},        // red: U 85, V 255
      {"nv21", 76, 255, 85, 254, 0, 0},        // the same red stored V first
      {"nv12", 150, 44, 21, 0, 255, 1},        // green, clamped at both ends
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.format) + " Y=" + std::to_string(c.y));
    // A flat frame: the mean is the frame and the sharpen leaves it alone.
    std::vector<uint8_t> frame(FrameBytes(kWidth, kHeight), c.y);
    for (size_t i = size_t(kWidth) * kHeight; i < frame.size(); i += 2) {
      frame[i] = c.first;
      frame[i + 1] = c.second;
    }
    WriteFile(dir / "flat.yuv", frame);
    const RunResult run =
        RunTool({"longexp", "--size", "32x16", "--format", c.format, "flat.yuv", "-o", "flat.png"},
                dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    Png png;
    ASSERT_TRUE(ReadPng(dir / "flat.png", &png));
    EXPECT_EQ(png.width, uint32_t{kWidth});
    EXPECT_EQ(png.height, uint32_t{kHeight});
    std::vector<uint8_t> want;
    for (int i = 0; i < kWidth * kHeight; ++i) want.insert(want.end(), {c.r, c.g, c.b});
    EXPECT_TRUE(png.rgb == want) << "first pixel " << int(png.rgb[0]) << "," << int(png.rgb[1])
                                 << "," << int(png.rgb[2]);
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
      {{"longexp", "--size", "63x48", "good.yuv", "-o", "out.png"},
       "'63x48': width and height must be even"},
      {{"longexp", "--size", "64x0", "good.yuv", "-o", "out.png"}, "must be non-zero"},
      {{"longexp", "--size", "64by48", "good.yuv", "-o", "out.png"},
       "'64by48': expected WIDTHxHEIGHT"},
      {{"longexp", "--size", "64x48x2", "good.yuv", "-o", "out.png"}, "expected WIDTHxHEIGHT"},
      {{"longexp", "--size", "99999x48", "good.yuv", "-o", "out.png"}, "at most 16384"},
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
      {{"longexp", "--size", "64x48", "good.yuv", "-o", "good.yuv/out.png"},
       "good.yuv/out.png: cannot create"},
      {{"longexp", "--size", "64x48", "good.yuv", "-o", "subdir.png/"}, "unknown output extension"},
      {{"longexp", "--size", "64x48", "good.yuv", "--frobnicate", "-o", "out.png"},
       "unknown option '--frobnicate'"},
      {{"longexp", "--size", "64x48", "--isa", "mmx", "good.yuv", "-o", "out.png"},
       "'mmx': unknown instruction set"},
      {{"longexp", "--size", "64x48", "--verbose=yes", "good.yuv", "-o", "out.png"},
       "--verbose takes no value"},
      // A bad input leaves an existing output file as it was.
      {{"longexp", "--size", "64x48", "good.yuv", "short.yuv", "-o", "keep.png"},
       "short.yuv: size 1000"},
      {{"demo", "good.yuv"}, "demo takes no input files"},
      {{"demo", "-o", "demo.gif"}, "demo.gif: unknown output extension"},
      {{"demo", "-o", "nowhere/demo.png"}, "nowhere/demo.png: cannot create"},
      {{"demo", "-q"}, "unknown option '-q'"},
      {{"timelapse"}, "unknown command 'timelapse'"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{}, "missing command"},
  };
  const std::vector<std::string> before = dir.list();
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
    EXPECT_EQ(dir.list(), before);
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
      {{"--version"}, "velmora 0.1.0 (library Velmora_Verion_0.1.0)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.front());
    const RunResult run = RunTool(c.args, dir.path());
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out.rfind(c.starts, 0), 0u) << run.out;
    EXPECT_EQ(run.err, "");
  }
  EXPECT_TRUE(dir.list().empty());
}

TEST(VelmoraCli, ProgressLineOnlyWhenStandardErrorIsATerminal) {
  TempDir dir;
  std::mt19937 random(3);
  std::vector<uint8_t> frames;
  for (int i = 0; i < 4; ++i) {
    const std::vector<uint8_t> frame = RandomFrame(32, 16, &random);
    frames.insert(frames.end(), frame.begin(), frame.end());
  }
  WriteFile(dir / "burst.yuv", frames);
  const std::vector<std::string> args = {"longexp",   "--size", "32x16",
                                         "burst.yuv", "-o",     "out.yuv"};

  const std::vector<std::string> command = ToolCommand(args);
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

  const RunResult piped = RunTool(args, dir.path());
  EXPECT_EQ(piped.exit_code, 0);
  EXPECT_EQ(piped.err, "");
}

TEST(VelmoraDemo, WritesA1280x720PngAndSaysWhere) {
  TempDir dir;
  const RunResult run = RunTool({"demo"}, dir.path());
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(CountLines(run.out), 1u) << run.out;
  EXPECT_EQ(run.out.rfind("wrote ", 0), 0u) << run.out;
  EXPECT_NE(run.out.find("/velmora-demo.png\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(dir.list(), std::vector<std::string>{"velmora-demo.png"});
  Png png;
  ASSERT_TRUE(ReadPng(dir / "velmora-demo.png", &png));
  EXPECT_EQ(png.width, 1280u);
  EXPECT_EQ(png.height, 720u);
}

}  // namespace
