// The tool on real footage: videos, picture sequences, JPEG output, the selection of frames, and
// a stop that keeps the work. The videos and pictures are made here, with FFmpeg's libraries,
// libpng and libjpeg-turbo, rather than shipped.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <turbojpeg.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "cli_harness.h"

namespace {

using namespace clitest;  // NOLINT: the harness is this file's vocabulary

// Writes NV12 frames (the even part of a width x height picture) as a lossless FFV1 video in
// Matroska, so that decoding must give the frames back exactly, tagged with the given colours
// (full-range BT.601 unless said). An odd last column or row is filled with 0.
void WriteVideo(const std::string& path, const std::vector<std::vector<uint8_t>>& frames,
                int width, int height, AVColorRange range = AVCOL_RANGE_JPEG,
                AVColorSpace space = AVCOL_SPC_BT470BG) {
  const int even_width = width & ~1, even_height = height & ~1;
  AVFormatContext* format = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&format, nullptr, "matroska", path.c_str()), 0);
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_FFV1);
  ASSERT_NE(codec, nullptr);
  AVStream* stream = avformat_new_stream(format, nullptr);
  AVCodecContext* encoder = avcodec_alloc_context3(codec);
  encoder->width = width;
  encoder->height = height;
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->color_range = range;
  encoder->colorspace = space;
  encoder->time_base = {1, 10};
  ASSERT_GE(avcodec_open2(encoder, codec, nullptr), 0);
  avcodec_parameters_from_context(stream->codecpar, encoder);
  stream->time_base = encoder->time_base;
  ASSERT_GE(avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(format, nullptr), 0);

  AVPacket* packet = av_packet_alloc();
  auto drain = [&] {
    while (avcodec_receive_packet(encoder, packet) == 0) {
      av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
      packet->stream_index = stream->index;
      av_interleaved_write_frame(format, packet);
    }
  };
  for (size_t n = 0; n <= frames.size(); ++n) {
    if (n == frames.size()) {
      avcodec_send_frame(encoder, nullptr);
      drain();
      break;
    }
    AVFrame* frame = av_frame_alloc();
    frame->format = encoder->pix_fmt;
    frame->width = width;
    frame->height = height;
    ASSERT_GE(av_frame_get_buffer(frame, 0), 0);
    const uint8_t* nv12 = frames[n].data();
    const uint8_t* pairs = nv12 + size_t(even_width) * even_height;
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const bool inside = x < even_width && y < even_height;
        frame->data[0][y * frame->linesize[0] + x] = inside ? nv12[y * even_width + x] : 0;
        if (x % 2 || y % 2) continue;
        const size_t pair = size_t(y / 2) * even_width + x;
        frame->data[1][(y / 2) * frame->linesize[1] + x / 2] = inside ? pairs[pair] : 0;
        frame->data[2][(y / 2) * frame->linesize[2] + x / 2] = inside ? pairs[pair + 1] : 0;
      }
    }
    frame->pts = int64_t(n);
    ASSERT_GE(avcodec_send_frame(encoder, frame), 0);
    av_frame_free(&frame);
    drain();
  }
  av_write_trailer(format);
  av_packet_free(&packet);
  avcodec_free_context(&encoder);
  avio_closep(&format->pb);
  avformat_free_context(format);
}

// A flat picture of one colour: PNG of 8 or 16 bits, or JPEG (4:2:0, quality 100).
enum class Picture { kPng8, kPng16, kJpeg };

