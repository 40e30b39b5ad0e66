// Process-wide pool of worker threads running queued jobs first in, first out.
#ifndef VELMORA_COMMON_THREADPOOL_H
#define VELMORA_COMMON_THREADPOOL_H

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <deque>
#include <vector>

#include "velmora/flowing_water.h"

struct pool_worker_job_t {
  void (*fn)(void*);
  void* arg;           // owned by the job's function
};

class ThreadPool;

class VELMORA_EXPORT ThreadWorker {
 public:
  explicit ThreadWorker(ThreadPool* pool);
  int startup();             // pthread_create's result
  int stop();                // joins the thread; 0
  static void* run(void* pool);

 private:
  pthread_t thread_;
  ThreadPool* pool_;
};

class VELMORA_EXPORT ThreadPool {
 public:
  static ThreadPool* instance();

  int startup(int count);  // 0, -2 when already running, or the first pthread_create error
  void submit(const pool_worker_job_t& job);
  void waitForAllJobDone();
  void forceEnd();
  void shutdown();
  int pendingJobs() const { return pending_; }  // submitted and not yet finished or dropped

  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

 private:
  friend class ThreadWorker;
  ThreadPool() = default;

  std::deque<pool_worker_job_t> queue_;
  std::vector<ThreadWorker*> workers_;
  pthread_mutex_t mutex_{};
  pthread_cond_t cond_{};
  sem_t all_done_{};
  std::atomic<int> pending_{0};
  // Both flags are read by the workers without the mutex; atomics keep that well defined.
  std::atomic<bool> running_{false};
  std::atomic<bool> force_end_{false};
};

#endif  // VELMORA_COMMON_THREADPOOL_H
