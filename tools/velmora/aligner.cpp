#include "aligner.h"

#include <cstdlib>
#include <cstring>

#include "velmora/yuv.h"

namespace velmora::tool {

namespace {

void FreeAll(std::vector<float*>* descriptors) {
  for (float* d : *descriptors) std::free(d);
  descriptors->clear();
}

}  // namespace

Aligner::Aligner(FrameGeometry geometry)
    : geometry_(geometry),
      half_(size_t{geometry.width / 2} * (geometry.height / 2)),
      warped_(geometry.frameBytes()),
      crop_{0, 0, static_cast<int>(geometry.width), static_cast<int>(geometry.height)} {}

Aligner::~Aligner() { FreeAll(&reference_descriptors_); }

void Aligner::features(const uint8_t* frame, std::vector<Pointf>* keypoints,
                       std::vector<float*>* descriptors) {
  const int w = static_cast<int>(geometry_.width), h = static_cast<int>(geometry_.height);
  // The box average reads the luma plane only and writes only the luma of its destination.
  NV12AvgScaling(const_cast<uint8_t*>(frame), half_.data(), w, h, w / 2, h / 2);
  calImageFeatures(half_.data(), *keypoints, *descriptors, w / 2, h / 2);
}

const uint8_t* Aligner::align(uint8_t* frame) {
  if (!have_reference_) {
    features(frame, &reference_keypoints_, &reference_descriptors_);
    have_reference_ = true;
    return frame;
  }
  std::vector<Pointf> keypoints;
  std::vector<float*> descriptors;
  features(frame, &keypoints, &descriptors);
  // The frame is set A and the reference set B: the estimate then maps reference points to
  // frame positions on the half-size grid, which is the map the warp wants (destination pixel
  // to source position), so the frame is drawn onto the reference's grid.
  char thrown = 0;
  const int w = static_cast<int>(geometry_.width), h = static_cast<int>(geometry_.height);
  uint8_t* luma = warped_.data();
  imageRegistration_1(frame, frame + geometry_.lumaBytes(), luma, luma + geometry_.lumaBytes(),
                      descriptors, reference_descriptors_, keypoints, reference_keypoints_, w, h,
                      &thrown, &crop_, h_);
  FreeAll(&descriptors);
  if (thrown != 0) {
    ++thrown_;
    return nullptr;
  }
  ++aligned_;
  return warped_.data();
}

Rect Aligner::crop() const {
  // Inward to even coordinates; an empty crop stays empty rather than turning inside out.
  Rect even{(crop_.left + 1) & ~1, (crop_.top + 1) & ~1, crop_.right & ~1, crop_.bottom & ~1};
  if (even.right < even.left) even.right = even.left;
  if (even.bottom < even.top) even.bottom = even.top;
  return even;
}

void CropPicture(const Rect& crop, std::vector<uint8_t>* picture, FrameGeometry* geometry) {
  const FrameGeometry from = *geometry;
  const FrameGeometry to{static_cast<uint32_t>(crop.right - crop.left),
                         static_cast<uint32_t>(crop.bottom - crop.top)};
  std::vector<uint8_t> out(to.frameBytes());
  for (uint32_t y = 0; y < to.height; ++y) {
    std::memcpy(&out[size_t{y} * to.width],
                &(*picture)[size_t{y + crop.top} * from.width + crop.left], to.width);
  }
  for (uint32_t y = 0; y < to.height / 2; ++y) {
    std::memcpy(&out[to.lumaBytes() + size_t{y} * to.width],
                &(*picture)[from.lumaBytes() + size_t{y + crop.top / 2} * from.width + crop.left],
                to.width);
  }
  picture->swap(out);
  *geometry = to;
}

}  // namespace velmora::tool
