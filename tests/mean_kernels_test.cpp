// The running-mean kernels: golden values of the scalar definitions, and the vector variants
// against them through the conformance harness.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kernel_conformance.h"
#include "pipeline/mean_kernels.h"
#include "test_util.h"

namespace velmora {
namespace {

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
      // A single division of (mean * n + sample), or a reciprocal, gives 93.2 and 94.63333333333333.
      {68.0, 194, 4, 0x1.74cccccccccccp+6},
      {87.45, 109, 2, 0x1.7a88888888889p+6},
  };
  for (const auto& c : folds) {
    double mean = c.mean;
    scalar::AccumulateMean(&mean, &c.sample, 1, c.n);
    EXPECT_EQ(mean, c.expected) << "mean " << c.mean << " sample " << int{c.sample} << " n " << c.n;
  }
  const double means[] = {127.9, 127.5, 0.999, 255.0, 254.99999, -0.7, -0.0,
                          256.0, 300.7, -1.0,  -255.5, 65791.2};
  const uint8_t bytes[] = {127, 127, 0, 255, 254, 0, 0, 0, 44, 255, 1, 255};
  for (size_t i = 0; i < std::size(means); ++i) {
    uint8_t out = 0xAA;
    scalar::MeanToBytes(&means[i], &out, 1);
    EXPECT_EQ(int{out}, int{bytes[i]}) << "mean " << means[i];
  }
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
    using Limits = std::numeric_limits<double>;
    const double specials[] = {-0.0, Limits::infinity(), Limits::quiet_NaN(),
                               Limits::denorm_min(), 1e308, -3.5};
    Case c{std::vector<double>(count), testutil::RandomBytes(count, seed),
           std::vector<double>(count)};
    for (size_t i = 0; i < count; ++i) {
      c.fold_means[i] = i % 5 == 0 && i / 5 < std::size(specials) ? specials[i / 5] : in_range(rng);
      const uint32_t pick = rng() % 4;
      const double integer = static_cast<double>(static_cast<int>(rng() % 601) - 300);
      c.byte_means[i] = pick == 0   ? wide(rng)
                        : pick == 1 ? std::nextafter(integer, rng() % 2 ? -1000.0 : 1000.0)
                                    : in_range(rng) * (256.0 / 255.0);
    }
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    const int64_t count = static_cast<int64_t>(c.sample.size());
    std::vector<uint8_t> out;
    for (int32_t n : {0, 1, 2, 6, 7, 254, 100000, std::numeric_limits<int32_t>::max(), -1, -2,
                      std::numeric_limits<int32_t>::min()}) {
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
