#include "common/log.h"

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace {

// What the logging between construction and Take() printed on standard output and handed to the
// Android log.
struct Logged {
  Logged() {
    testutil::TakeLogRecords();
    testing::internal::CaptureStdout();
  }
  void Take() {
    out = testing::internal::GetCapturedStdout();
    records = testutil::TakeLogRecords();
  }
  std::string out;
  std::vector<testutil::LogRecord> records;
};

// The tag, a blank and the message on standard output; the message alone, tagged, to Android; the
// Android log's result returned (the test sink answers with the length of the text). Messages up
// to 1023 characters whole, and no switch turns the logging off.
TEST(LogPrint, WritesTagBlankMessageNewlineAndTheAndroidRecord) {
  const std::string longest(1023, 'x');
  Logged logged;
  const int result = log_print(2, "[INFO][ %s ] %d  %s() go", "flow_water_algo.cpp", 42, "start");
  set_log_status(0);
  log_print(2, "%s", longest.c_str());
  logged.Take();
  EXPECT_EQ(logged.out, "Algorithm [INFO][ flow_water_algo.cpp ] 42  start() go\n"
                        "Algorithm " + longest + "\n");
  ASSERT_EQ(logged.records.size(), 2u);
  EXPECT_EQ(logged.records[0].tag, "Algorithm");
  EXPECT_EQ(logged.records[0].text, "[INFO][ flow_water_algo.cpp ] 42  start() go");
  EXPECT_EQ(result, static_cast<int>(logged.records[0].text.size()));
  EXPECT_EQ(logged.records[1].text, longest);
}

TEST(LogPrint, MapsLevelsToAndroidPrioritiesFoldingUnknownLevelsIntoError) {
  const struct {
    unsigned level;
    int priority;
  } cases[] = {{0, 6}, {1, 5}, {2, 4}, {3, 3}, {4, 6}, {5, 6}, {100, 6}, {0xFFFFFFFFu, 6}};
  Logged logged;
  for (const auto& c : cases) log_print(c.level, "level %u", c.level);
  logged.Take();
  ASSERT_EQ(logged.records.size(), std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(logged.records[i].priority, cases[i].priority) << "level " << cases[i].level;
  }
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

  Logged logged;
  const int line = __LINE__ + 1;
  VLOG_ERROR("code %d", 7);
  logged.Take();
  ASSERT_EQ(logged.records.size(), 1u);
  EXPECT_EQ(logged.records[0].text,
            "[ERROR][ log_test.cpp ] " + std::to_string(line) + "  TestBody() code 7");
  EXPECT_EQ(logged.records[0].priority, 6);
}

}  // namespace
