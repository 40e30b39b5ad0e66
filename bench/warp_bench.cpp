// The frame warps on a 1080p NV12 frame through a realistic registration homography (a few pixels
// of shift, a fraction of a degree of rotation, a trace of perspective), per kernel variant.
// Beside them: the split warp written literally (six full planes, three whole-plane warps, a 2x2
// mean), and a plain copy of the frame as the memory-bound scale.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "registration/warp_kernels.h"
#include "test_util.h"

namespace velmora {
namespace {

constexpr int kWidth = 1920, kHeight = 1080;

// A photograph-like luma plane and a chroma plane of mild colour noise around grey.
struct Frame {
  Frame() : src(testutil::TexturedImage(kWidth, kHeight, 11)) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> noise(-32, 32);
    src.resize(size_t{kWidth} * kHeight * 3 / 2);
    for (size_t i = size_t{kWidth} * kHeight; i < src.size(); ++i) src[i] = 128 + noise(rng);
    dst.resize(src.size());
  }
  std::vector<uint8_t> src, dst;
};

// 0.3 degrees of rotation, a shift of (3.2, -2.1) pixels and a slight perspective; at half
// resolution for the split family, which doubles the translation on the way.
std::vector<double> Homography(bool half_resolution) {
  const double a = 0.3 * 3.14159265358979 / 180.0, c = std::cos(a), s = std::sin(a);
  const double k = half_resolution ? 0.5 : 1.0;
  return {c, -s, 3.2 * k, s, c, -2.1 * k, 2e-6 / k, -1e-6 / k, 1.0};
}

void SetPixels(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.SetBytesProcessed(state.iterations() * int64_t{kWidth} * kHeight * 3);
}

// The split warp as its rule reads, pixel by pixel over whole planes.
void LiteralSplit(const double* H, const uint8_t* src, uint8_t* dst, int w, int h) {
  const size_t n = static_cast<size_t>(w) * h;
  uint8_t* luma = static_cast<uint8_t*>(std::malloc(n));
  uint8_t* c[2] = {static_cast<uint8_t*>(std::malloc(n)), static_cast<uint8_t*>(std::malloc(n))};
  uint8_t* out[3] = {static_cast<uint8_t*>(std::malloc(n)), static_cast<uint8_t*>(std::malloc(n)),
                     static_cast<uint8_t*>(std::malloc(n))};
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      luma[y * w + x] = src[y * w + x];
      c[0][y * w + x] = src[n + (y / 2) * w + (x & ~1)];
      c[1][y * w + x] = src[n + (y / 2) * w + (x & ~1) + 1];
    }
  }
  for (int plane = 0; plane < 3; ++plane) {
    const uint8_t* in = plane == 0 ? luma : c[plane - 1];
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const double hx = x * 0.5, hy = y * 0.5;
        const double wd = H[8] + (H[6] * hx + H[7] * hy);
        const double sx = 2 * ((H[2] + (H[0] * hx + H[1] * hy)) / wd);
        const double sy = 2 * ((H[5] + (H[3] * hx + H[4] * hy)) / wd);
        uint8_t v = 255;
        if (plane == 0 && sx >= 0 && sx <= w - 1 && sy >= 0 && sy <= h - 1) {
          const int x0 = static_cast<int>(std::floor(sx)), y0 = static_cast<int>(std::floor(sy));
          const int x1 = std::min(x0 + 1, w - 1), y1 = std::min(y0 + 1, h - 1);
          const uint32_t wx = static_cast<int>((sx - x0) * 2048);
          const uint32_t wy = static_cast<int>((sy - y0) * 2048);
          v = static_cast<uint8_t>((((2048 - wy) * in[y0 * w + x0] + wy * in[y1 * w + x0]) *
                                        (2048 - wx) +
                                    ((2048 - wy) * in[y0 * w + x1] + wy * in[y1 * w + x1]) * wx) >>
                                   22);
        } else if (plane > 0) {
          const double rx = std::round(sx), ry = std::round(sy);
          if (rx >= 0 && rx < w && ry >= 0 && ry < h) v = in[static_cast<int>(ry) * w + static_cast<int>(rx)];
        }
        out[plane][y * w + x] = v;
      }
    }
  }
  std::memcpy(dst, out[0], n);
  for (int y = 0; y < h; y += 2) {
    for (int x = 0; x < w; x += 2) {
      for (int b = 0; b < 2; ++b) {
        const uint8_t* p = out[1 + b];
        dst[n + (y / 2) * w + x + b] =
            (p[y * w + x] + p[y * w + x + 1] + p[(y + 1) * w + x] + p[(y + 1) * w + x + 1]) >> 2;
      }
    }
  }
  for (uint8_t* p : {luma, c[0], c[1], out[0], out[1], out[2]}) std::free(p);
}

void WarpYuvOpLiteral(benchmark::State& state) {
  Frame f;
  const std::vector<double> H = Homography(true);
  for (auto _ : state) {
    LiteralSplit(H.data(), f.src.data(), f.dst.data(), kWidth, kHeight);
    benchmark::ClobberMemory();
  }
  SetPixels(state);
}

void WarpYuvOp(benchmark::State& state) {
  const WarpKernels& k = WarpKernelsFor(static_cast<Isa>(state.range(0)));
  Frame f;
  const std::vector<double> H = Homography(true);
  const size_t n = size_t{kWidth} * kHeight;
  for (auto _ : state) {
    WarpYuvSplit(k, H.data(), f.src.data(), f.src.data() + n, f.dst.data(), f.dst.data() + n,
                 kWidth, kHeight);
    benchmark::ClobberMemory();
  }
  SetPixels(state);
}

// perspectiveWarpYUV; on the scalar table it is the rule written out row by row.
void WarpYuvDirectFrame(benchmark::State& state) {
  const WarpKernels& k = WarpKernelsFor(static_cast<Isa>(state.range(0)));
  Frame f;
  const std::vector<double> H = Homography(false);
  for (auto _ : state) {
    WarpYuvDirect(k, H.data(), f.src.data(), f.dst.data(), kWidth, kHeight, false);
    benchmark::ClobberMemory();
  }
  SetPixels(state);
}

void CopyFrame(benchmark::State& state) {
  Frame f;
  for (auto _ : state) {
    std::memcpy(f.dst.data(), f.src.data(), f.src.size());
    benchmark::ClobberMemory();
  }
  SetPixels(state);
}

void PerIsa(benchmark::internal::Benchmark* b) {
  for (Isa isa : AvailableIsas()) b->Arg(static_cast<int>(isa));
  b->ArgName("isa")->Unit(benchmark::kMillisecond);
}

BENCHMARK(WarpYuvOpLiteral)->Unit(benchmark::kMillisecond);
BENCHMARK(WarpYuvOp)->Apply(PerIsa);
BENCHMARK(WarpYuvDirectFrame)->Apply(PerIsa);
BENCHMARK(CopyFrame)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmora
