/* Built as C11 with -pedantic -Werror: the app-facing header must stay plain C. */
#include "velmora/flowing_water.h"

int velmora_c_header_check(void) {
    flowing_water_api api = {0};
    image frame = {0};
    rect roi = {0, 0, 0, 0};
    int (*entry)(flowing_water_api*) = flowing_water_get_API;
    (void)entry;
    return (int)sizeof api + (int)frame.plane_num + roi.x + FLOWING_WATER_SLOT_RELEASE_HANDLE;
}
