// heap.cpp - platform heap wrappers with a fault-injection countdown.
#include "memory/heap.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<int32_t> g_countdown{0};
std::atomic<bool> g_persistent{false};
std::atomic<int32_t> g_failures{0};
// Blocks handed out and not yet given back, for the leak check at the end of a session.
std::atomic<int64_t> g_live{0};

void* counted(void* block) {
  if (block != nullptr) g_live.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void uncount(void* block) {
  if (block != nullptr) g_live.fetch_sub(1, std::memory_order_relaxed);
}

bool injectFailure() {
  int32_t c = g_countdown.load(std::memory_order_relaxed);
  if (c <= 0) return false;
  if (c == 1) {
    if (!g_persistent.load(std::memory_order_relaxed)) g_countdown.store(0, std::memory_order_relaxed);
    g_failures.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  g_countdown.fetch_sub(1, std::memory_order_relaxed);
  return false;
}
}  // namespace

void* heap_allocate(size_t size) {
  if (injectFailure()) return nullptr;
  return counted(malloc(size == 0 ? 1 : size));
}

void heap_free(void* block) {
  uncount(block);
  free(block);
}

void* heap_aligned_allocate(size_t size, size_t alignment) {
  if (injectFailure()) return nullptr;
  void* p = nullptr;
  if (alignment < sizeof(void*)) alignment = sizeof(void*);
  if (posix_memalign(&p, alignment, size == 0 ? 1 : size) != 0) return nullptr;
  return counted(p);
}

void heap_aligned_free(void* block) {
  uncount(block);
  free(block);
}

void heap_fault_inject(int32_t countdown, bool persistent) {
  g_persistent.store(persistent, std::memory_order_relaxed);
  g_failures.store(0, std::memory_order_relaxed);
  g_countdown.store(countdown > 0 ? countdown : 0, std::memory_order_relaxed);
}

int32_t heap_fault_count(void) {
  return g_failures.load(std::memory_order_relaxed);
}

int64_t heap_live_blocks(void) {
  return g_live.load(std::memory_order_relaxed);
}
