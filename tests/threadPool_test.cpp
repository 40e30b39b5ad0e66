#include "common/threadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "test_util.h"

namespace {

class ThreadPoolTest : public testing::Test {
 protected:
  struct Job {
    ThreadPoolTest* test;
    int index;
  };
  // Records the order the jobs ran in, and whether two ever ran at once.
  static void Record(void* arg) {
    const Job& job = *static_cast<Job*>(arg);
    if (job.test->active_++ != 0) job.test->overlapped_ = true;
    std::lock_guard<std::mutex> lock(job.test->mutex_);
    job.test->order_.push_back(job.index);
    --job.test->active_;
  }
  void TearDown() override {
    pool_->shutdown();
    testutil::TakeLogRecords();
  }
  // Runs queue() while a job holds the (single) worker, so that all it submits is queued before
  // any of it runs; then lets the worker go and waits for the pool to be idle.
  template <class F>
  void WhileHeld(F queue) {
    testutil::Gate gate;
    pool_->submit({&testutil::Gate::Job, &gate});
    gate.WaitEntered();
    queue();
    gate.Open();
    pool_->waitForAllJobDone();
  }
  ThreadPool* const pool_ = ThreadPool::instance();
  std::mutex mutex_;
  std::vector<int> order_;
  std::atomic<int> active_{0};
  std::atomic<bool> overlapped_{false};
};

TEST_F(ThreadPoolTest, OneInstanceStartedOnceRunsJobsInSubmissionOrderWithoutOverlap) {
  EXPECT_EQ(ThreadPool::instance(), pool_);
  ASSERT_EQ(pool_->startup(1), 0);
  EXPECT_EQ(pool_->startup(1), -2);
  std::vector<Job> jobs;
  std::vector<int> expected;
  for (int i = 0; i < 300; ++i) {
    jobs.push_back({this, i});
    expected.push_back(i);
  }
  WhileHeld([&] {
    for (Job& job : jobs) pool_->submit({&Record, &job});
  });
  EXPECT_EQ(order_, expected);
  EXPECT_FALSE(overlapped_);
}

// Dropped unrun: jobs queued after forceEnd (each still counted off) and jobs without a function;
// the next startup clears forceEnd and runs new work.
TEST_F(ThreadPoolTest, DropsJobsAfterForceEndAndWithoutFunction) {
  Job forced{this, 1}, kept{this, 2};
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    for (int i = 0; i < 10; ++i) pool_->submit({&Record, &forced});
    pool_->forceEnd();
  });
  EXPECT_EQ(pool_->pendingJobs(), 0);
  pool_->shutdown();
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    pool_->submit({nullptr, &forced});
    pool_->submit({&Record, &kept});
  });
  EXPECT_EQ(order_, std::vector<int>{2});
}

}  // namespace
