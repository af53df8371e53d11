// The flow controller on the session record itself: the dimension rules, the flags taken as on
// only when exactly 1, the calibration copy, allocation failure at every allocation of Init, the
// leak check at Deinit, and the discard bits raised when the scene comes loose.
#include "flow/flow_controller.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "debug/debug_log.h"
#include "depth/depth_manager.h"
#include "engine_gate.h"
#include "fakes.h"
#include "flow/session_context.h"
#include "log_capture.h"
#include "memory/buffer_manager.h"
#include "memory/heap.h"
#include "session_support.h"
#include "test_dump_dir.h"
#include "thread_count.h"

namespace {

class Flow : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    fakes::reset();
    memset(static_cast<void*>(&scratch), 0, sizeof scratch);
  }
  void TearDown() override {
    flow_controller_deinit();
    heap_free(scratch.otpCopy);
    debugEnable.store(0);
    dumpFlags.store(0);
    fakes::reset();
    PropertyFixture::TearDown();
  }
  // fill_initial_data on a record of its own (the session is not touched).
  SessionContext& fill(const InitData& d) {
    EXPECT_EQ(flow_controller_fill_initial_data(&scratch, &d), 0);
    return scratch;
  }
  SessionContext scratch;
};

TEST_F(Flow, DimensionRulesUseTheWholeLayoutWord) {
  Frames f(64, 48, 32, 24, 40, 30);
  InitData d = f.init(4);
  SessionContext& c = fill(d);
  EXPECT_EQ(session_depth_width(&c), 30);  // turned
  EXPECT_EQ(session_depth_height(&c), 40);
  EXPECT_EQ(session_refocus_width(&c), 320);
  EXPECT_EQ(session_refocus_height(&c), 240);
  heap_free(c.otpCopy);

  d = f.init(0x13);  // chip bit with layout 3, neither sample format: not turned, no chip depth
  SessionContext& c2 = fill(d);
  EXPECT_EQ(c2.cameraLayout, 3);
  EXPECT_EQ(c2.depthFromChip, 0);
  EXPECT_EQ(session_depth_width(&c2), 40);
  EXPECT_EQ(session_depth_height(&c2), 30);
  EXPECT_EQ(session_refocus_width(&c2), 40);
  EXPECT_EQ(session_refocus_height(&c2), 30);
  heap_free(c2.otpCopy);

  d = f.init(0x52);  // chip, 8-bit samples
  SessionContext& c3 = fill(d);
  EXPECT_EQ(c3.depthFromChip, 1);
  EXPECT_EQ(c3.chipDepthFormat, 0);
  heap_free(c3.otpCopy);
  d = f.init(0x72);  // both sample bits: 10-bit wins
  SessionContext& c4 = fill(d);
  EXPECT_EQ(c4.chipDepthFormat, 1);
  EXPECT_EQ(c4.cameraLayout, 2);
}

TEST_F(Flow, FlagsCountOnlyWhenExactlyOneAndTheCalibrationIsCopied) {
  Frames f(64, 48, 32, 24, 40, 30);
  InitData d = f.init(2);
  d.isFrontCam = 2;
  d.isPortrait = 1;
  d.isUsingTemporalFilter = 1;
  d.otpDataAlt = d.otpData;
  d.otpData = nullptr;
  SessionContext& c = fill(d);
  EXPECT_EQ(c.isFrontCam, 0);
  EXPECT_EQ(c.isPortrait, 1);
  EXPECT_EQ(c.temporalFilterEnabled.load(), 1);
  EXPECT_EQ(c.otpKind, 1);
  EXPECT_EQ(c.otpTag, 2);
  ASSERT_NE(c.otpCopy, nullptr);
  EXPECT_NE(c.otpCopy, f.otp.data());
  EXPECT_EQ(0, memcmp(c.otpCopy, f.otp.data(), f.otp.size()));
  EXPECT_STREQ(c.versionText, "v0.47");
}

TEST_F(Flow, EepromDumpFollowsTheDumpFlagsOfTheLastRun) {
  const std::string path = std::string(VMKTR_DUMP_DIR_FOR_TESTS) + "/eeprom.raw";
  remove(path.c_str());
  Frames f(64, 48, 32, 24, 40, 30);
  debugEnable.store(1);
  dumpFlags.store(0);
  heap_free(fill(f.init()).otpCopy);
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  dumpFlags.store(0x40);
  fill(f.init());
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  remove(path.c_str());
}

TEST_F(Flow, OutOfMemoryForTheCalibrationCopy) {
  Frames f(64, 48, 32, 24, 40, 30);
  heap_fault_inject(1, false);
  const InitData d = f.init();
  EXPECT_EQ(flow_controller_fill_initial_data(&scratch, &d), 2);
  heap_fault_inject(0, false);
  EXPECT_EQ(flow_controller_init(f.init()), 0);
  EXPECT_EQ(g_session.state.load(), kStateRunning);
}

