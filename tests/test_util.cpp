#include "test_util.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>

namespace testutil {
namespace {

std::mutex g_log_mutex;
std::condition_variable g_log_changed;
std::vector<LogRecord> g_log_records;

}  // namespace

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng() >> 24);
  return bytes;
}

Frame RandomFrame(int width, int height, uint32_t seed) {
  Frame frame;
  frame.width = width;
  frame.height = height;
  frame.y = RandomBytes(static_cast<size_t>(width) * height, seed);
  frame.uv = RandomBytes(static_cast<size_t>(width) * (height / 2), seed + 7919);
  return frame;
}

image MakeImage(Frame& frame, uint32_t format) {
  image img{};
  img.attr0 = 0xA0;
  img.attr1 = 0xA1;
  img.plane_num = 2;
  img.attr2 = 0xA2;
  img.attr3 = 0xA3;
  img.format = format;
  img.planes[0] = {1, 2, static_cast<uint32_t>(frame.width), static_cast<uint32_t>(frame.height), 3,
                   frame.y.data()};
  img.planes[1] = {4, 5, static_cast<uint32_t>(frame.width),
                   static_cast<uint32_t>(frame.height / 2), 6, frame.uv.data()};
  return img;
}

void ReferenceMean::Fold(const Frame& frame) {
  if (folded == 0) {
    y.assign(frame.y.begin(), frame.y.end());
    uv.assign(frame.uv.begin(), frame.uv.end());
  }
  const double n = folded;
  for (size_t i = 0; i < y.size(); ++i) y[i] = (y[i] * n) / (n + 1) + frame.y[i] / (n + 1);
  for (size_t i = 0; i < uv.size(); ++i) uv[i] = (uv[i] * n) / (n + 1) + frame.uv[i] / (n + 1);
  ++folded;
}

Frame ReferenceMean::Result(int width, int height) const {
  Frame out;
  out.width = width;
  out.height = height;
  for (double m : y) out.y.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  for (double m : uv) out.uv.push_back(static_cast<uint8_t>(static_cast<int>(m)));
  ReferenceSharpen(out.y.data(), out.uv.data(), out.y.data(), out.uv.data(), width, height, 2, 1.0f);
  return out;
}

namespace {

int Saturate(double v) {  // truncation toward zero, saturating at the int32 limits
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return static_cast<int>(v);
}

}  // namespace

void ReferenceSharpen(const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv,
                      int width, int height, int threshold, float amount) {
  if (width < 1 || height < 1) return;
  const int w = width;
  std::vector<int> blurred(static_cast<size_t>(width) * height);
  for (int r = 0; r < height; ++r) {
    for (int x = 0; x < width; ++x) {
      const bool border = r == 0 || x == 0 || r == height - 1 || x == width - 1;
      if (border) {
        blurred[r * w + x] = src_y[r * w + x];
        continue;
      }
      int sum = 0;
      const int weights[3] = {1, 2, 1};
      for (int dr = -1; dr <= 1; ++dr)
        for (int dx = -1; dx <= 1; ++dx)
          sum += weights[dr + 1] * weights[dx + 1] * src_y[(r + dr) * w + x + dx];
      blurred[r * w + x] = sum / 16;
    }
  }
  for (int r = 0; r < height; ++r) {
    for (int x = 0; x < width; ++x) {
      const int i = r * w + x;
      const int y = src_y[i];
      const int b = blurred[i];
      const bool has_chroma = r < height / 2;
      if (std::abs(y - b) <= threshold) {
        dst_y[i] = static_cast<uint8_t>(y);
        if (has_chroma) dst_uv[i] = src_uv[i];
        continue;
      }
      const float gain = amount + 1.0f;
      const float p = gain * static_cast<float>(y);
      const float q = static_cast<float>(b) * amount;
      int n = Saturate(p - q);
      n = n < 0 ? 0 : (n > 255 ? 255 : n);
      dst_y[i] = static_cast<uint8_t>(n);
      if (has_chroma) {
        const double y2 = src_y[i];
        const float ratio = static_cast<float>(n / (y2 + 1e-5));
        const float product = static_cast<float>(src_uv[i] - 128) * ratio;
        const float cv = product + 128.0f;
        dst_uv[i] = static_cast<uint8_t>(Saturate(cv) & 0xff);
      }
    }
  }
}

std::vector<LogRecord> TakeLogRecords() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  std::vector<LogRecord> taken;
  taken.swap(g_log_records);
  return taken;
}

bool WaitForLogText(const std::string& needle) {
  std::unique_lock<std::mutex> lock(g_log_mutex);
  return g_log_changed.wait_for(lock, std::chrono::seconds(10), [&] {
    for (const LogRecord& r : g_log_records)
      if (r.text.find(needle) != std::string::npos) return true;
    return false;
  });
}

}  // namespace testutil

// Replaces the library's default log sink (in the unit tests by static linking, in the API test
// because the executable exports it to the dlopened library).
extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  {
    std::lock_guard<std::mutex> lock(testutil::g_log_mutex);
    testutil::g_log_records.push_back({prio, tag, text});
  }
  testutil::g_log_changed.notify_all();
  return static_cast<int>(std::strlen(text));
}
