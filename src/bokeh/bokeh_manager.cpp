// bokeh_manager.cpp - renderer set-up and close, the refocus-map worker thread and one refocus
// map with its publish and hold-back rule.
#include "bokeh/bokeh_manager.h"

#include <pthread.h>

#include <cstring>

#include "debug/debug_log.h"
#include "debug/dump.h"
#include "engines/engines.h"
#include "flow/result_codes.h"
#include "flow/session_context.h"
#include "flow/worker_thread.h"
#include "image/depth_display.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"
#include "policy/policy_manager.h"

namespace {

// The refocus-map check measures one whole policy plane.
constexpr int32_t kCheckedMapBytes = kPolicyPlaneWidth * kPolicyPlaneHeight;

RefocusWorker* workerOf(SessionContext* ctx) {
  return &ctx->bokeh.worker;
}

void destroySync(SessionContext* ctx, RefocusWorker* w) {
  if (!w->thread.syncReady) return;
  worker_thread_destroy_sync(&w->thread);
  pthread_mutex_destroy(&ctx->bokeh.statsMutex);
}

// Undoes a set-up that will not complete.
int32_t failInit(SessionContext* ctx, RefocusWorker* w, int32_t code) {
  bokeh_manager_free_scratch(w);
  destroySync(ctx, w);
  policy_manager_deinit(ctx);
  return code;
}

// Draws the refocus-map thumbnail from the published map, marker at (x, y) in depth pixels. False only
// when the picture pair is held (the frame thread renders with it): the drawing is then owed.
bool drawThumbnail(SessionContext* ctx, int32_t x, int32_t y) {
  const int32_t display = debugDisplay.load(std::memory_order_relaxed);
  if (debugEnable.load(std::memory_order_relaxed) == 0 || (display & kDisplayRefocusMap) == 0) return true;
  const int32_t rw = session_refocus_width(ctx);
  const int32_t rh = session_refocus_height(ctx);
  int32_t W, H;
  session_caller_depth_size(ctx, &W, &H);
  BufferHalf* map = buffer_manager_hold_filled(ctx, kSlotRefocus);
  if (map == nullptr) return true;  // nothing published to show
  BufferHalf* picture = buffer_manager_get_writable(ctx, kSlotRefocusWork);
  if (picture != nullptr && picture->capacity >= rw * rh * 4) {
    const int32_t opaque = debug_display_overlay(display) ? 1 : 0;
    image_utility_gray_to_display(picture->data, map->data, rw, rh, opaque);
    if ((display & kDisplayFocusMarker) != 0 && W > 0 && H > 0)
      image_utility_draw_marker(picture->data, rw, rh, kMarkerKindDisplay,
                                static_cast<int32_t>(static_cast<int64_t>(rw) * x / W),
                                static_cast<int32_t>(static_cast<int64_t>(rh) * y / H), 3, 1);
    buffer_manager_publish(picture, buffer_manager_get_buffer(ctx, kSlotRefocusWork, kSlotFilled));
  }
  buffer_manager_release(map);
  return picture != nullptr;
}

// Draws a thumbnail that is owed; when it cannot be drawn yet the request stays pending, and the
// frame thread wakes the worker again on the next frame.
void settleThumbnail(SessionContext* ctx, RefocusWorker* w, bool owed) {
  if (owed && !drawThumbnail(ctx, w->thumbnailX, w->thumbnailY))
    w->pendingReasons.fetch_or(kReasonThumbnail, std::memory_order_acq_rel);
}

// A macro, so that the line carries the generating function's name.
#define PROFILE_REFOCUS_MAP(start) VM_PROFILE_IF("vmKtrRT_GenRefocusMap cost %ld ms\n", debug_elapsed_ms(start))

}  // namespace

int32_t bokeh_manager_renderer_format(int32_t imageFormat) {
  switch (imageFormat) {
    case 0:
    case 1:
    case 5:
      return 0;
    case 2:
      return 2;
    case 3:
    case 4:
      return 3;
    case 6:
      return 7;
    default:
      // The session runs with such a format (its frames are refused by the frame copy); the
      // renderer is set up as for the plain 4:2:0 layout.
      return 0;
  }
}

