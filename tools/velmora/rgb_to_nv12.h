// RGB pictures turned into the frames the library folds: full-range BT.601, the convention of
// camera frames (and of JPEG), so that a folded photo comes back out in its own colours.
#ifndef VELMORA_TOOL_RGB_TO_NV12_H
#define VELMORA_TOOL_RGB_TO_NV12_H

#include <cstddef>
#include <cstdint>

#include "frame_source.h"

namespace velmora::tool {

// Packed 8-bit RGB rows, stride bytes apart, into a frame of geometry in the given chroma order.
// The picture may be one column or row larger than the frame (odd sides are cropped to even);
// the extra is unused. Y = 0.299 R + 0.587 G + 0.114 B for each pixel; U and V from the mean R,
// G, B of each 2x2 block; every value rounded to nearest and clamped to 0..255. This is the
// tool's one way from RGB to frames (pictures read by longexp, PNG images by convert): the JPEG
// reader and writer and the video reader take frames as these same camera colours, so a picture
// keeps its colours whichever way it goes out. The library's NV12toRGBA8888 gives R - Y and B - Y
// about 2% smaller than this rule implies, so a PNG round trip may lose a few steps of
// saturation; frames that cameras would produce matter more than that round trip.
void RgbToNv12(const uint8_t* rgb, size_t stride, FrameGeometry geometry, uint8_t* frame,
               ChromaOrder order = ChromaOrder::kNv12);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_RGB_TO_NV12_H
