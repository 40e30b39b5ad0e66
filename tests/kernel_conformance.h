// One harness that holds every vector variant of a kernel family against its scalar definition,
// bit for bit, over many sizes: the widths 1..33 (every remainder of a vector body, both sides of
// one and two blocks), two real row widths, several heights, several seeds. All the non-scalar
// ISAs this machine runs are covered through the one parameterised fixture KernelConformance;
// a family takes part with a trait and one line in its test file:
//
//   TEST_P(KernelConformance, Mean) { ExpectMatchesScalar<MeanFamily>(GetParam()); }
//
// The trait contract (a struct of static members, usually in the family's own test file):
//
//   struct FooFamily {
//     static constexpr const char* kName = "Foo";      // names the family in failure messages
//     using Kernels = FooKernels;                      // the family's struct of row functions
//     static const Kernels& For(Isa isa) { return FooKernelsFor(isa); }
//     struct Case { ... };                             // the inputs of one run
//     // Random inputs for a width x height (a row count of 1 is a lone row), from seed alone.
//     // Allocate every buffer with exactly the size the kernels may touch (a std::vector of
//     // that size), so that a read or write past the end fails under AddressSanitizer.
//     static Case Make(int width, int height, uint32_t seed);
//     // Runs the table on a copy of the case (the Case itself is shared by both runs) and returns
//     // every output, serialised to bytes: floats and doubles by their bit patterns (memcpy),
//     // so that NaN payloads and signed zeros count. Run in-place and apart variants here where
//     // the kernels allow both, and cover the parameters (thresholds, counts...) that change the
//     // path. Destination buffers start from a fixed fill, so unwritten bytes are compared too.
//     static std::vector<uint8_t> Run(const Kernels& kernels, const Case& c);
//
//     // Optional: leave out sizes the kernels do not accept (a minimum width, say).
//     static bool Skip(int width, int height);
//     // Optional: a size list of its own instead of ConformanceSizes() (e.g. 1-D kernels that
//     // want counts well beyond a frame row, or costly kernels that want fewer sizes).
//     static std::vector<ConformanceSize> Sizes();
//   };
//
// A variant this build or machine lacks makes the test skip (For falls back to the scalar
// table, and comparing it with itself would prove nothing). The first differing byte is reported
// with the family, ISA, size and seed; one failing size ends the family's test.
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

// The ISA by name in test listings and messages.
inline void PrintTo(Isa isa, std::ostream* out) { *out << IsaName(isa); }

struct ConformanceSize {
  int width;
  int height;
};

// Widths 1..33 at heights 1, 2, 3, 5 and 17; 640 and 1920 at heights 1, 2 and 5.
const std::vector<ConformanceSize>& ConformanceSizes();

// The seeds every size is run with.
const std::vector<uint32_t>& ConformanceSeeds();

// Empty when the two runs agree, else where and how they first differ.
std::string DescribeFirstDifference(const std::vector<uint8_t>& expected,
                                    const std::vector<uint8_t>& actual);

namespace conformance_detail {

template <class F, class = void>
struct HasSkip : std::false_type {};
template <class F>
struct HasSkip<F, std::void_t<decltype(F::Skip(1, 1))>> : std::true_type {};

template <class F, class = void>
struct HasSizes : std::false_type {};
template <class F>
struct HasSizes<F, std::void_t<decltype(F::Sizes())>> : std::true_type {};

}  // namespace conformance_detail

template <class Family>
void ExpectMatchesScalar(Isa isa) {
  const typename Family::Kernels& plain = Family::For(Isa::kScalar);
  const typename Family::Kernels& variant = Family::For(isa);
  if (&plain == &variant) {
    GTEST_SKIP() << Family::kName << " has no " << IsaName(isa) << " variant in this build";
  }
  std::vector<ConformanceSize> sizes;
  if constexpr (conformance_detail::HasSizes<Family>::value) {
    sizes = Family::Sizes();
  } else {
    sizes = ConformanceSizes();
  }
  for (const ConformanceSize& size : sizes) {
    if constexpr (conformance_detail::HasSkip<Family>::value) {
      if (Family::Skip(size.width, size.height)) continue;
    }
    for (uint32_t seed : ConformanceSeeds()) {
      const typename Family::Case c = Family::Make(size.width, size.height, seed);
      const std::string difference =
          DescribeFirstDifference(Family::Run(plain, c), Family::Run(variant, c));
      ASSERT_TRUE(difference.empty())
          << Family::kName << " " << IsaName(isa) << " at " << size.width << "x" << size.height
          << " seed " << seed << ": " << difference;
    }
  }
}

// Appends the bytes of a value or of an array of them (bit patterns, for floating point).
template <class T>
void AppendBytes(std::vector<uint8_t>& out, const T* values, size_t count) {
  static_assert(std::is_trivially_copyable_v<T>);
  const auto* bytes = reinterpret_cast<const uint8_t*>(values);
  out.insert(out.end(), bytes, bytes + count * sizeof(T));
}
template <class T>
void AppendBytes(std::vector<uint8_t>& out, const std::vector<T>& values) {
  AppendBytes(out, values.data(), values.size());
}

}  // namespace velmora

#endif  // VELMORA_TESTS_KERNEL_CONFORMANCE_H
