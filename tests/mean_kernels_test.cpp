// The choice of kernel variant every family relies on, and the running-mean kernels: golden values
// of the scalar definitions, the vector variants against them through the conformance harness.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "common/dispatch.h"
#include "kernel_conformance.h"
#include "pipeline/mean_kernels.h"
#include "test_util.h"

namespace velmora {
namespace {

// An override not restored (or not nested), or a variant picked where it is not built or not run.
TEST(Dispatch, ScopedIsaNestsAndRestoresAndPickTakesOnlyVariantsBuiltAndRunnable) {
  const Isa before = ActiveIsa();
  {
    const ScopedIsa outer(Isa::kScalar);
    for (Isa isa : AvailableIsas()) {
      const ScopedIsa inner(isa);
      EXPECT_EQ(ActiveIsa(), isa);
    }
    EXPECT_EQ(ActiveIsa(), Isa::kScalar);
  }
  EXPECT_EQ(ActiveIsa(), before);
  const int variant[] = {0, 1, 2};  // scalar, avx2, neon
  const IsaTable<int> full{&variant[0], &variant[1], &variant[2]}, plain{&variant[0], {}, {}};
  for (Isa isa : {Isa::kScalar, Isa::kAvx2, Isa::kNeon}) {
    EXPECT_EQ(Pick(full, isa), IsaAvailable(isa) ? static_cast<int>(isa) : 0) << IsaName(isa);
    EXPECT_EQ(Pick(plain, isa), 0) << IsaName(isa);
  }
}

TEST(MeanDefinitions, FoldWithTwoDivisionsAndOneAdditionAndTruncateToTheLowByte) {
  const struct {
    double mean;
    uint8_t sample;
    int32_t n;
    double expected;
  } folds[] = {
      {0.0, 255, 1, 127.5},     // two frames 0 and 255
      {255.0, 0, 1, 127.5},     // the same two frames the other way round
      {37.25, 100, 0, 100.0},   // the first frame of a run replaces the mean
      {0.0, 255, 2, 85.0},      // frames 0, 0, 255
      {200.0, 200, 41, 200.0},  // a constant scene stays put
      // One division of (mean * n + sample), or a reciprocal, gives 93.2 and 94.63333333333333.
      {68.0, 194, 4, 0x1.74cccccccccccp+6},
      {87.45, 109, 2, 0x1.7a88888888889p+6},
  };
  for (const auto& c : folds) {
    double mean = c.mean;
    scalar::AccumulateMean(&mean, &c.sample, 1, c.n);
    EXPECT_EQ(mean, c.expected) << "mean " << c.mean << " sample " << int{c.sample} << " n " << c.n;
  }
  // Truncated toward zero, the low byte of the int32 kept: no rounding, no clamping.
  const double means[] = {127.9, 127.5, 0.999, 255.0, 254.99999, -0.7, -0.0, 256.0, 300.7, -1.0,
                          -255.5, 65791.2};
  const uint8_t bytes[] = {127, 127, 0, 255, 254, 0, 0, 0, 44, 255, 1, 255};
  uint8_t out[std::size(means)];
  scalar::MeanToBytes(means, out, std::size(means));
  for (size_t i = 0; i < std::size(means); ++i) EXPECT_EQ(out[i], bytes[i]) << "mean " << means[i];
}

// Fold inputs: means in range with the odd special value, and every fold count that changes the
// path (a negative n divides by zero or a negative total); conversion inputs: means in range,
// integers and their neighbours, and values whose int32 needs the low byte taken (beyond int32
// the language leaves the conversion undefined).
struct MeanFamily {
  static constexpr const char* kName = "Mean";
  using Kernels = MeanKernels;
  static const Kernels& For(Isa isa) { return MeanKernelsFor(isa); }

  struct Case {
    std::vector<double> fold_means;
    std::vector<uint8_t> sample;
    std::vector<double> byte_means;
  };
  static Case Make(int width, int height, uint32_t seed) {
    const size_t count = static_cast<size_t>(width) * height;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> in_range(0.0, 255.0), wide(-2147483647.0, 2147483647.0);
    const double specials[] = {-0.0, INFINITY, NAN, 4.9e-324, 1e308, -3.5};
    Case c{std::vector<double>(count), testutil::RandomBytes(count, seed),
           std::vector<double>(count)};
    for (size_t i = 0; i < count; ++i) {
      c.fold_means[i] = i % 5 == 0 && i / 5 < 6 ? specials[i / 5] : in_range(rng);
      const double integer = static_cast<double>(static_cast<int>(rng() % 601) - 300);
      const uint32_t pick = rng() % 4;
      c.byte_means[i] = pick == 0   ? wide(rng)
                        : pick == 1 ? std::nextafter(integer, rng() % 2 ? -1e3 : 1e3)
                                    : in_range(rng) * (256.0 / 255.0);
    }
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const int64_t count = static_cast<int64_t>(c.sample.size());
    std::vector<uint8_t> out;
    for (int32_t n : {0, 1, 2, 6, 7, 254, 100000, INT32_MAX, -1, -2, INT32_MIN}) {
      std::vector<double> mean = c.fold_means;
      k.accumulate(mean.data(), c.sample.data(), count, n);
      AppendBytes(out, mean);
    }
    std::vector<uint8_t> bytes(c.byte_means.size(), 0x5A);
    k.to_bytes(c.byte_means.data(), bytes.data(), count);
    AppendBytes(out, bytes);
    return out;
  }
};

TEST_P(KernelConformance, Mean) { ExpectMatchesScalar<MeanFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
