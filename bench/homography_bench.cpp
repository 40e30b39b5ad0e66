// Homography estimation: the whole RANSAC estimate on planted correspondences, and the kernel
// alone on a minimal subset and on a large inlier set. Scalar code only; the generator state is
// set before every estimate so that each run does the same work.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "velmora/homography.h"

namespace {

const double kTrue[9] = {1.08, -0.19, 25.0, 0.19, 1.08, -12.0, 2e-4, -1e-4, 1.0};

struct Pairs {
  std::vector<Point2D64f> src, dst;
};

// Pairs under kTrue with half a pixel of noise; a share of them moved 20 to 200 pixels away.
Pairs MakePairs(int count, double outlier_share) {
  std::mt19937 gen(7);
  std::uniform_real_distribution<double> px(0.0, 640.0), py(0.0, 480.0), jitter(-0.5, 0.5);
  std::uniform_real_distribution<double> far(20.0, 200.0), angle(0.0, 6.283185307179586);
  Pairs p;
  for (int i = 0; i < count; ++i) {
    const double x = px(gen), y = py(gen);
    const double w = kTrue[6] * x + kTrue[7] * y + kTrue[8];
    Point2D64f d = {(kTrue[0] * x + kTrue[1] * y + kTrue[2]) / w + jitter(gen),
                    (kTrue[3] * x + kTrue[4] * y + kTrue[5]) / w + jitter(gen)};
    if (i % 100 < outlier_share * 100) {
      const double r = far(gen), a = angle(gen);
      d.x += r * std::cos(a);
      d.y += r * std::sin(a);
    }
    p.src.push_back({x, y});
    p.dst.push_back(d);
  }
  return p;
}

void FindHomography(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const Pairs p = MakePairs(count, state.range(1) / 100.0);
  double h[9];
  for (auto _ : state) {
    rng = 0xFFFFFFFFFFFFFFFFull;
    benchmark::DoNotOptimize(findHomography(p.src, p.dst, h, 3.0, count));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(FindHomography)->ArgNames({"pairs", "outlier%"})->Args({500, 50})->Args({100, 10})
    ->Unit(benchmark::kMicrosecond);

void RunKernel(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  Pairs p = MakePairs(count, 0.0);
  double h[9];
  for (auto _ : state) {
    benchmark::DoNotOptimize(runKernel(count, p.src.data(), p.dst.data(), h));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(RunKernel)->ArgName("pairs")->Arg(4)->Arg(500)->Unit(benchmark::kMicrosecond);

}  // namespace
