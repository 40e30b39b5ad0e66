// NEON variants of the running-mean kernels (AArch64). Built with -ffp-contract=off: each product
// and quotient is rounded on its own, exactly as in the scalar definitions.
#include <arm_neon.h>

#include "pipeline/mean_kernels.h"

namespace velmora {
namespace neon {
namespace {

// The vector body over the first count - count % 2 entries; returns how many it did. With
// kDivide false the division by n + 1 = 1 is left out: it is exact and changes nothing, NaN
// payloads included.
template <bool kDivide>
int64_t FoldBody(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const double total = static_cast<double>(static_cast<int64_t>(n) + 1);
  double share[256];
  FoldShares(n, share);

  const float64x2_t folded2 = vdupq_n_f64(static_cast<double>(n));
  const float64x2_t total2 = vdupq_n_f64(total);
  const int64_t body = count - count % 2;
  for (int64_t i = 0; i < body; i += 2) {
    const float64x2_t shares =
        vcombine_f64(vld1_f64(&share[sample[i]]), vld1_f64(&share[sample[i + 1]]));
    float64x2_t kept = vmulq_f64(vld1q_f64(mean + i), folded2);
    if (kDivide) kept = vdivq_f64(kept, total2);
    vst1q_f64(mean + i, vaddq_f64(kept, shares));
  }
  return body;
}

// Four doubles truncated toward zero to int32. Saturating like the scalar conversion on arm64;
// within the int32 range, the only one the language defines, every conversion agrees.
int32x4_t TruncateToInt32(const double* p) {
  return vcombine_s32(vqmovn_s64(vcvtq_s64_f64(vld1q_f64(p))),
                      vqmovn_s64(vcvtq_s64_f64(vld1q_f64(p + 2))));
}

}  // namespace

void AccumulateMean(double* mean, const uint8_t* sample, int64_t count, int32_t n) {
  const int64_t body =
      n == 0 ? FoldBody<false>(mean, sample, count, n) : FoldBody<true>(mean, sample, count, n);
  scalar::AccumulateMean(mean + body, sample + body, count - body, n);
}

VELMORA_READS_MEANS_UNLOCKED void MeanToBytes(const double* mean, uint8_t* out, int64_t count) {
  // The narrowing moves keep the low bits: the low byte of each int32.
  const int64_t body = count - count % 16;
  for (int64_t i = 0; i < body; i += 16) {
    const int16x8_t lo = vcombine_s16(vmovn_s32(TruncateToInt32(mean + i)),
                                      vmovn_s32(TruncateToInt32(mean + i + 4)));
    const int16x8_t hi = vcombine_s16(vmovn_s32(TruncateToInt32(mean + i + 8)),
                                      vmovn_s32(TruncateToInt32(mean + i + 12)));
    vst1q_u8(out + i, vreinterpretq_u8_s8(vcombine_s8(vmovn_s16(lo), vmovn_s16(hi))));
  }
  scalar::MeanToBytes(mean + body, out + body, count - body);
}

const MeanKernels kMean{AccumulateMean, MeanToBytes};

}  // namespace neon
}  // namespace velmora
