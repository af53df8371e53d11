// Command-line checks, dump names and replay plans, and checked outputs of the host tool.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host_config.h"
#include "host_dumps.h"
#include "host_outputs.h"
#include "host_pool.h"
#include "host_sources.h"
#include "image_io.h"
#include "synth_scene.h"

namespace {

bool parse(std::vector<std::string> args, HostConfig* c, std::string* error) {
  std::vector<char*> argv{const_cast<char*>("vmktr_host")};
  for (auto& a : args) argv.push_back(&a[0]);
  return host_parse_args(static_cast<int>(argv.size()), argv.data(), c, error);
}

TEST(HostArgs, RefusesWhatTheLibraryWouldRefuseAndNamesIt) {
  struct Case {
    std::vector<std::string> args;
    const char* mention;
  } cases[] = {{{"--bogus"}, "unknown option '--bogus'"},
               {{"--main", "1921x1080"}, "even"},
               {{"--depth", "5000x4000"}, "4096"},
               {{"--layout", "5"}, "layout 1..4"},
               {{"--format", "9"}, "--format: '9'"},
               {{"--fnumber", "2:abc"}, "ramp"},
               {{"--frames", "0"}, "--frames: '0'"},
               {{"--setprop", "novalue"}, "NAME=VALUE"},
               {{"--pair", "x", "--motion", "dolly"}, "still or as a slow pan"},
               {{"--focus", "-3,4"}, "--focus: '-3,4'"},
               {{"--main"}, "--main needs a value"},
               // Decimal only: hex and exponent forms are refused with the option named.
               {{"--layout", "0x32"}, "--layout: '0x32' is not a decimal number"},
               {{"--seed", "0x10"}, "--seed: '0x10'"},
               {{"--frames", " 5"}, "--frames: ' 5'"},
               {{"--main", "0x140x240"}, "--main"},
               {{"--fnumber", "0x1p1"}, "--fnumber"},
               // Focus cannot overflow or leave the preview.
               {{"--focus", "2147483647,5"}, "--focus: '2147483647,5'"},
               {{"--main", "320x240", "--focus", "320,10"}, "outside the main preview 320x240"},
               {{"--focus", "10,1080"}, "outside the main preview 1920x1080"},
               // The library's numeric properties are decimal; others are free text.
               {{"--setprop", "persist.vm.ktrrt.sc.dump=0xff"}, "persist.vm.ktrrt.sc.dump: '0xff' is not a decimal"},
               {{"--setprop", "persist.vm.ktrrt.sc.display=0x1c1"}, "persist.vm.ktrrt.sc.display"},
               {{"--setprop", "persist.vm.log.ktrrt.sc=1e3"}, "persist.vm.log.ktrrt.sc: '1e3'"},
               {{"--setprop", "persist.vm.ktrrt.sc.debug=99999999999"}, "persist.vm.ktrrt.sc.debug"},
               {{"--setprop", "persist.vm.ktrrt.sc.info= 1"}, "persist.vm.ktrrt.sc.info"},
               {{"--jobs", "0"}, "--jobs: '0' is not a decimal number in 1..64"},
               {{"--jobs", "65"}, "--jobs: '65'"},
               {{"--jobs", "2x"}, "--jobs: '2x'"}};
  for (const Case& c : cases) {
    HostConfig config;
    std::string error;
    EXPECT_FALSE(parse(c.args, &config, &error)) << c.args[0];
    EXPECT_NE(error.find(c.mention), std::string::npos) << "'" << error << "' should mention '" << c.mention << "'";
  }
}

TEST(HostArgs, ReadsSettings) {
  HostConfig c;
  std::string error;
  ASSERT_TRUE(parse({"--main",
                     "640x480",
                     "--fnumber",
                     "2.8",
                     "--focus",
                     "639,479",
                     "--setprop",
                     "persist.vm.ktrrt.sc.dump=3",
                     "--setprop",
                     "persist.vm.ktrrt.sc.display=449",
                     "--setprop",
                     "persist.vm.OpenGL.fileDir=/tmp/x",
                     "--setprop",
                     "persist.vm.ktrrt.sc.dflag=",
                     "--layout",
                     "50",
                     "--temporal-filter",
                     "on",
                     "--frames",
                     "010",
                     "--seed",
                     "4294967295",
                     "--jobs",
                     "64"},
                    &c, &error))
      << error;
  EXPECT_FALSE(c.help);
  EXPECT_EQ(c.mainWidth, 640);
  EXPECT_FLOAT_EQ(c.fStart, 2.8f);
  EXPECT_FLOAT_EQ(c.fEnd, 2.8f);
  EXPECT_EQ(c.focus, FocusMode::kFixed);
  EXPECT_EQ(c.focusX, 639);
  EXPECT_EQ(c.focusY, 479);
  EXPECT_EQ(c.cameraLayout, 0x32u);
  EXPECT_EQ(c.frames, 10);  // decimal, never octal
  EXPECT_EQ(c.seed, 4294967295u);
  EXPECT_TRUE(c.temporalFilter);
  EXPECT_EQ(c.jobs, 64);
  EXPECT_EQ(HostConfig().jobs, 0);  // unset: one thread per core
  EXPECT_GE(host_default_jobs(), 1);
  EXPECT_LE(host_default_jobs(), 64);
  ASSERT_EQ(c.properties.size(), 4u);
  EXPECT_EQ(c.properties[0].second, "3");
  EXPECT_EQ(c.properties[1].second, "449");
  // Dumps bring their own sizes: a focus beyond --main is not judged against the default size.
  HostConfig d;
  EXPECT_TRUE(parse({"--dumps", "x", "--focus", "4000,3000"}, &d, &error)) << error;
  HostConfig h;
  ASSERT_TRUE(parse({"--frames", "3", "--help", "--bogus"}, &h, &error));
  EXPECT_TRUE(h.help);
}

TEST(HostDumpNames, ParsesTheLibrarysNamesAndRejectsOthers) {
  DumpName d;
  ASSERT_TRUE(host_parse_dump_name("0007-preview-main-1920x1080-300-2.80-960x540.nv21", &d));
  EXPECT_TRUE(d.isMain);
  EXPECT_EQ(d.counter, 7);
  EXPECT_EQ(d.width, 1920);
  EXPECT_EQ(d.vcm, 300);
  EXPECT_FLOAT_EQ(d.fNumber, 2.8f);
  EXPECT_EQ(d.focusX, 960);
  EXPECT_EQ(d.focusY, 540);
  EXPECT_EQ(host_dump_bytes(d), 1920u * 1080 * 3 / 2);
  ASSERT_TRUE(host_parse_dump_name("0012-preview-sub-1280x720-310.nv21", &d));
  EXPECT_FALSE(d.isMain);
  EXPECT_EQ(d.vcm, 310);
  // Counters past 2^31 stay what they say; negative VCM and focus are the library's numbers.
  ASSERT_TRUE(host_parse_dump_name("3000000000-preview-main-64x48--5--0.00--3x-4.nv21", &d));
  EXPECT_EQ(d.counter, 3000000000LL);
  EXPECT_EQ(d.vcm, -5);
  EXPECT_EQ(d.focusX, -3);
  EXPECT_EQ(d.focusY, -4);
  for (const char* bad :
       {"0007-preview-main-1920x1080-300-2.80-960x540.nv21.tmp", "preview-main.nv21",
        "0001-preview-main-1921x1080-300-2.80-960x540.nv21", "0003-depth-320x240-1-2-2.80-1x1.raw",
        "0001-preview-sub-0x720-3.nv21", "-001-preview-sub-64x48-3.nv21",
        "99999999999999999999-preview-sub-64x48-3.nv21", "0001-preview-main-64x48-300-2.80-2147483648x0.nv21",
        "0001-preview-main-64x48-300-nan-1x1.nv21", "0001-preview-main-64x48-300-inf-1x1.nv21",
        "0001-preview-sub-8194x48-3.nv21", "0001-preview-sub-64x48-3.nv21\n", "0001-preview-sub-64x48-"})
    EXPECT_FALSE(host_parse_dump_name(bad, &d)) << bad;
}

// The contact sheet shows the newest depth and refocus dumps; a refocus dump carries its slot's
// whole size, a little more than the map, and "depth" never picks "depth-main".
TEST(HostDumpNames, NewestDumpOfAKindIsReadAtItsSlotSize) {
  const std::vector<std::string> names{
      "0003-refocus-320x240-2.80-10x10.raw",       "0012-refocus-320x240-2.80-10x10.raw",
      "0009-refocus-using-320x240-2.80-10x10.raw", "0020-depth-main-80x60.raw",
      "0011-depth-80x60-1-2-2.80-160x120.raw",     "refocus-0099.raw"};
  EXPECT_EQ(host_newest_dump(names, "refocus"), "0012-refocus-320x240-2.80-10x10.raw");
  EXPECT_EQ(host_newest_dump(names, "depth"), "0011-depth-80x60-1-2-2.80-160x120.raw");
  EXPECT_EQ(host_newest_dump(names, "preview-main"), "");

  char tmpl[] = "/tmp/vmktr_newest_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  const size_t map = 320 * 240, slot = 16 * ((map >> 4) + 1);
  const auto writeDump = [&](const std::string& name, size_t bytes) {
    FILE* f = fopen((dir + "/" + name).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::vector<uint8_t> v(bytes);
    for (size_t i = 0; i < bytes; ++i) v[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(fwrite(v.data(), 1, bytes, f), bytes);
    fclose(f);
  };
  std::vector<uint8_t> got;
  for (const size_t bytes : {map, slot}) {
    writeDump(names[1], bytes);
    ASSERT_TRUE(host_read_newest_dump(dir, names, "refocus", map, &got)) << bytes;
    ASSERT_EQ(got.size(), map);
    EXPECT_EQ(got[map - 1], static_cast<uint8_t>((map - 1) * 7));
  }
  // Too short (a dump still being written) or far too long (another size) is not a map.
  for (const size_t bytes : {map - 1, map + 17}) {
    writeDump(names[1], bytes);
    EXPECT_FALSE(host_read_newest_dump(dir, names, "refocus", map, &got)) << bytes;
  }
  unlink((dir + "/" + names[1]).c_str());
  EXPECT_FALSE(host_read_newest_dump(dir, names, "refocus", map, &got));
  rmdir(dir.c_str());
}

std::string refusalOf(const DumpPlan& p, const std::string& name) {
  for (const DumpNote& n : p.refused)
    if (n.name == name) return n.why;
  return "";
}

TEST(HostDumpPlan, CounterOrderDecidesWhateverTheListingOrder) {
  const std::vector<std::string> names = {"0010-preview-main-64x48-300-2.80-32x24.nv21",
                                          "0010-preview-sub-32x24-300.nv21",
                                          "0002-preview-main-64x48-300-2.80-32x24.nv21",
                                          "0002-preview-sub-64x48-300.nv21",
                                          "3000000000-preview-main-64x48-300-2.80-32x24.nv21",
                                          "0009-preview-main-32x24-300-2.80-1x1.nv21",
                                          "0004-preview-main-64x48-300-2.80-32x24.nv21",
                                          "04-preview-main-64x48-300-2.80-32x24.nv21",
                                          "0004-preview-sub-64x48-300.nv21",
                                          "0005-preview-sub-64x48-300.nv21",
                                          "0006-preview-main-64x48-300-2.80-999x-1.nv21",
                                          "0007-preview-main-oops.nv21",
                                          "0008-depth-80x60-1-2-2.80-1x1.raw",
                                          "0008-preview-out-64x48.nv21",
                                          "eeprom.raw"};
  DumpPlan first;
  host_plan_dumps(names, &first);
  std::vector<std::string> reversed(names.rbegin(), names.rend());
  DumpPlan second;
  host_plan_dumps(reversed, &second);
  for (const DumpPlan* p : {&first, &second}) {
    EXPECT_TRUE(p->hasEeprom);
    EXPECT_EQ(p->mainWidth, 64);
    // The sub size comes from the lowest counter's sub dump, never from the listing order.
    EXPECT_EQ(p->subWidth, 64);
    ASSERT_EQ(p->frames.size(), 4u);
    EXPECT_EQ(p->frames[0].main.counter, 2);
    EXPECT_EQ(p->frames[0].subFile, "0002-preview-sub-64x48-300.nv21");
    EXPECT_EQ(p->frames[1].main.counter, 6);
    EXPECT_EQ(p->frames[1].main.focusX, 63);  // held inside the preview, and said
    EXPECT_EQ(p->frames[1].main.focusY, 0);
    ASSERT_EQ(p->notes.size(), 1u);
    EXPECT_EQ(p->notes[0].name, "0006-preview-main-64x48-300-2.80-999x-1.nv21");
    EXPECT_EQ(p->frames[2].main.counter, 10);
    EXPECT_EQ(p->frames[2].subFile, "");
    EXPECT_EQ(p->frames[3].main.counter, 3000000000LL);
    // Each file not played is named with its reason; the library's other dumps are not frames.
    EXPECT_NE(refusalOf(*p, "0004-preview-main-64x48-300-2.80-32x24.nv21").find("counter 0004"), std::string::npos);
    EXPECT_NE(refusalOf(*p, "04-preview-main-64x48-300-2.80-32x24.nv21").find("ambiguous"), std::string::npos);
    EXPECT_NE(refusalOf(*p, "0004-preview-sub-64x48-300.nv21"), "");
    EXPECT_NE(refusalOf(*p, "0005-preview-sub-64x48-300.nv21").find("no preview-main"), std::string::npos);
    EXPECT_NE(refusalOf(*p, "0009-preview-main-32x24-300-2.80-1x1.nv21").find("differs from the first frame's 64x48"),
              std::string::npos);
    EXPECT_NE(refusalOf(*p, "0010-preview-sub-32x24-300.nv21").find("0002-preview-sub-64x48-300.nv21"),
              std::string::npos);
    EXPECT_NE(refusalOf(*p, "0007-preview-main-oops.nv21").find("not a preview dump name"), std::string::npos);
    EXPECT_EQ(p->refused.size(), 7u);
  }
}

TEST(HostSheet, CellsStayBoundedWhateverThePreviewShape) {
  struct Case {
    int32_t w, h, cw, ch;
  } cases[] = {{1920, 1080, 480, 270}, {1080, 1920, 360, 640}, {64, 4096, 10, 640},
               {8192, 2, 480, 1},      {2, 8192, 1, 640},      {320, 240, 480, 360}};
  for (const Case& c : cases) {
    int32_t cw = 0, ch = 0;
    host_sheet_cell(c.w, c.h, &cw, &ch);
    EXPECT_EQ(cw, c.cw) << c.w << "x" << c.h;
    EXPECT_EQ(ch, c.ch) << c.w << "x" << c.h;
  }
}

// The summary's rates: frames over the frames' wall time and over the whole run, which is left out
// until it has been measured.
TEST(HostOutputs, TimingSummaryCountsFramesOverEachClock) {
  TimingReport r;
  r.runMs.assign(60, 10.0);
  r.depthMs.assign(15, 5.0);
  r.wallSeconds = 2.5;
  std::string s = host_timing_summary(r);
  EXPECT_NE(s.find("frames 60 in 2.50 s of wall time (24.0 frames/s"), std::string::npos) << s;
  EXPECT_NE(s.find("caller thread sustains 100.0 frames/s; depth refreshed 6.0 times/s"), std::string::npos) << s;
  EXPECT_EQ(s.find("whole run"), std::string::npos) << s;
  r.wholeSeconds = 3.0;
  s = host_timing_summary(r);
  EXPECT_NE(s.find("whole run 3.00 s with set-up, the session's end, sheet and video (20.0 frames/s)"),
            std::string::npos)
      << s;
}

// Pictures must read back exactly at the frames' level and the sheet's, at odd sizes and with
// rows that differ (rows are stored as differences from the row above).
TEST(HostOutputs, PicturesReadBackExactlyAtEveryLevel) {
  const std::string dir = testing::TempDir() + "/host_png_" + std::to_string(getpid());
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  for (const auto& size : std::vector<std::pair<int32_t, int32_t>>{{1, 1}, {3, 2}, {17, 5}, {64, 48}}) {
    std::vector<uint8_t> rgb(static_cast<size_t>(size.first) * size.second * 3);
    uint32_t state = 12345;
    for (uint8_t& v : rgb) v = static_cast<uint8_t>((state = state * 1103515245u + 12345u) >> 24);
    for (const int level : {1, 6, 9}) {
      std::string written, error;
      const std::string path = dir + "/p" + std::to_string(size.first) + "_" + std::to_string(level) + ".png";
      ASSERT_TRUE(host_write_rgb(path, rgb.data(), size.first, size.second, level, &written, &error)) << error;
#ifdef VM_HAVE_PNG
      Image8 back;
      ASSERT_TRUE(image_read8(written, &back, &error)) << written << ": " << error;
      EXPECT_EQ(back.width, size.first);
      EXPECT_EQ(back.height, size.second);
      ASSERT_EQ(back.channels, 3);
      EXPECT_TRUE(back.data == rgb) << written;
#endif
      unlink(written.c_str());
    }
  }
  rmdir(dir.c_str());
}

TEST(HostOutputs, FailedPictureWritesAreReportedAndLeaveNoPartialFile) {
  const std::vector<uint8_t> rgb(64 * 48 * 3, 100);
  std::string written, error;
  // Both names a picture may take (PNG, or PPM in builds without libpng) are a full device, or
  // a folder in the way.
  const std::string dir = testing::TempDir() + "/host_outputs_" + std::to_string(getpid());
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  for (const char* ext : {".png", ".ppm"}) {
    ASSERT_EQ(symlink("/dev/full", (dir + "/full" + ext).c_str()), 0);
    ASSERT_EQ(mkdir((dir + "/taken" + ext).c_str(), 0755), 0);
  }
  EXPECT_FALSE(host_write_rgb(dir + "/full.png", rgb.data(), 64, 48, 1, &written, &error));
  EXPECT_NE(error, "");
  EXPECT_EQ(written, "");
  error.clear();
  EXPECT_FALSE(host_write_rgb(dir + "/taken.png", rgb.data(), 64, 48, 1, &written, &error));
  EXPECT_NE(error, "");
  EXPECT_EQ(written, "");
  std::vector<SheetRow> none;
  EXPECT_FALSE(host_write_contact_sheet(dir + "/sheet.png", none, &written, &error));
  for (const char* ext : {".png", ".ppm"}) {
    unlink((dir + "/full" + ext).c_str());
    rmdir((dir + "/taken" + ext).c_str());
  }
  rmdir(dir.c_str());
}

TEST(HostColour, Nv21RoundTripKeepsGreyAndPrimariesClose) {
  const int32_t w = 4, h = 2;
  std::vector<uint8_t> rgb = {128, 128, 128, 128, 128, 128, 255, 0, 0, 255, 0, 0,
                              128, 128, 128, 128, 128, 128, 255, 0, 0, 255, 0, 0};
  std::vector<uint8_t> nv21(w * h * 3 / 2), back(rgb.size());
  host_rgb_to_nv21(rgb.data(), w, h, nv21.data());
  host_nv21_to_rgb(nv21.data(), w, h, back.data());
  for (size_t i = 0; i < rgb.size(); ++i) EXPECT_NEAR(back[i], rgb[i], 2) << i;
}

// Bands of rows, drawn in any order, give the bytes of the whole picture (noise and motion on, a
// height no band size divides); a band outside the picture is refused.
TEST(HostSceneBands, BandsInAnyOrderMakeTheWholePicture) {
  SceneSpec desc;
  scene_default(&desc, 7);
  desc.noiseSigma = 2.0f;
  desc.motion = SCENE_PAN;
  desc.motionAmount = 0.5f;
  const int32_t w = 96, h = 61;
  std::vector<uint8_t> whole(static_cast<size_t>(w) * h * 3), bands(whole.size(), 0);
  ASSERT_EQ(scene_render_rgb(&desc, 3, 1, w, h, 2, whole.data()), 0);
  for (int32_t y1 = h; y1 > 0; y1 -= 13)
    ASSERT_EQ(scene_render_rgb_rows(&desc, 3, 1, w, h, 2, std::max(0, y1 - 13), y1, bands.data()), 0);
  EXPECT_TRUE(whole == bands);
  for (const auto& band : {std::make_pair(-1, 4), std::make_pair(60, 62), std::make_pair(5, 5)})
    EXPECT_EQ(scene_render_rgb_rows(&desc, 3, 1, w, h, 2, band.first, band.second, bands.data()), 1);
}

// The synthetic and pair sources draw the same frames with or without worker threads (sizes
// that no band size divides, a panning window).
TEST(HostSceneBands, SourcesAreTheSameOnAPool) {
  const std::string dir = testing::TempDir() + "/host_bands_" + std::to_string(getpid());
  mkdir(dir.c_str(), 0755);
  for (const char* name : {"/l.ppm", "/r.ppm"}) {
    FILE* f = fopen((dir + name).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fprintf(f, "P6\n200 150\n255\n");
    for (int i = 0; i < 200 * 150 * 3; ++i) fputc((i * 7 + i / 600 + name[1]) & 255, f);
    fclose(f);
  }
  for (const SourceKind kind : {SourceKind::kSynthetic, SourceKind::kPair}) {
    HostConfig c;
    c.source = kind;
    c.sourcePath = dir + "/l.ppm";
    c.subImagePath = dir + "/r.ppm";
    c.mainWidth = 160, c.mainHeight = 90, c.subWidth = 128, c.subHeight = 74, c.motion = "pan", c.frames = 3;
    auto plain = host_make_source(c), pooled = host_make_source(c);
    std::string error;
    ASSERT_TRUE(plain->open(&c, &error)) << error;
    ASSERT_TRUE(pooled->open(&c, &error)) << error;
    HostPool pool(3);
    pooled->setPool(&pool);
    for (int32_t i = 0; i < 3; ++i) {
      HostFrame a, b;
      ASSERT_TRUE(plain->frame(i, &a, &error)) << error;
      ASSERT_TRUE(pooled->frame(i, &b, &error)) << error;
      EXPECT_TRUE(a.main == b.main && a.sub == b.sub) << "frame " << i;
      EXPECT_EQ(a.main.size(), 160u * 90 * 3 / 2);
      EXPECT_EQ(b.sub.size(), 128u * 74 * 3 / 2);
    }
  }
}

TEST(HostPool, EveryBandRunsOnceAndAFailureIsKept) {
  for (int32_t threads : {0, 1, 4}) {
    HostPool pool(threads);
    std::vector<std::atomic<int32_t>> runs(257);
    std::string error;
    EXPECT_TRUE(pool.parallel_for(
        257, [&](int32_t i) { ++runs[static_cast<size_t>(i)]; }, &error));
    for (auto& r : runs) EXPECT_EQ(r.load(), 1) << threads << " threads";
    // A throwing band: the others still run, the call says why.
    std::atomic<int32_t> ran{0};
    EXPECT_FALSE(pool.parallel_for(
        8,
        [&](int32_t i) {
          ++ran;
          if (i == 5) throw std::runtime_error("band five broke");
        },
        &error));
    EXPECT_EQ(error, "band five broke");
    EXPECT_EQ(ran.load(), 8);
    // A throwing task: kept, in order, and the pool goes on.
    pool.submit([] { throw std::runtime_error("task broke"); });
    std::atomic<int32_t> after{0};
    pool.submit([&] { ++after; });
    pool.wait_idle();
    EXPECT_EQ(pool.failures(), std::vector<std::string>{"task broke"});
    EXPECT_EQ(after.load(), 1);
  }
}

// Outputs held by tasks keep their place until the task lets go: never more than the limit at
// once, however many are made, and all are given back.
TEST(HostPool, FramesInFlightStayWithinTheLimit) {
  HostInFlight flight(3);
  {
    HostPool pool(2);
    for (int32_t i = 0; i < 40; ++i) {
      flight.acquire();
      auto held = std::shared_ptr<int32_t>(new int32_t(i), [&flight](int32_t* p) {
        delete p;
        flight.release();
      });
      pool.submit([held] { usleep(200); });
    }
    pool.wait_idle();
  }
  EXPECT_LE(flight.peak(), 3);
  EXPECT_GE(flight.peak(), 1);
  for (int32_t i = 0; i < 3; ++i) flight.acquire();  // would wait for ever if one were lost
}

TEST(HostPool, QueueKeepsOrderAndEndsOnceDrained) {
  HostQueue<int32_t> q(2);
  std::thread writer([&] {
    for (int32_t i = 0; i < 100; ++i) ASSERT_TRUE(q.push(i));
    q.close();
  });
  int32_t v = -1, expect = 0;
  while (q.pop(&v)) EXPECT_EQ(v, expect++);
  writer.join();
  EXPECT_EQ(expect, 100);
  EXPECT_FALSE(q.push(1));  // closed: the item is refused, never queued
}

}  // namespace
