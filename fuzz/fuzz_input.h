// The fuzzers' one reader of their input: every size, choice and pixel of a case is taken from
// the input bytes, front to back, so an input alone replays what it found. Past the end every
// read gives zero. Each target's seed generator spells out valid cases as the bytes these reads
// take (a range of at most 256 values takes one byte, the value less lo). Buffers are
// std::make_unique<T[]>(n): exactly n elements and never null, not even for n = 0 (an app's empty
// plane still has an address), so AddressSanitizer sees any access beyond the end.
#ifndef VELMORA_FUZZ_INPUT_H
#define VELMORA_FUZZ_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/cpu.h"

namespace velmora::fuzz {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t remaining() const { return size_ - pos_; }

  uint64_t Raw(int bytes) {  // little-endian
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v |= uint64_t{Byte()} << (8 * i);
    return v;
  }
  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  bool Bool() { return Byte() & 1; }

  // A value in lo..hi, both included, from as few bytes as the span needs: 1, 2 or 4.
  int Range(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(int64_t{hi} - lo) + 1;
    const uint64_t raw = Raw(span <= 0x100 ? 1 : span <= 0x10000 ? 2 : 4);
    return static_cast<int>(lo + static_cast<int64_t>(raw % span));
  }
  // A float or double of any bit pattern: NaNs, infinities and subnormals included. The value's
  // bytes are the low ones of Raw on the little-endian hosts we build for.
  template <typename T>
  T Bits() {
    const uint64_t bits = Raw(sizeof(T));
    T v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }

  // n bytes: what the input has left, then that much repeated, so a short input still gives a
  // textured picture rather than a flat one.
  std::unique_ptr<uint8_t[]> Bytes(size_t n) {
    auto v = std::make_unique<uint8_t[]>(n);
    const size_t take = std::min(remaining(), n);
    std::copy_n(data_ + pos_, take, v.get());
    pos_ += take;
    for (size_t i = take; i < n; ++i) v[i] = take ? v[i - take] : 0;
    return v;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

using Seeds = std::vector<std::vector<uint8_t>>;

// `VELMORA_FUZZ_SEEDS=DIR ./foo_fuzz` writes the target's seed inputs into DIR and exits: each
// target spells out its own valid cases next to the code that reads them.
inline void WriteSeedsIfAsked(Seeds (*make)()) {
  const char* dir = std::getenv("VELMORA_FUZZ_SEEDS");
  if (!dir) return;
  const Seeds seeds = make();
  for (size_t i = 0; i < seeds.size(); ++i) {
    std::ofstream f(std::string(dir) + "/seed-" + std::to_string(i), std::ios::binary);
    if (!f.write(reinterpret_cast<const char*>(seeds[i].data()), seeds[i].size())) {
      std::perror(dir);
      std::exit(1);
    }
  }
  std::exit(0);
}

}  // namespace velmora::fuzz

// A target's two entry points: its seeds on request (see WriteSeedsIfAsked), and each input run
// by `run`, on the kernel variant the input's first byte picks, vector and scalar alike, when the
// target has variants (kVariants: that byte is part of every input, seeds and kept findings).
enum FuzzVariants { kOneVariant, kVariants };
#define VELMORA_FUZZ_TARGET(make_seeds, run, variants)                             \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                             \
    velmora::fuzz::WriteSeedsIfAsked(make_seeds);                                  \
    return 0;                                                                      \
  }                                                                                \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {        \
    velmora::fuzz::FuzzInput in(data, size);                                       \
    const std::vector<velmora::Isa> isas = velmora::AvailableIsas();               \
    velmora::ScopedIsa isa((variants) == kVariants ? isas[in.Byte() % isas.size()] \
                                                   : velmora::ActiveIsa());        \
    run(in);                                                                       \
    return 0;                                                                      \
  }

#endif  // VELMORA_FUZZ_INPUT_H
