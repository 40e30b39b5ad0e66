#include "pipeline/flow_water_algo.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

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

// Holds the pool's worker until opened, so that frames handed in meanwhile stay queued.
void Hold(testutil::Gate& gate) { ThreadPool::instance()->submit({&testutil::Gate::Job, &gate}); }

std::vector<double> Means(const image& acc, int plane) {
  const double* data = reinterpret_cast<const double*>(acc.planes[plane].data);
  return std::vector<double>(data, data + acc.planes[plane].width * acc.planes[plane].height);
}

class HandleTest : public testing::Test {
 protected:
  void SetUp() override {
    testing::internal::CaptureStdout();
    testutil::TakeLogRecords();
  }
  void TearDown() override {
    handle_.stop_process();
    testing::internal::GetCapturedStdout();
  }
  // Feeds one frame and waits until the worker has folded it in.
  void Feed(Frame& frame, rect roi = {1, 2, 3, 4}) {
    image img = MakeImage(frame);
    ASSERT_EQ(handle_.process_image(&img, &roi), 0);
    DrainPool();
  }
  // Hands in flat frames of 90 and 100 (header attr0 as given) while the worker is held, so the
  // second arrives before the first is folded; returns once both jobs have run.
  void FeedTwoWhileTheWorkerIsHeld(uint32_t attr0) {
    testutil::Gate gate;
    Hold(gate);
    Frame b = Flat(4, 4, 90), c = Flat(4, 4, 100);
    for (Frame* f : {&b, &c}) {
      image img = MakeImage(*f);
      img.attr0 = attr0;
      rect roi{};
      handle_.process_image(&img, &roi);
    }
    gate.Open();
    DrainPool();
  }
  velmora_algo handle_;
};

TEST(CopyIMAGEMemory, CopiesHeaderAndPlanesInUseAndZeroesEmptyPlanes) {
  Frame frame = testutil::RandomFrame(6, 4, 3);
  image src = MakeImage(frame);
  src.plane_num = 3;
  src.planes[2] = {41, 42, 0, 5, 43, frame.y.data()};  // empty: record zeroed in the copy
  image dst{};
  uint8_t sentinel = 0;
  dst.planes[3] = {9, 9, 9, 9, 9, &sentinel};  // beyond plane_num: left as it was

  CopyIMAGEMemory(src, dst);
  EXPECT_EQ(dst.attr0, 0xA0u);
  EXPECT_EQ(dst.attr3, 0xA3u);
  EXPECT_EQ(dst.format, 4u);
  EXPECT_EQ(dst.plane_num, 3u);
  for (int p = 0; p < 2; ++p) {
    EXPECT_EQ(dst.planes[p].attr0, src.planes[p].attr0);
    EXPECT_EQ(dst.planes[p].attr2, src.planes[p].attr2);
    EXPECT_EQ(dst.planes[p].width, src.planes[p].width);
    EXPECT_NE(dst.planes[p].data, src.planes[p].data) << "a deep copy";
  }
  EXPECT_EQ(0, std::memcmp(dst.planes[0].data, frame.y.data(), frame.y.size()));
  EXPECT_EQ(0, std::memcmp(dst.planes[1].data, frame.uv.data(), frame.uv.size()));
  EXPECT_EQ(dst.planes[2].attr0, 0u);
  EXPECT_EQ(dst.planes[2].height, 0u);
  EXPECT_EQ(dst.planes[2].data, nullptr);
  EXPECT_EQ(dst.planes[3].data, &sentinel);

  FreeIMAGEMemory(dst);
  EXPECT_EQ(dst.planes[0].data, nullptr);
  EXPECT_EQ(dst.planes[1].data, nullptr);
  EXPECT_EQ(dst.planes[3].data, &sentinel);
}

