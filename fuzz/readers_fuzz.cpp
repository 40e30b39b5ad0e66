// The tool's readers on any file content: raw frames, PNG, JPEG and videos (any container and
// codec FFmpeg knows). Videos are read from memory through FFmpeg's custom I/O; the other
// readers take paths, so their content lives in an anonymous memory file opened by its
// /proc/self/fd path. Nothing touches the disk.
#include <sys/mman.h>
#include <unistd.h>

#include "frame_reader.h"
#include "fuzz_input.h"
#include "picture_encoders.h"
#include "picture_reader.h"
#include "video_reader.h"

namespace {

using velmora::fuzz::FuzzInput;
using namespace velmora::tool;

enum Kind { kRaw, kPng, kJpeg, kVideo, kKindCount };
constexpr int kMaxFrames = 6;
// Frames beyond this are not read: a header may announce any size up to the tool's limit.
constexpr size_t kMaxFrameBytes = size_t{4} << 20;

void Run(FuzzInput& in) {
  const int kind = in.Range(0, kKindCount - 1);
  const FrameGeometry raw{2 * static_cast<uint32_t>(in.Range(1, 24)),
                          2 * static_cast<uint32_t>(in.Range(1, 24))};
  const ChromaOrder order = in.Bool() ? ChromaOrder::kNv21 : ChromaOrder::kNv12;
  const uint8_t skips = in.Byte();  // bit i: skip frame i rather than read it
  const size_t size = in.remaining();
  const auto content = in.Bytes(size);
  const int fd = memfd_create("velmora-fuzz", 0);
  if (fd < 0 || write(fd, content.get(), size) != ssize_t(size)) std::abort();
  const std::string path = "/proc/self/fd/" + std::to_string(fd), name = "fuzz-input";
  std::string error;
  std::unique_ptr<FrameSource> source;
  bool recognised = false;
  switch (kind) {
    case kRaw: source = FileFrameSource::Open({path, path}, raw, order, &error); break;
    case kPng: source = PictureSource::Open(path, PictureFormat::kPng, &error); break;
    case kJpeg: source = PictureSource::Open(path, PictureFormat::kJpeg, &error); break;
    case kVideo:  // under no name, so that only the content tells the container
      source =
          VideoSource::OpenMemory(content.get(), size, name,
                                  LooksLikeVideo(name, content.get(), size), &recognised, &error);
      break;
  }
  if (source && source->geometry().frameBytes() <= kMaxFrameBytes) {
    auto frame = std::make_unique<uint8_t[]>(source->geometry().frameBytes());
    for (int i = 0; i < kMaxFrames; ++i)
      if (!(skips >> i & 1 ? source->skip(&error) : source->next(frame.get(), &error))) break;
  }
  close(fd);
}

// A picture of width x height in the tool's own PNG or JPEG encoding.
std::vector<uint8_t> Encoded(bool jpeg, uint32_t width, uint32_t height) {
  std::vector<uint8_t> pixels(size_t{width} * height * 3);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 7 % 253);
  char* bytes = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&bytes, &size);
  std::string error;
  if (!(jpeg ? EncodeJpeg(out, pixels.data(), {width, height}, ChromaOrder::kNv12, 90, &error)
             : EncodePng(out, pixels.data(), width, height, 3, &error)))
    std::fprintf(stderr, "seed: %s\n", error.c_str());
  std::fclose(out);
  std::vector<uint8_t> file(bytes, bytes + size);
  std::free(bytes);
  return file;
}

// A YUV4MPEG2 stream of two 4:2:0 frames: a video that takes no encoder to write.
std::vector<uint8_t> Y4m(int width, int height) {
  std::string file = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) +
                     " F10:1 Ip A1:1 C420jpeg\n";
  for (int n = 0; n < 2; ++n) {
    file += "FRAME\n";
    for (int i = 0; i < width * height + 2 * ((width + 1) / 2) * ((height + 1) / 2); ++i)
      file += static_cast<char>(i * 3 + n * 40);
  }
  return {file.begin(), file.end()};
}

// Per kind, two sizes (odd ones where the format has them): raw frames of side / 2 * 2 pixels
// square, NV12, the larger skipping its second frame; then two raw frames, or the file.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t kind = 0; kind < kKindCount; ++kind) {
    for (int side : {6, 17}) {
      const uint8_t half = static_cast<uint8_t>(side / 2 - 1);  // Range(1, 24) of side / 2
      std::vector<uint8_t> seed = {kind, half, half, 0, static_cast<uint8_t>(side == 17 ? 2 : 0)};
      const std::vector<uint8_t> file =
          kind == kPng     ? Encoded(false, side, side + 1)
          : kind == kJpeg  ? Encoded(true, side & ~1, side & ~1)
          : kind == kVideo ? Y4m(side, side + 1)
                           : std::vector<uint8_t>(12 * (side / 2) * (side / 2), 0x80);
      seed.insert(seed.end(), file.begin(), file.end());
      seeds.push_back(seed);
    }
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kOneVariant)
