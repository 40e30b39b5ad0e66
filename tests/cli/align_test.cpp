// The demo's burst: water that moves over a still scene, and, hand-held, folded with and
// without alignment, judged on the still part against a steady, noiseless camera's picture.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "aligner.h"
#include "demo_scene.h"
#include "longexp.h"
#include "velmora/filters.h"

namespace velmora::tool {
namespace {

constexpr int kW = int(DemoScene::kWidth), kH = int(DemoScene::kHeight);

TEST(DemoScene, WaterMovesBetweenFramesWhileTheSceneStaysStill) {
  DemoScene scene, again;
  EXPECT_EQ(scene.frameCount(), 40u);
  std::vector<uint8_t> first(scene.geometry().frameBytes()), second(first), repeat(first);
  std::string error;
  ASSERT_TRUE(scene.next(first.data(), &error) && scene.next(second.data(), &error));
  size_t sky_changes = 0, river_changes = 0;
  for (size_t i = 0; i < size_t{kW} * kH; ++i) {
    if (first[i] == second[i]) continue;
    if (i / kW < 300) ++sky_changes;                       // sky, hills and forest
    if (i / kW >= 400 && i / kW < 560) ++river_changes;  // mid-river
  }
  EXPECT_EQ(sky_changes, 0u);
  EXPECT_GT(river_changes, size_t{kW} * 160 / 4);
  ASSERT_TRUE(again.next(repeat.data(), &error));
  EXPECT_TRUE(repeat == first);  // a second scene draws the same first frame
}

// PSNR of the luma of picture (the full frame) over the still pixels inside crop.
double StillPsnr(const std::vector<uint8_t>& picture, const std::vector<uint8_t>& truth,
                 const std::vector<uint8_t>& still, const Rect& crop) {
  double sum = 0.0;
  long n = 0;
  for (int y = crop.top; y < crop.bottom; ++y) {
    for (int x = crop.left; x < crop.right; ++x) {
      const size_t i = size_t(y) * kW + x;
      if (!still[i]) continue;
      const double d = double(picture[i]) - double(truth[i]);
      sum += d * d;
      ++n;
    }
  }
  return 10.0 * std::log10(255.0 * 255.0 / (sum / static_cast<double>(n)));
}

TEST(Align, ShakenDemoGainsAtLeastSixDecibelsOnItsStillPart) {
  // The reference: the steady scene as the library would sharpen a picture of it.
  DemoScene steady;
  std::vector<uint8_t> truth(size_t(kW) * kH * 3 / 2);
  steady.stillScene(truth.data());
  uint8_t* const uv = truth.data() + kW * kH;
  sharpenFilter(truth.data(), uv, truth.data(), uv, kW, kH, 2, 1.0f);
  // Away from the water by more than the shake and the warp's reach.
  const std::vector<uint8_t> still = steady.stillRegion(12);

  std::string error;
  RunSummary summary;
  DemoScene shaken_plain(true), shaken(true);
  std::vector<uint8_t> plain, aligned;
  ASSERT_TRUE(RunLongExposure(shaken_plain, nullptr, &plain, &summary, &error)) << error;
  Aligner aligner({DemoScene::kWidth, DemoScene::kHeight});
  ASSERT_TRUE(RunLongExposure(shaken, nullptr, &aligned, &summary, &error, &aligner)) << error;
  EXPECT_GE(aligner.aligned(), DemoScene::kFrames / 3);

  const double psnr_plain = StillPsnr(plain, truth, still, aligner.crop());
  const double psnr_aligned = StillPsnr(aligned, truth, still, aligner.crop());
  RecordProperty("psnr_plain", std::to_string(psnr_plain));
  RecordProperty("psnr_aligned", std::to_string(psnr_aligned));
  EXPECT_GE(psnr_aligned, 30.0) << "unaligned " << psnr_plain;
  EXPECT_GE(psnr_aligned - psnr_plain, 6.0) << "aligned " << psnr_aligned;
}

}  // namespace
}  // namespace velmora::tool
