// flow_controller.cpp - session start-up, tear-down, feature switches and the per-frame flow.
#include "flow/flow_controller.h"

#include <cstring>

#include "bokeh/bokeh_manager.h"
#include "debug/debug_log.h"
#include "debug/dump.h"
#include "depth/depth_manager.h"
#include "engines/engines.h"
#include "flow/result_codes.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"
#include "memory/memory_manager.h"
#include "policy/policy_manager.h"

SessionContext g_session;

namespace {

int32_t onlyOne(int32_t v) {
  return v == 1 ? 1 : 0;
}

void releaseOtp(SessionContext* ctx) {
  heap_free(ctx->otpCopy);
  ctx->otpCopy = nullptr;
}

// Heap blocks live when the running session began: tear-down must bring the count back.
int64_t g_blocksBeforeSession = 0;

// Bytes of a w x h slot of bpp bytes a pixel, both buffers, fit 32 bits. Sizes are not negative
// here, so w x h fits 62 bits; comparing it against the quotient keeps the rest from overflowing.
bool slotFits(int32_t w, int32_t h, int32_t bpp) {
  return static_cast<int64_t>(w) * h <= (INT32_MAX - 64) / (2 * static_cast<int64_t>(bpp));
}

// Everything is taken as given except what would make the library itself compute a buffer
// size that is negative or beyond 32 bits, and so read or write outside its own buffers. Zero
// sizes, odd sizes, unknown image formats (the frame copy refuses those frames) and a
// calibration block of 0 bytes all run. The refused field, its value and why are written out.
bool initDataUsable(const InitData* d, const char** field, int32_t* value, const char** why) {
  auto refuse = [&](const char* name, int32_t v, const char* reason) {
    *field = name;
    *value = v;
    *why = reason;
    return false;
  };
  const struct {
    const char* name;
    int32_t value;
  } sizes[] = {{"previewMainWidth", d->previewMainWidth},
               {"previewMainHeight", d->previewMainHeight},
               {"previewSubWidth", d->previewSubWidth},
               {"previewSubHeight", d->previewSubHeight},
               {"depthWidth", d->depthWidth},
               {"depthHeight", d->depthHeight}};
  for (const auto& f : sizes)
    if (f.value < 0) return refuse(f.name, f.value, "negative size: its buffer sizes would be negative");
  const char* const tooLarge = "buffer bytes would overflow 32 bits";
  if (!slotFits(d->previewMainWidth, d->previewMainHeight, 2))
    return refuse("previewMainWidth", d->previewMainWidth, tooLarge);
  if (!slotFits(d->previewSubWidth, d->previewSubHeight, 2))
    return refuse("previewSubWidth", d->previewSubWidth, tooLarge);
  // The depth working buffer takes 4 bytes a sample.
  if (!slotFits(d->depthWidth, d->depthHeight, 4)) return refuse("depthWidth", d->depthWidth, tooLarge);
  if ((d->otpData != nullptr || d->otpDataAlt != nullptr) && d->otpSize < 0)
    return refuse("otpSize", d->otpSize, "negative size: the calibration copy would overflow");
  return true;
}

bool depthWorkerWanted(const SessionContext* ctx) {
  return ctx->depthFromChip == 0 || ctx->isUsingTemporalFilter == 1;
}

// Region rules, tested in this order; a region touching the right or bottom edge is accepted.
bool regionAccepted(const SessionContext* ctx, int32_t left, int32_t right, int32_t top, int32_t bottom) {
  if (top < 0 || left < 0) return false;
  if (bottom > session_preview_main_height(ctx) || top > bottom) return false;
  if (right > session_preview_main_width(ctx) || left > right) return false;
  if (top == 0 && bottom == 0) return false;
  if (left == 0 && right == 0) return false;
  return true;
}

}  // namespace

int32_t flow_controller_fill_initial_data(SessionContext* ctx, const InitData* d) {
  VM_LOG_IF(kLogInfo,
            "Screen[%dx%d] Preview Main[%dx%d] Preview Sub[%dx%d] depth[%dx%d] OTP[%d] CameraLayout[%d] "
            "OffRender[%d] isPortrait[%d] isGB[%d] isFrontCam[%d] ImageFormat[%d] ishighDepthQuality[%d] "
            "isUsingTemporalFilter[%d] isUsingDistanceMap[%d]\n\n",
            d->screenWidth, d->screenHeight, d->previewMainWidth, d->previewMainHeight, d->previewSubWidth,
            d->previewSubHeight, d->depthWidth, d->depthHeight, d->otpSize, static_cast<int32_t>(d->cameraLayout),
            d->OffRender, d->isPortrait, d->isGB, d->isFrontCam, d->ImageFormat, d->ishighDepthQuality,
            d->isUsingTemporalFilter, d->isUsingDistanceMap);

  ctx->screenWidth = d->screenWidth;
  ctx->screenHeight = d->screenHeight;
  ctx->previewMainStride = d->previewMainStride;
  ctx->previewMainScanline = d->previewMainScanline;
  ctx->previewSubStride = d->previewSubStride;
  ctx->previewSubScanline = d->previewSubScanline;
  ctx->slots[kSlotMain].width = d->previewMainWidth;
  ctx->slots[kSlotMain].height = d->previewMainHeight;
  ctx->previewMainWidth2 = d->previewMainWidth;
  ctx->previewMainHeight2 = d->previewMainHeight;
  ctx->slots[kSlotSub].width = d->previewSubWidth;
  ctx->slots[kSlotSub].height = d->previewSubHeight;
  // The whole layout word decides the turn: 0x13 (chip flag with layout 3) is not turned.
  const bool turned = session_layout_turns_depth(static_cast<int32_t>(d->cameraLayout));
  ctx->slots[kSlotDepth].width = turned ? d->depthHeight : d->depthWidth;
  ctx->slots[kSlotDepth].height = turned ? d->depthWidth : d->depthHeight;
  ctx->depthSizeTurned = turned ? 1 : 0;
  const bool chipBit = (d->cameraLayout & 0x10) != 0;
  ctx->slots[kSlotRefocus].width = chipBit ? d->depthWidth : kPolicyPlaneWidth;
  ctx->slots[kSlotRefocus].height = chipBit ? d->depthHeight : kPolicyPlaneHeight;

  const uint8_t* otp = d->otpData;
  ctx->otpKind = 0;
  if (otp == nullptr) {
    otp = d->otpDataAlt;
    ctx->otpKind = 1;
  }
  if (otp == nullptr) return kResultBadCalibration;
  if (dump_enabled(kDumpEeprom)) dump_write_raw("eeprom.raw", otp, d->otpSize);
  ctx->otpSize = d->otpSize;
  ctx->otpCopy = static_cast<uint8_t*>(heap_allocate(d->otpSize > 0 ? static_cast<size_t>(d->otpSize) : 0));
  if (ctx->otpCopy == nullptr) return kResultOutOfMemory;
  if (d->otpSize > 0) memcpy(ctx->otpCopy, otp, static_cast<size_t>(d->otpSize));

  if (d->rendererExtraParam != 0) ctx->rendererExtraParam = d->rendererExtraParam;
  ctx->isOffRender = onlyOne(d->OffRender);
  ctx->isPortrait = onlyOne(d->isPortrait);
  ctx->isGB = onlyOne(d->isGB);
  ctx->isFrontCam = onlyOne(d->isFrontCam);
  ctx->imageFormat = d->ImageFormat;
  ctx->isUsingTemporalFilter = onlyOne(d->isUsingTemporalFilter);
  ctx->isUsingDistanceMap = onlyOne(d->isUsingDistanceMap);
  ctx->temporalFilterEnabled.store(ctx->isUsingTemporalFilter, std::memory_order_relaxed);
  ctx->ishighDepthQuality = onlyOne(d->ishighDepthQuality);
  ctx->otpTag = 2;

  ctx->depthFromChip = chipBit && (d->cameraLayout & 0x60) != 0 ? 1 : 0;
  if (ctx->depthFromChip) ctx->chipDepthFormat = (d->cameraLayout & 0x20) != 0 ? 1 : 0;
  ctx->cameraLayout = static_cast<int32_t>(d->cameraLayout & 0xF);

  char* from = ctx->versionText;
  memset(static_cast<void*>(from), 0,
         sizeof(SessionContext) - static_cast<size_t>(from - reinterpret_cast<char*>(ctx)));
  memcpy(ctx->versionText, VMKTRRT_SC_VERSION, sizeof VMKTRRT_SC_VERSION);
  return kResultOk;
}

