// Log line format, flag gates, property parsing and the thread-information line.
#include "debug/debug_log.h"

#include <gtest/gtest.h>

#include <climits>

#include "debug/dump.h"
#include "log_capture.h"

namespace {

class DebugLog : public PropertyFixture {
 protected:
  void TearDown() override {
    logFlags = 0;
    PropertyFixture::TearDown();
  }
};

int logHere(int* line) {
  *line = __LINE__ + 1;
  return VM_LOG("value %d\n", 42);
}

TEST_F(DebugLog, LineCarriesPrefixFunctionAndLineAtPriority6) {
  int line = 0;
  EXPECT_GT(logHere(&line), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0], "<VEMTA_LOG>[vmKtrRT_SC] logHere:" + std::to_string(line) + ": value 42\n");
  EXPECT_EQ(log.prios_[0], 6);
  EXPECT_EQ(log.tags_[0], "System.out");
}

TEST_F(DebugLog, GatedLinesFollowTheirBit) {
  logFlags = kLogInfo;
  VM_LOG_IF(kLogTrace, "trace\n");
  VM_LOG_IF(kLogInfo, "info\n");
  logFlags = kLogStepCost;
  VM_PROFILE_IF("cost %ld ms\n", 3L);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_NE(log.lines()[0].find("info"), std::string::npos);
  EXPECT_EQ(log.lines()[1].rfind("<VEMTA_LOG>[vmKtrRT_SC][PROFILE] ", 0), 0u);
  EXPECT_NE(log.lines()[1].find(": cost 3 ms\n"), std::string::npos);
}

TEST_F(DebugLog, PropertiesParseAsDecimal) {
  struct Case {
    const char* value;
    int32_t expected;
  } cases[] = {{"18", 18},
               {"0x12", 0},
               {"abc", 0},
               {"255", 255},
               {"", 0},
               {" 7", 7},
               {"-3", -3},
               {"12abc", 12},
               {"99999999999", INT32_MAX},
               {"-99999999999", INT32_MIN}};
  for (const Case& c : cases) {
    setProp("persist.vm.test", c.value);
    EXPECT_EQ(debug_read_property_int("persist.vm.test"), c.expected) << "value \"" << c.value << "\"";
  }
  EXPECT_EQ(debug_read_property_int("persist.vm.missing"), 0);
}

TEST_F(DebugLog, ThreadInfoOnlyWithTraceFlag) {
  dump_thread_info();
  EXPECT_EQ(log.lines().size(), 0u);
  logFlags = kLogTrace;
  dump_thread_info();
  ASSERT_EQ(log.count("PID["), 1u);
  const std::string l = log.matching("PID[")[0];
  EXPECT_NE(l.find("dump_thread_info:"), std::string::npos);
  EXPECT_NE(l.find("RET[0] PID[" + std::to_string(getpid()) + "] TID["), std::string::npos);
  EXPECT_NE(l.find("] POLICY["), std::string::npos);
  EXPECT_EQ(l.substr(l.size() - 2), "\n\n");
}

}  // namespace
