// depth_manager.h - the depth worker thread, depth generation per camera layout, chip depth and
// the temporal filter step.
//
// create_thread, trigger and deinit run on the caller's thread; generate_depth and
// do_temporal_filter on the depth worker only; get_depth_from_chip on the caller's thread.
#ifndef VMKTRRT_DEPTH_DEPTH_MANAGER_H
#define VMKTRRT_DEPTH_DEPTH_MANAGER_H

#include <cstdint>

struct SessionContext;
struct DepthWorker;
struct BufferHalf;

// Worker life. create_thread returns 0, 2 (out of memory) or the engine's or filter's set-up
// code; on a non-zero result it has released everything it took.
int32_t depth_manager_create_thread(SessionContext* ctx);
int32_t depth_manager_trigger(SessionContext* ctx);
// True when the worker waits for work (a trigger now would wake it).
bool depth_manager_worker_waiting(SessionContext* ctx);
int32_t depth_manager_deinit(SessionContext* ctx);
void* depth_manager_handler(void* worker);

// Depth engine set-up and one map from the filled main and sub preview slots.
int32_t depth_manager_init_Dpx2_LV(SessionContext* ctx);
int32_t depth_manager_generate_depth(SessionContext* ctx, DepthWorker* worker);
int32_t depth_manager_generate_depth_for_layout_1_2(SessionContext* ctx, DepthWorker* worker, BufferHalf* mainSlot,
                                                    BufferHalf* subSlot, BufferHalf* depthSlot);
int32_t depth_manager_generate_depth_for_layout_3_4(SessionContext* ctx, DepthWorker* worker, BufferHalf* mainSlot,
                                                    BufferHalf* subSlot, BufferHalf* depthSlot);
int32_t depth_manager_generate_depth_dpx2_run(uint16_t* depthOut, int32_t width, int32_t height, uint8_t* mainPlanes,
                                              uint8_t* subPlanes, int32_t vcmMain, int32_t vcmSub);

// Copies the chip's depth map of this frame (size bytes at data) into the depth pair, or into
// the sub preview pair when the temporal filter is on. A null or short map is refused with an
// ERROR line and the frame goes on.
void depth_manager_get_depth_from_chip(SessionContext* ctx, const uint8_t* data, int32_t size);

// Temporal filter.
int32_t depth_manager_init_temporal_filter(SessionContext* ctx);
int32_t depth_manager_do_temporal_filter(SessionContext* ctx, DepthWorker* worker);

// Debug outputs of a freshly published depth map (only with debugEnable): the depth dump and,
// with kDisplayDepthMap, its colouring into the depth debug-display pair, with the focus
// marker when asked and kDisplayFocusMarker is set.
void depth_manager_debug_outputs(SessionContext* ctx, const uint16_t* depth, bool focusMarker);

#endif  // VMKTRRT_DEPTH_DEPTH_MANAGER_H
