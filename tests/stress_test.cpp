// The pipeline under load through the table, run in CI under AddressSanitizer (leaks beyond
// tests/lsan.supp fail) and ThreadSanitizer (races beyond the unlocked read of the means fail).
// A run's frames are flat, of a value its first frame's header word names; a flat mean truncates
// to it or one below, which the sharpen filter leaves alone. A size paired with a buffer of another
// size or run (the half-published first fold that once happened; under AddressSanitizer a read
// past a buffer), or another run's frame folded in, shows as a byte off the header's value.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "common/threadPool.h"
#include "pipeline/flow_water_algo.h"
#include "test_util.h"

namespace {

// The watchdog: SIGALRM, re-armed at every step, aborts naming the last step reached when none is
// reached for 30 s, so that a hang fails at once with a clue instead of running into the CI
// time-out.
std::atomic<const char*> g_step{"start"};
void Step(const char* what) {
  g_step = what;
  alarm(30);
}
void Hung(int) {
  for (const char* part : {"stress_test: no progress for 30 s; last step: ", g_step.load(), "\n"})
    if (write(2, part, std::strlen(part)) < 0) break;
  std::abort();
}

struct Size {
  int width, height;
};
constexpr Size k1080p{1920, 1080};
// Mostly small, so the window around a first frame's publication is hit often; 512x256 and, now
// and then, 1080p between them, so a stale small buffer would meet a far larger size.
constexpr Size kSizes[] = {{48, 32}, {30, 16}, {512, 256}, {8, 2}, {6, 4}, {64, 32}};

uint8_t RunValue(uint32_t run) { return static_cast<uint8_t>(17 + run * 37 % 200); }

// Pictures taken into buffers as large as the largest frame a handle sees: after a restart the
// previous run's (perhaps larger) sizes come back until the new run's first frame is folded in.
struct Camera {
  std::vector<uint8_t> planes[2] = {std::vector<uint8_t>(size_t{k1080p.width} * k1080p.height),
                                    std::vector<uint8_t>(size_t{k1080p.width} * k1080p.height / 2)};
  std::atomic<int> bad{0}, taken{0};
  rect roi{};
};

class PipelineStress : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();  // every start and stop logs a handful of lines
    ASSERT_EQ(flowing_water_get_API(&api_), 0);
    std::signal(SIGALRM, &Hung);
    Step("start");
  }
  void TearDown() override {
    alarm(0);
    testing::internal::GetCapturedStdout();
  }
  // The picture's header word (0 before any frame was folded). Counts a picture whose bytes
  // disagree with the run that word names, or whose sizes exceed the buffers.
  uint32_t Take(void* handle, Camera& camera) {
    image out{};
    for (int p = 0; p < 2; ++p) out.planes[p].data = camera.planes[p].data();
    camera.bad += api_.get_process_image_result(handle, &out, &camera.roi) != 0;
    ++camera.taken;
    const uint8_t value = RunValue(out.attr0);
    const auto off = [value](uint8_t b) { return b != value && b != value - 1; };
    for (const auto& [plane, data] : {std::pair{out.planes[0], &camera.planes[0]},
                                      std::pair{out.planes[1], &camera.planes[1]}}) {
      const size_t n = size_t{plane.width} * plane.height;  // 0 before any fold
      camera.bad += n > data->size() || std::any_of(data->begin(), data->begin() + n, off);
    }
    return out.attr0;
  }
  // Hands in the run's first frame and polls in a tight loop until its header word comes back,
  // the wait that holds after a restart too (non-zero sizes would prove nothing then).
  void FirstFrame(void* handle, Camera& camera, Size size, uint32_t run) {
    Feed(handle, size, run, true);
    while (Take(handle, camera) != run) std::this_thread::yield();
    Step("first frame folded");
  }
  // A frame of the run; only its first carries the run in its header word and rect, which the
  // picture keeps for the whole run.
  void Feed(void* handle, Size size, uint32_t run, bool first = false) {
    testutil::Frame frame = testutil::FlatFrame(size.width, size.height, RunValue(run));
    image record = testutil::MakeImage(frame);
    record.attr0 = first ? run : ~run;
    rect roi{static_cast<int32_t>(record.attr0), 0, size.width, size.height};
    ASSERT_EQ(api_.process_image(handle, &record, &roi), 0);
  }

  flowing_water_api api_{};
};

TEST_F(PipelineStress, ThousandStartStopCyclesWithFramesInFlightAndAPictureReader) {
  // 200 handles one after another, each started five times: 200 first folds of fresh handles and
  // 800 of restarted ones, sizes changing between runs. The app polls each first fold while a
  // reader thread takes pictures through the handle's whole life.
  ThreadPool* pool = ThreadPool::instance();
  Camera app, reader;
  uint32_t run = 0;
  for (int h = 0; h < 200; ++h) {
    void* handle = api_.init_handle();
    std::atomic<bool> released{false};
    std::thread reading([&] {
      for (; !released; std::this_thread::yield()) Take(handle, reader);
    });
    for (int i = 0; i < 5; ++i) {
      // EXPECT, not ASSERT, while the reader runs: returning would leave its thread unjoined.
      EXPECT_EQ(api_.start_process(handle), 0);
      EXPECT_EQ(pool->pendingJobs(), 0) << "frames a stop left queued are discarded unrun";
      const Size size = i == 3 && h % 100 == 50 ? k1080p : kSizes[(h + i) % 6];
      FirstFrame(handle, app, size, ++run);
      if (h % 40 == 20 && i >= 3) {
        // A stop with hundreds of frames queued, then a restart (i = 3) or a release (i = 4). The
        // pool's semaphore counts transitions of its pending jobs to zero: a run in which the
        // worker caught up twice leaves two posts no stop consumes, so stop_process returns
        // without draining and the frames stay queued, unrun, their copies kept, pointing at a
        // handle that may be released next. The worker is held until the stop has cleared the
        // pool's running flag, so that all of them are left behind every time.
        // The first frame's job, then this frame's, ends with the queue empty: a post each.
        while (pool->pendingJobs() != 0) std::this_thread::yield();
        Feed(handle, size, run);
        while (pool->pendingJobs() != 0) std::this_thread::yield();
        testutil::Gate gate(pool);
        for (int f = 0; f < 300; ++f) Feed(handle, size, run);
        testutil::TakeLogRecords();
        std::thread stopper([&] { api_.stop_process(handle); });
        for (bool cleared = false; !cleared; std::this_thread::yield())  // the stop logs it
          for (const auto& record : testutil::TakeLogRecords())
            cleared |= record.text.find("threadpoll ==> shutdown 222") != std::string::npos;
        gate.Open();
        stopper.join();
        EXPECT_EQ(pool->pendingJobs(), 300) << "left in the queue, unrun";
        // A second stop once waited on the destroyed semaphore for jobs nothing would run.
        EXPECT_EQ(api_.stop_process(handle), 0);
        Feed(handle, size, run);  // refused once stopped: not counted
        EXPECT_EQ(static_cast<velmora_algo*>(handle)->added_frames(), 302u);
        EXPECT_EQ(static_cast<velmora_algo*>(handle)->folded_frames(), 2);
      } else {
        const int in_flight = (h + i) % 7;  // stopped at once: some folded, some dropped
        for (int f = 0; f < in_flight; ++f) Feed(handle, size, run);
        EXPECT_EQ(api_.stop_process(handle), 0);
      }
      Step("run stopped");
      EXPECT_EQ(Take(handle, app), run);
      EXPECT_EQ(app.roi.x, static_cast<int32_t>(run)) << "each run keeps its own first rect";
    }
    released = true;
    reading.join();
    ASSERT_EQ(api_.release_handle(handle), 0);
  }
  EXPECT_EQ(app.bad.load(), 0);
  EXPECT_EQ(reader.bad.load(), 0);
  EXPECT_GT(reader.taken.load(), 1000);
}

}  // namespace
