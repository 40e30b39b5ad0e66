#include "pipeline/flow_water_algo.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/log.h"
#include "common/threadPool.h"
#include "pipeline/mean_kernels.h"
#include "velmora/filters.h"

namespace {

// The argument of one frame job: allocated by process_image, deleted by consumeImage.
struct consume_job {
  velmora_algo* handle;
  image* copy;
};

bool IsAcceptedFrame(const image& frame) {
  return frame.plane_num == 2 && (frame.format == VELMORA_FORMAT_YUV420SP_A ||
                                  frame.format == VELMORA_FORMAT_YUV420SP_B);
}

uint64_t PlaneBytes(const image_plane& plane) {
  return static_cast<uint64_t>(plane.width) * plane.height;
}

// Holds a pthread mutex for one scope.
class RecordLock {
 public:
  explicit RecordLock(pthread_mutex_t& m) : m_(m) { pthread_mutex_lock(&m_); }
  ~RecordLock() { pthread_mutex_unlock(&m_); }
  RecordLock(const RecordLock&) = delete;
  RecordLock& operator=(const RecordLock&) = delete;

 private:
  pthread_mutex_t& m_;
};

}  // namespace

void CopyIMAGEMemory(const image& src, image& dst) {
  dst.attr0 = src.attr0;
  dst.attr1 = src.attr1;
  dst.plane_num = src.plane_num;
  dst.attr2 = src.attr2;
  dst.attr3 = src.attr3;
  dst.format = src.format;
  // Callers only copy accepted frames (two planes); the bound keeps a stray plane_num in range.
  const uint32_t planes = std::min<uint32_t>(src.plane_num, 4);
  for (uint32_t i = 0; i < planes; ++i) {
    const image_plane& from = src.planes[i];
    image_plane& to = dst.planes[i];
    const uint32_t size = from.width * from.height;  // 32-bit product, as the record holds it
    if (size == 0) {
      std::memset(&to, 0, sizeof to);
      continue;
    }
    to.attr0 = from.attr0;
    to.attr1 = from.attr1;
    to.width = from.width;
    to.height = from.height;
    to.attr2 = from.attr2;
    to.data = static_cast<uint8_t*>(std::malloc(size));
    if (to.data != nullptr && from.data != nullptr) std::memcpy(to.data, from.data, size);
  }
}

void FreeIMAGEMemory(image& img) {
  for (uint32_t i = 0; i < img.plane_num && i < 4; ++i) {
    if (img.planes[i].data != nullptr) {
      std::free(img.planes[i].data);
      img.planes[i].data = nullptr;
    }
  }
}

velmora_algo::velmora_algo() {
  std::memset(&acc_image, 0, sizeof acc_image);
  pthread_mutex_init(&mutex, nullptr);
  pthread_mutex_init(&record_mutex, nullptr);
}

image velmora_algo::mean_record() const {
  RecordLock lock(record_mutex);
  return acc_image;
}

velmora_algo::~velmora_algo() {
  for (int p = 0; p < 2; ++p) {
    if (acc_image.planes[p].data != nullptr) {
      std::free(acc_image.planes[p].data);
      acc_image.planes[p].data = nullptr;
    }
  }
  running = false;
  pthread_mutex_destroy(&mutex);
  pthread_mutex_destroy(&record_mutex);
}

int velmora_algo::set_base_parameters(image_algo_base_parameters* params) {
  (void)params;  // accepted and ignored
  return 0;
}

int velmora_algo::start_process() {
  add_count = 0;
  consume_count = 0;
  acc_count = 0;
  running = true;
  reserved_a.clear();
  VLOG_INFO("start_process");
  // A second start while the pool runs is a quiet no-op there (-2), so the result is ignored.
  ThreadPool::instance()->startup(thread_num);
  // The previous run's mean buffers are not freed: the next first frame allocates new ones and
  // the old ones are lost. That leak on restart is kept as the handle's defined behaviour.
  return 0;
}

