// host_pool.cpp - worker pool, parallel bands and the in-flight bound of the host runner.
#include "host_pool.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>

int32_t host_default_jobs() {
  const unsigned cores = std::thread::hardware_concurrency();  // 0 when unknown
  return static_cast<int32_t>(std::min(64u, std::max(1u, cores)));
}

HostPool::HostPool(int32_t threads) {
  for (int32_t i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
}

HostPool::~HostPool() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void HostPool::run(const std::function<void()>& task) {
  try {
    task();
  } catch (const std::exception& e) {
    std::lock_guard<std::mutex> lock(mu_);
    failures_.push_back(e.what());
  } catch (...) {
    std::lock_guard<std::mutex> lock(mu_);
    failures_.push_back("unknown exception");
  }
}

void HostPool::submit(std::function<void()> task, bool urgent) {
  if (workers_.empty()) {
    run(task);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    (urgent ? urgent_ : normal_).push_back(std::move(task));
  }
  wake_.notify_one();
}

void HostPool::work() {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    wake_.wait(lock, [&] { return stop_ || !urgent_.empty() || !normal_.empty(); });
    if (urgent_.empty() && normal_.empty()) return;  // stopping, and nothing is left
    auto& lane = !urgent_.empty() ? urgent_ : normal_;
    std::function<void()> task = std::move(lane.front());
    lane.pop_front();
    ++busy_;
    lock.unlock();
    run(task);
    task = nullptr;  // what the task holds is released before the pool looks idle
    lock.lock();
    --busy_;
    if (busy_ == 0 && urgent_.empty() && normal_.empty()) idle_.notify_all();
  }
}

void HostPool::wait_idle() {
  std::unique_lock<std::mutex> lock(mu_);
  idle_.wait(lock, [&] { return busy_ == 0 && urgent_.empty() && normal_.empty(); });
}

std::vector<std::string> HostPool::failures() {
  std::lock_guard<std::mutex> lock(mu_);
  return failures_;
}

bool HostPool::parallel_for(int32_t count, const std::function<void(int32_t)>& body, std::string* error) {
  struct Shared {
    std::mutex mu;
    std::condition_variable done;
    int32_t left = 0;
    std::string error;
  };
  auto shared = std::make_shared<Shared>();
  shared->left = count;
  for (int32_t i = 0; i < count; ++i) {
    // body outlives every band: this call returns only once all of them have run.
    submit(
        [shared, &body, i] {
          std::string failure;
          try {
            body(i);
          } catch (const std::exception& e) {
            failure = e.what();
          } catch (...) {
            failure = "unknown exception";
          }
          std::lock_guard<std::mutex> lock(shared->mu);
          if (!failure.empty() && shared->error.empty()) shared->error = failure;
          if (--shared->left == 0) shared->done.notify_all();
        },
        true);
  }
  std::unique_lock<std::mutex> lock(shared->mu);
  shared->done.wait(lock, [&] { return shared->left == 0; });
  if (shared->error.empty()) return true;
  *error = shared->error;
  return false;
}

void HostInFlight::acquire() {
  std::unique_lock<std::mutex> lock(mu_);
  cv_.wait(lock, [&] { return held_ < limit_; });
  peak_ = std::max(peak_, ++held_);
}

void HostInFlight::release() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    --held_;
  }
  cv_.notify_all();
}

int32_t HostInFlight::peak() const {
  std::lock_guard<std::mutex> lock(mu_);
  return peak_;
}
