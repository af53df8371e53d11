// worker_thread.cpp - set-up, wake, wait and stop of a session worker thread.
#include "flow/worker_thread.h"

void worker_thread_init_sync(WorkerThread* t) {
  pthread_mutex_init(&t->mutex, nullptr);
  pthread_cond_init(&t->cond, nullptr);
  t->syncReady = 1;
  pthread_mutex_lock(&t->mutex);
  t->status.store(kWorkerReady, std::memory_order_release);
  pthread_mutex_unlock(&t->mutex);
}

bool worker_thread_start(WorkerThread* t, void* (*body)(void*), void* arg) {
  t->exitRequest.store(0, std::memory_order_release);
  t->started = pthread_create(&t->id, nullptr, body, arg) == 0 ? 1 : 0;
  return t->started != 0;
}

int32_t worker_thread_status(WorkerThread* t) {
  pthread_mutex_lock(&t->mutex);
  const int32_t status = t->status.load(std::memory_order_relaxed);
  pthread_mutex_unlock(&t->mutex);
  return status;
}

bool worker_thread_waiting(WorkerThread* t) {
  if (!t->syncReady) return false;
  return (worker_thread_status(t) & kWorkerWaiting) != 0;
}

void worker_thread_signal(WorkerThread* t) {
  pthread_mutex_lock(&t->mutex);
  pthread_cond_signal(&t->cond);
  pthread_mutex_unlock(&t->mutex);
}

bool worker_thread_wait(WorkerThread* t) {
  if (t->exitRequest.load(std::memory_order_acquire) != 0) return false;
  pthread_mutex_lock(&t->mutex);
  t->status.store(kWorkerWaiting, std::memory_order_release);
  // A stop that came before the wait must not be slept through.
  if (t->exitRequest.load(std::memory_order_acquire) == 0) pthread_cond_wait(&t->cond, &t->mutex);
  t->status.store(kWorkerRunning, std::memory_order_release);
  pthread_mutex_unlock(&t->mutex);
  return t->exitRequest.load(std::memory_order_acquire) == 0;
}

void worker_thread_stop(WorkerThread* t) {
  t->exitRequest.store(1, std::memory_order_release);
  if (t->syncReady && t->status.load(std::memory_order_acquire) != 0) {
    worker_thread_signal(t);
    if (t->started) pthread_join(t->id, nullptr);
    t->started = 0;
  }
}

void worker_thread_destroy_sync(WorkerThread* t) {
  if (!t->syncReady) return;
  pthread_mutex_lock(&t->mutex);
  t->status.store(0, std::memory_order_release);
  pthread_mutex_unlock(&t->mutex);
  pthread_cond_destroy(&t->cond);
  pthread_mutex_destroy(&t->mutex);
  t->syncReady = 0;
}