int velmora_algo::stop_process() {
  VLOG_INFO("stop_process in");
  running = false;
  // Fixed order: queued frames are dropped (their copies are not freed), the frame in progress
  // finishes, then the worker is joined.
  ThreadPool* pool = ThreadPool::instance();
  pool->forceEnd();
  VLOG_INFO("stop_process forceEnd end");
  pool->waitForAllJobDone();
  VLOG_INFO("stop_process waitforalljobdone end");
  pool->shutdown();
  VLOG_INFO("stop_process");
  return 0;
}

int velmora_algo::release_handle() {
  VLOG_INFO("release_handle in");
  return 0;
}

int velmora_algo::process_image(image* frame, rect* frame_roi) {
  if (!running) {
    VLOG_ERROR("process is stop or not start");
    return 0;
  }
  if (frame == nullptr) {
    VLOG_ERROR("the pointer to input image is NULL");
    return VELMORA_ERR_NULL_IMAGE;
  }
  if (!IsAcceptedFrame(*frame)) {
    VLOG_ERROR("the format of add image is invalid, plane num: %d, image format: %d",
               frame->plane_num, frame->format);
    return VELMORA_ERR_FORMAT;
  }

  image* copy = new image();
  if (add_count == 0) {
    // The run's first frame fixes the rect handed back with every result. A null rect leaves
    // the stored one as it was rather than crash the app.
    if (frame_roi != nullptr) {
      RecordLock lock(record_mutex);
      roi = *frame_roi;
    }
    std::fill(std::begin(matrix), std::end(matrix), 0.0);
  }
  CopyIMAGEMemory(*frame, *copy);
  ++add_count;

  ThreadPool::instance()->submit({&velmora_algo::consumeImage, new consume_job{this, copy}});
  return 0;
}

void velmora_algo::consumeImage(void* arg) {
  consume_job* job = static_cast<consume_job*>(arg);
  velmora_algo* handle = job->handle;
  handle->process_two_image(job->copy, &handle->acc_image);
  ++handle->consume_count;
  FreeIMAGEMemory(*job->copy);
  // The copy's image record itself is not deleted: a small per-frame leak kept as it is.
  delete job;
}

int velmora_algo::process_two_image(image* frame, image* acc) {
  if (frame == nullptr || acc == nullptr) {
    VLOG_ERROR("the input image pointer of function process_two_image is NULL");
    return VELMORA_ERR_NULL_IMAGE;
  }
  if (!running) {
    VLOG_ERROR("process is stop or not start");
    return 0;
  }

  // First-frame initialisation keys on add_count, which the caller's thread raises: if a second
  // frame was already handed in when the first job starts, no initialisation happens in this run
  // and the fold below uses whatever acc_image holds. Callers let the first frame be folded in
  // before handing in the second.
  if (add_count == 1) {
    pthread_mutex_lock(&mutex);
    const uint64_t luma_count = PlaneBytes(frame->planes[0]);
    const uint64_t chroma_count = PlaneBytes(frame->planes[1]);
    double* luma = static_cast<double*>(std::malloc(luma_count * sizeof(double)));
    double* chroma = static_cast<double*>(std::malloc(chroma_count * sizeof(double)));
    if (luma != nullptr && frame->planes[0].data != nullptr) {
      for (uint64_t i = 0; i < luma_count; ++i) luma[i] = frame->planes[0].data[i];
    }
    if (chroma != nullptr && frame->planes[1].data != nullptr) {
      for (uint64_t i = 0; i < chroma_count; ++i) chroma[i] = frame->planes[1].data[i];
    }
    // The means are filled before the record points at them, and the header, sizes and buffer
    // pointers change in one step: a reader sees the previous record or this one, whole.
    image published = *frame;
    published.planes[0].data = reinterpret_cast<uint8_t*>(luma);
    published.planes[1].data = reinterpret_cast<uint8_t*>(chroma);
    {
      RecordLock lock(record_mutex);
      *acc = published;
    }
    pthread_mutex_unlock(&mutex);
  }

  if (!IsAcceptedFrame(*frame)) {
    VLOG_ERROR("the format of input image is invalid, plane num: %d, image format: %d",
               frame->plane_num, frame->format);
    return VELMORA_ERR_FORMAT;
  }

  const uint32_t w0 = frame->planes[0].width, h0 = frame->planes[0].height;
  const uint32_t w1 = frame->planes[1].width, h1 = frame->planes[1].height;
  // roi is read before the lock and written back, unchanged, before each unlock.
  const rect roi_seen = StoredRoi();
  pthread_mutex_lock(&mutex);
  const int32_t luma_count = static_cast<int32_t>(w0 * h0);
  if (luma_count < 1) {
    ++acc_count;
    WriteBackRoi(roi_seen);
    pthread_mutex_unlock(&mutex);
    return 0;
  }

  double* luma_mean = reinterpret_cast<double*>(acc->planes[0].data);
  double* chroma_mean = reinterpret_cast<double*>(acc->planes[1].data);
  if (luma_mean != nullptr && frame->planes[0].data != nullptr) {
    // The chroma plane is walked with the luma plane's index range: only its first w1 x h1
    // entries are updated. Both ranges are also bounded by the mean buffers, so a later frame
    // larger than the run's first cannot write past them.
    const int64_t luma_n = std::min<int64_t>(luma_count, PlaneBytes(acc->planes[0]));
    int64_t chroma_n = std::min<int64_t>(luma_count, static_cast<int64_t>(w1) * h1);
    chroma_n = std::min<int64_t>(chroma_n, PlaneBytes(acc->planes[1]));
    if (chroma_mean == nullptr || frame->planes[1].data == nullptr) chroma_n = 0;

    const auto accumulate = velmora::MeanKernelsFor(velmora::ActiveIsa()).accumulate;
    accumulate(luma_mean, frame->planes[0].data, luma_n, acc_count);
    if (chroma_n > 0) accumulate(chroma_mean, frame->planes[1].data, chroma_n, acc_count);
    ++acc_count;
  }
  // Without mean buffers (a second frame handed in before the handle's very first one was
  // folded) there is nothing to fold into: the frame is dropped rather than written to null.
  WriteBackRoi(roi_seen);
  pthread_mutex_unlock(&mutex);
  return 0;
}

