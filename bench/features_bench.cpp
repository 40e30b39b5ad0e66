// The corner detector on photograph-like images, per kernel variant, beside a literal rendering
// of its rule (full-size maps, one plain pass per step) measured in the same run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "common/cpu.h"
#include "registration/corners.h"
#include "test_util.h"
#include "velmora/features.h"

namespace velmora {
namespace {

// The detector exactly as its rule reads: every map at full size, one plain pass per step.
void LiteralCorners(const uint8_t* img, std::vector<Pointf>& corners, int width, int height,
                    int maxCorners, double qualityLevel, int minDistance, int blockSize) {
  const size_t n = static_cast<size_t>(width) * height;
  int* dx = static_cast<int*>(std::calloc(n, sizeof(int)));
  int* dy = static_cast<int*>(std::calloc(n, sizeof(int)));
  auto I = [&](int x, int y) { return static_cast<int>(img[static_cast<size_t>(y) * width + x]); };
  if (height - 1 > 1 && width - 1 > 1) {
    for (int y = 1; y < height - 1; ++y) {
      for (int x = 1; x < width - 1; ++x) {
        dx[y * width + x] = I(x + 1, y - 1) + 2 * I(x + 1, y) + I(x + 1, y + 1) - I(x - 1, y - 1) -
                            2 * I(x - 1, y) - I(x - 1, y + 1);
        dy[y * width + x] = I(x - 1, y + 1) + 2 * I(x, y + 1) + I(x + 1, y + 1) - I(x - 1, y - 1) -
                            2 * I(x, y - 1) - I(x + 1, y - 1);
      }
    }
  }
  float* dxx = static_cast<float*>(std::malloc(n * sizeof(float)));
  float* dxy = static_cast<float*>(std::malloc(n * sizeof(float)));
  float* dyy = static_cast<float*>(std::malloc(n * sizeof(float)));
  const double s = 1.0 / (blockSize * 4.0 * 255.0);
  const double scale = s * s;
  for (size_t i = 0; i < n; ++i) {
    dxx[i] = static_cast<float>((scale * dx[i]) * dx[i]);
    dxy[i] = static_cast<float>((scale * dx[i]) * dy[i]);
    dyy[i] = static_cast<float>(scale * dy[i] * dy[i]);
  }
  float* response = static_cast<float*>(std::calloc(n, sizeof(float)));
  for (int y = 1; y < height - 1; ++y) {
    for (int x = 1; x < width - 1; ++x) {
      float a = 0, b = 0, c = 0;
      for (int ox = 1; ox >= -1; --ox) {
        for (int oy = -1; oy <= 1; ++oy) {
          const size_t at = static_cast<size_t>(y + oy) * width + x + ox;
          a += dxx[at];
          b += dxy[at];
          c += dyy[at];
        }
      }
      const float h = a * 0.5f, k = c * 0.5f;
      response[static_cast<size_t>(y) * width + x] = (h + k) - std::sqrt(b * b + (h - k) * (h - k));
    }
  }
  std::free(dx);
  std::free(dy);
  std::free(dxx);
  std::free(dxy);
  std::free(dyy);
  float maximum = response[0];
  for (size_t i = 1; i < n; ++i) {
    if (response[i] > maximum) maximum = response[i];
  }
  const float threshold = static_cast<float>(maximum * qualityLevel);
  for (size_t i = 0; i < n; ++i) {
    if (response[i] <= threshold) response[i] = 0;
  }
  float* dilated = static_cast<float*>(std::malloc(n * sizeof(float)));
  for (int y = 1; y < height - 1; ++y) {
    for (int x = 1; x < width - 1; ++x) {
      float m = response[static_cast<size_t>(y - 1) * width + x + 1];
      const int order[8][2] = {{1, 0}, {1, 1}, {0, -1}, {0, 0}, {0, 1}, {-1, -1}, {-1, 0}, {-1, 1}};
      for (const auto& o : order) {
        const float v = response[static_cast<size_t>(y + o[1]) * width + x + o[0]];
        if (m < v) m = v;
      }
      dilated[static_cast<size_t>(y) * width + x] = m;
    }
  }
  std::vector<Pointd> candidates;
  for (int y = 1; y < height - 1; ++y) {
    for (int x = 1; x < width - 1; ++x) {
      const float r = response[static_cast<size_t>(y) * width + x];
      if (r != 0 && r == dilated[static_cast<size_t>(y) * width + x]) {
        candidates.push_back({y, x, r});
      }
    }
  }
  std::free(dilated);
  std::free(response);
  std::sort(candidates.begin(), candidates.end(), greaterThanPtr);
  if (minDistance <= 0) return;
  const int gw = (width + minDistance - 1) / minDistance;
  const int gh = (height + minDistance - 1) / minDistance;
  std::vector<std::vector<Pointf>> grid(static_cast<size_t>(gw) * gh);
  int count = 0;
  for (const Pointd& p : candidates) {
    const int cx = p.x / minDistance, cy = p.y / minDistance;
    bool good = true;
    for (int yy = std::max(cy - 1, 0); yy <= std::min(cy + 1, gh - 1); ++yy) {
      for (int xx = std::max(cx - 1, 0); xx <= std::min(cx + 1, gw - 1); ++xx) {
        for (const Pointf& q : grid[static_cast<size_t>(yy) * gw + xx]) {
          const int ddx = p.x - q.x, ddy = p.y - q.y;
          if (static_cast<unsigned>(ddx * ddx + ddy * ddy) <
              static_cast<unsigned>(minDistance * minDistance)) {
            good = false;
          }
        }
      }
    }
    if (!good) continue;
    grid[static_cast<size_t>(cy) * gw + cx].push_back({p.x, p.y});
    corners.push_back({p.x, p.y});
    if (maxCorners > 0 && ++count == maxCorners) break;
  }
}

constexpr int kMaxCorners = 500;
constexpr double kQuality = 0.01;
constexpr int kMinDistance = 60;
constexpr int kBlockSize = 3;

void Finish(benchmark::State& state, int width, int height, size_t corners, const char* label) {
  state.SetLabel(label);
  state.SetItemsProcessed(state.iterations() * width * height);
  state.counters["corners"] = static_cast<double>(corners);
}

// Arguments: width, height, ISA.
void Corners(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const Isa isa = static_cast<Isa>(state.range(2));
  const std::vector<uint8_t> img = testutil::TexturedImage(width, height, 7);
  std::vector<Pointf> corners;
  for (auto _ : state) {
    corners.clear();
    DetectCorners(CornerKernelsFor(isa), img.data(), corners, width, height, kMaxCorners,
                  kQuality, kMinDistance, kBlockSize);
    benchmark::DoNotOptimize(corners.data());
  }
  Finish(state, width, height, corners.size(), IsaName(isa));
}

void CornersLiteral(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const std::vector<uint8_t> img = testutil::TexturedImage(width, height, 7);
  std::vector<Pointf> corners;
  for (auto _ : state) {
    corners.clear();
    LiteralCorners(img.data(), corners, width, height, kMaxCorners, kQuality, kMinDistance,
                   kBlockSize);
    benchmark::DoNotOptimize(corners.data());
  }
  Finish(state, width, height, corners.size(), "literal");
}

void Sizes(benchmark::internal::Benchmark* b, bool per_isa) {
  for (const auto& size : {std::pair<int, int>{960, 540}, std::pair<int, int>{1920, 1080}}) {
    if (!per_isa) {
      b->Args({size.first, size.second});
      continue;
    }
    for (Isa isa : AvailableIsas()) b->Args({size.first, size.second, static_cast<int>(isa)});
  }
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(CornersLiteral)->Apply([](benchmark::internal::Benchmark* b) { Sizes(b, false); });
BENCHMARK(Corners)->Apply([](benchmark::internal::Benchmark* b) { Sizes(b, true); });

}  // namespace
}  // namespace velmora
