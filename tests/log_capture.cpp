// The capture of what the library hands to the Android log (see test_util.h), in a file of its own
// so that programs linking the test utilities without wanting it (the benchmarks) keep the
// library's own sink: the linker brings this in only for TakeLogRecords or LogsOf.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <utility>

#include "test_util.h"

namespace testutil {
namespace {
std::mutex g_log_mutex;
std::vector<LogRecord> g_log_records;
}  // namespace

std::vector<LogRecord> TakeLogRecords() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  return std::exchange(g_log_records, {});
}

std::vector<LogRecord> LogsOf(const std::function<void()>& fn) {
  TakeLogRecords();
  testing::internal::CaptureStdout();
  fn();
  testing::internal::GetCapturedStdout();
  return TakeLogRecords();
}

}  // namespace testutil

// Replaces the library's default log sink (in the unit tests by static linking, in the API test
// because the executable exports it to the dlopened library).
extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  std::lock_guard<std::mutex> lock(testutil::g_log_mutex);
  testutil::g_log_records.push_back({prio, tag, text});
  return static_cast<int>(std::strlen(text));
}