void WritePicture(const std::string& path, Picture kind, int width, int height, uint8_t r,
                  uint8_t g, uint8_t b) {
  std::vector<uint8_t> rgb;
  for (int i = 0; i < width * height; ++i) rgb.insert(rgb.end(), {r, g, b});
  if (kind == Picture::kJpeg) {
    tjhandle tj = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    ASSERT_EQ(tjCompress2(tj, rgb.data(), width, 0, height, TJPF_RGB, &jpeg, &size, TJSAMP_420,
                          100, 0), 0);
    WriteFile(path, std::vector<uint8_t>(jpeg, jpeg + size));
    tjFree(jpeg);
    tjDestroy(tj);
    return;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = uint32_t(width);
  png.height = uint32_t(height);
  png.format = kind == Picture::kPng8 ? PNG_FORMAT_RGB : PNG_FORMAT_LINEAR_RGB;
  std::vector<uint16_t> wide(rgb.begin(), rgb.end());
  for (uint16_t& v : wide) v = uint16_t(v * 257);  // the same colour in 16 bits
  const void* pixels = kind == Picture::kPng8 ? static_cast<const void*>(rgb.data()) : wide.data();
  ASSERT_NE(png_image_write_to_file(&png, path.c_str(), 0, pixels, 0, nullptr), 0);
}

// Full-range BT.601 of one colour, written out from the definition.
std::vector<uint8_t> Bt601(uint8_t r, uint8_t g, uint8_t b) {
  auto round = [](double v) { return uint8_t(std::lround(std::fmin(255.0, std::fmax(0.0, v)))); };
  return {round(0.299 * r + 0.587 * g + 0.114 * b),
          round(128.0 - 0.168736 * r - 0.331264 * g + 0.5 * b),
          round(128.0 + 0.5 * r - 0.418688 * g - 0.081312 * b)};
}

TEST(VelmoraFootage, VideoAndRawFramesAreSelectedAndFoldedExactly) {
  constexpr int kWidth = 64, kHeight = 48;
  TempDir dir;
  std::mt19937 random(11);
  std::vector<std::vector<uint8_t>> frames;
  std::vector<uint8_t> raw;
  for (int i = 0; i < 10; ++i) {
    frames.push_back(RandomFrame(kWidth, kHeight, &random));
    raw.insert(raw.end(), frames.back().begin(), frames.back().end());
  }
  WriteVideo(dir / "even.mkv", frames, kWidth, kHeight);
  WriteVideo(dir / "odd.mkv", frames, kWidth + 1, kHeight + 1);  // cropped back to 64x48
  WriteFile(dir / "raw.yuv", raw);

  struct Case {
    std::vector<std::string> args;
    std::vector<int> selected;  // indexes into frames
  };
  const Case cases[] = {
      {{"even.mkv"}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {{"odd.mkv"}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {{"even.mkv", "--start", "7"}, {7, 8, 9}},
      {{"even.mkv", "--every", "4"}, {0, 4, 8}},
      {{"even.mkv", "--start", "1", "--every", "3", "--frames", "2"}, {1, 4}},
      {{"even.mkv", "odd.mkv", "--start", "8", "--frames", "4"}, {8, 9, 0, 1}},
      {{"--size", "64x48", "raw.yuv", "--start", "2", "--every", "3"}, {2, 5, 8}},
      {{"--size", "64x48", "raw.yuv", "even.mkv", "--every", "5"}, {0, 5, 0, 5}},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += " " + arg;
    SCOPED_TRACE(joined);
    std::vector<std::string> args = {"longexp"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", "out.yuv"});
    const RunResult run = RunTool(args, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    std::vector<std::vector<uint8_t>> selected;
    for (int i : c.selected) selected.push_back(frames[i]);
    EXPECT_TRUE(ReadFile(dir / "out.yuv") == ReferenceLongExposure(selected, kWidth, kHeight));
  }
}

TEST(VelmoraFootage, VideoColoursBecomeFullRangeBt601) {
  TempDir dir;
  struct Case {
    AVColorRange range;
    AVColorSpace space;
    uint8_t in[3], out[3];  // Y, U, V of a flat frame; worked through RGB by hand
  };
  const Case cases[] = {
      {AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {16, 128, 128}, {0, 128, 128}},
      {AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {235, 128, 128}, {255, 128, 128}},
      {AVCOL_RANGE_MPEG, AVCOL_SPC_BT470BG, {126, 100, 200}, {128, 96, 210}},  // 128.08 96.13 209.96
      {AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, {63, 102, 240}, {77, 85, 255}},  // red: 76.72 84.59 255.53
      {AVCOL_RANGE_MPEG, AVCOL_SPC_BT709, {126, 100, 200}, {141, 87, 211}},  // 140.92 87.38 210.91
      {AVCOL_RANGE_JPEG, AVCOL_SPC_BT470BG, {126, 100, 200}, {126, 100, 200}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(av_color_space_name(c.space)) + " " + av_color_range_name(c.range) +
                 " Y=" + std::to_string(c.in[0]));
    std::vector<uint8_t> flat(FrameBytes(16, 8), c.in[0]);
    for (size_t i = 16 * 8; i < flat.size(); i += 2) {
      flat[i] = c.in[1];
      flat[i + 1] = c.in[2];
    }
    WriteVideo(dir / "flat.mkv", {flat, flat}, 16, 8, c.range, c.space);
    const RunResult run = RunTool({"longexp", "flat.mkv", "-o", "out.yuv"}, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::vector<uint8_t> out = ReadFile(dir / "out.yuv");
    ASSERT_EQ(out.size(), flat.size());
    EXPECT_EQ(out[0], c.out[0]);
    EXPECT_EQ(out[16 * 8], c.out[1]);
    EXPECT_EQ(out[16 * 8 + 1], c.out[2]);
  }
}

TEST(VelmoraFootage, PicturesBecomeFullRangeBt601Frames) {
  TempDir dir;
  const uint8_t r = 200, g = 100, b = 50;
  WritePicture(dir / "odd8.png", Picture::kPng8, 33, 17, r, g, b);  // cropped to 32x16
  WritePicture(dir / "deep.png", Picture::kPng16, 32, 16, r, g, b);
  WritePicture(dir / "photo.jpg", Picture::kJpeg, 32, 16, r, g, b);
  const std::vector<uint8_t> want = Bt601(r, g, b);
  struct Case {
    std::vector<std::string> inputs;
    int tolerance;  // JPEG's quantisation may move a flat colour by one
  };
  const Case cases[] = {
      {{"odd8.png"}, 0},
      {{"deep.png"}, 0},
      {{"photo.jpg"}, 1},
      {{"odd8.png", "deep.png", "photo.jpg"}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.inputs.front() + " and " + std::to_string(c.inputs.size() - 1) + " more");
    std::vector<std::string> args = {"longexp"};
    args.insert(args.end(), c.inputs.begin(), c.inputs.end());
    args.insert(args.end(), {"-o", "out.nv12"});
    const RunResult run = RunTool(args, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::vector<uint8_t> out = ReadFile(dir / "out.nv12");
    ASSERT_EQ(out.size(), FrameBytes(32, 16));
    for (size_t i = 0; i < out.size(); ++i) {
      const uint8_t expected = i < 32 * 16 ? want[0] : want[1 + (i % 2)];
      ASSERT_LE(std::abs(int(out[i]) - int(expected)), c.tolerance) << "byte " << i;
    }
  }
}

TEST(VelmoraFootage, JpegOutputCarriesTheFramePlanesAtTheChosenQuality) {
  constexpr int kWidth = 32, kHeight = 16;
  TempDir dir;
  std::vector<uint8_t> flat(FrameBytes(kWidth, kHeight), 76);  // Y 76, U 85, V 255: red
  for (size_t i = kWidth * kHeight; i < flat.size(); i += 2) {
    flat[i] = 85;
    flat[i + 1] = 255;
  }
  WriteFile(dir / "flat.nv12", flat);
  std::mt19937 random(5);
  WriteFile(dir / "noise.nv12", RandomFrame(kWidth, kHeight, &random));
  struct Case {
    const char* input;
    const char* output;
    std::vector<std::string> extra;
  };
  const Case cases[] = {{"flat.nv12", "flat.jpg", {}},
                        {"noise.nv12", "high.JPEG", {}},
                        {"noise.nv12", "low.jpg", {"--quality", "10"}}};
  tjhandle tj = tjInitDecompress();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output);
    std::vector<std::string> args = {"longexp", "--size", "32x16", c.input, "-o", c.output};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const RunResult run = RunTool(args, dir.path());
    ASSERT_EQ(run.exit_code, 0) << run.err;
    const std::vector<uint8_t> jpeg = ReadFile(dir / c.output);
    int width = 0, height = 0, subsampling = -1, colorspace = -1;
    ASSERT_EQ(tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &width, &height, &subsampling,
                                  &colorspace), 0);
    EXPECT_EQ(width, kWidth);
    EXPECT_EQ(height, kHeight);
    EXPECT_EQ(subsampling, TJSAMP_420);
    EXPECT_EQ(colorspace, TJCS_YCbCr);
  }
  // The planes go in unconverted: a flat frame comes back with its own Y, U and V.
  const std::vector<uint8_t> jpeg = ReadFile(dir / "flat.jpg");
  std::vector<uint8_t> planes(FrameBytes(kWidth, kHeight));
  unsigned char* plane[3] = {planes.data(), planes.data() + kWidth * kHeight,
                             planes.data() + kWidth * kHeight * 5 / 4};
  int strides[3] = {kWidth, kWidth / 2, kWidth / 2};
  ASSERT_EQ(tjDecompressToYUVPlanes(tj, jpeg.data(), jpeg.size(), plane, kWidth, strides,
                                    kHeight, 0), 0);
  EXPECT_NEAR(plane[0][0], 76, 1);
  EXPECT_NEAR(plane[1][0], 85, 1);
  EXPECT_NEAR(plane[2][0], 255, 1);
  tjDestroy(tj);
  EXPECT_LT(ReadFile(dir / "low.jpg").size(), ReadFile(dir / "high.JPEG").size() * 3 / 4);
}

// How a subprocess ended: its exit code, or the signal that killed it.
struct Ending {
  int code = -1;
  int signal = 0;
};

Ending Wait(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return {};
  if (WIFSIGNALED(status)) return {-1, WTERMSIG(status)};
  return {WEXITSTATUS(status), 0};
}

TEST(VelmoraFootage, FirstSignalKeepsTheFramesFoldedSecondAbortsWithoutOutput) {
  constexpr int kWidth = 64, kHeight = 48;
  TempDir dir;
  std::mt19937 random(23);
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 3; ++i) frames.push_back(RandomFrame(kWidth, kHeight, &random));

  struct Case {
    std::vector<int> signals;  // sent together once the frames are read
    bool keeps;
  };
  const Case cases[] = {{{SIGINT}, true}, {{SIGTERM}, true}, {{SIGINT, SIGTERM}, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.signals.size());
    WriteFile(dir / "out.yuv", {'o', 'l', 'd'});
    ASSERT_EQ(mkfifo((dir / "slow.yuv").c_str(), 0600), 0);
    const std::vector<std::string> command =
        ToolCommand({"longexp", "--size", "64x48", "slow.yuv", "-o", "out.yuv"});
    std::FILE* err = std::tmpfile();
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(fileno(err), STDERR_FILENO);
      Exec(command, dir.path());
    }
    // A pipe that never ends: the tool reads the frames, then waits for more.
    const int fifo = open((dir / "slow.yuv").c_str(), O_WRONLY);
    ASSERT_GE(fifo, 0);
    for (const std::vector<uint8_t>& frame : frames)
      ASSERT_EQ(write(fifo, frame.data(), frame.size()), ssize_t(frame.size()));
    int unread = 1;
    for (int tries = 0; tries < 2000 && unread > 0; ++tries) {
      ASSERT_EQ(ioctl(fifo, FIONREAD, &unread), 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(unread, 0);
    for (int signal : c.signals) kill(pid, signal);
    const Ending ending = Wait(pid);
    close(fifo);
    const std::string said = ReadAll(err);
    if (c.keeps) {
      EXPECT_EQ(ending.code, 128 + c.signals.front()) << said;
      EXPECT_NE(said.find("wrote out.yuv from the 3 frames folded so far"), std::string::npos)
          << said;
      EXPECT_TRUE(ReadFile(dir / "out.yuv") == ReferenceLongExposure(frames, kWidth, kHeight));
    } else {
      EXPECT_NE(ending.signal, 0) << said;
      EXPECT_TRUE(ReadFile(dir / "out.yuv") == (std::vector<uint8_t>{'o', 'l', 'd'}));
    }
    fs::remove(dir / "slow.yuv");
    EXPECT_EQ(dir.List(), std::vector<std::string>{"out.yuv"});  // no temporary left behind
  }
}

TEST(VelmoraFootage, BadFootageGivesOneErrorLineExitTwoAndLeavesTheOutputAlone) {
  TempDir dir;
  std::mt19937 random(2);
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 30; ++i) frames.push_back(RandomFrame(16, 8, &random));
  WriteVideo(dir / "clip.mkv", frames, 16, 8);
  const std::vector<uint8_t> clip = ReadFile(dir / "clip.mkv");
  WriteFile(dir / "cut.mkv", std::vector<uint8_t>(clip.begin(), clip.begin() + clip.size() / 2));
  WritePicture(dir / "small.png", Picture::kPng8, 16, 8, 1, 2, 3);
  WritePicture(dir / "big.jpg", Picture::kJpeg, 32, 16, 1, 2, 3);
  const std::vector<uint8_t> png = ReadFile(dir / "small.png");
  WriteFile(dir / "cut.png", std::vector<uint8_t>(png.begin(), png.begin() + png.size() - 20));
  WriteFile(dir / "notes.txt", std::vector<uint8_t>(100, 'a'));
  // A WAV file of silence: a container libavformat knows, with no video in it.
  std::vector<uint8_t> wav = {'R', 'I', 'F', 'F', 36 + 200, 0, 0, 0, 'W', 'A', 'V', 'E',
                              'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x40, 0x1f, 0, 0,
                              0x80, 0x3e, 0, 0, 2, 0, 16, 0, 'd', 'a', 't', 'a', 200, 0, 0, 0};
  wav.resize(wav.size() + 200, 0);
  WriteFile(dir / "tone.wav", wav);
  WriteFile(dir / "frame.yuv", RandomFrame(16, 8, &random));
  ASSERT_EQ(link((dir / "frame.yuv").c_str(), (dir / "same.nv12").c_str()), 0);
  WriteFile(dir / "keep.jpg", {'o', 'l', 'd'});

  struct Case {
    std::vector<std::string> args;  // after "longexp"
    const char* names;              // what the error line must mention
  };
  const Case cases[] = {
      {{"notes.txt"}, "notes.txt: not a video or picture"},
      {{"tone.wav"}, "tone.wav: no video stream"},
      {{"cut.mkv"}, "cut.mkv: damaged or truncated video"},
      {{"cut.png"}, "cut.png: damaged PNG picture"},
      {{"small.png", "big.jpg"}, "big.jpg: frames of 32x16, unlike the first input's 16x8"},
      {{"clip.mkv", "--start", "30"}, "no frames selected: the inputs end before the first one"},
      {{"--size", "16x8", "frame.yuv", "--start", "1"}, "the inputs hold 1 frame and --start 1"},
      {{"--size", "16x8", "frame.yuv", "-o", "./frame.yuv"}, "./frame.yuv: is also an input"},
      {{"--size", "16x8", "frame.yuv", "-o", "same.nv12"}, "same.nv12: is also an input"},
      {{"clip.mkv", "--every", "0"}, "--every '0': expected a whole number from 1"},
      {{"clip.mkv", "--frames", "x"}, "--frames 'x': expected a whole number"},
      {{"clip.mkv", "--start", "-1"}, "--start '-1': expected a whole number"},
      {{"clip.mkv", "--quality", "101"}, "--quality '101': expected a whole number from 1 to 100"},
  };
  const std::vector<std::string> before = dir.List();
  for (const Case& c : cases) {
    std::vector<std::string> args = {"longexp"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    if (std::find(args.begin(), args.end(), "-o") == args.end())
      args.insert(args.end(), {"-o", "keep.jpg"});
    std::string joined;
    for (const std::string& arg : args) joined += " " + arg;
    SCOPED_TRACE("velmora" + joined);
    const RunResult run = RunTool(args, dir.path());
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(CountLines(run.err), 1u) << run.err;
    EXPECT_EQ(run.err.rfind("velmora: error: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(c.names), std::string::npos) << run.err;
    EXPECT_EQ(dir.List(), before);
  }
  EXPECT_TRUE(ReadFile(dir / "keep.jpg") == (std::vector<uint8_t>{'o', 'l', 'd'}));
  EXPECT_TRUE(ReadFile(dir / "same.nv12").size() == FrameBytes(16, 8));
}

}  // namespace
