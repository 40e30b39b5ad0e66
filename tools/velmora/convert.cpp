#include "convert.h"

#include <png.h>

#include <cstdio>

#include "velmora/yuv.h"

namespace velmora::tool {

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
