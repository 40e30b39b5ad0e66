// Descriptors: the orientation bins, the vote's once-only bin wrap, the value range, translation
// invariance, every batch path against calcDescriptor bit for bit, and the feature entry points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/cpu.h"
#include "registration/descriptors.h"
#include "test_util.h"
#include "velmora/features.h"

namespace velmora {
namespace {

constexpr int kLen = 64;

std::vector<float> Describe(std::vector<float> img, Pointf pt, int width, int height) {
  std::vector<float> out(kLen, -1.0f);
  calcDescriptor(img.data(), pt, 4, 4, out.data(), width, height);
  return out;
}

// Orientation runs counter-clockwise from +x with image rows growing downward (dy is up minus
// down): ramps along +x, up, -x and down put every cell's vote in bins 0, 1, 2 and 3.
TEST(Descriptor, RampDirectionPicksTheBin) {
  const int w = 16, h = 16;
  const struct {
    float per_x, per_y;
    int bin;
  } ramps[] = {{3, 0, 0}, {0, -3, 1}, {-3, 0, 2}, {0, 3, 3}};
  for (const auto& r : ramps) {
    std::vector<float> img(w * h);
    for (int i = 0; i < w * h; ++i) img[i] = 100.0f + r.per_x * (i % w) + r.per_y * (i / w);
    const std::vector<float> desc = Describe(img, Pointf{8, 8}, w, h);
    for (int cell = 0; cell < 16; ++cell) {
      EXPECT_EQ(std::max_element(&desc[cell * 4], &desc[cell * 4 + 4]) - &desc[cell * 4], r.bin);
    }
  }
}

// One sample at about 0.5 degrees: 99.4 % of it stays in bin 0 of its own cell, the rest goes to
// bin 1 of the preceding interior cell, or nowhere when the own cell is the first one; no bin 3
// receives anything (the wrap is not applied twice).
TEST(Descriptor, VoteBelowOneDegreeSpillsIntoThePrecedingCell) {
  // A 3 x 3 image has one interior pixel, so one sample: dx = 115, dy = 1 (up minus down). The
  // keypoint puts it at window offset (-2, -2): cells (0, 0) to (1, 1).
  const std::vector<float> desc = Describe({0, 1, 0, 0, 0, 115, 0, 0, 0}, Pointf{3, 3}, 3, 3);
  auto at = [&](int a, int b, int bin) { return desc[(a * 4 + b) * 4 + bin]; };
  const double obin = (std::atan2(1.0, 115.0) * 180.0 / M_PI - 361.0) * 4.0 / 360.0;
  const double fo = obin - std::floor(obin);  // the share kept in bin 0
  EXPECT_NEAR(fo, 0.9944, 1e-3);
  // Cell (1, 1) is the least weighted, so neither it nor its spill is clipped.
  EXPECT_NEAR(at(1, 0, 1) / at(1, 1, 0), (1.0 - fo) / fo, 1e-5);
  for (int a = 0; a < 4; ++a) {
    for (int b = 0; b < 4; ++b) {
      const bool own = a < 2 && b < 2;
      EXPECT_EQ(at(a, b, 0) > 0, own) << a << "," << b;
      // Bin 1 of a cell holds the spill of the next one; (0, 1) and (1, 1) have none after them,
      // and the spill of (0, 0), the first cell, is lost.
      EXPECT_EQ(at(a, b, 1) > 0, own && b == 0) << a << "," << b;
      EXPECT_EQ(at(a, b, 2) + at(a, b, 3), 0.0f);
    }
  }
}

TEST(Descriptor, ByteRangedAndTranslationInvariant) {
  const int w = 48, h = 36, sx = 7, sy = 3;
  const std::vector<uint8_t> bytes = testutil::TexturedImage(w, h, 11);
  std::vector<uint8_t> moved(bytes.size(), 0);
  for (int y = 0; y + sy < h; ++y) {
    for (int x = 0; x + sx < w; ++x) moved[(y + sy) * w + x + sx] = bytes[y * w + x];
  }
  const std::vector<float> img(bytes.begin(), bytes.end()), img_moved(moved.begin(), moved.end());
  for (const Pointf& pt : {Pointf{1, 1}, Pointf{0, 0}, Pointf{w - 2, h - 2}, Pointf{w - 1, 5}}) {
    const std::vector<float> desc = Describe(img, pt, w, h);
    EXPECT_GT(*std::max_element(desc.begin(), desc.end()), 0.0f) << pt.x << "," << pt.y;
    for (float v : desc) ASSERT_TRUE(v >= 0.0f && v <= 255.0f) << pt.x << "," << pt.y;
  }
  // Only the pixels around the keypoint count, wherever they are.
  for (const Pointf& pt : {Pointf{10, 10}, Pointf{20, 14}, Pointf{30, 25}}) {
    EXPECT_EQ(Describe(img, pt, w, h), Describe(img_moved, Pointf{pt.x + sx, pt.y + sy}, w, h));
  }
  // A window wholly outside the interior has no samples: all zeros, not NaN.
  EXPECT_EQ(Describe(img, Pointf{-50, -50}, w, h), std::vector<float>(kLen, 0.0f));
}

// genDescripter and the batch path of every kernel variant reproduce calcDescriptor over the
// image converted to floats, keypoints at the borders and on images smaller than the window.
TEST(Descriptor, BatchPathsEqualCalcDescriptor) {
  for (const auto& [w, h] : {std::pair<int, int>{2, 2}, {3, 3}, {5, 4}, {37, 23}, {64, 48}}) {
    std::vector<uint8_t> bytes = testutil::TexturedImage(w, h, static_cast<uint32_t>(w * h));
    std::vector<Pointf> keypoints;
    std::vector<float> expected, got;
    for (int y = -1; y <= h; y += (h > 8 ? 3 : 1)) {
      for (int x = -1; x <= w; x += (w > 8 ? 4 : 1)) {
        keypoints.push_back(Pointf{x, y});
        const std::vector<float> d =
            Describe(std::vector<float>(bytes.begin(), bytes.end()), keypoints.back(), w, h);
        expected.insert(expected.end(), d.begin(), d.end());
      }
    }
    got.resize(expected.size());
    std::vector<float*> slots;
    for (size_t i = 0; i < keypoints.size(); ++i) slots.push_back(got.data() + i * kLen);
    genDescripter(bytes.data(), keypoints, slots, w, h);
    EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * 4), 0) << w << "x" << h;
    for (Isa isa : AvailableIsas()) {
      std::fill(got.begin(), got.end(), -1.0f);
      DescribeKeypoints(bytes.data(), keypoints, slots, w, h, GradientKernelsFor(isa));
      EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * 4), 0)
          << IsaName(isa) << " " << w << "x" << h;
    }
  }
}

