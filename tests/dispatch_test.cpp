// The choice of kernel variant: the scoped override and the table lookup every family uses.
#include <gtest/gtest.h>

#include "common/cpu.h"
#include "common/dispatch.h"

namespace velmora {
namespace {

// An override not restored (or not nested), or a variant picked where it is not built or not run.
TEST(Dispatch, ScopedIsaNestsAndRestoresAndPickTakesOnlyVariantsBuiltAndRunnable) {
  const Isa before = ActiveIsa();
  {
    const ScopedIsa outer(Isa::kScalar);
    for (Isa isa : AvailableIsas()) {
      const ScopedIsa inner(isa);
      EXPECT_EQ(ActiveIsa(), isa);
    }
    EXPECT_EQ(ActiveIsa(), Isa::kScalar);
  }
  EXPECT_EQ(ActiveIsa(), before);

  const int variant[] = {0, 1, 2};  // scalar, avx2, neon
  const IsaTable<int> full{&variant[0], &variant[1], &variant[2]};
  const IsaTable<int> plain{&variant[0], nullptr, nullptr};
  for (Isa isa : {Isa::kScalar, Isa::kAvx2, Isa::kNeon}) {
    EXPECT_EQ(Pick(full, isa), IsaAvailable(isa) ? variant[static_cast<int>(isa)] : 0) << IsaName(isa);
    EXPECT_EQ(Pick(plain, isa), 0) << IsaName(isa);
  }
}

}  // namespace
}  // namespace velmora
