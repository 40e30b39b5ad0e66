/* A camera app in miniature, built against the installed package only: it folds three constant
 * frames (30, 90, 180) through the table of operations and expects their mean, 100, back in every
 * byte. Those values keep every step of the running mean exact in double precision (30, 60, 100),
 * and a flat picture is left as it is by the sharpen filter. */
#define _POSIX_C_SOURCE 200809L  /* nanosleep under strict C11 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <velmora/flowing_water.h>

enum { kWidth = 64, kHeight = 48, kMagic = 0x564C4D41 };

static void nap(void) {
    struct timespec ts = {0, 2 * 1000 * 1000};
    nanosleep(&ts, NULL);
}

static int all_equal(const uint8_t* p, size_t n, uint8_t value) {
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != value) return 0;
    }
    return 1;
}

static image make_frame(uint8_t* y, uint8_t* uv) {
    image frame;
    memset(&frame, 0, sizeof frame);
    frame.attr0 = kMagic;
    frame.plane_num = 2;
    frame.format = VELMORA_FORMAT_YUV420SP_A;
    frame.planes[0].width = kWidth;
    frame.planes[0].height = kHeight;
    frame.planes[0].data = y;
    frame.planes[1].width = kWidth;
    frame.planes[1].height = kHeight / 2;
    frame.planes[1].data = uv;
    return frame;
}

/* Reads the picture until pred holds or about ten seconds have passed: the worker folds frames in
 * on its own time, and the table has no other way to say when. */
static int poll(flowing_water_api* api, void* h, image* out, rect* roi, uint8_t* y, uint8_t* uv,
                int (*pred)(const image*)) {
    for (int i = 0; i < 5000; ++i) {
        out->planes[0].data = y;
        out->planes[1].data = uv;
        if (api->get_process_image_result(h, out, roi) != VELMORA_OK) return 0;
        if (pred(out)) return 1;
        nap();
    }
    return 0;
}

static int first_frame_back(const image* out) { return out->attr0 == (uint32_t)kMagic; }

static int mean_complete(const image* out) {
    return all_equal(out->planes[0].data, (size_t)kWidth * kHeight, 100) &&
           all_equal(out->planes[1].data, (size_t)kWidth * kHeight / 2, 100);
}

int main(void) {
    const size_t luma = (size_t)kWidth * kHeight, chroma = luma / 2;
    uint8_t* in_y = malloc(luma);
    uint8_t* in_uv = malloc(chroma);
    uint8_t* out_y = calloc(luma, 1);
    uint8_t* out_uv = calloc(chroma, 1);
    const uint8_t values[3] = {30, 90, 180};
    flowing_water_api api;
    memset(&api, 0, sizeof api);
    if (flowing_water_get_API(&api) != 0 || api.get_version == NULL) return 1;
    printf("table_app: %s\n", api.get_version());

    void* h = api.init_handle();
    api.set_base_parameters(h, NULL);
    if (api.start_process(h) != VELMORA_OK) return 1;

    image out;
    memset(&out, 0, sizeof out);
    rect roi = {0, 0, 0, 0};
    for (int k = 0; k < 3; ++k) {
        memset(in_y, values[k], luma);
        memset(in_uv, values[k], chroma);
        image frame = make_frame(in_y, in_uv);
        rect frame_roi = {k, 2, kWidth - 4, kHeight - 4};
        if (api.process_image(h, &frame, &frame_roi) != VELMORA_OK) return 1;
        /* The mean is sized by the first frame's job: let it run before the next frame. */
        if (k == 0 && !poll(&api, h, &out, &roi, out_y, out_uv, first_frame_back)) {
            fprintf(stderr, "table_app: the first frame never came back\n");
            return 1;
        }
    }
    if (!poll(&api, h, &out, &roi, out_y, out_uv, mean_complete)) {
        fprintf(stderr, "table_app: the mean of 30, 90, 180 never became 100 (luma %d)\n",
                out_y[0]);
        return 1;
    }
    api.stop_process(h);

    /* Read once more after the stop: the picture, its header and the first frame's rect stay. */
    out.planes[0].data = out_y;
    out.planes[1].data = out_uv;
    if (api.get_process_image_result(h, &out, &roi) != VELMORA_OK || !mean_complete(&out) ||
        out.planes[0].width != kWidth || out.planes[1].height != kHeight / 2 ||
        out.format != VELMORA_FORMAT_YUV420SP_A || roi.x != 0 || roi.width != kWidth - 4) {
        fprintf(stderr, "table_app: wrong picture after stop\n");
        return 1;
    }
    api.release_handle(h);
    free(in_y);
    free(in_uv);
    free(out_y);
    free(out_uv);
    printf("table_app: ok, mean 100 in all %zu bytes\n", luma + chroma);
    return 0;
}
