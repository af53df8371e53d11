// The per-frame paths through the five exported functions where a frame, a request or a picture
// could be lost: chip depth without a size, frame buffers still held by a worker, refocus
// requests and thumbnails meeting held buffers, dump names and sizes, and debug text too large to
// draw. Buffers are held from the test through the session record to make the collisions certain.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engines/engines.h"
#include "flow/session_context.h"
#include "image/depth_display.h"
#include "log_capture.h"
#include "memory/buffer_manager.h"
#include "session_support.h"

namespace {

// The refocus-map worker is in its wait: no map is under way.
bool workerWaiting(SessionContext* ctx) {
  return (ctx->bokeh.worker.thread.status.load() & kWorkerWaiting) != 0;
}

class FramePaths : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    fakes::reset();
  }
  void TearDown() override {
    vmKtrRT_SC_Deinit();
    fakes::reset();
    PropertyFixture::TearDown();
  }
  int32_t run(const TriggerData& t) { return static_cast<int32_t>(vmKtrRT_SC_Run(t)); }
  // Sizes of the dump writes whose name contains text (from the writer's info line).
  std::vector<int32_t> dumpSizes(const std::string& text) {
    std::vector<int32_t> out;
    for (const std::string& l : log.matching("Write data to ")) {
      if (l.find(text) == std::string::npos) continue;
      const size_t at = l.rfind(" size ");
      if (at != std::string::npos) out.push_back(atoi(l.c_str() + at + 6));
    }
    return out;
  }
  // The chip frame with its size word refused (too small): no new depth on this frame.
  static TriggerData withoutNewDepth(TriggerData t) {
    t.subImage.size = 1;
    return t;
  }
  static const DebugPictureEntry* lastTable() {
    const auto set = fakes::calls("vmKtrRT_GLSetDebugPicture");
    return set.empty() ? nullptr
                       : reinterpret_cast<const DebugPictureEntry*>(static_cast<intptr_t>(set.back().args[0]));
  }
};

const char* kGenChip = "vmKtrRT_GenRefocusMap_VX4810_DispartyBase";

TEST_F(FramePaths, ChipDepthWithoutASizeIsReadAtTheMapsOwnSize) {
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init(0x32)), 0u);  // chip, 10-bit samples
  TriggerData t = f.centred(true);
  t.subImage.size = 0;
  ASSERT_TRUE(waitUntil([&] {
    run(t);
    return fakes::count(kGenChip) > 0;
  }));
  EXPECT_EQ(log.count("ERROR: chip depth"), 0u);
  // The map handed to the generator is the chip's, sample for sample (10 bits kept).
  const auto gen = fakes::calls(kGenChip)[0];
  const uint16_t* depth = reinterpret_cast<const uint16_t*>(static_cast<intptr_t>(gen.args[1]));
  for (int32_t i = 0; i < 32 * 24; ++i) {
    uint16_t chip;
    memcpy(&chip, f.chip.data() + 2 * i, 2);
    ASSERT_EQ(depth[i], chip & 0x3FF) << i;
  }
}

TEST_F(FramePaths, ChipDepthSizeTooSmallIsRefusedWithOneLineASession) {
  Frames f(64, 48, 64, 48, 32, 24);
  for (int session = 1; session <= 2; ++session) {
    SCOPED_TRACE(session);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init(0x32)), 0u);
    TriggerData t = f.centred(true);
    t.subImage.size = 100;  // 1536 bytes are needed
    ASSERT_TRUE(waitUntil([&] {
      run(t);
      return log.count("ERROR: chip depth of 100 bytes, 1536 needed") == static_cast<size_t>(session);
    }));
    for (int i = 0; i < 20; ++i) run(t);  // every one of them asks for depth: the scene is still
    EXPECT_EQ(log.count("ERROR: chip depth of 100 bytes"), static_cast<size_t>(session));
    EXPECT_EQ(fakes::count(kGenChip), 0u);
    ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
  }
}

TEST_F(FramePaths, MainFrameWhoseFreeBufferIsHeldIsStillCopiedDumpedAndPublished) {
  setProp("persist.vm.log.ktrrt.sc", "1");
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.dump", "1");  // preview-main
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  SessionContext* ctx = &g_session;
  // The scene is not yet stable on these first frames: no depth worker reads the main slot.
  run(f.centred());
  BufferHalf* first = buffer_manager_hold_filled(ctx, kSlotMain);  // a worker reading frame 1
  ASSERT_NE(first, nullptr);
  f.paint(2);
  run(f.centred());  // frame 2 goes to the other buffer; frame 1's becomes free, still held
  f.paint(3);
  run(f.centred());  // frame 3 finds only a held free buffer
  EXPECT_EQ(dumpSizes("-preview-main-").size(), 3u);
  EXPECT_EQ(log.count("/0003-preview-main-64x48-"), 1u);
  BufferHalf* filled = buffer_manager_get_buffer(ctx, kSlotMain, kSlotFilled);
  ASSERT_NE(filled, nullptr);
  EXPECT_NE(filled, first);
  EXPECT_EQ(0, memcmp(filled->data, f.main.data(), f.main.size()));  // frame 3 is the one published

  // Both held: nothing can be written, and the frame says so with its counter.
  BufferHalf* third = buffer_manager_hold_filled(ctx, kSlotMain);
  f.paint(4);
  run(f.centred());
  EXPECT_EQ(log.count("ERROR: main preview not copied: both buffers held [4]"), 1u);
  EXPECT_EQ(log.count("/0004-preview-main-"), 0u);
  buffer_manager_release(third);
  buffer_manager_release(first);
  run(f.centred());
  EXPECT_EQ(log.count("/0005-preview-main-64x48-"), 1u);
}

