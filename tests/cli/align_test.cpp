// Hand-held bursts: the demo's shaken burst folded with and without alignment, judged on the
// still part of the scene against a steady, noiseless camera's picture.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "aligner.h"
#include "demo_scene.h"
#include "longexp.h"
#include "velmora/filters.h"

namespace {

using velmora::tool::Aligner;
using velmora::tool::DemoScene;

constexpr int kW = static_cast<int>(DemoScene::kWidth), kH = static_cast<int>(DemoScene::kHeight);

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
  sharpenFilter(truth.data(), truth.data() + kW * kH, truth.data(), truth.data() + kW * kH, kW,
                kH, 2, 1.0f);
  // Away from the water by more than the shake and the warp's reach.
  const std::vector<uint8_t> still = steady.stillRegion(12);

  std::string error;
  velmora::tool::RunSummary summary;
  DemoScene shaken_plain(true), shaken(true);
  std::vector<uint8_t> plain, aligned;
  ASSERT_TRUE(velmora::tool::RunLongExposure(shaken_plain, nullptr, &plain, &summary, &error)) << error;
  Aligner aligner({DemoScene::kWidth, DemoScene::kHeight});
  ASSERT_TRUE(velmora::tool::RunLongExposure(shaken, nullptr, &aligned, &summary, &error, &aligner))
      << error;
  EXPECT_GE(aligner.aligned(), DemoScene::kFrames / 3);

  const Rect crop = aligner.crop();
  const double psnr_plain = StillPsnr(plain, truth, still, crop);
  const double psnr_aligned = StillPsnr(aligned, truth, still, crop);
  RecordProperty("psnr_plain", std::to_string(psnr_plain));
  RecordProperty("psnr_aligned", std::to_string(psnr_aligned));
  EXPECT_GE(psnr_aligned, 30.0) << "unaligned " << psnr_plain;
  EXPECT_GE(psnr_aligned - psnr_plain, 6.0) << "aligned " << psnr_aligned;
}

}  // namespace
