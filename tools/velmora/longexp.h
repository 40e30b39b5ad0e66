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

// Told, on the calling thread, how many of the source's frames are folded in so far; total is
// the source's frameCount(), possibly kUnknownFrameCount.
using ProgressFn = std::function<void(size_t folded, size_t total)>;

struct RunSummary {
  size_t folded = 0;     // frames in the picture
  bool stopped = false;  // a stop request ended the reading before the source did
};

class Aligner;

// Folds in every frame of source, in order (with an aligner, every frame it does not throw,
// registered onto the first), and stores the picture (same geometry and chroma order as the
// source) in *picture. A stop request (see interrupt.h) ends the reading; the frames handed in
// by then are folded and make the picture. On failure returns false with *error set; the run is
// still stopped and released.
bool RunLongExposure(FrameSource& source, const ProgressFn& progress, std::vector<uint8_t>* picture,
                     RunSummary* summary, std::string* error, Aligner* aligner = nullptr);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_LONGEXP_H
