// dump.cpp - dump names, the dump writer and the thread-information line.
#include "debug/dump.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#ifdef VMKTR_HOST_PLATFORM
#include "vm_host_platform.h"
#endif

namespace {

const char* const kDumpNames[] = {"preview-main", "preview-sub", "depth",       "refocus", "refocus-using",
                                  "depth-main",   "depth-sub",   "preview-out", "eeprom"};
const int32_t kDumpBits[] = {0x01, 0x02, 0x04, 0x08, 0x08, 0x10, 0x20, 0x80, 0x40};

// The refocus dumps hand (counter, name, f-number, focusX, focusY, width, height, extension) to a
// format that reads (counter, name, int x int, double, int x int, extension). On the 32-bit ARM
// target the double-precision f-number therefore fills the two %d fields with its low and high
// words, and the %.2f field reads focusX (low word) and focusY (high word) as one double. Tools
// that read recorded dumps parse these names, so the text stays exactly this; it is computed
// here from the values themselves, so that every target prints it without mismatched arguments.
void refocusName(char* dst, size_t cap, int32_t counter, const char* name, float fNumber, int32_t focusX,
                 int32_t focusY, int32_t width, int32_t height) {
  double f = fNumber;
  uint64_t fBits;
  memcpy(&fBits, &f, sizeof fBits);
  uint64_t focusBits = (static_cast<uint64_t>(static_cast<uint32_t>(focusY)) << 32) | static_cast<uint32_t>(focusX);
  double focusAsDouble;
  memcpy(&focusAsDouble, &focusBits, sizeof focusAsDouble);
  snprintf(dst, cap, "%04d-%s-%dx%d-%.2f-%dx%d.%s", counter, name, static_cast<int32_t>(static_cast<uint32_t>(fBits)),
           static_cast<int32_t>(static_cast<uint32_t>(fBits >> 32)), focusAsDouble, width, height, "raw");
}

}  // namespace

int32_t dump_kind_bit(int32_t kind) {
  return (kind >= 0 && kind <= kDumpEeprom) ? kDumpBits[kind] : 0;
}

bool dump_enabled(int32_t kind) {
  int32_t flags = dumpFlags.load(std::memory_order_relaxed);
  return debugEnable.load(std::memory_order_relaxed) != 0 && flags != 0 && (flags & dump_kind_bit(kind)) != 0;
}

void dump_build_file_name(char* destination, int32_t capacity, int32_t kind, const SessionContext* ctx) {
  if (destination == nullptr || capacity <= 0 || kind < 0 || kind > kDumpEeprom) return;
  // The callers pass 256; the write is still held to it.
  const size_t cap = static_cast<size_t>(capacity);
  const char* name = kDumpNames[kind];
  const float fNumber = ctx->fNumber.load(std::memory_order_relaxed);
  const int32_t focusX = ctx->focusX.load(std::memory_order_relaxed);
  const int32_t focusY = ctx->focusY.load(std::memory_order_relaxed);
  const int32_t vcmMain = ctx->vcmMain.load(std::memory_order_relaxed);
  const int32_t vcmSub = ctx->vcmSub.load(std::memory_order_relaxed);
  const int32_t preview = ctx->previewFrameCounter.load(std::memory_order_relaxed);
  const int32_t depth = ctx->depthFrameCounter.load(std::memory_order_relaxed);
  const int32_t refocus = ctx->refocusFrameCounter.load(std::memory_order_relaxed);
  const BufferSlot& d = ctx->slots[kSlotDepth];
  switch (kind) {
    case kDumpPreviewMain:
      snprintf(destination, cap, "%04d-%s-%dx%d-%d-%.2f-%dx%d.%s", preview, name, ctx->slots[kSlotMain].width,
               ctx->slots[kSlotMain].height, vcmMain, static_cast<double>(fNumber), focusX, focusY, "nv21");
      break;
    case kDumpPreviewSub:
      snprintf(destination, cap, "%04d-%s-%dx%d-%d.%s", preview, name, ctx->slots[kSlotSub].width,
               ctx->slots[kSlotSub].height, vcmSub, "nv21");
      break;
    case kDumpDepth: {
      // The caller's depth size: turned back exactly when Init turned slot 2, which it does for
      // the whole layout word 3 or 4 only (chip words such as 0x33 keep the caller's size).
      const bool turned = ctx->depthSizeTurned != 0;
      snprintf(destination, cap, "%04d-%s-%dx%d-%d-%d-%.2f-%dx%d.%s", depth, name, turned ? d.height : d.width,
               turned ? d.width : d.height, vcmMain, vcmSub, static_cast<double>(fNumber), focusX, focusY, "raw");
      break;
    }
    case kDumpRefocus:
    case kDumpRefocusUsing:
      refocusName(destination, cap, refocus, name, fNumber, focusX, focusY, ctx->slots[kSlotRefocus].width,
                  ctx->slots[kSlotRefocus].height);
      break;
    case kDumpDepthMain:
    case kDumpDepthSub:
      snprintf(destination, cap, "%04d-%s-%dx%d-%d-%.2f-%dx%d.%s", depth, name, d.width, d.height, vcmMain,
               static_cast<double>(fNumber), focusX, focusY, "ycc");
      break;
    case kDumpPreviewOut:
      snprintf(destination, cap, "%04d-%s-%dx%d.%s", preview, name, ctx->slots[kSlotMain].width,
               ctx->slots[kSlotMain].height, "nv21");
      break;
    case kDumpEeprom:
      snprintf(destination, cap, "%s.%s", name, "raw");
      break;
  }
}

const char* dump_directory(void) {
#ifdef VMKTR_HOST_PLATFORM
  return vm_host_dump_dir(kDumpDirectory);
#else
  return kDumpDirectory;
#endif
}

void dump_write_raw(const char* name, const void* data, int32_t size) {
  char path[512];
  snprintf(path, sizeof path, "%s/%s", dump_directory(), name);
  VM_LOG_IF(kLogInfo, "Write data to %s size %d\n", path, size);
  if (data == nullptr || size < 0) return;
  FILE* f = fopen(path, "wb");
  if (f == nullptr) return;
  fwrite(data, 1, static_cast<size_t>(size), f);
  fflush(f);
  fclose(f);
}

void dump_if_enabled(int32_t kind, const SessionContext* ctx, const void* data, int32_t size) {
  if (!dump_enabled(kind)) return;
  char name[kDumpNameCapacity];
  name[0] = '\0';
  dump_build_file_name(name, kDumpNameCapacity, kind, ctx);
  dump_write_raw(name, data, size);
}

void dump_thread_info(void) {
  const int pid = static_cast<int>(getpid());
  const int tid = static_cast<int>(syscall(SYS_gettid));
  int policy = 0;
  struct sched_param param;
  memset(&param, 0, sizeof param);
  const int ret = pthread_getschedparam(pthread_self(), &policy, &param);
  const int prioProcess = getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  const int prioGroup = getpriority(PRIO_PGRP, static_cast<id_t>(tid));
  const int prioUser = getpriority(PRIO_USER, static_cast<id_t>(tid));
  VM_LOG_IF(kLogTrace, "RET[%d] PID[%d] TID[%d] POLICY[%d] PRIORITY[%d][%d][%d][%d]\n\n", ret, pid, tid, policy,
            param.sched_priority, prioProcess, prioGroup, prioUser);
}
