// longexp on every kind of input: raw frames, videos and picture sequences, selected, folded,
// aligned, and stopped early with the work kept.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>

#include "bt601.h"
#include "cli_harness.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary
using velmora::tool::ChromaOrder;
using velmora::tool::FrameToRgb;

// The long exposure of the picked 64x48 frames of raw by the independent double running mean,
// with swapped its chroma pairs turned round.
std::vector<uint8_t> Mean(const std::vector<uint8_t>& raw, const std::vector<int>& picks,
                          bool swapped = false) {
  testutil::ReferenceMean mean;
  for (int i : picks) {
    const auto at = raw.begin() + long(FrameBytes(64, 48)) * i;
    mean.Fold({64, 48, {at, at + 64 * 48}, {at + 64 * 48, at + long(FrameBytes(64, 48))}});
  }
  std::vector<uint8_t> folded = testutil::Packed(mean.Result(64, 48));
  for (size_t i = 64 * 48; swapped && i < folded.size(); i += 2)
    std::swap(folded[i], folded[i + 1]);
  return folded;
}

// Every kind of input: the selected frames of raw files and videos folded exactly as the
// independent mean has them, videos and pictures in full-range BT.601, a fault of each kind in
// the inputs or options told in one line, and JPEG output in its planes, smaller at a lower
// quality.
TEST(VelmoraLongexp, EveryCommandLineGivesItsPictureOrOneErrorLine) {
  TempDir dir;
  const std::vector<uint8_t> raw = testutil::RandomBytes(FrameBytes(64, 48) * 10, 11);
  const std::vector<uint8_t> f0(raw.begin(), raw.begin() + long(FrameBytes(64, 48)));
  WriteVideo(dir / "even.mkv", raw, 64, 48);
  WriteVideo(dir / "odd.mkv", raw, 65, 49);  // cropped back to 64x48
  WriteFile(dir / "raw.yuv", raw);
  WriteFile(dir / "f0.yuv", f0);
  ASSERT_EQ(link((dir / "f0.yuv").c_str(), (dir / "same.nv12").c_str()), 0);
  // Flat frames: videos tagged with their colours, and pictures of R 200, G 100, B 50.
  auto flat = [](int width, int height, std::vector<uint8_t> yuv) {
    std::vector<uint8_t> frame(FrameBytes(width, height), yuv[0]);
    for (size_t i = size_t(width) * height; i < frame.size(); i += 2)
      frame[i] = yuv[1], frame[i + 1] = yuv[2];
    return frame;
  };
  // 40 wide: the range expansion runs 16 bytes a step, then the rest of each row one by one.
  const std::vector<uint8_t> mid = flat(40, 8, {126, 100, 200});
  WriteVideo(dir / "601.mkv", mid, 40, 8, AVCOL_RANGE_MPEG);
  WriteVideo(dir / "709.mkv", mid, 40, 8, AVCOL_RANGE_MPEG, AVCOL_SPC_BT709);
  WriteVideo(dir / "full.mkv", mid, 40, 8);
  WriteVideo(dir / "red.mkv", flat(40, 8, {63, 102, 240}), 40, 8, AVCOL_RANGE_MPEG,
             AVCOL_SPC_BT709);
  std::vector<uint8_t> rgb;
  for (int i = 0; i < 33 * 17; ++i) rgb.insert(rgb.end(), {200, 100, 50});
  WritePicture(dir / "odd8.png", 33, 17, rgb);  // cropped to 32x16
  rgb.resize(32 * 16 * 3);
  WritePicture(dir / "photo.jpg", 32, 16, rgb, true);
  const std::vector<uint8_t> picture = flat(32, 16, {124, 86, 182});  // 124.2 86.13 182.07
  WriteFile(dir / "red.yuv", flat(32, 16, {76, 255, 85}));            // as NV21
  // Broken inputs, and a file in the way of an output.
  WriteFile(dir / "short.yuv", std::vector<uint8_t>(1000, 1));
  WriteFile(dir / "notes.txt", std::vector<uint8_t>(100, 'a'));
  const std::vector<uint8_t> mkv = ReadFile(dir / "even.mkv");
  WriteFile(dir / "cut.mkv", std::vector<uint8_t>(mkv.begin(), mkv.begin() + mkv.size() / 2));
  WriteFile(dir / "keep.jpg", {'o', 'l', 'd'});

  const std::vector<uint8_t> all = Mean(raw, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  const std::vector<ToolRun> runs = {
      {"longexp even.mkv -o out.yuv", all},
      {"longexp odd.mkv -o out.yuv", all},
      {"longexp even.mkv --start 1 --every 3 --frames 2 -o out.yuv", Mean(raw, {1, 4})},
      {"longexp even.mkv odd.mkv --start 8 --frames 4 -o out.yuv", Mean(raw, {8, 9, 0, 1})},
      {"longexp --size 64x48 raw.yuv --start 2 --every 3 -o out.yuv", Mean(raw, {2, 5, 8})},
      {"longexp --size 64x48 raw.yuv even.mkv --every 5 -o out.yuv", Mean(raw, {0, 5, 0, 5})},
      // The pipeline does not tell the chroma orders apart: only an output of the other order
      // swaps the pairs, and a PNG's colours follow the input's order.
      {"longexp --size 64x48 f0.yuv raw.yuv --frames 3 -o out.nv21", Mean(raw, {0, 0, 1}, true)},
      {"longexp --size 64x48 --format nv21 raw.yuv --frames 2 -o out.NV12",
       Mean(raw, {0, 1}, true)},
      {"longexp --size 64x48 --format nv21 raw.yuv --frames 2 -o out.yuv", Mean(raw, {0, 1})},
      {"longexp --size 64x48 --format nv21 raw.yuv --frames 2 -o out.png",
       FrameToRgb(Mean(raw, {0, 1}).data(), {64, 48}, ChromaOrder::kNv21)},
      {"longexp even.mkv --frames 2 --isa scalar --verbose -o out.png",
       FrameToRgb(Mean(raw, {0, 1}).data(), {64, 48}, ChromaOrder::kNv12), "", 0,
       "Algorithm [INFO]"},
      // Colours worked by hand through RGB; JPEG's quantisation may move a flat one by one.
      {"longexp 601.mkv -o out.yuv", flat(40, 8, {128, 96, 210})},  // 128.08 96.13 209.96
      {"longexp 709.mkv -o out.yuv", flat(40, 8, {141, 87, 211})},  // 140.92 87.38 210.91
      {"longexp red.mkv -o out.yuv", flat(40, 8, {77, 85, 255})},   // 76.72 84.59 255.53
      {"longexp full.mkv -o out.yuv", mid},
      {"longexp odd8.png -o out.yuv", picture},
      {"longexp photo.jpg -o out.yuv", picture, "", 1},
      // A JPEG holds the frame's planes unconverted: a flat frame keeps its Y, U and V.
      {"longexp --size 32x16 --format nv21 red.yuv -o out.jpg", flat(32, 16, {76, 85, 255}), "",
       1},
      // Each reason of a refused size is ParseSize's own test; here, that it reaches the user.
      {"longexp --size 63x48 f0.yuv -o out.png", {}, "'63x48': width and height must be even"},
      {"longexp --size 64x48 missing.yuv -o out.png", {}, "missing.yuv: No such file"},
      {"longexp --size 64x48 f0.yuv short.yuv -o keep.jpg", {},
       "short.yuv: size 1000 bytes is not a multiple of the frame size 4608 (64x48 nv12)"},
      {"longexp f0.yuv -o out.png", {}, "f0.yuv: raw frames need --size WxH"},
      // The last extension decides.
      {"longexp --size 64x48 f0.yuv -o out.png.gif", {}, "out.png.gif: unknown output extension"},
      {"longexp --size 64x48 -o out.png", {}, "no inputs"},
      {"longexp --size 64x48 f0.yuv -o nowhere/out.png", {}, "nowhere/out.png: cannot create"},
      {"longexp notes.txt -o keep.jpg", {}, "notes.txt: not a video or picture"},
      {"longexp cut.mkv -o keep.jpg", {}, "cut.mkv: damaged or truncated video"},
      {"longexp odd8.png even.mkv -o keep.jpg", {},
       "even.mkv: frames of 64x48, unlike the first input's 32x16"},
      {"longexp even.mkv --start 10 -o keep.jpg", {},
       "no frames selected: the inputs end before the first one"},
      {"longexp --size 64x48 f0.yuv -o same.nv12", {}, "same.nv12: is also an input"},  // a link
      {"longexp even.mkv --quality 101 -o keep.jpg", {},
       "--quality '101': expected a whole number from 1 to 100"},
  };
  for (const ToolRun& run : runs) ExpectRun(dir, run);
  EXPECT_TRUE(ReadFile(dir / "keep.jpg") == (std::vector<uint8_t>{'o', 'l', 'd'}));
  EXPECT_TRUE(ReadFile(dir / "same.nv12") == f0);
  for (const char* args : {"raw.yuv -o high.JPEG", "raw.yuv -o low.jpg --quality 10"})
    EXPECT_EQ(RunTool("longexp --size 64x48 " + std::string(args), dir.path()).exit_code, 0);
  EXPECT_LT(ReadFile(dir / "low.jpg").size(), ReadFile(dir / "high.JPEG").size() * 3 / 4);
}

// Against the first frame, the second sees (4, 4) further right and down, the third (4, 2)
// further left and up: the crop is x 4..1276, y 2..716, give or take a pixel the estimates lose
// at an edge, at even coordinates; raw frames and a video give the same run, whose picture is
// the first frame's.
// (Smaller scenes hold too few corners 45 half-size pixels apart for the driver's 28 matches.)
TEST(VelmoraFootage, AlignCropsToWhatEveryFrameOfAKnownShiftSeesWhateverCarriesIt) {
  constexpr int kW = 1280, kH = 720;
  const std::vector<uint8_t> scene = testutil::TexturedImage(kW + 8, kH + 8, 5);
  const int offsets[3][2] = {{4, 4}, {0, 0}, {8, 6}};
  TempDir dir;
  std::vector<uint8_t> raw;
  for (int k = 0; k < 3; ++k) {
    std::vector<uint8_t> frame(FrameBytes(kW, kH), 128);
    for (int i = 0; i < kW * kH; ++i)
      frame[size_t(i)] = scene[size_t(i / kW + offsets[k][1]) * (kW + 8) + i % kW + offsets[k][0]];
    raw.insert(raw.end(), frame.begin(), frame.end());
  }
  WriteFile(dir / "burst.yuv", raw);
  WriteVideo(dir / "burst.mkv", raw, kW, kH);
  RunResult first{};
  for (const char* inputs : {"--size 1280x720 burst.yuv", "burst.mkv"}) {
    const RunResult run = RunTool("longexp --align -o out.yuv " + std::string(inputs), dir.path());
    ASSERT_EQ(run.exit_code, 0) << inputs << ": " << run.err;
    if (first.out.empty()) first = run;
    EXPECT_EQ(run.out, first.out) << inputs;  // the same frames, whatever carried them
  }
  int width = 0, height = 0, left = -1, top = -1;
  ASSERT_EQ(std::sscanf(first.out.c_str(),
                        "aligned 2 frames onto the first, threw 0; cropped to %dx%d at (%d, %d)",
                        &width, &height, &left, &top), 4) << first.out;
  EXPECT_TRUE(left >= 4 && left <= 6 && top >= 2 && top <= 4) << first.out;
  EXPECT_TRUE(left + width >= kW - 6 && left + width <= kW - 4) << first.out;
  EXPECT_TRUE(top + height >= kH - 6 && top + height <= kH - 4) << first.out;
  // Inside the crop the folded picture is the first frame as it comes out alone, within the few
  // levels that the estimates' fractions of a pixel cost at sharp edges (unaligned: over 100).
  ASSERT_EQ(RunTool("longexp burst.mkv --frames 1 -o alone.yuv", dir.path()).exit_code, 0);
  const std::vector<uint8_t> out = ReadFile(dir / "out.yuv"), alone = ReadFile(dir / "alone.yuv");
  ASSERT_EQ(out.size(), FrameBytes(width, height));
  int worst = 0;  // away from the border, which the sharpening treats apart
  for (int y = 2; y < height - 2; ++y) {
    for (int x = 2; x < width - 2; ++x) {
      const int d = int(out[size_t(y) * width + x]) - int(alone[size_t(y + top) * kW + x + left]);
      worst = std::max(worst, std::abs(d));
    }
  }
  EXPECT_LE(worst, 8);
}

TEST(VelmoraFootage, FirstSignalKeepsTheFramesFoldedSecondAbortsWithoutOutput) {
  TempDir dir;
  const std::vector<uint8_t> raw = testutil::RandomBytes(FrameBytes(64, 48) * 3, 23);
  // A pipe that never ends: the tool reads the frames, waits for more, and gets the signals (or,
  // should it not read them, a kill).
  ASSERT_EQ(mkfifo((dir / "slow.yuv").c_str(), 0600), 0);
  for (const std::vector<int>& signals : {std::vector<int>{SIGINT}, {SIGTERM}, {SIGINT, SIGTERM}}) {
    WriteFile(dir / "out.yuv", {'o', 'l', 'd'});
    int fifo = -1;
    const RunResult run =
        RunTool("longexp --size 64x48 slow.yuv -o out.yuv", dir.path(), [&](pid_t pid) {
          fifo = open((dir / "slow.yuv").c_str(), O_WRONLY);
          int unread = write(fifo, raw.data(), raw.size()) == ssize_t(raw.size()) ? 1 : -1;
          for (int tries = 0; tries < 2000 && unread > 0; ++tries) {
            if (ioctl(fifo, FIONREAD, &unread) != 0) unread = -1;
            usleep(5000);
          }
          EXPECT_EQ(unread, 0);
          for (int signal : unread == 0 ? signals : std::vector<int>{SIGKILL}) kill(pid, signal);
        });
    close(fifo);
    const bool kept = signals.size() == 1;
    EXPECT_TRUE(kept ? run.exit_code == 128 + signals[0] : run.exit_code > 128) << run.exit_code;
    EXPECT_EQ(run.err.find("wrote out.yuv from the 3 frames folded so far") != std::string::npos,
              kept) << run.err;
    const std::vector<uint8_t> old = {'o', 'l', 'd'};
    EXPECT_TRUE(ReadFile(dir / "out.yuv") == (kept ? Mean(raw, {0, 1, 2}) : old));
    EXPECT_EQ(dir.List(), (std::vector<std::string>{"out.yuv", "slow.yuv"}));  // no temporary
  }
}

}  // namespace
