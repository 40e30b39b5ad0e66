// The fuzzers' one reader of their input: every size, choice and pixel of a case is taken from
// the input bytes, front to back, so an input alone replays what it found. Past the end every
// read gives zero. SeedWriter writes values in the same order and widths, which is how the seed
// generator spells out valid cases.
#ifndef VELMORA_FUZZ_INPUT_H
#define VELMORA_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "common/cpu.h"

namespace velmora::fuzz {

// Bytes a value of the span hi - lo takes: 1, 2 or 4.
inline int SpanBytes(int64_t lo, int64_t hi) {
  const uint64_t span = static_cast<uint64_t>(hi - lo);
  return span < 0x100 ? 1 : span < 0x10000 ? 2 : 4;
}

// A buffer of exactly n elements that is never null, not even for n = 0 (an app's empty plane
// still has an address), so AddressSanitizer sees any access beyond its end.
template <typename T>
class Buffer {
 public:
  explicit Buffer(size_t n, T fill = T()) : data_(new T[n]), size_(n) {
    for (size_t i = 0; i < n; ++i) data_[i] = fill;
  }
  T* data() { return data_.get(); }
  size_t size() const { return size_; }
  T& operator[](size_t i) { return data_[i]; }

 private:
  std::unique_ptr<T[]> data_;
  size_t size_;
};

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t remaining() const { return size_ - pos_; }

  uint64_t Raw(int bytes) {  // little-endian
    uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v |= uint64_t{Next()} << (8 * i);
    return v;
  }
  uint8_t Byte() { return Next(); }
  bool Bool() { return Next() & 1; }

  // A value in lo..hi, both included.
  int Range(int lo, int hi) {
    const uint64_t span = static_cast<uint64_t>(int64_t{hi} - lo) + 1;
    return static_cast<int>(lo + static_cast<int64_t>(Raw(SpanBytes(lo, hi)) % span));
  }
  // Any bit pattern: NaNs, infinities and subnormals included.
  double Double() {
    const uint64_t bits = Raw(8);
    double v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }
  float Float() {
    const uint32_t bits = static_cast<uint32_t>(Raw(4));
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }

  // Fills n bytes: what the input has left, then that much repeated, so a short input still
  // gives a textured picture rather than a flat one.
  void Fill(uint8_t* dst, size_t n) {
    const size_t take = remaining() < n ? remaining() : n;
    if (take) std::memcpy(dst, data_ + pos_, take);
    pos_ += take;
    for (size_t i = take; i < n; ++i) dst[i] = take ? dst[i - take] : 0;
  }
  Buffer<uint8_t> Bytes(size_t n) {
    Buffer<uint8_t> v(n);
    Fill(v.data(), n);
    return v;
  }

  // Runs the case on one of the kernel variants this machine has: vector and scalar alike.
  Isa PickIsa() {
    const std::vector<Isa> isas = AvailableIsas();
    return isas[Byte() % isas.size()];
  }

 private:
  uint8_t Next() { return pos_ < size_ ? data_[pos_++] : 0; }

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

class SeedWriter {
 public:
  void Raw(uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void Byte(uint8_t v) { out.push_back(v); }
  void Range(int v, int lo, int hi) { Raw(static_cast<uint64_t>(int64_t{v} - lo), SpanBytes(lo, hi)); }
  void Double(double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof v);
    Raw(bits, 8);
  }
  void Float(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof v);
    Raw(bits, 4);
  }
  void Bytes(const std::vector<uint8_t>& v) { out.insert(out.end(), v.begin(), v.end()); }

  std::vector<uint8_t> out;
};

using Seeds = std::vector<std::vector<uint8_t>>;

// `VELMORA_FUZZ_SEEDS=DIR ./foo_fuzz` writes the target's seed inputs into DIR and exits: each
// target spells out its own valid cases next to the code that reads them.
inline void WriteSeedsIfAsked(Seeds (*make)()) {
  const char* dir = std::getenv("VELMORA_FUZZ_SEEDS");
  if (!dir) return;
  const Seeds seeds = make();
  for (size_t i = 0; i < seeds.size(); ++i) {
    const std::string path = std::string(dir) + "/seed-" + std::to_string(i);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(seeds[i].data(), 1, seeds[i].size(), f) != seeds[i].size()) {
      std::perror(path.c_str());
      std::exit(1);
    }
    std::fclose(f);
  }
  std::exit(0);
}

// Runs one input; a target's run function may return nothing (every input is kept) or the value
// libFuzzer takes (-1 keeps an input out of the corpus).
template <typename Run>
int RunOne(Run run, FuzzInput& in) {
  if constexpr (std::is_void_v<decltype(run(in))>) {
    run(in);
    return 0;
  } else {
    return run(in);
  }
}

}  // namespace velmora::fuzz

// A target's two entry points: its seeds on request (see WriteSeedsIfAsked), and each input run
// by `run`, on the kernel variant the input's first byte picks when the target has variants
// (kVariants: that byte is part of every input, seeds and kept findings alike).
enum FuzzVariants { kOneVariant, kVariants };
#define VELMORA_FUZZ_TARGET(make_seeds, run, variants)                      \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                      \
    velmora::fuzz::WriteSeedsIfAsked(make_seeds);                           \
    return 0;                                                               \
  }                                                                         \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { \
    velmora::fuzz::FuzzInput in(data, size);                                \
    std::optional<velmora::ScopedIsa> isa;                                  \
    if ((variants) == kVariants) isa.emplace(in.PickIsa());                 \
    return velmora::fuzz::RunOne(run, in);                                  \
  }

#endif  // VELMORA_FUZZ_INPUT_H
