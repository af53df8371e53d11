// The session through the five exported functions: engine set-up, what Init takes and refuses,
// re-initialisation, closing only what was opened, depth requests dropped while busy, a still
// scene reaching rendering with a published map, focus moves, renderer failures, the debug
// picture table and shut-down.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "engine_gate.h"
#include "engines/engines.h"
#include "log_capture.h"
#include "session_support.h"
#include "thread_count.h"

namespace {

// The renderer's set-up calls: word 22 may be kept from an earlier session, so either form.
std::vector<fakes::Call> rendererInits() {
  auto v = fakes::calls("vmKtrRT_GLInitV1");
  for (const fakes::Call& c : fakes::calls("vmKtrRT_GLInitV1_1")) v.push_back(c);
  std::sort(v.begin(), v.end(), [](const fakes::Call& x, const fakes::Call& y) { return x.sequence < y.sequence; });
  return v;
}

std::vector<std::string> namesOn(pthread_t thread) {
  std::vector<std::string> out;
  for (const fakes::Call& c : fakes::calls())
    if (pthread_equal(c.thread, thread)) out.push_back(c.name);
  return out;
}

class Session : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    fakes::reset();
  }
  void TearDown() override {
    vmKtrRT_SC_Deinit();
    // Deinit checks that every heap block the session took is back; a leak names itself here.
    EXPECT_EQ(log.count("heap blocks not given back"), 0u);
    fakes::reset();
    PropertyFixture::TearDown();
  }
  int32_t run(const TriggerData& t) { return static_cast<int32_t>(vmKtrRT_SC_Run(t)); }
  fakes::Call lastRender() { return fakes::calls("vmKtrRT_GLStartV1").back(); }
};

TEST_F(Session, EngineSetUpAndCloseInOrderForEachCalibrationKind) {
  Frames f(64, 48, 64, 48, 32, 24);
  for (int kind = 0; kind < 2; ++kind) {
    SCOPED_TRACE(kind);
    fakes::reset();
    InitData d = f.init(2);
    if (kind == 1) std::swap(d.otpData, d.otpDataAlt);
    d.isPortrait = 1;
    d.ImageFormat = 6;
    ASSERT_EQ(vmKtrRT_SC_Init(d), 0u);
    EXPECT_EQ(namesOn(pthread_self()),
              (std::vector<std::string>{"vmDpx2_VersionInfo_Get_LV", "vmDpx2_CameraLayout_Set_LV",
                                        "vmDpx2RT_FieldofDepth_Set", "vmDpx2_Express_Init", "vmKtr_GLVersionInfo_Get",
                                        "vmKtrRT_CameraLayout_Set", "vmKtrRT_GLInitV1", "vmKtrRT_GLShowDebugPicture"}));
    const auto init = fakes::calls("vmDpx2_Express_Init")[0].args;
    const auto gl = fakes::calls("vmKtrRT_GLInitV1")[0].args;
    if (kind == 0) {
      EXPECT_EQ(init[0], 0);
      EXPECT_EQ(init[4] != 0, true);
      EXPECT_EQ(init[5], 64);
      EXPECT_EQ(gl[0], 0);
      EXPECT_EQ(gl[3], 64);
    } else {
      EXPECT_NE(init[0], 0);
      EXPECT_EQ(init[1], 64);
      EXPECT_EQ(init[4], 0);
      EXPECT_NE(gl[0], 0);
      EXPECT_EQ(gl[3], 0);
    }
    EXPECT_EQ(std::vector<int64_t>(gl.begin() + 4, gl.end()),
              (std::vector<int64_t>{64, 48, 32, 24, 320, 240, 1080, 2340, 1, 0, 7, 0}));
    EXPECT_EQ(fakes::calls("vmKtrRT_GLShowDebugPicture")[0].args, (std::vector<int64_t>{0, 0}));
    ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
    const auto names = namesOn(pthread_self());
    EXPECT_EQ(std::vector<std::string>(names.end() - 2, names.end()),
              (std::vector<std::string>{"vmDpx2_Express_Close", "vmKtrRT_GLClose"}));
    // The generator's own set-up and close ran on the refocus-map worker.
    const auto genInit = fakes::calls("vmKtrRT_GenRefocusMap_init");
    ASSERT_EQ(genInit.size(), 1u);
    EXPECT_FALSE(pthread_equal(genInit[0].thread, pthread_self()));
    EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap_Deinit"), 1u);
  }
}