int32_t bokeh_manager_alloc_scratch(SessionContext* ctx, RefocusWorker* w) {
  w->scratchOwned = 0;
  const size_t size =
      static_cast<size_t>(session_refocus_width(ctx)) * static_cast<size_t>(session_refocus_height(ctx));
  w->scratch = static_cast<uint8_t*>(heap_allocate(size));
  if (w->scratch == nullptr) return kResultOutOfMemory;
  w->scratchSize = static_cast<int32_t>(size);
  w->scratchOwned = 1;
  return kResultOk;
}

int32_t bokeh_manager_free_scratch(RefocusWorker* w) {
  if (w->scratchOwned) heap_free(w->scratch);
  w->scratch = nullptr;
  w->scratchOwned = 0;
  return 0;
}

int32_t bokeh_manager_init(SessionContext* ctx) {
  RefocusWorker* w = workerOf(ctx);
  char text[kVersionTextSize];
  memset(text, 0, sizeof text);
  policy_manager_init(ctx);
  vmKtr_GLVersionInfo_Get(text, kVersionTextSize);
  text[kVersionTextSize - 1] = '\0';
  VM_LOG("KtrRT_GL Version:[%s]\n", text);
  memcpy(ctx->rendererVersion, text, sizeof text);

  worker_thread_init_sync(&w->thread);
  pthread_mutex_init(&ctx->bokeh.statsMutex, nullptr);
  w->context = ctx;
  if (bokeh_manager_alloc_scratch(ctx, w) != kResultOk) return failInit(ctx, w, kResultOutOfMemory);

  int32_t r = vmKtrRT_CameraLayout_Set(ctx->cameraLayout);
  if (r != 0) {
    VM_LOG_IF(kLogTrace, "vmKtrRT_CameraLayout_Set:ERROR[%x]\n", static_cast<unsigned>(r));
    return failInit(ctx, w, r);
  }

  const uint8_t* calibA = nullptr;
  const uint8_t* calibB = nullptr;
  int32_t sizeA = 0, sizeB = 0;
  if (ctx->otpKind == 0) {
    calibB = ctx->otpCopy;
    sizeB = ctx->otpSize;
  } else if (ctx->otpKind == 1) {
    calibA = ctx->otpCopy;
    sizeA = ctx->otpSize;
  }
  int32_t W, H;
  session_caller_depth_size(ctx, &W, &H);
  const int32_t format = bokeh_manager_renderer_format(ctx->imageFormat);
  if (ctx->otpKind != 0 && ctx->otpKind != 1) {
    r = kResultBadCalibration;
  } else if (ctx->rendererExtraParam != 0) {
    r = vmKtrRT_GLInitV1_1(calibA, sizeA, calibB, sizeB, session_preview_main_width(ctx),
                           session_preview_main_height(ctx), W, H, session_refocus_width(ctx),
                           session_refocus_height(ctx), ctx->screenWidth, ctx->screenHeight, ctx->isPortrait,
                           ctx->isOffRender, format, ctx->isGB, ctx->rendererExtraParam);
  } else {
    r = vmKtrRT_GLInitV1(calibA, sizeA, calibB, sizeB, session_preview_main_width(ctx),
                         session_preview_main_height(ctx), W, H, session_refocus_width(ctx),
                         session_refocus_height(ctx), ctx->screenWidth, ctx->screenHeight, ctx->isPortrait,
                         ctx->isOffRender, format, ctx->isGB);
  }
  if (r != 0) {
    VM_LOG_IF(kLogTrace, "vmKtrRT_GLInit:ERROR[%x]\n", static_cast<unsigned>(r));
    return failInit(ctx, w, r);
  }
  w->rendererOpen = 1;

  bokeh_manager_create_thread(ctx);
  if (debugEnable.load(std::memory_order_relaxed) != 0 && debugDisplay.load(std::memory_order_relaxed) != 0)
    buffer_manager_reset_slot(ctx, kSlotRefocusWork);
  ctx->bokeh.debugPictureShown = 0;
  vmKtrRT_GLShowDebugPicture(0, 0);
  return 0;
}

void bokeh_manager_create_thread(SessionContext* ctx) {
  RefocusWorker* w = workerOf(ctx);
  // Without a worker no map is ever made and frames render without one.
  if (!worker_thread_start(&w->thread, bokeh_manager_handler, w))
    VM_LOG_IF(kLogTrace, "Create gen refocus map thread failed...\n");
}