TEST_F(Flow, FailedStartsReleaseInReverse) {
  Frames f(64, 48, 32, 24, 32, 24);
  fakes::queueResult("vmDpx2_CameraLayout_Set_LV", 0x21);
  EXPECT_EQ(flow_controller_init(f.init()), 0x21);
  EXPECT_EQ(g_session.state.load(), kStateDepthWorkerFailed);
  EXPECT_EQ(g_session.otpCopy, nullptr);
  EXPECT_EQ(g_session.slots[0].a.data, nullptr);
  fakes::queueResult("vmKtrRT_GLInitV1", 0x31);
  fakes::queueResult("vmKtrRT_GLInitV1_1", 0x31);
  EXPECT_EQ(flow_controller_init(f.init()), 0x31);
  EXPECT_EQ(g_session.state.load(), kStateBokehFailed);
  EXPECT_EQ(g_session.depth.worker.thread.status.load(), 0);  // the started depth worker was stopped
  EXPECT_EQ(g_session.slots[0].a.data, nullptr);
  EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 0u);
}

// Threads of this process, from the kernel's list.
TEST_F(Flow, AllocationFailureAtEveryAllocationOfInit) {
  // The states Init ends in when its n-th allocation fails, in Init's order: the calibration
  // copy, the six slots, the depth worker's blocks, the policy store (the session runs without
  // it), the refocus-map worker's scratch; then no allocation is left to fail.
  constexpr int32_t kStore = -1;
  struct Session {
    const char* name;
    uint32_t layout;
    int32_t filter;
    std::vector<int32_t> states;
  };
  const std::vector<int32_t> slots(6, kStateBufferFailed);
  auto join = [&](std::vector<int32_t> head, std::vector<int32_t> depth) {
    head.insert(head.end(), slots.begin(), slots.end());
    head.insert(head.end(), depth.begin(), depth.end());
    head.push_back(kStore);
    head.push_back(kStateBokehFailed);
    return head;
  };
  const std::vector<int32_t> depth4(4, kStateDepthWorkerFailed), depth2(2, kStateDepthWorkerFailed);
  const Session sessions[] = {{"stereo", 2, 0, join({kStateRejected}, depth4)},
                              {"chip", 0x32, 0, join({kStateRejected}, {})},
                              {"chip filtered", 0x32, 1, join({kStateRejected}, depth2)}};
  Frames f(64, 48, 64, 48, 32, 24);
  const int idle = thread_count_settled(thread_count_now());
  for (const Session& k : sessions) {
    for (size_t n = 1; n <= k.states.size() + 1; ++n) {
      SCOPED_TRACE(testing::Message() << k.name << " allocation " << n);
      fakes::reset();
      log.clear();
      InitData d = f.init(k.layout);
      d.isUsingTemporalFilter = k.filter;
      const int threads = thread_count_settled(idle);
      const int64_t blocks = heap_live_blocks();
      heap_fault_inject(static_cast<int32_t>(n), false);
      const int32_t r = flow_controller_init(d);
      const int32_t failed = heap_fault_count();
      heap_fault_inject(0, false);
      if (n > k.states.size()) {
        EXPECT_EQ(failed, 0);  // every allocation of Init was tried
        EXPECT_EQ(r, 0);
      } else if (k.states[n - 1] == kStore) {
        ASSERT_EQ(failed, 1);
        EXPECT_EQ(r, 0);
        EXPECT_EQ(log.count("ERROR: previous frame store"), 1u);  // whatever the log flags
      } else {
        ASSERT_EQ(failed, 1);
        EXPECT_EQ(r, 2);
        EXPECT_EQ(g_session.state.load(), k.states[n - 1]);
        EXPECT_EQ(heap_live_blocks(), blocks);              // a failed Init gives back what it took
        EXPECT_LE(thread_count_settled(threads), threads);  // and leaves no worker behind
        EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 0u);
        EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), fakes::count("vmDpx2_Express_Init"));
        continue;
      }
      ASSERT_EQ(g_session.state.load(), kStateRunning);
      EXPECT_GT(thread_count_now(), threads);
      flow_controller_deinit();
      EXPECT_EQ(heap_live_blocks(), blocks);
      EXPECT_LE(thread_count_settled(threads), threads);
      EXPECT_EQ(log.count("heap blocks not given back"), 0u);
    }
  }
}