TEST_F(Session, ExtendedRendererSetUpAndTurnedDepthSizes) {
  Frames f(64, 48, 64, 48, 24, 32);
  InitData d = f.init(4);
  d.rendererExtraParam = 0x77;
  d.ImageFormat = 3;
  ASSERT_EQ(vmKtrRT_SC_Init(d), 0u);
  EXPECT_EQ(fakes::count("vmKtrRT_GLInitV1"), 0u);
  const auto gl = fakes::calls("vmKtrRT_GLInitV1_1")[0].args;
  EXPECT_EQ(gl[6], 24);  // the caller's orientation
  EXPECT_EQ(gl[7], 32);
  EXPECT_EQ(gl[14], 3);
  EXPECT_EQ(gl[16], 0x77);
  // The engine works turned.
  const auto init = fakes::calls("vmDpx2_Express_Init")[0].args;
  EXPECT_EQ(init[2], 32);
  EXPECT_EQ(init[3], 24);
}

TEST_F(Session, InitRefusesOnlySizesTheLibraryCannotHold) {
  Frames f(64, 48, 64, 48, 32, 24);
  struct Case {
    const char* field;
    const char* why;
    std::function<void(InitData&)> spoil;
  };
  const std::vector<Case> cases = {
      {"previewMainHeight", "negative size", [](InitData& d) { d.previewMainHeight = -48; }},
      {"previewSubWidth", "negative size", [](InitData& d) { d.previewSubWidth = -1; }},
      {"depthWidth", "negative size", [](InitData& d) { d.depthWidth = -32; }},
      {"previewMainWidth", "overflow 32 bits",
       [](InitData& d) { d.previewMainWidth = 60000, d.previewMainHeight = 40000; }},
      {"previewSubWidth", "overflow 32 bits",
       [](InitData& d) { d.previewSubWidth = 40000, d.previewSubHeight = 40000; }},
      {"depthWidth", "overflow 32 bits", [](InitData& d) { d.depthWidth = 20000, d.depthHeight = 20000; }},
      // The largest sizes: the size check itself must not overflow 64 bits.
      {"depthWidth", "overflow 32 bits", [](InitData& d) { d.depthWidth = INT32_MAX, d.depthHeight = INT32_MAX; }},
      {"otpSize", "negative size", [](InitData& d) { d.otpSize = -1; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.field);
    fakes::reset();
    log.clear();
    InitData d = f.init();
    c.spoil(d);
    EXPECT_EQ(vmKtrRT_SC_Init(d), 1u);
    const auto lines = log.matching(std::string("ERROR: InitData ") + c.field);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(c.why), std::string::npos) << lines[0];
    EXPECT_TRUE(fakes::calls().empty());
    EXPECT_EQ(vmKtrRT_SC_Run(f.centred()), 0u);
    EXPECT_EQ(log.count("ERROR...[2]"), 1u);
  }
  InitData d = f.init();
  d.otpData = nullptr;
  EXPECT_EQ(vmKtrRT_SC_Init(d), 6u);
  EXPECT_TRUE(fakes::calls().empty());
}

// NV21 as a camera hands it over, odd sizes included: ((w + 1) / 2) x ((h + 1) / 2) chroma pairs
// after the luma, in a block of exactly that many bytes.
std::vector<uint8_t> nv21(int32_t w, int32_t h, uint8_t seed) {
  std::vector<uint8_t> v(static_cast<size_t>(w) * h + static_cast<size_t>((w + 1) / 2) * ((h + 1) / 2) * 2);
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<uint8_t>((i / 16) * 37 + seed);
  return v;
}

