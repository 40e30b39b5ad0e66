/* Velmora long-exposure ("flowing water") pipeline: the C interface an app compiles against.
 *
 * The app obtains a table of operations from flowing_water_get_API, then calls, in order:
 * init_handle, set_base_parameters, start_process, process_image once per frame,
 * get_process_image_result whenever it wants the picture, stop_process, release_handle.
 * Frames are two-plane YUV 4:2:0 (a luma plane, then one plane of interleaved chroma pairs).
 */
#ifndef VELMORA_FLOWING_WATER_H
#define VELMORA_FLOWING_WATER_H

#include <stdint.h>

#include "velmora/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One plane of a frame: width x height bytes, rows packed (no separate stride). */
typedef struct image_plane {
    uint32_t attr0;  /* caller-defined, carried through unchanged */
    uint32_t attr1;  /* caller-defined, carried through unchanged */
    uint32_t width;  /* bytes per row */
    uint32_t height; /* rows */
    uint32_t attr2;  /* caller-defined, carried through unchanged */
    uint8_t* data;
} image_plane;

/* A frame. Formats 4 and 5 are the accepted two-plane YUV 4:2:0 layouts; the pipeline treats
 * them alike, so which one an app calls NV12 and which NV21 is up to the app. */
typedef struct image {
    uint32_t attr0;
    uint32_t attr1;
    uint32_t plane_num; /* planes in use: the first plane_num entries of planes */
    uint32_t attr2;
    uint32_t attr3;
    uint32_t format;
    image_plane planes[4];
} image;

/* Four caller-defined values, stored with a run's first frame and handed back with the result. */
typedef struct rect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
} rect;

/* Accepted and ignored by set_base_parameters: no field is read. */
typedef struct image_algo_base_parameters image_algo_base_parameters;

enum {
    VELMORA_FORMAT_YUV420SP_A = 4,
    VELMORA_FORMAT_YUV420SP_B = 5
};

/* Status codes returned through the table. */
enum {
    VELMORA_OK = 0,
    VELMORA_ERR_FORMAT = 0x105,         /* 261: plane_num is not 2 or format is neither 4 nor 5 */
    VELMORA_ERR_NULL_IMAGE = 0x2000,    /* 8192: a null image pointer */
    VELMORA_ERR_OUTPUT_MEMORY = 0xFFFF  /* 65535: an output plane's data pointer is null */
};

/* Positions of the operations in the fifteen-slot table. The other slots are never written. */
enum {
    FLOWING_WATER_SLOT_GET_VERSION = 0,
    FLOWING_WATER_SLOT_SET_LOG_STATUS = 2,
    FLOWING_WATER_SLOT_INIT_HANDLE = 3,
    FLOWING_WATER_SLOT_START_PROCESS = 4,
    FLOWING_WATER_SLOT_SET_BASE_PARAMETERS = 5,
    FLOWING_WATER_SLOT_PROCESS_IMAGE = 8,
    FLOWING_WATER_SLOT_GET_PROCESS_IMAGE_RESULT = 9,
    FLOWING_WATER_SLOT_STOP_PROCESS = 11,
    FLOWING_WATER_SLOT_RELEASE_HANDLE = 14,
    FLOWING_WATER_SLOT_COUNT = 15
};

/* The table of operations, owned by the caller. Slots 1, 6, 7, 10, 12 and 13 are kept as the
 * caller set them. */
typedef struct flowing_water_api {
    const char* (*get_version)(void);
    void* slot1;
    void (*set_log_status)(char status);
    void* (*init_handle)(void);
    int (*start_process)(void* handle);
    int (*set_base_parameters)(void* handle, image_algo_base_parameters* params);
    void* slot6;
    void* slot7;
    int (*process_image)(void* handle, image* frame, rect* roi);
    int (*get_process_image_result)(void* handle, image* out, rect* roi);
    void* slot10;
    int (*stop_process)(void* handle);
    void* slot12;
    void* slot13;
    int (*release_handle)(void* handle);
} flowing_water_api;

/* Fills the nine operation slots of api (a null api is ignored) and returns 0. */
VELMORA_EXPORT int flowing_water_get_API(flowing_water_api* api);

#ifdef __cplusplus
}
#endif

/* The layouts are shared with apps built against other headers: keep them fixed. */
#if defined(__cplusplus)
#define VELMORA_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define VELMORA_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#include <stddef.h>
VELMORA_STATIC_ASSERT(sizeof(void*) != 8 || sizeof(image_plane) == 32, "plane record is 32 bytes");
VELMORA_STATIC_ASSERT(offsetof(image_plane, width) == 8, "plane width at 8");
VELMORA_STATIC_ASSERT(offsetof(image_plane, height) == 12, "plane height at 12");
VELMORA_STATIC_ASSERT(offsetof(image_plane, attr2) == 16, "plane attr2 at 16");
VELMORA_STATIC_ASSERT(sizeof(void*) != 8 || offsetof(image_plane, data) == 24, "plane data at 24");
VELMORA_STATIC_ASSERT(sizeof(void*) != 8 || sizeof(image) == 152, "image is 152 bytes");
VELMORA_STATIC_ASSERT(offsetof(image, plane_num) == 8, "plane_num at 8");
VELMORA_STATIC_ASSERT(offsetof(image, attr2) == 12, "image attr2 at 12");
VELMORA_STATIC_ASSERT(offsetof(image, attr3) == 16, "image attr3 at 16");
VELMORA_STATIC_ASSERT(offsetof(image, format) == 20, "format at 20");
VELMORA_STATIC_ASSERT(offsetof(image, planes) == 24, "planes at 24");
VELMORA_STATIC_ASSERT(sizeof(rect) == 16, "rect is four 32-bit words");
VELMORA_STATIC_ASSERT(sizeof(void*) != 8 || sizeof(flowing_water_api) == 15 * 8, "fifteen 64-bit slots");
VELMORA_STATIC_ASSERT(sizeof(void*) != 8 || offsetof(flowing_water_api, release_handle) == 14 * 8,
                      "release_handle in slot 14");

#endif /* VELMORA_FLOWING_WATER_H */
