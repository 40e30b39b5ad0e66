// A built-in burst for trying the tool without footage: a still river bank, rocks and sky, with
// foaming water that moves from frame to frame. Every frame is computed, so it needs no input.
#ifndef VELMORA_TOOL_DEMO_SCENE_H
#define VELMORA_TOOL_DEMO_SCENE_H

#include <vector>

#include "frame_source.h"

namespace velmora::tool {

class DemoScene final : public FrameSource {
 public:
  static constexpr uint32_t kWidth = 1280;
  static constexpr uint32_t kHeight = 720;
  static constexpr size_t kFrames = 40;

  // Draws the still part once. With shake, as if hand-held: from the second frame on the camera
  // is off by a few pixels and a fraction of a degree, and the sensor adds noise.
  explicit DemoScene(bool shake = false);

  FrameGeometry geometry() const override { return {kWidth, kHeight}; }
  ChromaOrder order() const override { return ChromaOrder::kNv12; }
  size_t frameCount() const override { return kFrames; }
  bool next(uint8_t* frame, std::string* error) override;

  // For judging a long exposure: the scene as a steady, noiseless camera sees it (first frame),
  // and the pixels with no water within margin pixels (1; else 0).
  void stillScene(uint8_t* frame);
  std::vector<uint8_t> stillRegion(int margin) const;

 private:
  void render(uint8_t* frame, size_t index, bool shake);

  const bool shake_;
  std::vector<float> still_;       // RGB of everything but the water surface, 0..255
  std::vector<float> water_;       // share of each pixel covered by water, 0..1
  std::vector<float> turbulence_;  // extra foam where the water breaks around rocks, 0..1
  std::vector<float> rgb_;         // the frame being drawn
  size_t next_frame_ = 0;
};

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_DEMO_SCENE_H
