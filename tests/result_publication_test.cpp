// The result is read without the handle's lock while the worker initialises a run's first frame.
// A reader must never pair the new plane sizes with a buffer that is not yet (or no longer) the
// mean of those sizes: run many first folds, of fresh and of restarted handles with frame sizes
// changing between runs, and poll the picture meanwhile from the app's thread and a second one.
// Under AddressSanitizer a mismatched pair reads past a buffer; in every build the picture must
// agree with the header that came with it.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "pipeline/flow_water_algo.h"
#include "test_util.h"

namespace {

struct Size {
  int width;
  int height;
};

// Each run folds one constant frame whose value and header word identify the run, so every
// picture read back can be checked against the header it arrived with.
uint8_t RunValue(uint32_t run) { return static_cast<uint8_t>(17 + run * 37 % 200); }

class Poller {
 public:
  explicit Poller(size_t max_pixels) : y_(max_pixels), uv_(max_pixels / 2) {}

  // One read of the picture. Returns the header word it came with (0: no frame folded yet) and
  // records a failure when any byte disagrees with the run that word names.
  uint32_t Poll(velmora_algo& handle) {
    image out{};
    out.planes[0].data = y_.data();
    out.planes[1].data = uv_.data();
    rect roi{};
    if (handle.get_process_image_result(&out, &roi) != 0) return 0;
    if (out.plane_num == 0) return 0;
    const uint32_t run = out.attr0;
    const uint8_t value = RunValue(run);
    const size_t luma = size_t{out.planes[0].width} * out.planes[0].height;
    const size_t chroma = size_t{out.planes[1].width} * out.planes[1].height;
    bool consistent = luma <= y_.size() && chroma <= uv_.size();
    for (size_t i = 0; consistent && i < luma; ++i) consistent = y_[i] == value;
    for (size_t i = 0; consistent && i < chroma; ++i) consistent = uv_[i] == value;
    if (!consistent) ++mismatches;
    return run;
  }

  std::atomic<int> mismatches{0};

 private:
  std::vector<uint8_t> y_;
  std::vector<uint8_t> uv_;
};

// Hands in the run's one frame and polls until its header comes back, while a second thread
// polls too (the output buffers are as large as the largest frame the handle has seen).
void FoldOnePolled(velmora_algo& handle, Size size, uint32_t run, Poller& app, Poller& other) {
  testutil::Frame frame{size.width, size.height,
                        std::vector<uint8_t>(size_t(size.width) * size.height, RunValue(run)),
                        std::vector<uint8_t>(size_t(size.width) * size.height / 2, RunValue(run))};
  image record = testutil::MakeImage(frame);
  record.attr0 = run;
  rect roi{static_cast<int32_t>(run), 0, size.width, size.height};

  std::atomic<bool> done{false};
  std::thread second([&] {
    while (!done.load()) {
      other.Poll(handle);
      std::this_thread::yield();  // leave the worker its share of a small machine
    }
  });
  ASSERT_EQ(handle.process_image(&record, &roi), 0);
  while (app.Poll(handle) != run) {
  }
  done = true;
  second.join();
}

TEST(ResultPublication, FirstFoldIsNeverSeenHalfPublished) {
  // Mostly small frames, so the window around initialisation is hit often, with 1080p ones
  // between them so a stale small buffer would be paired with a far larger size.
  const Size sizes[] = {{48, 32}, {512, 256}, {64, 2}, {1920, 1080}, {6, 4}, {512, 256}};
  const Size largest{1920, 1080};
  Poller app(size_t(largest.width) * largest.height);
  Poller other(size_t(largest.width) * largest.height);
  uint32_t run = 1;

  // Fresh handles: the record goes from all zeros to the first frame's.
  for (int i = 0; i < 120; ++i, ++run) {
    velmora_algo handle;
    handle.start_process();
    FoldOnePolled(handle, sizes[i % 3], run, app, other);
    handle.stop_process();
  }
  // One handle restarted again and again: the record goes from the last run's to the new one's.
  velmora_algo handle;
  for (int i = 0; i < 180; ++i, ++run) {
    handle.start_process();
    const Size size = (i % 90 == 89) ? largest : sizes[i % 6];
    FoldOnePolled(handle, size, run, app, other);
    handle.stop_process();
  }
  EXPECT_EQ(app.mismatches.load(), 0);
  EXPECT_EQ(other.mismatches.load(), 0);
}

}  // namespace