bool flow_controller_is_running(void) {
  return g_session.state.load() == kStateRunning;
}

int32_t flow_controller_end_running_session(void) {
  if (g_session.state.load() != kStateRunning) return 0;
  // A HAL re-initialises on a resolution change: the running session goes first, in order.
  VM_LOG("Init while running: session torn down and initialised again\n");
  return flow_controller_deinit();
}

int32_t flow_controller_init(InitData data) {
  SessionContext* ctx = &g_session;
  flow_controller_end_running_session();
  g_blocksBeforeSession = heap_live_blocks();
  ctx->state.store(kStateInitialising);
  vemta_memory_manager_init();
  dump_thread_info();
  const char* field = "";
  const char* why = "";
  int32_t value = 0;
  if (!initDataUsable(&data, &field, &value, &why)) {
    VM_LOG("ERROR: InitData %s [%d] refused: %s\n", field, value, why);
    ctx->state.store(kStateRejected);
    return kResultRefused;
  }
  int32_t r = flow_controller_fill_initial_data(ctx, &data);
  if (r != kResultOk) {
    ctx->state.store(kStateRejected);
    return r;
  }
  r = buffer_manager_allocate(ctx);
  if (r == kResultOk && !buffer_manager_all_allocated(ctx)) r = kResultOutOfMemory;
  if (r != kResultOk) {
    buffer_manager_free(ctx);
    releaseOtp(ctx);
    ctx->state.store(kStateBufferFailed);
    return r;
  }
  const bool worker = depthWorkerWanted(ctx);
  if (worker) {
    r = depth_manager_create_thread(ctx);
    if (r != 0) {
      buffer_manager_free(ctx);
      releaseOtp(ctx);
      ctx->state.store(kStateDepthWorkerFailed);
      return r;
    }
  }
  r = bokeh_manager_init(ctx);
  if (r != 0) {
    if (worker) depth_manager_deinit(ctx);
    buffer_manager_free(ctx);
    releaseOtp(ctx);
    ctx->state.store(kStateBokehFailed);
    return r;
  }
  ctx->state.store(kStateRunning);
  return kResultOk;
}

int32_t flow_controller_deinit(void) {
  SessionContext* ctx = &g_session;
  const int32_t state = ctx->state.load();
  if (state != kStateRunning) {
    VM_LOG("ERROR...[%d]\n", state);
    return 0;
  }
  ctx->state.store(kStateClosed);
  if (depthWorkerWanted(ctx)) depth_manager_deinit(ctx);
  bokeh_manager_deinit(ctx);
  buffer_manager_free(ctx);
  releaseOtp(ctx);
  vemta_memory_manager_deinit();
  // Everything the session took is back: a block still out is a leak of this library.
  const int64_t kept = heap_live_blocks() - g_blocksBeforeSession;
  if (kept != 0) VM_LOG("ERROR: %lld heap blocks not given back at Deinit\n", static_cast<long long>(kept));
  return 0;
}

