// The pipeline's per-pixel work on whole NV12 frames, per kernel variant: folding a frame into the
// running mean, and the result output (conversion to bytes and the in-place sharpen). A plain
// streaming pass over the bytes of a fold gives the memory-bound scale to compare the fold with.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "filters/sharpen_kernels.h"
#include "pipeline/mean_kernels.h"

namespace velmora {
namespace {

// Bytes a fold moves per mean entry: the double read and written, and the sample read.
constexpr int64_t kFoldBytesPerEntry = 2 * sizeof(double) + 1;

// A frame's means and its next sample, luma and chroma. The scene is smooth with some noise, so
// that the sharpen meets both flat areas and edges.
struct FrameData {
  FrameData(int width, int height)
      : luma(static_cast<size_t>(width) * height),
        chroma(luma / 2),
        mean(luma + chroma),
        sample(luma + chroma) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> noise(-3.0, 3.0);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int r = 0; r < height; ++r) {
      for (int x = 0; x < width; ++x) {
        mean[static_cast<size_t>(r) * width + x] =
            128.0 + 100.0 * std::sin(x * 0.01) * std::cos(r * 0.013) + noise(rng);
      }
    }
    for (size_t i = luma; i < mean.size(); ++i) mean[i] = 128.0 + noise(rng) * 10.0;
    for (auto& s : sample) s = static_cast<uint8_t>(byte(rng));
  }
  int64_t entries() const { return static_cast<int64_t>(mean.size()); }

  size_t luma, chroma;
  std::vector<double> mean;  // luma means, then chroma means
  std::vector<uint8_t> sample;
};

Isa IsaArg(const benchmark::State& state) { return static_cast<Isa>(state.range(2)); }

void FoldFrame(benchmark::State& state) {
  const Isa isa = IsaArg(state);
  FrameData f(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const AccumulateMeanFn accumulate = MeanKernelsFor(isa).accumulate;
  const int32_t n = 9;  // a frame well into a run; the means stay in range
  for (auto _ : state) {
    accumulate(f.mean.data(), f.sample.data(), static_cast<int64_t>(f.luma), n);
    accumulate(f.mean.data() + f.luma, f.sample.data() + f.luma, static_cast<int64_t>(f.chroma), n);
    benchmark::ClobberMemory();
  }
  state.SetLabel(IsaName(isa));
  state.SetBytesProcessed(state.iterations() * f.entries() * kFoldBytesPerEntry);
  state.SetItemsProcessed(state.iterations() * f.entries());
}

// The bytes of a fold with the least arithmetic that needs them all: the memory's pace. Built for
// AVX2 where the machine has it, so that the byte-to-double conversion of the baseline ISA does
// not slow the scale down.
void StreamPassBaseline(double* mean, const uint8_t* sample, int64_t count) {
  for (int64_t i = 0; i < count; ++i) mean[i] = 0.5 * (mean[i] + sample[i]);  // stays in range
}
#if defined(__x86_64__)
__attribute__((target("avx2"))) void StreamPassAvx2(double* mean, const uint8_t* sample,
                                                    int64_t count) {
  for (int64_t i = 0; i < count; ++i) mean[i] = 0.5 * (mean[i] + sample[i]);
}
#endif

void StreamFrame(benchmark::State& state) {
  FrameData f(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  auto pass = StreamPassBaseline;
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2")) pass = StreamPassAvx2;
#endif
  for (auto _ : state) {
    pass(f.mean.data(), f.sample.data(), f.entries());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * f.entries() * kFoldBytesPerEntry);
  state.SetItemsProcessed(state.iterations() * f.entries());
}

void ResultOutput(benchmark::State& state) {
  const Isa isa = IsaArg(state);
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  FrameData f(width, height);
  std::vector<uint8_t> y(f.luma), uv(f.chroma);
  const MeanToBytesFn to_bytes = MeanKernelsFor(isa).to_bytes;
  const SharpenKernels& sharpen = SharpenKernelsFor(isa);
  for (auto _ : state) {
    to_bytes(f.mean.data(), y.data(), static_cast<int64_t>(f.luma));
    to_bytes(f.mean.data() + f.luma, uv.data(), static_cast<int64_t>(f.chroma));
    sharpenFilter(sharpen, y.data(), uv.data(), y.data(), uv.data(), width, height, 2, 1.0f);
    benchmark::ClobberMemory();
  }
  state.SetLabel(IsaName(isa));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(f.luma));  // pixels
}

void FramesAndIsas(benchmark::internal::Benchmark* b) {
  for (auto size : {std::pair{1920, 1080}, std::pair{4000, 3000}}) {
    for (Isa isa : AvailableIsas()) b->Args({size.first, size.second, static_cast<int64_t>(isa)});
  }
  b->ArgNames({"width", "height", "isa"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

void Frames(benchmark::internal::Benchmark* b) {
  b->Args({1920, 1080})->Args({4000, 3000})->ArgNames({"width", "height"});
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(FoldFrame)->Apply(FramesAndIsas);
BENCHMARK(StreamFrame)->Apply(Frames);
BENCHMARK(ResultOutput)->Apply(FramesAndIsas);

}  // namespace
}  // namespace velmora
