// Until the shared kernel-conformance harness lands: every vector variant of a kernel family
// against its scalar definition, bit for bit, over many widths and odd heights, with input
// buffers ending flush against their allocation.
#ifndef VELMORA_TESTS_CORNERS_CONFORMANCE_H
#define VELMORA_TESTS_CORNERS_CONFORMANCE_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/cpu.h"

namespace velmora {

// A family supplies:
//   struct Case;                                        inputs of one width x height
//   static Case Make(int width, int height, std::mt19937& rng);
//   static std::vector<uint32_t> Run(Isa isa, const Case& c);   outputs as 32-bit words
// Outputs are compared word by word; two NaNs count as equal (their payloads may follow the
// operand order of one instruction or another).
template <typename Family>
void ExpectMatchesScalar(Isa isa) {
  std::vector<int> widths;
  for (int w = 1; w <= 33; ++w) widths.push_back(w);
  widths.push_back(640);
  widths.push_back(1920);
  std::mt19937 rng(1234);
  for (int width : widths) {
    for (int height : {1, 3, 5}) {
      if (width >= 640 && height > 3) continue;
      SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
      const typename Family::Case c = Family::Make(width, height, rng);
      const std::vector<uint32_t> want = Family::Run(Isa::kScalar, c);
      const std::vector<uint32_t> got = Family::Run(isa, c);
      ASSERT_EQ(want.size(), got.size());
      for (size_t i = 0; i < want.size(); ++i) {
        const bool nans = (want[i] & 0x7FFFFFFFu) > 0x7F800000u &&
                          (got[i] & 0x7FFFFFFFu) > 0x7F800000u;
        if (!nans && want[i] != got[i]) {
          ADD_FAILURE() << "output word " << i << ": " << std::hex << want[i] << " vs " << got[i];
          return;
        }
      }
    }
  }
}

// Inputs of a kernel family: exact-size vectors, so that an over-read leaves the allocation.
template <typename T>
std::vector<uint32_t> Words(const std::vector<T>& v) {
  static_assert(sizeof(T) == 4, "32-bit elements");
  std::vector<uint32_t> w(v.size());
  if (!v.empty()) std::memcpy(w.data(), v.data(), v.size() * 4);
  return w;
}

// Floats of every kind: ordinary values of wide range and small integers (ties, equal values)
// and, one in `special_in` on average, zeros of both signs, infinities, NaN, subnormals and
// arbitrary bit patterns.
inline std::vector<float> RandomFloats(std::mt19937& rng, size_t count, int special_in = 4) {
  std::uniform_int_distribution<int> special(0, special_in - 1), kind(0, 6), small(-4, 4);
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  std::uniform_int_distribution<int> expo(-20, 20);
  std::uniform_int_distribution<uint32_t> bits;
  std::vector<float> v(count);
  for (float& f : v) {
    if (special(rng) != 0) {
      f = kind(rng) < 2 ? static_cast<float>(small(rng)) : std::ldexp(unit(rng), expo(rng));
      continue;
    }
    switch (kind(rng)) {
      case 0: f = 0.0f; break;
      case 1: f = -0.0f; break;
      case 2: f = INFINITY; break;
      case 3: f = -INFINITY; break;
      case 4: f = NAN; break;
      case 5: f = 1e-40f * unit(rng); break;
      default: {
        const uint32_t b = bits(rng);
        std::memcpy(&f, &b, 4);
      }
    }
  }
  return v;
}

inline std::vector<Isa> VectorIsas() {
  std::vector<Isa> isas;
  for (Isa isa : AvailableIsas()) {
    if (isa != Isa::kScalar) isas.push_back(isa);
  }
  return isas;
}

}  // namespace velmora

#endif  // VELMORA_TESTS_CORNERS_CONFORMANCE_H
