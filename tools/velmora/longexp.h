// The long exposure itself: every frame of a source folded in through the library's table of
// operations, the sharpened mean read back.
#ifndef VELMORA_TOOL_LONGEXP_H
#define VELMORA_TOOL_LONGEXP_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

// Told, on the calling thread, how many of the source's frames are folded in so far.
using ProgressFn = std::function<void(size_t folded, size_t total)>;

class Aligner;

// Folds in every frame of source, in order (with an aligner, every frame it does not throw,
// registered onto the first), and stores the picture (same geometry and chroma
// order as the source) in *picture. On failure returns false with *error set; the run is still
// stopped and released.
bool RunLongExposure(FrameSource& source, const ProgressFn& progress, std::vector<uint8_t>* picture,
                     std::string* error, Aligner* aligner = nullptr);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_LONGEXP_H
