// Depth generation: engine set-up per calibration kind, the layout roads end to end through the
// fake engine, used marks, discards, chip depth and the temporal filter step.
#include <gtest/gtest.h>

#include "depth/depth_manager.h"
#include "depth_support.h"
#include "engines/engines.h"
#include "fakes.h"
#include "image/image_utility.h"
#include "log_capture.h"
#include "memory/heap.h"

namespace {

class DepthGeneration : public ::testing::Test {
 protected:
  void SetUp() override { fakes::reset(); }
  void TearDown() override {
    if (started) depth_manager_deinit(s.ctx.get());
    fakes::reset();
  }
  void start(int32_t layout, int32_t cw = 32, int32_t ch = 24, int32_t mainW = 64, int32_t mainH = 48) {
    s.setUp(layout, mainW, mainH, cw, ch);
    ASSERT_EQ(depth_manager_create_thread(s.ctx.get()), 0);
    started = true;
  }
  DepthWorker* worker() { return &s.ctx->depth.worker; }
  DepthSession s;
  FlagWords flags;
  bool started = false;
};

TEST_F(DepthGeneration, EngineSetUpPerCalibrationKind) {
  s.setUp(2, 64, 48, 32, 24);
  SessionContext* c = s.ctx.get();
  c->otpKind = 0;
  c->ishighDepthQuality = 1;
  ASSERT_EQ(depth_manager_init_Dpx2_LV(c), 0);
  EXPECT_STREQ(c->depthEngineVersion, "fake-dpx2");
  EXPECT_EQ(fakes::names(), (std::vector<std::string>{"vmDpx2_VersionInfo_Get_LV", "vmDpx2_CameraLayout_Set_LV",
                                                      "vmDpx2RT_FieldofDepth_Set", "vmDpx2_Express_Init"}));
  EXPECT_EQ(fakes::calls("vmDpx2RT_FieldofDepth_Set")[0].args[0], 2);
  const int64_t otp = reinterpret_cast<intptr_t>(c->otpCopy);
  EXPECT_EQ(fakes::calls("vmDpx2_Express_Init")[0].args, (std::vector<int64_t>{0, 0, 32, 24, otp, 32}));

  fakes::reset();
  c->otpKind = 1;
  c->ishighDepthQuality = 0;
  ASSERT_EQ(depth_manager_init_Dpx2_LV(c), 0);
  EXPECT_EQ(fakes::calls("vmDpx2RT_FieldofDepth_Set")[0].args[0], 1);
  EXPECT_EQ(fakes::calls("vmDpx2_Express_Init")[0].args, (std::vector<int64_t>{otp, 32, 32, 24, 0, 0}));

  fakes::reset();
  c->otpKind = 3;
  EXPECT_EQ(depth_manager_init_Dpx2_LV(c), 6);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Init"), 0u);

  // A refused layout still sets the field of depth, then stops before the engine's set-up.
  fakes::reset();
  c->otpKind = 0;
  fakes::queueResult("vmDpx2_CameraLayout_Set_LV", 9);
  EXPECT_EQ(depth_manager_init_Dpx2_LV(c), 9);
  EXPECT_EQ(fakes::count("vmDpx2RT_FieldofDepth_Set"), 1u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Init"), 0u);
}

// Every layout turns the previews to the engine's orientation and the map back: with an engine
// that answers with the main luma, the published map is the main preview scaled in the caller's
// orientation, and the engine's input is that picture turned as the layout says.
TEST_F(DepthGeneration, LayoutsRoundTripThroughTheEngine) {
  struct Case {
    int32_t layout, frontCam;
  };
  for (Case k : {Case{1, 0}, Case{2, 0}, Case{3, 0}, Case{4, 0}, Case{4, 1}}) {
    SCOPED_TRACE(testing::Message() << "layout " << k.layout << " front " << k.frontCam);
    DepthSession d;
    d.setUp(k.layout, 64, 48, 32, 24);
    d.ctx->isFrontCam = k.frontCam;
    fakes::reset();
    fakes::setDepthEchoesMainLuma(true);
    ASSERT_EQ(depth_manager_create_thread(d.ctx.get()), 0);
    d.putFrame(kSlotMain, 3);
    d.putFrame(kSlotSub, 9);
    // Everything a depth frame needs was taken at start: every allocation failing changes nothing.
    heap_fault_inject(1, true);
    EXPECT_EQ(depth_manager_generate_depth(d.ctx.get(), &d.ctx->depth.worker), 0);
    EXPECT_EQ(heap_fault_count(), 0);
    heap_fault_inject(0, false);

    const int32_t cw = 32, ch = 24, n = cw * ch;
    std::vector<uint8_t> scaled(3 * n);
    image_utility_nv12_scale_rotate(buffer_manager_get_buffer(d.ctx.get(), kSlotMain, kSlotFilled)->data, scaled.data(),
                                    scaled.data() + n, scaled.data() + 2 * n, 64, 48, 64, 48, cw, ch, TURN_NONE,
                                    nullptr, 0);
    const uint16_t* out = d.publishedDepth();
    ASSERT_NE(out, nullptr);
    for (int32_t i = 0; i < n; ++i) ASSERT_EQ(out[i], scaled[i]) << i;

    const uint8_t* P = d.ctx->depth.worker.planes[0].data;
    const int32_t effective = (k.layout == 4 && k.frontCam) ? 3 : k.layout;
    auto S = [&](int32_t r, int32_t c) { return scaled[r * cw + c]; };
    for (int32_t r = 0; r < ((effective >= 3) ? cw : ch); ++r)
      for (int32_t c = 0; c < ((effective >= 3) ? ch : cw); ++c) {
        uint8_t want = 0;
        switch (effective) {
          case 1:
            want = scaled[n - 1 - (r * cw + c)];
            break;
          case 2:
            want = S(r, c);
            break;
          case 3:  // quarter turn clockwise: ch wide
            want = S(ch - 1 - c, r);
            break;
          case 4:  // counter-clockwise
            want = S(c, cw - 1 - r);
            break;
        }
        const int32_t rowLength = effective >= 3 ? ch : cw;
        ASSERT_EQ(P[r * rowLength + c], want) << r << "," << c;
      }
    depth_manager_deinit(d.ctx.get());
  }
}

TEST_F(DepthGeneration, SameFramesAreNotUsedTwiceAndMissingInputsRefused) {
  start(2);
  SessionContext* c = s.ctx.get();
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 3);  // nothing filled yet
  s.putFrame(kSlotMain, 1);
  s.putFrame(kSlotSub, 2);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 0);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 3);
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 1u);
  // A new main frame alone is not enough: the sub frame is still the used one.
  s.putFrame(kSlotMain, 5);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 3);
  s.putFrame(kSlotSub, 6);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 0);
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 2u);
  // The engine's pattern of its second frame, published.
  EXPECT_EQ(s.publishedDepth()[5 * 32 + 7], fakes::fakeDepthValue(7, 5, 1));
}