TEST_F(FramePaths, RefocusRequestMeetingBothMapBuffersHeldIsRetried) {
  setProp("persist.vm.log.ktrrt.sc", "2");
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init(0x32)), 0u);  // chip depth: every map is published
  SessionContext* ctx = &g_session;
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred(true));
    return fakes::count(kGenChip) > 0 && buffer_manager_get_buffer(ctx, kSlotRefocus, kSlotFilled) != nullptr;
  }));
  // Quiet: no new depth, focus unchanged, until the worker has nothing left to do.
  const TriggerData a = withoutNewDepth(f.trigger(0, 20, 0, 20, true));
  ASSERT_TRUE(waitUntil([&] {
    const size_t before = fakes::count(kGenChip);
    run(a);
    usleep(20 * 1000);
    return fakes::count(kGenChip) == before && ctx->bokeh.worker.pendingReasons.load() == 0 && workerWaiting(ctx);
  }));
  BufferHalf* heldMap = buffer_manager_hold_filled(ctx, kSlotRefocus);  // a reader on the old map
  ASSERT_NE(heldMap, nullptr);
  // A new focus makes a map into the other buffer; the held one becomes free but stays held.
  size_t maps = fakes::count(kGenChip);
  const TriggerData b = withoutNewDepth(f.trigger(40, 60, 20, 40, true));
  ASSERT_TRUE(waitUntil([&] {
    run(b);
    return fakes::count(kGenChip) == maps + 1;
  }));
  // Another focus now finds no writable map buffer: no map is made yet.
  maps = fakes::count(kGenChip);
  const size_t wakes = log.count("bokeh_manager_generate_refocus_map[");
  const TriggerData c = withoutNewDepth(f.trigger(20, 40, 10, 30, true));  // focus (30, 20)
  ASSERT_TRUE(waitUntil([&] {
    run(c);
    return log.count("bokeh_manager_generate_refocus_map[") > wakes;
  }));
  EXPECT_EQ(fakes::count(kGenChip), maps);
  buffer_manager_release(heldMap);
  // The request stayed pending: a later frame with the same focus has it served.
  ASSERT_TRUE(waitUntil([&] {
    run(c);
    return fakes::count(kGenChip) > maps;
  }));
  const auto gen = fakes::calls(kGenChip).back();
  EXPECT_EQ(gen.args[2], 15);  // (30, 20) in a 32 x 24 map of a 64 x 48 preview
  EXPECT_EQ(gen.args[3], 10);
}

TEST_F(FramePaths, ThumbnailHeldByTheRenderIsDrawnOnALaterFrame) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "128");  // 0x80: the refocus-map thumbnail
  Frames f(64, 48, 64, 48, 32, 24);
  std::atomic<int> value{50};
  fakes::setRefocusMapWriter([&](uint8_t* m) { memset(m, value.load(), 32 * 24); });
  ASSERT_EQ(vmKtrRT_SC_Init(f.init(0x32)), 0u);
  const DebugPictureEntry* table = nullptr;
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred(true));
    table = lastTable();
    return table != nullptr && table[0].data != nullptr;
  }));
  const TriggerData a = withoutNewDepth(f.centred(true));
  SessionContext* ctx = &g_session;
  ASSERT_TRUE(waitUntil([&] {
    const size_t before = fakes::count(kGenChip);
    run(a);
    usleep(20 * 1000);
    return fakes::count(kGenChip) == before && ctx->bokeh.worker.pendingReasons.load() == 0 && workerWaiting(ctx);
  }));

  // The map is made while the frame renders with the thumbnail: the worker cannot draw it then.
  value = 200;
  const size_t maps = fakes::count(kGenChip);
  // The frame's render lasts until the worker, woken by the focus move, has made the map and
  // gone back to waiting, whatever the machine's load.
  fakes::setHook("vmKtrRT_GLStartV1",
                 [&] { waitUntil([&] { return fakes::count(kGenChip) > maps && workerWaiting(ctx); }); });
  const TriggerData moved = withoutNewDepth(f.trigger(0, 20, 0, 20, true));
  run(moved);
  fakes::setHook("vmKtrRT_GLStartV1", nullptr);
  EXPECT_EQ(fakes::count(kGenChip), maps + 1);

  // No new depth and no new focus: only the owed thumbnail brings the new map on screen. The
  // table is read on the caller's thread between frames, as the renderer reads it.
  uint8_t expected[4];
  const uint8_t grey = 200;
  image_utility_gray_to_display(expected, &grey, 1, 1, 0);
  ASSERT_TRUE(waitUntil([&] {
    run(moved);
    const DebugPictureEntry* shown = lastTable();
    return shown[0].data != nullptr && memcmp(shown[0].data, expected, 4) == 0;
  }));
  EXPECT_EQ(fakes::count(kGenChip), maps + 1);
}

