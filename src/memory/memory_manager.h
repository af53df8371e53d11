// memory_manager.h - tracked allocator: records each live block with the file and line that
// asked for it, keeps session totals and reports blocks never given back.
//
// Any thread may allocate and free between init and deinit; init and deinit run on the caller's
// thread at the start and end of a session.
#ifndef VMKTRRT_MEMORY_MEMORY_MANAGER_H
#define VMKTRRT_MEMORY_MEMORY_MANAGER_H

#include <pthread.h>

#include <cstdint>

struct MemoryNode {
  void* data;
  int32_t size;
  const char* callerFile;  // kept by pointer
  int32_t callerLine;
  MemoryNode* next;
};

struct MemoryManager {
  pthread_mutex_t lock;
  int32_t maxUsage;
  int32_t maxCount;
  int32_t usage;  // bytes handed out in the session; frees do not subtract
  int32_t count;  // blocks handed out in the session
  MemoryNode* head;
};

extern MemoryManager g_memoryManager;

void vemta_memory_manager_init(void);
void* vemta_memory_manager_allocate(int32_t size, const char* file, int32_t line);
void vemta_memory_manager_free(void* address);
// Unlinks the node of address, if any; called with the lock held. Returns the node or null.
MemoryNode* vemta_memory_manager_remove_node_by_addr(void* address);
void vemta_memory_manager_deinit(void);

#endif  // VMKTRRT_MEMORY_MEMORY_MANAGER_H