// The API test pins the codes of a null frame, three planes and format 6 with their log lines.
TEST_F(HandleTest, RefusesMalformedFramesWithoutCountingThem) {
  handle_.start_process();
  Frame frame = Flat(4, 4, 9);
  rect roi{};
  const struct {
    uint32_t planes, format;
  } cases[] = {{1, 4}, {2, 3}, {2, 0}};
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

// Every entry follows (mean * n) / (n + 1) + sample / (n + 1) exactly, in double precision (the
// kernel test pins the rounding of single folds).
TEST_F(HandleTest, FoldsFramesIntoARunningMeanInDoublePrecision) {
  handle_.start_process();
  testutil::ReferenceMean reference;
  for (uint32_t seed = 1; seed <= 11; ++seed) {
    Frame f = testutil::RandomFrame(6, 4, seed);
    Feed(f);
    reference.Fold(f);
  }
  EXPECT_EQ(handle_.folded_frames(), 11);
  EXPECT_EQ(Means(handle_.mean_record(), 0), reference.y);
  EXPECT_EQ(Means(handle_.mean_record(), 1), reference.uv);
}

TEST_F(HandleTest, StopDropsQueuedFramesButFinishesTheOneInProgress) {
  handle_.start_process();
  Frame first = Flat(8, 4, 10);
  // Waited for through the result record, not a marker job: the pool's semaphore counts
  // transitions to zero, and a marker's own transition could leave a second post behind that
  // lets stop_process return while the held job below still runs.
  image img = MakeImage(first);
  rect first_roi{};
  ASSERT_EQ(handle_.process_image(&img, &first_roi), 0);
  while (handle_.mean_record().plane_num == 0) std::this_thread::yield();

  testutil::Gate gate;
  Hold(gate);
  Frame queued = Flat(8, 4, 200);
  for (int i = 0; i < 5; ++i) {
    image img = MakeImage(queued);
    rect roi{};
    ASSERT_EQ(handle_.process_image(&img, &roi), 0);
  }
  std::thread stopper([this] { handle_.stop_process(); });
  ASSERT_TRUE(testutil::WaitForLogText("stop_process forceEnd end"));
  gate.Open();
  stopper.join();

  EXPECT_EQ(handle_.added_frames(), 6u);
  EXPECT_EQ(handle_.folded_frames(), 1);
  EXPECT_EQ(Means(handle_.mean_record(), 0), std::vector<double>(32, 10.0));
}

TEST_F(HandleTest, ASecondFrameBeforeTheFirstIsFoldedSkipsInitialisation) {
  // After a restart the previous run's buffers and header are reused: the new run's first frame
  // header (attr0 = 77 here) never reaches the result.
  handle_.start_process();
  Frame a = Flat(4, 4, 40);
  Feed(a);
  handle_.stop_process();

  handle_.start_process();
  FeedTwoWhileTheWorkerIsHeld(77);
  EXPECT_EQ(handle_.folded_frames(), 2);
  EXPECT_EQ(handle_.mean_record().attr0, 0xA0u);
  EXPECT_EQ(Means(handle_.mean_record(), 0), std::vector<double>(16, 95.0));
}

TEST_F(HandleTest, WithoutAnyMeanBuffersEarlyFramesAreDroppedNotWrittenToNull) {
  // The handle's very first run, second frame in before the first is folded: nothing was ever
  // allocated, so there is nowhere to fold; the result stays empty.
  handle_.start_process();
  FeedTwoWhileTheWorkerIsHeld(77);
  EXPECT_EQ(handle_.folded_frames(), 0);
  EXPECT_EQ(handle_.mean_record().planes[0].data, nullptr);
}

TEST_F(HandleTest, ResultChecksItsOutputRecord) {
  rect roi{};
  std::vector<uint8_t> y(4, 1);
  image out{};
  out.planes[0].data = y.data();
  EXPECT_EQ(handle_.get_process_image_result(&out, &roi), 65535);
  EXPECT_EQ(y, std::vector<uint8_t>(4, 1)) << "nothing written";
  // Before any frame the mean is empty: zero sizes come back and nothing is written.
  std::vector<uint8_t> uv(4, 2);
  out.planes[1].data = uv.data();
  out.plane_num = 9;
  EXPECT_EQ(handle_.get_process_image_result(&out, &roi), 0);
  EXPECT_EQ(out.plane_num, 0u);
  EXPECT_EQ(out.planes[0].width, 0u);
  EXPECT_EQ(y, std::vector<uint8_t>(4, 1));
}

}  // namespace
