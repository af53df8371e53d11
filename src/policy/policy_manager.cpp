// policy_manager.cpp - the policy state machine over the census scene-change count, the
// reference-frame store, the refocus-map check and the automatic F-number ramp.
#include "policy/policy_manager.h"

#include <cstring>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"

namespace {

// Values averaged per state; states 0 and 1 have none and leave the machine inert.
constexpr uint32_t kWindow[6] = {0, 0, 3, 3, 5, 10};
// A refocus map stays valid while at most this many census cells changed.
constexpr int32_t kRefocusKeepLimit = 10;

void clearRing(PolicyFields* p) {
  memset(p->sceneSamples, 0, sizeof p->sceneSamples);
  p->sceneSampleCount = 0;
}

// The state that follows state for the window average a.
int32_t nextState(int32_t state, int32_t a) {
  switch (state) {
    case kPolicyUnsettled:
      return a <= 14 ? kPolicySettling : kPolicyUnsettled;
    case kPolicySettling:
      if (a <= 9) return kPolicyStable;
      return a <= 20 ? kPolicySettling : kPolicyUnsettled;
    case kPolicyDisturbed:
      if (a <= 9) return kPolicyStable;
      return a <= 13 ? kPolicyDisturbed : kPolicyUnsettled;
    case kPolicyStable:
      return a <= 15 ? kPolicyStable : kPolicyDisturbed;
    default:
      return state;
  }
}

int32_t stableNow(const SessionContext* ctx) {
  return ctx->policyState.load(std::memory_order_relaxed) == kPolicyStable ? 1 : 0;
}

}  // namespace

int32_t policy_manager_init(SessionContext* ctx) {
  PolicyFields* p = &ctx->policy;
  ctx->policyState.store(kPolicyUnsettled, std::memory_order_relaxed);
  p->policyFrameCount = 0;
  clearRing(p);
  p->refocusCountLimit = ctx->depthFromChip == 1 ? 0 : 2;

  p->previousFrame = nullptr;
  p->previousFrameCapacity = 0;
  p->previousFrameState = kPolicyStoreNone;
  const int32_t width = session_preview_main_width(ctx);
  const int32_t height = session_preview_main_height(ctx);
  // Room for a 4:2:0 frame of the preview size: twice its luma, rounded down to 16 bytes, plus 16.
  const uint64_t size = width > 0 && height > 0 ? static_cast<uint64_t>(width) * static_cast<uint64_t>(height) * 2 : 0;
  if (size == 0 || size > UINT32_MAX - 16) {
    p->previousFrameSize = 0;
    VM_LOG("previous frame store refused for preview %dx%d: scene change is not measured\n", width, height);
    return 0;
  }
  p->previousFrameSize = static_cast<uint32_t>(size);
  const uint32_t capacity = (p->previousFrameSize & ~15u) + 16;
  p->previousFrame = static_cast<uint8_t*>(heap_allocate(capacity));
  if (p->previousFrame == nullptr) {
    // The session goes on without a reference frame: the scene is never judged stable.
    VM_LOG("ERROR: previous frame store of %u bytes not allocated: scene change is not measured\n", capacity);
    return 0;
  }
  // Zeroed once so that bytes a short frame copy leaves untouched read as defined values.
  memset(p->previousFrame, 0, capacity);
  p->previousFrameCapacity = capacity;
  p->previousFrameState = kPolicyStoreEmpty;
  return 0;
}

int32_t policy_manager_deinit(SessionContext* ctx) {
  PolicyFields* p = &ctx->policy;
  if (p->previousFrame != nullptr) heap_free(p->previousFrame);
  // The store state stays as it was; the pointer is cleared so that a second tear-down or a
  // late update cannot reach the freed block.
  p->previousFrame = nullptr;
  p->previousFrameCapacity = 0;
  return 0;
}

void policy_manager_check_state_machine(SessionContext* ctx, int32_t value) {
  PolicyFields* p = &ctx->policy;
  const int32_t state = ctx->policyState.load(std::memory_order_relaxed);
  // States 0 and 1 are inert; a value outside the table would be too.
  if (!policy_state_active(state)) return;
  uint32_t window = kWindow[state];
  if (window > kPolicyRingSize) window = kPolicyRingSize;

  p->sceneSamples[p->sceneSampleCount % window] = value;
  p->sceneSampleCount += 1;
  if (p->sceneSampleCount < window) return;

  int64_t sum = 0;
  for (uint32_t i = 0; i < window; ++i) sum += p->sceneSamples[i];
  const int32_t average = static_cast<int32_t>(sum / static_cast<int64_t>(window));
  const int32_t next = nextState(state, average);
  if (next != state) {
    // A new state first collects a full window of its own.
    clearRing(p);
    ctx->policyState.store(next, std::memory_order_relaxed);
  }
  VM_LOG_IF(kLogTrace, "current state [%d] Average[%d] Count[%d]", next, average,
            static_cast<int32_t>(p->sceneSampleCount));
}

