#include "common/cpu.h"

#include <cstdlib>
#include <cstring>

namespace velmora {

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
  if (const char* forced = std::getenv("VELMORA_ISA")) {
    for (Isa isa : {Isa::kScalar, Isa::kAvx2, Isa::kNeon}) {
      if (std::strcmp(forced, IsaName(isa)) == 0 && IsaAvailable(isa)) return isa;
    }
  }
  if (IsaAvailable(Isa::kAvx2)) return Isa::kAvx2;
  if (IsaAvailable(Isa::kNeon)) return Isa::kNeon;
  return Isa::kScalar;
}

std::vector<Isa> AvailableIsas() {
  std::vector<Isa> isas;
  for (Isa isa : {Isa::kScalar, Isa::kAvx2, Isa::kNeon}) {
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
