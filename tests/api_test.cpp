// Uses libVelmora.so as an app does: dlopen, flowing_water_get_API, and nothing but the table.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <tuple>

#include "test_util.h"

namespace {

using testutil::Frame;

// Loaded once and never unloaded, as in an app: the library's pool lives until the process ends,
// and leak reports can still name the library's frames.
int GetApi(flowing_water_api* api) {
  static void* const library = dlopen(VELMORA_SO_PATH, RTLD_NOW | RTLD_LOCAL);
  static const auto get = reinterpret_cast<int (*)(flowing_water_api*)>(
      library != nullptr ? dlsym(library, "flowing_water_get_API") : nullptr);
  return get != nullptr ? get(api) : -1;
}

// A slot filled out of place or a gap written over; the version moved or respelt. (An operation
// left unfilled or swapped fails the other tests, which call through every one.)
TEST(Table, FillsTheNineOperationSlotsAndLeavesTheOthers) {
  ASSERT_EQ(GetApi(nullptr), 0) << "cannot load " VELMORA_SO_PATH;
  void* slots[FLOWING_WATER_SLOT_COUNT];
  void* const marker = reinterpret_cast<void*>(0x5EED);
  std::fill(std::begin(slots), std::end(slots), marker);
  ASSERT_EQ(GetApi(reinterpret_cast<flowing_water_api*>(slots)), 0);
  for (int untouched : {1, 6, 7, 10, 12, 13}) EXPECT_EQ(slots[untouched], marker) << untouched;
  const auto& api = *reinterpret_cast<flowing_water_api*>(slots);
  EXPECT_STREQ(api.get_version(), "Velmora_Verion_0.1.0");
}

// Every code with its one line at its level, the stop's steps in their fixed order (a second stop
// finds the pool stopped); a null handle is no error and logs nothing; an empty result is a record
// of no planes.
TEST(Api, LogsEveryStepAndReportsBadInputWithItsCode) {
  flowing_water_api api{};
  ASSERT_EQ(GetApi(&api), 0);
  void* handle = api.init_handle();
  Frame frame = testutil::FlatFrame(4, 4, 1);
  image img = testutil::MakeImage(frame);
  rect roi{};
  const auto records = testutil::LogsOf([&] {
    for (int status : {api.set_base_parameters(nullptr, nullptr), api.start_process(nullptr),
                       api.process_image(nullptr, &img, &roi), api.stop_process(nullptr),
                       api.get_process_image_result(nullptr, &img, &roi),
                       api.release_handle(nullptr)})
      EXPECT_EQ(status, 0);
    api.set_log_status(0);
    EXPECT_EQ(api.get_process_image_result(handle, &img, &roi), 0);  // nothing folded: empty
    EXPECT_EQ(std::make_tuple(img.plane_num, img.planes[0].width), std::make_tuple(0u, 0u));
    EXPECT_EQ(api.process_image(handle, &img, &roi), 0);  // not started
    EXPECT_EQ(api.set_base_parameters(handle, nullptr), 0);
    ASSERT_EQ(api.start_process(handle), 0);
    EXPECT_EQ(api.process_image(handle, nullptr, &roi), 8192);
    for (const auto& [planes, format] : {std::pair{3u, 4u}, {2u, 6u}}) {
      img.plane_num = planes;
      img.format = format;
      EXPECT_EQ(api.process_image(handle, &img, &roi), 261);
    }
    EXPECT_EQ(api.get_process_image_result(handle, nullptr, &roi), 8192);
    img.planes[1].data = nullptr;
    EXPECT_EQ(api.get_process_image_result(handle, &img, &roi), 65535);
    EXPECT_EQ(api.stop_process(handle), 0);
    EXPECT_EQ(api.stop_process(handle), 0);
    EXPECT_EQ(api.release_handle(handle), 0);
  });
  // The priority, then the text with its line number (which moves with every edit) as N.
  std::vector<std::string> lines;
  for (const auto& r : records)
    lines.push_back(std::to_string(r.priority) + " " +
                    std::regex_replace(r.text, std::regex("\\] \\d+  "), "] N  "));
  const std::string error = "6 [ERROR][ flow_water_algo.cpp ] N  ",
                    info = "4 [INFO][ flow_water_algo.cpp ] N  ",
                    stop = info + "stop_process() stop_process",
                    end = "4 [INFO][ threadPool.cpp ] N  forceEnd() threadpoll ==> ",
                    down = "4 [INFO][ threadPool.cpp ] N  shutdown() threadpoll ==> ";
  EXPECT_EQ(lines, (std::vector<std::string>{
      error + "process_image() process is stop or not start",
      info + "start_process() start_process",
      error + "process_image() the pointer to input image is NULL",
      error + "process_image() the format of add image is invalid, plane num: 3, image format: 4",
      error + "process_image() the format of add image is invalid, plane num: 2, image format: 6",
      error + "get_process_image_result() the input image pointer of function "
              "get_process_image_result is NULL",
      error + "get_process_image_result() the memory of output image is not calloced",
      stop + " in", end + "forceend ok", stop + " forceEnd end", stop + " waitforalljobdone end",
      down + "shutdown begin", down + "shutdown 111", down + "shutdown 222", down + "shutdown 333",
      down + "shutdown ok", stop,
      stop + " in", end + "forceend ok", stop + " forceEnd end", stop + " waitforalljobdone end",
      down + "shutdown begin", down + "shutdown ok", stop,
      info + "release_handle() release_handle in"}));
}

// The rect and header come from the run's first frame, the planes from the caller's record, and
// they are read back after the stop. (Frames are flat: the mean of 100 and 50 is 75, and the
// sharpen filter leaves a flat picture alone.)
TEST(Api, ResultCarriesTheFirstFramesRectAndHeaderInTheCallersPlanes) {
  const int w = 38, h = 22;
  flowing_water_api api{};
  ASSERT_EQ(GetApi(&api), 0);
  void* handle = api.init_handle();
  Frame out = testutil::FlatFrame(w, h, 0);
  rect back{};
  image header{};
  const auto take = [&] {
    header = testutil::MakeImage(out);
    std::memset(&header, 0, offsetof(image, planes));
    return api.get_process_image_result(handle, &header, &back);
  };
  ASSERT_EQ(api.start_process(handle), 0);
  for (const auto& [value, mean] : {std::pair{100u, 100u}, {50u, 75u}}) {
    Frame frame = testutil::FlatFrame(w, h, static_cast<uint8_t>(value));
    image img = testutil::MakeImage(frame, value == 100 ? 4 : 5);
    img.attr0 = value;
    img.planes[0].attr0 = value + 1;
    rect roi{static_cast<int32_t>(value), 2, 300, 400};
    ASSERT_EQ(api.process_image(handle, &img, &roi), 0);
    // The table gives no way to wait for the worker, so an app polls the picture: the first frame
    // must be folded before the second comes, the second before the stop drops it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (out.y != std::vector<uint8_t>(out.y.size(), static_cast<uint8_t>(mean))) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "frame " << value << " never shows";
      ASSERT_EQ(take(), 0);
    }
  }
  ASSERT_EQ(api.stop_process(handle), 0);
  ASSERT_EQ(take(), 0);
  EXPECT_EQ(std::make_tuple(back.x, back.y, back.width, back.height, header.attr0, header.attr1,
                            header.attr2, header.attr3, header.plane_num, header.format),
            std::make_tuple(100, 2, 300, 400, 100u, 0xA1u, 0xA2u, 0xA3u, 2u, 4u));
  EXPECT_EQ(std::make_tuple(header.planes[0].attr0, header.planes[0].attr1, header.planes[0].attr2,
                            header.planes[1].attr2, header.planes[1].height),
            std::make_tuple(101u, 2u, 3u, 6u, 11u));
  EXPECT_EQ(header.planes[1].data, out.uv.data()) << "the caller's buffers stay in the record";
  EXPECT_EQ(api.release_handle(handle), 0);
}

}  // namespace
