#include "pipeline/flow_water_algo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <thread>
#include <tuple>

#include "common/threadPool.h"
#include "test_util.h"

namespace {

using testutil::Frame;
using testutil::MakeImage;
constexpr auto Flat = testutil::FlatFrame;

// Returns once every job queued so far has run: the pool has one worker and runs jobs in order.
void DrainPool() {
  std::promise<void> done;
  ThreadPool::instance()->submit(
      {[](void* p) { static_cast<std::promise<void>*>(p)->set_value(); }, &done});
  done.get_future().wait();
}

std::vector<double> Means(const image& acc, int plane) {
  const double* data = reinterpret_cast<const double*>(acc.planes[plane].data);
  return std::vector<double>(data, data + acc.planes[plane].width * acc.planes[plane].height);
}

class HandleTest : public testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    handle_.stop_process();
    testing::internal::GetCapturedStdout();
    testutil::TakeLogRecords();
  }
  int Hand(Frame& frame, uint32_t attr0 = 0xA0) {
    image img = MakeImage(frame);
    img.attr0 = attr0;
    rect roi{};
    return handle_.process_image(&img, &roi);
  }
  // Hands in flat frames of 90 and 100 (header attr0 as given) while the worker is held, so the
  // second arrives before the first is folded; returns once both jobs have run.
  void FeedTwoWhileTheWorkerIsHeld(uint32_t attr0) {
    testutil::Gate gate;
    ThreadPool::instance()->submit({&testutil::Gate::Job, &gate});
    Frame b = Flat(4, 4, 90), c = Flat(4, 4, 100);
    Hand(b, attr0);
    Hand(c, attr0);
    gate.Open();
    DrainPool();
  }
  velmora_algo handle_;
};

// A shallow copy, a plane beyond plane_num touched, or an empty plane's record kept.
TEST(CopyIMAGEMemory, CopiesHeaderAndPlanesInUseAndZeroesEmptyPlanes) {
  Frame frame = testutil::RandomFrame(6, 4, 3);
  image src = MakeImage(frame);
  src.plane_num = 3;
  src.planes[2] = {41, 42, 0, 5, 43, frame.y.data()};  // empty: record zeroed in the copy
  image dst{};
  uint8_t sentinel = 0;
  dst.planes[3] = {9, 9, 9, 9, 9, &sentinel};  // beyond plane_num: left as it was
  CopyIMAGEMemory(src, dst);
  EXPECT_EQ(std::memcmp(&dst, &src, offsetof(image, planes)), 0);
  for (int p = 0; p < 2; ++p) {
    EXPECT_EQ(std::make_tuple(dst.planes[p].attr0, dst.planes[p].attr1, dst.planes[p].width,
                              dst.planes[p].height, dst.planes[p].attr2),
              std::make_tuple(src.planes[p].attr0, src.planes[p].attr1, src.planes[p].width,
                              src.planes[p].height, src.planes[p].attr2));
    EXPECT_NE(dst.planes[p].data, src.planes[p].data) << "a deep copy";
  }
  EXPECT_EQ(0, std::memcmp(dst.planes[0].data, frame.y.data(), frame.y.size()));
  EXPECT_EQ(0, std::memcmp(dst.planes[1].data, frame.uv.data(), frame.uv.size()));
  EXPECT_EQ(std::make_tuple(dst.planes[2].attr0, dst.planes[2].height, dst.planes[2].data),
            std::make_tuple(0u, 0u, static_cast<uint8_t*>(nullptr)));
  FreeIMAGEMemory(dst);
  EXPECT_EQ(std::make_tuple(dst.planes[0].data, dst.planes[1].data, dst.planes[3].data),
            std::make_tuple(nullptr, nullptr, &sentinel));
}

// The API test pins one refusal's log line; here every refused shape, and that none is counted.
TEST_F(HandleTest, RefusesMalformedFramesWithoutCountingThem) {
  handle_.start_process();
  Frame frame = Flat(4, 4, 9);
  rect roi{};
  const struct {
    uint32_t planes, format;
  } cases[] = {{1, 4}, {3, 4}, {2, 3}, {2, 6}, {2, 0}};
  for (const auto& c : cases) {
    image img = MakeImage(frame, c.format);
    img.plane_num = c.planes;
    EXPECT_EQ(handle_.process_image(&img, &roi), 261) << c.planes << " " << c.format;
  }
  EXPECT_EQ(handle_.added_frames(), 0u);
  for (uint32_t format : {4u, 5u}) {
    image img = MakeImage(frame, format);
    EXPECT_EQ(handle_.process_image(&img, &roi), 0);
  }
  EXPECT_EQ(handle_.added_frames(), 2u);
  DrainPool();
}

