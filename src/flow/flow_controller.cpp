// flow_controller.cpp - session start-up, tear-down and feature switches.
#include "flow/flow_controller.h"

#include <cstring>

#include "debug/debug_log.h"
#include "debug/dump.h"
#include "engines/engines.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"
#include "memory/memory_manager.h"

SessionContext g_session;

namespace {

int32_t onlyOne(int32_t v) {
  return v == 1 ? 1 : 0;
}

void releaseOtp(SessionContext* ctx) {
  heap_free(ctx->otpCopy);
  ctx->otpCopy = nullptr;
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
  const bool turned = d->cameraLayout == 3 || d->cameraLayout == 4;
  ctx->slots[kSlotDepth].width = turned ? d->depthHeight : d->depthWidth;
  ctx->slots[kSlotDepth].height = turned ? d->depthWidth : d->depthHeight;
  const bool chipBit = (d->cameraLayout & 0x10) != 0;
  ctx->slots[kSlotRefocus].width = chipBit ? d->depthWidth : 320;
  ctx->slots[kSlotRefocus].height = chipBit ? d->depthHeight : 240;

  const uint8_t* otp = d->otpData;
  ctx->otpKind = 0;
  if (otp == nullptr) {
    otp = d->otpDataAlt;
    ctx->otpKind = 1;
  }
  if (otp == nullptr) return 6;
  if (dump_enabled(kDumpEeprom)) dump_write_raw("eeprom.raw", otp, d->otpSize);
  ctx->otpSize = d->otpSize;
  ctx->otpCopy = static_cast<uint8_t*>(heap_allocate(d->otpSize > 0 ? static_cast<size_t>(d->otpSize) : 0));
  if (ctx->otpCopy == nullptr) return 2;
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
  return 0;
}

int32_t flow_controller_init(InitData data) {
  SessionContext* ctx = &g_session;
  ctx->state.store(kStateInitialising);
  vemta_memory_manager_init();
  dump_thread_info();
  int32_t r = flow_controller_fill_initial_data(ctx, &data);
  if (r != 0) {
    ctx->state.store(kStateRejected);
    return r;
  }
  r = buffer_manager_allocate(ctx);
  if (r != 0) {
    releaseOtp(ctx);
    ctx->state.store(kStateBufferFailed);
    return r;
  }
  // The depth worker and the bokeh manager start here once they exist.
  ctx->state.store(kStateRunning);
  return 0;
}

int32_t flow_controller_deinit(void) {
  SessionContext* ctx = &g_session;
  const int32_t state = ctx->state.load();
  if (state != kStateRunning) {
    VM_LOG("ERROR...[%d]\n", state);
    return 0;
  }
  ctx->state.store(kStateClosed);
  buffer_manager_free(ctx);
  releaseOtp(ctx);
  vemta_memory_manager_deinit();
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
      return 1;
  }
}

void flow_controller_apply_debug_flag(void) {
  g_session.temporalFilterEnabled.store((debugFlag.load(std::memory_order_relaxed) & 1) == 0 ? 1 : 0,
                                        std::memory_order_relaxed);
}

int32_t flow_controller_trigger(TriggerData data) {
  (void)data;
  SessionContext* ctx = &g_session;
  const int32_t state = ctx->state.load();
  if (state != kStateRunning) {
    VM_LOG("ERROR...[%d]\n", state);
    return 0;
  }
  if (debugEnable.load(std::memory_order_relaxed) != 0) {
    dumpFlags.store(debug_read_property_int("persist.vm.ktrrt.sc.dump"), std::memory_order_relaxed);
    __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG DUMP> %s:%d: %x \n", __func__,
                        __LINE__, static_cast<unsigned>(dumpFlags.load(std::memory_order_relaxed)));
  }
  debugFlag.store(debug_read_property_int("persist.vm.ktrrt.sc.dflag"), std::memory_order_relaxed);
  __android_log_print(VM_LOG_PRIORITY, VM_LOG_TAG, "<VEMTA_LOG>[vmKtrRT_SC]<SET DEBUG FLAG> %s:%d: %x \n", __func__,
                      __LINE__, static_cast<unsigned>(debugFlag.load(std::memory_order_relaxed)));
  // Frame intake, depth feeding and the bokeh step follow here as they land.
  return 0;
}
