// Built as C11 with -pedantic -Werror: the app-facing header must stay plain C, its records
// named without the struct keyword and its entry point a C prototype.
#include "velmora/flowing_water.h"

int velmora_c_header_check(void) {
    int (*entry)(flowing_water_api*) = flowing_water_get_API;
    return entry != 0 && sizeof(image) + sizeof(rect) > 0 && FLOWING_WATER_SLOT_RELEASE_HANDLE > 0;
}
