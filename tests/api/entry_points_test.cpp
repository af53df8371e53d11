// The shared library through its five exported functions only, with the recording fakes bound
// to its engine symbols and the host stand-ins capturing its log.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "fakes.h"
#include "log_capture.h"
#include "vmKtrRT_SC.h"

namespace {

class EntryPoints : public PropertyFixture {
 protected:
  void SetUp() override {
    PropertyFixture::SetUp();
    fakes::reset();
    otp.assign(64, 0x5C);
  }
  void TearDown() override {
    vm_host_property_reset();
    vmKtrRT_SC_Deinit();  // leaves no session running between tests
    PropertyFixture::TearDown();
  }
  InitData initData() {
    InitData d;
    memset(&d, 0, sizeof d);
    d.screenWidth = 1080;
    d.screenHeight = 2340;
    d.previewMainWidth = d.previewMainStride = 64;
    d.previewMainHeight = d.previewMainScanline = 48;
    d.previewSubWidth = d.previewSubStride = 32;
    d.previewSubHeight = d.previewSubScanline = 24;
    d.depthWidth = 32;
    d.depthHeight = 24;
    d.cameraLayout = 2;
    d.otpData = otp.data();
    d.otpSize = static_cast<int32_t>(otp.size());
    return d;
  }
  std::vector<uint8_t> otp;
};

TEST_F(EntryPoints, GetVersion) {
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(vmKtrRT_SC_Get_Version(buf, 5), 1u);
  EXPECT_EQ(buf[0], 'x');
  EXPECT_EQ(vmKtrRT_SC_Get_Version(nullptr, 100), 1u);
  EXPECT_EQ(vmKtrRT_SC_Get_Version(buf, 6), 0u);
  EXPECT_EQ(std::string(buf, 6), std::string("v0.47\0", 6));
  EXPECT_EQ(buf[6], 'x');
}

TEST_F(EntryPoints, InitEchoesPropertiesInOrderAndSkipsDisplayWithoutDebug) {
  setProp("persist.vm.log.ktrrt.sc", "18");
  setProp("persist.vm.ktrrt.sc.display", "255");
  setProp("persist.vm.ktrrt.sc.info", "0x12");
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 4u);
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(R"(<VEMTA_LOG>\[vmKtrRT_SC\] vmKtrRT_SC_Init:\d+: KtrRT_SC Version:\[v0\.47\]\n)")));
  EXPECT_TRUE(
      std::regex_match(lines[1], std::regex(R"(<VEMTA_LOG>\[vmKtrRT_SC\]<SET LOG> vmKtrRT_SC_Init:\d+: 12 \n)")));
  EXPECT_TRUE(
      std::regex_match(lines[2], std::regex(R"(<VEMTA_LOG>\[vmKtrRT_SC\]<SET DEBUG> vmKtrRT_SC_Init:\d+: 0 \n)")));
  EXPECT_TRUE(std::regex_match(lines[3],
                               std::regex(R"(<VEMTA_LOG>\[vmKtrRT_SC\]<SET STATUS INFO> vmKtrRT_SC_Init:\d+: 0 \n)")));
  EXPECT_EQ(log.count("SET DEBUG DISPLAY"), 0u);
  // logFlags 0x12: the profiling pair around the flow controller.
  EXPECT_EQ(log.count("<VEMTA_LOG>[vmKtrRT_SC][PROFILE] vmKtrRT_SC_Init:"), 2u);
  EXPECT_TRUE(std::regex_match(log.matching("-- cost")[0], std::regex(R"(.*vmKtrRT_SC_Init:\d+: -- cost \d+ ms\n)")));
}

TEST_F(EntryPoints, DisplayReadWhenDebugIsOn) {
  setProp("persist.vm.ktrrt.sc.debug", "1");
  setProp("persist.vm.ktrrt.sc.display", "255");
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  ASSERT_EQ(log.count("<SET DEBUG DISPLAY>"), 1u);
  EXPECT_NE(log.matching("<SET DEBUG DISPLAY>")[0].find(": ff \n"), std::string::npos);
}

TEST_F(EntryPoints, DeinitAnswersTheLastCostLineWhenProfiling) {
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  setProp("persist.vm.log.ktrrt.sc", "16");
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  log.clear();
  const uint32_t r = vmKtrRT_SC_Deinit();
  EXPECT_GT(r, 0u);
  ASSERT_EQ(log.count("-- cost"), 1u);
  // Deinit twice: the second only logs the closed state.
  setProp("persist.vm.log.ktrrt.sc", "0");
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  log.clear();
  EXPECT_EQ(vmKtrRT_SC_Deinit(), 0u);
  EXPECT_TRUE(std::regex_match(log.lines().at(0), std::regex(R"(.*flow_controller_deinit:\d+: ERROR\.\.\.\[8\]\n)")));
}

TEST_F(EntryPoints, SetFunction) {
  log.clear();
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x04, 1), 0u);  // not running: logs the state
  EXPECT_EQ(log.count("flow_controller_set_function:"), 1u);
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x04, 7), 0u);
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x08, 1), 1u);
  fakes::queueResult("vmKtrRT_SetParameter", 0x33);
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x02, 5), 0x33u);
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x02, 0), 0u);
  const auto calls = fakes::calls("vmKtrRT_SetParameter");
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].args, (std::vector<int64_t>{2, 0, 0, 0, 0, 1, 0}));
  EXPECT_EQ(calls[1].args, (std::vector<int64_t>{2, 0, 0, 0, 0, 0, 0}));
  ASSERT_EQ(vmKtrRT_SC_Deinit(), 0u);
  EXPECT_EQ(vmKtrRT_SC_Set_Function(0x04, 1), 0u);
}

TEST_F(EntryPoints, SetFunctionTraceUnderFlag2) {
  setProp("persist.vm.log.ktrrt.sc", "2");
  ASSERT_EQ(vmKtrRT_SC_Init(initData()), 0u);
  log.clear();
  vmKtrRT_SC_Set_Function(0x04, 3);
  const auto lines = log.matching("vmKtrRT_SC_Set_Function:");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find(": ++\n"), std::string::npos);
  EXPECT_NE(lines[1].find(": FLAG[0x04] Enable[3]\n"), std::string::npos);
  EXPECT_NE(lines[2].find(": -- cost "), std::string::npos);
  EXPECT_EQ(lines[2].find("[PROFILE]"), std::string::npos);
}

TEST_F(EntryPoints, NoCalibrationIsRefusedAndRunOutsideASessionDoesNothing) {
  InitData d = initData();
  d.otpData = nullptr;
  EXPECT_EQ(vmKtrRT_SC_Init(d), 6u);
  log.clear();
  TriggerData t;
  memset(&t, 0, sizeof t);
  EXPECT_EQ(vmKtrRT_SC_Run(t), 0u);
  EXPECT_TRUE(std::regex_match(log.lines().at(0), std::regex(R"(.*flow_controller_trigger:\d+: ERROR\.\.\.\[2\]\n)")));
  // The alternative block is taken when the first is missing.
  d.otpDataAlt = otp.data();
  EXPECT_EQ(vmKtrRT_SC_Init(d), 0u);
}

}  // namespace
