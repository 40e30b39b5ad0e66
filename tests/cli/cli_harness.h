// The velmora tool run as a user runs it, for the tests: a subprocess on files in a temporary
// directory, and the videos and pictures it reads, made with the libraries it reads them with.
#ifndef VELMORA_TESTS_CLI_CLI_HARNESS_H
#define VELMORA_TESTS_CLI_CLI_HARNESS_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}
#include <gtest/gtest.h>
#include <png.h>
#include <pty.h>
#include <sys/wait.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "convert.h"
#include "picture_reader.h"
#include "test_util.h"

namespace clitest {

namespace fs = std::filesystem;
using testutil::ReadFile;
using testutil::TempDir;
using testutil::WriteFile;

struct RunResult {
  int exit_code;  // 128 + the signal that ended the tool, so that a crash shows as a failure
  std::string out, err;
};

// Runs the tool in cwd, standard output and error into files (neither a terminal) or, with
// terminal, both onto a pseudo-terminal read into err; meanwhile, if given, runs as the tool does.
inline RunResult RunTool(const std::string& args, const std::string& cwd,
                         const std::function<void(pid_t)>& meanwhile = {}, bool terminal = false) {
  // Under LeakSanitizer the list of suppressions used would land on the standard error read here.
  const char* lsan = std::getenv("LSAN_OPTIONS");
  if (lsan != nullptr && std::string(lsan).find("print_suppressions=0") == std::string::npos)
    setenv("LSAN_OPTIONS", (std::string(lsan) + ":print_suppressions=0").c_str(), 1);
  std::vector<std::string> command;
#ifdef VELMORA_TOOL_LAUNCHER
  std::istringstream launcher(VELMORA_TOOL_LAUNCHER);  // the emulator's words, '|' between them
  for (std::string word; std::getline(launcher, word, '|');) command.push_back(word);
#endif
  command.push_back(VELMORA_TOOL_PATH);
  std::istringstream words(args);  // no argument holds a space
  for (std::string word; words >> word;) command.push_back(word);
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::FILE* files[2] = {std::tmpfile(), std::tmpfile()};
  int pty = -1;
  const pid_t pid = terminal ? forkpty(&pty, nullptr, nullptr, nullptr) : fork();
  if (pid == 0) {
    if (!terminal) dup2(fileno(files[0]), STDOUT_FILENO), dup2(fileno(files[1]), STDERR_FILENO);
    if (chdir(cwd.c_str()) == 0) execv(argv[0], argv.data());
    _exit(127);
  }
  if (meanwhile) meanwhile(pid);
  RunResult result{-1, "", ""};
  auto drain = [](int fd, std::string* text) {
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text->append(buffer, size_t(n));
  };
  if (terminal) drain(pty, &result.err), close(pty);  // read before waiting: the tool may block
  int status = 0;
  if (waitpid(pid, &status, 0) == pid)
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  for (std::FILE* file : files) {
    lseek(fileno(file), 0, SEEK_SET);
    drain(fileno(file), file == files[0] ? &result.out : &result.err);
    std::fclose(file);
  }
  return result;
}

inline size_t FrameBytes(int width, int height) { return size_t(width) * height * 3 / 2; }

// 8-bit RGB rows as PNG or, with jpeg, as a 4:2:0 JPEG of quality 100.
inline void WritePicture(const std::string& path, int width, int height,
                         const std::vector<uint8_t>& rgb, bool jpeg = false) {
  if (jpeg) {  // through libjpeg's own RGB to YCbCr
    tjhandle tj = tjInitCompress();
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    ASSERT_EQ(tjCompress2(tj, rgb.data(), width, 0, height, TJPF_RGB, &bytes, &size, TJSAMP_420,
                          100, 0), 0);
    WriteFile(path, {bytes, bytes + size});
    tjFree(bytes), tjDestroy(tj);
    return;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = uint32_t(width);
  png.height = uint32_t(height);
  png.format = PNG_FORMAT_RGB;
  ASSERT_NE(png_image_write_to_file(&png, path.c_str(), 0, rgb.data(), 0, nullptr), 0);
}

// One command line and what it must give. With error: exit 2, nothing on standard output and
// one line "velmora: error: ..." holding it. Else: exit 0, standard error empty, standard output
// empty or holding shows, and the output named last (numbered ones in turn; a PNG as its RGB, a
// JPEG as an NV12 frame) within tolerance of want, then removed: the directory is left as it was.
struct ToolRun {
  std::string args;
  std::vector<uint8_t> want = {};
  std::string error = {};
  int tolerance = 0;
  std::string shows = {};
};

inline void ExpectRun(const TempDir& dir, const ToolRun& run) {
  SCOPED_TRACE("velmora " + run.args);
  const std::vector<std::string> before = dir.List();
  const RunResult result = RunTool(run.args, dir.path());
  if (!run.error.empty()) {
    const size_t newline = result.err.find('\n');
    EXPECT_TRUE(result.err.rfind("velmora: error: ", 0) == 0 && newline + 1 == result.err.size() &&
                result.err.find(run.error) < newline) << result.err;
    EXPECT_EQ(std::make_pair(result.exit_code, result.out), std::make_pair(2, std::string()));
    EXPECT_EQ(dir.List(), before);
    return;
  }
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.err, "");  // no progress line when standard error is not a terminal
  EXPECT_EQ(result.out.empty(), run.shows.empty()) << result.out;
  EXPECT_NE(result.out.find(run.shows), std::string::npos) << result.out;
  const std::string pattern = run.args.substr(run.args.rfind(' ') + 1);
  const bool numbered = pattern.find('%') != std::string::npos;
  std::vector<uint8_t> got;
  for (size_t n = 1; n == 1 || numbered; ++n) {
    const std::string path = dir / velmora::tool::OutputPathFor(pattern, numbered, n);
    if (!fs::exists(path)) break;
    std::vector<uint8_t> bytes = ReadFile(path);
    velmora::tool::RgbImage png;  // libpng's decoding
    std::string why;
    if (velmora::tool::ReadPngFile(path, &png, &why)) bytes = png.rgb;
    // A JPEG's planes as the tool reads them (pinned on JPEGs that libjpeg made from RGB).
    auto jpeg = velmora::tool::PictureSource::Open(path, velmora::tool::PictureFormat::kJpeg, &why);
    if (jpeg != nullptr) {
      bytes.resize(jpeg->geometry().frameBytes());
      EXPECT_TRUE(jpeg->next(bytes.data(), &why)) << why;
    }
    got.insert(got.end(), bytes.begin(), bytes.end());
    fs::remove(path);
  }
  ASSERT_EQ(got.size(), run.want.size());
  for (size_t i = 0; i < got.size(); ++i)
    ASSERT_LE(std::abs(int(got[i]) - int(run.want[i])), run.tolerance) << "byte " << i;
  EXPECT_EQ(dir.List(), before);
}

// NV12 frames one after another (each the even part of a width x height picture) as a lossless
// FFV1 video in Matroska, so that decoding must give them back exactly, tagged with the given
// colours. An odd last column or row is filled with 0.
inline void WriteVideo(const std::string& path, const std::vector<uint8_t>& frames, int width,
                       int height, AVColorRange range = AVCOL_RANGE_JPEG,
                       AVColorSpace space = AVCOL_SPC_BT470BG) {
  AVFormatContext* format = nullptr;
  ASSERT_GE(avformat_alloc_output_context2(&format, nullptr, "matroska", path.c_str()), 0);
  AVStream* stream = avformat_new_stream(format, nullptr);
  AVCodecContext* encoder = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_FFV1));
  encoder->width = width;
  encoder->height = height;
  encoder->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder->color_range = range;
  encoder->colorspace = space;
  encoder->time_base = stream->time_base = {1, 10};
  ASSERT_GE(avcodec_open2(encoder, nullptr, nullptr), 0);
  avcodec_parameters_from_context(stream->codecpar, encoder);
  ASSERT_GE(avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
  ASSERT_GE(avformat_write_header(format, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  const int w = width & ~1, h = height & ~1;
  for (size_t n = 0; n <= frames.size() / FrameBytes(w, h); ++n) {
    AVFrame* frame = nullptr;  // none after the last: flushes the encoder
    if (n < frames.size() / FrameBytes(w, h)) {
      frame = av_frame_alloc();
      frame->format = encoder->pix_fmt;
      frame->width = width;
      frame->height = height;
      frame->pts = int64_t(n);
      ASSERT_GE(av_frame_get_buffer(frame, 0), 0);
      const uint8_t* nv12 = &frames[n * FrameBytes(w, h)];
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          const bool in = x < w && y < h;
          const size_t pair = size_t(w) * h + size_t(y / 2) * w + (x & ~1);
          frame->data[0][y * frame->linesize[0] + x] = in ? nv12[y * w + x] : 0;
          if (x % 2 || y % 2) continue;
          frame->data[1][y / 2 * frame->linesize[1] + x / 2] = in ? nv12[pair] : 0;
          frame->data[2][y / 2 * frame->linesize[2] + x / 2] = in ? nv12[pair + 1] : 0;
        }
      }
    }
    ASSERT_GE(avcodec_send_frame(encoder, frame), 0);
    av_frame_free(&frame);
    while (avcodec_receive_packet(encoder, packet) == 0) {
      av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
      av_interleaved_write_frame(format, packet);
    }
  }
  av_write_trailer(format);
  av_packet_free(&packet);
  avcodec_free_context(&encoder);
  avio_closep(&format->pb);
  avformat_free_context(format);
}

}  // namespace clitest

#endif  // VELMORA_TESTS_CLI_CLI_HARNESS_H
