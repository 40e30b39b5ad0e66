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

// Loaded once and never unloaded, as in an app: the library's pool lives until the process ends,
// and leak reports can still name the library's frames.
int GetApi(flowing_water_api* api) {
  static void* const library = dlopen(VELMORA_SO_PATH, RTLD_NOW | RTLD_LOCAL);
  static const auto get = reinterpret_cast<int (*)(flowing_water_api*)>(
      library != nullptr ? dlsym(library, "flowing_water_get_API") : nullptr);
  return get != nullptr ? get(api) : -1;
}

// Log lines captured from standard output, line numbers masked.
std::vector<std::string> Lines(const std::string& out) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = out.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(testutil::MaskLineNumber(out.substr(start, end - start)));
  return lines;
}

class ApiTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(GetApi(&api_), 0) << "cannot load " VELMORA_SO_PATH;
    testutil::TakeLogRecords();
  }
  void TearDown() override {
    if (handle_ != nullptr) {
      api_.stop_process(handle_);
      api_.release_handle(handle_);
    }
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
    Frame out = testutil::FlatFrame(expected.width, expected.height, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (rect roi{}; std::chrono::steady_clock::now() < deadline;) {
      if (Result(&out, &roi) == 0 && out.y == expected.y && out.uv == expected.uv) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  flowing_water_api api_{};
  void* handle_ = nullptr;
};

// Catches a slot filled out of place or a gap written over, and a version moved or respelt.
TEST(Table, FillsTheNineOperationSlotsAndLeavesTheOthers) {
  ASSERT_EQ(GetApi(nullptr), 0) << "cannot load " VELMORA_SO_PATH;
  void* slots[FLOWING_WATER_SLOT_COUNT];
  void* const marker = reinterpret_cast<void*>(0x5EED);
  for (void*& slot : slots) slot = marker;
  ASSERT_EQ(GetApi(reinterpret_cast<flowing_water_api*>(slots)), 0);
  for (int untouched : {1, 6, 7, 10, 12, 13}) EXPECT_EQ(slots[untouched], marker) << untouched;
  for (int filled : {0, 2, 3, 4, 5, 8, 9, 11, 14}) {
    EXPECT_NE(slots[filled], marker) << filled;
    EXPECT_NE(slots[filled], nullptr) << filled;
  }
  const auto& api = *reinterpret_cast<flowing_water_api*>(slots);
  EXPECT_STREQ(api.get_version(), "Velmora_Verion_0.1.0");
  EXPECT_EQ(api.get_version(), api.get_version());
}

// Every code with its one line, the stop's steps in their fixed order (a second stop finds the
// pool stopped), each line's level; a null handle is no error and logs nothing.
TEST_F(ApiTest, LogsEveryStepAndReportsBadInputWithItsCode) {
  void* handle = api_.init_handle();
  Frame frame = testutil::RandomFrame(4, 4, 1);
  image img = MakeImage(frame);
  rect roi{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(api_.set_base_parameters(nullptr, nullptr) + api_.start_process(nullptr) +
                api_.process_image(nullptr, &img, &roi) +
                api_.get_process_image_result(nullptr, &img, &roi) + api_.stop_process(nullptr) +
                api_.release_handle(nullptr),
            0);
  api_.set_log_status(0);
  EXPECT_EQ(img.plane_num, 2u);
  EXPECT_EQ(api_.process_image(handle, &img, &roi), 0);  // not started
  EXPECT_EQ(api_.set_base_parameters(handle, nullptr), 0);
  ASSERT_EQ(api_.start_process(handle), 0);
  EXPECT_EQ(api_.process_image(handle, nullptr, &roi), 8192);
  img.plane_num = 3;
  img.format = 6;
  EXPECT_EQ(api_.process_image(handle, &img, &roi), 261);
  EXPECT_EQ(api_.get_process_image_result(handle, nullptr, &roi), 8192);
  img.planes[1].data = nullptr;
  EXPECT_EQ(api_.get_process_image_result(handle, &img, &roi), 65535);
  EXPECT_EQ(api_.stop_process(handle), 0);
  EXPECT_EQ(api_.stop_process(handle), 0);
  EXPECT_EQ(api_.release_handle(handle), 0);
  const auto lines = Lines(testing::internal::GetCapturedStdout());

  const std::string error = "Algorithm [ERROR][ flow_water_algo.cpp ] N  ";
  const std::string info = "Algorithm [INFO][ flow_water_algo.cpp ] N  ";
  const std::string pool = "Algorithm [INFO][ threadPool.cpp ] N  ";
  const std::string stop = info + "stop_process() ", shutdown = pool + "shutdown() threadpoll ==> ";
  EXPECT_EQ(
      lines,
      (std::vector<std::string>{
          error + "process_image() process is stop or not start",
          info + "start_process() start_process",
          error + "process_image() the pointer to input image is NULL",
          error +
              "process_image() the format of add image is invalid, plane num: 3, image format: 6",
          error + "get_process_image_result() the input image pointer of function "
                  "get_process_image_result is NULL",
          error + "get_process_image_result() the memory of output image is not calloced",
          stop + "stop_process in",
          pool + "forceEnd() threadpoll ==> forceend ok",
          stop + "stop_process forceEnd end",
          stop + "stop_process waitforalljobdone end",
          shutdown + "shutdown begin",
          shutdown + "shutdown 111",
          shutdown + "shutdown 222",
          shutdown + "shutdown 333",
          shutdown + "shutdown ok",
          stop + "stop_process",
          stop + "stop_process in",
          pool + "forceEnd() threadpoll ==> forceend ok",
          stop + "stop_process forceEnd end",
          stop + "stop_process waitforalljobdone end",
          shutdown + "shutdown begin",
          shutdown + "shutdown ok",
          stop + "stop_process",
          info + "release_handle() release_handle in"}));
  std::vector<int> priorities, expected;
  for (const auto& record : testutil::TakeLogRecords()) priorities.push_back(record.priority);
  for (const auto& line : lines) expected.push_back(line.find("[ERROR]") != line.npos ? 6 : 4);
  EXPECT_EQ(priorities, expected);
}

// The picture is the sharpened mean of every frame of the run; the rect and header come from the
// run's first frame, the planes from the caller's record.
TEST_F(ApiTest, ResultIsTheSharpenedMeanWithTheFirstFramesRectAndHeader) {
  const int w = 38, h = 22;
  handle_ = api_.init_handle();
  ASSERT_EQ(api_.start_process(handle_), 0);
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
  Frame out = testutil::FlatFrame(w, h, 0);
  rect back{};
  image header{};
  ASSERT_EQ(Result(&out, &back, &header), 0);  // still readable after stop
  const Frame expected = reference.Result(w, h);
  EXPECT_EQ(out.y, expected.y);
  EXPECT_EQ(out.uv, expected.uv);
  EXPECT_EQ(std::make_tuple(back.x, back.y, back.width, back.height),
            std::make_tuple(-1, 2, 300, 400));
  EXPECT_EQ(std::make_tuple(header.attr0, header.attr3, header.plane_num, header.format),
            std::make_tuple(0x1111u, 0xA3u, 2u, 4u));
  EXPECT_EQ(header.planes[0].attr0, 1u);
  EXPECT_EQ(header.planes[1].height, 11u);
  EXPECT_EQ(header.planes[1].data, out.uv.data()) << "the caller's buffers stay in the record";
}

}  // namespace
