// The refocus-map worker's map step (publish and hold-back rule, discards, failures), the focus
// point in depth pixels, and the per-frame choice of map.
#include <gtest/gtest.h>

#include <random>

#include "bokeh/bokeh_manager.h"
#include "debug/debug_log.h"
#include "fakes.h"
#include "flow/session_context.h"
#include "image/depth_display.h"
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
    pthread_mutex_init(&w->thread.mutex, nullptr);
    pthread_cond_init(&w->thread.cond, nullptr);
    w->thread.syncReady = 1;
    w->thread.status.store(kWorkerRunning);
    w->lastFocusX.store(960);
    w->lastFocusY.store(540);
  }
  void TearDown() override {
    pthread_cond_destroy(&ctx->bokeh.worker.thread.cond);
    pthread_mutex_destroy(&ctx->bokeh.worker.thread.mutex);
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

class DebugDisplay : public BokehFrame {
 protected:
  void TearDown() override {
    debugEnable.store(0);
    debugDisplay.store(0);
    statusInfo.store(0);
    BokehFrame::TearDown();
  }
  const DebugPictureEntry& entry(int i) { return ctx->bokeh.table[i]; }
  std::vector<int32_t> place(int i) {
    const DebugPictureEntry& e = entry(i);
    return {e.width, e.height, e.x, e.y, e.displayWidth, e.displayHeight};
  }
  void show() {
    DebugHolds holds = {};
    bokeh_manager_debug_display(ctx.get(), &holds);
    for (int i = 0; i < holds.count; ++i) buffer_manager_release(holds.held[i]);
  }
};

TEST_F(DebugDisplay, SubPreviewPasteAndFocusMarker) {
  debugEnable.store(1);
  debugDisplay.store(0x0A);
  BufferHalf* sub = buffer_manager_get_writable(ctx.get(), kSlotSub);
  for (int i = 0; i < 64 * 48 * 3 / 2; ++i) sub->data[i] = static_cast<uint8_t>(1 + i % 200);
  buffer_manager_publish(sub, nullptr);
  show();
  // Luma row r of the sub frame at the bottom-right corner, its chroma rows below the main luma.
  for (int r = 0; r < 48; r += 7)
    EXPECT_EQ(0, memcmp(&frame[(1080 - 48 + r) * 1920 + 1920 - 64], &sub->data[r * 64], 64)) << r;
  for (int r = 0; r < 24; r += 5)
    EXPECT_EQ(0,
              memcmp(&frame[1920 * 1080 + ((1080 - 48) / 2 + r) * 1920 + 1920 - 64], &sub->data[64 * 48 + r * 64], 64))
        << r;
  EXPECT_EQ(frame[(1080 - 49) * 1920 + 1920 - 64], 0);
  // The white focus marker: rows and columns 535..544 around (960, 540).
  EXPECT_EQ(frame[535 * 1920 + 955], 255);
  EXPECT_EQ(frame[544 * 1920 + 964], 255);
  EXPECT_EQ(frame[545 * 1920 + 960], 0);
  EXPECT_EQ(fakes::count("vmKtrRT_GLSetDebugPicture"), 0u);  // no picture this time
  // A frame smaller than its planes is not written.
  std::fill(frame.begin(), frame.end(), 0);
  ctx->mainImageSize = 1920 * 1080 - 1;
  show();
  EXPECT_EQ(frame[540 * 1920 + 960], 0);
}

TEST_F(DebugDisplay, OverlayModeAndShowHideSwitching) {
  debugEnable.store(1);
  debugDisplay.store(0x50);  // depth picture as overlay
  BufferHalf* pic = buffer_manager_get_writable(ctx.get(), kSlotDepthWork);
  buffer_manager_publish(pic, nullptr);
  show();
  EXPECT_EQ(fakes::calls("vmKtrRT_GLShowDebugPicture").back().args, (std::vector<int64_t>{1, 1}));
  EXPECT_EQ(entry(0).data, pic->data);
  EXPECT_EQ(place(0), (std::vector<int32_t>{320, 240, 0, 0, 1920, 1080}));
  EXPECT_EQ(entry(1).data, nullptr);
  show();
  EXPECT_EQ(fakes::count("vmKtrRT_GLShowDebugPicture"), 1u);  // switched on once
  debugDisplay.store(0);
  show();
  show();
  EXPECT_EQ(fakes::count("vmKtrRT_GLShowDebugPicture"), 2u);
  EXPECT_EQ(fakes::calls("vmKtrRT_GLShowDebugPicture").back().args, (std::vector<int64_t>{0, 0}));
}

TEST_F(DebugDisplay, SampleLabelsReadDepthAndHalfSizedMap) {
  // A 640 x 480 depth map with a 320 x 240 refocus map: the labels' layout.
  buffer_manager_free(ctx.get());
  ctx->slots[kSlotDepth].width = 640;
  ctx->slots[kSlotDepth].height = 480;
  buffer_manager_allocate(ctx.get());
  BufferHalf* d = buffer_manager_get_writable(ctx.get(), kSlotDepth);
  uint16_t* depth = reinterpret_cast<uint16_t*>(d->data);
  for (int i = 0; i < 640 * 480; ++i) depth[i] = static_cast<uint16_t>(i % 1000);
  buffer_manager_publish(d, nullptr);
  BufferHalf* m = buffer_manager_get_writable(ctx.get(), kSlotRefocus);
  for (int i = 0; i < 320 * 240; ++i) m->data[i] = static_cast<uint8_t>(i % 251);
  buffer_manager_publish(m, nullptr);
  debugEnable.store(1);
  debugDisplay.store(0x1);
  statusInfo.store(0x8);
  show();
  const int32_t points[5][2] = {{160, 240}, {320, 360}, {320, 240}, {320, 120}, {480, 240}};
  for (int k = 0; k < 5; ++k) {
    SCOPED_TRACE(k);
    const int32_t px = points[k][0], py = points[k][1];
    char label[32];
    snprintf(label, sizeof label, "%5d/%3d", depth[py * 640 + px], m->data[(py / 2) * 320 + px / 2]);
    std::vector<uint8_t> want(7680);
    image_utility_draw_text(want.data(), 7680, label);
    EXPECT_EQ(0, memcmp(entry(k).data, want.data(), 9 * 384));
    EXPECT_EQ(place(k), (std::vector<int32_t>{72, 12, 1920 * px / 640, 1080 * py / 480, 144, 24}));
  }
  EXPECT_EQ(entry(5).data, nullptr);
  EXPECT_EQ(fakes::count("vmKtrRT_GLSetDebugPicture"), 1u);
}

}  // namespace
