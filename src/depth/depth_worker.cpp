// depth_worker.cpp - the depth worker thread: creation, wake-up by trigger, shut-down, and the
// temporal filter step it runs for chip depth.
#include <cstring>

#include "debug/debug_log.h"
#include "debug/dump.h"
#include "depth/depth_manager.h"
#include "engines/engines.h"
#include "flow/result_codes.h"
#include "flow/session_context.h"
#include "flow/worker_thread.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"

namespace {

// Depth maps are at most 4096 x 4096.
constexpr int64_t kMaxDepthScratchSamples = 4096LL * 4096LL;

DepthWorker* workerOf(SessionContext* ctx) {
  return &ctx->depth.worker;
}

// The 16-bit depth scratch for a map of samples samples; false when it cannot be had. A map of
// no samples needs none.
bool reserveDepthScratch(DepthWorker* w, int64_t samples) {
  if (samples <= w->depthScratchSamples) return true;
  if (samples <= 0 || samples > kMaxDepthScratchSamples) return false;
  w->depthScratch = static_cast<uint16_t*>(heap_aligned_allocate(static_cast<size_t>(samples) * sizeof(uint16_t), 16));
  if (w->depthScratch == nullptr) return false;
  w->depthScratchSamples = samples;
  return true;
}

void freePlanes(DepthWorker* w) {
  for (DepthPlaneBlock& b : w->planes) {
    if (b.kind != kPlaneBorrowed) heap_free(b.data);
    b.data = nullptr;
    b.size = 0;
    b.kind = 0;
  }
}

// Ends the thread (if one was started) and releases what creation took.
void stopAndRelease(DepthWorker* w) {
  worker_thread_stop(&w->thread);
  // Only an engine whose set-up succeeded is closed.
  if (w->engineOpen) vmDpx2_Express_Close();
  w->engineOpen = 0;
  freePlanes(w);
  heap_aligned_free(w->scaleScratch);
  w->scaleScratch = nullptr;
  w->scaleScratchBytes = 0;
  heap_aligned_free(w->depthScratch);
  w->depthScratch = nullptr;
  w->depthScratchSamples = 0;
  worker_thread_destroy_sync(&w->thread);
}

}  // namespace

int32_t depth_manager_create_thread(SessionContext* ctx) {
  DepthWorker* w = workerOf(ctx);
  worker_thread_init_sync(&w->thread);
  w->context = ctx;
  const size_t samples = static_cast<size_t>(session_depth_width(ctx)) * static_cast<size_t>(session_depth_height(ctx));
  // Block A also takes the filter's guide luma, which may be larger than the depth planes.
  const size_t guide =
      static_cast<size_t>(session_preview_main_width(ctx)) * static_cast<size_t>(session_preview_main_height(ctx));
  const size_t sizeA = (ctx->depthFromChip && guide > samples * 4) ? guide : samples * 4;
  const size_t sizes[2] = {sizeA, samples * 4};
  for (int i = 0; i < 2; ++i) {
    w->planes[i].data = static_cast<uint8_t*>(heap_allocate(sizes[i]));
    if (w->planes[i].data == nullptr) {
      stopAndRelease(w);
      return kResultOutOfMemory;
    }
    w->planes[i].size = static_cast<int32_t>(sizes[i]);
    w->planes[i].kind = kPlaneOwned;
  }
  // The quarter-turn road works through the worker's depth scratch: reserved once here for the
  // configured map, never per frame.
  if (ctx->depthFromChip == 0) {
    if (!reserveDepthScratch(w, static_cast<int64_t>(samples))) {
      VM_LOG("ERROR: depth scratch of %zu samples not reserved\n", samples);
      stopAndRelease(w);
      return kResultOutOfMemory;
    }
    // The scaler builds three planes of the depth size before turning them into place.
    w->scaleScratch = static_cast<uint8_t*>(heap_aligned_allocate(samples * 3, 16));
    if (w->scaleScratch == nullptr) {
      stopAndRelease(w);
      return kResultOutOfMemory;
    }
    w->scaleScratchBytes = samples * 3;
  }
  if (!worker_thread_start(&w->thread, depth_manager_handler, w))
    VM_LOG_IF(kLogTrace, "Create gen depth thread failed...\n");

  int32_t r = kResultOk;
  if (ctx->depthFromChip) {
    if (ctx->isUsingTemporalFilter) r = depth_manager_init_temporal_filter(ctx);
  } else {
    r = depth_manager_init_Dpx2_LV(ctx);
    w->engineOpen = r == kResultOk ? 1 : 0;
  }
  if (r != kResultOk) {
    // The session will not start: the worker and its memory go again here, since the caller
    // does not shut down what failed to start.
    stopAndRelease(w);
    return r;
  }
  if (debugEnable.load(std::memory_order_relaxed) != 0 && debugDisplay.load(std::memory_order_relaxed) != 0)
    buffer_manager_reset_slot(ctx, kSlotDepthWork);
  return r;
}

