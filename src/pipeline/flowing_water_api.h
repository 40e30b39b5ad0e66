// The nine operations that flowing_water_get_API places in the table. They are exported under
// their C++ names too, so that a C++ client may call them directly.
#ifndef VELMORA_PIPELINE_FLOWING_WATER_API_H
#define VELMORA_PIPELINE_FLOWING_WATER_API_H

#include "velmora/flowing_water.h"

VELMORA_EXPORT const char* get_version() noexcept;
VELMORA_EXPORT void* init_handle() noexcept;
VELMORA_EXPORT int set_base_parameters(void* handle, image_algo_base_parameters* params) noexcept;
VELMORA_EXPORT int start_process(void* handle) noexcept;
VELMORA_EXPORT int process_image(void* handle, image* frame, rect* roi) noexcept;
VELMORA_EXPORT int get_process_image_result(void* handle, image* out, rect* roi) noexcept;
VELMORA_EXPORT int stop_process(void* handle) noexcept;
VELMORA_EXPORT int release_handle(void* handle) noexcept;
// set_log_status is declared with log_print in common/log.h.

#endif  // VELMORA_PIPELINE_FLOWING_WATER_API_H
