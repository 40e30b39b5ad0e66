#include "frame_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "interrupt.h"

namespace velmora::tool {

namespace {

std::string SystemError(const std::string& path) { return path + ": " + std::strerror(errno); }

// The number of whole frames in the file at path (kUnknownFrameCount for a pipe), or 0 with
// *error set.
size_t CountFrames(const std::string& path, FrameGeometry geometry, ChromaOrder order,
                   std::string* error) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    *error = SystemError(path);
    return 0;
  }
  if (!S_ISREG(info.st_mode) && !S_ISFIFO(info.st_mode) && !S_ISCHR(info.st_mode)) {
    *error = path + ": not a regular file";
    return 0;
  }
  if (access(path.c_str(), R_OK) != 0) {  // opening a FIFO here would wait for its writer
    *error = SystemError(path);
    return 0;
  }
  if (!S_ISREG(info.st_mode)) return kUnknownFrameCount;

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
  for (const File& file : files_) {
    frame_count_ = file.frames == kUnknownFrameCount || frame_count_ == kUnknownFrameCount
                       ? kUnknownFrameCount
                       : frame_count_ + file.frames;
  }
}

FileFrameSource::~FileFrameSource() {
  if (current_ >= 0) close(current_);
}

bool FileFrameSource::openCurrent(std::string* error) {
  while (current_ < 0) {
    if (file_index_ >= files_.size()) return false;
    current_ = open(files_[file_index_].path.c_str(), O_RDONLY | O_CLOEXEC);
    if (current_ >= 0) break;
    if (errno == EINTR && StopRequested()) return false;  // still waiting for a FIFO's writer
    if (errno != EINTR) {
      *error = SystemError(files_[file_index_].path);
      return false;
    }
  }
  return true;
}

bool FileFrameSource::read(uint8_t* frame, std::string* error) {
  error->clear();
  for (;;) {
    if (!openCurrent(error)) return false;
    const File& file = files_[file_index_];
    if (frames_read_from_file_ == file.frames) {
      close(current_);
      current_ = -1;
      frames_read_from_file_ = 0;
      ++file_index_;
      continue;
    }
    const size_t bytes = geometry_.frameBytes();
    if (frame == nullptr && file.frames != kUnknownFrameCount) {
      if (lseek(current_, off_t(bytes), SEEK_CUR) < 0) {
        *error = SystemError(file.path);
        return false;
      }
      ++frames_read_from_file_;
      return true;
    }
    if (frame == nullptr) {
      scratch_.resize(bytes);
      frame = scratch_.data();
    }
    size_t done = 0;
    while (done < bytes) {
      const ssize_t n = ::read(current_, frame + done, bytes - done);
      if (n > 0) {
        done += size_t(n);
      } else if (n == 0) {
        break;
      } else if (errno == EINTR) {
        if (StopRequested()) return false;  // a stop cuts a wait on a slow pipe
      } else {
        *error = SystemError(file.path);
        return false;
      }
    }
    if (done == 0 && file.frames == kUnknownFrameCount) {  // the pipe ended between frames
      frames_read_from_file_ = file.frames;
      continue;
    }
    if (done < bytes) {
      // A regular file's size was checked up front, so it changed meanwhile.
      *error = file.frames == kUnknownFrameCount
                   ? file.path + ": ends inside a frame (" + std::to_string(done) + " of " +
                         std::to_string(bytes) + " bytes)"
                   : file.path + ": file ended early (was it changed while being read?)";
      return false;
    }
    ++frames_read_from_file_;
    return true;
  }
}

bool FileFrameSource::next(uint8_t* frame, std::string* error) { return read(frame, error); }

bool FileFrameSource::skip(std::string* error) { return read(nullptr, error); }

}  // namespace velmora::tool
