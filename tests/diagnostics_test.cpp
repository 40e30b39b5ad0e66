// The diagnostics object: time formats, search rules, the lines it logs and the
// memory figures it reads from this host's /proc; and the null rules of the
// allocator wrappers.
#include "velmora/diagnostics.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/utils.h"
#include "test_util.h"

namespace {

using testutil::LogRecord;
using testutil::LogsOf;

// The house line for a function of utils.cpp, any line number, then the message.
std::string Line(const std::string& function, const std::string& message) {
  return "\\[INFO\\]\\[ utils\\.cpp \\] [0-9]+  " + function + "\\(\\) " + message;
}

// An info line (Android priority 4) of that function with that message.
testing::AssertionResult IsLine(const LogRecord& record, const std::string& function,
                                const std::string& message) {
  if (record.priority != 4) return testing::AssertionFailure() << "priority " << record.priority;
  if (!std::regex_match(record.text, std::regex(Line(function, message)))) {
    return testing::AssertionFailure() << record.text;
  }
  return testing::AssertionSuccess();
}

// A figure of a /proc text file, read independently: the number after "key".
uint64_t ProcFigure(const std::string& path, const std::string& key) {
  std::ifstream in(path);
  std::string name;
  uint64_t value = 0;
  std::string rest;
  while (in >> name >> value) {
    if (name == key) return value;
    std::getline(in, rest);
  }
  return 0;
}

TEST(UtilsInstance, IsOneObjectLaidOutAsDeclared) {
  Utils* seen[4] = {};
  std::vector<std::thread> threads;
  for (Utils*& s : seen) threads.emplace_back([&s] { s = Utils::getInstance(); });
  for (auto& t : threads) t.join();
  for (Utils* s : seen) EXPECT_EQ(s, seen[0]);

  Utils* u = seen[0];
  EXPECT_EQ(u->pid, getpid());
  const auto at = [u](const void* field) {
    return static_cast<const char*>(field) - reinterpret_cast<const char*>(u);
  };
  // The vtable pointer first, then the fields in order, naturally aligned.
  EXPECT_EQ(at(&u->reserved), 8);
  EXPECT_EQ(at(&u->start_ms), 16);
  EXPECT_EQ(at(&u->end_ms), 24);
  EXPECT_EQ(at(&u->fps_count), 32);
  EXPECT_EQ(at(&u->fps_last_ms), 40);
  EXPECT_EQ(at(&u->mem_count), 48);
  EXPECT_EQ(at(&u->pid), 52);
  EXPECT_EQ(at(&u->mem_info[1].value), 56 + 56 + 24);
}

TEST(UtilsTime, ReadsTheMonotonicClockAndFormatsLocalTime) {
  Utils* u = Utils::getInstance();
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t before = static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  const uint64_t now = u->getNowTime();
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t after = static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);

  // "IMG" and the local time; the second may tick between the reads, so either
  // side is allowed.
  const auto stamp = [](time_t t) {
    char text[32];
    std::strftime(text, sizeof text, "IMG%Y%m%d%H%M%S", std::localtime(&t));
    return std::string(text);
  };
  char buf[128];
  std::memset(buf, 'x', sizeof buf);
  const time_t t0 = time(nullptr);
  u->getNowFormatTime(buf);
  const time_t t1 = time(nullptr);
  EXPECT_EQ(std::strlen(buf), 17u);
  EXPECT_TRUE(buf == stamp(t0) || buf == stamp(t1)) << buf;
  u->getNowFormatTime(nullptr);  // must not write anywhere
}

TEST(UtilsTime, EndProcessTimeLogsTheStepAndClearsBothTimes) {
  Utils* u = Utils::getInstance();
  u->startProcessTime();
  u->start_ms -= 25;  // as if the step had taken 25 ms
  const auto records = LogsOf([u] { u->endProcessTime("warp"); });
  ASSERT_EQ(records.size(), 1u);
  std::smatch ms;
  ASSERT_TRUE(std::regex_match(records[0].text, ms,
                               std::regex(Line("endProcessTime", "run warp time is ([0-9]+) ms"))))
      << records[0].text;
  EXPECT_GE(std::stoi(ms[1]), 25);
  EXPECT_LT(std::stoi(ms[1]), 1000);
  EXPECT_EQ(u->start_ms, 0u);
  EXPECT_EQ(u->end_ms, 0u);
}

