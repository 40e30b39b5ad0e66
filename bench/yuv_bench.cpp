// YUV conversion and scaling on a 1920x1080 NV12 frame, each beside a plain streaming pass over
// the same bytes (the memory-bound scale of the machine, measured in the same run).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "filters/yuv_convert_kernels.h"
#include "filters/yuv_scale_kernels.h"
#include "velmora/yuv.h"

namespace velmora {
namespace {

constexpr int kWidth = 1920, kHeight = 1080;
constexpr size_t kLuma = size_t{kWidth} * kHeight;

std::vector<uint8_t> RandomFrame(size_t bytes) {
  std::mt19937 rng(11);
  std::vector<uint8_t> v(bytes);
  for (uint8_t& b : v) b = static_cast<uint8_t>(rng() >> 24);
  return v;
}

// Reads every byte of in and writes out_bytes: what any kernel over these buffers must do.
void StreamPass(const uint8_t* in, size_t in_bytes, uint8_t* out, size_t out_bytes) {
  uint64_t sum = 0;
  for (size_t i = 0; i < in_bytes; ++i) sum += in[i];
  benchmark::DoNotOptimize(sum);
  std::memset(out, static_cast<int>(sum & 0xFF), out_bytes);
}

void Nv12ToRgb(benchmark::State& state) {
  const Isa isa = static_cast<Isa>(state.range(0));
  if (!IsaAvailable(isa)) return state.SkipWithError("not available here");
  const std::vector<uint8_t> frame = RandomFrame(kLuma * 3 / 2);
  std::vector<uint8_t> r(kLuma), g(kLuma), b(kLuma);
  const YuvConvertKernels& kernels = YuvConvertKernelsFor(isa);
  for (auto _ : state) {
    ConvertYuvToRgbPlanes(kernels, true, frame.data(), frame.data() + kLuma, r.data(), g.data(),
                          b.data(), kWidth, kHeight, 0);
    benchmark::ClobberMemory();
  }
  state.SetLabel(IsaName(isa));
  state.SetBytesProcessed(state.iterations() * int64_t(kLuma * 9 / 2));
}
BENCHMARK(Nv12ToRgb)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

// The conversion's bytes: the frame read (1.5 bytes a pixel), three planes written (3).
void Nv12ToRgbStream(benchmark::State& state) {
  const std::vector<uint8_t> frame = RandomFrame(kLuma * 3 / 2);
  std::vector<uint8_t> rgb(kLuma * 3);
  for (auto _ : state) {
    StreamPass(frame.data(), frame.size(), rgb.data(), rgb.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t(kLuma * 9 / 2));
}
BENCHMARK(Nv12ToRgbStream)->Unit(benchmark::kMicrosecond);

// Scaling 1920x1080 down to range(0) x range(1) with NV12Linear on the rows of ISA range(2).
void Nv12Linear(benchmark::State& state) {
  const int dw = static_cast<int>(state.range(0)), dh = static_cast<int>(state.range(1));
  const Isa isa = static_cast<Isa>(state.range(2));
  if (!IsaAvailable(isa)) return state.SkipWithError("not available here");
  const std::vector<uint8_t> src = RandomFrame(kLuma * 3 / 2);
  std::vector<uint8_t> dst(size_t(dw) * dh * 3 / 2);
  const YuvScaleKernels& kernels = YuvScaleKernelsFor(isa);
  for (auto _ : state) {
    ResampleNv12(kernels, src.data(), dst.data(), kWidth, kHeight, dw, dh, true);
    benchmark::ClobberMemory();
  }
  state.SetLabel(IsaName(isa));
  state.SetBytesProcessed(state.iterations() * int64_t(src.size() + dst.size()));
}
BENCHMARK(Nv12Linear)->Args({1280, 720, 0})->Args({1280, 720, 1})->Unit(benchmark::kMicrosecond);

void Nv12AvgScaling(benchmark::State& state) {
  const int dw = static_cast<int>(state.range(0)), dh = static_cast<int>(state.range(1));
  std::vector<uint8_t> src = RandomFrame(kLuma * 3 / 2);
  std::vector<uint8_t> dst(size_t(dw) * dh * 3 / 2);
  for (auto _ : state) {
    NV12AvgScaling(src.data(), dst.data(), kWidth, kHeight, dw, dh);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t(src.size() + dst.size()));
}
BENCHMARK(Nv12AvgScaling)->Args({960, 540})->Unit(benchmark::kMicrosecond);

// The streaming pass over a whole source frame and a destination frame of range(0) x range(1).
void ScaleStream(benchmark::State& state) {
  const size_t dst_bytes = size_t(state.range(0)) * state.range(1) * 3 / 2;
  const std::vector<uint8_t> src = RandomFrame(kLuma * 3 / 2);
  std::vector<uint8_t> dst(dst_bytes);
  for (auto _ : state) {
    StreamPass(src.data(), src.size(), dst.data(), dst.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * int64_t(src.size() + dst.size()));
}
BENCHMARK(ScaleStream)->Args({1280, 720})->Args({960, 540})->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace velmora
