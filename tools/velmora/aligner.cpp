#include "aligner.h"

#include <cstdlib>
#include <algorithm>
#include <cstring>

#include "velmora/yuv.h"

namespace velmora::tool {

namespace {

constexpr size_t kMinSupport = 8;  // matches that must agree with an accepted estimate

void FreeAll(std::vector<float*>* descriptors) {
  for (float* d : *descriptors) std::free(d);
  descriptors->clear();
}

// How many of all the matches (not only the best 15 % the estimate came from) agree with h:
// the reference point mapped by h lands within kSupportRadius half-grid pixels of the frame
// point. An estimate from a handful of pairs, some of them on moving water, can be wildly off
// and still pass the driver's tests; this catches it.
constexpr double kSupportRadius = 2.0;
size_t Support(const double* h, std::vector<float*>& frame, std::vector<float*>& reference,
               const std::vector<Pointf>& frame_points,
               const std::vector<Pointf>& reference_points) {
  std::vector<Match> matches;
  findMatch(frame, reference, matches);
  size_t agreeing = 0;
  for (const Match& m : matches) {
    const Pointf a = frame_points[static_cast<size_t>(m.index1)];
    const Pointf b = reference_points[static_cast<size_t>(m.index2)];
    const double w = h[6] * b.x + h[7] * b.y + h[8];
    const double dx = (h[0] * b.x + h[1] * b.y + h[2]) / w - a.x;
    const double dy = (h[3] * b.x + h[4] * b.y + h[5]) / w - a.y;
    if (dx * dx + dy * dy <= kSupportRadius * kSupportRadius) ++agreeing;
  }
  return agreeing;
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
  // Corners 45 rather than 60 half-grid pixels apart: about twice as many, so that the best 15 %
  // of the matches are more than the bare minimum of pairs.
  calImageFeatures_1(half_.data(), *keypoints, *descriptors, w / 2, h / 2);
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
  double kept_h[9];
  std::copy(h_, h_ + 9, kept_h);
  const Rect kept_crop = crop_;
  imageRegistration_1(frame, frame + geometry_.lumaBytes(), luma, luma + geometry_.lumaBytes(),
                      descriptors, reference_descriptors_, keypoints, reference_keypoints_, w, h,
                      &thrown, &crop_, h_);
  if (thrown == 0) {
    const size_t support =
        Support(h_, descriptors, reference_descriptors_, keypoints, reference_keypoints_);
    if (support < kMinSupport || support * 4 < keypoints.size()) {
      // Undone as if the driver had thrown the frame.
      std::copy(kept_h, kept_h + 9, h_);
      crop_ = kept_crop;
      thrown = 1;
    }
  }
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
