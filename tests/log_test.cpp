#include "common/log.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "test_util.h"

namespace {

// The message printed as "Algorithm <message>" and handed, tagged, to Android with the level's
// priority (unknown levels fold into error); the Android log's result returned (the test sink
// answers with the text's length); 1023 characters fit whole.
TEST(LogPrint, PrintsTheMessageAndHandsItToAndroidWithTheLevelsPriority) {
  const std::string first = "[INFO][ flow_water_algo.cpp ] 42  start() go", longest(1023, 'x');
  testutil::TakeLogRecords();
  testing::internal::CaptureStdout();
  const int result = log_print(2, "[INFO][ %s ] %d  %s() go", "flow_water_algo.cpp", 42, "start");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Algorithm " + first + "\n");
  const testutil::LogRecord r = testutil::TakeLogRecords().at(0);
  EXPECT_EQ(std::tie(r.priority, r.tag, r.text, result),
            std::make_tuple(4, "Algorithm", first, static_cast<int>(first.size())));
  EXPECT_EQ(testutil::LogsOf([&] { log_print(0, "%s", longest.c_str()); }).at(0).text, longest);
  std::vector<int> priorities;
  for (unsigned level : {0u, 1u, 3u, 4u, 100u, 0xFFFFFFFFu})
    priorities.push_back(testutil::LogsOf([level] { log_print(level, "-"); }).at(0).priority);
  EXPECT_EQ(priorities, (std::vector<int>{6, 5, 3, 6, 6, 6}));
  // The macros name a file by the text after its last slash, or whole (the API test pins the rest).
  EXPECT_STREQ(velmora::SourceBaseName("utils.cpp"), "utils.cpp");
}

TEST(LogPrintDeathTest, AbortsOnAMessageThatDoesNotFit) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(log_print(2, "%s", std::string(1024, 'x').c_str()), "");
}

}  // namespace