void* bokeh_manager_handler(void* arg) {
  RefocusWorker* w = static_cast<RefocusWorker*>(arg);
  SessionContext* ctx = w->context;
  VM_LOG_IF(kLogTrace, "Start gen refocus map handler...\n");
  dump_thread_info();
  const int32_t status = worker_thread_status(&w->thread);
  VM_LOG_IF(kLogTrace, "ID STATUS_READY[%d]...\n", status & kWorkerReady);
  const int32_t initResult = vmKtrRT_GenRefocusMap_init();
  VM_LOG_IF(kLogTrace, "vmKtrRT_GenRefocusMap_init[%d]...\n", initResult);
  while (worker_thread_wait(&w->thread)) {
    // A spurious wake-up is taken as a request.
    const int32_t r = bokeh_manager_generate_refocus_map(ctx, w);
    VM_LOG_IF(kLogTrace, "bokeh_manager_generate_refocus_map[%d]...\n", r);
  }
  // The generator is closed only when it was opened.
  if (initResult == 0) vmKtrRT_GenRefocusMap_Deinit();
  VM_LOG_IF(kLogTrace, "End gen refocus map handler...\n");
  return nullptr;
}

void bokeh_manager_focus_to_depth(const SessionContext* ctx, int32_t focusX, int32_t focusY, int32_t* x, int32_t* y) {
  int32_t W, H;
  session_caller_depth_size(ctx, &W, &H);
  const int32_t pw = session_preview_main_width(ctx);
  const int32_t ph = session_preview_main_height(ctx);
  const int32_t dx = pw > 0 ? static_cast<int32_t>(static_cast<int64_t>(focusX) * W / pw) : 0;
  const int32_t dy = ph > 0 ? static_cast<int32_t>(static_cast<int64_t>(focusY) * H / ph) : 0;
  if (ctx->isPortrait) {
    // Both turned coordinates are measured against H: not a plain quarter turn for a
    // non-square map. The generator reads the focus point in this frame: a plain turn would
    // focus elsewhere on such maps.
    *x = dy;
    *y = H - dx;
  } else {
    *x = dx;
    *y = dy;
  }
}

namespace {

// The engine call for the session's depth source; the depth statistics of the debug display
// come from what the generator measured.
int32_t runGenerator(SessionContext* ctx, const BufferHalf* depth, BufferHalf* out, int32_t x, int32_t y) {
  uint16_t depthMin = 0, depthMax = 0, depthTarget = 0;
  const uint16_t* depthMap = reinterpret_cast<const uint16_t*>(depth->data);
  const int32_t r =
      ctx->depthFromChip == 1
          ? vmKtrRT_GenRefocusMap_VX4810_DispartyBase(out->data, depthMap, x, y, &depthMin, &depthMax, &depthTarget)
          : vmKtrRT_GenRefocusMap(out->data, depthMap, x, y, &depthMin, &depthMax, &depthTarget);
  if (debugEnable.load(std::memory_order_relaxed) != 0 &&
      (debugDisplay.load(std::memory_order_relaxed) & kDisplayStatistics) != 0)
    bokeh_manager_debug_statistics(ctx, depthMap, depthMin, depthMax, depthTarget);
  return r;
}

// Whether a new map replaces the published one `old` (null: none is published). Always while the
// scene moves or when a publish is forced; in a stable scene a map like the published one is
// thrown away, and a different one only after more than the policy's count of them in a row.
bool refocusShouldPublish(SessionContext* ctx, RefocusWorker* w, const BufferHalf* out, const BufferHalf* old) {
  if (old == nullptr) return true;
  if (w->forcePublish.load(std::memory_order_acquire) == 1) {
    w->forcePublish.store(0, std::memory_order_release);
    return true;
  }
  const int32_t rw = session_refocus_width(ctx);
  const int32_t rh = session_refocus_height(ctx);
  const int32_t limit = ctx->policy.refocusCountLimit;
  // The check reads a whole policy plane: smaller maps never count as similar.
  const bool similar =
      limit > 0 && rw * rh >= kCheckedMapBytes && policy_manager_refocus_map_check(out->data, old->data, rw, rh) == 1;
  if (ctx->policyState.load(std::memory_order_relaxed) != kPolicyStable) return true;
  if (similar) return false;  // thrown away; the count is left as it is
  ctx->bokeh.refocusCount += 1;
  return ctx->bokeh.refocusCount > limit;
}

}  // namespace

