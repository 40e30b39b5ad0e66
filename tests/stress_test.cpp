// The pipeline under load through the table of operations, run in CI under AddressSanitizer (leaks
// beyond tests/lsan.supp fail) and ThreadSanitizer (races beyond the unlocked read of the means
// fail). A run's frames are flat, of a value its first frame's header word names, so a picture is
// checked against the header it came with: a flat mean truncates to that value or one below, which
// the sharpen filter leaves alone. A size paired with a buffer of another size or run, or another
// run's frame folded in, shows as a wrong byte (under AddressSanitizer as a read past a buffer:
// the half-published first fold that once happened).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "common/threadPool.h"
#include "pipeline/flow_water_algo.h"
#include "test_util.h"

namespace {

// Aborts, naming the last step reached, when no step is reached for 30 s: a hang fails at once
// with a clue instead of running into the CI time-out.
class Watchdog {
 public:
  ~Watchdog() {
    stop_.set_value();
    thread_.join();
  }
  void Step(const char* what) {
    step_ = what;
    ++steps_;
  }

 private:
  std::atomic<const char*> step_{"start"};
  std::atomic<uint64_t> steps_{0};
  std::promise<void> stop_;
  std::thread thread_{[this, stopped = stop_.get_future()] {
    for (uint64_t seen = 0, idle = 0;
         stopped.wait_for(std::chrono::seconds(1)) == std::future_status::timeout;) {
      idle = steps_ == seen ? idle + 1 : (seen = steps_, 0);
      if (idle == 30) {
        std::fprintf(stderr, "stress_test: no progress for 30 s; last step: %s\n", step_.load());
        std::abort();
      }
    }
  }};
};

struct Size {
  int width, height;
};
constexpr Size k1080p{1920, 1080};
// Mostly small, so the window around a first frame's publication is hit often; 512x256 and, now
// and then, 1080p between them, so a stale small buffer would meet a far larger size.
constexpr Size kSizes[] = {{48, 32}, {30, 16}, {512, 256}, {8, 2}, {6, 4}, {64, 32}};

uint8_t RunValue(uint32_t run) { return static_cast<uint8_t>(17 + run * 37 % 200); }

// Takes pictures into buffers as large as the largest frame a handle sees: after a restart the
// previous run's (perhaps larger) sizes come back until the new run's first frame is folded in.
class Camera {
 public:
  explicit Camera(const flowing_water_api& api)
      : api_(api), y_(size_t{k1080p.width} * k1080p.height), uv_(y_.size() / 2) {}
  // The picture's header word (0 before any frame was folded). Counts a picture whose bytes
  // disagree with the run that word names, or whose sizes exceed the buffers.
  uint32_t Take(void* handle) {
    image out{};
    out.planes[0].data = y_.data();
    out.planes[1].data = uv_.data();
    if (api_.get_process_image_result(handle, &out, &roi) != 0) ++bad;
    ++taken;
    if (out.plane_num == 0) return 0;
    const auto off = [value = RunValue(out.attr0)](uint8_t b) {
      return b != value && b != value - 1;
    };
    const size_t luma = size_t{out.planes[0].width} * out.planes[0].height;
    const size_t chroma = size_t{out.planes[1].width} * out.planes[1].height;
    if (luma > y_.size() || chroma > uv_.size() ||
        std::any_of(y_.begin(), y_.begin() + luma, off) ||
        std::any_of(uv_.begin(), uv_.begin() + chroma, off))
      ++bad;
    return out.attr0;
  }
  std::atomic<int> bad{0}, taken{0};
  rect roi{};

 private:
  const flowing_water_api& api_;
  std::vector<uint8_t> y_, uv_;
};

class PipelineStress : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();  // every start and stop logs a handful of lines
    ASSERT_EQ(flowing_water_get_API(&api_), 0);
  }
  void TearDown() override {
    testing::internal::GetCapturedStdout();
    testutil::TakeLogRecords();
  }
  // Hands in the run's first frame and polls in a tight loop until its header word comes back,
  // the wait that holds after a restart too (non-zero sizes would prove nothing then).
  void FirstFrame(void* handle, Camera& camera, Size size, uint32_t run) {
    Feed(handle, size, run);
    while (camera.Take(handle) != run) std::this_thread::yield();
    watchdog_.Step("first frame folded");
  }
  void Feed(void* handle, Size size, uint32_t run) {
    testutil::Frame frame = testutil::FlatFrame(size.width, size.height, RunValue(run));
    image record = testutil::MakeImage(frame);
    record.attr0 = run;
    rect roi{static_cast<int32_t>(run), 0, size.width, size.height};
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
  // 200 handles one after another, each started five times: 200 first folds of fresh handles and
  // 800 of restarted ones, sizes changing between runs. The app polls each first fold while a
  // reader thread takes pictures through the handle's whole life.
  Camera app(api_), reader(api_);
  uint32_t run = 0;
  for (int h = 0; h < 200; ++h) {
    void* handle = api_.init_handle();
    ASSERT_NE(handle, nullptr);
    std::atomic<bool> released{false};
    std::thread reading([&] {
      for (; !released; std::this_thread::yield()) reader.Take(handle);
    });
    uint32_t shown = 0;  // the run whose picture the handle holds
    for (int i = 0; i < 5; ++i) {
      // EXPECT, not ASSERT, while the reader runs: returning would leave its thread unjoined.
      EXPECT_EQ(api_.start_process(handle), 0);
      if ((h + i) % 10 == 9) {  // a run without frames: the previous run's picture stays
        EXPECT_EQ(api_.stop_process(handle), 0);
        EXPECT_EQ(app.Take(handle), shown);
        continue;
      }
      const Size size = i == 3 && h % 100 == 50 ? k1080p : kSizes[(h + i) % 6];
      FirstFrame(handle, app, size, ++run);
      const int in_flight = (h + i) % 7;  // stopped at once: some folded, some dropped
      for (int f = 0; f < in_flight; ++f) Feed(handle, size, run);
      EXPECT_EQ(api_.stop_process(handle), 0);
      watchdog_.Step("run stopped");
      EXPECT_EQ(app.Take(handle), shown = run);
      EXPECT_EQ(app.roi.x, static_cast<int32_t>(run)) << "each run keeps its own first rect";
      EXPECT_EQ(Algo(handle).added_frames(), 1u + in_flight);
      EXPECT_GE(Algo(handle).folded_frames(), 1);
      EXPECT_LE(Algo(handle).folded_frames(), 1 + in_flight);
      testutil::TakeLogRecords();
    }
    released = true;
    reading.join();
    ASSERT_EQ(api_.release_handle(handle), 0);
  }
  EXPECT_EQ(app.bad.load(), 0);
  EXPECT_EQ(reader.bad.load(), 0);
  EXPECT_GT(reader.taken.load(), 1000);
}

TEST_F(PipelineStress, StopWithHundredsOfFramesQueuedLeavesThemUnrun) {
  // The pool's semaphore counts transitions of its pending jobs to zero: a run in which the worker
  // caught up twice leaves two posts no stop consumed, so stop_process returns without draining
  // and the frames queued stay there, unrun, their copies kept, pointing at a handle that may be
  // released next. The next start must discard them. The worker is held until the stop has
  // cleared the pool's running flag, so that all of them are left behind every time.
  constexpr int kQueued = 300;
  ThreadPool* pool = ThreadPool::instance();
  Camera camera(api_);
  void* handle = api_.init_handle();
  for (uint32_t run = 5000; run < 5004; ++run) {
    const Size size = kSizes[(run + 3) % 6];
    ASSERT_EQ(api_.start_process(handle), 0);
    EXPECT_EQ(pool->pendingJobs(), 0) << "the last stop's frames discarded";
    FirstFrame(handle, camera, size, run);  // each job ends with the queue empty: a post
    WaitUntilIdle();
    Feed(handle, size, run);
    WaitUntilIdle();
    testutil::Gate gate;
    pool->submit({&testutil::Gate::Job, &gate});
    gate.WaitEntered();
    for (int f = 0; f < kQueued; ++f) Feed(handle, size, run);
    testutil::TakeLogRecords();
    std::thread stopper([&] { api_.stop_process(handle); });
    const bool flag_cleared = testutil::WaitForLogText("threadpoll ==> shutdown 222");
    gate.Open();
    stopper.join();
    ASSERT_TRUE(flag_cleared);
    watchdog_.Step("stopped with frames queued");
    EXPECT_EQ(pool->pendingJobs(), kQueued) << "left in the queue, unrun";
    // A second stop once waited on the destroyed semaphore for jobs that nothing would run.
    EXPECT_EQ(api_.stop_process(handle), 0);
    watchdog_.Step("stopped again");
    Feed(handle, size, run);  // refused once stopped: not counted
    EXPECT_EQ(Algo(handle).added_frames(), 2u + kQueued);
    EXPECT_EQ(Algo(handle).folded_frames(), 2);
    EXPECT_EQ(camera.Take(handle), run);
    testutil::TakeLogRecords();
    if (run % 2 == 1) {  // released with its frames still queued, then a fresh handle
      ASSERT_EQ(api_.release_handle(handle), 0);
      handle = api_.init_handle();
    }
  }
  EXPECT_EQ(camera.bad.load(), 0);
  ASSERT_EQ(api_.start_process(handle), 0);  // discards the last stop's frames
  EXPECT_EQ(api_.stop_process(handle) + api_.release_handle(handle), 0);
}

}  // namespace
