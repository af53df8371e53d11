// session_context.h - the one process-wide session record and its buffer slots.
//
// Every subsystem works on the same statically allocated SessionContext, handed to it by address.
// Words that two threads touch outside a mutex are atomics of the same width; a slot buffer's
// state is stored with release order after its data is written and loaded with acquire order
// before its data is read.
#ifndef VMKTRRT_FLOW_SESSION_CONTEXT_H
#define VMKTRRT_FLOW_SESSION_CONTEXT_H

#include <atomic>
#include <cstdint>

#include "bokeh/bokeh_fields.h"
#include "depth/depth_fields.h"
#include "image/plane_rotate.h"
#include "policy/policy_fields.h"

// Slot buffer states and marks.
constexpr uint32_t kSlotFree = 0x1;
constexpr uint32_t kSlotFilled = 0x2;
constexpr uint32_t kSlotUsedByEngine = 0x10;  // given to the depth engine
constexpr uint32_t kSlotSeenByBokeh = 0x20;   // a depth map noticed by the bokeh step
// Readers on another thread than the producer hold a filled buffer while they read it: the
// count of such readers sits above the state bits, and producers never write a held buffer.
constexpr uint32_t kSlotReaderUnit = 0x100;
constexpr uint32_t kSlotStateBits = 0xFF;

// depthDiscardRequest bits: the map each worker is making is thrown away when it finishes.
constexpr uint32_t kDiscardDepth = 0x1;
constexpr uint32_t kDiscardRefocus = 0x2;
constexpr uint32_t kDiscardBoth = kDiscardDepth | kDiscardRefocus;

// Session states.
constexpr int32_t kStateInitialising = 0;
constexpr int32_t kStateRejected = 2;
constexpr int32_t kStateBufferFailed = 4;
constexpr int32_t kStateDepthWorkerFailed = 5;
constexpr int32_t kStateBokehFailed = 6;
constexpr int32_t kStateRunning = 7;
constexpr int32_t kStateClosed = 8;

// Slot numbers.
constexpr int kSlotMain = 0;
constexpr int kSlotSub = 1;
constexpr int kSlotDepth = 2;
constexpr int kSlotRefocus = 3;
constexpr int kSlotDepthWork = 4;
constexpr int kSlotRefocusWork = 5;
constexpr int kSlotCount = 6;

constexpr int kVersionTextSize = 256;
#define VMKTRRT_SC_VERSION "v0.47"

// One of a slot's two buffers: the three words a lookup hands out.
struct BufferHalf {
  uint8_t* data;
  std::atomic<uint32_t> state;
  int32_t size;      // bytes of the frame it holds (capacity until the first copy)
  int32_t capacity;  // bytes this buffer may be written with; fixed at allocation
};

struct BufferSlot {
  int32_t width;
  int32_t height;
  BufferHalf a;
  BufferHalf b;
};