TEST_F(Session, InitTakesWhatACameraHalMayHandOverAndRunsIt) {
  struct Case {
    const char* name;
    int32_t mw, mh, sw, sh, dw, dh;
    uint32_t layout;
    std::function<void(InitData&)> change;
    const char* produced;  // a call that shows depth and maps are made
  };
  const std::vector<Case> cases = {
      {"screen 0x0 off-screen", 64, 48, 64, 48, 32, 24, 2,
       [](InitData& d) { d.screenWidth = d.screenHeight = 0, d.OffRender = 1; }, "vmKtrRT_GenRefocusMap"},
      {"sub 0x0 with chip depth", 64, 48, 0, 0, 32, 24, 0x32, [](InitData&) {},
       "vmKtrRT_GenRefocusMap_VX4810_DispartyBase"},
      {"chip depth filtered, sub smaller than the map", 64, 48, 8, 6, 32, 24, 0x32,
       [](InitData& d) { d.isUsingTemporalFilter = 1; }, "vmKtrRT_GenRefocusMap_VX4810_DispartyBase"},
      {"chip depth filtered, sub 0x0", 64, 48, 0, 0, 32, 24, 0x52, [](InitData& d) { d.isUsingTemporalFilter = 1; },
       "vmZu_TemporalFilterU16_Run"},
      {"odd previews", 63, 47, 33, 25, 32, 24, 2, [](InitData&) {}, "vmKtrRT_GenRefocusMap"},
      {"odd previews turned", 65, 49, 31, 23, 24, 32, 3, [](InitData&) {}, "vmKtrRT_GenRefocusMap"},
      {"calibration of 0 bytes", 64, 48, 64, 48, 32, 24, 2, [](InitData& d) { d.otpSize = 0; },
       "vmKtrRT_GenRefocusMap"},
      {"format 7", 64, 48, 64, 48, 32, 24, 2, [](InitData& d) { d.ImageFormat = 7; }, nullptr},
      {"format -1", 64, 48, 64, 48, 32, 24, 2, [](InitData& d) { d.ImageFormat = -1; }, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fakes::reset();
    log.clear();
    Frames f(c.mw, c.mh, c.sw, c.sh, c.dw, c.dh);
    InitData d = f.init(c.layout);
    c.change(d);
    ASSERT_EQ(vmKtrRT_SC_Init(d), 0u);
    const auto gl = rendererInits().at(0).args;
    EXPECT_EQ(gl[10], d.screenWidth);
    EXPECT_EQ(gl[14], (d.ImageFormat < 0 || d.ImageFormat > 6) ? 0 : d.ImageFormat);
    const std::vector<uint8_t> mainFrame = nv21(c.mw, c.mh, 3), subFrame = nv21(c.sw, c.sh, 9);
    const bool chip = (c.layout & 0x10) != 0;
    bool produced = false;
    const int frames = c.produced != nullptr ? 3000 : 20;  // a bound as waitUntil gives
    for (int i = 0; i < frames && !produced; ++i) {
      std::vector<uint8_t> m = mainFrame, s = subFrame;  // every frame exactly its bytes
      TriggerData t = f.centred(chip);
      t.mainImage.data = m.data();
      t.mainImage.size = static_cast<int32_t>(m.size());
      if (!chip) {
        t.subImage.data = s.empty() ? nullptr : s.data();
        t.subImage.size = static_cast<int32_t>(s.size());
      }
      vmKtrRT_SC_Run(t);
      produced = c.produced != nullptr && fakes::count(c.produced) > 0;
      if (!produced) usleep(1000);
    }
    if (c.produced != nullptr) {
      EXPECT_TRUE(produced) << c.produced;
    } else {
      // Frames of a format the copy does not know are refused one by one, and still drawn.
      EXPECT_GE(log.count("NOT SUPPORT"), 20u);
      EXPECT_EQ(fakes::count("vmKtrRT_GLStartV1"), 20u);
    }
    EXPECT_EQ(log.count("ERROR: InitData"), 0u);
    EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  }
}

TEST_F(Session, OddPreviewsWithTheDebugDisplay) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "467");  // 0x1D3: maps, histogram, marker, sub preview
  setProp("persist.vm.ktrrt.sc.info", "6");
  Frames f(63, 47, 33, 25, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  const std::vector<uint8_t> mainFrame = nv21(63, 47, 1), subFrame = nv21(33, 25, 2);
  ASSERT_TRUE(waitUntil([&] {
    std::vector<uint8_t> m = mainFrame, s = subFrame;
    TriggerData t = f.centred();
    t.mainImage.data = m.data();
    t.mainImage.size = static_cast<int32_t>(m.size());
    t.mainImage.plane2 = m.data() + 63 * 47;
    t.subImage.data = s.data();
    t.subImage.size = static_cast<int32_t>(s.size());
    vmKtrRT_SC_Run(t);
    return fakes::count("vmKtrRT_GenRefocusMap") > 2;
  }));
}

