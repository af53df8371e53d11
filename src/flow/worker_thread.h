// worker_thread.h - the wait-and-wake piece both session workers (depth, refocus map) are built
// on: one thread, its mutex and condition variable, the status word and the exit request.
//
// The mutex and condition variable guard the status word and the wait only; there is no queue:
// a wake while the worker runs is dropped, and the callers keep their own pending work. Log
// lines stay with the callers, so that each carries its worker's function name.
#ifndef VMKTRRT_FLOW_WORKER_THREAD_H
#define VMKTRRT_FLOW_WORKER_THREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

// Status words.
constexpr int32_t kWorkerReady = 1;
constexpr int32_t kWorkerWaiting = 2;
constexpr int32_t kWorkerRunning = 4;

struct WorkerThread {
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  std::atomic<int32_t> status;  // 0 before set-up and after tear-down
  std::atomic<int32_t> exitRequest;
  pthread_t id;
  int32_t started;    // a join only follows a start that succeeded
  int32_t syncReady;  // mutex and condition variable initialised
};

// Caller's thread: the mutex and condition variable, status ready.
void worker_thread_init_sync(WorkerThread* t);
// Caller's thread: clears the exit request and starts body(arg). False when no thread started.
bool worker_thread_start(WorkerThread* t, void* (*body)(void*), void* arg);
// The status word read under the lock.
int32_t worker_thread_status(WorkerThread* t);
// True when the worker waits for a wake (false before set-up).
bool worker_thread_waiting(WorkerThread* t);
// Wakes a waiting worker.
void worker_thread_signal(WorkerThread* t);
// Worker side: waits for the next wake. False when the worker is to end; a spurious wake-up
// returns true like a real one.
bool worker_thread_wait(WorkerThread* t);
// Caller's thread: asks the worker to end, wakes it and joins a started thread.
void worker_thread_stop(WorkerThread* t);
// Caller's thread, after the stop: status 0, the mutex and condition variable destroyed.
void worker_thread_destroy_sync(WorkerThread* t);

#endif  // VMKTRRT_FLOW_WORKER_THREAD_H
