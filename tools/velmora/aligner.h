// Hand-held bursts: every frame registered onto the first before it is folded in, with the
// library's registration toolkit, and the picture cropped to what every accepted frame covers.
#ifndef VELMORA_TOOL_ALIGNER_H
#define VELMORA_TOOL_ALIGNER_H

#include <cstdint>
#include <vector>

#include "frame_source.h"
#include "velmora/features.h"
#include "velmora/registration.h"

namespace velmora::tool {

class Aligner {
 public:
  explicit Aligner(FrameGeometry geometry);
  ~Aligner();  // frees every descriptor block: the toolkit leaves them to its caller
  Aligner(const Aligner&) = delete;
  Aligner& operator=(const Aligner&) = delete;

  // The first frame becomes the reference and is returned as it is; every later one is warped
  // onto it. Returns the frame to fold in (frame itself or an internal buffer, valid until the
  // next call), or null when the frame is to be thrown away.
  const uint8_t* align(uint8_t* frame);

  size_t aligned() const { return aligned_; }  // frames warped onto the reference
  size_t thrown() const { return thrown_; }
  // Where every folded frame holds picture, on even coordinates (whole 4:2:0 chroma pairs).
  Rect crop() const;

 private:
  void features(const uint8_t* frame, std::vector<Pointf>* keypoints,
                std::vector<float*>* descriptors);

  const FrameGeometry geometry_;
  std::vector<uint8_t> half_;    // half-size luma, the grid the features live on
  std::vector<uint8_t> warped_;  // the last frame warped onto the reference
  std::vector<Pointf> reference_keypoints_;
  std::vector<float*> reference_descriptors_;
  bool have_reference_ = false;
  double h_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // the last accepted homography
  Rect crop_;
  size_t aligned_ = 0;
  size_t thrown_ = 0;
};

// Cuts the picture (geometry's frame layout) down to crop, which must lie on even coordinates;
// *geometry becomes the crop's.
void CropPicture(const Rect& crop, std::vector<uint8_t>* picture, FrameGeometry* geometry);

}  // namespace velmora::tool

#endif  // VELMORA_TOOL_ALIGNER_H
