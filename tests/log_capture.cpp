// The capture of what the library hands to the Android log (see test_util.h). In a file of its
// own so that programs linking the test utilities without wanting the capture (the benchmarks)
// keep the library's own sink: the linker only brings this in for TakeLogRecords or
// WaitForLogText.
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "test_util.h"

namespace testutil {
namespace {

std::mutex g_log_mutex;
std::condition_variable g_log_changed;
std::vector<LogRecord> g_log_records;

}  // namespace

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