TEST_F(Session, SecondInitReinitialisesWithTheNewRecord) {
  setProp("persist.vm.log.ktrrt.sc", "2");
  const int threads = thread_count_settled(thread_count_now());
  Frames a(64, 48, 64, 48, 32, 24);
  Frames b(128, 96, 96, 72, 40, 30);
  ASSERT_EQ(vmKtrRT_SC_Init(a.init()), 0u);
  for (int i = 0; i < 5; ++i) run(a.centred());
  ASSERT_EQ(vmKtrRT_SC_Init(b.init(4)), 0u);
  EXPECT_EQ(log.count("Init while running: session torn down and initialised again"), 1u);
  // Both workers of the first session ended and every engine closed before the new set-up.
  EXPECT_EQ(log.count("End gen depth handler..."), 1u);
  EXPECT_EQ(log.count("End gen refocus map handler..."), 1u);
  ASSERT_EQ(fakes::count("vmDpx2_Express_Close"), 1u);
  ASSERT_EQ(fakes::count("vmKtrRT_GLClose"), 1u);
  const auto inits = rendererInits();
  ASSERT_EQ(inits.size(), 2u);
  EXPECT_LT(fakes::calls("vmKtrRT_GLClose")[0].sequence, inits[1].sequence);
  EXPECT_LT(fakes::calls("vmDpx2_Express_Close")[0].sequence, fakes::calls("vmDpx2_Express_Init")[1].sequence);
  EXPECT_EQ(std::vector<int64_t>(inits[1].args.begin() + 4, inits[1].args.begin() + 8),
            (std::vector<int64_t>{128, 96, 40, 30}));
  // The new sizes are the session's: the focus is mapped against the 128 x 96 preview.
  ASSERT_TRUE(waitUntil([&] {
    run(b.trigger(0, 128, 0, 96));
    return fakes::count("vmKtrRT_GenRefocusMap") > 0 && fakes::calls("vmKtrRT_GenRefocusMap").back().args[2] == 20 &&
           fakes::calls("vmKtrRT_GenRefocusMap").back().args[3] == 15;
  }));
  // A second Init whose record is refused still ends the running session first.
  InitData bad = a.init();
  bad.otpData = nullptr;
  EXPECT_EQ(vmKtrRT_SC_Init(bad), 6u);
  EXPECT_EQ(log.count("Init while running"), 2u);
  EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 2u);
  EXPECT_EQ(vmKtrRT_SC_Run(a.centred()), 0u);
  EXPECT_EQ(log.count("ERROR...[2]"), 1u);
  EXPECT_LE(thread_count_settled(threads), threads);  // no worker left behind
}

TEST_F(Session, InitAfterDeinitTakesTheNewSizesAndLayout) {
  const int threads = thread_count_settled(thread_count_now());
  struct Case {
    int32_t mw, mh, sw, sh, dw, dh;
    uint32_t layout;
    const char* generator;
    int32_t mapW;  // the refocus map's width: the depth map's with chip depth, else 320
  };
  const char* gen = "vmKtrRT_GenRefocusMap";
  const char* genChip = "vmKtrRT_GenRefocusMap_VX4810_DispartyBase";
  const Case cases[] = {
      {64, 48, 64, 48, 32, 24, 2, gen, 320},       {128, 96, 96, 72, 40, 30, 4, gen, 320},
      {63, 47, 33, 25, 32, 24, 3, gen, 320},       {96, 64, 96, 64, 48, 32, 0x32, genChip, 48},
      {64, 48, 64, 48, 32, 24, 0x52, genChip, 32}, {64, 48, 64, 48, 32, 24, 2, gen, 320},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.mw << "x" << c.mh << " layout " << c.layout);
    fakes::reset();
    Frames f(c.mw, c.mh, c.sw, c.sh, c.dw, c.dh);
    ASSERT_EQ(vmKtrRT_SC_Init(f.init(c.layout)), 0u);
    const auto gl = rendererInits().at(0).args;
    EXPECT_EQ(std::vector<int64_t>(gl.begin() + 4, gl.begin() + 9),
              (std::vector<int64_t>{c.mw, c.mh, c.dw, c.dh, c.mapW}));
    // The new session makes its own map and draws with it.
    const bool chip = (c.layout & 0x10) != 0;
    ASSERT_TRUE(waitUntil([&] { return run(f.centred(chip)) == 0 && lastRender().args[2] != 0; }));
    EXPECT_GT(fakes::count(c.generator), 0u);
    EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
    EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 1u);
    EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), chip ? 0u : 1u);
  }
  EXPECT_EQ(log.count("Init while running"), 0u);
  EXPECT_LE(thread_count_settled(threads), threads);  // every session's workers ended
}

