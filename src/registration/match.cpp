// Brute-force nearest descriptors: every descriptor of the first set against every one of the
// second, no ratio test and no cross-check.
#include "registration/match.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>

// Matches are stored by value: two 32-bit indices, then the float distance.
static_assert(sizeof(Match) == 12 && offsetof(Match, index2) == 4 &&
                  offsetof(Match, distance) == 8,
              "Match layout");

namespace velmora {

void FindMatches(const std::vector<float*>& first, const std::vector<float*>& second,
                 std::vector<Match>& matches, const MatchKernels& kernels) {
  if (first.empty() || second.empty()) {
    std::puts("Error! Generated descriptor size can not be null. please check.");
    return;
  }
  const int count = static_cast<int>(second.size());
  float* panels = PackPanels(second.data(), count);
  float* dist = static_cast<float*>(std::malloc(sizeof(float) * count));
  for (size_t i = 0; i < first.size(); ++i) {
    kernels.distances(first[i], panels, count, dist);
    float best = 3.4028235e38f;  // the largest float
    int best_index = 0;
    // Strictly less: the lowest index wins among equal distances.
    for (int j = 0; j < count; ++j) {
      if (dist[j] < best) {
        best = dist[j];
        best_index = j;
      }
    }
    matches.push_back(Match{static_cast<int>(i), best_index, best});
  }
  std::free(dist);
  std::free(panels);
}

}  // namespace velmora

float calDistance(float* a, float* b) { return velmora::DistanceRule(a, b, 1); }

void findMatch(std::vector<float*>& first, std::vector<float*>& second,
               std::vector<Match>& matches) {
  velmora::FindMatches(first, second, matches, velmora::MatchKernelsFor(velmora::ActiveIsa()));
}

bool disSort(Match a, Match b) { return a.distance < b.distance; }
