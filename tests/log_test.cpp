#include "common/log.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace {

using testutil::TakeLogRecords;

TEST(LogPrint, WritesTagBlankMessageNewlineToStandardOutput) {
  TakeLogRecords();
  testing::internal::CaptureStdout();
  log_print(2, "[INFO][ %s ] %d  %s() start_process", "flow_water_algo.cpp", 42, "start_process");
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "Algorithm [INFO][ flow_water_algo.cpp ] 42  start_process() start_process\n");

  const auto records = TakeLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].tag, "Algorithm");
  EXPECT_EQ(records[0].text, "[INFO][ flow_water_algo.cpp ] 42  start_process() start_process");
}

TEST(LogPrint, MapsLevelsToAndroidPrioritiesFoldingUnknownLevelsIntoError) {
  const struct {
    unsigned level;
    int priority;
  } cases[] = {{0, 6}, {1, 5}, {2, 4}, {3, 3}, {4, 6}, {5, 6}, {100, 6}, {0xFFFFFFFFu, 6}};
  TakeLogRecords();
  testing::internal::CaptureStdout();
  for (const auto& c : cases) log_print(c.level, "level %u", c.level);
  testing::internal::GetCapturedStdout();
  const auto records = TakeLogRecords();
  ASSERT_EQ(records.size(), std::size(cases));
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].priority, cases[i].priority) << "level " << cases[i].level;
  }
}

TEST(LogPrint, ReturnsTheAndroidLogResult) {
  testing::internal::CaptureStdout();
  // The test sink answers with the length of the text it was given.
  EXPECT_EQ(log_print(2, "%s", "twelve chars"), 12);
  testing::internal::GetCapturedStdout();
}

TEST(LogPrint, CannotBeSwitchedOff) {
  TakeLogRecords();
  set_log_status(0);
  testing::internal::CaptureStdout();
  log_print(0, "still here");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Algorithm still here\n");
  EXPECT_EQ(TakeLogRecords().size(), 1u);
}

TEST(LogPrint, WritesA1023CharacterMessageWhole) {
  const std::string longest(1023, 'x');
  TakeLogRecords();
  testing::internal::CaptureStdout();
  log_print(2, "%s", longest.c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Algorithm " + longest + "\n");
  const auto records = TakeLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, longest);
}

TEST(LogPrintDeathTest, AbortsOnAMessageThatDoesNotFit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string too_long(1024, 'x');
  EXPECT_DEATH(log_print(2, "%s", too_long.c_str()), "");
}

TEST(LogMacros, NameTheSourceFileBaseLineAndFunction) {
  EXPECT_STREQ(velmora::SourceBaseName("testSample/flow_water_algo.cpp"), "flow_water_algo.cpp");
  EXPECT_STREQ(velmora::SourceBaseName("/a/b/threadPool.cpp"), "threadPool.cpp");
  EXPECT_STREQ(velmora::SourceBaseName("utils.cpp"), "utils.cpp");

  TakeLogRecords();
  testing::internal::CaptureStdout();
  const int line = __LINE__ + 1;
  VLOG_ERROR("code %d", 7);
  testing::internal::GetCapturedStdout();
  const auto records = TakeLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "[ERROR][ log_test.cpp ] " + std::to_string(line) + "  TestBody() code 7");
  EXPECT_EQ(records[0].priority, 6);
}

}  // namespace
