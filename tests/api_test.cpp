// Uses libVelmora.so as an app does: dlopen, flowing_water_get_API, and nothing but the table.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <tuple>

#include "test_util.h"
#include "velmora/flowing_water.h"

namespace {

using testutil::Frame;
using testutil::MakeImage;

Frame Blank(int width, int height) { return testutil::FlatFrame(width, height, 0); }

class Library {
 public:
  Library() {
    handle_ = dlopen(VELMORA_SO_PATH, RTLD_NOW | RTLD_LOCAL);
    if (handle_ != nullptr) {
      get_api_ = reinterpret_cast<int (*)(flowing_water_api*)>(dlsym(handle_, "flowing_water_get_API"));
    }
  }
  // Never unloaded, as in an app: the library's pool lives until the process ends, and leak
  // reports can still name the library's frames.
  bool loaded() const { return get_api_ != nullptr; }
  int GetApi(flowing_water_api* api) const { return get_api_(api); }

 private:
  void* handle_ = nullptr;
  int (*get_api_)(flowing_water_api*) = nullptr;
};

const Library& Lib() {
  static Library library;
  return library;
}

class ApiTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Lib().loaded()) << dlerror();
    ASSERT_EQ(Lib().GetApi(&api_), 0);
    testutil::TakeLogRecords();
  }
  void TearDown() override {
    if (handle_ != nullptr) {
      api_.stop_process(handle_);
      api_.release_handle(handle_);
    }
  }
  void Start() {
    handle_ = api_.init_handle();
    ASSERT_NE(handle_, nullptr);
    ASSERT_EQ(api_.set_base_parameters(handle_, nullptr), 0);
    ASSERT_EQ(api_.start_process(handle_), 0);
  }
  int Result(Frame* out, rect* roi, image* header = nullptr) {
    image img = MakeImage(*out);
    std::memset(&img, 0, offsetof(image, planes));
    const int status = api_.get_process_image_result(handle_, &img, roi);
    if (header != nullptr) *header = img;
    return status;
  }
  // The table gives no way to wait for the worker, so an app polls the picture. Each frame here
  // is random, so the picture equals the reference only once that frame has been folded in.
  bool WaitForPicture(const Frame& expected) {
    Frame out = Blank(expected.width, expected.height);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    rect roi{};
    while (std::chrono::steady_clock::now() < deadline) {
      if (Result(&out, &roi) == 0 && out.y == expected.y && out.uv == expected.uv) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  // Hands the frame in, folds it into mean and waits until the picture shows it.
  void FoldAndWait(Frame frame, rect roi, testutil::ReferenceMean& mean) {
    image img = MakeImage(frame);
    ASSERT_EQ(api_.process_image(handle_, &img, &roi), 0);
    mean.Fold(frame);
    ASSERT_TRUE(WaitForPicture(mean.Result(frame.width, frame.height)));
  }
  flowing_water_api api_{};
  void* handle_ = nullptr;
};

// Log lines captured from standard output, line numbers masked.
std::vector<std::string> Lines(const std::string& out) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = out.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(testutil::MaskLineNumber(out.substr(start, end - start)));
  return lines;
}

TEST(Table, FillsTheNineOperationSlotsAndLeavesTheOthers) {
  ASSERT_TRUE(Lib().loaded()) << dlerror();
  EXPECT_EQ(Lib().GetApi(nullptr), 0);

  void* slots[FLOWING_WATER_SLOT_COUNT];
  void* const marker = reinterpret_cast<void*>(0x5EED);
  for (void*& slot : slots) slot = marker;
  ASSERT_EQ(Lib().GetApi(reinterpret_cast<flowing_water_api*>(slots)), 0);
  for (int untouched : {1, 6, 7, 10, 12, 13}) EXPECT_EQ(slots[untouched], marker) << untouched;
  for (int filled : {0, 2, 3, 4, 5, 8, 9, 11, 14}) {
    EXPECT_NE(slots[filled], marker) << filled;
    EXPECT_NE(slots[filled], nullptr) << filled;
  }
}

TEST_F(ApiTest, VersionIsOneStringAtOneAddress) {
  const char* version = api_.get_version();
  EXPECT_STREQ(version, "Velmora_Verion_0.1.0");
  EXPECT_EQ(api_.get_version(), version);
}

