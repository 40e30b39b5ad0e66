#include "kernel_conformance.h"

#include <sstream>

namespace velmora {
namespace {

std::vector<Isa> VectorIsas() {
  std::vector<Isa> isas;
  for (Isa isa : AvailableIsas()) {
    if (isa != Isa::kScalar) isas.push_back(isa);
  }
  return isas;
}

}  // namespace

const std::vector<ConformanceSize>& ConformanceSizes() {
  static const std::vector<ConformanceSize> sizes = [] {
    std::vector<ConformanceSize> all;
    for (int h : {1, 2, 3, 5, 17}) {
      for (int w = 1; w <= 33; ++w) all.push_back({w, h});
      // The real row widths at fewer heights: their cost would dominate the walk.
      if (h <= 5 && h != 3) all.push_back({640, h}), all.push_back({1920, h});
    }
    return all;
  }();
  return sizes;
}

const std::vector<uint32_t>& ConformanceSeeds() {
  static const std::vector<uint32_t> seeds = {1, 2, 3};
  return seeds;
}

std::string DescribeFirstDifference(const std::vector<uint8_t>& expected,
                                    const std::vector<uint8_t>& actual) {
  std::ostringstream out;
  if (expected.size() != actual.size()) {
    out << "output of " << actual.size() << " bytes, the scalar one has " << expected.size();
    return out.str();
  }
  for (size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] != actual[i]) {
      out << "output byte " << i << " of " << expected.size() << " is " << int{actual[i]}
          << ", the scalar one " << int{expected[i]};
      return out.str();
    }
  }
  return {};
}

// Once for every family, whichever test files their TEST_P lines live in. A build with the
// scalar kernels only (VELMORA_SIMD=OFF, or a machine without the variants) has nothing to run.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(KernelConformance);
INSTANTIATE_TEST_SUITE_P(Isa, KernelConformance, ::testing::ValuesIn(VectorIsas()),
                         [](const ::testing::TestParamInfo<Isa>& info) {
                           return IsaName(info.param);
                         });

}  // namespace velmora
