// heap.h - the library's only door to the platform heap, with fault injection for tests.
//
// Every allocation of the library goes through heap_allocate, so a test can make the n-th one
// fail and check that the failure is reported and nothing leaks.
#ifndef VMKTRRT_MEMORY_HEAP_H
#define VMKTRRT_MEMORY_HEAP_H

#include <cstddef>
#include <cstdint>

void* heap_allocate(size_t size);
void heap_free(void* block);

// 16-byte aligned blocks for plane work; free with heap_aligned_free.
void* heap_aligned_allocate(size_t size, size_t alignment);
void heap_aligned_free(void* block);

// Fault injection: the countdown-th allocation from now (1 = the next) and, when persistent,
// every one after it returns null. 0 switches injection off.
void heap_fault_inject(int32_t countdown, bool persistent);
// Allocations that failed by injection since the last heap_fault_inject call.
int32_t heap_fault_count(void);
// Blocks taken through this door and not given back yet: a session's tear-down returns it to
// what it was before Init, so a difference is a leak.
int64_t heap_live_blocks(void);

#endif  // VMKTRRT_MEMORY_HEAP_H
