#include "bt601.h"

#include <algorithm>
#include <cmath>

namespace velmora::tool {

namespace {

uint8_t RoundToByte(double value) {
  return static_cast<uint8_t>(std::clamp(std::floor(value + 0.5), 0.0, 255.0));
}

}  // namespace

void RgbToNv12(const uint8_t* rgb, size_t stride, FrameGeometry geometry, uint8_t* frame,
               ChromaOrder order) {
  const size_t width = geometry.width;
  uint8_t* chroma = frame + geometry.lumaBytes();
  const size_t u_at = order == ChromaOrder::kNv12 ? 0 : 1;
  for (size_t row = 0; row < geometry.height; ++row) {
    const uint8_t* in = rgb + row * stride;
    uint8_t* luma = frame + row * width;
    for (size_t x = 0; x < width; ++x) {
      luma[x] = RoundToByte(0.299 * in[3 * x] + 0.587 * in[3 * x + 1] + 0.114 * in[3 * x + 2]);
    }
  }
  for (size_t row = 0; row < geometry.height; row += 2) {
    const uint8_t* top = rgb + row * stride;
    const uint8_t* bottom = top + stride;
    uint8_t* pairs = chroma + (row / 2) * width;
    for (size_t x = 0; x < width; x += 2) {
      double mean[3];
      for (int c = 0; c < 3; ++c) {
        mean[c] = (top[3 * x + c] + top[3 * x + 3 + c] + bottom[3 * x + c] +
                   bottom[3 * x + 3 + c]) / 4.0;
      }
      pairs[x + u_at] =
          RoundToByte(128.0 - 0.168736 * mean[0] - 0.331264 * mean[1] + 0.5 * mean[2]);
      pairs[x + 1 - u_at] =
          RoundToByte(128.0 + 0.5 * mean[0] - 0.418688 * mean[1] - 0.081312 * mean[2]);
    }
  }
}

std::vector<uint8_t> FrameToRgb(const uint8_t* frame, FrameGeometry geometry, ChromaOrder order) {
  const size_t width = geometry.width;
  const uint8_t* chroma = frame + geometry.lumaBytes();
  const size_t u_at = order == ChromaOrder::kNv12 ? 0 : 1;
  std::vector<uint8_t> rgb(geometry.lumaBytes() * 3);
  for (size_t row = 0; row < geometry.height; ++row) {
    const uint8_t* luma = frame + row * width;
    const uint8_t* pairs = chroma + (row / 2) * width;
    uint8_t* out = rgb.data() + row * width * 3;
    for (size_t x = 0; x < width; ++x) {
      const double u = pairs[(x & ~size_t{1}) + u_at] - 128.0;
      const double v = pairs[(x & ~size_t{1}) + 1 - u_at] - 128.0;
      const double y = luma[x];
      out[3 * x] = RoundToByte(y + 1.402 * v);
      out[3 * x + 1] = RoundToByte(y - 0.344136 * u - 0.714136 * v);
      out[3 * x + 2] = RoundToByte(y + 1.772 * u);
    }
  }
  return rgb;
}

}  // namespace velmora::tool
