// depth_generation.cpp - one depth map per camera layout from the depth engine, chip depth, and
// the debug outputs of a published map.
#include <cstring>

#include "debug/debug_log.h"
#include "debug/dump.h"
#include "depth/depth_manager.h"
#include "engines/engines.h"
#include "flow/result_codes.h"
#include "flow/session_context.h"
#include "image/depth_display.h"
#include "image/image_utility.h"
#include "memory/buffer_manager.h"

namespace {

int32_t depthSamples(const SessionContext* ctx) {
  return session_depth_width(ctx) * session_depth_height(ctx);  // bounded at Init (4096 x 4096)
}

// The three planes of a worker block.
void scaleInto(const SessionContext* ctx, const DepthWorker* w, const BufferHalf* frame, int32_t srcWidth,
               int32_t srcHeight, const DepthPlaneBlock& block, int32_t dstWidth, int32_t dstHeight, PlaneTurn turn) {
  const size_t n = static_cast<size_t>(session_depth_width(ctx)) * static_cast<size_t>(session_depth_height(ctx));
  image_utility_nv12_scale_rotate(frame->data, block.data, block.data + n, block.data + 2 * n, srcWidth, srcHeight,
                                  srcWidth, srcHeight, dstWidth, dstHeight, turn, w->scaleScratch,
                                  w->scaleScratchBytes);
}

void dumpEngineInputs(const SessionContext* ctx, const DepthWorker* w) {
  dump_if_enabled(kDumpDepthMain, ctx, w->planes[0].data, w->planes[0].size);
  dump_if_enabled(kDumpDepthSub, ctx, w->planes[1].data, w->planes[1].size);
}

// Scales both previews into the worker's planes and lets go of the input frames: from here on
// the engine reads the worker's own copies only.
void prepareInputs(SessionContext* ctx, DepthWorker* w, BufferHalf* mainSlot, BufferHalf* subSlot, int32_t dstWidth,
                   int32_t dstHeight, PlaneTurn turn) {
  scaleInto(ctx, w, mainSlot, session_preview_main_width(ctx), session_preview_main_height(ctx), w->planes[0], dstWidth,
            dstHeight, turn);
  scaleInto(ctx, w, subSlot, session_preview_sub_width(ctx), session_preview_sub_height(ctx), w->planes[1], dstWidth,
            dstHeight, turn);
  buffer_manager_release(mainSlot);
  buffer_manager_release(subSlot);
}

}  // namespace

int32_t depth_manager_init_Dpx2_LV(SessionContext* ctx) {
  char text[kVersionTextSize];
  memset(text, 0, sizeof text);
  vmDpx2_VersionInfo_Get_LV(text, kVersionTextSize);
  text[kVersionTextSize - 1] = '\0';
  VM_LOG("Dpx2_LV Version:[%s]\n", text);
  memcpy(ctx->depthEngineVersion, text, sizeof text);

  const int32_t layoutResult = vmDpx2_CameraLayout_Set_LV(ctx->cameraLayout);
  vmDpx2RT_FieldofDepth_Set(ctx->ishighDepthQuality ? 2 : 1);
  if (layoutResult != 0) return layoutResult;

  int32_t r;
  if (ctx->otpKind == 1)
    r = vmDpx2_Express_Init(ctx->otpCopy, ctx->otpSize, session_depth_width(ctx), session_depth_height(ctx), nullptr,
                            0);
  else if (ctx->otpKind == 0)
    r = vmDpx2_Express_Init(nullptr, 0, session_depth_width(ctx), session_depth_height(ctx), ctx->otpCopy,
                            ctx->otpSize);
  else
    r = kResultBadCalibration;
  if (r != 0) VM_LOG_IF(kLogTrace, "vmDpx2_Express_Init:ERROR[%x]\n", static_cast<unsigned>(r));
  return r;
}

int32_t depth_manager_generate_depth_dpx2_run(uint16_t* depthOut, int32_t width, int32_t height, uint8_t* mainPlanes,
                                              uint8_t* subPlanes, int32_t vcmMain, int32_t vcmSub) {
  const long start = debug_time_ms();
  const size_t n = static_cast<size_t>(width) * static_cast<size_t>(height);
  DpxImage mainImage;
  DpxImage subImage;
  memset(&mainImage, 0, sizeof mainImage);
  memset(&subImage, 0, sizeof subImage);
  mainImage.format = subImage.format = DPX_IMAGE_FORMAT_YUV444_PLANAR;
  for (size_t p = 0; p < 3; ++p) {
    mainImage.plane[p] = mainPlanes + p * n;
    subImage.plane[p] = subPlanes + p * n;
  }
  const int32_t r = vmDpx2_Run_Express(depthOut, &mainImage, &subImage, vcmMain, vcmSub);
  VM_PROFILE_IF("vmDpx2_Run_Express cost %ld ms\n", debug_elapsed_ms(start));
  return r;
}

