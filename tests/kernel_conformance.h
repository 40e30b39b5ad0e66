// One harness holds every vector variant of a kernel family against its scalar definition, bit
// for bit: widths 1..33 (every remainder of a vector body), two real row widths, several heights
// and seeds, for each non-scalar ISA this machine runs. A family joins with a trait and one line:
//   TEST_P(KernelConformance, Foo) { ExpectMatchesScalar<FooFamily>(GetParam()); }
//
//   struct FooFamily {
//     static constexpr const char* kName = "Foo";  // names the family in failure messages
//     using Kernels = FooKernels;
//     static const Kernels& For(Isa isa) { return FooKernelsFor(isa); }
//     struct Case { ... };
//     // Inputs of width x height from seed alone, each buffer exactly as large as the kernels may
//     // touch, so that a step past its end fails under AddressSanitizer.
//     static Case Make(int width, int height, uint32_t seed);
//     // Every output as bytes (floats by bit pattern, so NaN payloads and signed zeros count),
//     // destinations from a fixed fill so that unwritten bytes count; in place and apart where
//     // the kernels allow both.
//     static std::vector<uint8_t> Run(const Kernels& kernels, const Case& c);
//     static std::vector<ConformanceSize> Sizes();  // optional, instead of ConformanceSizes()
//   };
// A variant the build or machine lacks skips: For falls back to the scalar table.
#ifndef VELMORA_TESTS_KERNEL_CONFORMANCE_H
#define VELMORA_TESTS_KERNEL_CONFORMANCE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "common/cpu.h"

namespace velmora {

class KernelConformance : public ::testing::TestWithParam<Isa> {};
inline void PrintTo(Isa isa, std::ostream* out) { *out << IsaName(isa); }

struct ConformanceSize {
  int width;
  int height;
};
// Widths 1..33 at heights 1, 2, 3, 5 and 17; 640 and 1920 at heights 1, 2 and 5.
const std::vector<ConformanceSize>& ConformanceSizes();

// Empty when the runs agree, else where and how they first differ.
std::string FirstDifference(const std::vector<uint8_t>& scalar, const std::vector<uint8_t>& other);

template <class F, class = void>
struct HasSizes : std::false_type {};
template <class F>
struct HasSizes<F, std::void_t<decltype(F::Sizes())>> : std::true_type {};

template <class Family>
void ExpectMatchesScalar(Isa isa) {
  const typename Family::Kernels& plain = Family::For(Isa::kScalar);
  const typename Family::Kernels& variant = Family::For(isa);
  if (&plain == &variant) GTEST_SKIP() << Family::kName << " has no " << IsaName(isa) << " variant";
  std::vector<ConformanceSize> sizes;
  if constexpr (HasSizes<Family>::value) {
    sizes = Family::Sizes();
  } else {
    sizes = ConformanceSizes();
  }
  for (const auto [w, h] : sizes) {
    for (uint32_t seed : {1u, 2u, 3u}) {
      const typename Family::Case c = Family::Make(w, h, seed);
      const std::string diff = FirstDifference(Family::Run(plain, c), Family::Run(variant, c));
      ASSERT_TRUE(diff.empty()) << Family::kName << " " << IsaName(isa) << " at " << w << "x" << h
                                << " seed " << seed << ": " << diff;
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
