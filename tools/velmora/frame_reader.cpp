#include "frame_reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace velmora::tool {

namespace {

std::string SystemError(const std::string& path) { return path + ": " + std::strerror(errno); }

// The number of whole frames in the file at path, or 0 with *error set.
size_t CountFrames(const std::string& path, FrameGeometry geometry, ChromaOrder order,
                   std::string* error) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    *error = SystemError(path);
    return 0;
  }
  if (!S_ISREG(info.st_mode)) {
    *error = path + ": not a regular file";
    return 0;
  }
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = SystemError(path);
    return 0;
  }
  std::fclose(file);

  const uint64_t size = static_cast<uint64_t>(info.st_size);
  const uint64_t frame = geometry.frameBytes();
  if (size == 0) {
    *error = path + ": file is empty";
    return 0;
  }
  if (size % frame != 0) {
    *error = path + ": size " + std::to_string(size) +
             " bytes is not a multiple of the frame size " + std::to_string(frame) + " (" +
             std::to_string(geometry.width) + "x" + std::to_string(geometry.height) + " " +
             ChromaOrderName(order) + ")";
    return 0;
  }
  return static_cast<size_t>(size / frame);
}

}  // namespace

std::unique_ptr<FileFrameSource> FileFrameSource::Open(const std::vector<std::string>& paths,
                                                       FrameGeometry geometry, ChromaOrder order,
                                                       std::string* error) {
  std::vector<File> files;
  for (const std::string& path : paths) {
    const size_t frames = CountFrames(path, geometry, order, error);
    if (frames == 0) return nullptr;
    files.push_back({path, frames});
  }
  return std::unique_ptr<FileFrameSource>(new FileFrameSource(std::move(files), geometry, order));
}

FileFrameSource::FileFrameSource(std::vector<File> files, FrameGeometry geometry, ChromaOrder order)
    : files_(std::move(files)), geometry_(geometry), order_(order) {
  for (const File& file : files_) frame_count_ += file.frames;
}

FileFrameSource::~FileFrameSource() {
  if (current_ != nullptr) std::fclose(current_);
}

bool FileFrameSource::next(uint8_t* frame, std::string* error) {
  if (file_index_ >= files_.size()) {
    *error = "no frames left";
    return false;
  }
  const File& file = files_[file_index_];
  if (current_ == nullptr) {
    current_ = std::fopen(file.path.c_str(), "rb");
    if (current_ == nullptr) {
      *error = SystemError(file.path);
      return false;
    }
  }

  const size_t bytes = geometry_.frameBytes();
  if (std::fread(frame, 1, bytes, current_) != bytes) {
    // The sizes were checked up front, so the file changed or the device failed meanwhile.
    *error = std::ferror(current_)
                 ? SystemError(file.path)
                 : file.path + ": file ended early (was it changed while being read?)";
    return false;
  }

  if (++frames_read_from_file_ == file.frames) {
    std::fclose(current_);
    current_ = nullptr;
    frames_read_from_file_ = 0;
    ++file_index_;
  }
  return true;
}

}  // namespace velmora::tool
