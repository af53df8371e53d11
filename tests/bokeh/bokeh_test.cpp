// The refocus-map worker's map step (publish and hold-back rule, discards, failures), the focus
// point in depth pixels, and the per-frame choice of map.
#include <gtest/gtest.h>

#include <random>

#include "bokeh/bokeh_manager.h"
#include "debug/debug_log.h"
#include "fakes.h"
#include "flow/session_context.h"
#include "log_capture.h"
#include "memory/buffer_manager.h"

namespace {

class Bokeh : public ::testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    SessionContext* c = ctx.get();
    c->cameraLayout = 2;
    c->slots[kSlotMain].width = c->previewMainWidth2 = 1920;
    c->slots[kSlotMain].height = c->previewMainHeight2 = 1080;
    c->slots[kSlotSub].width = 64;
    c->slots[kSlotSub].height = 48;
    c->slots[kSlotDepth].width = c->slots[kSlotRefocus].width = 320;
    c->slots[kSlotDepth].height = c->slots[kSlotRefocus].height = 240;
    buffer_manager_allocate(c);
    c->policy.refocusCountLimit = 2;
    c->policyState.store(5);
    c->focusX.store(960);
    c->focusY.store(540);
  }
  void TearDown() override {
    buffer_manager_free(ctx.get());
    fakes::reset();
    logFlags.store(0);
  }
  void publishDepth() {
    BufferHalf* d = buffer_manager_get_writable(ctx.get(), kSlotDepth);
    memset(d->data, 0, 320 * 240 * 2);
    buffer_manager_publish(d, buffer_manager_get_buffer(ctx.get(), kSlotDepth, kSlotFilled));
  }
  // Maps alike (one content) or each one different (noise).
  void mapsAlike() {
    fakes::setRefocusMapWriter([](uint8_t* m) {
      for (int i = 0; i < 320 * 240; ++i) m[i] = static_cast<uint8_t>((i % 320) / 20 * 16);
    });
  }
  void mapsDiffer() {
    fakes::setRefocusMapWriter([this](uint8_t* m) {
      for (int i = 0; i < 320 * 240; ++i) m[i] = static_cast<uint8_t>(rng());
    });
  }
  int32_t generate() { return bokeh_manager_generate_refocus_map(ctx.get(), &ctx->bokeh.worker); }
  const uint8_t* published() {
    BufferHalf* h = buffer_manager_get_buffer(ctx.get(), kSlotRefocus, kSlotFilled);
    return h != nullptr ? h->data : nullptr;
  }
  std::unique_ptr<SessionContext> ctx{new SessionContext()};
  std::mt19937 rng{7};
};

TEST_F(Bokeh, FocusPointInDepthPixelsKeepsThePortraitTurn) {
  int32_t x, y;
  bokeh_manager_focus_to_depth(ctx.get(), 960, 540, &x, &y);
  EXPECT_EQ(x, 160);
  EXPECT_EQ(y, 120);
  ctx->isPortrait = 1;
  bokeh_manager_focus_to_depth(ctx.get(), 960, 540, &x, &y);
  EXPECT_EQ(x, 120);
  EXPECT_EQ(y, 80);  // both measured against the height
  ctx->isPortrait = 0;
  ctx->cameraLayout = 3;  // slot 2 turned: 240 x 320 in the caller's orientation is 320 x 240
  ctx->slots[kSlotDepth].width = 240;
  ctx->slots[kSlotDepth].height = 320;
  bokeh_manager_focus_to_depth(ctx.get(), 480, 270, &x, &y);
  EXPECT_EQ(x, 80);
  EXPECT_EQ(y, 60);
}

TEST_F(Bokeh, RendererFormatCodes) {
  const int32_t want[] = {0, 0, 2, 3, 3, 0, 7};
  for (int32_t f = 0; f <= 6; ++f) EXPECT_EQ(bokeh_manager_renderer_format(f), want[f]) << f;
  EXPECT_EQ(bokeh_manager_renderer_format(7), -1);
}

TEST_F(Bokeh, StableSceneHoldsBackDifferingMapsUntilTheLimitIsPassed) {
  publishDepth();
  mapsAlike();
  ASSERT_EQ(generate(), 0);  // nothing published yet: published
  const uint8_t* first = published();
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(generate(), 0);  // alike in state 5: thrown away
  EXPECT_EQ(published(), first);
  EXPECT_EQ(ctx->bokeh.refocusCount, 0);
  mapsDiffer();
  ASSERT_EQ(generate(), 0);
  EXPECT_EQ(published(), first);
  EXPECT_EQ(ctx->bokeh.refocusCount, 1);
  ASSERT_EQ(generate(), 0);
  EXPECT_EQ(published(), first);
  ASSERT_EQ(generate(), 0);  // third differing map in a row: published
  EXPECT_NE(published(), first);
  EXPECT_EQ(ctx->bokeh.refocusCount, 0);
  EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap"), 5u);
  // Generated at the focus in depth pixels.
  EXPECT_EQ(fakes::calls("vmKtrRT_GenRefocusMap")[0].args[2], 160);
}

TEST_F(Bokeh, LimitZeroAndUnsettledScenesPublishEveryMap) {
  publishDepth();
  mapsDiffer();
  ctx->policy.refocusCountLimit = 0;
  ASSERT_EQ(generate(), 0);
  const uint8_t* first = published();
  ASSERT_EQ(generate(), 0);
  EXPECT_NE(published(), first);
  ctx->policy.refocusCountLimit = 2;
  ctx->policyState.store(3);
  mapsAlike();
  const uint8_t* second = published();
  ASSERT_EQ(generate(), 0);
  EXPECT_NE(published(), second);
  // A forced publish passes in state 5 even for a map alike.
  ctx->policyState.store(5);
  ctx->bokeh.worker.forcePublish.store(1);
  const uint8_t* third = published();
  ASSERT_EQ(generate(), 0);
  EXPECT_NE(published(), third);
  EXPECT_EQ(ctx->bokeh.worker.forcePublish.load(), 0);
}

