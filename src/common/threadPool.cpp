#include "common/threadPool.h"

#include <cstring>

#include "common/log.h"

ThreadWorker::ThreadWorker(ThreadPool* pool) : pool_(pool) {
  std::memset(&thread_, 0xff, sizeof thread_);  // "no thread yet"
}

int ThreadWorker::startup() { return pthread_create(&thread_, nullptr, &ThreadWorker::run, pool_); }

int ThreadWorker::stop() {
  pthread_join(thread_, nullptr);
  return 0;
}

void* ThreadWorker::run(void* arg) {
  ThreadPool* pool = static_cast<ThreadPool*>(arg);
  if (!pool->running_) return nullptr;

  pthread_mutex_lock(&pool->mutex_);
  for (;;) {
    // Wait for a job. The running flag is tested under the mutex before every wait as well:
    // shutdown clears it under the same mutex before its one broadcast, so a worker can never
    // start waiting after that broadcast has gone by.
    while (pool->queue_.empty()) {
      if (!pool->running_) {
        pthread_mutex_unlock(&pool->mutex_);
        return nullptr;
      }
      pthread_cond_wait(&pool->cond_, &pool->mutex_);
      pthread_mutex_unlock(&pool->mutex_);
      if (!pool->running_) return nullptr;
      pthread_mutex_lock(&pool->mutex_);
    }

    const pool_worker_job_t job = pool->queue_.front();
    pool->queue_.pop_front();
    pthread_mutex_unlock(&pool->mutex_);

    // After forceEnd a queued job is dropped unrun; whatever its argument owns is not freed.
    if (!pool->force_end_) job.fn(job.arg);
    if (--pool->pending_ == 0) sem_post(&pool->all_done_);

    if (!pool->running_) return nullptr;
    pthread_mutex_lock(&pool->mutex_);
  }
}

ThreadPool* ThreadPool::instance() {
  // Created once, thread-safely; destroyed when the library is unloaded or the process exits.
  static ThreadPool pool;
  return &pool;
}

int ThreadPool::startup(int count) {
  if (running_) return -2;

  // A shutdown can leave jobs queued (its single wait may be released by an earlier post). They
  // belong to the stopped run, perhaps to a handle released since: they are dropped here, never
  // run, and their arguments are not freed.
  queue_.clear();
  pending_ = 0;
  pthread_mutex_init(&mutex_, nullptr);
  pthread_cond_init(&cond_, nullptr);
  sem_init(&all_done_, 0, 0);
  for (int i = 0; i < count; ++i) workers_.push_back(new ThreadWorker(this));
  running_ = true;
  force_end_ = false;

  // A failed creation is returned at once; the pool stays running with the workers that started.
  for (ThreadWorker* worker : workers_) {
    const int rc = worker->startup();
    if (rc != 0) return rc;
  }
  return 0;
}

void ThreadPool::submit(const pool_worker_job_t& job) {
  // Dropped silently: the job's argument is not freed.
  if (job.fn == nullptr || !running_) return;
  pthread_mutex_lock(&mutex_);
  queue_.push_back(job);
  ++pending_;
  pthread_cond_signal(&cond_);
  pthread_mutex_unlock(&mutex_);
}

void ThreadPool::waitForAllJobDone() {
  if (pending_ == 0) return;
  // A stopped pool has no worker left to post, and its semaphore is destroyed: a stale post can
  // have let shutdown finish with jobs still counted as pending, and waiting then would block
  // forever (a second stop_process, say). Nothing can finish any more, so there is nothing to
  // wait for.
  if (!running_) return;
  // The semaphore counts transitions of pending to 0, not jobs: a post left from an earlier
  // transition lets this return while jobs are still pending. That is the pool's behaviour.
  sem_wait(&all_done_);
  VLOG_INFO("threadpoll ==> waitForAllJobDone ok");
}

void ThreadPool::forceEnd() {
  force_end_ = true;  // stays set until the next startup
  VLOG_INFO("threadpoll ==> forceend ok");
}

void ThreadPool::shutdown() {
  VLOG_INFO("threadpoll ==> shutdown begin");
  if (running_) {
    waitForAllJobDone();
    VLOG_INFO("threadpoll ==> shutdown 111");

    pthread_mutex_lock(&mutex_);
    running_ = false;
    pthread_cond_broadcast(&cond_);
    pthread_mutex_unlock(&mutex_);
    VLOG_INFO("threadpoll ==> shutdown 222");

    for (ThreadWorker* worker : workers_) {
      worker->stop();
      delete worker;
    }
    workers_.clear();
    VLOG_INFO("threadpoll ==> shutdown 333");

    // Jobs still queued stay in the queue, neither run nor freed.
    pthread_mutex_destroy(&mutex_);
    pthread_cond_destroy(&cond_);
    sem_destroy(&all_done_);
  }
  VLOG_INFO("threadpoll ==> shutdown ok");
}

ThreadPool::~ThreadPool() { shutdown(); }
