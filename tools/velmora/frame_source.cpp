#include "frame_source.h"

namespace velmora::tool {

namespace {

// Reads a run of decimal digits at text[*pos]; values past kMaxSide saturate to kMaxSide + 1 so
// that a long number cannot overflow.
bool ParseSide(const std::string& text, size_t* pos, uint32_t* value) {
  const size_t start = *pos;
  uint32_t v = 0;
  while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9') {
    v = v * 10 + static_cast<uint32_t>(text[*pos] - '0');
    if (v > kMaxSide) v = kMaxSide + 1;
    ++*pos;
  }
  *value = v;
  return *pos > start;
}

}  // namespace

const char* ChromaOrderName(ChromaOrder order) {
  return order == ChromaOrder::kNv12 ? "nv12" : "nv21";
}

bool ParseSize(const std::string& text, FrameGeometry* geometry, std::string* why) {
  size_t pos = 0;
  uint32_t width = 0, height = 0;
  bool well_formed =
      ParseSide(text, &pos, &width) && pos < text.size() && (text[pos] == 'x' || text[pos] == 'X');
  if (well_formed) {
    ++pos;
    well_formed = ParseSide(text, &pos, &height) && pos == text.size();
  }
  if (!well_formed) {
    *why = "expected WIDTHxHEIGHT, e.g. 1920x1080";
  } else if (width == 0 || height == 0) {
    *why = "width and height must be non-zero";
  } else if (width > kMaxSide || height > kMaxSide) {
    *why = "width and height must be at most " + std::to_string(kMaxSide);
  } else if (width % 2 != 0 || height % 2 != 0) {
    *why = "width and height must be even";
  } else {
    geometry->width = width;
    geometry->height = height;
    return true;
  }
  return false;
}

bool FrameSource::skip(std::string* error) {
  skipped_.resize(geometry().frameBytes());
  return next(skipped_.data(), error);
}

bool ParseChromaOrder(const std::string& text, ChromaOrder* order) {
  if (text == "nv12") {
    *order = ChromaOrder::kNv12;
  } else if (text == "nv21") {
    *order = ChromaOrder::kNv21;
  } else {
    return false;
  }
  return true;
}

}  // namespace velmora::tool
