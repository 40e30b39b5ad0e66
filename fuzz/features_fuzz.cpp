// Features: goodFeaturesToTrack on random images of random sizes (tiny included) with any
// parameters.
#include <cstdint>
#include <vector>

#include "fuzz_input.h"
#include "velmora/features.h"

namespace {

using velmora::fuzz::Buffer;
using velmora::fuzz::FuzzInput;
using velmora::fuzz::SeedWriter;

constexpr int kMaxSide = 64;
enum Fn { kCorners, kFnCount };

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
    // Bright squares on a dark ground: corners to find.
    for (int y = 0; y < 30; ++y)
      for (int x = 0; x < 40; ++x) w.Byte((x / 8 + y / 8) % 2 ? 220 : 30);
    seeds.push_back(w.out);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_SEEDS(MakeSeeds)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  velmora::ScopedIsa isa(in.PickIsa());
  Run(in);
  return 0;
}
