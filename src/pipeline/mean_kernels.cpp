#include "pipeline/mean_kernels.h"

#include "common/dispatch.h"

namespace velmora {
namespace scalar {

void AccumulateMean(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const double folded = static_cast<double>(n);
  const double total = static_cast<double>(static_cast<int64_t>(n) + 1);
  for (int64_t i = 0; i < count; ++i) {
    mean[i] = (mean[i] * folded) / total + static_cast<double>(sample[i]) / total;
  }
}

VELMORA_READS_MEANS_UNLOCKED void MeanToBytes(const double* mean, uint8_t* out, int64_t count) {
  // Every mean lies in 0..255, so truncation is the whole conversion: no rounding, no clamping.
  for (int64_t i = 0; i < count; ++i) out[i] = static_cast<uint8_t>(static_cast<int32_t>(mean[i]));
}

const MeanKernels kMean{AccumulateMean, MeanToBytes};

}  // namespace scalar

void FoldShares(int32_t n, double share[256]) {
  const double total = static_cast<double>(static_cast<int64_t>(n) + 1);
  for (int s = 0; s < 256; ++s) share[s] = static_cast<double>(s) / total;
}

const MeanKernels& MeanKernelsFor(Isa isa) {
  static const IsaTable<MeanKernels> t{&scalar::kMean, VELMORA_AVX2(kMean), VELMORA_NEON(kMean)};
  return Pick(t, isa);
}

}  // namespace velmora
