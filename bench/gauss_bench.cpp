// The 3x3 blurs over whole planes, per kernel variant, beside a plain streaming pass that reads
// the same source bytes and writes as many: the memory's pace, to hold the blur against.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "filters/gauss_kernels.h"

namespace velmora {
namespace {

template <typename T>
std::vector<T> RandomPlane(size_t count) {
  std::mt19937 rng(9);
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<T> plane(count);
  for (auto& v : plane) v = static_cast<T>(byte(rng));
  return plane;
}

template <typename T>
void BlurPlane(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const Isa isa = static_cast<Isa>(state.range(2));
  const size_t count = static_cast<size_t>(width) * height;
  const std::vector<T> src = RandomPlane<T>(count);
  std::vector<T> dst(count);
  const GaussKernels& kernels = GaussKernelsFor(isa);
  for (auto _ : state) {
    GaussBlurPlane(kernels, src.data(), dst.data(), width, height);
    benchmark::ClobberMemory();
  }
  state.SetLabel(IsaName(isa));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(count * sizeof(T)));
}

// Every source byte read once and a destination of the same size written: a copy.
template <typename T>
void StreamPlane(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0)) * state.range(1);
  const std::vector<T> src = RandomPlane<T>(count);
  std::vector<T> dst(count);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), count * sizeof(T));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(count * sizeof(T)));
}

void PlanesAndIsas(benchmark::internal::Benchmark* b) {
  for (Isa isa : AvailableIsas()) b->Args({1920, 1080, static_cast<int64_t>(isa)});
  b->ArgNames({"width", "height", "isa"})->Unit(benchmark::kMicrosecond)->UseRealTime();
}

void Planes(benchmark::internal::Benchmark* b) {
  b->Args({1920, 1080})->ArgNames({"width", "height"});
  b->Unit(benchmark::kMicrosecond)->UseRealTime();
}

BENCHMARK_TEMPLATE(BlurPlane, uint8_t)->Apply(PlanesAndIsas);
BENCHMARK_TEMPLATE(StreamPlane, uint8_t)->Apply(Planes);
BENCHMARK_TEMPLATE(BlurPlane, float)->Apply(PlanesAndIsas);
BENCHMARK_TEMPLATE(StreamPlane, float)->Apply(Planes);

}  // namespace
}  // namespace velmora
