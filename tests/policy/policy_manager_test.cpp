// Policy state machine: the transition table at its thresholds, still and moving scenes through
// the per-frame update with both depth sources, the reference-frame store, the refocus-map check
// and the F-number ramp.
#include "policy/policy_manager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "log_capture.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"

namespace {

using Plane = std::vector<uint8_t>;

constexpr int kW = 320;
constexpr int kH = 240;
constexpr size_t kFrameBytes = kW * kH * 3 / 2;

Plane texture(uint32_t seed) {
  std::mt19937 rng(seed);
  Plane p(kFrameBytes);
  for (auto& b : p) b = static_cast<uint8_t>(rng());
  return p;
}

// Luma rising left to right (or right to left when mirrored): the census patterns of the two
// directions differ in 56 of the 63 cells.
Plane gradient(bool mirrored) {
  Plane p(kFrameBytes, 128);
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < kW; ++x) p[y * kW + x] = static_cast<uint8_t>((mirrored ? kW - 1 - x : x) * 255 / (kW - 1));
  return p;
}

class Policy : public ::testing::Test {
 protected:
  void SetUp() override {
    memset(static_cast<void*>(&ctx), 0, sizeof ctx);
    logFlags.store(0);
    debugEnable.store(0);
  }
  void TearDown() override {
    policy_manager_deinit(&ctx);
    buffer_manager_free(&ctx);
    heap_fault_inject(0, false);
    logFlags.store(0);
    debugEnable.store(0);
  }
  void start(bool chip, bool failStore = false) {
    ctx.slots[kSlotMain].width = kW;
    ctx.slots[kSlotMain].height = kH;
    for (int n = kSlotSub; n <= kSlotRefocus; ++n) {
      ctx.slots[n].width = 160;
      ctx.slots[n].height = 120;
    }
    ctx.depthFromChip = chip ? 1 : 0;
    ctx.regionLeft = 100;
    ctx.regionRight = 220;
    ctx.regionTop = 80;
    ctx.regionBottom = 200;
    ASSERT_EQ(buffer_manager_allocate(&ctx), 0);
    ASSERT_TRUE(buffer_manager_all_allocated(&ctx));
    if (failStore) heap_fault_inject(1, false);
    ASSERT_EQ(policy_manager_init(&ctx), 0);
  }
  // Publishes a frame in slot 0 as the per-frame flow does, then runs the update.
  int32_t frame(const Plane& image) {
    BufferHalf* free = buffer_manager_get_buffer(&ctx, kSlotMain, kSlotFree);
    BufferHalf* filled = buffer_manager_get_buffer(&ctx, kSlotMain, kSlotFilled);
    EXPECT_NE(free, nullptr);
    memcpy(free->data, image.data(), image.size());
    free->size = static_cast<int32_t>(image.size());
    buffer_manager_publish(free, filled);
    return policy_manager_update(&ctx);
  }
  int32_t state() const { return ctx.policyState.load(); }
  void setState(int32_t s) {
    ctx.policyState.store(s);
    memset(ctx.policy.sceneSamples, 0, sizeof ctx.policy.sceneSamples);
    ctx.policy.sceneSampleCount = 0;
  }
  SessionContext ctx;
};

TEST_F(Policy, TransitionTableAtItsThresholds) {
  struct Row {
    int32_t state, value, next;
  } rows[] = {{2, 14, 3}, {2, 15, 2}, {3, 9, 5},  {3, 10, 3}, {3, 20, 3}, {3, 21, 2},
              {4, 9, 5},  {4, 10, 4}, {4, 13, 4}, {4, 14, 2}, {5, 15, 5}, {5, 16, 4}};
  const uint32_t window[6] = {0, 0, 3, 3, 5, 10};
  LogCapture log;
  logFlags.store(kLogTrace);
  for (const Row& r : rows) {
    setState(r.state);
    log.clear();
    for (uint32_t i = 0; i + 1 < window[r.state]; ++i) policy_manager_check_state_machine(&ctx, r.value);
    // No decision and no line until the window is full.
    EXPECT_EQ(state(), r.state);
    EXPECT_TRUE(log.lines().empty());
    policy_manager_check_state_machine(&ctx, r.value);
    EXPECT_EQ(state(), r.next) << "state " << r.state << " average " << r.value;
    const uint32_t count = r.next == r.state ? window[r.state] : 0;
    EXPECT_EQ(ctx.policy.sceneSampleCount, count);
    if (r.next != r.state) {
      EXPECT_EQ(ctx.policy.sceneSamples[0], 0);
    }
    const std::string line = "current state [" + std::to_string(r.next) + "] Average[" + std::to_string(r.value) +
                             "] Count[" + std::to_string(count) + "]";
    EXPECT_EQ(log.count(line), 1u) << line;
  }
}

