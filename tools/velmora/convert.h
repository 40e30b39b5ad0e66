// The pieces of `velmora convert`: PNG in and out, resampling with the library, numbered output
// names. RGB becomes frames through RgbToNv12 (bt601.h), like every picture the tool reads.
#ifndef VELMORA_TOOL_CONVERT_H
#define VELMORA_TOOL_CONVERT_H

#include <cstdint>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

// Packed 8-bit RGB rows.
struct RgbImage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgb;
};

// Decodes any PNG (grey, palette, 16-bit, alpha composited onto black) as 8-bit RGB. On failure
// returns false with *error naming the file.
bool ReadPngFile(const std::string& path, RgbImage* image, std::string* error);

// The frame resampled to another size with the library's NV12Linear (either chroma order: the
// two bytes of a pair are interpolated alike).
std::vector<uint8_t> ScaleFrame(const std::vector<uint8_t>& frame, FrameGeometry from,
                                FrameGeometry to);

// An output name that numbers frames holds one printf integer conversion, "%d" or "%0Nd"
// (e.g. frame%03d.png); "%%" is a literal percent sign. Returns false with *error for any other
// use of '%'; *numbered tells whether the conversion is there.
bool ParseOutputPattern(const std::string& pattern, bool* numbered, std::string* error);

// The name of frame number n (counted from 1) under a numbered pattern; a plain name as it is.
std::string OutputPathFor(const std::string& pattern, bool numbered, size_t n);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_CONVERT_H
