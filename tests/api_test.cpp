// Uses libVelmora.so as an app does: dlopen, flowing_water_get_API, and nothing but the table.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <regex>
#include <tuple>

#include "test_util.h"

namespace {

// Loaded once and never unloaded, as in an app: the library's pool lives until the process ends,
// and leak reports can still name the library's frames.
int GetApi(flowing_water_api* api) {
  static void* const library = dlopen(VELMORA_SO_PATH, RTLD_NOW | RTLD_LOCAL);
  static const auto get = reinterpret_cast<int (*)(flowing_water_api*)>(
      library != nullptr ? dlsym(library, "flowing_water_get_API") : nullptr);
  return get != nullptr ? get(api) : -1;
}

// The version respelt; a code or its one line at its level wrong; the handle's steps of a stop out
// of their fixed order; a null handle an error or logged; an empty result not a record of no
// planes. (Every slot of the table is called here or in the stress test.)
TEST(Api, LogsEveryStepAndReportsBadInputWithItsCode) {
  ASSERT_EQ(GetApi(nullptr), 0) << "cannot load " VELMORA_SO_PATH;
  flowing_water_api api{};
  ASSERT_EQ(GetApi(&api), 0);
  EXPECT_STREQ(api.get_version(), "Velmora_Verion_0.1.0");
  void* handle = api.init_handle();
  testutil::Frame frame = testutil::FlatFrame(4, 4, 1);
  image img = testutil::MakeImage(frame);
  rect roi{};
  const auto records = testutil::LogsOf([&] {
    for (int status : {api.set_base_parameters(nullptr, nullptr), api.start_process(nullptr),
                       api.process_image(nullptr, &img, &roi), api.stop_process(nullptr),
                       api.get_process_image_result(nullptr, &img, &roi),
                       api.release_handle(nullptr)})
      EXPECT_EQ(status, 0);
    EXPECT_EQ(api.get_process_image_result(handle, &img, &roi), 0);  // nothing folded: empty
    EXPECT_EQ(std::make_tuple(img.plane_num, img.planes[0].width), std::make_tuple(0u, 0u));
    EXPECT_EQ(api.process_image(handle, &img, &roi), 0);  // not started
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
    EXPECT_EQ(api.release_handle(handle), 0);
  });
  // The handle's lines (the pool's are its own test's), each with its priority and its line
  // number (which moves with every edit) as N.
  std::vector<std::string> lines;
  for (const auto& r : records)
    if (r.text.find("[ threadPool.cpp ]") == r.text.npos)
      lines.push_back(std::to_string(r.priority) + " " +
                      std::regex_replace(r.text, std::regex("\\] \\d+  "), "] N  "));
  const std::string error = "6 [ERROR][ flow_water_algo.cpp ] N  ",
                    info = "4 [INFO][ flow_water_algo.cpp ] N  ",
                    stop = info + "stop_process() stop_process";
  EXPECT_EQ(lines, (std::vector<std::string>{
      error + "process_image() process is stop or not start",
      info + "start_process() start_process",
      error + "process_image() the pointer to input image is NULL",
      error + "process_image() the format of add image is invalid, plane num: 3, image format: 4",
      error + "process_image() the format of add image is invalid, plane num: 2, image format: 6",
      error + "get_process_image_result() the input image pointer of function "
              "get_process_image_result is NULL",
      error + "get_process_image_result() the memory of output image is not calloced",
      stop + " in", stop + " forceEnd end", stop + " waitforalljobdone end", stop,
      info + "release_handle() release_handle in"}));
}

// Every word of the run's first frame's header and rect, in a record that keeps the caller's
// planes. (That later frames' headers and rects are not taken shows in the stress test.)
TEST(Api, ResultCarriesTheFirstFramesHeaderAndRectInTheCallersPlanes) {
  flowing_water_api api{};
  ASSERT_EQ(GetApi(&api), 0);
  void* handle = api.init_handle();
  ASSERT_EQ(api.start_process(handle), 0);
  testutil::Frame frame = testutil::FlatFrame(38, 22, 100), out = testutil::FlatFrame(38, 22, 0);
  image img = testutil::MakeImage(frame), header{};
  rect roi{-1, 2, 300, 400}, back{};
  ASSERT_EQ(api.process_image(handle, &img, &roi), 0);
  // The table gives no way to wait for the worker: an app polls until the header word shows.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (header.attr0 != 0xA0) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the frame never shows";
    header = testutil::MakeImage(out);
    std::memset(&header, 0, offsetof(image, planes));
    ASSERT_EQ(api.get_process_image_result(handle, &header, &back), 0);
  }
  EXPECT_EQ(std::make_tuple(back.x, back.y, back.width, back.height, header.attr1, header.attr2,
                            header.attr3, header.plane_num, header.format, header.planes[0].attr0,
                            header.planes[0].attr1, header.planes[0].attr2, header.planes[1].attr2),
            std::make_tuple(-1, 2, 300, 400, 0xA1u, 0xA2u, 0xA3u, 2u, 4u, 1u, 2u, 3u, 6u));
  EXPECT_EQ(header.planes[1].data, out.uv.data()) << "the caller's buffers stay in the record";
  EXPECT_EQ(std::tie(out.y, out.uv), std::tie(frame.y, frame.uv)) << "a flat frame's picture";
  EXPECT_EQ(api.stop_process(handle), 0);
  EXPECT_EQ(api.release_handle(handle), 0);
}

}  // namespace
