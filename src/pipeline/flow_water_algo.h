// The processing handle behind the table of operations: frame intake on the caller's thread,
// accumulation of a per-pixel running mean on the pool's worker, and the result output.
#ifndef VELMORA_PIPELINE_FLOW_WATER_ALGO_H
#define VELMORA_PIPELINE_FLOW_WATER_ALGO_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "velmora/flowing_water.h"

// Deep copy of a frame's header and its first plane_num planes (plane buffers from malloc).
VELMORA_EXPORT void CopyIMAGEMemory(const image& src, image& dst);
// Frees the plane buffers of the first plane_num planes and nulls their pointers.
VELMORA_EXPORT void FreeIMAGEMemory(image& img);

class VELMORA_EXPORT velmora_algo {
 public:
  velmora_algo();
  virtual ~velmora_algo();
  velmora_algo(const velmora_algo&) = delete;
  velmora_algo& operator=(const velmora_algo&) = delete;

  int set_base_parameters(image_algo_base_parameters* params);
  int start_process();
  int stop_process();
  int release_handle();
  int process_image(image* frame, rect* roi);
  int get_process_image_result(image* out, rect* roi);

  static void consumeImage(void* arg);
  int process_two_image(image* frame, image* acc);

  // Read-only views for tests and tools. folded_frames is exact once the run is stopped;
  // mean_record is a consistent copy of the result record at any time.
  uint32_t added_frames() const { return add_count; }
  int folded_frames() const { return acc_count; }
  image mean_record() const;

 private:
  rect StoredRoi() const;
  void WriteBackRoi(const rect& value);

  // add_count is written by the caller's thread and read by the worker, consume_count written
  // by the worker; neither is otherwise synchronised, so they are relaxed atomics.
  std::atomic<uint32_t> add_count{0};
  std::atomic<uint32_t> consume_count{0};
  int32_t acc_count = 0;
  std::vector<uint8_t> reserved_a;  // never filled; emptied by start_process
  image acc_image;                  // first frame's header; planes 0 and 1 point at double means
  rect roi;
  double matrix[9];                 // zeroed with a run's first frame; nothing reads it
  std::vector<uint8_t> reserved_b;
  std::vector<uint8_t> reserved_c;
  std::atomic<bool> running{false};
  int32_t thread_num = 1;
  pthread_mutex_t mutex;
  // Guards the record the result is read from (acc_image's header, plane sizes and mean buffer
  // pointers) and the stored roi, which the caller's threads read while the worker publishes a
  // run's first frame. Held only to copy those few words, never while pixels are touched, so
  // the result read still does not wait for a fold (that is `mutex`'s job, which it never
  // takes). The means themselves stay readable unlocked, by design: a picture read during a
  // fold may mix old and new pixels, but never pairs a size with a buffer too small for it.
  mutable pthread_mutex_t record_mutex;
};

#endif  // VELMORA_PIPELINE_FLOW_WATER_ALGO_H
