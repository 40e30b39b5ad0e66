// Choice of the instruction set that the per-pixel kernels run on.
#ifndef VELMORA_COMMON_CPU_H
#define VELMORA_COMMON_CPU_H

#include <vector>

namespace velmora {

enum class Isa { kScalar, kAvx2, kNeon };

// Whether this build carries the variant and this machine can run it.
bool IsaAvailable(Isa isa);

// The variant the library's entry points run on: the one a live ScopedIsa forces, else the one
// the environment variable VELMORA_ISA names ("scalar", "avx2" or "neon"; read once, at the first
// call), else the fastest available. A forced variant this machine lacks is ignored; an
// unavailable or unknown name in the variable gives the fastest.
Isa ActiveIsa();

// Every variant available here, scalar first.
std::vector<Isa> AvailableIsas();

const char* IsaName(Isa isa);

// Forces ActiveIsa() for the whole process while it lives, then restores the previous choice
// (scopes nest). One process-wide atomic, not a per-thread setting: the pipeline folds frames on
// its worker thread, which reads the choice there. So only a program's own top level may create
// one, before it starts the work it is meant to govern and outliving it: a test body, a
// benchmark, the tool's run (--isa). The library itself never writes it. Tests and benchmarks
// that want a particular kernel should rather pass that variant's table to the internal function.
class ScopedIsa {
 public:
  explicit ScopedIsa(Isa isa);
  ~ScopedIsa();
  ScopedIsa(const ScopedIsa&) = delete;
  ScopedIsa& operator=(const ScopedIsa&) = delete;

 private:
  int previous_;
};

}  // namespace velmora

#endif  // VELMORA_COMMON_CPU_H
