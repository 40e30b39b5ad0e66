// Registration of one 1920x1080 frame end to end: the features of its half-size luma (box
// scaling, corners, descriptors), then imageRegistration_1 with matching, RANSAC, the crop and
// the warp. Once per kernel variant this machine runs; the reference's features are computed
// once, outside the loop, as a camera app keeps them.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "common/cpu.h"
#include "test_util.h"
#include "velmora/features.h"
#include "velmora/homography.h"
#include "velmora/registration.h"
#include "velmora/warp.h"
#include "velmora/yuv.h"

namespace {

using velmora::Isa;

constexpr int kW = 1920, kH = 1080;

void Features(std::vector<uint8_t>& frame, std::vector<uint8_t>& half, std::vector<Pointf>* kp,
              std::vector<float*>* desc) {
  NV12AvgScaling(frame.data(), half.data(), kW, kH, kW / 2, kH / 2);
  calImageFeatures(half.data(), *kp, *desc, kW / 2, kH / 2);
}

void RegisterFrame(benchmark::State& state) {
  const Isa isa = static_cast<Isa>(state.range(0));
  velmora::ScopedIsa forced(isa);
  std::vector<uint8_t> ref = testutil::TexturedImage(kW, kH, 5);
  ref.resize(size_t(kW) * kH * 3 / 2, 128);
  // The frame: the reference moved by a small turn and shift (the library's own warp).
  const double c = std::cos(0.003), s = std::sin(0.003);
  double g[9] = {c, -s, 2.5, s, c, -1.5, 0, 0, 1};
  std::vector<uint8_t> frame(ref.size()), dst(ref.size()), half(size_t(kW / 2) * (kH / 2));
  perspectiveWarpYUV_OP(g, ref.data(), frame.data(), kW, kH);

  std::vector<Pointf> ref_kp;
  std::vector<float*> ref_desc;
  Features(ref, half, &ref_kp, &ref_desc);
  size_t thrown = 0;
  for (auto _ : state) {
    rng = 0xFFFFFFFFFFFFFFFFull;
    std::vector<Pointf> kp;
    std::vector<float*> desc;
    Features(frame, half, &kp, &desc);
    double H[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    Rect crop{0, 0, kW, kH};
    char flag = 0;
    imageRegistration_1(frame.data(), frame.data() + kW * kH, dst.data(), dst.data() + kW * kH,
                        desc, ref_desc, kp, ref_kp, kW, kH, &flag, &crop, H);
    thrown += flag;
    for (float* d : desc) std::free(d);
    benchmark::ClobberMemory();
  }
  for (float* d : ref_desc) std::free(d);
  state.counters["thrown"] = static_cast<double>(thrown);
  state.SetLabel(velmora::IsaName(isa));
}
BENCHMARK(RegisterFrame)
    ->Apply([](benchmark::internal::Benchmark* b) {
      for (Isa isa : velmora::AvailableIsas()) b->Arg(static_cast<int64_t>(isa));
    })
    ->Unit(benchmark::kMillisecond);

}  // namespace