int32_t flow_controller_set_function(uint32_t flag, int32_t enable) {
  SessionContext* ctx = &g_session;
  const int32_t state = ctx->state.load();
  if (state != kStateRunning) {
    VM_LOG("ERROR...[%d]\n", state);
    return 0;
  }
  switch (flag) {
    case VMKTRRT_SC_FLAG_RENDER_EFFECT: {
      KtrRTParameter parameter;
      memset(&parameter, 0, sizeof parameter);
      parameter.word[4] = enable != 0 ? 1 : 0;
      return vmKtrRT_SetParameter(2, parameter);
    }
    case VMKTRRT_SC_FLAG_TEMPORAL_FILTER:
      ctx->temporalFilterEnabled.store(enable != 0 ? 1 : 0, std::memory_order_relaxed);
      return 0;
    default:
      return kResultRefused;
  }
}

void flow_controller_fill_trigger_data(SessionContext* ctx, const TriggerData* d) {
  // A buffer nobody reads: the depth worker may still be reading one. When it holds the free
  // one, the older filled frame is replaced instead, so that every frame is copied and published.
  BufferHalf* target = buffer_manager_get_writable_or_reclaim(ctx, kSlotMain);
  BufferHalf* filled = buffer_manager_get_buffer(ctx, kSlotMain, kSlotFilled);
  VM_LOG_IF(kLogInfo, "vcmMain[%d] vcmSub[%d] fnumber[%f] Region left[%d] right[%d] top[%d] bottom[%d]\n\n", d->vcmMain,
            d->vcmSub, static_cast<double>(d->fnumber), d->regionLeft, d->regionRight, d->regionTop, d->regionBottom);
  ctx->vcmMain.store(d->vcmMain, std::memory_order_relaxed);
  ctx->vcmSub.store(d->vcmSub, std::memory_order_relaxed);
  ctx->fNumber.store(d->fnumber, std::memory_order_relaxed);
  if (regionAccepted(ctx, d->regionLeft, d->regionRight, d->regionTop, d->regionBottom)) {
    ctx->regionLeft = d->regionLeft;
    ctx->regionRight = d->regionRight;
    ctx->regionTop = d->regionTop;
    ctx->regionBottom = d->regionBottom;
  } else {
    VM_LOG("ERROR!!! Region left[%d] right[%d] top[%d] bottom[%d] SKIP...\n", d->regionLeft, d->regionRight,
           d->regionTop, d->regionBottom);
  }
  ctx->focusX.store(ctx->regionLeft + ((ctx->regionRight - ctx->regionLeft) >> 1), std::memory_order_relaxed);
  ctx->focusY.store(ctx->regionTop + ((ctx->regionBottom - ctx->regionTop) >> 1), std::memory_order_relaxed);
  if (target != nullptr)
    buffer_manager_copy_buffer_from_trigger(target, &d->mainImage, ctx->imageFormat, session_preview_main_width(ctx),
                                            session_preview_main_height(ctx), ctx->previewMainStride,
                                            ctx->previewMainScanline);
  ctx->mainImageData = d->mainImage.data;
  ctx->mainImagePlane2 = d->mainImage.plane2;
  ctx->mainImageSize = static_cast<uint32_t>(d->mainImage.size);
  ctx->mainImageExtra3 = d->mainImage.extra3;
  ctx->mainImageExtra4 = d->mainImage.extra4;
  if (debugEnable.load(std::memory_order_relaxed) != 0) {
    ctx->previewFrameCounter.fetch_add(1, std::memory_order_relaxed);
    if (target != nullptr) dump_if_enabled(kDumpPreviewMain, ctx, target->data, target->size);
  }
  // Not silent: the line carries the counter the frame's dump would have had.
  if (target == nullptr)
    VM_LOG("ERROR: main preview not copied: both buffers held [%d]\n",
           ctx->previewFrameCounter.load(std::memory_order_relaxed));
  // Published even when the copy was refused: the frame goes on with the buffer's old content.
  if (target != nullptr) buffer_manager_publish(target, filled == target ? nullptr : filled);
}

