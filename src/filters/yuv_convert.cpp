// NV12/NV21 frames to three colour planes.
#include "filters/yuv_convert_kernels.h"
#include "velmora/yuv.h"

// The last argument has no known use; it is accepted and ignored, so that callers passing
// anything there (a format, a flag) get the same result.
void NV12toRGBA8888(unsigned char* srcY, unsigned char* srcUV, unsigned char* dstR,
                    unsigned char* dstG, unsigned char* dstB, int width, int height, int padding,
                    int /*unused*/) {
  using namespace velmora;
  ConvertYuvToRgbPlanes(YuvConvertKernelsFor(ActiveIsa()), true, srcY, srcUV, dstR, dstG, dstB,
                        width, height, padding);
}

void NV21toRGBA8888(unsigned char* srcY, unsigned char* srcUV, unsigned char* dstR,
                    unsigned char* dstG, unsigned char* dstB, int width, int height, int padding,
                    int /*unused*/) {
  using namespace velmora;
  ConvertYuvToRgbPlanes(YuvConvertKernelsFor(ActiveIsa()), false, srcY, srcUV, dstR, dstG, dstB,
                        width, height, padding);
}
