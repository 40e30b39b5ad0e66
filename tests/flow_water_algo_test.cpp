#include "pipeline/flow_water_algo.h"

#include <gtest/gtest.h>

#include "common/threadPool.h"
#include "test_util.h"

namespace {

// A second frame handed in before the first is folded skips the first-frame initialisation (kept
// as it is): in the handle's first run nothing was ever allocated, so both are dropped rather than
// written to null; after a restart they fold into the previous run's buffers and header.
TEST(Handle, ASecondFrameBeforeTheFirstIsFoldedSkipsInitialisation) {
  velmora_algo handle;
  const auto hand = [&handle](uint8_t value, uint32_t attr0) {
    testutil::Frame frame = testutil::FlatFrame(4, 4, value);
    image img = testutil::MakeImage(frame);
    img.attr0 = attr0;
    rect roi{};
    ASSERT_EQ(handle.process_image(&img, &roi), 0);
  };
  // Each returns once every job queued so far has run: one worker runs the jobs in order. The
  // second holds the worker meanwhile, so that 100 is handed in before 90 is folded.
  const auto drain = [] { testutil::Gate(ThreadPool::instance()).Open(); };
  const auto run_with_two_frames = [&] {
    handle.start_process();
    testutil::Gate gate(ThreadPool::instance());
    hand(90, 77);
    hand(100, 77);
    gate.Open();
    drain();
  };
  run_with_two_frames();
  EXPECT_EQ(handle.folded_frames(), 0);
  EXPECT_EQ(handle.mean_record().planes[0].data, nullptr);
  handle.stop_process();
  handle.start_process();
  hand(40, 0xA0);
  drain();
  handle.stop_process();
  run_with_two_frames();
  EXPECT_EQ(handle.folded_frames(), 2);
  const image acc = handle.mean_record();
  EXPECT_EQ(acc.attr0, 0xA0u) << "the new run's header (77) never arrives";
  const double* luma = reinterpret_cast<const double*>(acc.planes[0].data);
  EXPECT_EQ(std::vector<double>(luma, luma + 16), std::vector<double>(16, 95.0));
  handle.stop_process();
}

}  // namespace
