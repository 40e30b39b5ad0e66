// The inputs of a long exposure, whatever their kind, as one source of frames: raw frame files,
// pictures (PNG, JPEG) and videos, told apart by their content or by their name, in the order
// given, with a selection of their frames.
#ifndef VELMORA_TOOL_INPUTS_H
#define VELMORA_TOOL_INPUTS_H

#include <memory>
#include <string>
#include <vector>

#include "frame_source.h"

namespace velmora::tool {

struct InputOptions {
  // Raw files only: their frame size and chroma order (the other kinds carry their own).
  bool has_size = false;
  FrameGeometry size;
  ChromaOrder order = ChromaOrder::kNv12;
  // The selection: skip `start` frames, then take one frame in `every`, at most `limit`.
  size_t start = 0;
  size_t every = 1;
  size_t limit = kUnknownFrameCount;
};

// Checks every input up front (it exists, is readable, is of a known kind; videos are opened)
// and returns their frames, in order, as one source. Frames of a later input must be as large
// as the first's; a difference fails the read that meets it, naming the file. Returns null with
// *error set: a bad input, or a selection known to be empty.
std::unique_ptr<FrameSource> OpenInputs(const std::vector<std::string>& paths,
                                        const InputOptions& options, std::string* error);

// True, with *error set, when output names the same file as one of the inputs (the same device
// and inode, whatever the spelling), which the picture would replace.
bool OutputIsAnInput(const std::string& output, const std::vector<std::string>& inputs,
                     std::string* error);

// Frames a source holds after skipping `start` of its count and taking one in `every`, at most
// limit; kUnknownFrameCount if the source does not know.
size_t SelectedCount(size_t count, size_t start, size_t every, size_t limit);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_INPUTS_H