// Every entry follows (mean * n) / (n + 1) + sample / (n + 1) exactly, in double precision.
TEST_F(HandleTest, FoldsFramesIntoARunningMeanInDoublePrecision) {
  handle_.start_process();
  testutil::ReferenceMean reference;
  for (uint32_t seed = 1; seed <= 11; ++seed) {
    Frame f = testutil::RandomFrame(6, 4, seed);
    ASSERT_EQ(Hand(f), 0);
    DrainPool();
    reference.Fold(f);
  }
  EXPECT_EQ(handle_.folded_frames(), 11);
  EXPECT_EQ(Means(handle_.mean_record(), 0), reference.y);
  EXPECT_EQ(Means(handle_.mean_record(), 1), reference.uv);
}

TEST_F(HandleTest, StopDropsQueuedFramesFinishesTheOneInProgressAndRefusesLaterOnes) {
  handle_.start_process();
  Frame first = Flat(8, 4, 10), queued = Flat(8, 4, 200);
  // Waited for through the result record, not a marker job: the pool's semaphore counts
  // transitions to zero, and a marker's own transition could leave a second post behind that
  // lets stop_process return while the held job below still runs.
  ASSERT_EQ(Hand(first), 0);
  while (handle_.mean_record().plane_num == 0) std::this_thread::yield();
  testutil::Gate gate;
  ThreadPool::instance()->submit({&testutil::Gate::Job, &gate});
  for (int i = 0; i < 5; ++i) ASSERT_EQ(Hand(queued), 0);
  std::thread stopper([this] { handle_.stop_process(); });
  ASSERT_TRUE(testutil::WaitForLogText("stop_process forceEnd end"));
  gate.Open();
  stopper.join();
  EXPECT_EQ(Hand(queued), 0);  // stopped: refused, not counted
  EXPECT_EQ(handle_.added_frames(), 6u);
  EXPECT_EQ(handle_.folded_frames(), 1);
  EXPECT_EQ(Means(handle_.mean_record(), 0), std::vector<double>(32, 10.0));
}

// A second frame handed in before the first is folded skips the first-frame initialisation (kept
// as it is): in the handle's first run nothing was ever allocated, so both are dropped rather than
// written to null; after a restart the previous run's buffers and header are folded into instead.
TEST_F(HandleTest, ASecondFrameBeforeTheFirstIsFoldedSkipsInitialisation) {
  handle_.start_process();
  FeedTwoWhileTheWorkerIsHeld(77);
  EXPECT_EQ(handle_.folded_frames(), 0);
  EXPECT_EQ(handle_.mean_record().planes[0].data, nullptr);
  handle_.stop_process();

  handle_.start_process();
  Frame a = Flat(4, 4, 40);
  ASSERT_EQ(Hand(a), 0);
  DrainPool();
  handle_.stop_process();
  handle_.start_process();
  FeedTwoWhileTheWorkerIsHeld(77);
  EXPECT_EQ(handle_.folded_frames(), 2);
  EXPECT_EQ(handle_.mean_record().attr0, 0xA0u) << "the new run's header never arrives";
  EXPECT_EQ(Means(handle_.mean_record(), 0), std::vector<double>(16, 95.0));
}

// A null output plane writes nothing; before any frame zero sizes come back and nothing is written.
TEST_F(HandleTest, ResultChecksItsOutputRecord) {
  rect roi{};
  std::vector<uint8_t> y(4, 1), uv(4, 2);
  image out{};
  out.planes[0].data = y.data();
  EXPECT_EQ(handle_.get_process_image_result(&out, &roi), 65535);
  out.planes[1].data = uv.data();
  out.plane_num = 9;
  EXPECT_EQ(handle_.get_process_image_result(&out, &roi), 0);
  EXPECT_EQ(std::make_tuple(out.plane_num, out.planes[0].width), std::make_tuple(0u, 0u));
  EXPECT_EQ(y, std::vector<uint8_t>(4, 1));
  EXPECT_EQ(uv, std::vector<uint8_t>(4, 2));
}

}  // namespace
