// The tool's colour convention, both ways: full-range BT.601, the convention of camera frames and
// of JPEG, so that a photo folded by the tool comes back out in its own colours whichever format
// it goes in or out as.
#ifndef VELMORA_TOOL_BT601_H
#define VELMORA_TOOL_BT601_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

// Packed 8-bit RGB rows, stride bytes apart, into a frame of geometry in the given chroma order.
// The picture may be one column or row larger than the frame (odd sides are cropped to even);
// the extra is unused. Y = 0.299 R + 0.587 G + 0.114 B for each pixel; U and V from the mean R,
// G, B of each 2x2 block; every value rounded to nearest and clamped to 0..255.
void RgbToNv12(const uint8_t* rgb, size_t stride, FrameGeometry geometry, uint8_t* frame,
               ChromaOrder order = ChromaOrder::kNv12);

// The inverse, into packed RGB rows: R = Y + 1.402 V', G = Y - 0.344136 U' - 0.714136 V',
// B = Y + 1.772 U' (U' = U - 128, V' = V - 128; each 2x2 block takes its pair as it is),
// rounded to nearest and clamped. Not the library's NV12toRGBA8888: that one's colour offsets
// are about 2% smaller, so PNGs written through it came out less saturated than the same picture
// as JPEG, and a PNG did not survive a trip through frames.
std::vector<uint8_t> FrameToRgb(const uint8_t* frame, FrameGeometry geometry, ChromaOrder order);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_BT601_H
