// The diagnostics object (layout, clocks, search, log lines, /proc figures); galloc's null rules.
#include "velmora/diagnostics.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/utils.h"
#include "test_util.h"

namespace {

using testutil::LogsOf;

// An info line (Android priority 4) of that function of utils.cpp, at any line number.
testing::AssertionResult IsLine(const testutil::LogRecord& record, const std::string& function,
                                const std::string& message) {
  const std::regex line("\\[INFO\\]\\[ utils\\.cpp \\] [0-9]+  " + function + "\\(\\) " + message);
  if (record.priority != 4 || !std::regex_match(record.text, line))
    return testing::AssertionFailure() << record.priority << " " << record.text;
  return testing::AssertionSuccess();
}

TEST(Utils, IsOneObjectLaidOutAsDeclared) {
  Utils* seen[4] = {};
  std::vector<std::thread> threads;
  for (Utils*& s : seen) threads.emplace_back([&s] { s = Utils::getInstance(); });
  for (auto& t : threads) t.join();
  Utils* u = seen[0];
  EXPECT_TRUE(seen[1] == u && seen[2] == u && seen[3] == u);
  EXPECT_EQ(u->pid, getpid());
  // The vtable pointer, then the fields in order, naturally aligned; a _mem_info is 56 bytes.
  const void* fields[] = {&u->reserved,    &u->start_ms,  &u->end_ms, &u->fps_count,
                          &u->fps_last_ms, &u->mem_count, &u->pid,    &u->mem_info[1].value};
  const int want[] = {8, 16, 24, 32, 40, 48, 52, 56 + 56 + 24};
  for (int k = 0; k < 8; ++k)
    EXPECT_EQ(static_cast<const char*>(fields[k]) - reinterpret_cast<const char*>(u), want[k]) << k;
}

TEST(Utils, ReadsTheMonotonicClockAndStampsLocalTime) {
  const auto now_ms = [] {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  };
  const uint64_t before = now_ms(), now = Utils::getInstance()->getNowTime(), after = now_ms();
  EXPECT_TRUE(before <= now && now <= after) << before << " " << now << " " << after;
  const auto stamp = [](time_t t) {  // "IMG" and the local time
    char text[32];
    std::strftime(text, sizeof text, "IMG%Y%m%d%H%M%S", std::localtime(&t));
    return std::string(text);
  };
  char buf[128] = {};
  const time_t t0 = time(nullptr);
  Utils::getInstance()->getNowFormatTime(buf);
  EXPECT_TRUE(buf == stamp(t0) || buf == stamp(time(nullptr))) << buf;  // the second may tick
  Utils::getInstance()->getNowFormatTime(nullptr);                     // must not write anywhere
}

TEST(Utils, StepTimeAndFpsLogAndRestart) {
  Utils* u = Utils::getInstance();
  u->startProcessTime();
  u->start_ms -= 25;  // as if the step had taken 25 ms
  const auto records = LogsOf([u] { u->endProcessTime("warp"); });
  ASSERT_EQ(records.size(), 1u);
  ASSERT_TRUE(IsLine(records[0], "endProcessTime", "run warp time is [0-9]+ ms"));
  const int took = std::stoi(records[0].text.substr(records[0].text.find("is ") + 3));
  EXPECT_TRUE(took >= 25 && took < 1000) << took;
  EXPECT_TRUE(u->start_ms == 0 && u->end_ms == 0);
  // printfFPS reports after a second without counting the reporting call.
  u->reset();
  EXPECT_TRUE(LogsOf([u] { u->printfFPS("preview"), u->printfFPS("preview"); }).empty());
  EXPECT_EQ(u->fps_count, 2);
  u->fps_last_ms -= 1001;  // a second and a millisecond later
  const uint64_t before = u->getNowTime();
  const auto fps = LogsOf([u] { u->printfFPS("preview"); });
  ASSERT_EQ(fps.size(), 1u);
  EXPECT_TRUE(IsLine(fps[0], "printfFPS", "run preview fps is : 2 "));
  EXPECT_EQ(u->fps_count, 0);
  EXPECT_TRUE(u->fps_last_ms >= before && u->fps_last_ms <= u->getNowTime());  // the new start
}

TEST(Utils, SearchFindsTheFirstOfCountEntriesAgreeingInNCharacters) {
  _mem_info list[3] = {{"MemTotal:", 1, "kB"}, {"MemFree:", 2, "kB"}, {"Cached:", 3, "kB"}};
  char a[] = "MemTotal:", b[] = "MemFree:", c[] = "Cached:";
  char* strings[3] = {a, b, c};
  const struct {
    const char* key;
    int count, n, want;
  } cases[] = {{"Mem", 3, 3, 0},     {"MemFree:", 3, 8, 1}, {"MemFree:", 1, 8, -1},
               {"Cached:", 0, 7, -1}, {"MemFr", 3, 9, -1},   {"Cache", 3, 5, 2}};
  for (const auto& c : cases) {
    EXPECT_EQ(Utils::getInstance()->searchMemInfo(list, c.key, c.count, c.n), c.want) << c.key;
    EXPECT_EQ(Utils::getInstance()->searchString(strings, c.key, c.count, c.n), c.want) << c.key;
  }
}

std::string Entry(const _mem_info& m) {
  return std::string(m.name) + " " + std::to_string(m.value) + " " + m.unit;
}

// Lines are read until a failed read, which duplicates the last one.
TEST(Utils, SystemFiguresReadFromMeminfoLines) {
  std::FILE* file = std::tmpfile();
  std::fputs("MemTotal:  1000 kB\nHugePages_Total:  4\nCached:  70 kB\n", file);
  std::rewind(file);
  _mem_info e[50];
  ASSERT_EQ(velmora::ReadMemInfoLines(file, e, 50), 4);
  EXPECT_EQ(Entry(e[0]) + ", " + Entry(e[1]) + ", " + Entry(e[3]),  // no unit; the last line twice
            "MemTotal: 1000 kB, HugePages_Total: 4 , Cached: 70 kB");
  std::rewind(file);
  EXPECT_EQ(velmora::ReadMemInfoLines(file, e, 2), 2);  // stops at the limit
  std::fclose(file);
  // This host's /proc/meminfo: no ION or GPU figures here, their entries left alone; up to 50
  // lines read, one more than a shorter file has.
  std::ifstream meminfo("/proc/meminfo");
  std::string first, line;
  std::getline(meminfo, first);
  int lines = 1;
  while (std::getline(meminfo, line)) ++lines;
  Utils* u = Utils::getInstance();
  _mem_info out[8];
  for (_mem_info& m : out) m = {"-", 7, "-"};
  const auto records = LogsOf([&] { u->getMemInfo(out); });
  const int count = std::min(50, lines + 1);
  EXPECT_EQ(u->mem_count, count);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_TRUE(
      IsLine(records[0], "getMemInfo", "select_count 8 mNumMemInfo " + std::to_string(count)));
  EXPECT_EQ(std::regex_replace(first, std::regex(" +"), " "), Entry(out[0]));
  const std::string keys[8] = {"MemTotal:", "MemFree:", "MemAvailable:", "Buffers:", "Cached:",
                               "-", "-", "-"};
  for (int k = 0; k < 8; ++k) EXPECT_EQ(out[k].name, keys[k]);

  const auto report = LogsOf([u] { u->printfMemInfo(); });  // start, five keys, end
  ASSERT_EQ(report.size(), 7u);
  EXPECT_TRUE(IsLine(report[0], "printfMemInfo", "\\*\\*\\* current memory info start \\*\\*\\*"));
  for (int k = 0; k < 5; ++k)
    EXPECT_TRUE(IsLine(report[1 + k], "printfMemInfo", keys[k] + " [0-9]+ kB"));
  EXPECT_TRUE(IsLine(report[6], "printfMemInfo", "\\*\\*\\* current memory info end \\*\\*\\*\n"));
}

TEST(Utils, ProcessFiguresMatchTheStatusFile) {
  Utils* u = Utils::getInstance();
  u->reset();
  _mem_info out[4] = {};
  u->getPidMemInfo(out);
  const std::string keys[4] = {"VmPeak:", "VmSize:", "VmHWM:", "VmRSS:"};
  for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k].name, keys[k]);
  rusage usage;  // the resident peak is the kernel's, as getrusage reports it
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_NEAR(double(out[2].value), double(usage.ru_maxrss), 0.1 * usage.ru_maxrss);

  const auto report = LogsOf([u] { u->printfPidMemInfo(); });
  const std::string pid = std::to_string(getpid());
  ASSERT_EQ(report.size(), 6u);
  EXPECT_TRUE(IsLine(report[0], "printfPidMemInfo",
                     " \\*\\*\\* current pid : " + pid + " memory info start \\*\\*\\*"));
  for (int k = 0; k < 4; ++k)
    EXPECT_TRUE(IsLine(report[1 + k], "printfPidMemInfo", keys[k] + " [0-9]+ kB"));
  EXPECT_TRUE(IsLine(report[5], "printfPidMemInfo",
                     "\\*\\*\\* current pid : " + pid + "  memory info end \\*\\*\\*\n"));
}

TEST(Galloc, NullAndZeroSizeRules) {
  EXPECT_EQ(galloc_malloc(0), nullptr);
  EXPECT_EQ(galloc_alloc(0), nullptr);
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
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::vector<unsigned char>(p, p + 8),
            std::vector<unsigned char>({1, 2, 0xAB, 0xAB, 0, 0, 0, 0}));  // zero-filled at first
  galloc_free(p);
  galloc_free(nullptr);
}

}  // namespace