void flow_controller_fill_trigger_data_depth_requirement(SessionContext* ctx, const TriggerData* d) {
  BufferHalf* target = buffer_manager_get_writable_or_reclaim(ctx, kSlotSub);
  BufferHalf* filled = buffer_manager_get_buffer(ctx, kSlotSub, kSlotFilled);
  VM_LOG_IF(kLogInfo, "Get Sub Prreview\n");
  if (target == nullptr) {
    VM_LOG("ERROR: sub preview not copied: both buffers held [%d]\n",
           ctx->previewFrameCounter.load(std::memory_order_relaxed));
    return;
  }
  buffer_manager_copy_buffer_from_trigger(target, &d->subImage, ctx->imageFormat, session_preview_sub_width(ctx),
                                          session_preview_sub_height(ctx), ctx->previewSubStride,
                                          ctx->previewSubScanline);
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    dump_if_enabled(kDumpPreviewSub, ctx, target->data, target->size);
  buffer_manager_publish(target, filled == target ? nullptr : filled);
}

int32_t flow_controller_trigger(TriggerData data) {
  SessionContext* ctx = &g_session;
  const int32_t state = ctx->state.load();
  if (state != kStateRunning) {
    VM_LOG("ERROR...[%d]\n", state);
    return 0;
  }
  // Re-read every frame so that dumps can be switched on while the camera runs.
  if (debugEnable.load(std::memory_order_relaxed) != 0) {
    dumpFlags.store(debug_read_property_int("persist.vm.ktrrt.sc.dump"), std::memory_order_relaxed);
    __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DUMP> %s:%d: %x \n", __func__,
                        __LINE__, static_cast<unsigned>(dumpFlags.load(std::memory_order_relaxed)));
  }
  debugFlag.store(debug_read_property_int("persist.vm.ktrrt.sc.dflag"), std::memory_order_relaxed);
  __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG FLAG> %s:%d: %x \n", __func__,
                      __LINE__, static_cast<unsigned>(debugFlag.load(std::memory_order_relaxed)));

  flow_controller_fill_trigger_data(ctx, &data);
  const int32_t decision = policy_manager_update(ctx);
  // Unsigned on purpose: decisions 1 and 2 ask for depth, every other value skips it.
  const bool wantDepth = static_cast<uint32_t>(decision) - 1u <= 1u;
  if (ctx->depthFromChip == 1) {
    if (wantDepth) {
      depth_manager_get_depth_from_chip(ctx, data.subImage.data, data.subImage.size);
      if (ctx->isUsingTemporalFilter == 1) depth_manager_trigger(ctx);
    }
  } else if (wantDepth) {
    // The sub frame is taken on every frame that asks for depth, busy worker or not: its dumps
    // and the frame a worker finds when it wakes stay those of the latest depth frame.
    flow_controller_fill_trigger_data_depth_requirement(ctx, &data);
    depth_manager_trigger(ctx);
  }
  const int32_t policyState = ctx->policyState.load(std::memory_order_relaxed);
  // The scene came loose: the maps in the making are stale.
  if (policyState == kPolicyUnsettled && ctx->prevPolicyState.load(std::memory_order_relaxed) != kPolicyUnsettled &&
      ctx->depthFromChip == 0)
    ctx->depthDiscardRequest.fetch_or(kDiscardBoth, std::memory_order_acq_rel);
  ctx->prevPolicyState.store(policyState, std::memory_order_relaxed);

  const int32_t r = bokeh_manager_trigger(ctx);
  VM_LOG_IF(kLogTrace, "Bokeh RET[%d]\n", r);
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    dump_if_enabled(kDumpPreviewOut, ctx, data.mainImage.data, data.mainImage.size);
  return r;
}
