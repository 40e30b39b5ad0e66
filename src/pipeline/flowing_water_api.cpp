#include "pipeline/flowing_water_api.h"

#include <new>

#include "common/log.h"
#include "pipeline/flow_water_algo.h"

namespace {
// Writable, as the interface has always handed it out; the same pointer on every call.
char g_version[] = "Velmora_Verion_0.1.0";

velmora_algo* Handle(void* handle) { return static_cast<velmora_algo*>(handle); }
}  // namespace

// Every operation tests only the handle pointer: a null handle is not an error and yields 0.
// They are noexcept so that no exception can ever unwind into the app.

const char* get_version() noexcept { return g_version; }

void* init_handle() noexcept {
  // No exception crosses the interface: a failed allocation gives a null handle, which every
  // operation accepts and ignores.
  return new (std::nothrow) velmora_algo();
}

int set_base_parameters(void* handle, image_algo_base_parameters* params) noexcept {
  return handle ? Handle(handle)->set_base_parameters(params) : 0;
}

int start_process(void* handle) noexcept { return handle ? Handle(handle)->start_process() : 0; }

int process_image(void* handle, image* frame, rect* roi) noexcept {
  return handle ? Handle(handle)->process_image(frame, roi) : 0;
}

int get_process_image_result(void* handle, image* out, rect* roi) noexcept {
  return handle ? Handle(handle)->get_process_image_result(out, roi) : 0;
}

int stop_process(void* handle) noexcept { return handle ? Handle(handle)->stop_process() : 0; }

int release_handle(void* handle) noexcept {
  if (handle == nullptr) return 0;
  const int status = Handle(handle)->release_handle();
  delete Handle(handle);
  return status;
}

extern "C" int flowing_water_get_API(flowing_water_api* api) {
  if (api == nullptr) return 0;
  // Only the nine operation slots are written; the others keep what the caller put there.
  api->get_version = &get_version;
  api->set_log_status = &set_log_status;
  api->init_handle = &init_handle;
  api->start_process = &start_process;
  api->set_base_parameters = &set_base_parameters;
  api->process_image = &process_image;
  api->get_process_image_result = &get_process_image_result;
  api->stop_process = &stop_process;
  api->release_handle = &release_handle;
  return 0;
}
