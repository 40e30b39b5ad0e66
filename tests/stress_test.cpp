// The pipeline under load, driven through the table of operations as an app drives it: a thousand
// start/stop cycles with frames still in flight, handles used one after another and restarted
// many times, a second thread taking pictures the whole time, and stops with hundreds of frames
// queued. Nothing may crash or hang (a watchdog aborts with a message when the test stops moving),
// leak beyond what the pipeline keeps on purpose (tests/lsan.supp, asan preset) or race beyond the
// unlocked read of the means (tsan preset).
//
// Every run's frames are flat, of one value that its first frame's header word names, so any
// picture read back can be checked against the header that came with it: the mean of a flat run
// is flat and truncates to that value or one below, and the sharpen filter leaves a one-step
// difference alone. A frame of another run folded into a run's means shows as a wrong value.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "common/threadPool.h"
#include "pipeline/flow_water_algo.h"
#include "test_util.h"
#include "velmora/flowing_water.h"

namespace {

// Aborts the process, naming the last step reached, when no step is reached for too long: a hang
// fails at once with a message instead of running into the CI time-out without a clue.
class Watchdog {
 public:
  Watchdog() : thread_([this] { Watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  void Step(const char* what) {
    step_ = what;
    ++steps_;
  }

 private:
  static constexpr std::chrono::seconds kLimit{30};
  void Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    uint64_t seen = steps_;
    auto since = std::chrono::steady_clock::now();
    while (!wake_.wait_for(lock, std::chrono::milliseconds(100), [this] { return done_; })) {
      const auto now = std::chrono::steady_clock::now();
      if (steps_ != seen) {
        seen = steps_;
        since = now;
      } else if (now - since > kLimit) {
        std::fprintf(stderr, "stress_test: no progress for %lld s; last step: %s\n",
                     static_cast<long long>(kLimit.count()), step_.load());
        std::fflush(stderr);
        std::abort();
      }
    }
  }
  std::atomic<const char*> step_{"start"};
  std::atomic<uint64_t> steps_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread thread_;  // last: starts once everything it reads is constructed
};

struct Size {
  int width;
  int height;
};
constexpr Size kLargest{96, 48};
constexpr Size kSizes[] = {{64, 32}, {30, 16}, kLargest, {8, 2}};

uint8_t RunValue(uint32_t run) { return static_cast<uint8_t>(17 + run * 37 % 200); }

testutil::Frame FlatFrame(Size size, uint8_t value) {
  return {size.width, size.height, std::vector<uint8_t>(size_t(size.width) * size.height, value),
          std::vector<uint8_t>(size_t(size.width) * (size.height / 2), value)};
}

// Takes pictures into buffers sized for the largest frame the handle will see: after a restart
// the previous run's (perhaps larger) sizes come back until the new run's first frame is folded.
class Camera {
 public:
  Camera(const flowing_water_api& api, void* handle)
      : api_(api), handle_(handle), y_(size_t(kLargest.width) * kLargest.height),
        uv_(y_.size() / 2) {}

  // The header word of the picture (0 before any frame was folded). Counts a picture whose bytes
  // disagree with the run that word names, or whose sizes exceed the largest frame.
  uint32_t Take() {
    image out{};
    out.planes[0].data = y_.data();
    out.planes[1].data = uv_.data();
    rect roi{};
    if (api_.get_process_image_result(handle_, &out, &roi) != 0) ++bad;
    ++taken;
    if (out.plane_num == 0) return 0;
    const uint8_t value = RunValue(out.attr0);
    const size_t luma = size_t{out.planes[0].width} * out.planes[0].height;
    const size_t chroma = size_t{out.planes[1].width} * out.planes[1].height;
    const auto off = [value](uint8_t b) { return b != value && b != value - 1; };
    if (luma > y_.size() || chroma > uv_.size() ||
        std::any_of(y_.begin(), y_.begin() + luma, off) ||
        std::any_of(uv_.begin(), uv_.begin() + chroma, off))
      ++bad;
    return out.attr0;
  }

  std::atomic<int> bad{0};
  std::atomic<int> taken{0};

 private:
  const flowing_water_api& api_;
  void* handle_;
  std::vector<uint8_t> y_;
  std::vector<uint8_t> uv_;
};

class PipelineStress : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();  // every start and stop logs a handful of lines
    ASSERT_EQ(flowing_water_get_API(&api_), 0);
    testutil::TakeLogRecords();
  }
  void TearDown() override {
    testing::internal::GetCapturedStdout();
    testutil::TakeLogRecords();
  }

  // Hands in the run's first frame, its header word naming the run, and waits the way that holds
  // after a restart too: until that word comes back in the picture. Non-zero sizes would prove
  // nothing then, since the previous run's picture is returned until this frame is folded in.
  void FirstFrame(void* handle, Camera& camera, Size size, uint32_t run) {
    Feed(handle, size, run);
    while (camera.Take() != run) std::this_thread::yield();
    watchdog_.Step("first frame folded");
  }
  void Feed(void* handle, Size size, uint32_t run) {
    testutil::Frame frame = FlatFrame(size, RunValue(run));
    image record = testutil::MakeImage(frame);
    record.attr0 = run;
    rect roi{0, 0, size.width, size.height};
    ASSERT_EQ(api_.process_image(handle, &record, &roi), 0);
  }
  void WaitUntilIdle() {
    while (ThreadPool::instance()->pendingJobs() != 0) std::this_thread::yield();
    watchdog_.Step("pool idle");
  }
  static velmora_algo& Algo(void* handle) { return *static_cast<velmora_algo*>(handle); }

