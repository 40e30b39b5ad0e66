// Features and registration: goodFeaturesToTrack, genDescripter and calImageFeatures on random
// images of random sizes (tiny included), findMatch on any descriptors, and the registration
// driver on random keypoint and descriptor sets.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_input.h"
#include "velmora/features.h"
#include "velmora/registration.h"

namespace {

using velmora::fuzz::Buffer;
using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;

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
      float* d = static_cast<float*>(std::malloc(kDescriptorFloats * sizeof(float)));
      for (int k = 0; k < kDescriptorFloats; ++k) d[k] = bits ? in.Float() : in.Range(0, 255) / 255.0f;
      set.push_back(d);
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
  switch (fn) {
    case kCorners: {
      // Mostly sizes an app passes, now and then any int.
      const bool any = in.Range(0, 7) == 0;
      const int max_corners = any ? static_cast<int>(in.Raw(4)) : in.Range(-2, 600);
      const int min_distance = any ? static_cast<int>(in.Raw(4)) : in.Range(-2, 80);
      const int block_size = any ? static_cast<int>(in.Raw(4)) : in.Range(-1, 7);
      const double quality = in.Bool() ? in.Double() : in.Range(0, 100) / 100.0;
      Buffer<uint8_t> img = in.Bytes(static_cast<size_t>(width) * height);
      std::vector<Pointf> corners;
      goodFeaturesToTrack(img.data(), corners, width, height, max_corners, quality, min_distance,
                          block_size);
      break;
    }
    case kDescribe: {
      std::vector<Pointf> points = Keypoints(in, in.Range(0, 8), width, height);
      std::vector<velmora::fuzz::Buffer<float>> blocks;
      std::vector<float*> descriptors;
      for (size_t i = 0; i < points.size(); ++i) {
        blocks.emplace_back(kDescriptorFloats);
        descriptors.push_back(blocks.back().data());
      }
      Buffer<uint8_t> img = in.Bytes(static_cast<size_t>(width) * height);
      genDescripter(img.data(), points, descriptors, width, height);
      break;
    }
    case kFeatures: {
      const bool own_copy = in.Bool();
      Buffer<uint8_t> img = in.Bytes(static_cast<size_t>(width) * height);
      std::vector<Pointf> points;
      Descriptors descriptors;
      if (own_copy) calImageFeatures(img.data(), points, descriptors.set, width, height);
      else calImageFeatures_1(img.data(), points, descriptors.set, width, height);
      break;
    }
    case kMatch: {
      Descriptors a, b;
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
      Descriptors a, b;
      a.Read(in, count_a, true);
      b.Read(in, count_b, true);
      std::vector<Pointf> points_a = Keypoints(in, count_a, w, h);
      std::vector<Pointf> points_b = Keypoints(in, count_b, w, h);
      double H[9];
      for (int i = 0; i < 9; ++i) H[i] = (i % 4 == 0) + static_cast<int8_t>(in.Byte()) / 256.0;
      Rect crop{0, 0, w, h};
      char thrown = 0;
      const size_t luma = static_cast<size_t>(w) * h;
      Buffer<uint8_t> src = in.Bytes(luma + luma / 2), dst(luma + luma / 2);
      if (one_buffer) {
        imageRegistration(src.data(), dst.data(), a.set, b.set, points_a, points_b, w, h,
                          &thrown, &crop, H);
      } else {
        Buffer<uint8_t> dst_uv(luma / 2);
        imageRegistration_1(src.data(), src.data() + luma, dst.data(), dst_uv.data(), a.set,
                            b.set, points_a, points_b, w, h, &thrown, &crop, H);
      }
      break;
    }
  }
}

velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (int fn = 0; fn < kFnCount; ++fn) {
    SeedWriter w;
    w.Byte(0);  // the ISA
    w.Range(fn, 0, kFnCount - 1);
    w.Range(40, 0, kMaxSide);
    w.Range(30, 0, kMaxSide);
    if (fn == kCorners) {
      w.Range(1, 0, 7);
      w.Range(50, -2, 600);
      w.Range(5, -2, 80);
      w.Range(3, -1, 7);
      w.Byte(0);
      w.Range(1, 0, 100);
    }
    if (fn == kRegister) {
      // One frame against itself: equal sets give matches of distance 0 and the identity.
      const int count = 40;
      for (int bound : {0, 1}) w.Range(count, bound, 40);
      w.Byte(1);  // one buffer
      for (int set = 0; set < 2; ++set)
        for (int i = 0; i < count * kDescriptorFloats; ++i) w.Byte(static_cast<uint8_t>(i * 7 % 251));
      for (int set = 0; set < 2; ++set)
        for (int i = 0; i < count; ++i) {
          w.Range(i * 13 % 40, -8, 48);
          w.Range(i * 7 % 30, -8, 38);
        }
      for (int i = 0; i < 9; ++i) w.Byte(0);
    }
    // The image: bright squares on a dark ground, corners to find.
    for (int y = 0; y < 45; ++y)
      for (int x = 0; x < 40; ++x) w.Byte((x / 8 + y / 8) % 2 ? 220 : 30);
    seeds.push_back(w.out);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
