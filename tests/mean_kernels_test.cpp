// The running-mean kernels: golden values of the scalar definitions, and every vector variant
// this machine has against the scalar one, bit for bit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "common/cpu.h"
#include "pipeline/mean_kernels.h"

namespace velmora {
namespace {

// The variants to hold against the scalar definition: every other one available here.
std::vector<Isa> VectorIsas() {
  std::vector<Isa> isas = AvailableIsas();
  isas.erase(std::remove(isas.begin(), isas.end(), Isa::kScalar), isas.end());
  return isas;
}

// Widths that hit every remainder of the vector bodies, two real row widths and whole planes.
std::vector<int64_t> Counts() {
  std::vector<int64_t> counts;
  for (int64_t w = 1; w <= 33; ++w) counts.push_back(w);
  for (int64_t w : {640, 1920, 1920 * 1080, 1920 * 540}) counts.push_back(w);
  return counts;
}

std::vector<uint8_t> RandomBytes(std::mt19937& rng, int64_t count) {
  std::uniform_int_distribution<int> byte(0, 255);
  std::vector<uint8_t> v(static_cast<size_t>(count));
  for (auto& b : v) b = static_cast<uint8_t>(byte(rng));
  return v;
}

// Index of the first element whose bytes differ, or -1. Bytes, so that NaN payloads and signed
// zeros count too.
template <typename T>
int64_t FirstDifference(const std::vector<T>& a, const std::vector<T>& b) {
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::memcmp(&a[i], &b[i], sizeof(T)) != 0) return static_cast<int64_t>(i);
  }
  return -1;
}

TEST(AccumulateMeanDefinition, FoldsWithTwoDivisionsAndOneAddition) {
  struct Case {
    double mean;
    uint8_t sample;
    int32_t n;
    double expected;
  };
  const Case cases[] = {
      {0.0, 255, 1, 127.5},     // two frames 0 and 255
      {255.0, 0, 1, 127.5},     // the same two frames the other way round
      {37.25, 100, 0, 100.0},   // the first frame of a run replaces the mean
      {0.0, 255, 2, 85.0},      // frames 0, 0, 255
      {200.0, 200, 41, 200.0},  // a constant scene stays put
      // Rounded as (mean * n) / (n + 1) + sample / (n + 1); a single division of
      // (mean * n + sample), or multiplying by a reciprocal, gives 93.2 and 94.63333333333333.
      {68.0, 194, 4, 0x1.74cccccccccccp+6},
      {87.45, 109, 2, 0x1.7a88888888889p+6},
  };
  for (const Case& c : cases) {
    double mean = c.mean;
    const uint8_t sample = c.sample;
    scalar::AccumulateMean(&mean, &sample, 1, c.n);
    EXPECT_EQ(mean, c.expected) << "mean " << c.mean << " sample " << int{c.sample} << " n " << c.n;
  }
}

TEST(AccumulateMeanDefinition, RunningMeanOfAFrameSequenceIsItsAverage) {
  std::mt19937 rng(7);
  const int64_t count = 1000;
  const int frames = 25;
  std::vector<double> mean(count, 0.0);
  std::vector<double> sum(count, 0.0);
  for (int32_t n = 0; n < frames; ++n) {
    const std::vector<uint8_t> frame = RandomBytes(rng, count);
    scalar::AccumulateMean(mean.data(), frame.data(), count, n);
    for (int64_t i = 0; i < count; ++i) sum[i] += frame[i];
  }
  for (int64_t i = 0; i < count; ++i) ASSERT_NEAR(mean[i], sum[i] / frames, 1e-11) << "index " << i;
}

