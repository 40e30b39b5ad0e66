#include "inputs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <utility>

#include "frame_reader.h"
#include "image_writer.h"
#include "interrupt.h"
#include "picture_reader.h"
#include "video_module.h"

namespace velmora::tool {

namespace {

std::string SizeText(FrameGeometry geometry) {
  return std::to_string(geometry.width) + "x" + std::to_string(geometry.height);
}

bool HasRawExtension(const std::string& path) {
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return false;
  std::string extension = path.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return extension == "yuv" || extension == "nv12" || extension == "nv21" || extension == "raw";
}

enum class InputKind { kRaw, kPicture, kVideo };

struct Input {
  std::string path;
  InputKind kind = InputKind::kRaw;
  PictureFormat picture = PictureFormat::kPng;
  size_t frames = 0;
  std::unique_ptr<FrameSource> opened;  // pictures are opened only when reached
};

// Decides what the file is: a picture by its first bytes, raw frames by its name (or, given
// --size, by being nothing else), otherwise whatever libavformat recognises.
bool Classify(const std::string& path, const InputOptions& options, Input* input,
              std::string* error) {
  input->path = path;
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  if (S_ISDIR(info.st_mode)) {
    *error = path + ": not a regular file";
    return false;
  }
  bool raw = HasRawExtension(path);
  bool looks_like_video = false;
  if (S_ISREG(info.st_mode)) {
    // A pipe is left unread here: what was read to look at it would be lost to the decoder.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      *error = path + ": " + std::strerror(errno);
      return false;
    }
    uint8_t head[4096];
    const ssize_t n = read(fd, head, sizeof head);
    close(fd);
    if (n > 0 && PictureFormatOf(head, size_t(n), &input->picture)) {
      input->kind = InputKind::kPicture;
      input->frames = 1;
      return true;
    }
    // Given a frame size, a file whose first bytes no container claims is raw frames: a full
    // probe reads a megabyte and tries every demuxer, tens of milliseconds a frame file.
    if (!raw) {
      const VideoModule* videos = LoadVideoModule(error);
      if (videos == nullptr) return false;
      looks_like_video = videos->looks_like_video(path, head, n > 0 ? size_t(n) : 0);
      if (options.has_size && !looks_like_video) raw = true;
    }
  }
  // A pipe cannot be probed and then read from the start, so given a frame size it is raw.
  if (!S_ISREG(info.st_mode) && options.has_size) raw = true;
  if (!raw) {
    const VideoModule* videos = LoadVideoModule(error);
    if (videos == nullptr) return false;
    bool recognised = false;
    std::unique_ptr<FrameSource> video = videos->open(path, looks_like_video, &recognised, error);
    if (video != nullptr) {
      input->kind = InputKind::kVideo;
      input->frames = video->frameCount();
      input->opened = std::move(video);
      return true;
    }
    if (recognised || !options.has_size) return false;
    raw = true;  // given a frame size, anything unrecognised is taken for raw frames
  }
  if (!options.has_size) {
    *error = path + ": raw frames need --size WxH";
    return false;
  }
  std::unique_ptr<FileFrameSource> frames =
      FileFrameSource::Open({path}, options.size, options.order, error);
  if (frames == nullptr) return false;
  input->kind = InputKind::kRaw;
  input->frames = frames->frameCount();
  input->opened = std::move(frames);
  return true;
}

// The inputs one after another. The first input's size and chroma order are the source's;
// later inputs in the other chroma order are swapped to it.
class InputSequence final : public FrameSource {
 public:
  InputSequence(std::vector<Input> inputs, FrameGeometry geometry, ChromaOrder order)
      : inputs_(std::move(inputs)), geometry_(geometry), order_(order) {
    for (const Input& input : inputs_) {
      count_ = input.frames == kUnknownFrameCount || count_ == kUnknownFrameCount
                   ? kUnknownFrameCount
                   : count_ + input.frames;
    }
  }

  FrameGeometry geometry() const override { return geometry_; }
  ChromaOrder order() const override { return order_; }
  size_t frameCount() const override { return count_; }
  bool next(uint8_t* frame, std::string* error) override { return advance(frame, error); }
  bool skip(std::string* error) override { return advance(nullptr, error); }