TEST(UtilsTime, PrintfFpsReportsAfterASecondWithoutCountingTheReportingCall) {
  Utils* u = Utils::getInstance();
  u->reset();
  EXPECT_EQ(u->fps_count, 0);
  EXPECT_TRUE(LogsOf([u] {
                u->printfFPS("preview");
                u->printfFPS("preview");
              }).empty());
  EXPECT_EQ(u->fps_count, 2);

  u->fps_last_ms -= 1001;  // a second and a millisecond later
  const uint64_t before = u->getNowTime();
  const auto records = LogsOf([u] { u->printfFPS("preview"); });
  const uint64_t after = u->getNowTime();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(IsLine(records[0], "printfFPS", "run preview fps is : 2 "));
  EXPECT_EQ(u->fps_count, 0);
  EXPECT_GE(u->fps_last_ms, before);  // the report's time is the new start
  EXPECT_LE(u->fps_last_ms, after);
}

TEST(UtilsSearch, FindsTheFirstEntryAgreeingInNCharacters) {
  _mem_info list[3] = {{"MemTotal:", 1, "kB"}, {"MemFree:", 2, "kB"}, {"Cached:", 3, "kB"}};
  char a[] = "MemTotal:", b[] = "MemFree:", c[] = "Cached:";
  char* strings[3] = {a, b, c};
  Utils* u = Utils::getInstance();
  const struct {
    const char* key;
    int count, n, expected;
  } cases[] = {
      {"Mem", 3, 3, 0},        // a prefix finds the first entry that has it
      {"MemFree:", 3, 8, 1},
      {"MemFree:", 1, 8, -1},  // only the first count entries are searched
      {"Cached:", 0, 7, -1},   // count below 1
      {"MemFr", 3, 9, -1},     // n beyond the key compares whole strings
      {"Cache", 3, 5, 2},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(u->searchMemInfo(list, c.key, c.count, c.n), c.expected) << c.key << " " << c.n;
    EXPECT_EQ(u->searchString(strings, c.key, c.count, c.n), c.expected) << c.key << " " << c.n;
  }
}

TEST(UtilsMemory, ReadsLinesUntilAFailedReadDuplicatingTheLastOne) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  std::fputs("MemTotal:  1000 kB\nHugePages_Total:  4\nCached:  70 kB\n", file);
  std::rewind(file);
  _mem_info e[50];
  ASSERT_EQ(velmora::ReadMemInfoLines(file, e, 50), 4);
  EXPECT_STREQ(e[0].name, "MemTotal:");
  EXPECT_EQ(e[0].value, 1000u);
  EXPECT_STREQ(e[0].unit, "kB");
  EXPECT_STREQ(e[1].unit, "");  // a line without a unit
  EXPECT_EQ(e[1].value, 4u);
  EXPECT_STREQ(e[3].name, "Cached:");  // the last line again
  EXPECT_EQ(e[3].value, 70u);

  std::rewind(file);
  EXPECT_EQ(velmora::ReadMemInfoLines(file, e, 2), 2);  // stops at the limit
  std::fclose(file);
}

// /proc/meminfo as this host has it: its line count, then what the object
// should find.
int MemInfoLines() {
  std::ifstream in("/proc/meminfo");
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) ++lines;
  return lines;
}