TEST_F(Policy, AverageTruncatesAndSlides) {
  setState(kPolicyUnsettled);
  for (int v : {15, 15, 14}) policy_manager_check_state_machine(&ctx, v);  // 44 / 3 = 14
  EXPECT_EQ(state(), kPolicySettling);

  // In state 5, one, two and three values of 63 slide into a window of zeros: 6, 12, 18.
  setState(kPolicyStable);
  for (int i = 0; i < 10; ++i) policy_manager_check_state_machine(&ctx, 0);
  policy_manager_check_state_machine(&ctx, 63);
  EXPECT_EQ(state(), kPolicyStable);
  policy_manager_check_state_machine(&ctx, 63);
  EXPECT_EQ(state(), kPolicyStable);
  policy_manager_check_state_machine(&ctx, 63);
  EXPECT_EQ(state(), kPolicyDisturbed);
  EXPECT_EQ(ctx.policy.sceneSampleCount, 0u);
}

TEST_F(Policy, StatesZeroAndOneAreInert) {
  LogCapture log;
  logFlags.store(kLogTrace);
  for (int32_t s : {0, 1}) {
    setState(s);
    for (int i = 0; i < 20; ++i) policy_manager_check_state_machine(&ctx, 0);
    EXPECT_EQ(state(), s);
    EXPECT_EQ(ctx.policy.sceneSampleCount, 0u);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Policy, InitSetsTheLimitAndTheStoreBySource) {
  start(false);
  EXPECT_EQ(state(), kPolicyUnsettled);
  EXPECT_EQ(ctx.policy.refocusCountLimit, 2);
  EXPECT_EQ(ctx.policy.previousFrameState, 1);
  EXPECT_EQ(ctx.policy.previousFrameSize, static_cast<uint32_t>(kW * kH * 2));
  EXPECT_EQ(ctx.policy.previousFrameCapacity, static_cast<uint32_t>(kW * kH * 2 + 16));
  EXPECT_NE(ctx.policy.previousFrame, nullptr);
  policy_manager_deinit(&ctx);
  EXPECT_EQ(ctx.policy.previousFrame, nullptr);
  policy_manager_deinit(&ctx);  // a second tear-down finds nothing to free

  ctx.depthFromChip = 1;
  policy_manager_init(&ctx);
  EXPECT_EQ(ctx.policy.refocusCountLimit, 0);
}

TEST_F(Policy, ChipDepthWalksToStableOnTheSixthFrame) {
  start(true);
  const int32_t wantState[] = {2, 2, 3, 3, 3, 5, 5, 5, 5};
  for (int i = 0; i < 9; ++i) {
    const int32_t r = frame(texture(static_cast<uint32_t>(100 + i)));  // content is never looked at
    EXPECT_EQ(state(), wantState[i]) << "update " << i + 1;
    EXPECT_EQ(r, wantState[i] == 5 ? 1 : 0) << "update " << i + 1;
  }
  EXPECT_EQ(ctx.policy.policyFrameCount, 9u);
  EXPECT_EQ(ctx.policy.previousFrameState, 1);  // nothing stored
}

TEST_F(Policy, StillStereoSceneIsStableOnTheSeventhFrameAndKeepsItsReference) {
  start(false);
  // Identical luma; the last chroma byte carries the frame number, outside the census grid.
  Plane img = gradient(false);
  const int32_t wantState[] = {2, 2, 2, 3, 3, 3, 5, 5};
  for (int i = 0; i < 8; ++i) {
    img.back() = static_cast<uint8_t>(i + 1);
    const int32_t r = frame(img);
    EXPECT_EQ(state(), wantState[i]) << "update " << i + 1;
    EXPECT_EQ(r, wantState[i] == 5 ? 1 : 0) << "update " << i + 1;
    if (i == 0) {
      EXPECT_EQ(ctx.policy.previousFrameState, 2);
    }
  }
  EXPECT_EQ(ctx.policy.previousFrame[kFrameBytes - 1], 6);

  // A scene that keeps changing against that reference leaves state 5 once the window of ten
  // (update 8's zero and nine changed frames) averages 16 or more; from then on the reference
  // follows the frames again.
  int frames = 0;
  while (state() == kPolicyStable && frames < 20) {
    Plane moved = gradient(true);
    moved.back() = 77;
    const int32_t r = frame(moved);
    EXPECT_EQ(r, state() == kPolicyStable ? 1 : 0);
    ++frames;
  }
  EXPECT_EQ(frames, 9);
  EXPECT_EQ(state(), kPolicyDisturbed);
  EXPECT_EQ(ctx.policy.previousFrame[kFrameBytes - 1], 77);
}

TEST_F(Policy, MovingSceneStaysUnsettledAndRefreshesItsReference) {
  start(false);
  debugEnable.store(1);
  Plane a = gradient(false), b = gradient(true);
  for (int i = 0; i < 12; ++i) {
    const Plane& img = i % 2 ? b : a;
    EXPECT_EQ(frame(img), 0);
    EXPECT_EQ(state(), kPolicyUnsettled);
    EXPECT_EQ(0, memcmp(ctx.policy.previousFrame, img.data(), kFrameBytes));
  }
  EXPECT_EQ(ctx.policy.sceneValue,
            policy_manager_scene_change_detection(b.data(), a.data(), 100, 220, 80, 200, kW, kH));
  EXPECT_EQ(ctx.policy.sceneValue, 56);
}

TEST_F(Policy, MissingReferenceStoreLeavesTheSessionRunningAndUnsettled) {
  LogCapture log;
  start(false, true);
  EXPECT_EQ(ctx.policy.previousFrameState, 0);
  EXPECT_EQ(log.count("not allocated"), 1u);
  const Plane img = texture(3);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(frame(img), 0);
  EXPECT_EQ(state(), kPolicyUnsettled);
  EXPECT_EQ(ctx.policy.policyFrameCount, 10u);
}

TEST_F(Policy, UpdateWithoutAFilledMainPreviewMeasuresNothing) {
  LogCapture log;
  start(false);
  EXPECT_EQ(policy_manager_update(&ctx), 0);
  EXPECT_EQ(ctx.policy.previousFrameState, 1);
  EXPECT_EQ(log.count("no main preview"), 1u);
}

// ---- refocus-map check ----

// Two 320 x 240 planes whose fixed-frame census differs in exactly changed cells.
void censusPair(int changed, Plane& current, Plane& reference) {
  reference.assign(320 * 240, 50);
  auto cell = [](Plane& p, int r, int c, uint8_t v) {
    for (int y = -8 + 16 * r; y < 8 + 16 * r; ++y)
      if (y >= 0)
        for (int x = 32 + 16 * c; x < 48 + 16 * c; ++x) p[y * 320 + x] = v;
  };
  cell(reference, 3, 4, 100);
  current = reference;
  for (int k = 0, n = 0; n < changed; ++k)
    if (k != 3 * 9 + 4) {
      cell(current, k / 9, k % 9, 150);
      ++n;
    }
}

TEST_F(Policy, RefocusMapKeptUpToTenChangedCellsWhateverTheSize) {
  LogCapture log;
  logFlags.store(kLogTrace);
  Plane cur, ref;
  const int sizes[][2] = {{320, 240}, {0, 0}, {640, 480}, {-1, 7}};
  for (const auto& s : sizes) {
    censusPair(10, cur, ref);
    EXPECT_EQ(policy_manager_refocus_map_check(cur.data(), ref.data(), s[0], s[1]), 1);
    censusPair(11, cur, ref);
    EXPECT_EQ(policy_manager_refocus_map_check(cur.data(), ref.data(), s[0], s[1]), 0);
  }
  EXPECT_EQ(log.count("RM check result = 1 sceneValue[10]"), 4u);
  EXPECT_EQ(log.count("RM check result = 0 sceneValue[11]"), 4u);
  EXPECT_EQ(policy_manager_refocus_map_check(nullptr, ref.data(), 320, 240), 0);
}

// ---- F-number ramp ----

TEST_F(Policy, FNumberRampExamples) {
  LogCapture log;
  logFlags.store(kLogTrace);
  uint32_t start = 0;
  EXPECT_FLOAT_EQ(policy_manager_calculate_F_number(&start, 500, 2.0f, 1), 6.0f);
  EXPECT_EQ(start, 0u);
  EXPECT_FLOAT_EQ(policy_manager_calculate_F_number(&start, 5000, 2.0f, 1), 2.0f);
  EXPECT_EQ(start, 4000u);
  EXPECT_EQ(log.count("Auto F number = 6.000000"), 1u);
  // Without hold a fifth of the progress is given back: start 100, e = 400.
  start = 0;
  EXPECT_FLOAT_EQ(policy_manager_calculate_F_number(&start, 500, 2.0f, 0), 6.8f);
  EXPECT_EQ(start, 100u);
  // The elapsed time is an unsigned 32-bit difference, across the wrap.
  start = 0xFFFFFF00u;
  EXPECT_FLOAT_EQ(policy_manager_calculate_F_number(&start, 500, 2.0f, 1), 10.0f - 8.0f * 0.756f);
  EXPECT_FLOAT_EQ(policy_manager_calculate_F_number(nullptr, 500, 2.0f, 1), 10.0f);
}

}  // namespace
