// Frames streamed from raw files, one frame or several back to back in each file.
#ifndef VELMORA_TOOL_FRAME_READER_H
#define VELMORA_TOOL_FRAME_READER_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

class FileFrameSource final : public FrameSource {
 public:
  // Checks every file before any frame is read: it must be a readable regular file holding a
  // whole, non-zero number of frames. Returns null with *error naming the first bad file.
  static std::unique_ptr<FileFrameSource> Open(const std::vector<std::string>& paths,
                                               FrameGeometry geometry, ChromaOrder order,
                                               std::string* error);
  ~FileFrameSource() override;

  FrameGeometry geometry() const override { return geometry_; }
  ChromaOrder order() const override { return order_; }
  size_t frameCount() const override { return frame_count_; }
  bool next(uint8_t* frame, std::string* error) override;

 private:
  struct File {
    std::string path;
    size_t frames;
  };

  FileFrameSource(std::vector<File> files, FrameGeometry geometry, ChromaOrder order);

  std::vector<File> files_;
  FrameGeometry geometry_;
  ChromaOrder order_;
  size_t frame_count_ = 0;
  // Only one file is open at a time, so a long list of files needs one descriptor.
  size_t file_index_ = 0;
  size_t frames_read_from_file_ = 0;
  std::FILE* current_ = nullptr;
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_FRAME_READER_H
