#include "common/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#ifdef __ANDROID__
#include <android/log.h>
#else
// Off Android there is no system log: the line already went to standard output, so the default
// sink drops it. It is weak and exported so that a program (a test, say) can supply its own.
extern "C" __attribute__((weak, visibility("default"))) int __android_log_write(int prio,
                                                                               const char* tag,
                                                                               const char* text) {
  (void)prio;
  (void)tag;
  (void)text;
  return 1;
}
#endif

namespace {
constexpr const char* kTag = "Algorithm";
constexpr int kMessageCapacity = 1024;
}  // namespace

int log_print(unsigned int level, const char* format, ...) {
  char message[kMessageCapacity];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  // A message that does not fit is a programming error: abort, as a fortified vsprintf would,
  // rather than log a silently truncated line.
  if (length < 0 || length >= kMessageCapacity) std::abort();

  // Standard output is not flushed here: the stream's own buffering is relied on, which keeps
  // logging cheap on the frame path.
  std::printf("%s %s\n", kTag, message);
  return __android_log_write(velmora::AndroidPriority(level), kTag, message);
}

void set_log_status(char status) { (void)status; }
