#include "common/threadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <regex>
#include <vector>

#include "test_util.h"

namespace {

// A job that holds the single worker until the test opens it, so that later jobs are known to
// be queued (and the pending count cannot fall to 0 early).
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool entered = false;
  bool open = false;

  static void Job(void* arg) {
    Gate* gate = static_cast<Gate*>(arg);
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->entered = true;
    gate->cv.notify_all();
    gate->cv.wait(lock, [gate] { return gate->open; });
  }
  void WaitEntered() {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [this] { return entered; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cv.notify_all();
  }
};

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
    Gate gate;
    pool_->submit({&Gate::Job, &gate});
    gate.WaitEntered();
    queue();
    gate.Open();
    pool_->waitForAllJobDone();
  }
  void Submit(RecordJob& job) { pool_->submit({&RecordJob::Run, &job}); }
  // Texts logged since the last call, without their varying line numbers.
  std::vector<std::string> LoggedTexts() {
    std::vector<std::string> texts;
    const std::regex line_number("\\] \\d+  ");
    for (const auto& record : testutil::TakeLogRecords())
      texts.push_back(std::regex_replace(record.text, line_number, "] N  "));
    return texts;
  }
  ThreadPool* pool_ = nullptr;
  Recorder recorder_;
};

TEST_F(ThreadPoolTest, IsOneProcessWideInstanceStartedOnce) {
  EXPECT_EQ(ThreadPool::instance(), pool_);
  EXPECT_EQ(pool_->startup(1), 0);
  EXPECT_EQ(pool_->startup(1), -2);
}

TEST_F(ThreadPoolTest, OneWorkerRunsJobsInSubmissionOrderWithoutOverlap) {
  ASSERT_EQ(pool_->startup(1), 0);
  std::vector<RecordJob> jobs;
  for (int i = 0; i < 300; ++i) jobs.push_back({&recorder_, i});
  WhileHeld([&] {
    for (RecordJob& job : jobs) Submit(job);
  });
  ASSERT_EQ(recorder_.order.size(), jobs.size());
  for (int i = 0; i < 300; ++i) EXPECT_EQ(recorder_.order[i], i);
  EXPECT_FALSE(recorder_.overlapped);
}

TEST_F(ThreadPoolTest, ForceEndDropsQueuedJobsAndPendingStillFallsToZero) {
  ASSERT_EQ(pool_->startup(1), 0);
  std::vector<RecordJob> jobs(10, RecordJob{&recorder_, 0});
  // The wait returns only once every dropped job was counted off.
  WhileHeld([&] {
    for (RecordJob& job : jobs) Submit(job);
    pool_->forceEnd();
  });
  EXPECT_TRUE(recorder_.order.empty());
}

TEST_F(ThreadPoolTest, StartupClearsForceEnd) {
  ASSERT_EQ(pool_->startup(1), 0);
  pool_->forceEnd();
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

TEST_F(ThreadPoolTest, WaitWithNothingPendingReturnsAtOnceWithoutLogging) {
  ASSERT_EQ(pool_->startup(1), 0);
  LoggedTexts();
  pool_->waitForAllJobDone();
  EXPECT_TRUE(LoggedTexts().empty());
}

// A running pool's shutdown logs three more steps between these two; the API test pins them.
TEST_F(ThreadPoolTest, ShutdownOfAStoppedPoolLogsOnlyItsFirstAndLastStep) {
  pool_->shutdown();
  EXPECT_EQ(LoggedTexts(),
            (std::vector<std::string>{
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown begin",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown ok"}));
}

}  // namespace
