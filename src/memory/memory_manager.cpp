// memory_manager.cpp - tracked allocator with a leak report at the end of the session.
#include "memory/memory_manager.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "debug/debug_log.h"
#include "memory/heap.h"

MemoryManager g_memoryManager;

namespace {
// The totals are 32-bit as logged; a session that hands out more than 2 GiB in all stops
// counting at the top rather than wrapping negative.
int32_t saturatingAdd(int32_t a, int32_t b) {
  return (b > 0 && a > INT32_MAX - b) ? INT32_MAX : a + b;
}
}  // namespace

void vemta_memory_manager_init(void) {
  memset(&g_memoryManager, 0, sizeof g_memoryManager);
  pthread_mutex_init(&g_memoryManager.lock, nullptr);
  g_memoryManager.head = nullptr;
  VM_LOG_IF(kLogTrace, "init...\n");
}

void* vemta_memory_manager_allocate(int32_t size, const char* file, int32_t line) {
  // A negative size cannot be asked of the platform allocator: treat it as exhaustion.
  void* block = size >= 0 ? heap_allocate(static_cast<size_t>(size)) : nullptr;
  if (block == nullptr) {
    VM_LOG_IF(kLogTrace, "ERROR: Alloc [%d] ===> [%s:%d]\n", size, file != nullptr ? file : "", line);
    return nullptr;
  }
  MemoryNode* node = static_cast<MemoryNode*>(heap_allocate(sizeof(MemoryNode)));
  if (node == nullptr) return block;  // handed out untracked
  node->data = block;
  node->size = size;
  node->callerFile = file;
  node->callerLine = line;
  node->next = nullptr;
  MemoryManager& m = g_memoryManager;
  pthread_mutex_lock(&m.lock);
  m.usage = saturatingAdd(m.usage, size);
  if (m.usage > m.maxUsage) m.maxUsage = m.usage;
  node->next = m.head;
  m.head = node;
  m.count = saturatingAdd(m.count, 1);
  if (m.count > m.maxCount) m.maxCount = m.count;
  pthread_mutex_unlock(&m.lock);
  return block;
}

MemoryNode* vemta_memory_manager_remove_node_by_addr(void* address) {
  MemoryManager& m = g_memoryManager;
  MemoryNode** link = &m.head;
  for (MemoryNode* n = m.head; n != nullptr; link = &n->next, n = n->next) {
    if (n->data == address) {
      *link = n->next;
      return n;
    }
  }
  VM_LOG_IF(kLogTrace, "Error: addr[%p]\n", address);
  return nullptr;
}

void vemta_memory_manager_free(void* address) {
  if (address == nullptr) {
    VM_LOG_IF(kLogTrace, "Error: Free NULL point...\n");
    return;
  }
  pthread_mutex_lock(&g_memoryManager.lock);
  MemoryNode* node = vemta_memory_manager_remove_node_by_addr(address);
  pthread_mutex_unlock(&g_memoryManager.lock);
  heap_free(node);
  heap_free(address);  // an unknown address is still given back
}

void vemta_memory_manager_deinit(void) {
  MemoryManager& m = g_memoryManager;
  pthread_mutex_lock(&m.lock);
  for (MemoryNode* n = m.head; n != nullptr;) {
    MemoryNode* next = n->next;
    VM_LOG_IF(kLogTrace, "Error: Caller[%s:%d] Size[%d] ADDR[0x%p]\n", n->callerFile != nullptr ? n->callerFile : "",
              n->callerLine, n->size, n->data);
    heap_free(n);  // the leaked block itself stays with whoever holds it
    n = next;
  }
  pthread_mutex_unlock(&m.lock);
  m.head = nullptr;  // the nodes are gone; nothing may walk them after the session
  pthread_mutex_destroy(&m.lock);
  VM_LOG_IF(kLogTrace, "Info: Max usage[%d] Max caller[%d]\n", m.maxUsage, m.maxCount);
  VM_LOG_IF(kLogTrace, "deinit...\n");
}
