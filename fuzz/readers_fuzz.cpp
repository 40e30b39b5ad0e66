// The tool's readers on any file content: raw frames, PNG, JPEG and videos (any container and
// codec FFmpeg knows). Videos are read from memory through FFmpeg's custom I/O; the other
// readers take paths, so their content lives in an anonymous memory file opened by its
// /proc/self/fd path. Nothing touches the disk.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "frame_reader.h"
#include "fuzz_input.h"
#include "picture_encoders.h"
#include "picture_reader.h"
#include "video_reader.h"

namespace {

using velmora::fuzz::Buffer;
using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;
using namespace velmora::tool;

enum Kind { kRaw, kPng, kJpeg, kVideo, kKindCount };
constexpr int kMaxFrames = 6;
// Frames beyond this are not read: a header may announce any size up to the tool's limit.
constexpr size_t kMaxFrameBytes = size_t{4} << 20;

class MemoryFile {
 public:
  explicit MemoryFile(const std::vector<uint8_t>& bytes) : fd_(memfd_create("velmora-fuzz", 0)) {
    if (fd_ < 0 || write(fd_, bytes.data(), bytes.size()) != ssize_t(bytes.size())) {
      std::perror("memfd");
      std::abort();
    }
  }
  ~MemoryFile() { close(fd_); }
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

 private:
  int fd_;
};

void Run(FuzzInput& in) {
  const int kind = in.Range(0, kKindCount - 1);
  FrameGeometry raw;
  raw.width = 2 * in.Range(1, 24);
  raw.height = 2 * in.Range(1, 24);
  const ChromaOrder order = in.Bool() ? ChromaOrder::kNv21 : ChromaOrder::kNv12;
  const uint8_t skips = in.Byte();  // bit i: skip frame i rather than read it
  std::vector<uint8_t> content(in.remaining());
  in.Fill(content.data(), content.size());

  std::string error;
  std::unique_ptr<FrameSource> source;
  std::unique_ptr<MemoryFile> file;
  if (kind == kVideo) {
    // No name, so that only the content tells the container.
    const std::string name = "fuzz-input";
    bool recognised = false;
    const bool looks = LooksLikeVideo(name, content.data(), content.size());
    source = VideoSource::OpenMemory(content.data(), content.size(), name, looks, &recognised,
                                     &error);
  } else {
    file = std::make_unique<MemoryFile>(content);
    const std::string path = file->path();
    switch (kind) {
      case kRaw: source = FileFrameSource::Open({path, path}, raw, order, &error); break;
      case kPng: source = PictureSource::Open(path, PictureFormat::kPng, &error); break;
      default: source = PictureSource::Open(path, PictureFormat::kJpeg, &error); break;
    }
  }
  if (!source || source->geometry().frameBytes() > kMaxFrameBytes) return;
  Buffer<uint8_t> frame(source->geometry().frameBytes());
  for (int i = 0; i < kMaxFrames; ++i) {
    if (!(skips >> i & 1 ? source->skip(&error) : source->next(frame.data(), &error))) break;
  }
}

std::vector<uint8_t> Encoded(bool jpeg, int width, int height) {
  std::vector<uint8_t> pixels(size_t(width) * height * 3);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 7 % 253);
  char* bytes = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&bytes, &size);
  std::string error;
  const FrameGeometry geometry{uint32_t(width), uint32_t(height)};
  const bool ok = jpeg ? EncodeJpeg(out, pixels.data(), geometry, ChromaOrder::kNv12, 90, &error)
                       : EncodePng(out, pixels.data(), width, height, 3, &error);
  std::fclose(out);
  std::vector<uint8_t> file(bytes, bytes + size);
  std::free(bytes);
  if (!ok) std::fprintf(stderr, "seed: %s\n", error.c_str());
  return file;
}

// A YUV4MPEG2 stream of two 4:2:0 frames: a video that takes no encoder to write.
std::vector<uint8_t> Y4m(int width, int height) {
  const std::string header = "YUV4MPEG2 W" + std::to_string(width) + " H" +
                             std::to_string(height) + " F10:1 Ip A1:1 C420jpeg\n";
  std::vector<uint8_t> file(header.begin(), header.end());
  const size_t frame = size_t(width) * height + 2 * size_t((width + 1) / 2) * ((height + 1) / 2);
  for (int n = 0; n < 2; ++n) {
    for (char c : std::string("FRAME\n")) file.push_back(static_cast<uint8_t>(c));
    for (size_t i = 0; i < frame; ++i) file.push_back(static_cast<uint8_t>(i * 3 + n * 40));
  }
  return file;
}

velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (int kind = 0; kind < kKindCount; ++kind) {
    for (int side : {6, 17}) {
      SeedWriter w;
      w.Range(kind, 0, kKindCount - 1);
      w.Range(side / 2, 1, 24);
      w.Range(side / 2, 1, 24);
      w.Byte(0);
      w.Byte(side == 17 ? 0x02 : 0);
      switch (kind) {
        case kRaw:
          for (int i = 0; i < 2 * (side / 2 * 2) * (side / 2 * 2) * 3 / 2; ++i) w.Byte(uint8_t(i));
          break;
        case kPng: w.Bytes(Encoded(false, side, side + 1)); break;
        case kJpeg: w.Bytes(Encoded(true, side & ~1, side & ~1)); break;
        case kVideo: w.Bytes(Y4m(side, side + 1)); break;
      }
      seeds.push_back(w.out);
    }
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kOneVariant)
