// Features: calImageFeatures on photograph-sized frames and findMatch on 500 x 500 descriptors,
// per kernel variant, each beside a literal rendering of the rule in the same run (a float copy
// of the image, calcDescriptor per keypoint; a double sum per pair written out in place).
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "registration/corners.h"
#include "registration/descriptors.h"
#include "registration/match.h"
#include "test_util.h"
#include "velmora/features.h"

namespace velmora {
namespace {

void FreeAll(std::vector<float*>& descriptors) {
  for (float* d : descriptors) std::free(d);
  descriptors.clear();
}

// calImageFeatures as the rule reads: private copy, scalar detector, one malloc per descriptor,
// a float image, calcDescriptor per keypoint.
void LiteralImageFeatures(const unsigned char* img, std::vector<Pointf>& keypoints,
                          std::vector<float*>& descriptors, int width, int height) {
  const size_t pixels = static_cast<size_t>(width) * height;
  unsigned char* copy = static_cast<unsigned char*>(std::malloc(pixels));
  std::memcpy(copy, img, pixels);
  // The detector's plain scalar definition; its own literal rendering lives with its benchmark.
  DetectCorners(CornerKernelsFor(Isa::kScalar), copy, keypoints, width, height, 500, 0.01, 60, 3);
  descriptors.resize(keypoints.size());
  for (float*& slot : descriptors) slot = static_cast<float*>(std::malloc(256));
  float* gray = static_cast<float*>(std::malloc(pixels * sizeof(float)));
  for (size_t i = 0; i < pixels; ++i) gray[i] = copy[i];
  for (size_t i = 0; i < keypoints.size(); ++i) {
    calcDescriptor(gray, keypoints[i], 4, 4, descriptors[i], width, height);
  }
  std::free(gray);
  std::free(copy);
}

// Arguments: width, height, variant (-1: the literal rendering).
void ImageFeaturesBench(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  const int variant = static_cast<int>(state.range(2));
  std::vector<uint8_t> img = testutil::TexturedImage(w, h, 1);
  std::vector<Pointf> keypoints;
  std::vector<float*> descriptors;
  for (auto _ : state) {
    keypoints.clear();
    if (variant < 0) {
      LiteralImageFeatures(img.data(), keypoints, descriptors, w, h);
    } else {
      ImageFeatures(img.data(), true, 60, keypoints, descriptors, w, h, static_cast<Isa>(variant));
    }
    state.PauseTiming();
    FreeAll(descriptors);
    state.ResumeTiming();
  }
  state.SetLabel(variant < 0 ? "literal" : IsaName(static_cast<Isa>(variant)));
  state.counters["keypoints"] = static_cast<double>(keypoints.size());
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(w) * h);
}

// The descriptor share alone: 500 keypoints on a grid, the float image and calcDescriptor per
// keypoint (literal) against the batch path.
void DescribeBench(benchmark::State& state) {
  const int w = 960, h = 540;
  const int variant = static_cast<int>(state.range(0));
  std::vector<uint8_t> img = testutil::TexturedImage(w, h, 2);
  std::vector<Pointf> keypoints;
  for (int y = 0; y < 20; ++y) {
    for (int x = 0; x < 25; ++x) keypoints.push_back(Pointf{20 + x * 37, 15 + y * 26});
  }
  std::vector<float> out(keypoints.size() * 64);
  std::vector<float*> slots;
  for (size_t i = 0; i < keypoints.size(); ++i) slots.push_back(out.data() + i * 64);
  std::vector<float> gray(img.size());
  for (auto _ : state) {
    if (variant < 0) {
      for (size_t i = 0; i < img.size(); ++i) gray[i] = img[i];
      for (size_t i = 0; i < keypoints.size(); ++i) {
        calcDescriptor(gray.data(), keypoints[i], 4, 4, slots[i], w, h);
      }
    } else {
      DescribeKeypoints(img.data(), keypoints, slots, w, h,
                        GradientKernelsFor(static_cast<Isa>(variant)));
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetLabel(variant < 0 ? "literal" : IsaName(static_cast<Isa>(variant)));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keypoints.size()));
}

// findMatch as the rule reads, the distance written out inside the loop.
void LiteralFindMatch(std::vector<float*>& first, std::vector<float*>& second,
                      std::vector<Match>& matches) {
  if (first.empty() || second.empty()) {
    std::puts("Error! Generated descriptor size can not be null. please check.");
    return;
  }
  for (size_t i = 0; i < first.size(); ++i) {
    float best = 3.4028235e38f;
    int best_index = 0;
    for (size_t j = 0; j < second.size(); ++j) {
      double sum = 0.0;
      for (int k = 0; k < 64; ++k) {
        const float diff = first[i][k] - second[j][k];
        sum += diff * diff;
      }
      const float d = std::sqrt(static_cast<float>(sum));
      if (d < best) {
        best = d;
        best_index = static_cast<int>(j);
      }
    }
    matches.push_back(Match{static_cast<int>(i), best_index, best});
  }
}

// Argument: variant (-1: the literal rendering).
void FindMatchBench(benchmark::State& state) {
  const int variant = static_cast<int>(state.range(0));
  const int count = 500;
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 255.0f);
  std::vector<float> values(2 * count * 64);
  for (float& v : values) v = u(rng);
  std::vector<float*> first, second;
  for (int i = 0; i < count; ++i) {
    first.push_back(values.data() + i * 64);
    second.push_back(values.data() + (count + i) * 64);
  }
  std::vector<Match> matches;
  matches.reserve(count);
  for (auto _ : state) {
    matches.clear();
    if (variant < 0) {
      LiteralFindMatch(first, second, matches);
    } else {
      FindMatches(first, second, matches, MatchKernelsFor(static_cast<Isa>(variant)));
    }
    benchmark::DoNotOptimize(matches.data());
  }
  state.SetLabel(variant < 0 ? "literal" : IsaName(static_cast<Isa>(variant)));
  state.SetItemsProcessed(state.iterations() * count * count);
}

void Variants(benchmark::internal::Benchmark* b, std::vector<int64_t> leading) {
  std::vector<int64_t> args = leading;
  args.push_back(-1);
  b->Args(args);
  for (Isa isa : AvailableIsas()) {
    args.back() = static_cast<int64_t>(isa);
    b->Args(args);
  }
}

BENCHMARK(ImageFeaturesBench)
    ->Apply([](benchmark::internal::Benchmark* b) {
      Variants(b, {960, 540});
      Variants(b, {1920, 1080});
    })
    ->Unit(benchmark::kMillisecond);
BENCHMARK(DescribeBench)
    ->Apply([](benchmark::internal::Benchmark* b) { Variants(b, {}); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK(FindMatchBench)
    ->Apply([](benchmark::internal::Benchmark* b) { Variants(b, {}); })
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmora
