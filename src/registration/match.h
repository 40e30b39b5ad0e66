// Internal entry point of the matcher, over a kernel table that tests and benchmarks choose.
#ifndef VELMORA_REGISTRATION_MATCH_H
#define VELMORA_REGISTRATION_MATCH_H

#include <vector>

#include "registration/match_kernels.h"
#include "velmora/features.h"

namespace velmora {

void FindMatches(const std::vector<float*>& first, const std::vector<float*>& second,
                 std::vector<Match>& matches, const MatchKernels& kernels);

}  // namespace velmora

#endif  // VELMORA_REGISTRATION_MATCH_H