rect velmora_algo::StoredRoi() const {
  RecordLock lock(record_mutex);
  return roi;
}

void velmora_algo::WriteBackRoi(const rect& value) {
  RecordLock lock(record_mutex);
  roi = value;
}

int velmora_algo::get_process_image_result(image* out, rect* out_roi) {
  if (out == nullptr) {
    VLOG_ERROR("the input image pointer of function get_process_image_result is NULL");
    return VELMORA_ERR_NULL_IMAGE;
  }
  if (out->planes[0].data == nullptr || out->planes[1].data == nullptr) {
    VLOG_ERROR("the memory of output image is not calloced");
    return VELMORA_ERR_OUTPUT_MEMORY;
  }

  // The pixels are read without the handle's mutex: a frame being folded in meanwhile may show
  // in some pixels and not in others. Callers wanting a consistent picture stop the run first.
  // The record itself is copied whole, so sizes and buffers always belong together.
  uint8_t* const out_y = out->planes[0].data;
  uint8_t* const out_uv = out->planes[1].data;
  image record;
  rect stored_roi;
  {
    RecordLock lock(record_mutex);
    record = acc_image;
    stored_roi = roi;
  }
  *out = record;
  out->planes[0].data = out_y;
  out->planes[1].data = out_uv;

  const auto to_bytes = velmora::MeanKernelsFor(velmora::ActiveIsa()).to_bytes;
  const double* luma_mean = reinterpret_cast<const double*>(record.planes[0].data);
  const double* chroma_mean = reinterpret_cast<const double*>(record.planes[1].data);
  const uint32_t luma_count = out->planes[0].width * out->planes[0].height;
  const uint32_t chroma_count = out->planes[1].width * out->planes[1].height;
  if (luma_mean != nullptr) to_bytes(luma_mean, out_y, luma_count);
  if (chroma_mean != nullptr) to_bytes(chroma_mean, out_uv, chroma_count);

  sharpenFilter(out_y, out_uv, out_y, out_uv, static_cast<int>(out->planes[0].width),
                static_cast<int>(out->planes[0].height), 2, 1.0f);

  if (out_roi != nullptr) *out_roi = stored_roi;  // a null rect is skipped rather than crash the app
  return 0;
}