  flowing_water_api api_{};
  Watchdog watchdog_;
};

TEST_F(PipelineStress, ThousandStartStopCyclesWithFramesInFlightAndAPictureReader) {
  // Ten handles one after another, each started a hundred times; a reader takes pictures all
  // through each handle's life, across its restarts, while the app's thread feeds and stops.
  constexpr int kHandles = 10, kRunsPerHandle = 100;
  uint32_t run = 0;
  for (int h = 0; h < kHandles; ++h) {
    void* handle = api_.init_handle();
    ASSERT_NE(handle, nullptr);
    Camera app(api_, handle), reader(api_, handle);
    std::atomic<bool> released{false};
    std::thread reading([&] {
      while (!released) {
        reader.Take();
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
    });
    uint32_t shown = 0;  // the run whose picture the handle holds
    for (int i = 0; i < kRunsPerHandle; ++i) {
      // EXPECT, not ASSERT, while the reader runs: returning would leave its thread unjoined.
      EXPECT_EQ(api_.start_process(handle), 0);
      if (i % 10 == 9) {
        // A run without frames: the previous run's picture stays.
        EXPECT_EQ(api_.stop_process(handle), 0);
        EXPECT_EQ(app.Take(), shown);
        watchdog_.Step("empty run stopped");
        continue;
      }
      ++run;
      const Size size = kSizes[(h + i) % 4];
      FirstFrame(handle, app, size, run);
      const int in_flight = i % 7;  // stopped at once: some folded, some dropped
      for (int f = 0; f < in_flight; ++f) Feed(handle, size, run);
      EXPECT_EQ(api_.stop_process(handle), 0);
      watchdog_.Step("run stopped");
      shown = run;

      EXPECT_EQ(app.Take(), run);
      EXPECT_EQ(Algo(handle).added_frames(), 1u + in_flight);
      EXPECT_GE(Algo(handle).folded_frames(), 1);
      EXPECT_LE(Algo(handle).folded_frames(), 1 + in_flight);
      testutil::TakeLogRecords();
    }
    released = true;
    reading.join();
    ASSERT_EQ(api_.release_handle(handle), 0);
    EXPECT_EQ(app.bad.load(), 0) << "handle " << h;
    EXPECT_EQ(reader.bad.load(), 0) << "handle " << h;
    EXPECT_GT(reader.taken.load(), 0);
  }
}

TEST_F(PipelineStress, StopWithHundredsOfFramesQueuedLeavesThemUnrun) {
  // The pool's semaphore counts transitions of its pending jobs to zero, so a run in which the
  // worker caught up twice has two posts no stop consumed: stop_process then returns without
  // waiting for the queue to drain, and the frames still queued stay there, dropped, their copies
  // kept. They point at a handle that may be released next; the next start must discard them
  // unrun. Both posts are made certain here, and the worker held until the stop has cleared the
  // pool's running flag, so that all the queued frames are left behind every time.
  constexpr int kQueued = 300;
  ThreadPool* pool = ThreadPool::instance();
  void* handle = api_.init_handle();
  uint32_t run = 5000;
  for (int round = 0; round < 4; ++round, ++run) {
    Camera camera(api_, handle);
    ASSERT_EQ(api_.start_process(handle), 0);
    // Each frame's job ends with the queue empty, and so with a post.
    FirstFrame(handle, camera, kSizes[round % 4], run);
    WaitUntilIdle();
    Feed(handle, kSizes[round % 4], run);
    WaitUntilIdle();
    std::promise<void> held, open;
    std::shared_future<void> opened = open.get_future().share();
    struct Hold {
      std::promise<void>* held;
      std::shared_future<void>* opened;
    } hold{&held, &opened};
    pool->submit({[](void* p) {
                    static_cast<Hold*>(p)->held->set_value();
                    static_cast<Hold*>(p)->opened->wait();
                  },
                  &hold});
    held.get_future().wait();
    for (int f = 0; f < kQueued; ++f) Feed(handle, kSizes[round % 4], run);
    watchdog_.Step("frames queued");

    testutil::TakeLogRecords();
    std::thread stopper([&] { api_.stop_process(handle); });
    const bool flag_cleared = testutil::WaitForLogText("threadpoll ==> shutdown 222");
    open.set_value();
    stopper.join();
    ASSERT_TRUE(flag_cleared);
    watchdog_.Step("stopped with frames queued");

    EXPECT_EQ(Algo(handle).folded_frames(), 2);
    EXPECT_EQ(pool->pendingJobs(), kQueued) << "left in the queue, unrun";
    EXPECT_EQ(camera.Take(), run);
    EXPECT_EQ(camera.bad.load(), 0);
    testutil::TakeLogRecords();
    if (round % 2 == 1) {
      // Released with its frames still queued; a new handle starts the pool again next round.
      ASSERT_EQ(api_.release_handle(handle), 0);
      handle = api_.init_handle();
    }
  }
  // A last run on a fresh pool folds only its own frames.
  Camera camera(api_, handle);
  ASSERT_EQ(api_.start_process(handle), 0);
  EXPECT_EQ(pool->pendingJobs(), 0);
  FirstFrame(handle, camera, kLargest, run);
  Feed(handle, kLargest, run);
  ASSERT_EQ(api_.stop_process(handle), 0);
  EXPECT_EQ(camera.Take(), run);
  EXPECT_EQ(camera.bad.load(), 0);
  ASSERT_EQ(api_.release_handle(handle), 0);
}

}  // namespace