TEST_F(Session, TearDownClosesOnlyWhatWasOpened) {
  Frames f(64, 48, 64, 48, 32, 24);
  // The depth engine's set-up fails: it is not closed, nor is the renderer never set up.
  fakes::queueResult("vmDpx2_Express_Init", 0x21);
  EXPECT_EQ(vmKtrRT_SC_Init(f.init()), 0x21u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 0u);
  EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 0u);
  // The layout is refused before the engine's set-up: nothing to close either.
  fakes::reset();
  fakes::queueResult("vmDpx2_CameraLayout_Set_LV", 0x22);
  EXPECT_EQ(vmKtrRT_SC_Init(f.init()), 0x22u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Init"), 0u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 0u);
  // The renderer's set-up fails: the depth engine was opened and is closed, the renderer not.
  fakes::reset();
  fakes::queueResult("vmKtrRT_GLInitV1", 0x31);
  fakes::queueResult("vmKtrRT_GLInitV1_1", 0x31);
  EXPECT_EQ(vmKtrRT_SC_Init(f.init()), 0x31u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 1u);
  EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 0u);
  // The generator's own set-up fails on the worker: its close is skipped, the renderer's is not.
  fakes::reset();
  fakes::queueResult("vmKtrRT_GenRefocusMap_init", 0x41);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  ASSERT_TRUE(waitUntil([] { return fakes::count("vmKtrRT_GenRefocusMap_init") == 1; }));
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap_Deinit"), 0u);
  EXPECT_EQ(fakes::count("vmKtrRT_GLClose"), 1u);
  EXPECT_EQ(fakes::count("vmDpx2_Express_Close"), 1u);
}

TEST_F(Session, DepthRequestsWhileTheWorkerIsBusyAreDropped) {
  setProp("persist.vm.log.ktrrt.sc", "2");  // each request says whether it found the worker waiting
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  EngineGate gate("vmDpx2_Run_Express");  // the worker stays busy until the requests are in
  // A still scene is stable from the seventh frame on and asks for depth on every frame: the
  // first request that finds the worker waiting starts one map; the next ones come while it runs.
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred());
    return fakes::count("vmDpx2_Run_Express") == 1;
  }));
  const size_t busy = log.count("depth_manager_trigger is DMD_STATUS_WAITING[0]");
  for (int i = 0; i < 3; ++i) run(f.centred());
  EXPECT_EQ(log.count("depth_manager_trigger is DMD_STATUS_WAITING[0]"), busy + 3);
  // Released, the worker finishes its one map; nothing was kept for it to run once more.
  gate.open();
  vmKtrRT_SC_Deinit();  // joins the worker; its value follows the profile log, on here
  EXPECT_EQ(fakes::count("vmDpx2_Run_Express"), 1u);
}

TEST_F(Session, StillFullHdSceneReachesRenderingWithAPublishedMap) {
  Frames f(1920, 1080, 1280, 720, 320, 240);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  EXPECT_EQ(run(f.centred()), 1);
  EXPECT_EQ(lastRender().args[2], 0);  // no map
  EXPECT_EQ(lastRender().args[5], 1);  // noMapFlag
  bool rendered = false;
  for (int i = 0; i < 1500 && !rendered; ++i) {  // up to 3 s of frames, as waitUntil gives
    const int32_t r = run(f.centred());
    rendered = r == 0 && lastRender().args[2] != 0;
    if (!rendered) usleep(2000);
  }
  ASSERT_TRUE(rendered);
  const auto call = lastRender();
  EXPECT_EQ(call.args[3], 960);
  EXPECT_EQ(call.args[4], 540);
  EXPECT_FLOAT_EQ(call.fArg, 2.8f);
  EXPECT_EQ(std::vector<int64_t>(call.args.begin() + 6, call.args.end()), (std::vector<int64_t>{910, 490, 1010, 590}));
  // The map rendered with is the generator's, made at the focus in depth pixels (160, 120).
  const auto gen = fakes::calls("vmKtrRT_GenRefocusMap")[0];
  EXPECT_EQ(gen.args[2], 160);
  EXPECT_EQ(gen.args[3], 120);
  uint64_t want = 0;
  for (int32_t i = 0; i < 320 * 240; ++i) want += fakes::refocusMapValue(i, 160, 120);
  EXPECT_EQ(fakes::lastRenderedMapSum(), want);
}

