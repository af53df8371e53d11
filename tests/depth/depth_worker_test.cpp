// The depth worker: wake-ups, dropped triggers, shut-down while waiting, failed set-ups.
#include <gtest/gtest.h>
#include <unistd.h>

#include "depth/depth_manager.h"
#include "depth_support.h"
#include "engine_gate.h"
#include "fakes.h"
#include "image/image_utility.h"
#include "log_capture.h"
#include "memory/heap.h"

namespace {

bool waitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 2000; ++i) {
    if (done()) return true;
    usleep(1000);
  }
  return done();
}

class DepthWorkerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    logFlags.store(kLogTrace);
  }
  void TearDown() override {
    fakes::reset();
    heap_fault_inject(0, false);
  }
  int32_t status() { return s.ctx->depth.worker.thread.status.load(); }
  DepthSession s;
  FlagWords flags;
  LogCapture log;
};

TEST_F(DepthWorkerTest, TwoQuickTriggersWhileBusyMakeOneMap) {
  s.setUp(2, 64, 48, 32, 24);
  SessionContext* c = s.ctx.get();
  ASSERT_EQ(depth_manager_create_thread(c), 0);
  ASSERT_TRUE(waitFor([&] { return status() == kWorkerWaiting; }));
  // The engine holds the worker inside its run until the second trigger has come.
  EngineGate gate("vmDpx2_Run_Express");
  s.putFrame(kSlotMain, 1);
  s.putFrame(kSlotSub, 2);
  depth_manager_trigger(c);
  ASSERT_TRUE(waitFor([&] { return fakes::count("vmDpx2_Run_Express") == 1; }));
  s.putFrame(kSlotMain, 3);
  s.putFrame(kSlotSub, 4);
  depth_manager_trigger(c);  // busy: dropped
  gate.open();
  ASSERT_TRUE(waitFor([&] { return status() == kWorkerWaiting && s.publishedDepth() != nullptr; }));
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 1u);
  EXPECT_EQ(log.count("depth_manager_trigger is DMD_STATUS_WAITING[0]"), 1u);
  EXPECT_EQ(log.count("depth_manager_generate_depth[0]"), 1u);
  // The engine ran on the worker, not on the caller's thread.
  EXPECT_FALSE(pthread_equal(fakes::calls("vmDpx2_Run_Express")[0].thread, pthread_self()));
  depth_manager_deinit(c);
}

TEST_F(DepthWorkerTest, ShutDownWhileWaitingEndsTheHandler) {
  s.setUp(3, 64, 48, 32, 24);
  SessionContext* c = s.ctx.get();
  ASSERT_EQ(depth_manager_create_thread(c), 0);
  EXPECT_GE(c->depth.worker.depthScratchSamples, 32 * 24);
  ASSERT_TRUE(waitFor([&] { return status() == kWorkerWaiting; }));
  EXPECT_EQ(log.count("Start gen depth handler..."), 1u);
  EXPECT_EQ(log.count("ID DMD_STATUS_READY[1]"), 1u);
  EXPECT_EQ(depth_manager_deinit(c), 0);
  EXPECT_EQ(log.count("End gen depth handler..."), 1u);
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 1u);
  EXPECT_EQ(c->depth.worker.depthScratchSamples, 0);
  EXPECT_EQ(c->depth.worker.planes[0].data, nullptr);
}

TEST_F(DepthWorkerTest, ShutDownRightAfterStartDoesNotHang) {
  s.setUp(2, 64, 48, 32, 24);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(depth_manager_create_thread(s.ctx.get()), 0);
    EXPECT_EQ(depth_manager_deinit(s.ctx.get()), 0);
  }
  EXPECT_EQ(log.count("End gen depth handler..."), 50u);
}

TEST_F(DepthWorkerTest, FailedEngineSetUpReleasesEverything) {
  s.setUp(2, 64, 48, 32, 24);
  fakes::queueResult("vmDpx2_Express_Init", 0x33);
  EXPECT_EQ(depth_manager_create_thread(s.ctx.get()), 0x33);
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(s.ctx->depth.worker.planes[0].data, nullptr);
  EXPECT_EQ(log.count("End gen depth handler..."), 1u);  // the started worker was stopped and joined
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 0u);   // an engine that did not open is not closed
}

TEST_F(DepthWorkerTest, OutOfMemoryForThePlanes) {
  s.setUp(2, 64, 48, 32, 24);
  heap_fault_inject(2, false);  // the second plane block
  EXPECT_EQ(depth_manager_create_thread(s.ctx.get()), 2);
  EXPECT_EQ(status(), 0);
  EXPECT_EQ(fakes::count("vmDpx2_VersionInfo_Get_LV"), 0u);
  EXPECT_EQ(log.count("Start gen depth handler"), 0u);
}

TEST_F(DepthWorkerTest, ChipWithFilterRunsTheFilterOnTheWorker) {
  SessionContext* c = s.setUpChipWithFilter();
  ASSERT_EQ(depth_manager_create_thread(c), 0);
  ASSERT_TRUE(waitFor([&] { return status() == kWorkerWaiting; }));
  s.putFrame(kSlotMain, 1);
  const uint16_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  depth_manager_get_depth_from_chip(c, reinterpret_cast<const uint8_t*>(words), sizeof words);
  depth_manager_trigger(c);
  ASSERT_TRUE(waitFor([&] { return s.publishedDepth() != nullptr; }));
  EXPECT_EQ(0, memcmp(s.publishedDepth(), words, sizeof words));
  depth_manager_deinit(c);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 0u);  // no depth engine with the chip
  EXPECT_EQ(fakes::count("vmZu_TemporalFilterU16_Close"), 0u);
}

}  // namespace
