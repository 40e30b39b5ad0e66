// The diagnostics object and the allocator wrappers. This file's base name, utils.cpp, is what
// its log lines print.
#include "common/utils.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/log.h"

// Layouts an application compiles against: the vtable pointer, then the fields in order.
static_assert(sizeof(_mem_info) == 56, "_mem_info: name[24], u64 value, unit[24]");
static_assert(sizeof(Utils) == 56 + 50 * sizeof(_mem_info), "Utils: header, then mem_info[50]");

namespace velmora {
namespace {

constexpr int kMaxMemEntries = 50;
constexpr int kLineCapacity = 256;

// The system figures printfMemInfo and getMemInfo report, in their order. Each key sits in a
// fixed 20-character field.
constexpr int kSystemKeyCount = 8;
constexpr char kSystemKeys[kSystemKeyCount][20] = {
    "MemTotal:", "MemFree:",       "MemAvailable:", "Buffers:",
    "Cached:",   "IonTotalCache:", "IonTotalUsed:", "GPUTotalUsed:"};

// The process figures of the status file; entry k of getPidMemInfo's output is key k.
constexpr int kProcessKeyCount = 4;
constexpr const char* kProcessKeys[kProcessKeyCount] = {"VmPeak:", "VmSize:", "VmHWM:", "VmRSS:"};

// One line as key, number, unit. The entry is cleared first so that a line without a unit (or
// without a number) leaves those fields empty. The widths keep a long word (the comma lists of
// the status file, say) inside the 24-byte fields.
void ParseLine(const char* line, _mem_info* entry) {
  std::memset(entry, 0, sizeof *entry);
  unsigned long value = 0;
  std::sscanf(line, "%23s %lu %23s", entry->name, &value, entry->unit);
  entry->value = value;
}

bool StartsWith(const char* name, const char* key) {
  return std::strncmp(name, key, std::strlen(key)) == 0;
}

// Walks the status file as the reports do: up to 50 lines, stopping once more than three
// process keys matched; found(k, entry) for every line whose key begins with process key k.
template <typename Found>
void ScanStatus(std::FILE* file, Found found) {
  char line[kLineCapacity] = {};
  int matches = 0;
  for (int lines = 0; lines < kMaxMemEntries && !std::feof(file); ++lines) {
    // As in ReadMemInfoLines, a failed read at the end leaves the previous line to parse again.
    std::fgets(line, sizeof line, file);
    _mem_info entry;
    ParseLine(line, &entry);
    for (int k = 0; k < kProcessKeyCount; ++k) {
      if (StartsWith(entry.name, kProcessKeys[k])) {
        found(k, entry);
        ++matches;
      }
    }
    if (matches > 3) break;
  }
}

std::FILE* OpenStatus(int pid) {
  char path[128];
  std::snprintf(path, sizeof path, "/proc/%d/status", pid);
  return std::fopen(path, "r");
}

}  // namespace

int ReadMemInfoLines(std::FILE* file, _mem_info* entries, int max) {
  char line[kLineCapacity] = {};
  int count = 0;
  while (count < max) {
    // The end-of-file flag is only set by a read that fails, so the loop makes one read past the
    // last line: fgets leaves the buffer as it was, and the last line is entered twice. Kept:
    // callers see the duplicate entry, and counts depend on it.
    if (std::feof(file)) break;
    std::fgets(line, sizeof line, file);
    ParseLine(line, &entries[count]);
    ++count;
  }
  return count;
}

}  // namespace velmora

Object::~Object() {}

Utils::Utils()
    : reserved(0),
      start_ms(0),
      end_ms(0),
      fps_count(0),
      fps_last_ms(0),
      mem_count(0),
      pid(static_cast<int32_t>(getpid())),
      mem_info() {}

Utils::~Utils() {}

Utils* Utils::getInstance() {
  // Built once, thread-safely, and never destroyed: a report from another static destructor
  // still finds it.
  static Utils* const instance = new Utils();
  return instance;
}

uint64_t Utils::getNowTime() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t micros =
      static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec / 1000);
  return micros / 1000;
}

void Utils::getNowFormatTime(char* buf) {
  const time_t now = time(nullptr);
  // The reentrant form: the application may call localtime on its own threads.
  tm local;
  const tm* broken = localtime_r(&now, &local);
  if (buf == nullptr || broken == nullptr) return;
  std::snprintf(buf, 128, "%s%04d%02d%02d%02d%02d%02d", "IMG", broken->tm_year + 1900,
                broken->tm_mon + 1, broken->tm_mday, broken->tm_hour, broken->tm_min,
                broken->tm_sec);
}

void Utils::startProcessTime() { start_ms = getNowTime(); }

void Utils::endProcessTime(const char* name) {
  end_ms = getNowTime();
  VLOG_INFO("run %s time is %lld ms", name, static_cast<long long>(end_ms - start_ms));
  start_ms = 0;
  end_ms = 0;
}