TEST_F(Session, FocusMovedWhileTheWorkerIsBusyIsServedOnALaterFrame) {
  Frames f(640, 480, 320, 240, 320, 240);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred());
    return fakes::count("vmKtrRT_GenRefocusMap") > 0;
  }));
  // The generator's run for focus (50, 50) holds the worker until the focus has moved on.
  EngineGate gate("vmKtrRT_GenRefocusMap", [] { return fakes::calls("vmKtrRT_GenRefocusMap").back().args[2] == 25; });
  // Focus (50, 50): the request is retried every frame until the worker takes it.
  ASSERT_TRUE(waitUntil([&] {
    run(f.trigger(0, 100, 0, 100));
    return fakes::calls("vmKtrRT_GenRefocusMap").back().args[2] == 25;
  }));
  // The call is recorded before the gate: the worker is busy now.
  run(f.trigger(400, 600, 200, 400));  // focus (500, 300) while the worker is busy
  const size_t before = fakes::count("vmKtrRT_GenRefocusMap");
  gate.open();
  ASSERT_TRUE(waitUntil([&] {
    run(f.trigger(400, 600, 200, 400));
    auto g = fakes::calls("vmKtrRT_GenRefocusMap");
    return g.size() > before && g.back().args[2] == 250 && g.back().args[3] == 150;
  }));
}

TEST_F(Session, RendererFailureIsReturnedNegated) {
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  fakes::setDefaultResult("vmKtrRT_GLStartV1", 7);
  EXPECT_EQ(run(f.centred()), -7);
  TriggerData t = f.centred();
  t.mainImage.data = nullptr;
  EXPECT_EQ(run(t), 0);
  EXPECT_EQ(fakes::count("vmKtrRT_GLStartV1"), 1u);  // no render without a main preview
}

TEST_F(Session, DebugTextPictureEntry) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "1");
  setProp("persist.vm.ktrrt.sc.info", "6");
  Frames f(1920, 1080, 1280, 720, 320, 240);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  run(f.centred());
  EXPECT_EQ(fakes::calls("vmKtrRT_GLShowDebugPicture").back().args, (std::vector<int64_t>{1, 0}));
  const auto set = fakes::calls("vmKtrRT_GLSetDebugPicture");
  ASSERT_EQ(set.size(), 1u);
  const DebugPictureEntry* table = reinterpret_cast<const DebugPictureEntry*>(static_cast<intptr_t>(set[0].args[0]));
  char a[128], b[128];
  snprintf(a, sizeof a, "VCM[%5d:%5d] FR(%4d,%4d)-(%4d,%4d)", 300, 280, 910, 490, 1010, 590);
  snprintf(b, sizeof b, "Scene[%2d] Status[%d]", 0, 2);
  const int32_t w = 8 * static_cast<int32_t>(std::max(strlen(a), strlen(b)));
  EXPECT_NE(table[0].data, nullptr);
  EXPECT_EQ(table[0].width, w);
  EXPECT_EQ(table[0].height, 24);
  EXPECT_EQ(table[0].x, 1920 - 2 * w);
  EXPECT_EQ(table[0].y, 1080 - 48);
  EXPECT_EQ(table[0].displayWidth, 2 * w);
  EXPECT_EQ(table[0].displayHeight, 48);
  EXPECT_EQ(table[1].data, nullptr);
  EXPECT_EQ(table[9].data, nullptr);
}

