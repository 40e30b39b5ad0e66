// The velmora tool's surface as a user meets it: JPEG output, convert both ways, help and
// errors, the progress line and the demo.
#include <pty.h>

#include "cli_harness.h"
#include "convert.h"
#include "image_writer.h"
#include "velmora/yuv.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary
using velmora::tool::ChromaOrder;

TEST(VelmoraLongexp, JpegOutputCarriesTheFramePlanesAtTheChosenQuality) {
  TempDir dir;
  std::vector<uint8_t> red(FrameBytes(32, 16), 76);  // Y 76, U 85, V 255, given as NV21
  for (size_t i = 32 * 16; i < red.size(); i += 2) red[i] = 255, red[i + 1] = 85;
  WriteFile(dir / "red.yuv", red);
  WriteFile(dir / "noise.yuv", testutil::RandomBytes(FrameBytes(32, 16), 5));
  for (const char* args : {"--format nv21 red.yuv -o red.jpg", "noise.yuv -o high.JPEG",
                           "noise.yuv -o low.jpg --quality 10"}) {
    const RunResult run = RunTool("longexp --size 32x16 " + std::string(args), dir.path());
    ASSERT_EQ(run.exit_code, 0) << args << ": " << run.err;
  }
  // The planes go in unconverted, 4:2:0: a flat frame comes back with its own Y, U and V.
  const std::vector<uint8_t> jpeg = ReadFile(dir / "red.jpg");
  tjhandle tj = tjInitDecompress();
  int width = 0, height = 0, subsampling = -1, colorspace = -1;
  ASSERT_EQ(tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &width, &height, &subsampling,
                                &colorspace), 0);
  EXPECT_EQ(std::vector<int>({width, height, subsampling, colorspace}),
            std::vector<int>({32, 16, TJSAMP_420, TJCS_YCbCr}));
  std::vector<uint8_t> planes(FrameBytes(32, 16));
  unsigned char* plane[3] = {&planes[0], &planes[32 * 16], &planes[32 * 16 * 5 / 4]};
  int strides[3] = {32, 16, 16};
  ASSERT_EQ(tjDecompressToYUVPlanes(tj, jpeg.data(), jpeg.size(), plane, 32, strides, 16, 0), 0);
  tjDestroy(tj);
  EXPECT_NEAR(plane[0][0], 76, 1);
  EXPECT_NEAR(plane[1][0], 85, 1);
  EXPECT_NEAR(plane[2][0], 255, 1);
  EXPECT_LT(ReadFile(dir / "low.jpg").size(), ReadFile(dir / "high.JPEG").size() * 3 / 4);
}

