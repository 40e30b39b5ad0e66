#include "kernel_conformance.h"

namespace velmora {

std::vector<ConformanceSize> ConformanceSizes() {
  std::vector<ConformanceSize> all;
  for (int h : {1, 2, 3, 5, 17}) {
    for (int w = 1; w <= 33; ++w) all.push_back({w, h});
    // The real row widths at fewer heights: their cost would dominate the walk.
    if (h <= 5 && h != 3) all.insert(all.end(), {{640, h}, {1920, h}});
  }
  return all;
}

// Once for every family, whichever file holds its TEST_P line; a build with the scalar kernels
// only has nothing to run.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(KernelConformance);
INSTANTIATE_TEST_SUITE_P(Isa, KernelConformance, ::testing::ValuesIn([] {
                           std::vector<Isa> isas;
                           for (Isa isa : AvailableIsas())
                             if (isa != Isa::kScalar) isas.push_back(isa);
                           return isas;
                         }()),
                         ::testing::PrintToStringParamName());  // named by PrintTo: the ISA

}  // namespace velmora
