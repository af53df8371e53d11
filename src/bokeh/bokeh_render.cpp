// bokeh_render.cpp - the per-frame bokeh step: notices new depth, raises sticky requests to the
// refocus-map worker, wakes it, chooses the map and has the renderer draw the frame in place.
#include "bokeh/bokeh_manager.h"
#include "debug/debug_log.h"
#include "engines/engines.h"
#include "flow/session_context.h"
#include "flow/worker_thread.h"
#include "memory/buffer_manager.h"

int32_t bokeh_manager_trigger(SessionContext* ctx) {
  RefocusWorker* w = &ctx->bokeh.worker;
  BufferHalf* depth = buffer_manager_get_buffer(ctx, kSlotDepth, kSlotFilled);
  if (ctx->mainImageData == nullptr) {
    VM_LOG_IF(kLogTrace, "ERROR: no Main Preview\n");
    return 0;
  }
  bool newDepth = false;
  if (depth != nullptr && (depth->state.load(std::memory_order_acquire) & kSlotSeenByBokeh) == 0) {
    buffer_manager_mark(depth, kSlotSeenByBokeh);
    VM_LOG_IF(kLogTrace, "NEW Depth...\n");
    newDepth = true;
  }
  const long start = debug_time_ms();

  const int32_t policyState = ctx->policyState.load(std::memory_order_relaxed);
  // The flow copies the state just before this call, so the two differ only when this step runs
  // without the flow (the unit tests drive it so); then the next map skips the hold-back.
  if (policyState != ctx->prevPolicyState.load(std::memory_order_relaxed))
    w->forcePublish.store(1, std::memory_order_release);
  if (newDepth) w->pendingReasons.fetch_or(kReasonNewDepth, std::memory_order_acq_rel);
  const int32_t focusX = ctx->focusX.load(std::memory_order_relaxed);
  const int32_t focusY = ctx->focusY.load(std::memory_order_relaxed);
  bool wake = w->pendingReasons.load(std::memory_order_acquire) != 0;
  if (w->lastFocusX.load(std::memory_order_acquire) != focusX ||
      w->lastFocusY.load(std::memory_order_acquire) != focusY) {
    w->pendingReasons.fetch_or(kReasonFocusMoved, std::memory_order_acq_rel);
    wake = true;
  }
  if (wake) {
    const int32_t waiting = worker_thread_waiting(&w->thread) ? 1 : 0;
    VM_LOG_IF(kLogTrace, "gen refocus map is BMD_STATUS_WAITING[%d]...\n", waiting);
    // A busy worker keeps the reasons pending; the next frame tries again.
    if (waiting) worker_thread_signal(&w->thread);
  }

  const uint32_t discard = ctx->depthDiscardRequest.load(std::memory_order_acquire);
  VM_LOG_IF(kLogTrace,
            "vmKtrRT_GLStartV1 preview[%dx%d] refocus[%dx%d] Screen[%dx%d] Focus[%d %d] status[0x%04x] "
            "about[0x%04x]...\n",
            ctx->previewMainWidth2, ctx->previewMainHeight2, session_refocus_width(ctx), session_refocus_height(ctx),
            ctx->screenWidth, ctx->screenHeight, focusX, focusY, static_cast<unsigned>(policyState), discard);

  BufferHalf* map = nullptr;
  int32_t noMapFlag = 1;
  if (policy_state_map_usable(policyState) && discard == 0) {
    // Held through the render so that the worker never writes the map being drawn with.
    map = buffer_manager_hold_filled(ctx, kSlotRefocus);
    noMapFlag = 0;
  }
  DebugHolds holds = {};
  bokeh_manager_debug_display(ctx, &holds);
  const int32_t r = vmKtrRT_GLStartV1(ctx->mainImageData, ctx->mainImagePlane2, map != nullptr ? map->data : nullptr,
                                      focusX, focusY, ctx->fNumber.load(std::memory_order_relaxed), noMapFlag,
                                      ctx->regionLeft, ctx->regionTop, ctx->regionRight, ctx->regionBottom);
  buffer_manager_release(map);
  for (int32_t i = 0; i < holds.count; ++i) buffer_manager_release(holds.held[i]);
  VM_PROFILE_IF("vmKtrRT_GLStartV1 cost %ld ms\n", debug_elapsed_ms(start));
  return r != 0 ? -r : noMapFlag;
}