// calImageFeatures and calImageFeatures_1: the detector's corners with their own minimum
// distances appended to the keypoints already there (not cleared), each described as
// genDescripter describes it, the input untouched.
TEST(ImageFeatures, DescribeTheDetectedCornersLikeGenDescripter) {
  const int w = 320, h = 240;
  const std::vector<uint8_t> img = testutil::TexturedImage(w, h, 21);
  for (const int min_distance : {60, 45}) {
    std::vector<uint8_t> input = img;
    std::vector<Pointf> keypoints = {Pointf{50, 40}}, corners = keypoints;
    std::vector<float*> descriptors;
    if (min_distance == 60) calImageFeatures(input.data(), keypoints, descriptors, w, h);
    else calImageFeatures_1(input.data(), keypoints, descriptors, w, h);
    EXPECT_EQ(input, img);
    goodFeaturesToTrack(input.data(), corners, w, h, 500, 0.01, min_distance, 3);
    ASSERT_GT(corners.size(), 5u);
    ASSERT_EQ(keypoints.size(), corners.size()) << min_distance;
    ASSERT_EQ(descriptors.size(), corners.size());
    std::vector<float> want(corners.size() * kLen);
    std::vector<float*> slots;
    for (size_t i = 0; i < corners.size(); ++i) slots.push_back(want.data() + i * kLen);
    genDescripter(input.data(), corners, slots, w, h);
    for (size_t i = 0; i < corners.size(); ++i) {
      EXPECT_TRUE(keypoints[i].x == corners[i].x && keypoints[i].y == corners[i].y) << i;
      EXPECT_EQ(std::memcmp(descriptors[i], slots[i], kLen * sizeof(float)), 0) << i;
      std::free(descriptors[i]);
    }
  }
}

}  // namespace
}  // namespace velmora
