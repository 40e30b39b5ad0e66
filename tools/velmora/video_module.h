// The video reader is a module of its own, loaded on first use: FFmpeg's libraries bring about
// 130 shared libraries with them, whose loading costs every run about 0.1 s of processor time
// (most of a run on raw frames) when the tool is linked to them directly.
#ifndef VELMORA_TOOL_VIDEO_MODULE_H
#define VELMORA_TOOL_VIDEO_MODULE_H

#include <cstdint>
#include <memory>
#include <string>

#include "frame_source.h"

namespace velmora::tool {

// What the module offers; see video_reader.h for each function.
struct VideoModule {
  bool (*looks_like_video)(const std::string& path, const uint8_t* head, size_t size);
  std::unique_ptr<FrameSource> (*open)(const std::string& path, bool looks_like_video,
                                       bool* recognised, std::string* error);
};

// The module's entry point, by this name.
#define VELMORA_VIDEO_MODULE_ENTRY "velmora_video_module"

// Loads the module (once) from ../lib beside the running executable. Null with *error set if
// it cannot be loaded.
const VideoModule* LoadVideoModule(std::string* error);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_VIDEO_MODULE_H
