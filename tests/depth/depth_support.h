// depth_support.h - a session context set up for the depth side, with frames in its slots.
#ifndef VMKTR_TESTS_DEPTH_SUPPORT_H
#define VMKTR_TESTS_DEPTH_SUPPORT_H

#include <cstring>
#include <memory>
#include <vector>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"

struct DepthSession {
  std::unique_ptr<SessionContext> ctx{new SessionContext()};
  std::vector<uint8_t> otp = std::vector<uint8_t>(32, 0x42);

  // Caller's depth size cw x ch; slot 2 turned for layouts 3 and 4 as initialisation does.
  void setUp(int32_t layout, int32_t mainW, int32_t mainH, int32_t cw, int32_t ch, int32_t subW = -1,
             int32_t subH = -1) {
    SessionContext* c = ctx.get();
    c->cameraLayout = layout;
    c->slots[kSlotMain].width = mainW;
    c->slots[kSlotMain].height = mainH;
    c->previewMainWidth2 = mainW;
    c->previewMainHeight2 = mainH;
    c->slots[kSlotSub].width = subW < 0 ? mainW : subW;
    c->slots[kSlotSub].height = subH < 0 ? mainH : subH;
    const bool turned = layout == 3 || layout == 4;
    c->slots[kSlotDepth].width = turned ? ch : cw;
    c->slots[kSlotDepth].height = turned ? cw : ch;
    c->slots[kSlotRefocus].width = 320;
    c->slots[kSlotRefocus].height = 240;
    c->otpCopy = otp.data();
    c->otpSize = static_cast<int32_t>(otp.size());
    buffer_manager_allocate(c);
  }
  // Chip depth (format 1) through the temporal filter: a 64 x 48 preview and a 4 x 2 map.
  SessionContext* setUpChipWithFilter() {
    setUp(2, 64, 48, 4, 2);
    SessionContext* c = ctx.get();
    c->depthFromChip = 1;
    c->chipDepthFormat = 1;
    c->isUsingTemporalFilter = 1;
    c->temporalFilterEnabled.store(1);
    return c;
  }
  ~DepthSession() { buffer_manager_free(ctx.get()); }

  // Writes an NV12 frame whose luma encodes its position into the free buffer of slot and
  // publishes it.
  void putFrame(int32_t slot, uint8_t seed) {
    SessionContext* c = ctx.get();
    BufferSlot* s = session_slot(c, slot);
    BufferHalf* w = buffer_manager_get_writable(c, slot);
    const int32_t W = s->width, H = s->height;
    for (int32_t y = 0; y < H; ++y)
      for (int32_t x = 0; x < W; ++x) w->data[y * W + x] = lumaAt(x, y, seed);
    memset(w->data + W * H, 128, static_cast<size_t>(W * H / 2));
    buffer_manager_publish(w, buffer_manager_get_buffer(c, slot, kSlotFilled));
  }
  static uint8_t lumaAt(int32_t x, int32_t y, uint8_t seed) { return static_cast<uint8_t>(x * 7 + y * 13 + seed); }

  const uint16_t* publishedDepth() {
    BufferHalf* h = buffer_manager_get_buffer(ctx.get(), kSlotDepth, kSlotFilled);
    return h != nullptr ? reinterpret_cast<const uint16_t*>(h->data) : nullptr;
  }
};

// Resets the process-wide flag words a test changed.
struct FlagWords {
  ~FlagWords() {
    logFlags.store(0);
    debugEnable.store(0);
    debugDisplay.store(0);
    dumpFlags.store(0);
    statusInfo.store(0);
  }
};

#endif  // VMKTR_TESTS_DEPTH_SUPPORT_H
