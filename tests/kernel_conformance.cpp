#include "kernel_conformance.h"

#include <algorithm>
#include <sstream>

namespace velmora {

const std::vector<ConformanceSize>& ConformanceSizes() {
  static const std::vector<ConformanceSize> sizes = [] {
    std::vector<ConformanceSize> all;
    for (int h : {1, 2, 3, 5, 17}) {
      for (int w = 1; w <= 33; ++w) all.push_back({w, h});
      // The real row widths at fewer heights: their cost would dominate the walk.
      if (h <= 5 && h != 3) all.insert(all.end(), {{640, h}, {1920, h}});
    }
    return all;
  }();
  return sizes;
}

std::string FirstDifference(const std::vector<uint8_t>& scalar, const std::vector<uint8_t>& other) {
  std::ostringstream out;
  if (scalar.size() != other.size()) {
    out << "output of " << other.size() << " bytes, the scalar one has " << scalar.size();
    return out.str();
  }
  const auto at = std::mismatch(scalar.begin(), scalar.end(), other.begin());
  if (at.first != scalar.end()) {
    out << "output byte " << at.first - scalar.begin() << " of " << scalar.size() << " is "
        << int{*at.second} << ", the scalar one " << int{*at.first};
  }
  return out.str();
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
                         [](const ::testing::TestParamInfo<Isa>& info) {
                           return IsaName(info.param);
                         });

}  // namespace velmora
