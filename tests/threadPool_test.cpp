#include "common/threadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "test_util.h"

namespace {

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
  void SetUp() override { pool_ = ThreadPool::instance(); }
  void TearDown() override {
    pool_->shutdown();
    testutil::TakeLogRecords();
  }
  // Runs queue() while a job holds the (single) worker, so that what it submits is all queued
  // before any of it runs; then lets the worker go and waits for the pool to be idle.
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
  ThreadPool* pool_ = nullptr;
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
  ASSERT_EQ(recorder_.order.size(), jobs.size());
  for (int i = 0; i < 300; ++i) EXPECT_EQ(recorder_.order[i], i);
  EXPECT_FALSE(recorder_.overlapped);
}

// The wait returns only once every dropped job was counted off; the next startup runs jobs again.
TEST_F(ThreadPoolTest, ForceEndDropsQueuedJobsUntilTheNextStartup) {
  ASSERT_EQ(pool_->startup(1), 0);
  std::vector<RecordJob> jobs(10, RecordJob{&recorder_, 0});
  WhileHeld([&] {
    for (RecordJob& job : jobs) Submit(job);
    pool_->forceEnd();
  });
  EXPECT_TRUE(recorder_.order.empty());
  pool_->shutdown();
  ASSERT_EQ(pool_->startup(1), 0);
  RecordJob job{&recorder_, 5};
  WhileHeld([&] { Submit(job); });
  EXPECT_EQ(recorder_.order, std::vector<int>{5});
}

TEST_F(ThreadPoolTest, DropsJobsWithoutFunctionOrWhileStopped) {
  RecordJob before{&recorder_, 1}, null_fn{&recorder_, 2}, after{&recorder_, 3};
  RecordJob last{&recorder_, 4};
  Submit(before);  // not started: dropped
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] {
    pool_->submit({nullptr, &null_fn});
    Submit(after);
  });
  pool_->shutdown();
  Submit(before);  // shut down: dropped
  // Started again, the pool runs new work but nothing submitted while it was stopped.
  ASSERT_EQ(pool_->startup(1), 0);
  WhileHeld([&] { Submit(last); });
  EXPECT_EQ(recorder_.order, (std::vector<int>{3, 4}));
}

// A wait with nothing pending returns at once and logs nothing; a running pool's shutdown logs
// three more steps between these two (the API test pins them).
TEST_F(ThreadPoolTest, IdleWaitLogsNothingAndAStoppedPoolsShutdownOnlyItsFirstAndLastStep) {
  ASSERT_EQ(pool_->startup(1), 0);
  EXPECT_TRUE(testutil::LogsOf([&] { pool_->waitForAllJobDone(); }).empty());
  pool_->shutdown();
  const auto records = testutil::LogsOf([&] { pool_->shutdown(); });
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(testutil::MaskLineNumber(records[0].text),
            "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown begin");
  EXPECT_EQ(testutil::MaskLineNumber(records[1].text),
            "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown ok");
}

TEST_F(ThreadPoolTest, AStopLeftWithPendingJobsDoesNotHangTheNextWait) {
  // Two quick jobs, each waited for without the semaphore, leave two stale posts. They let both
  // waits of the stop sequence return while a held job runs, so shutdown ends with a queued job
  // still counted as pending; a later wait must not block on the destroyed semaphore.
  pool_->startup(1);
  for (int i = 0; i < 2; ++i) {
    std::atomic<bool> ran{false};
    pool_->submit({[](void* p) { static_cast<std::atomic<bool>*>(p)->store(true); }, &ran});
    while (!ran.load()) std::this_thread::yield();
    while (pool_->pendingJobs() != 0) std::this_thread::yield();
  }
  testutil::Gate gate;
  pool_->submit({&testutil::Gate::Job, &gate});
  gate.WaitEntered();
  RecordJob queued{&recorder_, 1};
  Submit(queued);
  pool_->forceEnd();
  pool_->waitForAllJobDone();
  std::thread opener([&] {
    testutil::WaitForLogText("shutdown 222");  // running is cleared: the worker exits after this job
    gate.Open();
  });
  pool_->shutdown();
  opener.join();
  pool_->waitForAllJobDone();
  EXPECT_TRUE(recorder_.order.empty());
}

}  // namespace
