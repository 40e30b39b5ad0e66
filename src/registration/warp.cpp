// The plane warps: one 8-bit plane through a homography, row by row on the kernels of the ISA in
// force.
#include <cstdint>

#include "registration/warp_kernels.h"
#include "velmora/warp.h"

namespace velmora {

void WarpFixedPointPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                         int width, int height) {
  for (int y = 0; y < height && width > 0; ++y) {
    k.fixed_point_row(H, src, dst + static_cast<int64_t>(y) * width, width, height, y, 0);
  }
}

void WarpNearestPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                      int width, int height) {
  for (int y = 0; y < height && width > 0; ++y) {
    k.nearest_row(H, src, dst + static_cast<int64_t>(y) * width, width, height, y, 0);
  }
}

void WarpBilinearPlane(const WarpKernels& k, const double* H, const uint8_t* src, uint8_t* dst,
                       int width, int height) {
  const BilinearSource plane{src, width, 1, width - 1, height - 1, static_cast<double>(width - 1),
                             static_cast<double>(height - 1), 0.0, 0.0};
  for (int y = 0; y < height && width > 0; ++y) {
    k.bilinear_row(H, plane, dst + static_cast<int64_t>(y) * width, width, y, 255, 0);
  }
}

}  // namespace velmora

void perspectiveWarp(double* H, unsigned char* src, unsigned char* dst, int width, int height) {
  velmora::WarpBilinearPlane(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, dst, width,
                             height);
}

void perspectiveWarpOP(double* H, unsigned char* src, unsigned char* dst, int width, int height) {
  velmora::WarpFixedPointPlane(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, dst, width,
                               height);
}

void perspectiveWarpNN(double* H, unsigned char* src, unsigned char* dst, int width, int height) {
  velmora::WarpNearestPlane(velmora::WarpKernelsFor(velmora::ActiveIsa()), H, src, dst, width,
                            height);
}
