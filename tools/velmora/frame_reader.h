// Frames streamed from raw files, one frame or several back to back in each file. A pipe or
// FIFO works too: its frames are read until it ends.
#ifndef VELMORA_TOOL_FRAME_READER_H
#define VELMORA_TOOL_FRAME_READER_H

#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

class FileFrameSource final : public FrameSource {
 public:
  // Checks every file before any frame is read: it must be readable, and a regular file must
  // hold a whole, non-zero number of frames. Returns null with *error naming the first bad file.
  static std::unique_ptr<FileFrameSource> Open(const std::vector<std::string>& paths,
                                               FrameGeometry geometry, ChromaOrder order,
                                               std::string* error);
  ~FileFrameSource() override;

  FrameGeometry geometry() const override { return geometry_; }
  ChromaOrder order() const override { return order_; }
  size_t frameCount() const override { return frame_count_; }
  bool next(uint8_t* frame, std::string* error) override;
  bool skip(std::string* error) override;  // seeks over the frame in a regular file

 private:
  struct File {
    std::string path;
    size_t frames;  // kUnknownFrameCount for a pipe
  };

  FileFrameSource(std::vector<File> files, FrameGeometry geometry, ChromaOrder order);
  // Opens the next file if none is open; false at the end of the files.
  bool openCurrent(std::string* error);
  // Reads one frame, or (frame null) passes over it.
  bool read(uint8_t* frame, std::string* error);

  std::vector<File> files_;
  FrameGeometry geometry_;
  ChromaOrder order_;
  size_t frame_count_ = 0;
  // Only one file is open at a time, so a long list of files needs one descriptor.
  size_t file_index_ = 0;
  size_t frames_read_from_file_ = 0;
  int current_ = -1;
  std::vector<uint8_t> scratch_;  // what a pipe's skipped frames are read into
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_FRAME_READER_H
