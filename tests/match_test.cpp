// Descriptor matching: the distance's double accumulation, the nearest neighbour with the lowest
// index among ties, the empty-input message, and every kernel variant against calDistance.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "common/cpu.h"
#include "kernel_conformance.h"
#include "registration/match.h"
#include "velmora/features.h"

namespace velmora {
namespace {

constexpr int kLen = 64;

// Descriptors held by value, with the float* view the matcher takes.
struct Set {
  explicit Set(int count, uint32_t seed) : values(static_cast<size_t>(count) * kLen) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 255.0f);
    for (float& v : values) v = u(rng);
    Refresh();
  }
  void Refresh() {
    ptrs.clear();
    for (size_t i = 0; i < values.size(); i += kLen) ptrs.push_back(values.data() + i);
  }
  std::vector<float> values;
  std::vector<float*> ptrs;
};

TEST(CalDistance, SumsFloatSquaresInDouble) {
  std::vector<float> a(kLen, 0.0f), b(kLen, 1.0f);
  EXPECT_EQ(calDistance(a.data(), b.data()), 8.0f);
  // 4096^2 and then 63 ones: a float sum would lose every one of them (4096); the double sum
  // keeps them, 16777279 rounds to the float 16777280.
  b[0] = 4096.0f;
  EXPECT_EQ(calDistance(a.data(), b.data()), std::sqrt(16777280.0f));
  EXPECT_EQ(calDistance(b.data(), b.data()), 0.0f);
}

// A set matched against a permutation of itself finds each descriptor's copy at distance 0, one
// match per descriptor of the first set, appended in its order.
TEST(FindMatch, RecoversAPermutationAtDistanceZero) {
  Set first(37, 1);
  std::vector<int> order(37);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(2));
  std::vector<float*> second;
  for (int k : order) second.push_back(first.ptrs[k]);
  std::vector<Match> matches = {Match{-7, -7, -7.0f}};  // kept: the matcher only appends
  findMatch(first.ptrs, second, matches);
  ASSERT_EQ(matches.size(), 38u);
  EXPECT_EQ(matches[0].index1, -7);
  for (int i = 0; i < 37; ++i) {
    const Match& m = matches[i + 1];
    EXPECT_EQ(m.index1, i);
    EXPECT_EQ(order[m.index2], i);
    EXPECT_EQ(m.distance, 0.0f);
  }
}

// Equal distances go to the lowest index; when no distance is below the largest float (NaN
// descriptors), the match is index 0 at the largest float.
TEST(FindMatch, LowestIndexWinsTies) {
  Set probe(1, 3), others(4, 4);
  // Candidates 1 and 3 lie at the same distance: mirror images of each other around the probe.
  for (int k = 0; k < kLen; ++k) {
    const float step = (k % 2 ? 1.0f : -1.0f) * 2.0f;
    others.values[1 * kLen + k] = probe.values[k] + step;
    others.values[3 * kLen + k] = probe.values[k] - step;
  }
  std::vector<Match> matches;
  findMatch(probe.ptrs, others.ptrs, matches);
  ASSERT_EQ(matches.size(), 1u);
  EXPECT_EQ(matches[0].index2, 1);
  EXPECT_EQ(matches[0].distance, 16.0f);

  std::fill(probe.values.begin(), probe.values.end(), std::numeric_limits<float>::quiet_NaN());
  findMatch(probe.ptrs, others.ptrs, matches);
  ASSERT_EQ(matches.size(), 2u);
  EXPECT_EQ(matches[1].index2, 0);
  EXPECT_EQ(matches[1].distance, 3.4028235e38f);
}

TEST(FindMatch, EmptySetPrintsOneLineAndLeavesMatches) {
  Set some(3, 5);
  std::vector<float*> none;
  for (int empty_side = 0; empty_side < 2; ++empty_side) {
    std::vector<Match> matches = {Match{1, 2, 3.0f}};
    testing::internal::CaptureStdout();
    if (empty_side == 0) findMatch(none, some.ptrs, matches);
    else findMatch(some.ptrs, none, matches);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error! Generated descriptor size can not be null. please check.\n");
    ASSERT_EQ(matches.size(), 1u);
    EXPECT_EQ(matches[0].distance, 3.0f);
  }
}

// The distances of the matcher's kernels are calDistance's, bit for bit, at candidate counts
// that leave every remainder of the panels; the best match is the first minimum of them.
TEST(FindMatch, DistancesEqualCalDistance) {
  Set first(3, 6);
  for (int count = 1; count <= 17; ++count) {
    Set second(count, 100 + count);
    std::vector<Match> matches;
    findMatch(first.ptrs, second.ptrs, matches);
    float* panels = PackPanels(second.ptrs.data(), count);
    std::vector<float> dist(count);
    for (int i = 0; i < 3; ++i) {
      scalar::Distances(first.ptrs[i], panels, count, dist.data());
      std::vector<float> want;
      for (float* b : second.ptrs) want.push_back(calDistance(first.ptrs[i], b));
      EXPECT_EQ(std::memcmp(dist.data(), want.data(), count * sizeof(float)), 0) << count;
      const int best = static_cast<int>(std::min_element(want.begin(), want.end()) - want.begin());
      EXPECT_EQ(matches[i].index2, best) << count;
      EXPECT_EQ(std::memcmp(&matches[i].distance, &want[best], sizeof(float)), 0) << count;
    }
    std::free(panels);
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
    std::vector<float*> ptrs;
    for (int j = 0; j < width; ++j) ptrs.push_back(candidates.data() + j * kLen);
    float* packed = PackPanels(ptrs.data(), width);
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

TEST(DisSort, StrictlyLessByDistance) {
  EXPECT_TRUE(disSort(Match{5, 0, 1.0f}, Match{0, 5, 2.0f}));
  EXPECT_FALSE(disSort(Match{0, 0, 2.0f}, Match{0, 0, 2.0f}));
  EXPECT_FALSE(disSort(Match{0, 0, 3.0f}, Match{0, 0, 2.0f}));
}

}  // namespace
}  // namespace velmora