TEST_F(Session, DebugThumbnailsOfBothMapsAndTheHistogram) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "464");  // 0x1D0: both maps, histogram; overlay off
  Frames f(1920, 1080, 1280, 720, 320, 240);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  const DebugPictureEntry* table = nullptr;
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred());
    const auto set = fakes::calls("vmKtrRT_GLSetDebugPicture");
    if (set.empty()) return false;
    table = reinterpret_cast<const DebugPictureEntry*>(static_cast<intptr_t>(set.back().args[0]));
    return table[2].data != nullptr;
  }));
  EXPECT_EQ(fakes::calls("vmKtrRT_GLShowDebugPicture").back().args, (std::vector<int64_t>{1, 0}));
  EXPECT_EQ((std::vector<int32_t>{table[0].width, table[0].height, table[0].x, table[0].y, table[0].displayWidth,
                                  table[0].displayHeight}),
            (std::vector<int32_t>{320, 240, 0, 0, 80, 60}));
  EXPECT_EQ((std::vector<int32_t>{table[1].width, table[1].height, table[1].x, table[1].y, table[1].displayWidth,
                                  table[1].displayHeight}),
            (std::vector<int32_t>{260, 260, 0, 60, 130, 390}));
  EXPECT_EQ((std::vector<int32_t>{table[2].width, table[2].height, table[2].x, table[2].y, table[2].displayWidth,
                                  table[2].displayHeight}),
            (std::vector<int32_t>{320, 240, 0, 1080 - 60, 80, 60}));
  EXPECT_EQ(table[3].data, nullptr);
}

TEST_F(Session, ShutDownWhileBothWorkersWait) {
  setProp("persist.vm.log.ktrrt.sc", "2");
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init()), 0u);
  ASSERT_TRUE(
      waitUntil([&] { return log.count("ID DMD_STATUS_READY[1]") == 1 && log.count("ID STATUS_READY[1]") == 1; }));
  vmKtrRT_SC_Deinit();  // answers the last cost line's log result under these flags
  EXPECT_EQ(log.count("End gen depth handler..."), 1u);
  EXPECT_EQ(log.count("End gen refocus map handler..."), 1u);
}

TEST_F(Session, ChipDepthWithoutFilterNeedsNoDepthWorker) {
  setProp("persist.vm.log.ktrrt.sc", "2");
  Frames f(64, 48, 64, 48, 32, 24);
  ASSERT_EQ(vmKtrRT_SC_Init(f.init(0x32)), 0u);  // chip, 10-bit samples, layout 2
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred(true));
    return fakes::count("vmKtrRT_GenRefocusMap_VX4810_DispartyBase") > 0;
  }));
  EXPECT_EQ(log.count("Start gen depth handler"), 0u);
  EXPECT_EQ(log.count("depth_manager_trigger"), 0u);
  EXPECT_EQ(fakes::count("vmDpx2_VersionInfo_Get_LV"), 0u);
  EXPECT_EQ(fakes::count("vmKtrRT_GenRefocusMap"), 0u);
  // Chip depth with the refocus map at the depth size, held back never (limit 0).
  const auto gl =
      fakes::count("vmKtrRT_GLInitV1") ? fakes::calls("vmKtrRT_GLInitV1") : fakes::calls("vmKtrRT_GLInitV1_1");
  EXPECT_EQ(gl[0].args[8], 32);
  TriggerData t = f.centred(true);
  t.subImage.data = nullptr;
  run(t);
  EXPECT_GE(log.count("ERROR: no chip depth"), 1u);
}

TEST_F(Session, TemporalFilterSwitchedOffAtRunTime) {
  Frames f(64, 48, 64, 48, 32, 24);
  InitData d = f.init(0x32);  // chip depth, 10-bit samples
  d.isUsingTemporalFilter = 1;
  ASSERT_EQ(vmKtrRT_SC_Init(d), 0u);
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred(true));
    return fakes::count("vmZu_TemporalFilterU16_Run") > 0 &&
           fakes::count("vmKtrRT_GenRefocusMap_VX4810_DispartyBase") > 0;
  }));
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x04, 0), 0u);
  const size_t filtered = fakes::count("vmZu_TemporalFilterU16_Run");
  const size_t maps = fakes::count("vmKtrRT_GenRefocusMap_VX4810_DispartyBase");
  // New depth keeps arriving (each new map needs a newly published depth map) without the filter.
  ASSERT_TRUE(waitUntil([&] {
    f.paint(static_cast<int32_t>(fakes::count("vmKtrRT_GLStartV1")));  // the chip's samples change
    run(f.centred(true));
    return fakes::count("vmKtrRT_GenRefocusMap_VX4810_DispartyBase") > maps + 2;
  }));
  EXPECT_LE(fakes::count("vmZu_TemporalFilterU16_Run"), filtered + 1);  // at most one already under way
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x04, 1), 0u);
  ASSERT_TRUE(waitUntil([&] {
    run(f.centred(true));
    return fakes::count("vmZu_TemporalFilterU16_Run") > filtered + 1;
  }));
}

}  // namespace