TEST_F(DepthGeneration, DiscardRaisedDuringTheRunThrowsTheMapAway) {
  start(2);
  SessionContext* c = s.ctx.get();
  s.putFrame(kSlotMain, 1);
  s.putFrame(kSlotSub, 2);
  ASSERT_EQ(depth_manager_generate_depth(c, worker()), 0);  // one map published before
  s.putFrame(kSlotMain, 3);
  s.putFrame(kSlotSub, 4);
  fakes::setHook("vmDpx2_Run_Express", [c] { c->depthDiscardRequest.fetch_or(3); });
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 5);
  EXPECT_EQ(s.publishedDepth(), nullptr);        // both depth buffers free
  EXPECT_EQ(c->depthDiscardRequest.load(), 2u);  // bit 0 taken, bit 1 left for the refocus side
  fakes::setHook("vmDpx2_Run_Express", nullptr);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 0);  // the same frames may be used again
  EXPECT_NE(s.publishedDepth(), nullptr);
}

TEST_F(DepthGeneration, UnknownLayoutPublishesTheUnwrittenBuffer) {
  start(2);
  SessionContext* c = s.ctx.get();
  c->cameraLayout = 7;
  s.putFrame(kSlotMain, 1);
  s.putFrame(kSlotSub, 2);
  EXPECT_EQ(depth_manager_generate_depth(c, worker()), 0);
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 0u);
  EXPECT_NE(s.publishedDepth(), nullptr);
}

TEST_F(DepthGeneration, DebugColouringWithFocusMarker) {
  debugEnable.store(1);
  debugDisplay.store(0x52);  // depth picture, overlay, focus marker
  start(2);
  SessionContext* c = s.ctx.get();
  c->focusX.store(32);  // middle of the 64 x 48 preview: (16, 12) on the 32 x 24 map
  c->focusY.store(24);
  s.putFrame(kSlotMain, 1);
  s.putFrame(kSlotSub, 2);
  ASSERT_EQ(depth_manager_generate_depth(c, worker()), 0);
  BufferHalf* pic = buffer_manager_get_buffer(c, kSlotDepthWork, kSlotFilled);
  ASSERT_NE(pic, nullptr);
  const uint8_t marker[4] = {0xFF, 0x7F, 0x7F, 0x80};
  EXPECT_EQ(0, memcmp(pic->data + 4 * (12 * 32 + 16), marker, 4));
  EXPECT_EQ(0, memcmp(pic->data + 4 * (7 * 32 + 11), marker, 4));
  // Away from the marker: the coloured depth, shown (opaque).
  EXPECT_EQ(pic->data[4 * (0 * 32 + 0) + 3], 210);
}