int32_t bokeh_manager_generate_refocus_map(SessionContext* ctx, RefocusWorker* w) {
  const long start = debug_time_ms();
  const uint32_t reasons = w->pendingReasons.exchange(0, std::memory_order_acq_rel);
  const bool thumbnailOwed = (reasons & kReasonThumbnail) != 0;
  if (reasons == kReasonThumbnail) {
    // Only the thumbnail of the published map is owed: no new map, no counter moves.
    settleThumbnail(ctx, w, true);
    return 0;
  }
  BufferHalf* depth = buffer_manager_hold_filled(ctx, kSlotDepth);
  BufferHalf* out = buffer_manager_get_writable(ctx, kSlotRefocus);
  const int32_t focusX = ctx->focusX.load(std::memory_order_relaxed);
  const int32_t focusY = ctx->focusY.load(std::memory_order_relaxed);
  w->lastFocusX.store(focusX, std::memory_order_release);
  w->lastFocusY.store(focusY, std::memory_order_release);
  if (depth == nullptr) {
    VM_LOG_IF(kLogTrace, "ERROR: No Depth\n");
    settleThumbnail(ctx, w, thumbnailOwed);
    PROFILE_REFOCUS_MAP(start);
    return 0;
  }
  if (out == nullptr) {
    // Both map buffers are held: the request stays pending and a later frame retries it.
    buffer_manager_release(depth);
    w->pendingReasons.fetch_or(reasons, std::memory_order_acq_rel);
    PROFILE_REFOCUS_MAP(start);
    return 0;
  }
  int32_t x, y;
  bokeh_manager_focus_to_depth(ctx, focusX, focusY, &x, &y);
  int32_t W, H;
  session_caller_depth_size(ctx, &W, &H);
  VM_LOG_IF(kLogTrace, "Focus Point touchP[%dx%d] depthP[%dx%d] preview[%dx%d] depth[%dx%d]\n", focusX, focusY, x, y,
            session_preview_main_width(ctx), session_preview_main_height(ctx), W, H);

  const int32_t r = runGenerator(ctx, depth, out, x, y);
  buffer_manager_release(depth);
  if (r != 0) {
    settleThumbnail(ctx, w, thumbnailOwed);
    PROFILE_REFOCUS_MAP(start);
    return r;  // the new buffer stays free, the published map stays
  }

  const bool debug = debugEnable.load(std::memory_order_relaxed) != 0;
  if ((ctx->depthDiscardRequest.load(std::memory_order_acquire) & kDiscardRefocus) != 0) {
    ctx->depthDiscardRequest.fetch_and(~kDiscardRefocus, std::memory_order_acq_rel);
    buffer_manager_reset_slot(ctx, kSlotRefocus);
    if (debug && debugDisplay.load(std::memory_order_relaxed) != 0) buffer_manager_reset_slot(ctx, kSlotRefocusWork);
    return kResultDiscarded;
  }
  if (debug) ctx->refocusFrameCounter.store(ctx->depthFrameCounter.load(std::memory_order_relaxed));

  BufferHalf* old = buffer_manager_get_buffer(ctx, kSlotRefocus, kSlotFilled);
  if (old == out) old = nullptr;
  const bool publish = refocusShouldPublish(ctx, w, out, old);
  if (publish) {
    ctx->bokeh.refocusCount = 0;
    buffer_manager_publish(out, old);
  }

  if (debug) {
    if (publish) ctx->bokeh.refocusUsingCounter.store(ctx->refocusFrameCounter.load());
    const int32_t kind =
        ctx->bokeh.refocusUsingCounter.load() == ctx->refocusFrameCounter.load() ? kDumpRefocusUsing : kDumpRefocus;
    // The slot's size word keeps its allocated half size: the refocus dumps write that many bytes.
    dump_if_enabled(kind, ctx, out->data, out->size);
    w->thumbnailX = x;
    w->thumbnailY = y;
    settleThumbnail(ctx, w, true);
  }
  PROFILE_REFOCUS_MAP(start);
  return 0;
}

int32_t bokeh_manager_deinit(SessionContext* ctx) {
  RefocusWorker* w = workerOf(ctx);
  worker_thread_stop(&w->thread);
  // After the worker has ended and closed its generator; only a renderer that was set up.
  if (w->rendererOpen) vmKtrRT_GLClose();
  w->rendererOpen = 0;
  policy_manager_deinit(ctx);
  bokeh_manager_free_scratch(w);
  destroySync(ctx, w);
  return 0;
}