TEST_F(ApiTest, NullHandleIsNotAnError) {
  Frame frame = testutil::RandomFrame(4, 4, 1);
  image img = MakeImage(frame);
  rect roi{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(api_.set_base_parameters(nullptr, nullptr), 0);
  EXPECT_EQ(api_.start_process(nullptr), 0);
  EXPECT_EQ(api_.process_image(nullptr, &img, &roi), 0);
  EXPECT_EQ(api_.get_process_image_result(nullptr, &img, &roi), 0);
  EXPECT_EQ(api_.stop_process(nullptr), 0);
  EXPECT_EQ(api_.release_handle(nullptr), 0);
  api_.set_log_status(0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(img.plane_num, 2u);
}

TEST_F(ApiTest, ReportsBadInputWithItsCodeAndOneLogLine) {
  handle_ = api_.init_handle();
  Frame frame = testutil::RandomFrame(4, 4, 1);
  image img = MakeImage(frame);
  rect roi{};

  testing::internal::CaptureStdout();
  EXPECT_EQ(api_.process_image(handle_, &img, &roi), 0);  // not started
  ASSERT_EQ(api_.start_process(handle_), 0);
  EXPECT_EQ(api_.process_image(handle_, nullptr, &roi), 8192);
  img.plane_num = 3;
  EXPECT_EQ(api_.process_image(handle_, &img, &roi), 261);
  img.plane_num = 2;
  img.format = 6;
  EXPECT_EQ(api_.process_image(handle_, &img, &roi), 261);
  EXPECT_EQ(api_.get_process_image_result(handle_, nullptr, &roi), 8192);
  img.planes[1].data = nullptr;
  EXPECT_EQ(api_.get_process_image_result(handle_, &img, &roi), 65535);
  const auto lines = Lines(testing::internal::GetCapturedStdout());

  const std::string algo = "Algorithm [ERROR][ flow_water_algo.cpp ] N  ";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       algo + "process_image() process is stop or not start",
                       "Algorithm [INFO][ flow_water_algo.cpp ] N  start_process() start_process",
                       algo + "process_image() the pointer to input image is NULL",
                       algo + "process_image() the format of add image is invalid, plane num: 3, image format: 4",
                       algo + "process_image() the format of add image is invalid, plane num: 2, image format: 6",
                       algo + "get_process_image_result() the input image pointer of function "
                              "get_process_image_result is NULL",
                       algo + "get_process_image_result() the memory of output image is not calloced"}));
  std::vector<int> priorities;
  for (const auto& record : testutil::TakeLogRecords()) priorities.push_back(record.priority);
  EXPECT_EQ(priorities, (std::vector<int>{6, 4, 6, 6, 6, 6, 6}));
}

// The picture is the sharpened mean of every frame; the rectangle and header come from the
// run's first frame, the planes from the caller's record.
TEST_F(ApiTest, ResultIsTheSharpenedMeanWithTheFirstFramesRectAndHeader) {
  const int w = 38, h = 22;
  Start();
  testutil::ReferenceMean reference;
  for (uint32_t seed = 1; seed <= 12; ++seed) {
    Frame frame = testutil::RandomFrame(w, h, seed);
    image img = MakeImage(frame, seed % 2 ? 4 : 5);
    img.attr0 = seed == 1 ? 0x1111 : 0x2222;
    img.planes[0].attr0 = seed == 1 ? 1 : 77;
    rect roi = seed == 1 ? rect{-1, 2, 300, 400} : rect{9, 9, 9, 9};
    ASSERT_EQ(api_.process_image(handle_, &img, &roi), 0);
    reference.Fold(frame);
    // The run's first frame must be folded in before the second is handed in.
    if (seed <= 2 || seed == 12) {
      ASSERT_TRUE(WaitForPicture(reference.Result(w, h))) << "after frame " << seed;
    }
  }
  ASSERT_EQ(api_.stop_process(handle_), 0);
  Frame out = Blank(w, h);
  rect back{};
  image header{};
  ASSERT_EQ(Result(&out, &back, &header), 0);  // still readable after stop
  const Frame expected = reference.Result(w, h);
  EXPECT_EQ(out.y, expected.y);
  EXPECT_EQ(out.uv, expected.uv);
  EXPECT_EQ(std::make_tuple(back.x, back.y, back.width, back.height),
            std::make_tuple(-1, 2, 300, 400));
  EXPECT_EQ(header.attr0, 0x1111u);
  EXPECT_EQ(header.attr3, 0xA3u);
  EXPECT_EQ(header.plane_num, 2u);
  EXPECT_EQ(header.format, 4u);
  EXPECT_EQ(header.planes[0].attr0, 1u);
  EXPECT_EQ(header.planes[1].height, 11u);
  EXPECT_EQ(header.planes[1].data, out.uv.data()) << "the caller's buffers stay in the record";
}