TEST_F(Flow, DeinitFindsABlockTheSessionDidNotGiveBack) {
  Frames f(64, 48, 64, 48, 32, 24);
  const int64_t blocks = heap_live_blocks();
  ASSERT_EQ(flow_controller_init(f.init()), 0);
  for (int i = 0; i < 10; ++i) flow_controller_trigger(f.centred());
  flow_controller_deinit();
  EXPECT_EQ(heap_live_blocks(), blocks);
  EXPECT_EQ(log.count("heap blocks not given back"), 0u);

  // A block taken through the heap door during the session and never freed is named at Deinit.
  void* kept = nullptr;
  fakes::setHook("vmKtrRT_GLStartV1", [&kept] {
    if (kept == nullptr) kept = heap_allocate(32);
  });
  ASSERT_EQ(flow_controller_init(f.init()), 0);
  flow_controller_trigger(f.centred());
  ASSERT_NE(kept, nullptr);
  flow_controller_deinit();
  EXPECT_EQ(log.count("ERROR: 1 heap blocks not given back at Deinit"), 1u);
  heap_free(kept);
  EXPECT_EQ(heap_live_blocks(), blocks);
}

// Once a session is rendering with maps, frames take nothing from the heap, on the frame thread
// or the workers, in any layout or mode: every allocation from then on would fail and be counted.
TEST_F(Flow, SteadyFramesTakeNothingFromTheHeap) {
  struct Mode {
    const char* name;
    uint32_t layout;
    bool filter, debug, dumps;
    const char* depthCall;  // what makes the depth on the worker (none: the chip's, on the frame)
    const char* generator;
  };
  const char* dpx = "vmDpx2_Run_Express";
  const char* zu = "vmZu_TemporalFilterU16_Run";
  const char* gen = "vmKtrRT_GenRefocusMap";
  const char* genChip = "vmKtrRT_GenRefocusMap_VX4810_DispartyBase";
  const Mode modes[] = {
      {"layout 2", 2, false, false, false, dpx, gen},
      {"layout 3, turned", 3, false, false, false, dpx, gen},
      {"layout 4, turned", 4, false, false, false, dpx, gen},
      {"chip 10-bit", 0x32, false, false, false, nullptr, genChip},
      {"chip 8-bit", 0x52, false, false, false, nullptr, genChip},
      {"chip with the temporal filter", 0x32, true, false, false, zu, genChip},
      {"whole debug display", 2, false, true, false, dpx, gen},
      {"every dump", 2, false, false, true, dpx, gen},
  };
  for (const Mode& m : modes) {
    SCOPED_TRACE(m.name);
    fakes::reset();
    vm_host_property_reset();
    if (m.debug || m.dumps) setProp("persist.vm.ktrrt.sc.debug", "1");
    if (m.debug) {
      setProp("persist.vm.ktrrt.sc.display", "475");  // 0x1DB: every picture, sub paste, markers
      setProp("persist.vm.ktrrt.sc.info", "15");
    }
    if (m.dumps) setProp("persist.vm.ktrrt.sc.dump", "255");
    Frames f(64, 48, 64, 48, 32, 24);
    InitData d = f.init(m.layout);
    d.isUsingTemporalFilter = m.filter ? 1 : 0;
    ASSERT_EQ(flow_controller_init(d), 0);
    const bool chip = (m.layout & 0x10) != 0;
    const auto count = [](const char* call) { return call != nullptr ? fakes::count(call) : 0u; };
    // A still scene: depth is asked for on every frame; the focus moves every ten frames.
    const auto frame = [&](int32_t i) {
      const int32_t x = (i / 10) % 2 == 0 ? 10 : 30;
      flow_controller_trigger(f.trigger(x, x + 20, 10, 30, chip));
    };
    // Warm: a map drawn with, and the workers on to the next ones.
    ASSERT_TRUE(waitUntil([&] {
      frame(0);
      return fakes::count(m.generator) > 1 && fakes::calls("vmKtrRT_GLStartV1").back().args[5] == 0;
    }));
    const size_t depth = count(m.depthCall), maps = fakes::count(m.generator);
    heap_fault_inject(1, true);
    for (int32_t i = 0; i < 60; ++i) frame(i);
    // The workers made depth and maps while every allocation would have failed.
    ASSERT_TRUE(waitUntil([&] {
      frame(0);
      return (m.depthCall == nullptr || count(m.depthCall) > depth) && fakes::count(m.generator) > maps;
    }));
    EXPECT_EQ(heap_fault_count(), 0);
    heap_fault_inject(0, false);
    flow_controller_deinit();
  }
}