TEST_F(DepthGeneration, ChipDepthFormats) {
  s.setUp(2, 64, 48, 4, 2);
  SessionContext* c = s.ctx.get();
  c->depthFromChip = 1;
  const uint16_t words[8] = {0xFFFF, 0x0400, 0x03FF, 0x1234, 0, 1, 1023, 0x8001};
  c->chipDepthFormat = 1;
  depth_manager_get_depth_from_chip(c, reinterpret_cast<const uint8_t*>(words), sizeof words);
  ASSERT_NE(s.publishedDepth(), nullptr);
  const uint16_t masked[8] = {0x3FF, 0, 0x3FF, 0x234, 0, 1, 1023, 1};
  EXPECT_EQ(0, memcmp(s.publishedDepth(), masked, sizeof masked));
  EXPECT_EQ(buffer_manager_get_buffer(c, kSlotDepth, kSlotFilled)->size, 16);

  const uint8_t bytes[8] = {0, 1, 2, 255, 128, 7, 9, 200};
  c->chipDepthFormat = 0;
  depth_manager_get_depth_from_chip(c, bytes, sizeof bytes);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(s.publishedDepth()[i], bytes[i]);
}

TEST_F(DepthGeneration, ChipDepthRefusalsKeepTheFrameGoing) {
  LogCapture log;
  s.setUp(2, 64, 48, 4, 2);
  SessionContext* c = s.ctx.get();
  c->depthFromChip = 1;
  c->chipDepthFormat = 1;
  depth_manager_get_depth_from_chip(c, nullptr, 16);
  EXPECT_EQ(log.count("ERROR: no chip depth"), 1u);
  const uint16_t words[8] = {};
  depth_manager_get_depth_from_chip(c, reinterpret_cast<const uint8_t*>(words), 15);
  EXPECT_EQ(log.count("ERROR: chip depth of 15 bytes"), 1u);
  EXPECT_EQ(s.publishedDepth(), nullptr);
}

TEST_F(DepthGeneration, ChipDepthThroughTheTemporalFilter) {
  SessionContext* c = s.setUpChipWithFilter();
  ASSERT_EQ(depth_manager_create_thread(c), 0);
  started = true;
  EXPECT_STREQ(c->depthUtilityVersion, "fake-zu");
  EXPECT_EQ(fakes::calls("vmZu_TemporalFilterU16_Init")[0].args, (std::vector<int64_t>{64, 48, 4, 2}));

  const uint16_t words[8] = {0xF001, 2, 3, 4, 5, 6, 7, 8};
  depth_manager_get_depth_from_chip(c, reinterpret_cast<const uint8_t*>(words), sizeof words);
  EXPECT_EQ(s.publishedDepth(), nullptr);                       // into the filter's input, not the depth pair
  EXPECT_EQ(depth_manager_do_temporal_filter(c, worker()), 3);  // no guide frame yet
  s.putFrame(kSlotMain, 4);
  ASSERT_EQ(depth_manager_do_temporal_filter(c, worker()), 0);
  auto run = fakes::calls("vmZu_TemporalFilterU16_Run");
  ASSERT_EQ(run.size(), 1u);
  const int64_t blockA = reinterpret_cast<intptr_t>(worker()->planes[0].data);
  const int64_t blockB = reinterpret_cast<intptr_t>(worker()->planes[1].data);
  const int64_t out = reinterpret_cast<intptr_t>(s.publishedDepth());
  EXPECT_EQ(run[0].args, (std::vector<int64_t>{out, blockB, 4, 2, blockA, 64, 48}));
  EXPECT_EQ(worker()->planes[0].data[3], DepthSession::lumaAt(3, 0, 4));  // the guide luma copy

  // Switched off: the map passes through sample for sample and the filter is not asked.
  fakes::reset();
  c->temporalFilterEnabled.store(0);
  const uint16_t next[8] = {11, 12, 13, 14, 15, 16, 17, 1023};
  depth_manager_get_depth_from_chip(c, reinterpret_cast<const uint8_t*>(next), sizeof next);
  ASSERT_EQ(depth_manager_do_temporal_filter(c, worker()), 0);
  EXPECT_EQ(fakes::count("vmZu_TemporalFilterU16_Run"), 0u);
  EXPECT_EQ(0, memcmp(s.publishedDepth(), next, sizeof next));
}

}  // namespace
