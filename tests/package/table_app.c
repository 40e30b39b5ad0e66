// A camera app in miniature, built against the installed package only: it folds three constant
// frames (30, 90, 180) through the table of operations and expects, after each, the running mean
// (30, 60, 100) back in every byte of a picture of the frames' size. Those values keep every step
// of the running mean exact in double precision, and the sharpen filter leaves a flat picture as
// it is.
#define _POSIX_C_SOURCE 200809L  // nanosleep under strict C11
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <velmora/flowing_water.h>

enum { kWidth = 64, kHeight = 48, kLuma = kWidth * kHeight, kBytes = kLuma * 3 / 2 };

static image frame_of(uint8_t* pixels) {
    image frame;
    memset(&frame, 0, sizeof frame);
    frame.plane_num = 2;
    frame.format = VELMORA_FORMAT_YUV420SP_A;
    frame.planes[0].data = pixels;
    frame.planes[1].data = pixels + kLuma;
    return frame;
}

// Reads the picture until it is value all over or about ten seconds have passed: the worker folds
// frames in on its own time, and the table has no other way to say when.
static int poll_for(flowing_water_api* api, void* h, uint8_t* pixels, uint8_t value) {
    const struct timespec nap = {0, 2 * 1000 * 1000};
    for (int i = 0; i < 5000; ++i) {
        image out = frame_of(pixels);
        rect roi;
        if (api->get_process_image_result(h, &out, &roi) != VELMORA_OK) return 0;
        int n = 0;
        while (n < kBytes && pixels[n] == value) ++n;
        if (n == kBytes && out.planes[0].width == kWidth && out.planes[1].height == kHeight / 2)
            return 1;
        nanosleep(&nap, NULL);
    }
    return 0;
}

int main(void) {
    static uint8_t in[kBytes], out[kBytes];
    const uint8_t values[3] = {30, 90, 180}, means[3] = {30, 60, 100};
    flowing_water_api api;
    memset(&api, 0, sizeof api);
    if (flowing_water_get_API(&api) != 0 || api.get_version == NULL) return 1;
    printf("table_app: %s\n", api.get_version());
    void* h = api.init_handle();
    api.set_base_parameters(h, NULL);
    if (api.start_process(h) != VELMORA_OK) return 1;
    for (int k = 0; k < 3; ++k) {
        image frame = frame_of(in);
        frame.planes[0].width = frame.planes[1].width = kWidth;
        frame.planes[0].height = kHeight;
        frame.planes[1].height = kHeight / 2;
        rect roi = {0, 0, kWidth, kHeight};
        memset(in, values[k], kBytes);
        if (api.process_image(h, &frame, &roi) != VELMORA_OK || !poll_for(&api, h, out, means[k])) {
            fprintf(stderr, "table_app: frame %d: the mean never became %d (luma %d)\n", k + 1,
                    means[k], out[0]);
            return 1;
        }
    }
    api.stop_process(h);
    api.release_handle(h);
    printf("table_app: ok, the running mean 30, 60, 100 in all %d bytes\n", (int)kBytes);
    return 0;
}
