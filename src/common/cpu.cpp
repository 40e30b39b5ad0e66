#include "common/cpu.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace velmora {
namespace {

constexpr Isa kAllIsas[] = {Isa::kScalar, Isa::kAvx2, Isa::kNeon};
constexpr int kNoOverride = -1;

// The ScopedIsa in force, as an Isa value, or kNoOverride.
std::atomic<int> g_forced{kNoOverride};

Isa Fastest() {
  if (IsaAvailable(Isa::kAvx2)) return Isa::kAvx2;
  if (IsaAvailable(Isa::kNeon)) return Isa::kNeon;
  return Isa::kScalar;
}

// The environment is read once: getenv racing with a setenv elsewhere in the process is
// undefined, and the choice must not change under a running pipeline.
Isa EnvironmentIsa() {
  static const Isa chosen = [] {
    if (const char* named = std::getenv("VELMORA_ISA")) {
      for (Isa isa : kAllIsas) {
        if (std::strcmp(named, IsaName(isa)) == 0 && IsaAvailable(isa)) return isa;
      }
    }
    return Fastest();
  }();
  return chosen;
}

}  // namespace

bool IsaAvailable(Isa isa) {
  switch (isa) {
    case Isa::kScalar:
      return true;
    case Isa::kAvx2:
#if defined(VELMORA_HAVE_AVX2)
      return __builtin_cpu_supports("avx2");
#else
      return false;
#endif
    case Isa::kNeon:
#if defined(VELMORA_HAVE_NEON)
      return true;  // part of the arm64 baseline
#else
      return false;
#endif
  }
  return false;
}

Isa ActiveIsa() {
  const int forced = g_forced.load(std::memory_order_acquire);
  if (forced != kNoOverride && IsaAvailable(static_cast<Isa>(forced))) {
    return static_cast<Isa>(forced);
  }
  return EnvironmentIsa();
}

ScopedIsa::ScopedIsa(Isa isa)
    : previous_(g_forced.exchange(static_cast<int>(isa), std::memory_order_acq_rel)) {}

ScopedIsa::~ScopedIsa() { g_forced.store(previous_, std::memory_order_release); }

std::vector<Isa> AvailableIsas() {
  std::vector<Isa> isas;
  for (Isa isa : kAllIsas) {
    if (IsaAvailable(isa)) isas.push_back(isa);
  }
  return isas;
}

const char* IsaName(Isa isa) {
  switch (isa) {
    case Isa::kScalar:
      return "scalar";
    case Isa::kAvx2:
      return "avx2";
    case Isa::kNeon:
      return "neon";
  }
  return "unknown";
}

}  // namespace velmora