  // Opens the input at index if it is not open yet (a picture: its header).
  static bool OpenInput(Input* input, std::string* error) {
    if (input->opened != nullptr) return true;
    input->opened = PictureSource::Open(input->path, input->picture, error);
    return input->opened != nullptr;
  }

 private:
  bool advance(uint8_t* frame, std::string* error) {
    error->clear();
    while (index_ < inputs_.size()) {
      Input& input = inputs_[index_];
      if (!OpenInput(&input, error)) return false;
      FrameSource& source = *input.opened;
      const FrameGeometry size = source.geometry();
      if (size.width != geometry_.width || size.height != geometry_.height) {
        *error = input.path + ": frames of " + SizeText(size) + ", unlike the first input's " +
                 SizeText(geometry_);
        return false;
      }
      const bool ok = frame != nullptr ? source.next(frame, error) : source.skip(error);
      if (ok) {
        if (frame != nullptr && source.order() != order_)
          SwapChromaPairs(frame + geometry_.lumaBytes(), geometry_.chromaBytes());
        return true;
      }
      if (!error->empty() || StopRequested()) return false;
      input.opened.reset();  // one input open at a time
      ++index_;
    }
    return false;
  }

  std::vector<Input> inputs_;
  FrameGeometry geometry_;
  ChromaOrder order_;
  size_t count_ = 0;
  size_t index_ = 0;
};

// One frame in `every` after the first `start`, at most `limit`.
class Selection final : public FrameSource {
 public:
  Selection(std::unique_ptr<FrameSource> inner, const InputOptions& options)
      : inner_(std::move(inner)),
        start_(options.start),
        every_(options.every),
        limit_(options.limit) {}

  FrameGeometry geometry() const override { return inner_->geometry(); }
  ChromaOrder order() const override { return inner_->order(); }
  size_t frameCount() const override {
    return SelectedCount(inner_->frameCount(), start_, every_, limit_);
  }
  bool next(uint8_t* frame, std::string* error) override {
    error->clear();
    if (given_ == limit_) return false;
    const size_t skips = given_ == 0 ? start_ : every_ - 1;
    for (size_t i = 0; i < skips; ++i) {
      if (StopRequested() || !inner_->skip(error)) return false;
    }
    if (!inner_->next(frame, error)) return false;
    ++given_;
    return true;
  }

 private:
  std::unique_ptr<FrameSource> inner_;
  const size_t start_, every_, limit_;
  size_t given_ = 0;
};

}  // namespace

size_t SelectedCount(size_t count, size_t start, size_t every, size_t limit) {
  if (count == kUnknownFrameCount) return kUnknownFrameCount;
  const size_t remaining = count > start ? count - start : 0;
  return std::min((remaining + every - 1) / every, limit);
}

std::unique_ptr<FrameSource> OpenInputs(const std::vector<std::string>& paths,
                                        const InputOptions& options, std::string* error) {
  std::vector<Input> inputs(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    if (!Classify(paths[i], options, &inputs[i], error)) return nullptr;
  }
  if (!InputSequence::OpenInput(&inputs.front(), error)) return nullptr;
  const FrameGeometry geometry = inputs.front().opened->geometry();
  const ChromaOrder order = inputs.front().opened->order();
  auto sequence = std::make_unique<InputSequence>(std::move(inputs), geometry, order);
  const size_t held = sequence->frameCount();
  auto source = std::make_unique<Selection>(std::move(sequence), options);
  if (source->frameCount() == 0) {
    *error = "no frames selected: the inputs hold " + std::to_string(held) +
             (held == 1 ? " frame" : " frames") + " and --start " +
             std::to_string(options.start) + " skips them all";
    return nullptr;
  }
  return source;
}

bool OutputIsAnInput(const std::string& output, const std::vector<std::string>& inputs,
                     std::string* error) {
  struct stat out;
  if (stat(output.c_str(), &out) != 0) return false;  // a new file cannot be an input
  for (const std::string& input : inputs) {
    struct stat in;
    if (stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
      *error = output + ": is also an input (" + input + "); the picture would replace it";
      return true;
    }
  }
  return false;
}

}  // namespace velmora::tool
