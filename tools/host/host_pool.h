// host_pool.h - the runner's worker threads: a fixed pool with an urgent lane (drawing the frame
// the caller's thread waits for) ahead of the ordinary one (encoding outputs), a parallel loop
// over bands, and a bound on the frames in flight so memory stays bounded.
#ifndef VM_HOST_POOL_H
#define VM_HOST_POOL_H

#include <stdint.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The default of --jobs: the machine's cores, within 1..64.
int32_t host_default_jobs();

class HostPool {
 public:
  // threads 0 runs every task on the submitting thread (no worker threads at all).
  explicit HostPool(int32_t threads);
  ~HostPool();  // finishes what was submitted, then joins
  HostPool(const HostPool&) = delete;
  HostPool& operator=(const HostPool&) = delete;

  // A task must not wait for other tasks of the pool. An exception that escapes a task is kept
  // (failures()), never lost and never the end of the process.
  void submit(std::function<void()> task, bool urgent = false);
  // body(0..count-1) on the pool's threads, urgent; returns when all are done. false when any
  // band threw (the message in *error). Called from a thread that is not one of the pool's.
  bool parallel_for(int32_t count, const std::function<void(int32_t)>& body, std::string* error);
  // Returns when every task submitted so far has finished.
  void wait_idle();
  // Messages of exceptions that escaped tasks, in the order they happened.
  std::vector<std::string> failures();
  int32_t threads() const { return static_cast<int32_t>(workers_.size()); }

 private:
  void work();
  void run(const std::function<void()>& task);
  std::mutex mu_;
  std::condition_variable wake_, idle_;
  std::deque<std::function<void()>> urgent_, normal_;
  int32_t busy_ = 0;
  bool stop_ = false;
  std::vector<std::string> failures_;
  std::vector<std::thread> workers_;
};

// Counts frames whose outputs are not finished yet; acquire() waits while `limit` are.
class HostInFlight {
 public:
  explicit HostInFlight(int32_t limit) : limit_(limit) {}
  void acquire();
  void release();
  int32_t peak() const;  // the most ever held at once (for tests of the bound)

 private:
  mutable std::mutex mu_;
  std::condition_variable cv_;
  int32_t limit_, held_ = 0, peak_ = 0;
};

// A bounded first-in first-out queue between two threads; close() ends it for the reader once
// it is empty.
template <typename T>
class HostQueue {
 public:
  explicit HostQueue(size_t capacity) : capacity_(capacity) {}
  // Waits for room; false when the queue was closed (the item is dropped).
  bool push(T item) {
    std::unique_lock<std::mutex> lock(mu_);
    notFull_.wait(lock, [&] { return closed_ || items_.size() < capacity_; });
    if (closed_) return false;
    items_.push_back(std::move(item));
    notEmpty_.notify_one();
    return true;
  }
  // Waits for an item; false once the queue is closed and empty.
  bool pop(T* out) {
    std::unique_lock<std::mutex> lock(mu_);
    notEmpty_.wait(lock, [&] { return closed_ || !items_.empty(); });
    if (items_.empty()) return false;
    *out = std::move(items_.front());
    items_.pop_front();
    notFull_.notify_one();
    return true;
  }
  void close() {
    std::lock_guard<std::mutex> lock(mu_);
    closed_ = true;
    notFull_.notify_all();
    notEmpty_.notify_all();
  }

 private:
  std::mutex mu_;
  std::condition_variable notFull_, notEmpty_;
  std::deque<T> items_;
  size_t capacity_;
  bool closed_ = false;
};

#endif  // VM_HOST_POOL_H
