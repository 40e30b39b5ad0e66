// The picture's file formats: PNG written with libdeflate (a fast compressor; libpng's zlib at
// its default level spends most of a run on a 1080p picture), JPEG with libjpeg-turbo.
#ifndef VELMORA_TOOL_PICTURE_ENCODERS_H
#define VELMORA_TOOL_PICTURE_ENCODERS_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "frame_source.h"

namespace velmora::tool {

// An 8-bit RGB PNG of width x height pixels, each bytes_per_pixel apart in rows of width *
// bytes_per_pixel bytes (3 for RGB; 4 for RGBA, whose alpha is left out).
bool EncodePng(std::FILE* out, const uint8_t* pixels, uint32_t width, uint32_t height,
               int bytes_per_pixel, std::string* error);

// A baseline JPEG of the frame at quality 1..100. JPEG's own colours are full-range BT.601
// YCbCr with 4:2:0 chroma, the frames' own, so the planes are compressed as they are: no
// conversion, and no rounding on the way.
bool EncodeJpeg(std::FILE* out, const uint8_t* frame, FrameGeometry geometry, ChromaOrder order,
                int quality, std::string* error);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_PICTURE_ENCODERS_H
