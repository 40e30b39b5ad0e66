#include "common/log.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace {

// The message, tagged, to Android with the level's priority (unknown levels fold into error), and
// the Android log's result returned (the test sink answers with the text's length); 1023
// characters fit whole. (The API test pins the standard output line and levels 0 and 2.)
TEST(LogPrint, HandsTheMessageToAndroidWithTheLevelsPriority) {
  const std::string longest(1023, 'x');
  testutil::TakeLogRecords();
  testing::internal::CaptureStdout();
  const int result = log_print(3, "[INFO][ %s ] %d  %s() go", "flow_water_algo.cpp", 42, "start");
  log_print(1, "%s", longest.c_str());
  for (unsigned level : {4u, 100u, 0xFFFFFFFFu}) log_print(level, "-");
  testing::internal::GetCapturedStdout();
  const auto records = testutil::TakeLogRecords();
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[0].tag, "Algorithm");
  EXPECT_EQ(records[0].text, "[INFO][ flow_water_algo.cpp ] 42  start() go");
  EXPECT_EQ(result, static_cast<int>(records[0].text.size()));
  EXPECT_EQ(records[1].text, longest);
  std::vector<int> priorities;
  for (const auto& record : records) priorities.push_back(record.priority);
  EXPECT_EQ(priorities, (std::vector<int>{3, 5, 6, 6, 6}));
}

TEST(LogPrintDeathTest, AbortsOnAMessageThatDoesNotFit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(log_print(2, "%s", std::string(1024, 'x').c_str()), "");
}

// The base name of a path with or without a slash, the call's line and the unqualified function.
TEST(LogMacros, NameTheSourceFileBaseLineAndFunction) {
  EXPECT_STREQ(velmora::SourceBaseName("utils.cpp"), "utils.cpp");
  testutil::TakeLogRecords();
  const int line = __LINE__ + 1;
  VLOG_ERROR("code %d", 7);
  const auto records = testutil::TakeLogRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text,
            "[ERROR][ log_test.cpp ] " + std::to_string(line) + "  TestBody() code 7");
  EXPECT_EQ(records[0].priority, 6);
}

}  // namespace
