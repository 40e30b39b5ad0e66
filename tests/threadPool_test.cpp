#include "common/threadPool.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "test_util.h"

namespace {

// The numbers of the jobs in the order they ran. One worker appends; the test reads once the
// pool is idle. (Two jobs at once would break the order, and race here under ThreadSanitizer.)
std::vector<int> g_ran;
void Record(void* number) { g_ran.push_back(*static_cast<int*>(number)); }

class ThreadPoolTest : public testing::Test {
 protected:
  void SetUp() override { g_ran.clear(); }
  void TearDown() override { pool_->shutdown(); }
  // Runs queue() while a job holds the (single) worker, so that all it submits is queued before
  // any of it runs; then lets the worker go and waits for the pool to be idle.
  template <class F>
  void WhileHeld(F queue) {
    testutil::Gate gate(pool_);
    queue();
    gate.Open();
    pool_->waitForAllJobDone();
  }
  ThreadPool* const pool_ = ThreadPool::instance();
};

// A second startup that starts more workers; a queue run out of order or two jobs at once; a job
// without a function queued (and run).
TEST_F(ThreadPoolTest, StartedOnceRunsJobsInSubmissionOrder) {
  ASSERT_EQ(pool_->startup(1), 0);
  EXPECT_EQ(pool_->startup(1), -2);
  std::vector<int> numbers(300);
  std::iota(numbers.begin(), numbers.end(), 0);
  WhileHeld([&] {
    pool_->submit({nullptr, &numbers[0]});
    for (int& number : numbers) pool_->submit({&Record, &number});
  });
  EXPECT_EQ(g_ran, numbers);
}

// Jobs queued after forceEnd run (or not counted off: the wait would hang).
TEST_F(ThreadPoolTest, DropsJobsQueuedAfterForceEnd) {
  int dropped = 1;
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    for (int i = 0; i < 10; ++i) pool_->submit({&Record, &dropped});
    pool_->forceEnd();
  });
  EXPECT_TRUE(g_ran.empty());
}

}  // namespace
