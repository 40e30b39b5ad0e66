// Per-pixel kernels of the running mean. The scalar functions are the definitions; the ISA
// variants give bit-identical results and are chosen at run time (see common/dispatch.h).
#ifndef VELMORA_PIPELINE_MEAN_KERNELS_H
#define VELMORA_PIPELINE_MEAN_KERNELS_H

#include <cstdint>

#include "common/cpu.h"

namespace velmora {

// Folds count samples into their means, n being the frames already folded in:
//   mean[i] = (mean[i] * n) / (n + 1) + sample[i] / (n + 1)
// in double precision, in exactly this order (two divisions, one addition).
using AccumulateMeanFn = void (*)(double* mean, const uint8_t* sample, int64_t count, int32_t n);

// The result is read without the handle's lock while the worker may be folding a frame into the
// same means: a picture taken then may mix old and new pixels, which the pipeline accepts (the
// record the means are reached through is published under a lock). This is the one race by
// design, so ThreadSanitizer is told not to watch these reads rather than to forgive them later.
#if defined(__SANITIZE_THREAD__)
#define VELMORA_READS_MEANS_UNLOCKED __attribute__((no_sanitize("thread")))
#else
#define VELMORA_READS_MEANS_UNLOCKED
#endif

// out[i] = the low 8 bits of mean[i] truncated toward zero to a signed 32-bit integer.
using MeanToBytesFn = void (*)(const double* mean, uint8_t* out, int64_t count);

struct MeanKernels {
  AccumulateMeanFn accumulate;
  MeanToBytesFn to_bytes;
};

namespace scalar {
void AccumulateMean(double* mean, const uint8_t* sample, int64_t count, int32_t n);
VELMORA_READS_MEANS_UNLOCKED void MeanToBytes(const double* mean, uint8_t* out, int64_t count);
extern const MeanKernels kMean;
}  // namespace scalar
namespace avx2 {
extern const MeanKernels kMean;
}  // namespace avx2
namespace neon {
extern const MeanKernels kMean;
}  // namespace neon

// share[s] = s / (n + 1) for every byte value s, by the same division as the definition: the
// vector folds look the sample's share up instead of dividing again (exact, one division saved).
void FoldShares(int32_t n, double share[256]);

const MeanKernels& MeanKernelsFor(Isa isa);

}  // namespace velmora

#endif  // VELMORA_PIPELINE_MEAN_KERNELS_H
