// Frames as the tool handles them: geometry, chroma order, and a source that yields them in turn.
#ifndef VELMORA_TOOL_FRAME_SOURCE_H
#define VELMORA_TOOL_FRAME_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velmora::tool {

// A two-plane 4:2:0 frame: width x height luma bytes, then height / 2 rows of width bytes of
// interleaved chroma pairs. Both sides are even, so the chroma plane holds whole pairs.
struct FrameGeometry {
  uint32_t width = 0;
  uint32_t height = 0;

  size_t lumaBytes() const { return size_t{width} * height; }
  size_t chromaBytes() const { return size_t{width} * (height / 2); }
  size_t frameBytes() const { return lumaBytes() + chromaBytes(); }
};

// Large enough for any camera, small enough that every plane size the library computes in 32
// bits stays exact.
constexpr uint32_t kMaxSide = 16384;

// Which byte of each chroma pair is U.
enum class ChromaOrder { kNv12, kNv21 };

const char* ChromaOrderName(ChromaOrder order);

// "WxH" with even, non-zero sides up to kMaxSide. On failure *why says what is wrong.
bool ParseSize(const std::string& text, FrameGeometry* geometry, std::string* why);

// "nv12" or "nv21".
bool ParseChromaOrder(const std::string& text, ChromaOrder* order);

// What frameCount() says when only reading to the end will tell.
constexpr size_t kUnknownFrameCount = SIZE_MAX;

// Frames in the order they are to be folded in: raw files, pictures, videos, the demo, all
// behind this one interface, so that whatever consumes frames (the fold, a registration step)
// needs no knowledge of where they come from.
class FrameSource {
 public:
  virtual ~FrameSource() = default;

  virtual FrameGeometry geometry() const = 0;
  virtual ChromaOrder order() const = 0;
  // The number of frames next() will yield: exact for raw files and pictures, the container's
  // own figure for a video, or kUnknownFrameCount. Only next() decides where the frames end.
  virtual size_t frameCount() const = 0;

  // Fills geometry().frameBytes() bytes with the next frame. False at the end of the frames
  // with *error left empty, or false with *error set when the frame cannot be had.
  virtual bool next(uint8_t* frame, std::string* error) = 0;

  // Passes over the next frame without producing it; returns as next() does. Sources that can
  // do this cheaper than next() (seek past raw bytes, leave a picture undecoded) override it.
  virtual bool skip(std::string* error);

 private:
  std::vector<uint8_t> skipped_;  // for the plain skip(), which reads into it
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_FRAME_SOURCE_H
