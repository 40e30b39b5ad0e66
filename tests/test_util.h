// Helpers shared by the tests and the benchmarks (library velmora_test_util): random frames, a
// photograph-like test image, an independent reference of the pipeline's arithmetic, and a
// capture of what the library hands to the Android log (linked in only where used).
#ifndef VELMORA_TESTS_TEST_UTIL_H
#define VELMORA_TESTS_TEST_UTIL_H

#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "velmora/flowing_water.h"

namespace testutil {

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed);

// A two-plane 4:2:0 frame held as two byte vectors (chroma: height / 2 rows of width bytes).
struct Frame {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> y;
  std::vector<uint8_t> uv;
};
Frame RandomFrame(int width, int height, uint32_t seed);
Frame FlatFrame(int width, int height, uint8_t value);

// An 8-bit grey image (width * height bytes, rows packed) that looks like a photograph to a
// feature detector: smooth shading, four dozen flat-toned rectangles (some turned) and ellipses
// with sharp edges, mild noise. Some hundreds of strong corners at 960x540 and at 1920x1080
// alike; the same seed gives the same image on every platform.
std::vector<uint8_t> TexturedImage(int width, int height, uint32_t seed);

// Floats of every kind for the float kernels: mostly ordinary values of wide range and small
// integers (ties, equal values) and, one in special_in on average, zeros of both signs,
// infinities, NaN, subnormals and arbitrary bit patterns.
std::vector<float> RandomFloats(size_t count, uint32_t seed, int special_in = 4);

// The frame as one buffer, as files and the tool hold it: luma, then chroma.
std::vector<uint8_t> Packed(const Frame& frame);

// The record of a frame as an app hands it in (format 4 or 5). The caller-defined fields carry
// recognisable values: attr0..attr3 0xA0..0xA3, plane 0 attr0/attr1/attr2 1/2/3, plane 1 4/5/6.
image MakeImage(Frame& frame, uint32_t format = 4);

// Running mean of frames in double precision, as a camera pipeline defines it:
// mean = (mean * n) / (n + 1) + sample / (n + 1).
struct ReferenceMean {
  std::vector<double> y;
  std::vector<double> uv;
  int folded = 0;
  void Fold(const Frame& frame);
  // Truncated to bytes and sharpened in place with threshold 2 and amount 1.
  Frame Result(int width, int height) const;
};

// The sharpen rule written out pixel by pixel, independently of the library: 3x3 binomial blur
// (border cells take the source luma), thresholded unsharp mask, chroma rescaled by the ratio of
// new luma to the re-read source luma.
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
  std::string tag;
  std::string text;
};
std::vector<LogRecord> TakeLogRecords();  // returns and clears what was recorded
// Blocks until a record whose text contains needle arrives (true) or a few seconds pass (false).
bool WaitForLogText(const std::string& needle);

// What the library logged while fn ran, its copy on standard output swallowed. Inline, so that
// programs that never call it keep the library's own log sink.
template <class Fn>
std::vector<LogRecord> LogsOf(Fn&& fn) {
  TakeLogRecords();
  std::fflush(stdout);
  const int saved = dup(1), null = open("/dev/null", O_WRONLY);
  dup2(null, 1);
  close(null);
  fn();
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  return TakeLogRecords();
}

// A log text with its line number (which moves with every edit) replaced by N.
inline std::string MaskLineNumber(const std::string& text) {
  return std::regex_replace(text, std::regex("\\] \\d+  "), "] N  ");
}

// A job for a pool's worker that holds it until Open(), so that what is submitted meanwhile is
// known to be queued behind it.
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool entered = false, open = false;
  static void Job(void* arg) {
    Gate* gate = static_cast<Gate*>(arg);
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->entered = true;
    gate->cv.notify_all();
    gate->cv.wait(lock, [gate] { return gate->open; });
  }
  void WaitEntered() {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [this] { return entered; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cv.notify_all();
  }
};

}  // namespace testutil

#endif  // VELMORA_TESTS_TEST_UTIL_H
