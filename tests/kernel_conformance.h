// One harness holds every vector variant of a kernel family against its scalar definition, bit
// for bit, over many sizes and seeds, for each non-scalar ISA this machine runs. A family joins
// with a trait and one line: TEST_P(KernelConformance, F) { ExpectMatchesScalar<F>(GetParam()); }
// The trait: kName; Kernels, its struct of row functions; For(isa), its table; Case; Make(width,
// height, seed), inputs with every buffer exactly as large as the kernels may touch (so ASan sees
// a step past it); Run(kernels, case), every output as bytes, floats by bit pattern, destinations
// from a fixed fill, in place and apart where allowed; optionally Sizes(), to replace
// ConformanceSizes() where the kernels accept other sizes only.
// A variant this build or machine lacks skips (For gives the scalar table).
#ifndef VELMORA_TESTS_KERNEL_CONFORMANCE_H
#define VELMORA_TESTS_KERNEL_CONFORMANCE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <type_traits>
#include <vector>

#include "common/cpu.h"

namespace velmora {

class KernelConformance : public ::testing::TestWithParam<Isa> {};
inline void PrintTo(Isa isa, std::ostream* out) { *out << IsaName(isa); }

struct ConformanceSize {
  int width, height;
};
// Widths 1..33 at heights 1, 2, 3, 5 and 17; 640 and 1920 at heights 1, 2 and 5.
std::vector<ConformanceSize> ConformanceSizes();

// The family's own sizes where it has them.
template <class F>
auto SizesOf(int) -> decltype(F::Sizes()) { return F::Sizes(); }
template <class F>
std::vector<ConformanceSize> SizesOf(long) { return ConformanceSizes(); }

template <class Family>
void ExpectMatchesScalar(Isa isa) {
  const typename Family::Kernels& plain = Family::For(Isa::kScalar);
  const typename Family::Kernels& variant = Family::For(isa);
  if (&plain == &variant) GTEST_SKIP() << Family::kName << " has no " << IsaName(isa) << " variant";
  for (const auto [w, h] : SizesOf<Family>(0)) {
    for (uint32_t seed : {1u, 2u, 3u}) {
      const typename Family::Case c = Family::Make(w, h, seed);
      const std::vector<uint8_t> want = Family::Run(plain, c), got = Family::Run(variant, c);
      const auto at = std::mismatch(want.begin(), want.end(), got.begin(), got.end()).first;
      ASSERT_TRUE(want == got) << Family::kName << " " << IsaName(isa) << " at " << w << "x" << h
                               << " seed " << seed << ", first different: " << at - want.begin();
    }
  }
}

// Appends the bytes of the values (bit patterns, for floating point).
template <class T>
void AppendBytes(std::vector<uint8_t>& out, const std::vector<T>& values) {
  static_assert(std::is_trivially_copyable_v<T>);
  const auto* bytes = reinterpret_cast<const uint8_t*>(values.data());
  out.insert(out.end(), bytes, bytes + values.size() * sizeof(T));
}

}  // namespace velmora

#endif  // VELMORA_TESTS_KERNEL_CONFORMANCE_H
