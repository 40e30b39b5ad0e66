// Velmora diagnostics for the application: step timing, a once-a-second frame rate, time-stamped
// names and memory figures from /proc, all logged in the library's line format; and null-safe
// wrappers over the C allocator and memory functions. The pipeline itself calls none of them.
#ifndef VELMORA_DIAGNOSTICS_H
#define VELMORA_DIAGNOSTICS_H

#include <cstddef>
#include <cstdint>

#include "velmora/export.h"

// One line of a /proc memory file: key (with its colon), number, unit ("kB", or empty).
struct _mem_info {
  char name[24];
  uint64_t value;
  char unit[24];
};

// Empty polymorphic base of the library's objects.
class VELMORA_EXPORT Object {
 public:
  virtual ~Object();
};

// The process-wide diagnostics object. Its fields are not guarded: use it from one thread at a
// time. Only its creation is thread-safe.
class VELMORA_EXPORT Utils : public Object {
 public:
  // Built on first use with every field zero and pid = getpid(); never destroyed.
  static Utils* getInstance();

  ~Utils() override;

  // Monotonic clock in milliseconds.
  uint64_t getNowTime();
  // Writes "IMG" and the local time as YYYYMMDDhhmmss into buf (128 bytes); nothing if buf is
  // null.
  void getNowFormatTime(char* buf);

  void startProcessTime();
  // Logs the milliseconds since startProcessTime under name, then clears both times.
  void endProcessTime(const char* name);
  void reset();
  // Counts calls; once more than a second has passed since the last report, logs the count.
  void printfFPS(const char* name);

  // Reads up to 50 lines of /proc/meminfo into mem_info.
  void getAllMemInfo();
  void printfMemInfo();
  // Entries of MemTotal, MemFree, MemAvailable, Buffers, Cached, IonTotalCache, IonTotalUsed and
  // GPUTotalUsed into out[0..7]; an entry without a match is left as it was.
  void getMemInfo(_mem_info* out);
  void printfPidMemInfo();
  // Lines of VmPeak, VmSize, VmHWM and VmRSS of this process into out[0..3].
  void getPidMemInfo(_mem_info* out);

  // Index of the first of count entries whose first n characters equal key's, or -1.
  int searchMemInfo(_mem_info* list, const char* key, int count, int n);
  int searchString(char** list, const char* key, int count, int n);

  uint64_t reserved;     // no operation reads it
  uint64_t start_ms;     // time of the last startProcessTime
  uint64_t end_ms;       // time of the last endProcessTime
  int32_t fps_count;     // printfFPS calls since the last report
  uint64_t fps_last_ms;  // time of the last frame-rate report, or of reset
  int32_t mem_count;     // entries of mem_info in use
  int32_t pid;           // getpid() at construction and at reset
  _mem_info mem_info[50];

 private:
  Utils();
  Utils(const Utils&) = delete;
  Utils& operator=(const Utils&) = delete;
};

// Null-safe wrappers over the C allocator and memory functions.
VELMORA_EXPORT void* galloc_malloc(size_t size);             // null for size 0
VELMORA_EXPORT void* galloc_alloc(size_t size);              // zero-filled; null for size 0
VELMORA_EXPORT void* galloc_realloc(void* ptr, size_t size);  // null, nothing freed, for a null
                                                              // ptr or size 0
VELMORA_EXPORT void galloc_free(void* ptr);
VELMORA_EXPORT void galloc_memcpy(void* dst, const void* src, size_t size);
VELMORA_EXPORT void galloc_memset(void* ptr, int value, size_t size);

#endif  // VELMORA_DIAGNOSTICS_H
