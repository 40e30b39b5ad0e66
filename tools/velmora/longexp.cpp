#include "longexp.h"

#include <condition_variable>
#include <mutex>

#include "aligner.h"
#include "common/threadPool.h"
#include "interrupt.h"
#include "velmora/flowing_water.h"

namespace velmora::tool {

namespace {

// Frames handed in but not yet folded: enough for reading the next frame to overlap the fold of
// the previous ones, few enough that the library's per-frame copies stay bounded on long inputs.
constexpr size_t kFramesInFlight = 4;

// Counts the frames the library's worker has folded in. The table of operations offers no way
// to wait for the worker, but the handle folds each frame in a job of the process-wide pool,
// which runs its jobs first in, first out on one worker thread. A marker job queued right after
// a frame therefore runs only once that frame is folded in. (The pool's own waitForAllJobDone
// is no help here: its semaphore counts the times the queue ran dry, so a stale post from an
// earlier gap lets it return while frames are still queued.)
class FoldTracker {
 public:
  explicit FoldTracker(const ProgressFn& progress, size_t total)
      : progress_(progress), total_(total) {}

  // Queues a marker behind every job already in the pool.
  void markLastFrame() {
    ThreadPool::instance()->submit(pool_worker_job_t{&FoldTracker::Marker, this});
    ++marked_;
  }

  size_t marked() const { return marked_; }

  // Blocks until at least count frames are folded in, reporting progress as it grows.
  void waitUntilFolded(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      const size_t folded = folded_;
      if (folded != reported_) {
        reported_ = folded;
        lock.unlock();
        if (progress_) progress_(folded, total_);
        lock.lock();
        continue;  // more may have been folded meanwhile
      }
      if (folded >= count) return;
      changed_.wait(lock);
    }
  }

 private:
  // Runs on the pool's worker.
  static void Marker(void* arg) {
    FoldTracker* self = static_cast<FoldTracker*>(arg);
    std::lock_guard<std::mutex> lock(self->mutex_);
    ++self->folded_;
    self->changed_.notify_all();
  }

  const ProgressFn progress_;
  const size_t total_;
  size_t marked_ = 0;    // caller's thread only
  size_t reported_ = 0;  // guarded by mutex_
  size_t folded_ = 0;    // guarded by mutex_
  std::mutex mutex_;
  std::condition_variable changed_;
};

// A frame record over one buffer laid out as luma plane then chroma plane.
image FrameRecord(FrameGeometry geometry, ChromaOrder order, uint8_t* data) {
  image frame{};
  frame.plane_num = 2;
  frame.format =
      order == ChromaOrder::kNv12 ? VELMORA_FORMAT_YUV420SP_A : VELMORA_FORMAT_YUV420SP_B;
  frame.planes[0].width = geometry.width;
  frame.planes[0].height = geometry.height;
  frame.planes[0].data = data;
  frame.planes[1].width = geometry.width;
  frame.planes[1].height = geometry.height / 2;
  frame.planes[1].data = data + geometry.lumaBytes();
  return frame;
}

}  // namespace

bool RunLongExposure(FrameSource& source, const ProgressFn& progress, std::vector<uint8_t>* picture,
                     RunSummary* summary, std::string* error, Aligner* aligner) {
  const FrameGeometry geometry = source.geometry();
  // Allocated before the run starts, so running out of memory here leaves nothing to undo.
  std::vector<uint8_t> buffer(geometry.frameBytes());
  picture->assign(geometry.frameBytes(), 0);

  flowing_water_api api{};
  flowing_water_get_API(&api);
  void* handle = nullptr;
  {
    // The library's worker starts here; the signals must keep landing on this thread.
    InterruptsDeferred deferred;
    handle = api.init_handle();
    if (handle != nullptr) {
      api.set_base_parameters(handle, nullptr);
      api.start_process(handle);
    }
  }
  if (handle == nullptr) {
    // Without a handle nothing starts the pool, and the markers below would never run.
    *error = "out of memory creating the processing handle";
    return false;
  }

  image frame = FrameRecord(geometry, source.order(), buffer.data());
  rect roi{0, 0, static_cast<int32_t>(geometry.width), static_cast<int32_t>(geometry.height)};
  FoldTracker tracker(progress, source.frameCount());
  bool ok = true;
  error->clear();
  for (size_t i = 0;; ++i) {
    // Read while the worker folds the frames already handed in. A frame read in full is folded
    // even if a stop came meanwhile.
    if (StopRequested() || !source.next(buffer.data(), error)) {
      ok = error->empty();
      summary->stopped = ok && StopRequested();
      break;
    }
    // Registered here while the worker folds the earlier frames; a thrown frame is skipped.
    if (aligner != nullptr) {
      const uint8_t* aligned = aligner->align(buffer.data());
      if (aligned == nullptr) continue;
      frame = FrameRecord(geometry, source.order(), const_cast<uint8_t*>(aligned));
    }
    // The run's first frame sets up the mean, so it must be folded in before the second is
    // handed in; after that a few frames may wait in the queue.
    const size_t handed = tracker.marked();
    if (handed > 0) {
      tracker.waitUntilFolded(handed + 1 > kFramesInFlight ? handed + 1 - kFramesInFlight : 1);
    }
    const int status = api.process_image(handle, &frame, &roi);  // copies the frame
    if (status != VELMORA_OK) {
      *error = "the library refused frame " + std::to_string(i + 1) + " (status " +
               std::to_string(status) + ")";
      ok = false;
      break;
    }
    tracker.markLastFrame();
  }
  // stop_process drops frames still queued, so every frame handed in is waited for first. That
  // also keeps the tracker alive for as long as a marker may run.
  tracker.waitUntilFolded(tracker.marked());
  summary->folded = tracker.marked();
  if (ok && summary->folded == 0) {
    *error = summary->stopped ? "stopped before any frame was folded in"
                              : "no frames selected: the inputs end before the first one";
    ok = false;
  }

  if (ok) {
    image out = FrameRecord(geometry, source.order(), picture->data());
    rect out_roi{};
    const int status = api.get_process_image_result(handle, &out, &out_roi);
    if (status != VELMORA_OK) {
      *error = "the library could not produce the picture (status " + std::to_string(status) + ")";
      ok = false;
    }
  }
  api.stop_process(handle);
  api.release_handle(handle);
  return ok;
}

}  // namespace velmora::tool
