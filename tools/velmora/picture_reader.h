// Still pictures as frames: one PNG or JPEG file is one frame, converted to NV12.
#ifndef VELMORA_TOOL_PICTURE_READER_H
#define VELMORA_TOOL_PICTURE_READER_H

#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

enum class PictureFormat { kPng, kJpeg };

// The format that the first bytes of a file announce, if any.
bool PictureFormatOf(const uint8_t* head, size_t size, PictureFormat* format);

class PictureSource final : public FrameSource {
 public:
  // Reads the header, for the size; the pixels are decoded by next(). Odd sides are cropped to
  // even (the last column or row is dropped), as the frames' chroma pairs need.
  static std::unique_ptr<PictureSource> Open(const std::string& path, PictureFormat format,
                                             std::string* error);
  ~PictureSource() override;

  FrameGeometry geometry() const override { return geometry_; }
  ChromaOrder order() const override { return ChromaOrder::kNv12; }
  size_t frameCount() const override { return 1; }
  bool next(uint8_t* frame, std::string* error) override;
  bool skip(std::string* error) override;

 private:
  struct Png;
  PictureSource(std::string path, PictureFormat format);
  bool decodePng(uint8_t* frame, std::string* error);
  bool decodeJpeg(uint8_t* frame, std::string* error);

  std::string path_;
  PictureFormat format_;
  FrameGeometry geometry_;
  uint32_t width_ = 0, height_ = 0;  // as stored, before cropping
  bool done_ = false;
  std::unique_ptr<Png> png_;   // PNG: the decoder, past the header
  std::vector<uint8_t> jpeg_;  // JPEG: the whole file
  void* tj_ = nullptr;         // JPEG: the decompressor
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_PICTURE_READER_H