void* depth_manager_handler(void* arg) {
  DepthWorker* w = static_cast<DepthWorker*>(arg);
  SessionContext* ctx = w->context;
  VM_LOG_IF(kLogTrace, "Start gen depth handler...\n");
  dump_thread_info();
  const int32_t status = worker_thread_status(&w->thread);
  VM_LOG_IF(kLogTrace, "ID DMD_STATUS_READY[%d]...\n", status & kWorkerReady);
  while (worker_thread_wait(&w->thread)) {
    // A spurious wake-up counts as a trigger: the used marks keep it from repeating work.
    if (ctx->depthFromChip == 0) {
      const int32_t r = depth_manager_generate_depth(ctx, w);
      VM_LOG_IF(kLogTrace, "depth_manager_generate_depth[%d]...\n", r);
    } else if (ctx->isUsingTemporalFilter == 1) {
      const int32_t r = depth_manager_do_temporal_filter(ctx, w);
      VM_LOG_IF(kLogTrace, "depth_manager_do_temporal_filter[%d]...\n", r);
    }
  }
  VM_LOG_IF(kLogTrace, "End gen depth handler...\n");
  return nullptr;
}

int32_t depth_manager_trigger(SessionContext* ctx) {
  WorkerThread* t = &workerOf(ctx)->thread;
  if (!t->syncReady) return 0;
  const int32_t waiting = worker_thread_waiting(t) ? 1 : 0;
  VM_LOG_IF(kLogTrace, "depth_manager_trigger is DMD_STATUS_WAITING[%d]...\n", waiting);
  // No queue: a trigger while the worker is busy is dropped and the published map stays.
  if (waiting) worker_thread_signal(t);
  return 0;
}

bool depth_manager_worker_waiting(SessionContext* ctx) {
  return worker_thread_waiting(&workerOf(ctx)->thread);
}

int32_t depth_manager_deinit(SessionContext* ctx) {
  stopAndRelease(workerOf(ctx));
  return 0;
}

int32_t depth_manager_init_temporal_filter(SessionContext* ctx) {
  char text[kVersionTextSize];
  memset(text, 0, sizeof text);
  vmZu_VersionInfo_Get(text, kVersionTextSize);
  text[kVersionTextSize - 1] = '\0';
  VM_LOG("Zu Version:[%s]\n", text);
  memcpy(ctx->depthUtilityVersion, text, sizeof text);
  const int32_t r = vmZu_TemporalFilterU16_Init(session_preview_main_width(ctx), session_preview_main_height(ctx),
                                                session_depth_width(ctx), session_depth_height(ctx));
  if (r != 0) VM_LOG_IF(kLogTrace, "vmZu_TemporalFilterU16_Init:ERROR[%x]\n", static_cast<unsigned>(r));
  return r;
}

int32_t depth_manager_do_temporal_filter(SessionContext* ctx, DepthWorker* w) {
  BufferHalf* guide = buffer_manager_hold_filled(ctx, kSlotMain);
  BufferHalf* input = buffer_manager_hold_filled(ctx, kSlotSub);
  BufferHalf* out = buffer_manager_get_writable(ctx, kSlotDepth);
  if (guide == nullptr || input == nullptr || out == nullptr) {
    buffer_manager_release(guide);
    buffer_manager_release(input);
    return kResultNoBuffer;
  }
  const long start = debug_time_ms();
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    ctx->depthFrameCounter.store(ctx->previewFrameCounter.load(std::memory_order_relaxed), std::memory_order_relaxed);
  const int32_t mw = session_preview_main_width(ctx);
  const int32_t mh = session_preview_main_height(ctx);
  const int32_t dw = session_depth_width(ctx);
  const int32_t dh = session_depth_height(ctx);
  const size_t guideBytes = static_cast<size_t>(mw) * static_cast<size_t>(mh);
  const size_t depthBytes = static_cast<size_t>(dw) * static_cast<size_t>(dh) * 2;
  // Stable copies: the frame thread may refill the slots while the filter runs.
  memcpy(w->planes[0].data, guide->data, guideBytes);
  memcpy(w->planes[1].data, input->data, depthBytes);
  buffer_manager_release(guide);
  buffer_manager_release(input);
  const uint16_t* in = reinterpret_cast<const uint16_t*>(w->planes[1].data);
  uint16_t* dst = reinterpret_cast<uint16_t*>(out->data);
  int32_t r = 0;
  if (ctx->temporalFilterEnabled.load(std::memory_order_relaxed) == 1)
    r = vmZu_TemporalFilterU16_Run(dst, in, dw, dh, w->planes[0].data, mw, mh);
  else
    memcpy(dst, in, depthBytes);
  VM_PROFILE_IF("vmZu_TemporalFilterU16_Run cost %ld ms\n", debug_elapsed_ms(start));
  // Published whatever the filter answered.
  out->size = static_cast<int32_t>(depthBytes);
  BufferHalf* old = buffer_manager_get_buffer(ctx, kSlotDepth, kSlotFilled);
  buffer_manager_publish(out, old == out ? nullptr : old);
  if (debugEnable.load(std::memory_order_relaxed) != 0) depth_manager_debug_outputs(ctx, dst, false);
  return r;
}
