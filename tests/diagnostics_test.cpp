// The diagnostics object (layout, clocks, search, log lines, /proc figures); galloc's null rules.
#include "velmora/diagnostics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <regex>

#include "common/utils.h"
#include "test_util.h"

namespace {

using testutil::LogsOf;

// Info lines (Android priority 4) of that function of utils.cpp, at any line numbers, one per
// pattern in order.
void ExpectLines(const std::vector<testutil::LogRecord>& records, const std::string& function,
                 const std::vector<std::string>& patterns) {
  std::string got, want;
  for (const auto& r : records) got += std::to_string(r.priority) + r.text + "|";
  for (const std::string& p : patterns)
    want += "4\\[INFO\\]\\[ utils\\.cpp \\] [0-9]+  " + function + "\\(\\) " + p + "\\|";
  EXPECT_TRUE(std::regex_match(got, std::regex(want))) << got;
}

// A second object, or a field moved (callers share the layout): the vtable pointer, then the
// fields in order, naturally aligned; a _mem_info is 56 bytes.
TEST(Utils, IsOneObjectLaidOutAsDeclared) {
  Utils* u = Utils::getInstance();
  EXPECT_EQ(Utils::getInstance(), u);
  const void* fields[] = {&u->reserved,    &u->start_ms,  &u->end_ms, &u->fps_count,
                          &u->fps_last_ms, &u->mem_count, &u->pid,    &u->mem_info[1].value};
  const int want[] = {8, 16, 24, 32, 40, 48, 52, 56 + 56 + 24};
  for (int k = 0; k < 8; ++k)
    EXPECT_EQ(static_cast<const char*>(fields[k]) - reinterpret_cast<const char*>(u), want[k]) << k;
}

// A stamp in UTC or in another format (a month or year not shifted); a null buffer written.
TEST(Utils, StampsLocalTime) {
  const time_t t0 = time(nullptr);
  char buf[128] = {}, want[2][32];
  Utils::getInstance()->getNowFormatTime(buf);
  const time_t t1 = time(nullptr);  // the second may tick
  std::strftime(want[0], 32, "IMG%Y%m%d%H%M%S", std::localtime(&t0));
  std::strftime(want[1], 32, "IMG%Y%m%d%H%M%S", std::localtime(&t1));
  EXPECT_TRUE(buf == std::string(want[0]) || buf == std::string(want[1])) << buf;
  Utils::getInstance()->getNowFormatTime(nullptr);
}

// A step's time not logged or not restarted; a frame rate reported early, or counting the call
// that reports it, or not restarting its second.
TEST(Utils, StepTimeAndFpsLogAndRestart) {
  Utils* u = Utils::getInstance();
  u->startProcessTime();
  u->start_ms -= 25;  // as if the step had taken 25 ms, so 25 to 999 are logged
  ExpectLines(LogsOf([u] { u->endProcessTime("warp"); }), "endProcessTime",
              {"run warp time is (2[5-9]|[3-9][0-9]|[1-9][0-9][0-9]) ms"});
  EXPECT_TRUE(u->start_ms == 0 && u->end_ms == 0);
  u->reset();
  EXPECT_TRUE(LogsOf([u] { u->printfFPS("preview"), u->printfFPS("preview"); }).empty());
  EXPECT_EQ(u->fps_count, 2);
  u->fps_last_ms -= 1001;  // a second and a millisecond later
  ExpectLines(LogsOf([u] { u->printfFPS("preview"); }), "printfFPS", {"run preview fps is : 2 "});
  // Neither counted nor restarting the second, the reporting call would show here.
  EXPECT_TRUE(LogsOf([u] { u->printfFPS("preview"); }).empty());
  EXPECT_EQ(u->fps_count, 1);
}

// The first of count entries agreeing in n characters; -1 when none or count < 1.
TEST(Utils, SearchFindsTheFirstOfCountEntriesAgreeingInNCharacters) {
  _mem_info list[3] = {{"MemTotal:", 1, "kB"}, {"MemFree:", 2, "kB"}, {"Cached:", 3, "kB"}};
  char* strings[3] = {list[0].name, list[1].name, list[2].name};
  const std::tuple<const char*, int, int, int> cases[] = {
      {"Mem", 3, 3, 0},      {"MemFree:", 3, 8, 1}, {"MemFree:", 1, 8, -1},
      {"Cached:", 0, 7, -1}, {"MemFr", 3, 9, -1},   {"Cache", 3, 5, 2}};
  for (const auto& [key, count, n, want] : cases) {
    EXPECT_EQ(Utils::getInstance()->searchMemInfo(list, key, count, n), want) << key;
    EXPECT_EQ(Utils::getInstance()->searchString(strings, key, count, n), want) << key;
  }
}

std::string Entry(const _mem_info& m) {
  return std::string(m.name) + " " + std::to_string(m.value) + " " + m.unit;
}

// Lines are read until a failed read, which duplicates the last one; the keys' entries are
// copied in the keys' order, those without a line (no ION or GPU figures here) left alone.
TEST(Utils, SystemFiguresReadFromMeminfoLines) {
  std::FILE* file = std::tmpfile();
  std::fputs("MemTotal:  1000 kB\nHugePages_Total:  4\nCached:  70 kB\n", file);
  std::rewind(file);
  _mem_info e[50];
  ASSERT_EQ(velmora::ReadMemInfoLines(file, e, 50), 4);
  EXPECT_EQ(Entry(e[0]) + ", " + Entry(e[1]) + ", " + Entry(e[3]),  // no unit; the last line twice
            "MemTotal: 1000 kB, HugePages_Total: 4 , Cached: 70 kB");
  std::fclose(file);
  // This host's /proc/meminfo: up to 50 lines read, one more than a shorter file has.
  const std::vector<uint8_t> text = testutil::ReadFile("/proc/meminfo");
  const auto lines = std::count(text.begin(), text.end(), '\n');
  _mem_info out[8];
  for (_mem_info& m : out) m = {"-", 7, "-"};
  ExpectLines(LogsOf([&] { Utils::getInstance()->getMemInfo(out); }), "getMemInfo",
              {"select_count 8 mNumMemInfo " + std::to_string(std::min(50L, lines + 1))});
  std::vector<std::string> keys = {"MemTotal:", "MemFree:", "MemAvailable:", "Buffers:", "Cached:"};
  for (int k = 0; k < 8; ++k) EXPECT_EQ(out[k].name, k < 5 ? keys[k] : "-");
  for (std::string& key : keys) key += " [0-9]+ kB";
  keys.insert(keys.begin(), "\\*\\*\\* current memory info start \\*\\*\\*");
  keys.push_back("\\*\\*\\* current memory info end \\*\\*\\*\n");
  ExpectLines(LogsOf([] { Utils::getInstance()->printfMemInfo(); }), "printfMemInfo", keys);
}

// The status file's four keys in order; the report's odd blanks.
TEST(Utils, ProcessFiguresMatchTheStatusFile) {
  _mem_info out[4] = {};
  Utils::getInstance()->getPidMemInfo(out);
  std::vector<std::string> keys = {"VmPeak:", "VmSize:", "VmHWM:", "VmRSS:"};
  for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k].name, keys[k]);
  const std::string pid = std::to_string(getpid());
  for (std::string& key : keys) key += " [0-9]+ kB";
  keys.insert(keys.begin(), " \\*\\*\\* current pid : " + pid + " memory info start \\*\\*\\*");
  keys.push_back("\\*\\*\\* current pid : " + pid + "  memory info end \\*\\*\\*\n");
  ExpectLines(LogsOf([] { Utils::getInstance()->printfPidMemInfo(); }), "printfPidMemInfo", keys);
}

// Null pointers and zero sizes touch nothing; realloc neither allocates nor frees on them.
TEST(Galloc, NullAndZeroSizeRules) {
  EXPECT_TRUE(galloc_malloc(0) == nullptr && galloc_alloc(0) == nullptr);
  EXPECT_EQ(galloc_realloc(nullptr, 10), nullptr);  // does not allocate, unlike realloc
  auto* p = static_cast<unsigned char*>(galloc_alloc(8));
  EXPECT_EQ(galloc_realloc(p, 0), nullptr);  // does not free, unlike realloc (ASan would object)
  const unsigned char src[2] = {1, 2};
  galloc_memset(nullptr, 0xAB, 8);
  galloc_memcpy(p, nullptr, 2);
  galloc_memcpy(nullptr, src, 2);
  galloc_memset(p + 1, 0xAB, 3);
  galloc_memcpy(p, src, 2);
  p = static_cast<unsigned char*>(galloc_realloc(p, 4096));
  EXPECT_EQ(std::vector<unsigned char>(p, p + 8),
            std::vector<unsigned char>({1, 2, 0xAB, 0xAB, 0, 0, 0, 0}));  // zero-filled at first
  galloc_free(p);
}

}  // namespace
