// Features and registration: goodFeaturesToTrack, genDescripter and calImageFeatures on random
// images of random sizes (tiny included), findMatch on any descriptors, and the registration
// driver on random keypoint and descriptor sets.
#include <cstdlib>

#include "fuzz_input.h"
#include "velmora/features.h"
#include "velmora/registration.h"

namespace {

using velmora::fuzz::FuzzInput;

constexpr int kMaxSide = 64;
enum Fn { kCorners, kDescribe, kFeatures, kMatch, kRegister, kFnCount };
constexpr int kDescriptorFloats = 64;

// Descriptor blocks as the library hands them out: malloc'ed, freed by the owner of the set.
struct Descriptors {
  std::vector<float*> set;
  ~Descriptors() {
    for (float* d : set) std::free(d);
  }
  // count blocks of any bits, or of finite values (a sort by distance needs no NaN).
  void Read(FuzzInput& in, int count, bool finite) {
    const bool bits = !finite && in.Bool();
    for (int i = 0; i < count; ++i) {
      set.push_back(static_cast<float*>(std::malloc(kDescriptorFloats * sizeof(float))));
      for (int k = 0; k < kDescriptorFloats; ++k)
        set.back()[k] = bits ? in.Bits<float>() : in.Range(0, 255) / 255.0f;
    }
  }
};

std::vector<Pointf> Keypoints(FuzzInput& in, int count, int width, int height) {
  std::vector<Pointf> points(count);
  for (Pointf& p : points) p = {in.Range(-8, width + 8), in.Range(-8, height + 8)};
  return points;
}

void Run(FuzzInput& in) {
  const int fn = in.Range(0, kFnCount - 1);
  const int width = in.Range(0, kMaxSide), height = in.Range(0, kMaxSide);
  const size_t pixels = static_cast<size_t>(width) * height;
  std::vector<Pointf> points;
  Descriptors a, b;
  switch (fn) {
    case kCorners: {
      // Mostly sizes an app passes, now and then any int.
      const bool any = in.Range(0, 7) == 0;
      const int max_corners = any ? static_cast<int>(in.Raw(4)) : in.Range(-2, 600);
      const int min_distance = any ? static_cast<int>(in.Raw(4)) : in.Range(-2, 80);
      const int block_size = any ? static_cast<int>(in.Raw(4)) : in.Range(-1, 7);
      const double quality = in.Bool() ? in.Bits<double>() : in.Range(0, 100) / 100.0;
      goodFeaturesToTrack(in.Bytes(pixels).get(), points, width, height, max_corners, quality,
                          min_distance, block_size);
      break;
    }
    case kDescribe:  // into blocks of whatever values
      points = Keypoints(in, in.Range(0, 8), width, height);
      a.Read(in, static_cast<int>(points.size()), true);
      genDescripter(in.Bytes(pixels).get(), points, a.set, width, height);
      break;
    case kFeatures: {
      const bool own_copy = in.Bool();
      auto img = in.Bytes(pixels);
      if (own_copy)
        calImageFeatures(img.get(), points, a.set, width, height);
      else
        calImageFeatures_1(img.get(), points, a.set, width, height);
      break;
    }
    case kMatch: {
      a.Read(in, in.Range(0, 12), false);
      b.Read(in, in.Range(0, 12), false);
      std::vector<Match> matches;
      findMatch(a.set, b.set, matches);
      if (!a.set.empty() && !b.set.empty()) calDistance(a.set[0], b.set.back());
      break;
    }
    case kRegister: {
      // 28 matches or more reach the estimator; the frames are 4:2:0 of even sides.
      const int w = width & ~1, h = height & ~1;
      const int count_a = in.Range(0, 40), count_b = in.Range(1, 40);
      const bool one_buffer = in.Bool();
      a.Read(in, count_a, true);
      b.Read(in, count_b, true);
      auto points_a = Keypoints(in, count_a, w, h), points_b = Keypoints(in, count_b, w, h);
      double H[9];
      for (int i = 0; i < 9; ++i) H[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 256.0;
      Rect crop{0, 0, w, h};
      char thrown = 0;
      const size_t luma = static_cast<size_t>(w) * h;
      auto src = in.Bytes(luma + luma / 2), dst = std::make_unique<uint8_t[]>(luma + luma / 2);
      if (one_buffer) {
        imageRegistration(src.get(), dst.get(), a.set, b.set, points_a, points_b, w, h, &thrown,
                          &crop, H);
      } else {
        auto dst_uv = std::make_unique<uint8_t[]>(luma / 2);
        imageRegistration_1(src.get(), src.get() + luma, dst.get(), dst_uv.get(), a.set, b.set,
                            points_a, points_b, w, h, &thrown, &crop, H);
      }
      break;
    }
  }
}

// Per function: the ISA, the function, 40 x 30; the corner search's parameters (50 corners, 5
// apart, blocks of 3, quality 0.01); for registration one frame against itself (equal sets give
// matches of distance 0 and the identity): 40 points in each set, one buffer, the descriptors,
// the keypoints (x and y in turn), the identity. Then the image: bright squares on a dark ground,
// corners to find.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t fn = 0; fn < kFnCount; ++fn) {
    std::vector<uint8_t> w = {0, fn, 40, 30};
    if (fn == kCorners) w.insert(w.end(), {1, 52, 0, 7, 4, 0, 1});
    if (fn == kRegister) {
      w.insert(w.end(), {40, 39, 1});
      for (int i = 0; i < 2 * 40 * kDescriptorFloats; ++i)
        w.push_back(static_cast<uint8_t>(i % (40 * kDescriptorFloats) * 7 % 251));
      for (int i = 0; i < 4 * 40; ++i) w.push_back(static_cast<uint8_t>(i % 80 * 11 % 29 + 8));
      w.insert(w.end(), 9, 0);
    }
    for (int y = 0; y < 45; ++y)
      for (int x = 0; x < 40; ++x) w.push_back((x / 8 + y / 8) % 2 ? 220 : 30);
    seeds.push_back(w);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