void Utils::reset() {
  mem_count = 0;
  start_ms = 0;
  end_ms = 0;
  fps_count = 0;
  fps_last_ms = getNowTime();
  pid = static_cast<int32_t>(getpid());
}

void Utils::printfFPS(const char* name) {
  const uint64_t now = getNowTime();
  if (now - fps_last_ms >= 1001) {
    VLOG_INFO("run %s fps is : %d ", name, fps_count);
    fps_last_ms = now;
    // The call that reports is not counted: a steady 30 calls a second report 29 or 30.
    fps_count = 0;
  } else {
    ++fps_count;
  }
}

void Utils::getAllMemInfo() {
  std::FILE* file = std::fopen("/proc/meminfo", "r");
  mem_count = 0;
  if (file == nullptr) {
    VLOG_ERROR("do not have permission to read meminfo");
    return;
  }
  mem_count = velmora::ReadMemInfoLines(file, mem_info, velmora::kMaxMemEntries);
  std::fclose(file);
}

void Utils::printfMemInfo() {
  using namespace velmora;
  getAllMemInfo();
  VLOG_INFO("*** current memory info start ***");
  for (const char* key : kSystemKeys) {
    const int at = searchMemInfo(mem_info, key, mem_count, static_cast<int>(std::strlen(key)));
    if (at < 0) continue;
    const _mem_info& e = mem_info[at];
    VLOG_INFO("%s %lu %s", e.name, static_cast<unsigned long>(e.value), e.unit);
  }
  VLOG_INFO("*** current memory info end ***\n");
}

void Utils::getMemInfo(_mem_info* out) {
  using namespace velmora;
  getAllMemInfo();
  VLOG_INFO("select_count %d mNumMemInfo %d", kSystemKeyCount, mem_count);
  for (int k = 0; k < kSystemKeyCount; ++k) {
    const char* key = kSystemKeys[k];
    const int at = searchMemInfo(mem_info, key, mem_count, static_cast<int>(std::strlen(key)));
    if (at >= 0) out[k] = mem_info[at];
  }
}

void Utils::printfPidMemInfo() {
  using namespace velmora;
  std::FILE* file = OpenStatus(pid);
  // Cleared although the status lines are not kept in mem_info.
  mem_count = 0;
  VLOG_INFO(" *** current pid : %d memory info start ***", pid);
  if (file != nullptr) {
    ScanStatus(file, [](int, const _mem_info& e) {
      // The number is printed as a 32-bit integer.
      VLOG_AS(2, "INFO", "printfPidMemInfo", "%s %d %s", e.name, static_cast<int>(e.value), e.unit);
    });
    std::fclose(file);
  } else {
    VLOG_ERROR("do not have permission to read %d memInfo", pid);
  }
  VLOG_INFO("*** current pid : %d  memory info end ***\n", pid);
}

void Utils::getPidMemInfo(_mem_info* out) {
  using namespace velmora;
  std::FILE* file = OpenStatus(pid);
  mem_count = 0;  // as in printfPidMemInfo, whose scan this is without the start and end lines
  if (file == nullptr) {
    VLOG_ERROR("do not have permission to read %d memInfo", pid);
    return;
  }
  ScanStatus(file, [out](int k, const _mem_info& e) { out[k] = e; });
  std::fclose(file);
}

int Utils::searchMemInfo(_mem_info* list, const char* key, int count, int n) {
  if (count < 1) return -1;
  for (int i = 0; i < count; ++i) {
    if (std::strncmp(list[i].name, key, static_cast<size_t>(n)) == 0) return i;
  }
  return -1;
}

int Utils::searchString(char** list, const char* key, int count, int n) {
  if (count < 1) return -1;
  for (int i = 0; i < count; ++i) {
    if (std::strncmp(list[i], key, static_cast<size_t>(n)) == 0) return i;
  }
  return -1;
}

void* galloc_malloc(size_t size) { return size == 0 ? nullptr : std::malloc(size); }

void* galloc_alloc(size_t size) {
  if (size == 0) return nullptr;
  void* p = std::malloc(size);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

void* galloc_realloc(void* ptr, size_t size) {
  // Unlike realloc, a null ptr does not allocate and size 0 does not free.
  if (ptr == nullptr || size == 0) return nullptr;
  return std::realloc(ptr, size);
}

void galloc_free(void* ptr) {
  if (ptr != nullptr) std::free(ptr);
}

void galloc_memcpy(void* dst, const void* src, size_t size) {
  if (dst != nullptr && src != nullptr && size != 0) std::memcpy(dst, src, size);
}

void galloc_memset(void* ptr, int value, size_t size) {
  if (ptr != nullptr && size != 0) std::memset(ptr, value, size);
}
