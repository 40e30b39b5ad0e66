// The table of operations as an app drives it: any order of calls, arbitrary frame records, null
// images and null output planes. The harness keeps to what the library trusts its caller for:
// a run's later frames are no larger than its first (the means are sized by it), the first frame
// is folded in before the second is handed in, output planes hold the largest frame, and a
// handle is stopped before it is started again or released.
#include <semaphore.h>

#include "common/threadPool.h"
#include "fuzz_input.h"
#include "velmora/flowing_water.h"

namespace {

using velmora::fuzz::FuzzInput;

constexpr int kMaxSide = 48;
// Each start and stop creates and joins the worker thread: a cap on the calls keeps an input fast.
constexpr int kMaxOps = 40;

enum Op { kInit, kLog, kParams, kStart, kFrame, kResult, kStop, kRelease, kOpCount };

// The pool runs its jobs in order on one worker: a job queued behind a frame runs once that
// frame is folded in.
void WaitForFold() {
  sem_t done;
  sem_init(&done, 0, 0);
  ThreadPool::instance()->submit(
      pool_worker_job_t{[](void* s) { sem_post(static_cast<sem_t*>(s)); }, &done});
  sem_wait(&done);
  sem_destroy(&done);
}

// Every call is made on no handle too (before an init, after a release). The records'
// caller-defined fields are only carried through, so they are left zero.
struct App {
  flowing_water_api api{};
  void* handle = nullptr;
  bool running = false;
  uint32_t accepted = 0;  // frames of this run the library took
  uint32_t cap[2] = {};   // plane sizes of this run's first frame
  uint8_t out[2][kMaxSide * kMaxSide];

  void Frame(FuzzInput& in) {
    image frame{};
    frame.plane_num = in.Range(0, 7) == 0 ? static_cast<uint32_t>(in.Raw(4)) : 2;
    const int f = in.Range(0, 7);
    frame.format = f == 0 ? static_cast<uint32_t>(in.Raw(4)) : f < 4 ? 4 : 5;
    const bool null_image = in.Range(0, 15) == 0;
    const bool takes =
        running && !null_image && frame.plane_num == 2 && (frame.format == 4 || frame.format == 5);
    std::unique_ptr<uint8_t[]> planes[2];
    for (int p = 0; p < 2; ++p) {
      image_plane& plane = frame.planes[p];
      plane.width = in.Range(0, kMaxSide);
      plane.height = in.Range(0, kMaxSide);
      if (takes && accepted > 0 && plane.width * plane.height > cap[p])
        plane.height = plane.width ? cap[p] / plane.width : 0;
      planes[p] = in.Bytes(plane.width * plane.height);
      plane.data = plane.width * plane.height ? planes[p].get() : nullptr;
    }
    rect roi{in.Range(-9, 9), in.Range(-9, 9), in.Range(0, 99), in.Range(0, 99)};
    // Only the run's first frame reads its rect.
    rect* roi_arg = accepted > 0 && in.Bool() ? nullptr : &roi;
    api.process_image(handle, null_image ? nullptr : &frame, roi_arg);
    if (takes && accepted++ == 0) {
      for (int p = 0; p < 2; ++p) cap[p] = frame.planes[p].width * frame.planes[p].height;
      WaitForFold();
    }
  }

  void Result(FuzzInput& in) {
    image result{};
    for (int p = 0; p < 2; ++p) result.planes[p].data = in.Range(0, 7) ? out[p] : nullptr;
    rect roi{};
    api.get_process_image_result(handle, in.Range(0, 15) ? &result : nullptr, &roi);
  }

  void Stop() {  // also on a stopped handle
    api.stop_process(handle);
    running = false;
  }

  void Release() {
    if (running) Stop();
    api.release_handle(handle);
    handle = nullptr;
  }
};

void Run(FuzzInput& in) {
  App app;
  flowing_water_get_API(&app.api);
  app.api.get_version();
  for (int ops = 0; ops < kMaxOps && in.remaining() > 0; ++ops) {
    switch (in.Range(0, kOpCount - 1)) {
      case kInit: app.handle = app.handle ? app.handle : app.api.init_handle(); break;
      case kLog: app.api.set_log_status(static_cast<char>(in.Byte())); break;
      case kParams: app.api.set_base_parameters(app.handle, nullptr); break;  // never read
      case kStart:
        if (app.running) break;
        app.api.start_process(app.handle);
        app.running = app.handle != nullptr;
        app.accepted = 0;
        break;
      case kFrame: app.Frame(in); break;
      case kResult: app.Result(in); break;
      case kStop: app.Stop(); break;
      case kRelease: app.Release(); break;
    }
  }
  app.Release();
}

// A plain session: init, start, three frames of one size each followed by a result, stop,
// restart, release. Every range read here takes one byte.
velmora::fuzz::Seeds MakeSeeds() {
  velmora::fuzz::Seeds seeds;
  for (uint8_t side : {2, 9, 48}) {
    std::vector<uint8_t> w = {0, kInit, kParams, kStart};  // the ISA first
    for (int i = 0; i < 3; ++i) {
      // Two planes, format 4 or 5, an image; each plane's size and pixels; the rect.
      w.insert(w.end(), {kFrame, 1, static_cast<uint8_t>(1 + 4 * i % 7), 1});
      for (int p = 0; p < 2; ++p) {
        w.insert(w.end(), {side, static_cast<uint8_t>(side >> p)});
        for (int k = 0; k < side * (side >> p); ++k)
          w.push_back(static_cast<uint8_t>(k * 37 + i * 50));
      }
      w.insert(w.end(), {10, 11, 3, 4});
      if (i > 0) w.push_back(0);              // the rect passed on
      w.insert(w.end(), {kResult, 1, 1, 1});  // into both planes
    }
    w.insert(w.end(), {kStop, kStart, kStop, kLog, 1, kRelease});
    seeds.push_back(w);
  }
  return seeds;
}

}  // namespace

VELMORA_FUZZ_TARGET(MakeSeeds, Run, kVariants)
