#include "pipeline/flow_water_algo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "common/threadPool.h"
#include "test_util.h"

namespace {

using testutil::Frame;

// A word of the header or a plane record not copied, a plane beyond plane_num touched, an empty
// plane's record kept, a pointer left after the free. (A shallow copy shows in the API and stress
// tests, whose frames are gone before they are folded.)
TEST(CopyIMAGEMemory, CopiesHeaderAndPlanesInUseAndZeroesEmptyPlanes) {
  Frame frame = testutil::RandomFrame(6, 4, 3);
  image src = testutil::MakeImage(frame), dst{};
  src.plane_num = 3;
  src.planes[2] = {41, 42, 0, 5, 43, frame.y.data()};  // empty: record zeroed in the copy
  uint8_t sentinel = 0;
  dst.planes[3] = {9, 9, 9, 9, 9, &sentinel};  // beyond plane_num: left as it was
  CopyIMAGEMemory(src, dst);
  EXPECT_EQ(std::memcmp(&dst, &src, offsetof(image, planes)), 0);
  for (int p = 0; p < 2; ++p)
    EXPECT_EQ(std::memcmp(&dst.planes[p], &src.planes[p], 5 * sizeof(uint32_t)), 0) << p;
  EXPECT_EQ(std::make_tuple(dst.planes[2].attr0, dst.planes[2].height, dst.planes[2].data),
            std::make_tuple(0u, 0u, nullptr));
  FreeIMAGEMemory(dst);
  EXPECT_EQ(std::make_tuple(dst.planes[0].data, dst.planes[1].data, dst.planes[3].data),
            std::make_tuple(nullptr, nullptr, &sentinel));
}

class HandleTest : public testing::Test {
 protected:
  void SetUp() override { handle_.start_process(); }
  void TearDown() override { handle_.stop_process(); }
  int Hand(uint8_t value, uint32_t attr0 = 0xA0, uint32_t planes = 2, uint32_t format = 4) {
    Frame frame = testutil::FlatFrame(4, 4, value);
    image img = testutil::MakeImage(frame, format);
    img.attr0 = attr0;
    img.plane_num = planes;
    rect roi{};
    return handle_.process_image(&img, &roi);
  }
  // Returns once every job queued so far has run: one worker runs the jobs in order.
  static void DrainPool() { testutil::Gate(ThreadPool::instance()).Open(); }
  // Hands in flat frames of 90 and 100 while the worker is held, so the second arrives before the
  // first is folded; returns once both jobs have run.
  void FeedTwoWhileTheWorkerIsHeld() {
    testutil::Gate gate(ThreadPool::instance());
    Hand(90, 77);
    Hand(100, 77);
    gate.Open();
    DrainPool();
  }
  velmora_algo handle_;
};

// The API test pins one refusal's code and line; here the other shapes, none of them counted.
TEST_F(HandleTest, RefusesMalformedFramesWithoutCountingThem) {
  for (const auto& [planes, format] : {std::pair{1u, 4u}, {3u, 5u}, {2u, 3u}, {2u, 6u}, {2u, 0u}})
    EXPECT_EQ(Hand(9, 0, planes, format), 261) << planes << " " << format;
  EXPECT_EQ(handle_.added_frames(), 0u);
}

// A second frame handed in before the first is folded skips the first-frame initialisation (kept
// as it is): in the handle's first run nothing was ever allocated, so both are dropped rather than
// written to null; after a restart they fold into the previous run's buffers and header.
TEST_F(HandleTest, ASecondFrameBeforeTheFirstIsFoldedSkipsInitialisation) {
  FeedTwoWhileTheWorkerIsHeld();
  EXPECT_EQ(handle_.folded_frames(), 0);
  EXPECT_EQ(handle_.mean_record().planes[0].data, nullptr);
  handle_.stop_process();
  handle_.start_process();
  ASSERT_EQ(Hand(40), 0);
  DrainPool();
  handle_.stop_process();
  handle_.start_process();
  FeedTwoWhileTheWorkerIsHeld();
  EXPECT_EQ(handle_.folded_frames(), 2);
  const image acc = handle_.mean_record();
  EXPECT_EQ(acc.attr0, 0xA0u) << "the new run's header (77) never arrives";
  const double* luma = reinterpret_cast<const double*>(acc.planes[0].data);
  EXPECT_EQ(std::vector<double>(luma, luma + 16), std::vector<double>(16, 95.0));
}

}  // namespace
