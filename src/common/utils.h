// Internals of the diagnostics object, reachable from the tests.
#ifndef VELMORA_COMMON_UTILS_H
#define VELMORA_COMMON_UTILS_H

#include <cstdio>

#include "velmora/diagnostics.h"

namespace velmora {

// Reads up to max lines of a memory report (key, number, unit) from file into entries and returns
// how many entries it filled. The end-of-file test comes before each read, so when the read at the
// end fails the last line is parsed a second time and kept as one more entry.
int ReadMemInfoLines(std::FILE* file, _mem_info* entries, int max);

}  // namespace velmora

#endif  // VELMORA_COMMON_UTILS_H
