// flow_controller.h - the session's life (init, tear-down, feature switches) and the per-frame
// flow. All of these run on the caller's thread.
#ifndef VMKTRRT_FLOW_FLOW_CONTROLLER_H
#define VMKTRRT_FLOW_FLOW_CONTROLLER_H

#include <cstdint>

#include "vmKtrRT_SC.h"

struct SessionContext;

// A running session is torn down first (one line says so), so a second Init re-initialises.
int32_t flow_controller_init(InitData data);
// Tears a running session down with its log line; nothing when none runs. Returns 0.
int32_t flow_controller_end_running_session(void);
int32_t flow_controller_fill_initial_data(SessionContext* ctx, const InitData* data);
int32_t flow_controller_deinit(void);
int32_t flow_controller_set_function(uint32_t flag, int32_t enable);
int32_t flow_controller_trigger(TriggerData data);
// Per-frame intake: focus settings and the main image copy; the sub image copy on depth frames.
void flow_controller_fill_trigger_data(SessionContext* ctx, const TriggerData* data);
void flow_controller_fill_trigger_data_depth_requirement(SessionContext* ctx, const TriggerData* data);
// True while the session runs (state 7).
bool flow_controller_is_running(void);

#endif  // VMKTRRT_FLOW_FLOW_CONTROLLER_H
