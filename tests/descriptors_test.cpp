// Descriptors: the orientation bins, the vote's once-only bin wrap, the value range, translation
// invariance, every batch path against calcDescriptor bit for bit, and the feature entry points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "registration/descriptors.h"
#include "test_util.h"
#include "velmora/features.h"

namespace velmora {
namespace {

constexpr int kLen = 64;

std::vector<float> ToFloats(const std::vector<uint8_t>& bytes) {
  return std::vector<float>(bytes.begin(), bytes.end());
}

std::vector<float> Describe(std::vector<float>& img, Pointf pt, int width, int height) {
  std::vector<float> out(kLen, -1.0f);
  calcDescriptor(img.data(), pt, 4, 4, out.data(), width, height);
  return out;
}

// Orientation runs counter-clockwise from +x with image rows growing downward (dy is up minus
// down): ramps along +x, up, -x and down put every cell's vote in bins 0, 1, 2 and 3.
TEST(Descriptor, RampDirectionPicksTheBin) {
  const int w = 16, h = 16;
  struct Ramp {
    float per_x, per_y;
    int bin;
  };
  for (const Ramp r : {Ramp{3, 0, 0}, Ramp{0, -3, 1}, Ramp{-3, 0, 2}, Ramp{0, 3, 3}}) {
    std::vector<float> img(w * h);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) img[y * w + x] = 100.0f + r.per_x * x + r.per_y * y;
    }
    const std::vector<float> desc = Describe(img, Pointf{8, 8}, w, h);
    for (int cell = 0; cell < 16; ++cell) {
      const float* bins = &desc[cell * 4];
      EXPECT_EQ(std::max_element(bins, bins + 4) - bins, r.bin) << "cell " << cell;
    }
  }
}

// One sample at about 0.5 degrees: 99.4 % of it stays in bin 0 of its own cell, the rest goes to
// bin 1 of the preceding interior cell, or nowhere when the own cell is the first one; no bin 3
// receives anything (the wrap is not applied twice).
TEST(Descriptor, VoteBelowOneDegreeSpillsIntoThePrecedingCell) {
  // A 3 x 3 float image has one interior pixel, so one sample: dx = 115, dy = 1 (up minus down).
  std::vector<float> img = {0, 1, 0, 0, 0, 115, 0, 0, 0};
  // The keypoint puts that sample at window offset (-2, -2): cells (0, 0) to (1, 1), small
  // fractions towards row 1 and column 1.
  const std::vector<float> desc = Describe(img, Pointf{3, 3}, 3, 3);
  auto at = [&](int a, int b, int bin) { return desc[(a * 4 + b) * 4 + bin]; };

  const double degrees = std::atan2(1.0, 115.0) * 180.0 / M_PI;  // 0.498
  const double obin = (degrees - 361.0) * 4.0 / 360.0;
  const double fo = obin - std::floor(obin);  // the share kept in bin 0, about 0.9944
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
      EXPECT_EQ(at(a, b, 2), 0.0f);
      EXPECT_EQ(at(a, b, 3), 0.0f);
    }
  }
}

TEST(Descriptor, SixtyFourFiniteValuesInByteRange) {
  const int w = 40, h = 30;
  std::vector<float> img = ToFloats(testutil::RandomBytes(static_cast<size_t>(w) * h, 3));
  const Pointf points[] = {{1, 1}, {0, 0}, {w - 2, h - 2}, {20, 15}, {w - 1, 5}};
  for (const Pointf& pt : points) {
    const std::vector<float> desc = Describe(img, pt, w, h);
    float largest = 0.0f;
    for (float v : desc) {
      ASSERT_TRUE(std::isfinite(v)) << pt.x << "," << pt.y;
      EXPECT_GE(v, 0.0f);
      EXPECT_LE(v, 255.0f);
      largest = std::fmax(largest, v);
    }
    EXPECT_GT(largest, 0.0f) << pt.x << "," << pt.y;
  }
  // A window wholly outside the interior has no samples: all zeros, not NaN.
  for (float v : Describe(img, Pointf{-50, -50}, w, h)) EXPECT_EQ(v, 0.0f);
}

// The descriptor depends only on the pixels around the keypoint, wherever they are.
TEST(Descriptor, ShiftedImageGivesTheSameDescriptorAtTheShiftedKeypoint) {
  const int w = 48, h = 36, sx = 7, sy = 3;
  const std::vector<uint8_t> bytes = testutil::TexturedImage(w, h, 11);
  std::vector<uint8_t> moved(bytes.size(), 0);
  for (int y = 0; y + sy < h; ++y) {
    for (int x = 0; x + sx < w; ++x) moved[(y + sy) * w + x + sx] = bytes[y * w + x];
  }
  std::vector<float> img = ToFloats(bytes), img_moved = ToFloats(moved);
  for (const Pointf& pt : {Pointf{10, 10}, Pointf{20, 14}, Pointf{30, 25}}) {
    EXPECT_EQ(Describe(img, pt, w, h), Describe(img_moved, Pointf{pt.x + sx, pt.y + sy}, w, h));
  }
}