struct SessionContext {
  // ---- head ----
  std::atomic<int32_t> state;
  int32_t screenWidth;
  int32_t screenHeight;
  int32_t cameraLayout;  // layout number 1..4
  std::atomic<int32_t> vcmMain;
  std::atomic<int32_t> vcmSub;
  std::atomic<float> fNumber;
  std::atomic<int32_t> focusX;
  std::atomic<int32_t> focusY;
  int32_t regionLeft;
  int32_t regionRight;
  int32_t regionTop;
  int32_t regionBottom;
  uint32_t reserved0;
  uint8_t* otpCopy;
  int32_t otpKind;  // 0: from otpData, 1: from otpDataAlt
  int32_t otpTag;
  int32_t otpSize;
  int32_t previewMainStride;
  int32_t previewMainScanline;
  int32_t previewSubStride;
  int32_t previewSubScanline;
  BufferSlot slots[4];  // main preview, sub preview, depth map, refocus map
  uint8_t* mainImageData;
  uint8_t* mainImagePlane2;
  int32_t previewMainWidth2;
  int32_t previewMainHeight2;
  uint32_t mainImageSize;
  uint32_t mainImageExtra3;
  uint32_t mainImageExtra4;
  int32_t isOffRender;
  int32_t isPortrait;
  int32_t isGB;
  int32_t isFrontCam;
  int32_t imageFormat;
  int32_t depthFromChip;
  int32_t chipDepthFormat;  // 1: 10-bit samples in 16-bit words, 0: 8-bit
  int32_t depthSizeTurned;  // 1: slot 2 holds the caller's depth size turned (layout word 3 or 4)
  int32_t isUsingTemporalFilter;
  int32_t isUsingDistanceMap;
  std::atomic<int32_t> temporalFilterEnabled;
  int32_t ishighDepthQuality;
  std::atomic<int32_t> policyState;
  std::atomic<int32_t> prevPolicyState;
  std::atomic<uint32_t> depthDiscardRequest;
  uint32_t reserved1;
  uint32_t rendererExtraParam;
  // ---- cleared at every initialisation from here to the end ----
  char versionText[kVersionTextSize];
  char depthEngineVersion[kVersionTextSize];
  char rendererVersion[kVersionTextSize];
  char depthUtilityVersion[kVersionTextSize];
  std::atomic<int32_t> previewFrameCounter;
  std::atomic<int32_t> depthFrameCounter;
  std::atomic<int32_t> refocusFrameCounter;
  BufferSlot workSlots[2];  // slots 4 and 5: depth and refocus-map working buffers
  DepthFields depth;        // depth worker, generation and temporal filter
  PolicyFields policy;      // scene measures and policy state machine
  BokehFields bokeh;        // refocus-map worker, per-frame rendering, debug display
};

// The session. Static: no heap allocation of the record itself.
extern SessionContext g_session;

// Slot n (0..5) of the context; null for any other n.
inline BufferSlot* session_slot(SessionContext* ctx, int n) {
  if (n >= 0 && n < 4) return &ctx->slots[n];
  if (n == 4 || n == 5) return &ctx->workSlots[n - 4];
  return nullptr;
}

// Layouts 3 and 4 hold the depth map turned a quarter against the caller's orientation. Given
// the whole layout word at Init (0x13, chip flag with layout 3, is not turned) or the session's
// layout number.
inline bool session_layout_turns_depth(int32_t layout) {
  return plane_turn_is_quarter(plane_turn_from_layout(layout));
}

// The sizes the rest of the system knows by name live in the slots' first two words.
inline int32_t session_preview_main_width(const SessionContext* c) {
  return c->slots[kSlotMain].width;
}
inline int32_t session_preview_main_height(const SessionContext* c) {
  return c->slots[kSlotMain].height;
}
inline int32_t session_preview_sub_width(const SessionContext* c) {
  return c->slots[kSlotSub].width;
}
inline int32_t session_preview_sub_height(const SessionContext* c) {
  return c->slots[kSlotSub].height;
}
inline int32_t session_depth_width(const SessionContext* c) {
  return c->slots[kSlotDepth].width;
}
inline int32_t session_depth_height(const SessionContext* c) {
  return c->slots[kSlotDepth].height;
}
inline int32_t session_refocus_width(const SessionContext* c) {
  return c->slots[kSlotRefocus].width;
}
inline int32_t session_refocus_height(const SessionContext* c) {
  return c->slots[kSlotRefocus].height;
}

// Depth map size in the caller's orientation.
inline void session_caller_depth_size(const SessionContext* c, int32_t* w, int32_t* h) {
  const bool turned = session_layout_turns_depth(c->cameraLayout);
  *w = turned ? session_depth_height(c) : session_depth_width(c);
  *h = turned ? session_depth_width(c) : session_depth_height(c);
}

#endif  // VMKTRRT_FLOW_SESSION_CONTEXT_H
