#include "convert.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "velmora/yuv.h"

namespace velmora::tool {

namespace {

// The library's conversion: R = Y + kRv V', G = Y + kGu U' + kGv V', B = Y + kBu U', with
// U' = U - 128 and V' = V - 128.
constexpr double kRv = 1.370705, kGu = -0.337633, kGv = -0.698001, kBu = 1.732446;

struct YuvPixel {
  double y, cu, cv;  // luma and the chroma offsets from 128, unrounded
};

// Solves the three equations above for Y, U' and V'. Substituting U' = (B - Y) / kBu and
// V' = (R - Y) / kRv into G gives Y (1 - kGu / kBu - kGv / kRv) = G - kGu B / kBu - kGv R / kRv.
YuvPixel Invert(double r, double g, double b) {
  const double a = kGu / kBu, c = kGv / kRv;
  const double y = (g - a * b - c * r) / (1.0 - a - c);
  return {y, (b - y) / kBu, (r - y) / kRv};
}

uint8_t RoundToByte(double v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); }

}  // namespace

bool ReadPngFile(const std::string& path, RgbImage* image, std::string* error) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) {
    *error = path + ": cannot read PNG: " + png.message;
    png_image_free(&png);
    return false;
  }
  png.format = PNG_FORMAT_RGB;
  image->width = png.width;
  image->height = png.height;
  image->rgb.resize(PNG_IMAGE_SIZE(png));
  // A null background composites any alpha onto black.
  if (!png_image_finish_read(&png, nullptr, image->rgb.data(), 0, nullptr)) {
    *error = path + ": cannot read PNG: " + png.message;
    png_image_free(&png);
    return false;
  }
  png_image_free(&png);
  return true;
}

std::vector<uint8_t> RgbToFrame(const RgbImage& image, ChromaOrder order) {
  const FrameGeometry geometry{image.width, image.height};
  const size_t width = image.width;
  std::vector<uint8_t> frame(geometry.frameBytes());
  uint8_t* chroma = frame.data() + geometry.lumaBytes();
  const size_t u_at = order == ChromaOrder::kNv12 ? 0 : 1;
  for (size_t row = 0; row < image.height; row += 2) {
    for (size_t column = 0; column < width; column += 2) {
      double cu = 0.0, cv = 0.0;
      for (size_t dy = 0; dy < 2; ++dy) {
        for (size_t dx = 0; dx < 2; ++dx) {
          const size_t i = (row + dy) * width + column + dx;
          const uint8_t* p = &image.rgb[3 * i];
          const YuvPixel yuv = Invert(p[0], p[1], p[2]);
          frame[i] = RoundToByte(yuv.y);
          cu += yuv.cu;
          cv += yuv.cv;
        }
      }
      uint8_t* pair = chroma + (row / 2) * width + column;
      pair[u_at] = RoundToByte(cu / 4.0 + 128.0);
      pair[1 - u_at] = RoundToByte(cv / 4.0 + 128.0);
    }
  }
  return frame;
}

std::vector<uint8_t> ScaleFrame(const std::vector<uint8_t>& frame, FrameGeometry from,
                                FrameGeometry to) {
  std::vector<uint8_t> scaled(to.frameBytes());
  // The library reads only from its source, though its parameter is not const.
  NV12Linear(const_cast<uint8_t*>(frame.data()), scaled.data(), static_cast<int>(from.width),
             static_cast<int>(from.height), static_cast<int>(to.width),
             static_cast<int>(to.height));
  return scaled;
}

bool ParseOutputPattern(const std::string& pattern, bool* numbered, std::string* error) {
  *numbered = false;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%') continue;
    if (i + 1 < pattern.size() && pattern[i + 1] == '%') {
      ++i;
      continue;
    }
    size_t j = i + 1;
    if (j < pattern.size() && pattern[j] == '0') ++j;
    const size_t digits = j;
    while (j < pattern.size() && pattern[j] >= '0' && pattern[j] <= '9') ++j;
    if (j == pattern.size() || pattern[j] != 'd' || j - digits > 2 || *numbered) {
      *error = pattern + ": an output name may hold one frame number, as %d or %03d";
      return false;
    }
    *numbered = true;
    i = j;
  }
  return true;
}

std::string OutputPathFor(const std::string& pattern, bool numbered, size_t n) {
  if (!numbered) {
    std::string path;  // "%%" stands for '%' here too
    for (size_t i = 0; i < pattern.size(); ++i) {
      path += pattern[i];
      if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] == '%') ++i;
    }
    return path;
  }
  // The pattern was checked: one %d or %0Nd (N < 100) and literal %% only.
  const int length = std::snprintf(nullptr, 0, pattern.c_str(), static_cast<int>(n));
  std::string path(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(path.data(), path.size(), pattern.c_str(), static_cast<int>(n));
  path.resize(static_cast<size_t>(length));
  return path;
}

}  // namespace velmora::tool