// genDescripter and the batch path of every kernel variant reproduce calcDescriptor over the
// image converted to floats, keypoints at the borders and on images smaller than the window.
TEST(Descriptor, BatchPathsEqualCalcDescriptor) {
  struct Size {
    int w, h;
  };
  for (const Size s : {Size{2, 2}, Size{3, 3}, Size{5, 4}, Size{37, 23}, Size{64, 48}}) {
    const std::vector<uint8_t> bytes = testutil::TexturedImage(s.w, s.h, static_cast<uint32_t>(s.w * s.h));
    std::vector<float> img = ToFloats(bytes);
    std::vector<Pointf> keypoints;
    for (int y = -1; y <= s.h; y += (s.h > 8 ? 3 : 1)) {
      for (int x = -1; x <= s.w; x += (s.w > 8 ? 4 : 1)) keypoints.push_back(Pointf{x, y});
    }
    std::vector<float> expected;
    for (const Pointf& pt : keypoints) {
      const std::vector<float> d = Describe(img, pt, s.w, s.h);
      expected.insert(expected.end(), d.begin(), d.end());
    }
    std::vector<float> got(expected.size());
    std::vector<float*> slots;
    for (size_t i = 0; i < keypoints.size(); ++i) slots.push_back(got.data() + i * kLen);
    std::vector<uint8_t> input = bytes;
    genDescripter(input.data(), keypoints, slots, s.w, s.h);
    EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * sizeof(float)), 0)
        << "genDescripter " << s.w << "x" << s.h;
    for (Isa isa : AvailableIsas()) {
      std::fill(got.begin(), got.end(), -1.0f);
      DescribeKeypoints(bytes.data(), keypoints, slots, s.w, s.h, GradientKernelsFor(isa));
      EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * sizeof(float)), 0)
          << IsaName(isa) << " " << s.w << "x" << s.h;
    }
  }
}

// calImageFeatures and calImageFeatures_1: the detector's corners with their parameters, each
// described as genDescripter describes it, the input untouched by the const entry.
TEST(ImageFeatures, DescribesTheDetectedCornersLikeGenDescripter) {
  const int w = 320, h = 240;
  const std::vector<uint8_t> img = testutil::TexturedImage(w, h, 21);
  for (int entry = 0; entry < 2; ++entry) {
    const int min_distance = entry == 0 ? 60 : 45;
    std::vector<uint8_t> input = img;
    std::vector<Pointf> keypoints;
    std::vector<float*> descriptors;
    if (entry == 0) calImageFeatures(input.data(), keypoints, descriptors, w, h);
    else calImageFeatures_1(input.data(), keypoints, descriptors, w, h);
    EXPECT_EQ(input, img);

    std::vector<uint8_t> copy = img;
    std::vector<Pointf> corners;
    goodFeaturesToTrack(copy.data(), corners, w, h, 500, 0.01, min_distance, 3);
    ASSERT_GT(corners.size(), 4u);
    ASSERT_EQ(keypoints.size(), corners.size()) << min_distance;
    ASSERT_EQ(descriptors.size(), corners.size());
    std::vector<float> want(corners.size() * kLen);
    std::vector<float*> slots;
    for (size_t i = 0; i < corners.size(); ++i) slots.push_back(want.data() + i * kLen);
    genDescripter(copy.data(), corners, slots, w, h);
    for (size_t i = 0; i < corners.size(); ++i) {
      EXPECT_EQ(keypoints[i].x, corners[i].x);
      EXPECT_EQ(keypoints[i].y, corners[i].y);
      EXPECT_EQ(std::memcmp(descriptors[i], slots[i], kLen * sizeof(float)), 0) << i;
      std::free(descriptors[i]);
    }
  }
}

// The entry points do not clear keypoints (the detector appends): a keypoint already there keeps
// its place and gets a descriptor too, since the descriptors follow the whole vector.
TEST(ImageFeatures, KeypointsAlreadyThereAreKeptAndDescribed) {
  const int w = 160, h = 120;
  std::vector<uint8_t> img = testutil::TexturedImage(w, h, 22);
  std::vector<Pointf> keypoints = {Pointf{50, 40}};
  std::vector<float*> descriptors;
  calImageFeatures(img.data(), keypoints, descriptors, w, h);
  ASSERT_GT(keypoints.size(), 1u);
  ASSERT_EQ(descriptors.size(), keypoints.size());
  std::vector<float> gray(img.begin(), img.end());
  std::vector<float> want(kLen);
  calcDescriptor(gray.data(), Pointf{50, 40}, 4, 4, want.data(), w, h);
  EXPECT_EQ(keypoints[0].x, 50);
  EXPECT_EQ(std::memcmp(descriptors[0], want.data(), kLen * sizeof(float)), 0);
  for (float* d : descriptors) std::free(d);
}

}  // namespace
}  // namespace velmora
