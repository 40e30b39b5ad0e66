#include "common/threadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "test_util.h"

namespace {

// Records the order in which its jobs ran and whether two ever ran at once.
struct Recorder {
  std::mutex mutex;
  std::vector<int> order;
  std::atomic<int> active{0};
  std::atomic<bool> overlapped{false};
};

struct RecordJob {
  Recorder* recorder;
  int index;
  static void Run(void* arg) {
    RecordJob* job = static_cast<RecordJob*>(arg);
    if (job->recorder->active.fetch_add(1) != 0) job->recorder->overlapped = true;
    {
      std::lock_guard<std::mutex> lock(job->recorder->mutex);
      job->recorder->order.push_back(job->index);
    }
    job->recorder->active.fetch_sub(1);
  }
};

class ThreadPoolTest : public testing::Test {
 protected:
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
  void Submit(RecordJob& job) { pool_->submit({&RecordJob::Run, &job}); }
  ThreadPool* const pool_ = ThreadPool::instance();
  Recorder recorder_;
};

TEST_F(ThreadPoolTest, OneInstanceStartedOnceRunsJobsInSubmissionOrderWithoutOverlap) {
  EXPECT_EQ(ThreadPool::instance(), pool_);
  ASSERT_EQ(pool_->startup(1), 0);
  EXPECT_EQ(pool_->startup(1), -2);
  std::vector<RecordJob> jobs;
  for (int i = 0; i < 300; ++i) jobs.push_back({&recorder_, i});
  WhileHeld([&] {
    for (RecordJob& job : jobs) Submit(job);
  });
  std::vector<int> expected(300);
  for (int i = 0; i < 300; ++i) expected[i] = i;
  EXPECT_EQ(recorder_.order, expected);
  EXPECT_FALSE(recorder_.overlapped);
}

// Dropped unrun: jobs before startup, queued after forceEnd (each still counted off), submitted
// after shutdown, or without a function; the next startup clears forceEnd and runs new work.
TEST_F(ThreadPoolTest, DropsJobsWithoutFunctionWhileStoppedAndAfterForceEnd) {
  RecordJob before{&recorder_, 1}, forced{&recorder_, 2}, after{&recorder_, 3};
  RecordJob null_fn{&recorder_, 4}, kept{&recorder_, 5};
  Submit(before);
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    for (int i = 0; i < 10; ++i) Submit(forced);
    pool_->forceEnd();
  });
  EXPECT_EQ(pool_->pendingJobs(), 0);
  pool_->shutdown();
  Submit(after);
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    pool_->submit({nullptr, &null_fn});
    Submit(kept);
  });
  EXPECT_EQ(recorder_.order, std::vector<int>{5});
}

// A wait with nothing pending logs nothing; a stopped pool's shutdown logs only its first and last
// step (the API test pins a running pool's five).
TEST_F(ThreadPoolTest, IdleWaitLogsNothingAndAStoppedPoolsShutdownTwoLines) {
  ASSERT_EQ(pool_->startup(1), 0);
  EXPECT_TRUE(testutil::LogsOf([&] { pool_->waitForAllJobDone(); }).empty());
  pool_->shutdown();
  std::vector<std::string> texts;
  for (const auto& record : testutil::LogsOf([&] { pool_->shutdown(); }))
    texts.push_back(testutil::MaskLineNumber(record.text));
  const std::string prefix = "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown ";
  EXPECT_EQ(texts, (std::vector<std::string>{prefix + "begin", prefix + "ok"}));
}

}  // namespace
