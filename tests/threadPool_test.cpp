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
  void SetUp() override {
    pool_ = ThreadPool::instance();
  }
  void TearDown() override {
    pool_->shutdown();
    testutil::TakeLogRecords();
  }
  // Texts logged since the last call, without their varying line numbers.
  std::vector<std::string> LoggedTexts() {
    std::vector<std::string> texts;
    const std::regex line_number("\\] \\d+  ");
    for (const auto& record : testutil::TakeLogRecords())
      texts.push_back(std::regex_replace(record.text, line_number, "] N  "));
    return texts;
  }
  ThreadPool* pool_ = nullptr;
};

TEST_F(ThreadPoolTest, IsOneProcessWideInstance) {
  EXPECT_EQ(ThreadPool::instance(), pool_);
}

TEST_F(ThreadPoolTest, StartupTwiceReturnsMinusTwoTheSecondTime) {
  EXPECT_EQ(pool_->startup(1), 0);
  EXPECT_EQ(pool_->startup(1), -2);
}

TEST_F(ThreadPoolTest, OneWorkerRunsJobsInSubmissionOrderWithoutOverlap) {
  ASSERT_EQ(pool_->startup(1), 0);
  Gate gate;
  Recorder recorder;
  std::vector<RecordJob> jobs;
  for (int i = 0; i < 300; ++i) jobs.push_back({&recorder, i});

  pool_->submit({&Gate::Job, &gate});
  for (RecordJob& job : jobs) pool_->submit({&RecordJob::Run, &job});
  gate.Open();
  pool_->waitForAllJobDone();

  ASSERT_EQ(recorder.order.size(), jobs.size());
  for (int i = 0; i < 300; ++i) EXPECT_EQ(recorder.order[i], i);
  EXPECT_FALSE(recorder.overlapped);
}

TEST_F(ThreadPoolTest, ForceEndDropsQueuedJobsAndPendingStillFallsToZero) {
  ASSERT_EQ(pool_->startup(1), 0);
  Gate gate;
  Recorder recorder;
  std::vector<RecordJob> jobs(10, RecordJob{&recorder, 0});
  pool_->submit({&Gate::Job, &gate});
  gate.WaitEntered();
  for (RecordJob& job : jobs) pool_->submit({&RecordJob::Run, &job});
  pool_->forceEnd();
  gate.Open();
  pool_->waitForAllJobDone();  // returns only once every dropped job was counted off
  EXPECT_TRUE(recorder.order.empty());
}

TEST_F(ThreadPoolTest, StartupClearsForceEnd) {
  ASSERT_EQ(pool_->startup(1), 0);
  pool_->forceEnd();
  pool_->shutdown();
  ASSERT_EQ(pool_->startup(1), 0);
  Gate gate;
  Recorder recorder;
  RecordJob job{&recorder, 5};
  pool_->submit({&Gate::Job, &gate});
  pool_->submit({&RecordJob::Run, &job});
  gate.Open();
  pool_->waitForAllJobDone();
  EXPECT_EQ(recorder.order, std::vector<int>{5});
}

TEST_F(ThreadPoolTest, DropsJobsWithoutFunctionOrWhileStopped) {
  Recorder recorder;
  RecordJob before{&recorder, 1}, null_fn{&recorder, 2}, after{&recorder, 3};
  pool_->submit({&RecordJob::Run, &before});  // not started: dropped

  ASSERT_EQ(pool_->startup(1), 0);
  Gate gate;
  pool_->submit({&Gate::Job, &gate});
  pool_->submit({nullptr, &null_fn});
  pool_->submit({&RecordJob::Run, &after});
  gate.Open();
  pool_->waitForAllJobDone();
  pool_->shutdown();
  pool_->submit({&RecordJob::Run, &before});  // shut down: dropped

  // Started again, the pool runs new work but nothing submitted while it was stopped.
  ASSERT_EQ(pool_->startup(1), 0);
  Gate second;
  RecordJob last{&recorder, 4};
  pool_->submit({&Gate::Job, &second});
  pool_->submit({&RecordJob::Run, &last});
  second.Open();
  pool_->waitForAllJobDone();
  EXPECT_EQ(recorder.order, (std::vector<int>{3, 4}));
}

TEST_F(ThreadPoolTest, WaitWithNothingPendingReturnsAtOnceWithoutLogging) {
  ASSERT_EQ(pool_->startup(1), 0);
  LoggedTexts();
  pool_->waitForAllJobDone();
  EXPECT_TRUE(LoggedTexts().empty());
}

TEST_F(ThreadPoolTest, LogsEachStepOfShutdownInOrder) {
  pool_->shutdown();  // not running: only the first and last lines
  EXPECT_EQ(LoggedTexts(),
            (std::vector<std::string>{
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown begin",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown ok"}));

  ASSERT_EQ(pool_->startup(1), 0);
  Gate gate;
  pool_->submit({&Gate::Job, &gate});
  gate.Open();
  pool_->waitForAllJobDone();  // nothing pending any more: shutdown has nothing to wait for
  LoggedTexts();
  pool_->shutdown();
  EXPECT_EQ(LoggedTexts(),
            (std::vector<std::string>{
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown begin",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown 111",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown 222",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown 333",
                "[INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> shutdown ok"}));
}

}  // namespace
