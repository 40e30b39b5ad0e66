// longexp on every kind of input: raw frames, videos and picture sequences, selected, folded,
// aligned, and stopped early with the work kept.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "cli_harness.h"
#include "image_writer.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary
using testutil::Frame;

// The long exposure of frames[picks...] by the independent double running mean.
std::vector<uint8_t> Expected(const std::vector<Frame>& frames, const std::vector<int>& picks) {
  testutil::ReferenceMean mean;
  for (int i : picks) mean.Fold(frames[size_t(i)]);
  return testutil::Packed(mean.Result(frames[0].width, frames[0].height));
}

std::vector<Frame> RandomFrames(int count, uint32_t seed, std::vector<uint8_t>* raw) {
  std::vector<Frame> frames;
  for (int i = 0; i < count; ++i) {
    frames.push_back(testutil::RandomFrame(64, 48, seed + uint32_t(i)));
    const std::vector<uint8_t> packed = testutil::Packed(frames.back());
    raw->insert(raw->end(), packed.begin(), packed.end());
  }
  return frames;
}

TEST(VelmoraFootage, SelectedFramesOfEveryInputAreFoldedExactlyInEitherChromaOrder) {
  TempDir dir;
  std::vector<uint8_t> raw;
  const std::vector<Frame> frames = RandomFrames(10, 11, &raw);
  std::vector<std::vector<uint8_t>> packed;
  for (const Frame& frame : frames) packed.push_back(testutil::Packed(frame));
  WriteVideo(dir / "even.mkv", packed, 64, 48);
  WriteVideo(dir / "odd.mkv", packed, 65, 49);  // cropped back to 64x48
  WriteFile(dir / "raw.yuv", raw);
  WriteFile(dir / "f0.yuv", packed[0]);
  struct Case {
    const char* args;
    std::vector<int> picks;        // indexes into frames
    bool swapped = false;          // chroma pairs of a raw output swapped; NV21 colours in a PNG
    const char* shows = "";        // on standard output
  };
  const Case cases[] = {
      {"even.mkv -o out.yuv", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {"odd.mkv -o out.yuv", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {"even.mkv --start 7 -o out.yuv", {7, 8, 9}},
      {"even.mkv --every 4 -o out.yuv", {0, 4, 8}},
      {"even.mkv --start 1 --every 3 --frames 2 -o out.yuv", {1, 4}},
      {"even.mkv odd.mkv --start 8 --frames 4 -o out.yuv", {8, 9, 0, 1}},
      {"--size 64x48 raw.yuv --start 2 --every 3 -o out.yuv", {2, 5, 8}},
      {"--size 64x48 raw.yuv even.mkv --every 5 -o out.yuv", {0, 5, 0, 5}},
      // The pipeline does not tell the chroma orders apart: only an output of the other order
      // swaps the pairs, and a PNG's colours follow the input's order.
      {"--size 64x48 f0.yuv raw.yuv --frames 3 -o out.nv21", {0, 0, 1}, true},
      {"--size 64x48 --format nv21 raw.yuv --frames 2 -o out.NV12", {0, 1}, true},
      {"--size 64x48 --format nv21 raw.yuv --frames 2 -o out.nv21", {0, 1}},
      {"--size 64x48 --format nv21 raw.yuv --frames 2 -o out.yuv", {0, 1}},
      {"--size 64x48 --format nv21 raw.yuv --frames 2 -o out.png", {0, 1}, true},
      {"even.mkv --frames 2 --isa scalar --verbose -o out.png", {0, 1}, false, "Algorithm [INFO]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    const RunResult run = RunTool("longexp " + std::string(c.args), dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");  // no progress line when standard error is not a terminal
    // The library's log shows on standard output only when asked for.
    EXPECT_TRUE(*c.shows ? run.out.find(c.shows) != std::string::npos : run.out.empty()) << run.out;
    std::vector<uint8_t> want = Expected(frames, c.picks);
    const std::string output = dir / Words(c.args).back();
    Png png;
    if (ReadPng(output, &png)) {
      using velmora::tool::ChromaOrder;
      const ChromaOrder order = c.swapped ? ChromaOrder::kNv21 : ChromaOrder::kNv12;
      EXPECT_TRUE(png.rgb == velmora::tool::FrameToRgb(want.data(), {64, 48}, order));
    } else {
      for (size_t i = 64 * 48; c.swapped && i < want.size(); i += 2) std::swap(want[i], want[i + 1]);
      EXPECT_TRUE(ReadFile(output) == want);
    }
    fs::remove(output);
  }
}

TEST(VelmoraFootage, AlignRegistersRawVideoAndPicturesAlike) {
  // Three views of one textured scene, the camera off by a few even pixels each time: against
  // the first, the second sees (4, 4) further right and down, the third (4, 2) further left and
  // up. What all three see is x 4..1276, y 2..716 of the first. (Smaller scenes hold too few
  // corners 45 half-size pixels apart for the driver's 28 matches.)
  constexpr int kW = 1280, kH = 720;
  const std::vector<uint8_t> scene = testutil::TexturedImage(kW + 8, kH + 8, 5);
  const int offsets[3][2] = {{4, 4}, {0, 0}, {8, 6}};
  TempDir dir;
  std::vector<std::vector<uint8_t>> frames;
  std::vector<uint8_t> raw;
  for (int k = 0; k < 3; ++k) {
    std::vector<uint8_t> frame(FrameBytes(kW, kH), 128), rgb;
    for (int i = 0; i < kW * kH; ++i)
      frame[size_t(i)] = scene[size_t(i / kW + offsets[k][1]) * (kW + 8) + i % kW + offsets[k][0]];
    // Grey pictures: full-range BT.601 gives the same luma and chroma 128.
    for (int i = 0; i < kW * kH; ++i) rgb.insert(rgb.end(), 3, frame[size_t(i)]);
    WritePicture(dir / ("f" + std::to_string(k) + ".png"), kW, kH, rgb);
    raw.insert(raw.end(), frame.begin(), frame.end());
    frames.push_back(std::move(frame));
  }
  WriteFile(dir / "burst.yuv", raw);
  WriteVideo(dir / "burst.mkv", frames, kW, kH);
  RunResult first{};
  std::vector<uint8_t> first_picture;
  for (const char* inputs : {"--size 1280x720 burst.yuv", "burst.mkv", "f0.png f1.png f2.png"}) {
    SCOPED_TRACE(inputs);
    const RunResult run = RunTool("longexp --align -o out.yuv " + std::string(inputs), dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    int width = 0, height = 0, left = -1, top = -1;
    ASSERT_EQ(std::sscanf(run.out.c_str(),
                          "aligned 2 frames onto the first, threw 0; cropped to %dx%d at (%d, %d)",
                          &width, &height, &left, &top), 4) << run.out;
    // The estimates may lose a pixel or so at an edge, and the crop keeps even coordinates.
    EXPECT_TRUE(left >= 4 && left <= 6 && top >= 2 && top <= 4) << run.out;
    EXPECT_TRUE(left + width >= kW - 6 && left + width <= kW - 4) << run.out;
    EXPECT_TRUE(top + height >= kH - 6 && top + height <= kH - 4) << run.out;
    const std::vector<uint8_t> picture = ReadFile(dir / "out.yuv");
    EXPECT_EQ(picture.size(), FrameBytes(width, height));
    if (first_picture.empty()) first = run, first_picture = picture;
    EXPECT_EQ(run.out, first.out);  // the same frames, whatever carried them
    EXPECT_TRUE(picture == first_picture);
  }
}

TEST(VelmoraFootage, VideoAndPictureColoursBecomeFullRangeBt601) {
  TempDir dir;
  struct Video {
    AVColorRange range;
    AVColorSpace space;
    uint8_t yuv[3];
  };
  const Video videos[] = {{AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {16, 128, 128}},
                          {AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {235, 128, 128}},
                          {AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {126, 100, 200}},
                          {AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, {63, 102, 240}},
                          {AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, {126, 100, 200}},
                          {AVCOL_RANGE_JPEG, AVCOL_SPC_BT470BG, {126, 100, 200}}};
  for (size_t n = 0; n < std::size(videos); ++n) {
    std::vector<uint8_t> flat(FrameBytes(16, 8), videos[n].yuv[0]);
    for (size_t i = 16 * 8; i < flat.size(); i += 2)
      flat[i] = videos[n].yuv[1], flat[i + 1] = videos[n].yuv[2];
    WriteVideo(dir / ("v" + std::to_string(n) + ".mkv"), {flat, flat}, 16, 8, videos[n].range,
               videos[n].space);
  }
  const std::vector<uint8_t> colour = {200, 100, 50};  // R, G, B
  std::vector<uint8_t> rgb;
  for (int i = 0; i < 33 * 17; ++i) rgb.insert(rgb.end(), colour.begin(), colour.end());
  WritePicture(dir / "odd8.png", 33, 17, rgb);  // cropped to 32x16
  rgb.resize(32 * 16 * 3);
  WritePicture(dir / "deep.png", 32, 16, rgb, true);
  WritePicture(dir / "photo.jpg", 32, 16, rgb, false, true);
  struct Case {
    const char* inputs;
    uint8_t yuv[3];  // worked by hand through RGB
    int tolerance;   // JPEG's quantisation may move a flat colour by one
  };
  const Case cases[] = {
      {"v0.mkv", {0, 128, 128}, 0},
      {"v1.mkv", {255, 128, 128}, 0},
      {"v2.mkv", {128, 96, 210}, 0},   // 128.08 96.13 209.96
      {"v3.mkv", {77, 85, 255}, 0},    // BT.709 red: 76.72 84.59 255.53
      {"v4.mkv", {141, 87, 211}, 0},   // 140.92 87.38 210.91
      {"v5.mkv", {126, 100, 200}, 0},  // full range BT.601 already
      {"odd8.png", {124, 86, 182}, 0},  // 124.2 86.13 182.07
      {"deep.png", {124, 86, 182}, 0},
      {"photo.jpg", {124, 86, 182}, 1},
      {"odd8.png deep.png photo.jpg", {124, 86, 182}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.inputs);
    const RunResult run = RunTool("longexp -o out.nv12 " + std::string(c.inputs), dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::vector<uint8_t> out = ReadFile(dir / "out.nv12");
    ASSERT_EQ(out.size(), FrameBytes(16, 8) * (c.inputs[0] == 'v' ? 1 : 4));
    for (size_t i = 0; i < out.size(); ++i) {
      const uint8_t want = c.yuv[i < out.size() * 2 / 3 ? 0 : 1 + i % 2];
      ASSERT_LE(std::abs(int(out[i]) - int(want)), c.tolerance) << "byte " << i;
    }
  }
}

TEST(VelmoraFootage, FirstSignalKeepsTheFramesFoldedSecondAbortsWithoutOutput) {
  TempDir dir;
  std::vector<uint8_t> raw;
  const std::vector<Frame> frames = RandomFrames(3, 23, &raw);
  for (const std::vector<int>& signals : {std::vector<int>{SIGINT}, {SIGTERM}, {SIGINT, SIGTERM}}) {
    SCOPED_TRACE(signals.size());
    WriteFile(dir / "out.yuv", {'o', 'l', 'd'});
    ASSERT_EQ(mkfifo((dir / "slow.yuv").c_str(), 0600), 0);
    // A pipe that never ends: the tool reads the frames, waits for more, and gets the signals
    // (or, should it not read them, a kill).
    int fifo = -1;
    const RunResult run =
        RunTool("longexp --size 64x48 slow.yuv -o out.yuv", dir.path(), [&](pid_t pid) {
          fifo = open((dir / "slow.yuv").c_str(), O_WRONLY);
          int unread = write(fifo, raw.data(), raw.size()) == ssize_t(raw.size()) ? 1 : -1;
          for (int tries = 0; tries < 2000 && unread > 0; ++tries) {
            if (ioctl(fifo, FIONREAD, &unread) != 0) unread = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
          }
          EXPECT_EQ(unread, 0);
          for (int signal : unread == 0 ? signals : std::vector<int>{SIGKILL}) kill(pid, signal);
        });
    close(fifo);
    if (signals.size() == 1) {
      EXPECT_EQ(run.exit_code, 128 + signals[0]) << run.err;
      EXPECT_NE(run.err.find("wrote out.yuv from the 3 frames folded so far"), std::string::npos)
          << run.err;
      EXPECT_TRUE(ReadFile(dir / "out.yuv") == Expected(frames, {0, 1, 2}));
    } else {
      EXPECT_GT(run.exit_code, 128) << run.err;
      EXPECT_TRUE(ReadFile(dir / "out.yuv") == (std::vector<uint8_t>{'o', 'l', 'd'}));
    }
    fs::remove(dir / "slow.yuv");
    EXPECT_EQ(dir.List(), std::vector<std::string>{"out.yuv"});  // no temporary left behind
  }
}

}  // namespace
