// The choice of kernel variant every family relies on, and the running-mean kernels: golden values
// of the scalar definitions, the vector variants against them through the conformance harness.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "common/dispatch.h"
#include "kernel_conformance.h"
#include "pipeline/mean_kernels.h"
#include "test_util.h"

namespace velmora {
namespace {

// An override not restored, or honoured where it cannot run; a variant picked where it is not
// built or not run.
TEST(Dispatch, ScopedIsaRestoresAndPickTakesOnlyVariantsBuiltAndRunnable) {
  const Isa before = ActiveIsa();
  const int variant[] = {0, 1, 2};  // scalar, avx2, neon
  const IsaTable<int> full{&variant[0], &variant[1], &variant[2]}, plain{&variant[0], {}, {}};
  for (Isa isa : {Isa::kAvx2, Isa::kNeon, Isa::kScalar}) {
    const ScopedIsa forced(isa);
    EXPECT_EQ(ActiveIsa(), IsaAvailable(isa) ? isa : before) << IsaName(isa);
    EXPECT_EQ(Pick(full, isa), IsaAvailable(isa) ? static_cast<int>(isa) : 0) << IsaName(isa);
    EXPECT_EQ(Pick(plain, isa), 0) << IsaName(isa);
  }
  EXPECT_EQ(ActiveIsa(), before);
}

// Folds in another order (one division of the total, a reciprocal), or means rounded or clamped
// rather than truncated to their low byte.
TEST(MeanDefinitions, FoldWithTwoDivisionsAndOneAdditionAndTruncateToTheLowByte) {
  for (auto [mean, sample, n, after] :
       {std::tuple<double, uint8_t, int32_t, double>{0.0, 255, 1, 127.5},  // frames 0 and 255
        {37.25, 100, 0, 100.0},  // the first frame of a run replaces the mean
        {0.0, 255, 2, 85.0},     // frames 0, 0, 255
        // One division of (mean * n + sample), or a reciprocal, gives 93.2 and 94.633333333.
        {68.0, 194, 4, 0x1.74cccccccccccp+6},
        {87.45, 109, 2, 0x1.7a88888888889p+6}}) {
    scalar::AccumulateMean(&mean, &sample, 1, n);
    EXPECT_EQ(mean, after) << int{sample} << " " << n;
  }
  // Truncated toward zero, the low byte of the int32 kept: no rounding, no clamping.
  const std::vector<double> means = {127.9, 127.5, 0.999, 255.0, 254.99999, -0.7,
                                     -0.0,  256.0, 300.7, -1.0,  -255.5,    65791.2};
  std::vector<uint8_t> bytes(means.size());
  scalar::MeanToBytes(means.data(), bytes.data(), bytes.size());
  EXPECT_EQ(bytes, std::vector<uint8_t>({127, 127, 0, 255, 254, 0, 0, 0, 44, 255, 1, 255}));
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
    std::vector<double> fold_means, byte_means;
    std::vector<uint8_t> sample;
  };
  static Case Make(int width, int height, uint32_t seed) {
    const size_t count = static_cast<size_t>(width) * height;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> in_range(0.0, 255.0), wide(-2147483647.0, 2147483647.0);
    const double specials[] = {-0.0, INFINITY, NAN, 4.9e-324, 1e308, -3.5};
    Case c{std::vector<double>(count), std::vector<double>(count),
           testutil::RandomBytes(count, seed)};
    for (size_t i = 0; i < count; ++i) {
      c.fold_means[i] = i % 5 == 0 && i / 5 < 6 ? specials[i / 5] : in_range(rng);
      const uint32_t pick = rng() % 4;  // an integer from -300 to 300 and its neighbour next
      c.byte_means[i] = pick == 0   ? wide(rng)
                        : pick == 1 ? std::nextafter(rng() % 601 - 300.0, rng() % 2 ? -1e3 : 1e3)
                                    : in_range(rng) * (256.0 / 255.0);
    }
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& k, const Case& c) {
    std::vector<uint8_t> out(c.byte_means.size(), 0x5A);
    k.to_bytes(c.byte_means.data(), out.data(), out.size());
    for (int32_t n : {0, 1, 2, 6, 7, 254, 100000, INT32_MAX, -1, -2, INT32_MIN}) {
      std::vector<double> mean = c.fold_means;
      k.accumulate(mean.data(), c.sample.data(), mean.size(), n);
      AppendBytes(out, mean);
    }
    return out;
  }
};

TEST_P(KernelConformance, Mean) { ExpectMatchesScalar<MeanFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
