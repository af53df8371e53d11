// bokeh_manager.h - the refocus-map worker, the per-frame render step and its debug display.
//
// init, create_thread, deinit and trigger run on the caller's thread; the handler and
// generate_refocus_map on the refocus-map worker (every refocus-map generator call is made there).
#ifndef VMKTRRT_BOKEH_BOKEH_MANAGER_H
#define VMKTRRT_BOKEH_BOKEH_MANAGER_H

#include <cstdint>

struct SessionContext;
struct RefocusWorker;
struct BufferHalf;

// 0, 2 (out of memory), 6 (unknown calibration kind) or the renderer's code. On a non-zero
// result everything it took is released again (the caller does not shut it down).
int32_t bokeh_manager_init(SessionContext* ctx);
// Starts the worker; a failure is logged, not returned.
void bokeh_manager_create_thread(SessionContext* ctx);
void* bokeh_manager_handler(void* worker);
int32_t bokeh_manager_generate_refocus_map(SessionContext* ctx, RefocusWorker* worker);
int32_t bokeh_manager_deinit(SessionContext* ctx);
int32_t bokeh_manager_alloc_scratch(SessionContext* ctx, RefocusWorker* worker);
int32_t bokeh_manager_free_scratch(RefocusWorker* worker);

// Renderer image-format code of an image format 0..6; -1 for others (Init refuses them).
int32_t bokeh_manager_renderer_format(int32_t imageFormat);
// Focus point (main-preview pixels) to depth-map pixels as the generator takes it.
void bokeh_manager_focus_to_depth(const SessionContext* ctx, int32_t focusX, int32_t focusY, int32_t* x, int32_t* y);

// One frame: requests to the worker, the choice of map, the debug display and the render.
// Returns the noMapFlag used, the negated renderer code, or 0 without a main preview.
int32_t bokeh_manager_trigger(SessionContext* ctx);

// Buffers the debug display holds through the render call.
struct DebugHolds {
  BufferHalf* held[4];
  int32_t count;
};
// Builds and hands over the debug pictures of this frame (debug display), pastes the sub
// preview, draws the focus marker; the holds are released after the render.
void bokeh_manager_debug_display(SessionContext* ctx, DebugHolds* holds);
// Worker side: the depth histogram, its picture and the generator's statistics.
void bokeh_manager_debug_statistics(SessionContext* ctx, const uint16_t* depth, uint16_t depthMin, uint16_t depthMax,
                                    uint16_t depthTarget);

#endif  // VMKTRRT_BOKEH_BOKEH_MANAGER_H