TEST(UtilsMemory, SystemFiguresMatchProcMeminfo) {
  Utils* u = Utils::getInstance();
  _mem_info out[8];
  for (_mem_info& e : out) e = {"untouched", 7, "-"};
  const auto records = LogsOf([&] { u->getMemInfo(out); });
  // Up to 50 lines, one more than a shorter file has (its last line twice).
  const int expected_count = std::min(50, MemInfoLines() + 1);
  EXPECT_EQ(u->mem_count, expected_count);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(IsLine(records[0], "getMemInfo",
                     "select_count 8 mNumMemInfo " + std::to_string(expected_count)));

  EXPECT_STREQ(out[0].name, "MemTotal:");
  EXPECT_EQ(out[0].value, ProcFigure("/proc/meminfo", "MemTotal:"));
  const char* keys[5] = {"MemTotal:", "MemFree:", "MemAvailable:", "Buffers:", "Cached:"};
  for (int k = 0; k < 5; ++k) {
    EXPECT_STREQ(out[k].name, keys[k]);
    EXPECT_STREQ(out[k].unit, "kB");
    EXPECT_LE(out[k].value, out[0].value) << keys[k];
  }
  EXPECT_GT(out[1].value, 0u);
  // A Linux desktop kernel has no ION or GPU figures: their entries are left alone.
  for (int k = 5; k < 8; ++k) EXPECT_STREQ(out[k].name, "untouched");

  const auto lines = LogsOf([u] { u->printfMemInfo(); });
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_TRUE(IsLine(lines[0], "printfMemInfo", "\\*\\*\\* current memory info start \\*\\*\\*"));
  for (int k = 0; k < 5; ++k)
    EXPECT_TRUE(IsLine(lines[1 + k], "printfMemInfo", std::string(keys[k]) + " [0-9]+ kB"));
  EXPECT_TRUE(IsLine(lines[6], "printfMemInfo", "\\*\\*\\* current memory info end \\*\\*\\*\n"));
}

TEST(UtilsMemory, ProcessFiguresMatchTheStatusFile) {
  Utils* u = Utils::getInstance();
  u->reset();
  _mem_info out[4] = {};
  u->getPidMemInfo(out);
  const char* keys[4] = {"VmPeak:", "VmSize:", "VmHWM:", "VmRSS:"};
  for (int k = 0; k < 4; ++k) {
    EXPECT_STREQ(out[k].name, keys[k]);
    EXPECT_STREQ(out[k].unit, "kB");
  }
  EXPECT_GE(out[0].value, out[1].value);  // peak size over current size
  EXPECT_GE(out[2].value, out[3].value);  // peak resident over current resident
  EXPECT_GE(out[1].value, out[3].value);  // mapped over resident
  EXPECT_GT(out[3].value, 0u);
  // The resident peak is the kernel's maximum resident set, as getrusage reports it.
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_NEAR(static_cast<double>(out[2].value), static_cast<double>(usage.ru_maxrss),
              0.1 * usage.ru_maxrss);

  const auto lines = LogsOf([u] { u->printfPidMemInfo(); });
  const std::string pid = std::to_string(getpid());
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(IsLine(lines[0], "printfPidMemInfo",
                     " \\*\\*\\* current pid : " + pid + " memory info start \\*\\*\\*"));
  for (int k = 0; k < 4; ++k)
    EXPECT_TRUE(IsLine(lines[1 + k], "printfPidMemInfo", std::string(keys[k]) + " [0-9]+ kB"));
  EXPECT_TRUE(IsLine(lines[5], "printfPidMemInfo",
                     "\\*\\*\\* current pid : " + pid + "  memory info end \\*\\*\\*\n"));
}

TEST(Galloc, NullAndZeroSizeRules) {
  EXPECT_EQ(galloc_malloc(0), nullptr);
  EXPECT_EQ(galloc_alloc(0), nullptr);
  EXPECT_EQ(galloc_realloc(nullptr, 10), nullptr);  // does not allocate, unlike realloc

  auto* p = static_cast<unsigned char*>(galloc_alloc(64));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(p[i], 0) << i;
  EXPECT_EQ(galloc_realloc(p, 0), nullptr);  // does not free, unlike realloc
  p[63] = 9;                                 // still ours (ASan would object otherwise)

  galloc_memset(p, 0xAB, 0);
  galloc_memset(nullptr, 0xAB, 8);
  EXPECT_EQ(p[0], 0);
  galloc_memset(p, 0xAB, 4);
  EXPECT_EQ(p[3], 0xAB);
  EXPECT_EQ(p[4], 0);

  const unsigned char src[4] = {1, 2, 3, 4};
  galloc_memcpy(p, nullptr, 4);
  galloc_memcpy(nullptr, src, 4);
  galloc_memcpy(p, src, 0);
  EXPECT_EQ(p[0], 0xAB);
  galloc_memcpy(p, src, 4);
  EXPECT_EQ(std::memcmp(p, src, 4), 0);

  p = static_cast<unsigned char*>(galloc_realloc(p, 4096));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[63], 9);
  galloc_free(p);
  galloc_free(nullptr);
}

}  // namespace