TEST(VelmoraConvert, RawFramesBecomeNumberedPngsOptionallyResampled) {
  TempDir dir;
  const std::vector<uint8_t> frames = testutil::RandomBytes(FrameBytes(16, 8) * 3, 17);
  WriteFile(dir / "two.yuv", {frames.begin(), frames.begin() + FrameBytes(16, 8) * 2});
  WriteFile(dir / "one.yuv", {frames.begin() + FrameBytes(16, 8) * 2, frames.end()});
  for (const bool nv21 : {false, true}) {  // the NV21 run scaled to 8x6
    const RunResult run = RunTool(nv21 ? "convert --size 16x8 --format nv21 two.yuv one.yuv "
                                         "-o f%02d.png --scale 8x6"
                                       : "convert --size 16x8 two.yuv one.yuv -o f%02d.png",
                                  dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
    for (size_t n = 0; n < 3; ++n) {
      std::vector<uint8_t> frame(frames.begin() + long(FrameBytes(16, 8) * n),
                                 frames.begin() + long(FrameBytes(16, 8) * (n + 1)));
      std::vector<uint8_t> small(FrameBytes(8, 6));
      if (nv21) NV12Linear(frame.data(), small.data(), 16, 8, 8, 6);
      const std::string name = dir / ("f0" + std::to_string(n + 1) + ".png");
      Png png;
      ASSERT_TRUE(ReadPng(name, &png)) << name;
      EXPECT_EQ(png.width, nv21 ? 8u : 16u);
      EXPECT_TRUE(png.rgb == velmora::tool::FrameToRgb((nv21 ? small : frame).data(),
                                                       {png.width, png.height},
                                                       nv21 ? ChromaOrder::kNv21 : ChromaOrder::kNv12))
          << name;
      fs::remove(name);
    }
  }
}

TEST(VelmoraConvert, PngImagesBecomeRawFramesBackToBackInTheOutputsOrder) {
  using velmora::tool::RgbImage;
  TempDir dir;
  std::vector<RgbImage> images = {{4, 2, {}}, {4, 2, {}}, {8, 4, {}}};
  for (uint32_t i = 0; i < 3; ++i) {
    images[i].rgb = testutil::RandomBytes(size_t(images[i].width) * images[i].height * 3, 23 + i);
    WritePicture(dir / ("i" + std::to_string(i) + ".png"), int(images[i].width),
                 int(images[i].height), images[i].rgb);
  }
  // The tool's own RGB-to-frame conversion (pinned by the tool_parts tests), frame after frame.
  auto frames = [&](ChromaOrder order, size_t first, bool scaled) {
    std::vector<uint8_t> all;
    for (size_t i = first; i < first + 2; ++i) {
      std::vector<uint8_t> frame = velmora::tool::RgbToFrame(images[i], order);
      if (scaled) frame = velmora::tool::ScaleFrame(frame, {images[i].width, images[i].height}, {2, 2});
      all.insert(all.end(), frame.begin(), frame.end());
    }
    return all;
  };
  const std::vector<uint8_t> nv12 = frames(ChromaOrder::kNv12, 0, false);
  const std::vector<uint8_t> nv21 = frames(ChromaOrder::kNv21, 0, false);
  const std::vector<uint8_t> scaled = frames(ChromaOrder::kNv12, 1, true);
  const std::pair<const char*, const std::vector<uint8_t>*> cases[] = {
      {"i0.png i1.png -o out.yuv", &nv12},
      {"i0.png i1.png -o out.nv21", &nv21},
      {"i0.png i1.png --format nv21 -o out.yuv", &nv21},
      {"i1.png i2.png --scale 2x2 -o small.nv12", &scaled},  // sizes differ: --scale needed
  };
  for (const auto& [args, want] : cases) {
    const RunResult run = RunTool("convert " + std::string(args), dir.path());
    ASSERT_EQ(run.exit_code, 0) << args << ": " << run.err;
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_TRUE(ReadFile(dir / Words(args).back()) == *want) << args;
  }
}

// Help on standard output (exit 0), or one error line naming the problem (exit 2); either way no
// file is made or changed.
TEST(VelmoraCli, EveryCommandLineGetsHelpOrOneErrorLineAndLeavesTheFilesAlone) {
  TempDir dir;
  WriteFile(dir / "good.yuv", std::vector<uint8_t>(FrameBytes(64, 48), 100));
  WriteFile(dir / "short.yuv", std::vector<uint8_t>(1000, 1));
  WriteFile(dir / "empty.yuv", {});
  WriteFile(dir / "keep.png", {'o', 'l', 'd'});
  WriteFile(dir / "keep.jpg", {'o', 'l', 'd'});
  fs::create_directory(dir / "subdir");
  WritePicture(dir / "img.png", 4, 2, std::vector<uint8_t>(24, 9));
  WritePicture(dir / "wide.png", 6, 2, std::vector<uint8_t>(36, 9));
  WritePicture(dir / "odd.png", 3, 2, std::vector<uint8_t>(18, 9));
  WritePicture(dir / "small.png", 16, 8, std::vector<uint8_t>(16 * 8 * 3, 2));
  WritePicture(dir / "big.jpg", 32, 16, std::vector<uint8_t>(32 * 16 * 3, 2), false, true);
  const std::vector<uint8_t> png = ReadFile(dir / "small.png");
  WriteFile(dir / "cut.png", std::vector<uint8_t>(png.begin(), png.end() - 20));
  std::vector<std::vector<uint8_t>> clip;
  for (uint32_t i = 0; i < 30; ++i) clip.push_back(testutil::RandomBytes(FrameBytes(16, 8), i));
  WriteVideo(dir / "clip.mkv", clip, 16, 8);
  const std::vector<uint8_t> mkv = ReadFile(dir / "clip.mkv");
  WriteFile(dir / "cut.mkv", std::vector<uint8_t>(mkv.begin(), mkv.begin() + mkv.size() / 2));
  WriteFile(dir / "notes.txt", std::vector<uint8_t>(100, 'a'));
  // A WAV file of silence: a container libavformat knows, with no video in it.
  std::vector<uint8_t> wav = {'R', 'I', 'F', 'F', 36 + 200, 0, 0, 0, 'W', 'A', 'V', 'E',
                              'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x40, 0x1f, 0, 0,
                              0x80, 0x3e, 0, 0, 2, 0, 16, 0, 'd', 'a', 't', 'a', 200, 0, 0, 0};
  wav.resize(wav.size() + 200, 0);
  WriteFile(dir / "tone.wav", wav);
  WriteFile(dir / "frame.yuv", clip[0]);
  ASSERT_EQ(link((dir / "frame.yuv").c_str(), (dir / "same.nv12").c_str()), 0);

  std::vector<std::pair<std::string, std::string>> helps = {  // arguments, how the text starts
      {"--help", "usage: velmora <command>"},
      {"-h", "usage: velmora <command>"},
      {"longexp --help", "usage: velmora longexp [options] INPUT... -o OUT"},
      {"longexp --size bad -h", "usage: velmora longexp"},  // help before any complaint
      {"demo --help", "usage: velmora demo"},
      {"convert --help", "usage: velmora convert"},
      {"--version", "velmora 0.1.0 (library Velmora_Verion_0.1.0)"},
  };
  std::vector<std::pair<std::string, std::string>> errors = {  // arguments, what the line names
      {"longexp --size 64x48 missing.yuv -o out.png", "missing.yuv: No such file"},
      {"longexp --size 64x48 good.yuv subdir -o out.png", "subdir: not a regular file"},
      {"longexp --size 64x48 good.yuv short.yuv -o keep.png",
       "short.yuv: size 1000 bytes is not a multiple of the frame size 4608 (64x48 nv12)"},
      {"longexp --size 64x48 empty.yuv -o out.png", "empty.yuv: file is empty"},
      // Each reason of a refused size is ParseSize's own test; here, that it reaches the user.
      {"longexp --size 63x48 good.yuv -o out.png", "'63x48': width and height must be even"},
      {"longexp good.yuv -o out.png", "good.yuv: raw frames need --size WxH"},
      {"longexp --size 64x48 --format yuyv good.yuv -o out.png", "'yuyv': unknown format"},
      {"longexp --size 64x48 good.yuv -o out.gif", "out.gif: unknown output extension"},
      {"longexp --size 64x48 good.yuv", "missing -o"},
      {"longexp --size 64x48 good.yuv -o", "-o needs a value"},
      {"longexp --size 64x48 -o out.png", "no inputs"},
      {"longexp --size 64x48 good.yuv -o nowhere/out.png", "nowhere/out.png: cannot create"},
      {"longexp --size 64x48 good.yuv --frobnicate -o out.png", "unknown option '--frobnicate'"},
      {"longexp --size 64x48 --isa mmx good.yuv -o out.png", "'mmx': unknown instruction set"},
      {"longexp --size 64x48 --verbose=yes good.yuv -o out.png", "--verbose takes no value"},
      {"longexp notes.txt -o keep.jpg", "notes.txt: not a video or picture"},
      {"longexp tone.wav -o keep.jpg", "tone.wav: no video stream"},
      {"longexp cut.mkv -o keep.jpg", "cut.mkv: damaged or truncated video"},
      {"longexp cut.png -o keep.jpg", "cut.png: damaged PNG picture"},
      {"longexp small.png big.jpg -o keep.jpg",
       "big.jpg: frames of 32x16, unlike the first input's 16x8"},
      {"longexp clip.mkv --start 30 -o keep.jpg", "no frames selected: the inputs end before the"},
      {"longexp --size 16x8 frame.yuv --start 1 -o keep.jpg", "the inputs hold 1 frame and --start 1"},
      {"longexp --size 16x8 frame.yuv -o ./frame.yuv", "./frame.yuv: is also an input"},
      {"longexp --size 16x8 frame.yuv -o same.nv12", "same.nv12: is also an input"},  // a hard link
      {"longexp clip.mkv --every 0 -o keep.jpg", "--every '0': expected a whole number from 1"},
      {"longexp clip.mkv --frames x -o keep.jpg", "--frames 'x': expected a whole number"},
      {"longexp clip.mkv --start -1 -o keep.jpg", "--start '-1': expected a whole number"},
      {"longexp clip.mkv --quality 101 -o keep.jpg", "--quality '101': expected a whole number "
                                                     "from 1 to 100"},
      {"convert --size 64x48 good.yuv good.yuv -o out.png", "2 frames need a numbered output name"},
      {"convert good.yuv -o out.png", "missing --size"},
      {"convert --size 64x48 good.yuv -o out.nv12", "raw frames convert to PNG"},
      {"convert --size 64x48 good.yuv -o f%s.png", "one frame number"},
      {"convert --size 64x48 --scale 3x3 good.yuv -o out.png", "--scale '3x3': width and height"},
      {"convert img.png -o out.png", "PNG input converts to raw frames"},
      {"convert img.png good.yuv -o out.nv12", "inputs mix PNG images and raw"},
      {"convert img.png odd.png -o out.nv12", "odd.png: 3x2: NV12/NV21 needs even"},
      {"convert img.png wide.png -o out.nv12", "wide.png: 6x2 differs from the first image's 4x2"},
      {"convert img.png keep.png -o out.nv12", "keep.png: cannot read PNG"},
      {"convert --size 4x2 img.png -o out.nv12", "--size is for raw input"},
      {"convert --format nv21 img.png -o out.nv12", "contradicts"},
      {"convert -o out.nv12", "no input files"},
      {"demo good.yuv", "demo takes no input files"},
      {"timelapse", "unknown command 'timelapse'"},
      {"--frobnicate", "unknown option '--frobnicate'"},
      {"", "missing command"},
  };
  if (geteuid() != 0) {  // permissions do not bind root
    WriteFile(dir / "locked.yuv", std::vector<uint8_t>(FrameBytes(64, 48), 1));
    fs::permissions(dir / "locked.yuv", fs::perms::none);
    errors.push_back({"longexp --size 64x48 good.yuv locked.yuv -o out.png",
                      "velmora: error: locked.yuv: Permission denied\n"});  // before any work
  }
  const std::vector<std::string> before = dir.List();
  for (const auto& [args, text] : helps) {
    const RunResult run = RunTool(args, dir.path());
    EXPECT_EQ(run.exit_code, 0) << args;
    EXPECT_EQ(run.out.rfind(text, 0), 0u) << args << ": " << run.out;
    EXPECT_EQ(run.err, "") << args;
  }
  for (const auto& [args, text] : errors) {
    const RunResult run = RunTool(args, dir.path());
    EXPECT_EQ(run.exit_code, 2) << args;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << args << ": " << run.err;
    EXPECT_EQ(run.err.rfind("velmora: error: ", 0), 0u) << args << ": " << run.err;
    EXPECT_NE(run.err.find(text), std::string::npos) << args << ": " << run.err;
    EXPECT_EQ(run.out, "") << args;
    EXPECT_EQ(dir.List(), before) << args;  // not even a partial or temporary file
  }
  for (const char* kept : {"keep.png", "keep.jpg"})
    EXPECT_TRUE(ReadFile(dir / kept) == (std::vector<uint8_t>{'o', 'l', 'd'})) << kept;
  EXPECT_TRUE(ReadFile(dir / "same.nv12") == clip[0]);
}

TEST(VelmoraCli, ProgressLineOnlyWhenStandardErrorIsATerminal) {
  TempDir dir;
  WriteFile(dir / "burst.yuv", testutil::RandomBytes(FrameBytes(32, 16) * 4, 3));
  const std::vector<std::string> command =
      ToolCommand(Words("longexp --size 32x16 burst.yuv -o out.yuv"));
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
  const RunResult run = RunTool("demo", dir.path());
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out.rfind("wrote ", 0), 0u) << run.out;
  EXPECT_EQ(run.out.find('\n'), run.out.size() - 1) << run.out;  // one line
  EXPECT_NE(run.out.find("/velmora-demo.png\n"), std::string::npos) << run.out;
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(dir.List(), std::vector<std::string>{"velmora-demo.png"});
  Png png;
  ASSERT_TRUE(ReadPng(dir / "velmora-demo.png", &png));
  EXPECT_EQ(std::make_pair(png.width, png.height), std::make_pair(1280u, 720u));
}

}  // namespace
