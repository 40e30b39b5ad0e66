// The library's one logging function and the macros that keep every line in the house format:
// "[INFO][ <file> ] <line>  <function>() <message>".
#ifndef VELMORA_COMMON_LOG_H
#define VELMORA_COMMON_LOG_H

#include <cstring>

#include "velmora/flowing_water.h"

// Formats the message (it must fit, with its NUL, in 1024 bytes, or the process aborts), prints
// "Algorithm <message>" on standard output and hands it to the Android log. Returns the Android
// log's result. Levels: 0 error, 2 info (no caller uses 1 or 3).
VELMORA_EXPORT int log_print(unsigned int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Deliberately without effect: logging cannot be switched off.
VELMORA_EXPORT void set_log_status(char status);

// On Android this is liblog's; elsewhere the library carries a weak default that a program may
// replace by defining its own (exported from the executable when the library is dlopened).
extern "C" int __android_log_write(int prio, const char* tag, const char* text);

namespace velmora {

// Text behind the last '/', or the whole path when it has none.
inline const char* SourceBaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// Android log priority for a level: 6 - level for 0..3; every other level folds into 6 (error).
inline int AndroidPriority(unsigned int level) { return level < 4 ? 6 - static_cast<int>(level) : 6; }

}  // namespace velmora

#define VLOG_AS(level, tag, func, fmt, ...)                                                 \
  log_print(level, "[" tag "][ %s ] %d  %s() " fmt, ::velmora::SourceBaseName(__FILE__), \
            __LINE__, func, ##__VA_ARGS__)
#define VLOG_INFO(fmt, ...) VLOG_AS(2, "INFO", __func__, fmt, ##__VA_ARGS__)
#define VLOG_ERROR(fmt, ...) VLOG_AS(0, "ERROR", __func__, fmt, ##__VA_ARGS__)

#endif  // VELMORA_COMMON_LOG_H
