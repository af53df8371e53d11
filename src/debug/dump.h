// dump.h - raw dumps of images and data blocks, and the thread-information line.
#ifndef VMKTRRT_DEBUG_DUMP_H
#define VMKTRRT_DEBUG_DUMP_H

#include <cstdint>

struct SessionContext;

// Where dumps go on the phone. The library does not create it: the device's set-up does.
constexpr const char kDumpDirectory[] = "/data/misc/camera/vemtadc";

// The directory dump_write_raw writes into. A phone build has kDumpDirectory compiled in and no
// way to move it. A host build asks the host platform (vm_host_dump_dir), which answers
// kDumpDirectory unless VM_HOST_DUMP_DIR names another folder: each test process and host run
// gets a fresh one, so no run ever reads an earlier run's files.
const char* dump_directory(void);

enum DumpKind : int32_t {
  kDumpPreviewMain = 0,
  kDumpPreviewSub = 1,
  kDumpDepth = 2,
  kDumpRefocus = 3,
  kDumpRefocusUsing = 4,
  kDumpDepthMain = 5,
  kDumpDepthSub = 6,
  kDumpPreviewOut = 7,
  kDumpEeprom = 8,
};

// dumpFlags bit of each kind.
int32_t dump_kind_bit(int32_t kind);

// True when a writer of this kind should dump now: debugEnable, dumpFlags and the kind's bit.
bool dump_enabled(int32_t kind);

constexpr int32_t kDumpNameCapacity = 256;

// Writes the file name of a dump of the given kind, built from the session's fields. A kind
// outside 0..8 leaves the destination untouched. The name is cut at the capacity.
void dump_build_file_name(char* destination, int32_t capacity, int32_t kind, const SessionContext* ctx);

// Writes size bytes to the dump directory under name; an unopenable file is skipped silently.
void dump_write_raw(const char* name, const void* data, int32_t size);

// Builds the name and writes the dump when dump_enabled(kind).
void dump_if_enabled(int32_t kind, const SessionContext* ctx, const void* data, int32_t size);

// Logs the calling thread's process, thread, scheduling policy and priorities (log flag 0x2).
void dump_thread_info(void);

#endif  // VMKTRRT_DEBUG_DUMP_H