TEST(MeanToBytesDefinition, TruncatesTowardZeroAndKeepsTheLowByte) {
  const struct {
    double mean;
    uint8_t expected;
  } cases[] = {
      {127.9, 127}, {127.5, 127}, {0.999, 0},  {255.0, 255}, {254.99999, 254}, {-0.7, 0},
      {-0.0, 0},    {256.0, 0},   {300.7, 44}, {-1.0, 255},  {-255.5, 1},      {65791.2, 255},
  };
  for (const auto& c : cases) {
    uint8_t out = 0xAA;
    scalar::MeanToBytes(&c.mean, &out, 1);
    EXPECT_EQ(int{out}, int{c.expected}) << "mean " << c.mean;
  }
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(MeanKernelsTest);

class MeanKernelsTest : public ::testing::TestWithParam<Isa> {};

TEST_P(MeanKernelsTest, AccumulateMeanMatchesScalar) {
  const AccumulateMeanFn accumulate = AccumulateMeanFor(GetParam());
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> in_range(0.0, 255.0);
  // Counts beyond the pipeline's range too: a negative n divides by zero or a negative total.
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  const std::vector<int32_t> all_folds = {0, 1, 2, 6, 7, 254, 100000, kMax, -1, -2, kMin};
  // Whole planes take long in unoptimised builds: two folds cover them.
  const std::vector<int32_t> plane_folds = {2, 254};
  using Limits = std::numeric_limits<double>;
  const double specials[] = {-0.0, Limits::infinity(), Limits::quiet_NaN(), Limits::denorm_min(),
                             1e308, -3.5};
  for (int64_t count : Counts()) {
    const std::vector<uint8_t> sample = RandomBytes(rng, count);
    std::vector<double> start(static_cast<size_t>(count));
    for (auto& m : start) m = in_range(rng);
    for (size_t k = 0; k < std::size(specials) && k * 5 < start.size(); ++k) {
      start[k * 5] = specials[k];
    }
    for (int32_t n : count > 100000 ? plane_folds : all_folds) {
      std::vector<double> expected = start;
      std::vector<double> actual = start;
      scalar::AccumulateMean(expected.data(), sample.data(), count, n);
      accumulate(actual.data(), sample.data(), count, n);
      const int64_t at = FirstDifference(expected, actual);
      ASSERT_EQ(at, -1) << "count " << count << " n " << n << ": " << expected[at] << " vs "
                        << actual[at];
    }
  }
}

TEST_P(MeanKernelsTest, MeanToBytesMatchesScalar) {
  const MeanToBytesFn to_bytes = MeanToBytesFor(GetParam());
  std::mt19937 rng(13);
  std::uniform_real_distribution<double> in_range(0.0, 256.0);
  std::uniform_real_distribution<double> wide(-2147483647.0, 2147483647.0);
  std::uniform_int_distribution<int> integer(-300, 300);
  std::uniform_int_distribution<int> pick(0, 3);
  for (int64_t count : Counts()) {
    // Means in their own range, integers and their neighbours, and values whose int32 needs the
    // low byte taken; the conversion of values beyond int32 is left undefined by the language.
    std::vector<double> mean(static_cast<size_t>(count));
    for (auto& m : mean) {
      switch (pick(rng)) {
        case 0:
          m = wide(rng);
          break;
        case 1: {
          const double k = integer(rng);
          m = std::nextafter(k, pick(rng) < 2 ? -1000.0 : 1000.0);
          break;
        }
        default:
          m = in_range(rng);
      }
    }
    std::vector<uint8_t> expected(static_cast<size_t>(count), 0x5A);
    std::vector<uint8_t> actual(static_cast<size_t>(count), 0xA5);
    scalar::MeanToBytes(mean.data(), expected.data(), count);
    to_bytes(mean.data(), actual.data(), count);
    const int64_t at = FirstDifference(expected, actual);
    ASSERT_EQ(at, -1) << "count " << count << ": mean " << mean[at] << " gives "
                      << int{expected[at]} << " vs " << int{actual[at]};
  }
}

INSTANTIATE_TEST_SUITE_P(AllIsas, MeanKernelsTest, ::testing::ValuesIn(VectorIsas()),
                         [](const ::testing::TestParamInfo<Isa>& info) {
                           return IsaName(info.param);
                         });

}  // namespace
}  // namespace velmora
