// Choice of the instruction set that the per-pixel kernels run on.
#ifndef VELMORA_COMMON_CPU_H
#define VELMORA_COMMON_CPU_H

#include <vector>

namespace velmora {

enum class Isa { kScalar, kAvx2, kNeon };

// Whether this build carries the variant and this machine can run it.
bool IsaAvailable(Isa isa);

// The fastest available variant, unless the environment variable VELMORA_ISA names another
// ("scalar", "avx2" or "neon"); an unavailable or unknown name falls back to the fastest.
// Read on every call, so that tests and tools can switch it; callers choose once per plane.
Isa ActiveIsa();

// Every variant available here, scalar first.
std::vector<Isa> AvailableIsas();

const char* IsaName(Isa isa);

}  // namespace velmora

#endif  // VELMORA_COMMON_CPU_H
