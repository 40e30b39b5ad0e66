#include "longexp.h"

#include <condition_variable>
#include <mutex>
#include <new>

#include "aligner.h"
#include "common/threadPool.h"
#include "interrupt.h"
#include "velmora/flowing_water.h"

namespace velmora::tool {

namespace {

// Frames handed in but not yet folded: enough for reading the next frame to overlap the fold of
// the previous ones, few enough that the library's per-frame copies stay bounded on long inputs.
constexpr size_t kFramesInFlight = 4;

// Frames read ahead while the library sets up the mean from the run's first frame, a long first
// fold (tens of megabytes of means allocated and filled on a 1080p frame) that the second frame
// must wait for: reading on meanwhile keeps a video's decoder busy instead of idle. Their
// buffers are released as they are handed in.
constexpr size_t kReadAhead = 8;

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

  // Frames folded in so far, without waiting.
  size_t folded() {
    std::lock_guard<std::mutex> lock(mutex_);
    return folded_;
  }

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

  rect roi{0, 0, static_cast<int32_t>(geometry.width), static_cast<int32_t>(geometry.height)};
  FoldTracker tracker(progress, source.frameCount());
  bool ok = true;
  bool ended = false;
  size_t read = 0;  // frames read, thrown ones included
  error->clear();
  // Reads the next frame into data. At the end, on a stop request or on an error, sets ended
  // (and ok false on an error) and returns false.
  auto read_next = [&](uint8_t* data) {
    if (StopRequested() || !source.next(data, error)) {
      ended = true;
      ok = error->empty();
      summary->stopped = ok && StopRequested();
      return false;
    }
    ++read;
    return true;
  };
  // Hands in frame number n, read into data; false when the library refuses it.
  auto hand_in = [&](uint8_t* data, size_t n) {
    image frame = FrameRecord(geometry, source.order(), data);
    // Registered here while the worker folds the earlier frames; a thrown frame is skipped.
    if (aligner != nullptr) {
      const uint8_t* aligned = aligner->align(data);
      if (aligned == nullptr) return true;
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
      *error = "the library refused frame " + std::to_string(n) + " (status " +
               std::to_string(status) + ")";
      return false;
    }
    tracker.markLastFrame();
    return true;
  };

  // Read while the worker folds the frames already handed in. A frame read in full is folded
  // even if a stop came meanwhile.
  if (read_next(buffer.data())) ok = hand_in(buffer.data(), read);
  std::vector<std::vector<uint8_t>> ahead;
  ahead.reserve(kReadAhead);  // the frames' own buffers are the allocations that may fail
  while (ok && !ended && tracker.marked() > 0 && ahead.size() < kReadAhead &&
         tracker.folded() == 0) {
    std::vector<uint8_t> next;
    try {
      next.resize(geometry.frameBytes());
    } catch (const std::bad_alloc&) {
      break;  // reading ahead only saves time
    }
    if (!read_next(next.data())) break;
    ahead.push_back(std::move(next));
  }
  for (size_t i = 0; ok && i < ahead.size(); ++i) {
    ok = hand_in(ahead[i].data(), read - ahead.size() + 1 + i);
    std::vector<uint8_t>().swap(ahead[i]);
  }
  while (ok && !ended && read_next(buffer.data())) ok = hand_in(buffer.data(), read);
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
