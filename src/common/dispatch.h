// The one place that knows which kernel variants this build carries. A kernel family is a struct
// of row-function pointers with one constant object per ISA (scalar::kFoo, avx2::kFoo,
// neon::kFoo); its chooser is a single line:
//
//   const FooKernels& FooKernelsFor(Isa isa) {
//     static const IsaTable<FooKernels> t{&scalar::kFoo, VELMORA_AVX2(kFoo), VELMORA_NEON(kFoo)};
//     return Pick(t, isa);
//   }
//
// The entry point runs on FooKernelsFor(ActiveIsa()); tests and benchmarks pass the table of the
// variant they want.
#ifndef VELMORA_COMMON_DISPATCH_H
#define VELMORA_COMMON_DISPATCH_H

#include "common/cpu.h"

namespace velmora {

// One family's variants; a variant this build lacks is nullptr.
template <class K>
struct IsaTable {
  const K* scalar;
  const K* avx2;
  const K* neon;
};

// The variant for isa, or the scalar definition when the build lacks that variant or this
// machine cannot run it.
template <class K>
const K& Pick(const IsaTable<K>& table, Isa isa) {
  const K* chosen = nullptr;
  switch (isa) {
    case Isa::kScalar:
      break;
    case Isa::kAvx2:
      chosen = table.avx2;
      break;
    case Isa::kNeon:
      chosen = table.neon;
      break;
  }
  return chosen != nullptr && IsaAvailable(isa) ? *chosen : *table.scalar;
}

}  // namespace velmora

// The address of a family's object in an ISA namespace, or nullptr when that variant is not
// built (its *_avx2.cpp / *_neon.cpp file is then not compiled, so the name must not be used).
#if defined(VELMORA_HAVE_AVX2)
#define VELMORA_AVX2(name) (&::velmora::avx2::name)
#else
#define VELMORA_AVX2(name) nullptr
#endif

#if defined(VELMORA_HAVE_NEON)
#define VELMORA_NEON(name) (&::velmora::neon::name)
#else
#define VELMORA_NEON(name) nullptr
#endif

#endif  // VELMORA_COMMON_DISPATCH_H