TEST_F(FramePaths, DepthDumpNameShowsTheCallersSizeForEveryLayoutWord) {
  setProp("persist.vm.log.ktrrt.sc", "1");
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.dump", "4");  // depth
  struct Case {
    uint32_t layout;
    int32_t depthW, depthH;
    const char* name;
  };
  // The chip words 0x33 (10-bit samples) and 0x53 (8-bit) mask to layout 3 but keep slot 2 as
  // the caller gave it; only the word 3 itself turns it.
  const Case cases[] = {{0x33, 32, 24, "-depth-32x24-"}, {0x53, 32, 24, "-depth-32x24-"}, {3, 24, 32, "-depth-24x32-"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.layout);
    log.clear();
    Frames f(64, 48, 64, 48, c.depthW, c.depthH);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init(c.layout)), 0u);
    const bool chip = (c.layout & 0x10) != 0 && (c.layout & 0x60) != 0;
    ASSERT_TRUE(waitUntil([&] {
      run(f.centred(chip));
      return !dumpSizes("-depth-").empty();
    }));
    // One look at the log: the depth worker may write another dump meanwhile.
    const auto written = log.matching("Write data to ");
    int depthDumps = 0;
    for (const std::string& l : written) {
      if (l.find("-depth-") == std::string::npos) continue;
      ++depthDumps;
      EXPECT_NE(l.find(c.name), std::string::npos) << l;
      EXPECT_NE(l.find(" size 1536"), std::string::npos) << l;  // 32 x 24 samples of 2 bytes
    }
    EXPECT_GT(depthDumps, 0);
    ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
  }
}

TEST_F(FramePaths, RefocusDumpsWriteTheSlotsWholeSize) {
  setProp("persist.vm.log.ktrrt.sc", "1");
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.dump", "8");  // refocus kinds
  struct Case {
    uint32_t layout;
    int32_t slotBytes;  // 16 x (((W x H) >> 4) + 1)
  };
  const Case cases[] = {{2, 76816}, {0x32, 784}};  // 320 x 240 stereo, 32 x 24 from the chip
  for (const Case& c : cases) {
    SCOPED_TRACE(c.layout);
    log.clear();
    Frames f(64, 48, 64, 48, 32, 24);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init(c.layout)), 0u);
    ASSERT_TRUE(waitUntil([&] {
      run(f.centred(c.layout == 0x32));
      return !dumpSizes("-refocus").empty();
    }));
    for (int32_t size : dumpSizes("-refocus")) EXPECT_EQ(size, c.slotBytes);
    ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
  }
}

TEST_F(FramePaths, StatusTextTooLargeToDrawGetsNoTableEntry) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  // Both engines report 255-character versions: the version line alone has 529 characters.
  auto longVersion = [](const char* call, char c) {
    fakes::setHook(call, [call, c] {
      char* text = reinterpret_cast<char*>(static_cast<intptr_t>(fakes::calls(call).back().args[0]));
      memset(text, c, 255);
      text[255] = '\0';
    });
  };
  struct Case {
    const char* display;
    const char* info;
    bool textShown;
  };
  // One line of 529 glyphs fits the 1024-glyph picture; with a second line it is 1058 glyphs.
  const Case cases[] = {{"1", "1", true}, {"1", "3", false}, {"257", "3", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.display) + "/" + c.info);
    fakes::reset();
    longVersion("vmDpx2_VersionInfo_Get_LV", 'L');
    longVersion("vmKtr_GLVersionInfo_Get", 'G');
    setProp("persist.vm.ktrrt.sc.display", c.display);
    setProp("persist.vm.ktrrt.sc.info", c.info);
    Frames f(1920, 1080, 1280, 720, 320, 240);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
    run(f.centred());
    const DebugPictureEntry* table = lastTable();
    if (c.textShown) {
      ASSERT_NE(table, nullptr);
      EXPECT_EQ(table[0].width, 8 * 529);
      EXPECT_EQ(table[0].height, 12);
      EXPECT_EQ(table[0].displayWidth, 2 * 8 * 529);
    } else if (std::string(c.display) == "1") {
      EXPECT_EQ(table, nullptr);  // nothing else to show: the table is not handed over
    } else {
      ASSERT_NE(table, nullptr);  // the histogram stays, alone
      EXPECT_EQ(table[0].width, 260);
      EXPECT_EQ(table[1].data, nullptr);
      EXPECT_EQ(table[1].width, 0);
    }
    ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
  }
}

}  // namespace