TEST_F(ApiTest, StopDropsQueuedFramesAndRefusesLaterOnes) {
  const int w = 160, h = 120;
  Start();
  std::vector<Frame> frames{testutil::RandomFrame(w, h, 100)};
  rect roi{};
  testutil::ReferenceMean first;
  FoldAndWait(frames[0], roi, first);
  for (uint32_t seed = 101; seed < 121; ++seed) {
    frames.push_back(testutil::RandomFrame(w, h, seed));
    image next = MakeImage(frames.back());
    ASSERT_EQ(api_.process_image(handle_, &next, &roi), 0);
  }
  ASSERT_EQ(api_.stop_process(handle_), 0);

  // Whatever was folded before the stop is a whole number of frames, in order.
  Frame out = Blank(w, h);
  ASSERT_EQ(Result(&out, &roi), 0);
  testutil::ReferenceMean reference;
  bool matched = false;
  for (const Frame& f : frames) {
    reference.Fold(f);
    const Frame expected = reference.Result(w, h);
    if (expected.y == out.y && expected.uv == out.uv) matched = true;
  }
  EXPECT_TRUE(matched);

  testing::internal::CaptureStdout();
  Frame late = testutil::RandomFrame(w, h, 999);
  image late_img = MakeImage(late);
  EXPECT_EQ(api_.process_image(handle_, &late_img, &roi), 0);
  const std::string logged = testing::internal::GetCapturedStdout();
  EXPECT_NE(logged.find("process is stop or not start"), std::string::npos);
  Frame again = Blank(w, h);
  ASSERT_EQ(Result(&again, &roi), 0);
  EXPECT_EQ(again.y, out.y) << "a refused frame changes nothing";
}

TEST_F(ApiTest, StopAndReleaseLogTheirStepsInOrder) {
  Start();
  testing::internal::CaptureStdout();
  ASSERT_EQ(api_.stop_process(handle_), 0);
  EXPECT_EQ(api_.release_handle(handle_), 0);
  handle_ = nullptr;
  const auto lines = Lines(testing::internal::GetCapturedStdout());
  const std::string algo = "Algorithm [INFO][ flow_water_algo.cpp ] N  ";
  const std::string pool = "Algorithm [INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> ";
  const std::string stop = algo + "stop_process() ";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       stop + "stop_process in",
                       "Algorithm [INFO][ threadPool.cpp ] N  forceEnd() threadpoll ==> forceend ok",
                       stop + "stop_process forceEnd end", stop + "stop_process waitforalljobdone end",
                       pool + "shutdown begin", pool + "shutdown 111", pool + "shutdown 222",
                       pool + "shutdown 333", pool + "shutdown ok", stop + "stop_process",
                       algo + "release_handle() release_handle in"}));
}

TEST_F(ApiTest, RestartBeginsANewMeanWithItsOwnRect) {
  const int w = 34, h = 18;
  Start();
  testutil::ReferenceMean old_mean, mean;
  FoldAndWait(testutil::RandomFrame(w, h, 50), {1, 1, 1, 1}, old_mean);
  ASSERT_EQ(api_.stop_process(handle_), 0);
  ASSERT_EQ(api_.start_process(handle_), 0);
  for (uint32_t seed = 60; seed < 62; ++seed) {
    FoldAndWait(testutil::RandomFrame(w, h, seed), {2, 2, 2, 2}, mean);
  }
  Frame out = Blank(w, h);
  rect back{};
  ASSERT_EQ(Result(&out, &back), 0);
  EXPECT_EQ(back.x, 2);
}

}  // namespace
