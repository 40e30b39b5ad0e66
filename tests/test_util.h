// Helpers of the tests and benchmarks (velmora_test_util): random frames, a photograph-like image,
// an independent reference of the pipeline's arithmetic, temporary files, the Android log
// capture (log_capture.cpp, linked in only where used) and a gate that holds the pool's worker.
#ifndef VELMORA_TESTS_TEST_UTIL_H
#define VELMORA_TESTS_TEST_UTIL_H

#include <cstdint>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "velmora/flowing_water.h"

namespace testutil {

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed);

// A two-plane 4:2:0 frame as two byte vectors (chroma: height / 2 rows of width bytes).
struct Frame {
  int width = 0, height = 0;
  std::vector<uint8_t> y, uv;
};
Frame RandomFrame(int width, int height, uint32_t seed);
Frame FlatFrame(int width, int height, uint8_t value);
std::vector<uint8_t> Packed(const Frame& frame);  // one buffer, as files hold it: luma, chroma

// An 8-bit grey image (rows packed) that looks like a photograph to a feature detector: smooth
// shading, four dozen sharp-edged rectangles (some turned) and ellipses, mild noise. Some hundreds
// of strong corners at 960x540 and 1920x1080 alike; a seed gives the same image everywhere.
std::vector<uint8_t> TexturedImage(int width, int height, uint32_t seed);

// Mostly ordinary floats of wide range and small integers (ties); one in special_in on average a
// zero of either sign, an infinity, NaN, a subnormal or an arbitrary bit pattern.
std::vector<float> RandomFloats(size_t count, uint32_t seed, int special_in = 4);

// The record of a frame as an app hands it in, its caller-defined fields recognisable:
// attr0..attr3 0xA0..0xA3, plane 0 attr0/attr1/attr2 1/2/3, plane 1 4/5/6.
image MakeImage(Frame& frame, uint32_t format = 4);

// Running mean in double precision: mean = (mean * n) / (n + 1) + sample / (n + 1).
struct ReferenceMean {
  std::vector<double> y, uv;
  int folded = 0;
  void Fold(const Frame& frame);
  Frame Result(int width, int height) const;  // truncated, sharpened in place (2, 1.0)
};

// The sharpen rule written out pixel by pixel: 3x3 binomial blur (border cells take the source
// luma), thresholded unsharp mask, chroma scaled by new luma over the re-read source luma.
void ReferenceSharpen(const uint8_t* src_y, const uint8_t* src_uv, uint8_t* dst_y, uint8_t* dst_uv,
                      int width, int height, int threshold, float amount);

// A fresh directory under the system's temporary one, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> List() const;  // the names in it, sorted

 private:
  std::string path_;
};
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> ReadFile(const std::string& path);  // empty if unreadable

// One call of __android_log_write as the library made it.
struct LogRecord {
  int priority;
  std::string tag, text;
};
std::vector<LogRecord> TakeLogRecords();  // returns and clears what was recorded

// What the library logged while fn ran, its copy on standard output swallowed. In log_capture.cpp,
// so that programs that never call it keep the library's own log sink.
std::vector<LogRecord> LogsOf(const std::function<void()>& fn);

// Holds the single worker of a running pool from construction until Open(), so that what is
// submitted meanwhile queues behind it. (A template, so that this header needs no pool.)
struct Gate {
  template <class Pool>
  explicit Gate(Pool* pool) {
    std::future<void> held = entered.get_future();
    pool->submit({&Hold, this});
    held.wait();
  }
  void Open() { open.set_value(); }
  static void Hold(void* arg) {
    Gate* gate = static_cast<Gate*>(arg);
    const std::shared_future<void> opened = gate->opened;  // the gate may be gone once open
    gate->entered.set_value();
    opened.wait();
  }

  std::promise<void> entered, open;
  std::shared_future<void> opened = open.get_future();
};

}  // namespace testutil

#endif  // VELMORA_TESTS_TEST_UTIL_H
