// entry_points.cpp - the five exported functions: thin shells that read or echo the debug
// switches, time the call when profiling is on and hand the work to the flow controller.
//
// Init, Run, Set_Function and Deinit run on the caller's thread; the caller serialises them.
// Get_Version may be called at any time from any thread.
#include <cstring>

#include "debug/debug_log.h"
#include "flow/flow_controller.h"
#include "flow/session_context.h"
#include "vmKtrRT_SC.h"

namespace {

// Reads one of the Init-time flag words and echoes it, whatever the log flags say.
#define READ_AND_ECHO(word, property, tag)                                                                      \
  do {                                                                                                          \
    word.store(debug_read_property_int(property), std::memory_order_relaxed);                                   \
    __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, "<VEMTA_LOG>[vmKtrRT_SC]<" tag "> %s:%d: %x \n", __func__, \
                        __LINE__, static_cast<unsigned>(word.load(std::memory_order_relaxed)));                 \
  } while (0)

}  // namespace

extern "C" VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Get_Version(char* buffer, uint32_t size) {
  if (buffer == nullptr || size <= 5) return 1;
  memcpy(buffer, VMKTRRT_SC_VERSION, sizeof VMKTRRT_SC_VERSION);
  return 0;
}

extern "C" VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Init(InitData data) {
  VM_LOG("KtrRT_SC Version:[%s]\n", VMKTRRT_SC_VERSION);
  // A running session ends before the switches are read again for the new one.
  flow_controller_end_running_session();
  READ_AND_ECHO(logFlags, "persist.vm.log.ktrrt.sc", "SET LOG");
  READ_AND_ECHO(debugEnable, "persist.vm.ktrrt.sc.debug", "SET DEBUG");
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    READ_AND_ECHO(debugDisplay, "persist.vm.ktrrt.sc.display", "SET DEBUG DISPLAY");
  READ_AND_ECHO(statusInfo, "persist.vm.ktrrt.sc.info", "SET STATUS INFO");

  const long start = debug_time_ms();
  const bool profile = debug_log_on(kLogProfileMask);
  if (profile) VM_PROFILE("++\n");
  const int32_t result = flow_controller_init(data);
  if (profile) VM_PROFILE("-- cost %ld ms\n", debug_elapsed_ms(start));
  return static_cast<uint32_t>(result);
}

extern "C" VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Run(TriggerData data) {
  const long start = debug_time_ms();
  const bool profile = debug_log_on(kLogProfileMask);
  if (profile) VM_PROFILE("++\n");
  const int32_t result = flow_controller_trigger(data);
  if (profile) VM_PROFILE("-- cost %ld ms\n", debug_elapsed_ms(start));
  return static_cast<uint32_t>(result);
}

extern "C" VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Set_Function(uint32_t flag, int32_t enable) {
  const long start = debug_time_ms();
  const bool trace = debug_log_on(kLogTrace);
  if (trace) {
    VM_LOG("++\n");
    VM_LOG("FLAG[0x%02x] Enable[%d]\n", flag, enable);
  }
  const int32_t result = flow_controller_set_function(flag, enable);
  if (trace) VM_LOG("-- cost %ld ms\n", debug_elapsed_ms(start));
  return static_cast<uint32_t>(result);
}

extern "C" VMKTRRT_SC_EXPORT uint32_t vmKtrRT_SC_Deinit(void) {
  const long start = debug_time_ms();
  const bool profile = debug_log_on(kLogProfileMask);
  if (profile) VM_PROFILE("++\n");
  // The tear-down's own result (always 0) is not what the caller sees: with profiling on, the
  // call answers with the last cost line's log result. Callers must not rely on either.
  uint32_t result = static_cast<uint32_t>(flow_controller_deinit());
  if (profile) result = static_cast<uint32_t>(VM_PROFILE("-- cost %ld ms\n", debug_elapsed_ms(start)));
  return result;
}