int32_t depth_manager_generate_depth_for_layout_1_2(SessionContext* ctx, DepthWorker* w, BufferHalf* mainSlot,
                                                    BufferHalf* subSlot, BufferHalf* depthSlot) {
  const int32_t dw = session_depth_width(ctx), dh = session_depth_height(ctx);
  const PlaneTurn turn = plane_turn_from_layout(ctx->cameraLayout);
  long start = debug_time_ms();
  prepareInputs(ctx, w, mainSlot, subSlot, dw, dh, turn);
  if (debug_log_on(kLogStepCost))
    VM_PROFILE("image_utility_nv12 scaling and rotate cost %ld ms\n", debug_elapsed_ms(start));
  dumpEngineInputs(ctx, w);
  uint16_t* out = reinterpret_cast<uint16_t*>(depthSlot->data);
  const int32_t r = depth_manager_generate_depth_dpx2_run(out, dw, dh, w->planes[0].data, w->planes[1].data,
                                                          ctx->vcmMain.load(std::memory_order_relaxed),
                                                          ctx->vcmSub.load(std::memory_order_relaxed));
  if (turn == TURN_HALF) {
    start = debug_time_ms();
    image_utility_rotate180(out, dw, dh);
    if (debug_log_on(kLogStepCost)) VM_PROFILE("image_utility rotate180 cost %ld ms\n", debug_elapsed_ms(start));
  }
  return r;
}

int32_t depth_manager_generate_depth_for_layout_3_4(SessionContext* ctx, DepthWorker* w, BufferHalf* mainSlot,
                                                    BufferHalf* subSlot, BufferHalf* depthSlot) {
  const int32_t dw = session_depth_width(ctx), dh = session_depth_height(ctx);
  // A front camera in layout 4 is mounted like layout 3.
  const int32_t layout = (ctx->cameraLayout == 4 && ctx->isFrontCam) ? 3 : ctx->cameraLayout;
  const PlaneTurn turn = plane_turn_from_layout(layout);
  long start = debug_time_ms();
  // Scaled in the caller's orientation (dh wide, dw tall), then turned to the engine's.
  prepareInputs(ctx, w, mainSlot, subSlot, dh, dw, turn);
  VM_PROFILE_IF("image_utility_nv12 scaling and rotate cost %ld ms\n", debug_elapsed_ms(start));
  dumpEngineInputs(ctx, w);
  uint16_t* scratch = w->depthScratch;
  const int32_t r = depth_manager_generate_depth_dpx2_run(scratch, dw, dh, w->planes[0].data, w->planes[1].data,
                                                          ctx->vcmMain.load(std::memory_order_relaxed),
                                                          ctx->vcmSub.load(std::memory_order_relaxed));
  start = debug_time_ms();
  image_utility_rotate(reinterpret_cast<uint16_t*>(depthSlot->data), scratch, dw, dh, plane_turn_inverse(turn));
  VM_PROFILE_IF("image_utility rotate cost %ld ms\n", debug_elapsed_ms(start));
  return r;
}

int32_t depth_manager_generate_depth(SessionContext* ctx, DepthWorker* w) {
  BufferHalf* mainSlot = buffer_manager_hold_filled(ctx, kSlotMain);
  BufferHalf* subSlot = buffer_manager_hold_filled(ctx, kSlotSub);
  BufferHalf* depthSlot = buffer_manager_get_writable(ctx, kSlotDepth);
  const uint32_t used = (mainSlot != nullptr ? mainSlot->state.load(std::memory_order_acquire) : 0) |
                        (subSlot != nullptr ? subSlot->state.load(std::memory_order_acquire) : 0);
  // No depth is computed twice from the same frames.
  if (mainSlot == nullptr || subSlot == nullptr || depthSlot == nullptr || (used & kSlotUsedByEngine) != 0) {
    buffer_manager_release(mainSlot);
    buffer_manager_release(subSlot);
    return kResultNoBuffer;
  }
  buffer_manager_mark(mainSlot, kSlotUsedByEngine);
  buffer_manager_mark(subSlot, kSlotUsedByEngine);
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    ctx->depthFrameCounter.store(ctx->previewFrameCounter.load(std::memory_order_relaxed), std::memory_order_relaxed);

  int32_t r = kResultOk;
  switch (ctx->cameraLayout) {
    case 1:
    case 2:
      r = depth_manager_generate_depth_for_layout_1_2(ctx, w, mainSlot, subSlot, depthSlot);
      break;
    case 3:
    case 4:
      r = depth_manager_generate_depth_for_layout_3_4(ctx, w, mainSlot, subSlot, depthSlot);
      break;
    default:
      // Nothing generated; the unwritten slot is still published below.
      buffer_manager_release(mainSlot);
      buffer_manager_release(subSlot);
      break;
  }

  // A discard may have been raised while the engine ran: throw the map away and let the same
  // frames be used again.
  if ((ctx->depthDiscardRequest.load(std::memory_order_acquire) & kDiscardDepth) != 0) {
    buffer_manager_unmark(mainSlot, kSlotUsedByEngine);
    buffer_manager_unmark(subSlot, kSlotUsedByEngine);
    ctx->depthDiscardRequest.fetch_and(~kDiscardDepth, std::memory_order_acq_rel);
    buffer_manager_reset_slot(ctx, kSlotDepth);
    if (debugEnable.load(std::memory_order_relaxed) != 0 && debugDisplay.load(std::memory_order_relaxed) != 0)
      buffer_manager_reset_slot(ctx, kSlotDepthWork);
    return kResultDiscarded;
  }
  BufferHalf* old = buffer_manager_get_buffer(ctx, kSlotDepth, kSlotFilled);
  depthSlot->size = depthSamples(ctx) * 2;
  buffer_manager_publish(depthSlot, old == depthSlot ? nullptr : old);
  if (debugEnable.load(std::memory_order_relaxed) != 0)
    depth_manager_debug_outputs(ctx, reinterpret_cast<const uint16_t*>(depthSlot->data), true);
  return r;
}

