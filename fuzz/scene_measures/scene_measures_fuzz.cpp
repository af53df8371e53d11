// scene_measures_fuzz.cpp - fuzz entry for the scene measures and the policy state machine.
//
// The bytes choose plane sizes, a region, log flags and the plane contents; the planes are
// allocated at exactly their size so that any read outside them is caught by the sanitizers.
// Each fast measure is held against its per-pixel reference, and the policy update runs over a
// short frame sequence with arbitrary buffer size fields. A disagreement traps.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "fuzz_input.h"
#include "memory/buffer_manager.h"
#include "policy/policy_manager.h"
#include "policy/scene_measure.h"

namespace {

struct Bytes : FuzzBytes {
  // A coordinate: mostly near the plane, sometimes any 32-bit value.
  int32_t coord(bool wide) { return wide ? static_cast<int32_t>(u32()) : static_cast<int16_t>(u16()) / 8; }
};

std::vector<uint8_t> plane(Bytes* in, size_t n, const std::vector<uint8_t>* like, uint8_t mode) {
  std::vector<uint8_t> p(n);
  for (size_t i = 0; i < n; ++i) {
    if (like != nullptr && (mode & 2) != 0)
      p[i] = (*like)[(i + mode) % n];  // the other plane moved: matches to be found
    else
      p[i] = in->u8();
  }
  return p;
}

void measures(Bytes* in) {
  const uint8_t mode = in->u8();
  const int32_t width = static_cast<int32_t>(in->u8()) - 4;
  const int32_t height = static_cast<int32_t>(in->u8()) - 4;
  const bool wide = (mode & 1) != 0;
  const int32_t left = in->coord(wide), right = in->coord(wide), top = in->coord(wide), bottom = in->coord(wide);
  logFlags.store(in->u8() & (kLogTrace | kLogStepCost));
  const size_t n = width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) : 0;
  std::vector<uint8_t> cur = plane(in, n, nullptr, mode);
  std::vector<uint8_t> old = plane(in, n, &cur, mode);

  const int32_t cx = static_cast<int32_t>((static_cast<int64_t>(left) + right) >> 1);
  const int32_t cy = static_cast<int32_t>((static_cast<int64_t>(top) + bottom) >> 1);
  const int32_t census =
      policy_manager_scene_change_detection(cur.data(), old.data(), left, right, top, bottom, width, height);
  fuzz_check(census >= 0 && census <= 63);
  fuzz_check(census == scene_measure_census_reference(cur.data(), old.data(), cx, cy, width, height));

  const int32_t moved = policy_manager_estimate_motion(cur.data(), old.data(), left, right, top, bottom, width, height);
  fuzz_check(moved >= -1 && moved <= 5);
  if (moved >= 0) {
    int32_t fast[5][2], ref[5][2];
    fuzz_check(scene_measure_motion_search(cur.data(), old.data(), left, right, top, bottom, width, height, fast) ==
               moved);
    fuzz_check(scene_measure_motion_search_reference(cur.data(), old.data(), left, right, top, bottom, width, height,
                                                     ref) == moved);
    fuzz_check(memcmp(fast, ref, sizeof fast) == 0);
  }

  const float sad = policy_manager_calculate_SAD(cur.data(), old.data(), left, right, top, bottom, width, height);
  fuzz_check(std::isnan(sad) || sad == -1.0f || (sad >= 0.0f && sad <= 255.0f));

  // The fixed form over 320 x 240 planes tiled from the two planes.
  std::vector<uint8_t> a(320 * 240), b(320 * 240);
  for (size_t i = 0; i < a.size(); ++i) {
    a[i] = n != 0 ? cur[i % n] : 0;
    b[i] = n != 0 ? old[(i * 7) % n] : 1;
  }
  const int32_t keep = policy_manager_refocus_map_check(a.data(), b.data(), width, height);
  fuzz_check(keep == (scene_measure_census_reference(a.data(), b.data(), 160, 120, 320, 240) <= 10 ? 1 : 0));
}

SessionContext ctx;

void stateMachine(Bytes* in) {
  memset(static_cast<void*>(&ctx), 0, sizeof ctx);
  const int32_t start = static_cast<int32_t>(in->u8() % 8);
  ctx.policyState.store(start);
  for (int i = 0; i < 40 && in->at < in->n; ++i) {
    const int32_t before = ctx.policyState.load();
    policy_manager_check_state_machine(&ctx, static_cast<int8_t>(in->u8()));
    const int32_t after = ctx.policyState.load();
    // Inert outside 2..5; inside, every state is reachable only along the table.
    if (before < 2 || before > 5) fuzz_check(after == before);
    if (before == 2) fuzz_check(after == 2 || after == 3);
    if (before == 5) fuzz_check(after == 5 || after == 4);
  }

  uint32_t rampStart = in->u32();
  const uint32_t now = in->u32();
  const float target = static_cast<float>(in->u8()) / 8.0f;
  const float f = policy_manager_calculate_F_number(&rampStart, now, target, in->u8() & 1);
  fuzz_check(std::isfinite(f));
  fuzz_check(f >= std::fmin(target, 10.0f) - 1e-3f && f <= std::fmax(target, 10.0f) + 1e-3f);
}

// A short session of updates over small previews with arbitrary size fields and regions.
void updates(Bytes* in) {
  memset(static_cast<void*>(&ctx), 0, sizeof ctx);
  ctx.slots[kSlotMain].width = 1 + in->u8() % 64;
  ctx.slots[kSlotMain].height = 1 + in->u8() % 64;
  for (int s = kSlotSub; s <= kSlotRefocus; ++s) {
    ctx.slots[s].width = 16;
    ctx.slots[s].height = 16;
  }
  ctx.depthFromChip = in->u8() & 1;
  const bool wide = (in->u8() & 1) != 0;
  ctx.regionLeft = in->coord(wide);
  ctx.regionRight = in->coord(wide);
  ctx.regionTop = in->coord(wide);
  ctx.regionBottom = in->coord(wide);
  debugEnable.store(in->u8() & 1);
  buffer_manager_allocate(&ctx);
  policy_manager_init(&ctx);
  for (int i = 0; i < 12 && in->at < in->n; ++i) {
    BufferHalf* free = buffer_manager_get_buffer(&ctx, kSlotMain, kSlotFree);
    BufferHalf* filled = buffer_manager_get_buffer(&ctx, kSlotMain, kSlotFilled);
    if (free == nullptr || free->data == nullptr) break;
    const uint8_t fill = in->u8();
    memset(free->data, fill, static_cast<size_t>(free->capacity));
    free->size = static_cast<int32_t>(in->u32());  // whatever the field claims
    buffer_manager_publish(free, filled);
    const int32_t r = policy_manager_update(&ctx);
    fuzz_check(r == (ctx.policyState.load() == kPolicyStable ? 1 : 0));
  }
  policy_manager_deinit(&ctx);
  buffer_manager_free(&ctx);
  debugEnable.store(0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in{{data, size, 0}};
  switch (in.u8() % 3) {
    case 0:
      measures(&in);
      break;
    case 1:
      stateMachine(&in);
      break;
    default:
      updates(&in);
      break;
  }
  logFlags.store(0);
  return 0;
}
