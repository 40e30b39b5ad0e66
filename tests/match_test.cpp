// Descriptor matching: the distance's double accumulation, the nearest neighbour with the lowest
// index among ties, the empty-input message, and every kernel variant against calDistance.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kernel_conformance.h"
#include "registration/match.h"
#include "velmora/features.h"

namespace velmora {
namespace {

constexpr int kLen = 64;

// count descriptors held by value, and the float* view the matcher takes.
std::vector<float> Values(int count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 255.0f);
  std::vector<float> values(static_cast<size_t>(count) * kLen);
  for (float& v : values) v = u(rng);
  return values;
}
std::vector<float*> Ptrs(std::vector<float>& values) {
  std::vector<float*> ptrs;
  for (size_t i = 0; i < values.size(); i += kLen) ptrs.push_back(values.data() + i);
  return ptrs;
}

TEST(CalDistance, SumsFloatSquaresInDouble) {
  std::vector<float> a(kLen, 0.0f), b(kLen, 1.0f);
  EXPECT_EQ(calDistance(a.data(), b.data()), 8.0f);
  // 4096^2 and then 63 ones: a float sum would lose every one of them (4096); the double sum
  // keeps them, 16777279 rounds to the float 16777280.
  b[0] = 4096.0f;
  EXPECT_EQ(calDistance(a.data(), b.data()), std::sqrt(16777280.0f));
  EXPECT_EQ(calDistance(b.data(), b.data()), 0.0f);
}

// Equal distances go to the lowest index; when no distance is below the largest float (NaN
// descriptors), the match is index 0 at the largest float. The sort's comparator is strict.
TEST(FindMatch, LowestIndexWinsTies) {
  std::vector<float> probe = Values(1, 3), others = Values(4, 4);
  // Candidates 1 and 3 lie at the same distance: mirror images of each other around the probe.
  for (int k = 0; k < kLen; ++k) {
    others[1 * kLen + k] = probe[k] + (k % 2 ? 2.0f : -2.0f);
    others[3 * kLen + k] = probe[k] - (k % 2 ? 2.0f : -2.0f);
  }
  std::vector<float*> first = Ptrs(probe), second = Ptrs(others);
  std::vector<Match> matches;
  findMatch(first, second, matches);
  std::fill(probe.begin(), probe.end(), std::numeric_limits<float>::quiet_NaN());
  findMatch(first, second, matches);
  ASSERT_EQ(matches.size(), 2u);
  EXPECT_EQ(matches[0].index2, 1);
  EXPECT_EQ(matches[0].distance, 16.0f);
  EXPECT_EQ(matches[1].index2, 0);
  EXPECT_EQ(matches[1].distance, 3.4028235e38f);
  EXPECT_TRUE(disSort(Match{5, 0, 1.0f}, Match{0, 5, 2.0f}));
  EXPECT_FALSE(disSort(Match{0, 0, 2.0f}, Match{0, 0, 2.0f}));
}

TEST(FindMatch, EmptySetPrintsOneLineAndLeavesMatches) {
  std::vector<float> values = Values(3, 5);
  std::vector<float*> some = Ptrs(values), none;
  for (int empty_side = 0; empty_side < 2; ++empty_side) {
    std::vector<Match> matches = {Match{1, 2, 3.0f}};
    testing::internal::CaptureStdout();
    findMatch(empty_side ? some : none, empty_side ? none : some, matches);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error! Generated descriptor size can not be null. please check.\n");
    ASSERT_EQ(matches.size(), 1u);
    EXPECT_EQ(matches[0].distance, 3.0f);
  }
}

// One match per descriptor of the first set, appended in its order: the first candidate at the
// smallest calDistance, bit for bit, at candidate counts that leave every remainder of the panels.
TEST(FindMatch, NearestByCalDistanceAppendedInOrder) {
  std::vector<float> first_values = Values(3, 6);
  std::vector<float*> first = Ptrs(first_values);
  for (int count = 1; count <= 17; ++count) {
    std::vector<float> second_values = Values(count, 100 + count);
    std::vector<float*> second = Ptrs(second_values);
    std::vector<Match> matches = {Match{-7, -7, -7.0f}};
    findMatch(first, second, matches);
    ASSERT_EQ(matches.size(), 4u);
    EXPECT_EQ(matches[0].index1, -7);
    for (int i = 0; i < 3; ++i) {
      std::vector<float> want;
      for (float* b : second) want.push_back(calDistance(first[i], b));
      const auto best = std::min_element(want.begin(), want.end());
      EXPECT_EQ(matches[i + 1].index1, i);
      EXPECT_EQ(matches[i + 1].index2, best - want.begin()) << count;
      EXPECT_EQ(std::memcmp(&matches[i + 1].distance, &*best, sizeof(float)), 0) << count;
    }
  }
}

// width candidates against height query descriptors: values across the descriptor range, some
// equal to the query's (zero terms) and some far beyond it (sums that need the double).
struct MatchFamily {
  static constexpr const char* kName = "Match";
  using Kernels = MatchKernels;
  static const Kernels& For(Isa isa) { return MatchKernelsFor(isa); }
  struct Case {
    int count;
    std::vector<float> queries;
    std::vector<float> panels;  // exactly the packed size
  };
  static Case Make(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 255.0f);
    std::uniform_int_distribution<int> pick(0, 9);
    Case c{width, std::vector<float>(static_cast<size_t>(height) * kLen), {}};
    for (float& v : c.queries) v = u(rng);
    std::vector<float> candidates(static_cast<size_t>(width) * kLen);
    for (size_t i = 0; i < candidates.size(); ++i) {
      const int p = pick(rng);
      candidates[i] = p == 0 ? c.queries[i % kLen] : p == 1 ? u(rng) * 1e4f : u(rng);
    }
    float* packed = PackPanels(Ptrs(candidates).data(), width);
    c.panels.assign(packed, packed + (width + kPanel - 1) / kPanel * kPanelFloats);
    std::free(packed);
    return c;
  }
  static std::vector<uint8_t> Run(const Kernels& kernels, const Case& c) {
    std::vector<uint8_t> out;
    for (size_t q = 0; q < c.queries.size(); q += kLen) {
      std::vector<float> dist(c.count, -1.0f);
      kernels.distances(c.queries.data() + q, c.panels.data(), c.count, dist.data());
      AppendBytes(out, dist);
    }
    return out;
  }
};

TEST_P(KernelConformance, Match) { ExpectMatchesScalar<MatchFamily>(GetParam()); }

}  // namespace
}  // namespace velmora