void depth_manager_debug_outputs(SessionContext* ctx, const uint16_t* depth, bool focusMarker) {
  if (debugEnable.load(std::memory_order_relaxed) == 0) return;
  const int32_t samples = depthSamples(ctx);
  dump_if_enabled(kDumpDepth, ctx, depth, samples * 2);
  const int32_t display = debugDisplay.load(std::memory_order_relaxed);
  if ((display & kDisplayDepthMap) == 0) return;
  BufferHalf* picture = buffer_manager_get_writable(ctx, kSlotDepthWork);
  if (picture == nullptr || picture->data == nullptr || picture->capacity < samples * 4) return;
  int32_t mapW, mapH;
  session_caller_depth_size(ctx, &mapW, &mapH);
  const int32_t opaque = debug_display_overlay(display) ? 1 : 0;
  image_utility_depth_to_display(picture->data, depth, mapW, mapH, opaque);
  const int32_t mainW = session_preview_main_width(ctx);
  const int32_t mainH = session_preview_main_height(ctx);
  if (focusMarker && (display & kDisplayFocusMarker) != 0 && mainW > 0 && mainH > 0) {
    const int64_t x = static_cast<int64_t>(ctx->focusX.load(std::memory_order_relaxed)) * mapW / mainW;
    const int64_t y = static_cast<int64_t>(ctx->focusY.load(std::memory_order_relaxed)) * mapH / mainH;
    image_utility_draw_marker(picture->data, mapW, mapH, kMarkerKindDisplay, static_cast<int32_t>(x),
                              static_cast<int32_t>(y), 5, 3);
  }
  buffer_manager_publish(picture, buffer_manager_get_buffer(ctx, kSlotDepthWork, kSlotFilled));
}

void depth_manager_get_depth_from_chip(SessionContext* ctx, const uint8_t* data, int32_t size) {
  const long start = debug_time_ms();
  if (data == nullptr) {
    VM_LOG("ERROR: no chip depth, frame goes on without it\n");
    return;
  }
  const int32_t samples = depthSamples(ctx);
  const int64_t needed = static_cast<int64_t>(samples) * (ctx->chipDepthFormat == 0 ? 1 : 2);
  // A HAL need not give the sub image's size with chip depth: size 0 means the map's own byte
  // count stands behind the pointer. Only a size given and too small is refused, said once a
  // session so that the log is not flooded at the frame rate.
  if (size != 0 && size < needed) {
    if (ctx->depth.chipSizeRefusalLogged == 0)
      VM_LOG("ERROR: chip depth of %d bytes, %lld needed; skipped\n", size, static_cast<long long>(needed));
    ctx->depth.chipSizeRefusalLogged = 1;
    return;
  }
  const bool toFilter = ctx->isUsingTemporalFilter != 0;
  const int32_t slot = toFilter ? kSlotSub : kSlotDepth;
  // When a worker still holds the free buffer, the older filled map makes way for the new one.
  BufferHalf* target = buffer_manager_get_writable_or_reclaim(ctx, slot);
  if (target == nullptr || target->data == nullptr || target->capacity < samples * 2) {
    VM_LOG_IF(kLogTrace, "chip depth skipped: no free buffer of %d bytes\n", samples * 2);
    return;
  }
  uint16_t* out = reinterpret_cast<uint16_t*>(target->data);
  const size_t n = static_cast<size_t>(samples);
  if (ctx->chipDepthFormat == 1) {
    for (size_t i = 0; i < n; ++i) {
      uint16_t v;
      memcpy(&v, data + 2 * i, 2);  // the chip's buffer need not be 2-byte aligned
      out[i] = v & 0x3FF;
    }
  } else if (ctx->chipDepthFormat == 0) {
    for (size_t i = 0; i < n; ++i) out[i] = data[i];
  } else {
    memcpy(out, data, n * 2);
  }
  VM_PROFILE_IF("depth_manager_get_depth_from_chip cost %ld ms\n", debug_elapsed_ms(start));
  target->size = samples * 2;
  BufferHalf* old = buffer_manager_get_buffer(ctx, slot, kSlotFilled);
  buffer_manager_publish(target, old == target ? nullptr : old);
  if (!toFilter && debugEnable.load(std::memory_order_relaxed) != 0) depth_manager_debug_outputs(ctx, out, false);
}
