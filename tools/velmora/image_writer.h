// The picture written out: as PNG, JPEG, or raw in either chroma order, always through a temporary
// file that replaces the destination only once complete.
#ifndef VELMORA_TOOL_IMAGE_WRITER_H
#define VELMORA_TOOL_IMAGE_WRITER_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

enum class OutputKind {
  kRaw,   // .yuv: raw, in the input's chroma order
  kNv12,  // .nv12: raw, U first
  kNv21,  // .nv21: raw, V first
  kPng,   // .png: 8-bit RGB
  kJpeg,  // .jpg, .jpeg: baseline JPEG, 4:2:0
};

constexpr int kDefaultJpegQuality = 95;

// The kind that the extension of path names (case does not matter); false if none.
bool OutputKindForPath(const std::string& path, OutputKind* kind);


// Turns U,V pairs into V,U pairs and back.
void SwapChromaPairs(uint8_t* chroma, size_t bytes);

// A file written under a temporary name in the destination's directory and renamed over the
// destination by commit(). Until then the destination is untouched, and the temporary file is
// removed on every other way out: destruction, or an interrupting signal.
class AtomicOutput {
 public:
  // Creates the temporary file at once, so an unwritable destination shows before any work.
  static std::unique_ptr<AtomicOutput> Create(const std::string& path, std::string* error);
  ~AtomicOutput();
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;

  std::FILE* file() { return file_; }
  const std::string& path() const { return path_; }
  bool commit(std::string* error);

 private:
  AtomicOutput(std::string path, std::string temp_path, std::FILE* file);
  void discard();

  std::string path_;
  std::string temp_path_;
  std::FILE* file_;
};

// Encodes packed RGB rows of width x height as an 8-bit PNG into out.
bool WritePng(AtomicOutput& out, const uint8_t* rgb, uint32_t width, uint32_t height,
              std::string* error);

// Writes picture (a frame of the given geometry and chroma order) as kind into out; a JPEG at
// jpeg_quality (1..100).
bool WritePicture(AtomicOutput& out, OutputKind kind, const std::vector<uint8_t>& picture,
                  FrameGeometry geometry, ChromaOrder order, std::string* error,
                  int jpeg_quality = kDefaultJpegQuality);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_IMAGE_WRITER_H