TEST_F(Bokeh, DiscardDuringGenerationLeavesNoPublishedMap) {
  publishDepth();
  ASSERT_EQ(generate(), 0);
  ASSERT_NE(published(), nullptr);
  SessionContext* c = ctx.get();
  fakes::setHook("vmKtrRT_GenRefocusMap", [c] { c->depthDiscardRequest.fetch_or(2); });
  EXPECT_EQ(generate(), 5);
  EXPECT_EQ(published(), nullptr);
  EXPECT_EQ(c->depthDiscardRequest.load(), 0u);
}

TEST_F(Bokeh, NoDepthAndGeneratorFailure) {
  LogCapture log;
  logFlags.store(kLogTrace);
  ctx->focusX.store(100);
  logFlags.store(kLogTrace | kLogStepCost);
  EXPECT_EQ(generate(), 0);
  EXPECT_EQ(log.count("bokeh_manager_generate_refocus_map:"), 2u);  // the error and the profile line
  EXPECT_EQ(log.count("ERROR: No Depth"), 1u);
  EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap"), 0u);
  EXPECT_EQ(ctx->bokeh.worker.lastFocusX.load(), 100);  // taken before anything can fail
  publishDepth();
  fakes::queueResult("vmKtrRT_GenRefocusMap", 9);
  EXPECT_EQ(generate(), 9);
  EXPECT_EQ(published(), nullptr);
  // Chip depth goes to the disparity generator.
  ctx->depthFromChip = 1;
  EXPECT_EQ(generate(), 0);
  EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap_VX4810_DispartyBase"), 1u);
}

class BokehFrame : public Bokeh {
 protected:
  void SetUp() override {
    Bokeh::SetUp();
    frame.assign(1920 * 1080 * 3 / 2, 0);
    ctx->mainImageData = frame.data();
    ctx->mainImagePlane2 = frame.data() + 1920 * 1080;
    ctx->mainImageSize = static_cast<uint32_t>(frame.size());
    // No worker thread here: a busy worker, so the wake attempts find nobody waiting.
    RefocusWorker* w = &ctx->bokeh.worker;
    pthread_mutex_init(&w->mutex, nullptr);
    pthread_cond_init(&w->cond, nullptr);
    w->syncReady = 1;
    w->status.store(kBmdStatusRunning);
    w->lastFocusX.store(960);
    w->lastFocusY.store(540);
  }
  void TearDown() override {
    pthread_cond_destroy(&ctx->bokeh.worker.cond);
    pthread_mutex_destroy(&ctx->bokeh.worker.mutex);
    Bokeh::TearDown();
  }
  int32_t frameStep() { return bokeh_manager_trigger(ctx.get()); }
  std::vector<uint8_t> frame;
};

TEST_F(BokehFrame, MapChoiceByPolicyStateAndDiscard) {
  publishDepth();
  ASSERT_EQ(generate(), 0);
  const int64_t map = reinterpret_cast<intptr_t>(published());
  EXPECT_EQ(frameStep(), 0);
  EXPECT_EQ(fakes::calls("vmKtrRT_GLStartV1").back().args[2], map);
  ctx->policyState.store(2);
  ctx->prevPolicyState.store(2);
  EXPECT_EQ(frameStep(), 1);
  EXPECT_EQ(fakes::calls("vmKtrRT_GLStartV1").back().args[2], 0);
  ctx->policyState.store(4);
  ctx->prevPolicyState.store(4);
  ctx->depthDiscardRequest.store(1);
  EXPECT_EQ(frameStep(), 1);
  ctx->depthDiscardRequest.store(0);
  buffer_manager_reset_slot(ctx.get(), kSlotRefocus);
  EXPECT_EQ(frameStep(), 0);  // allowed but none published: null map, flag 0
  EXPECT_EQ(fakes::calls("vmKtrRT_GLStartV1").back().args[2], 0);
  EXPECT_EQ(fakes::calls("vmKtrRT_GLStartV1").back().args[5], 0);
}

TEST_F(BokehFrame, NewDepthNoticedOnceAndRequestsStayPending) {
  LogCapture log;
  logFlags.store(kLogTrace);
  publishDepth();
  frameStep();
  frameStep();
  EXPECT_EQ(log.count("NEW Depth..."), 1u);
  EXPECT_EQ(ctx->bokeh.worker.pendingReasons.load(), kReasonNewDepth);
  ctx->focusX.store(100);
  frameStep();
  EXPECT_EQ(ctx->bokeh.worker.pendingReasons.load(), kReasonNewDepth | kReasonFocusMoved);
  EXPECT_EQ(log.count("gen refocus map is BMD_STATUS_WAITING[0]"), 3u);  // retried every frame
  // The function names in log lines are part of the interface.
  EXPECT_EQ(log.count("bokeh_manager_trigger:"), log.lines().size());
  ctx->mainImageData = nullptr;
  EXPECT_EQ(frameStep(), 0);
  EXPECT_EQ(fakes::count("vmKtrRT_GLStartV1"), 3u);
  EXPECT_EQ(log.count("ERROR: no Main Preview"), 1u);
}

}  // namespace
