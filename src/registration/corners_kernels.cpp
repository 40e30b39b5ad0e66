#include "registration/corners_kernels.h"

#include "common/dispatch.h"

namespace velmora {
namespace scalar {

void ProductRow(const int32_t* dx, const int32_t* dy, double scale, float* dxx, float* dxy,
                float* dyy, int width) {
  for (int i = 0; i < width; ++i) {
    const double x = dx[i], y = dy[i];
    dxx[i] = static_cast<float>((scale * x) * x);
    dxy[i] = static_cast<float>((scale * x) * y);
    dyy[i] = static_cast<float>((scale * y) * y);
  }
}

float RowMax(const float* row, int width, float running) {
  for (int i = 0; i < width; ++i) {
    if (row[i] > running) running = row[i];
  }
  return running;
}

void CutRow(float* row, int width, float threshold) {
  for (int i = 0; i < width; ++i) {
    if (row[i] <= threshold) row[i] = 0.0f;
  }
}

int PeakRow(const float* response, const float* dilated, int width, int32_t* xs) {
  int n = 0;
  for (int x = 1; x < width - 1; ++x) {
    if (response[x] != 0 && response[x] == dilated[x]) xs[n++] = x;
  }
  return n;
}

const CornerKernels kCorner{&kGradient, ProductRow, RowMax, CutRow, PeakRow};

}  // namespace scalar

const CornerKernels& CornerKernelsFor(Isa isa) {
  static const IsaTable<CornerKernels> t{&scalar::kCorner, VELMORA_AVX2(kCorner),
                                         VELMORA_NEON(kCorner)};
  return Pick(t, isa);
}

}  // namespace velmora
