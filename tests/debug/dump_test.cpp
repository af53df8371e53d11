// Dump file names for every kind, the guard on the dump flags, and the dump writer.
#include "debug/dump.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "debug/debug_log.h"
#include "flow/session_context.h"
#include "log_capture.h"
#include "test_dump_dir.h"

namespace {

class DumpNames : public ::testing::Test {
 protected:
  void SetUp() override {
    memset(static_cast<void*>(&ctx), 0, sizeof ctx);
    ctx.slots[kSlotMain].width = 1920;
    ctx.slots[kSlotMain].height = 1080;
    ctx.slots[kSlotSub].width = 1280;
    ctx.slots[kSlotSub].height = 720;
    ctx.slots[kSlotDepth].width = 320;
    ctx.slots[kSlotDepth].height = 240;
    ctx.slots[kSlotRefocus].width = 320;
    ctx.slots[kSlotRefocus].height = 240;
    ctx.cameraLayout = 2;
    ctx.vcmMain = 300;
    ctx.vcmSub = 310;
    ctx.fNumber = 2.8f;
    ctx.focusX = 960;
    ctx.focusY = 540;
    ctx.previewFrameCounter = 7;
    ctx.depthFrameCounter = 3;
    ctx.refocusFrameCounter = 12;
  }
  std::string name(int32_t kind) {
    char buf[kDumpNameCapacity];
    memset(buf, '#', sizeof buf);
    buf[sizeof buf - 1] = '\0';
    dump_build_file_name(buf, kDumpNameCapacity, kind, &ctx);
    return buf;
  }
  SessionContext ctx;
};

TEST_F(DumpNames, EveryKind) {
  EXPECT_EQ(name(kDumpPreviewMain), "0007-preview-main-1920x1080-300-2.80-960x540.nv21");
  EXPECT_EQ(name(kDumpPreviewSub), "0007-preview-sub-1280x720-310.nv21");
  EXPECT_EQ(name(kDumpDepth), "0003-depth-320x240-300-310-2.80-960x540.raw");
  EXPECT_EQ(name(kDumpDepthMain), "0003-depth-main-320x240-300-2.80-960x540.ycc");
  EXPECT_EQ(name(kDumpDepthSub), "0003-depth-sub-320x240-300-2.80-960x540.ycc");
  EXPECT_EQ(name(kDumpPreviewOut), "0007-preview-out-1920x1080.nv21");
  EXPECT_EQ(name(kDumpEeprom), "eeprom.raw");
}

TEST_F(DumpNames, RefocusKindsPrintTheFNumberWordsAndFocusAsOneDouble) {
  // (double)2.8f is 0x4006666660000000: low word 0x60000000, high word 0x40066666. The focus
  // words (960, 540) read as one double are a denormal that prints as 0.00.
  EXPECT_EQ(name(kDumpRefocus), "0012-refocus-1610612736x1074161254-0.00-320x240.raw");
  EXPECT_EQ(name(kDumpRefocusUsing), "0012-refocus-using-1610612736x1074161254-0.00-320x240.raw");
  // A focus whose high word reaches the exponent bits prints that double's value.
  ctx.focusX = 0;
  ctx.focusY = 0x3FF00000;  // 1.0
  ctx.fNumber = 0.0f;
  EXPECT_EQ(name(kDumpRefocus), "0012-refocus-0x0-1.00-320x240.raw");
}

TEST_F(DumpNames, DepthNameShowsTheCallersSizeForQuarterTurns) {
  // Layout 3 with depth 240 x 320 given at Init: slot 2 holds it turned.
  ctx.cameraLayout = 3;
  ctx.depthSizeTurned = 1;
  EXPECT_EQ(name(kDumpDepth), "0003-depth-240x320-300-310-2.80-960x540.raw");
  ctx.cameraLayout = 4;
  EXPECT_EQ(name(kDumpDepth), "0003-depth-240x320-300-310-2.80-960x540.raw");
  // A chip word (0x33 masks to layout 3) leaves slot 2 as the caller gave it.
  ctx.cameraLayout = 3;
  ctx.depthSizeTurned = 0;
  EXPECT_EQ(name(kDumpDepth), "0003-depth-320x240-300-310-2.80-960x540.raw");
  // The engine-oriented dumps keep slot 2's size.
  EXPECT_EQ(name(kDumpDepthMain), "0003-depth-main-320x240-300-2.80-960x540.ycc");
}

TEST_F(DumpNames, UnknownKindLeavesDestinationAndHugeValuesStayInside) {
  char buf[16] = "untouched";
  dump_build_file_name(buf, sizeof buf, 9, &ctx);
  EXPECT_STREQ(buf, "untouched");
  dump_build_file_name(buf, sizeof buf, -1, &ctx);
  EXPECT_STREQ(buf, "untouched");
  // A double of ~1e308 has 309 digits: the name is cut at the capacity, never written past it.
  ctx.focusX = -1;
  ctx.focusY = 0x7FEFFFFF;
  char big[kDumpNameCapacity + 8];
  memset(big, 'Z', sizeof big);
  dump_build_file_name(big, kDumpNameCapacity, kDumpRefocus, &ctx);
  EXPECT_EQ(strlen(big), static_cast<size_t>(kDumpNameCapacity - 1));
  for (size_t i = kDumpNameCapacity; i < sizeof big; ++i) EXPECT_EQ(big[i], 'Z');
}

class DumpWriter : public PropertyFixture {
 protected:
  void TearDown() override {
    debugEnable = 0;
    dumpFlags = 0;
    logFlags = 0;
    PropertyFixture::TearDown();
  }
  static std::string path(const std::string& n) { return std::string(VMKTR_DUMP_DIR_FOR_TESTS) + "/" + n; }
};

TEST_F(DumpWriter, WritesBytesAndLogsUnderInfoFlag) {
  const std::string file = path("dump-writer-test.raw");
  unlink(file.c_str());
  const char data[] = "0123456789";
  logFlags = kLogInfo;
  dump_write_raw("dump-writer-test.raw", data, 10);
  std::ifstream in(file, std::ios::binary);
  std::string got((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(got, "0123456789");
  ASSERT_EQ(log.count("Write data to "), 1u);
  EXPECT_NE(log.matching("Write data to ")[0].find(file + " size 10\n"), std::string::npos);
  unlink(file.c_str());
}

TEST_F(DumpWriter, UnopenablePathIsSkippedSilently) {
  dump_write_raw("no-such-dir/x.raw", "abc", 3);
  EXPECT_EQ(log.lines().size(), 0u);
  EXPECT_NE(access(path("no-such-dir").c_str(), F_OK), 0);
}

TEST_F(DumpWriter, GuardNeedsDebugEnableFlagsAndTheKindsBit) {
  SessionContext ctx;
  memset(static_cast<void*>(&ctx), 0, sizeof ctx);
  const std::string file = path("eeprom.raw");
  unlink(file.c_str());
  dump_if_enabled(kDumpEeprom, &ctx, "x", 1);
  debugEnable = 1;
  dumpFlags = 0x01;  // another kind's bit
  dump_if_enabled(kDumpEeprom, &ctx, "x", 1);
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  dumpFlags = 0x40;
  dump_if_enabled(kDumpEeprom, &ctx, "x", 1);
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
  unlink(file.c_str());
  // Kinds 3 and 4 share a bit.
  EXPECT_EQ(dump_kind_bit(kDumpRefocus), dump_kind_bit(kDumpRefocusUsing));
  EXPECT_EQ(dump_kind_bit(kDumpPreviewOut), 0x80);
  EXPECT_EQ(dump_kind_bit(9), 0);
}

// The phone's directory is the one the library names; a host process that says nothing writes
// there too, and only VM_HOST_DUMP_DIR (set here by the test support) moves it.
TEST_F(DumpWriter, DirectoryIsThePhonesUnlessTheHostMovesIt) {
  EXPECT_STREQ(kDumpDirectory, "/data/misc/camera/vemtadc");
  EXPECT_STREQ(dump_directory(), VMKTR_DUMP_DIR_FOR_TESTS);
  const std::string mine = VMKTR_DUMP_DIR_FOR_TESTS;
  unsetenv("VM_HOST_DUMP_DIR");
  EXPECT_STREQ(dump_directory(), "/data/misc/camera/vemtadc");
  logFlags = kLogInfo;
  // Unopenable here (no such directory on a build machine), so skipped without another line.
  dump_write_raw("dump-dir-test.raw", "abc", 3);
  setenv("VM_HOST_DUMP_DIR", "", 1);
  EXPECT_STREQ(dump_directory(), "/data/misc/camera/vemtadc");
  setenv("VM_HOST_DUMP_DIR", mine.c_str(), 1);
  EXPECT_STREQ(dump_directory(), mine.c_str());
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("Write data to /data/misc/camera/vemtadc/dump-dir-test.raw size 3\n"),
            std::string::npos)
      << log.lines()[0];
}

}  // namespace