int32_t policy_manager_update(SessionContext* ctx) {
  PolicyFields* p = &ctx->policy;
  BufferHalf* frame = buffer_manager_get_buffer(ctx, kSlotMain, kSlotFilled);
  p->policyFrameCount += 1;

  if (ctx->depthFromChip != 0) {
    // Chip depth is taken as it comes: no frame is stored or compared.
    policy_manager_check_state_machine(ctx, 0);
    return stableNow(ctx);
  }
  if (frame == nullptr || frame->data == nullptr) {
    VM_LOG("no main preview in slot 0: frame %u not measured\n", p->policyFrameCount);
    return stableNow(ctx);
  }

  const int32_t width = session_preview_main_width(ctx);
  const int32_t height = session_preview_main_height(ctx);
  if (p->previousFrameState == kPolicyStoreFull && p->previousFrame != nullptr) {
    // Both planes are read as width x height luma planes; both hold at least that many bytes
    // whenever the store was sized from the same preview size as the slot.
    const int64_t luma = static_cast<int64_t>(width) * height;
    if (luma > frame->capacity || luma > static_cast<int64_t>(p->previousFrameCapacity)) {
      VM_LOG("preview %dx%d larger than its buffers: frame %u not measured\n", width, height, p->policyFrameCount);
      return stableNow(ctx);
    }
    const int32_t value =
        policy_manager_scene_change_detection(frame->data, p->previousFrame, ctx->regionLeft, ctx->regionRight,
                                              ctx->regionTop, ctx->regionBottom, width, height);
    if (debugEnable.load(std::memory_order_relaxed) != 0) p->sceneValue = value;
    policy_manager_check_state_machine(ctx, value);
  }

  // A stable scene keeps the reference it became stable against, so slow drift accumulates.
  if (stableNow(ctx) != 0) return 1;
  if (p->previousFrameState == kPolicyStoreNone || p->previousFrame == nullptr) return 0;

  int64_t bytes = frame->size > 0 ? frame->size : 0;
  if (bytes > frame->capacity) bytes = frame->capacity;
  if (bytes > static_cast<int64_t>(p->previousFrameCapacity)) {
    VM_LOG("frame of %d bytes cut to the reference store's %u\n", frame->size, p->previousFrameCapacity);
    bytes = p->previousFrameCapacity;
  }
  memcpy(p->previousFrame, frame->data, static_cast<size_t>(bytes));
  p->previousFrameState = kPolicyStoreFull;
  return 0;
}

int32_t policy_manager_refocus_map_check(const uint8_t* current, const uint8_t* reference, int32_t width,
                                         int32_t height) {
  // The census reads one fixed policy plane (the refocus-map size the library makes); width and
  // height are not consulted.
  (void)width;
  (void)height;
  if (current == nullptr || reference == nullptr) {
    VM_LOG("RM check without a map (current 0x%x, reference 0x%x): remade\n",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(current)),
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(reference)));
    return 0;
  }
  const int32_t sceneValue = policy_manager_scene_change_detection_320x240(current, reference);
  const int32_t result = sceneValue <= kRefocusKeepLimit ? 1 : 0;
  VM_LOG_IF(kLogTrace, "RM check result = %d sceneValue[%d]", result, sceneValue);
  return result;
}

float policy_manager_calculate_F_number(uint32_t* start, uint32_t now, float target, int32_t hold) {
  // Without the caller's start there is no ramp to follow: start it now.
  uint32_t local = now;
  if (start == nullptr) {
    VM_LOG("F number ramp without a start time: ramp starts now\n");
    start = &local;
  }
  float e = static_cast<float>(now - *start);
  if (e > 1000.0f) {
    *start += static_cast<uint32_t>(static_cast<double>(e) - 1000.0);
    e = 1000.0f;
  }
  if (hold == 0) {
    *start += static_cast<uint32_t>(e * 0.2f);
    e = static_cast<float>(now - *start);
  }
  const float f = static_cast<float>(10.0 + (static_cast<double>(target) - 10.0) * 0.001 * static_cast<double>(e));
  VM_LOG_IF(kLogTrace, "Auto F number = %f", static_cast<double>(f));
  return f;
}