TEST_F(Flow, SceneComingLooseDiscardsTheDepthInTheMaking) {
  // The depth engine is held inside its first run for the whole sequence: the worker then holds
  // no preview buffer, so every frame lands and is measured whatever the machine's speed, and
  // the map in the making is the one the scene change must throw away.
  EngineGate gate("vmDpx2_Run_Express");

  Frames still(320, 240, 320, 240, 160, 120);
  Frames other(320, 240, 320, 240, 160, 120);
  other.paint(9);
  ASSERT_EQ(flow_controller_init(still.init()), 0);
  // A trigger that finds the worker not yet waiting is dropped; let it get there first.
  ASSERT_TRUE(waitUntil([] { return depth_manager_worker_waiting(&g_session); }));
  const TriggerData a = still.centred(), b = other.centred();
  for (int i = 0; i < 8; ++i) flow_controller_trigger(a);
  ASSERT_EQ(g_session.policyState.load(), 5);
  ASSERT_TRUE(waitUntil([] { return fakes::count("vmDpx2_Run_Express") == 1; }));
  g_session.depthDiscardRequest.store(0);  // raised once when the session started unsettled
  int frames = 0;
  while (g_session.policyState.load() != 2 && frames < 100) flow_controller_trigger(frames++ % 2 ? a : b);
  ASSERT_EQ(g_session.policyState.load(), 2);
  EXPECT_EQ(g_session.depthDiscardRequest.load() & 1u, 1u);
  EXPECT_EQ(fakes::calls("vmKtrRT_GLStartV1").back().args[5], 1);  // rendered without a map

  // Released, the engine's map is dropped instead of published, and bit 0 is taken down.
  gate.open();
  ASSERT_TRUE(waitUntil([] { return (g_session.depthDiscardRequest.load() & 1u) == 0; }));
  ASSERT_TRUE(waitUntil([] { return depth_manager_worker_waiting(&g_session); }));
  EXPECT_EQ(buffer_manager_get_buffer(&g_session, kSlotDepth, kSlotFilled), nullptr);
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 1u);
}

TEST_F(Flow, RegionRulesInTheirOrder) {
  Frames f(64, 48, 32, 24, 32, 24);
  ASSERT_EQ(flow_controller_init(f.init()), 0);
  struct Case {
    int32_t l, r, t, b;
    bool accepted;
  };
  const Case cases[] = {
      {10, 30, 5, 25, true},  {0, 64, 0, 48, true},    {10, 30, -1, 25, false}, {-1, 30, 5, 25, false},
      {10, 30, 5, 49, false}, {10, 30, 26, 25, false}, {10, 65, 5, 25, false},  {31, 30, 5, 25, false},
      {10, 30, 0, 0, false},  {0, 0, 5, 25, false},    {20, 20, 7, 7, true},    {0, 2, 0, 2, true},
  };
  int32_t want[4] = {0, 0, 0, 0};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.l << " " << c.r << " " << c.t << " " << c.b);
    const TriggerData t = f.trigger(c.l, c.r, c.t, c.b);
    flow_controller_fill_trigger_data(&g_session, &t);
    if (c.accepted) {
      want[0] = c.l, want[1] = c.r, want[2] = c.t, want[3] = c.b;
    }
    EXPECT_EQ(g_session.regionLeft, want[0]);
    EXPECT_EQ(g_session.regionRight, want[1]);
    EXPECT_EQ(g_session.regionTop, want[2]);
    EXPECT_EQ(g_session.regionBottom, want[3]);
    EXPECT_EQ(g_session.focusX.load(), want[0] + ((want[1] - want[0]) >> 1));
    EXPECT_EQ(g_session.focusY.load(), want[2] + ((want[3] - want[2]) >> 1));
  }
  EXPECT_EQ(log.count("SKIP..."), 8u);
}

TEST_F(Flow, SetFunctionSwitches) {
  Frames f(64, 48, 32, 24, 32, 24);
  EXPECT_EQ(flow_controller_set_function(0x04, 1), 0);  // not running: logged, 0
  EXPECT_EQ(log.count("ERROR...["), 1u);
  ASSERT_EQ(flow_controller_init(f.init()), 0);
  EXPECT_EQ(flow_controller_set_function(0x04, 0), 0);
  EXPECT_EQ(g_session.temporalFilterEnabled.load(), 0);
  EXPECT_EQ(flow_controller_set_function(0x04, 7), 0);
  EXPECT_EQ(g_session.temporalFilterEnabled.load(), 1);
  fakes::queueResult("vmKtrRT_SetParameter", 3);
  EXPECT_EQ(flow_controller_set_function(0x02, 5), 3);
  EXPECT_EQ(fakes::calls("vmKtrRT_SetParameter")[0].args, (std::vector<int64_t>{2, 0, 0, 0, 0, 1, 0}));
  EXPECT_EQ(flow_controller_set_function(0x08, 1), 1);
}

}  // namespace
