// The log lines that only the library's inner functions print (nothing of the per-frame flow
// reaches them): the depth spread, the block motion and pixel difference measures, and the GL
// pipeline's error lines that need no display. One table: a call, the line it must print, the
// function that prints it, how often, under which log flags.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "contract_rows.h"
#include "debug/debug_log.h"
#include "image/depth_display.h"
#include "log_capture.h"
#include "policy/policy_manager.h"
#include "session_support.h"

#ifdef VMKTR_CONTRACT_GL
#include "gl/gl_context.h"
#include "gl/gl_dump.h"
#include "gl_standins.h"
#endif

namespace {

using contract::Count;
using contract::exactly;
using contract::never;

struct InnerRow {
  const char* label;
  int32_t logFlags;
  std::function<void()> call;
  const char* fn;
  const char* pattern;
  Count count;
};

// A 64 x 64 textured luma plane with room before it: the motion search reads up to eight bytes
// left of a row.
struct Plane {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(16 + 64 * 64, 0);
  Plane() {
    for (int32_t y = 0; y < 64; ++y)
      for (int32_t x = 0; x < 64; ++x) bytes[16 + y * 64 + x] = Frames::blockValue(x / 16, y / 16, 3) ^ (x * 5 + y);
  }
  const uint8_t* data() const { return bytes.data() + 16; }
};

std::vector<InnerRow> rows() {
  static Plane a, b;
  // Four samples of 100: the spread's mean is the last valid sample divided by the count (25), so
  // each sample lies 75 away and the spread is 75.
  static const uint16_t depth[4] = {100, 100, 100, 100};
  auto spread = [] { image_utility_depth_map_standard_deviation(depth, 2, 2); };
  auto motion = [] { policy_manager_estimate_motion(a.data(), b.data(), 24, 40, 24, 40, 64, 64); };
  auto motionBadRect = [] { policy_manager_estimate_motion(a.data(), b.data(), 24, 24, 24, 40, 64, 64); };
  auto difference = [] { policy_manager_calculate_SAD(a.data(), b.data(), 24, 40, 24, 40, 64, 64); };
  auto differenceBadRect = [] { policy_manager_calculate_SAD(a.data(), b.data(), 24, 40, 40, 24, 64, 64); };
  std::vector<InnerRow> r = {
      {"DepthSpread", kLogStepCost, spread, "image_utility_depth_map_standard_deviation",
       CT_PROFILE " Depth SD [75]-- cost %ld ms\n", exactly(1)},
      {"DepthSpreadTrace", kLogTrace, spread, "image_utility_depth_map_standard_deviation",
       CT_PROFILE " Depth SD [75]-- cost %ld ms\n", exactly(1)},
      {"DepthSpreadGated", kLogInfo | kLogGl, spread, nullptr, CT_PROFILE "%s", never()},
      // Identical planes: no block moves.
      {"MotionCount", kLogStepCost, motion, "policy_manager_estimate_motion",
       CT_PROFILE "MV Large count = 0 cost %ld ms", exactly(1)},
      {"MotionCountGated", kLogInfo, motion, nullptr, CT_PROFILE "MV Large count = %d cost %ld ms", never()},
      {"MotionBadRegion", kLogTrace, motionBadRect, "policy_manager_estimate_motion",
       CT_LINE "invalid FACE RECT in Motion Estimation", exactly(1)},
      {"MotionBadRegionGated", kLogStepCost, motionBadRect, nullptr, CT_LINE "invalid FACE RECT in Motion Estimation",
       never()},
      {"PixelDifference", kLogStepCost, difference, "policy_manager_calculate_SAD",
       CT_PROFILE "Average Pixel Diff = 0.000000 cost %ld ms", exactly(1)},
      {"PixelDifferenceBadRegion", kLogTrace, differenceBadRect, "policy_manager_calculate_SAD",
       CT_LINE "invalid FACE RECT in CalculateSAD", exactly(1)},
  };
#ifdef VMKTR_CONTRACT_GL
  auto noDisplay = [] {
    GlContextRecord record = {EGL_NO_DISPLAY, nullptr, EGL_NO_CONTEXT, EGL_NO_SURFACE, 0, 0, 0, 2, 0};
    glStandIns.noDisplay = true;
    const uint32_t code = OpenGLCreateContextSurface(&record);
    glStandIns.noDisplay = false;
    EXPECT_EQ(code, 0x17600001u);
  };
  auto deleteTooMany = [] {
    GlContextRecord record = {EGL_NO_DISPLAY, nullptr, EGL_NO_CONTEXT, EGL_NO_SURFACE, 0, 0, 0, 2, 0};
    EXPECT_EQ(OpenGLDelete(11, &record), 0x760000Au);
  };
  auto inputIndex = [] { EXPECT_EQ(OpenGLInitTexturesInputConfig(11, 4, 4, GL_RGBA, nullptr), 0x7600009u); };
  auto targetIndex = [] { EXPECT_EQ(OpenGLInitNativeTexturesBuffersConfig(11, 4, 4, GL_RGBA, nullptr), 0x7600009u); };
  auto dataDump = [] {
    vm_host_property_set("persist.vm.OpenGL.fileDir", "/nonexistent-contract-folder/");
    const uint8_t bytes[4] = {1, 2, 3, 4};
    EXPECT_EQ(OpenGLDumpData(bytes, 2, 2, 1, 1, "_c"), 0x7600005u);
    vm_host_property_reset();
  };
  const std::vector<InnerRow> gl = {
      {"GlNoDisplay", kLogGl, noDisplay, "OpenGLCreateContextSurface", CT_LINE "eglDisplay return EGL_NO_DISPLAY",
       exactly(1)},
      {"GlNoDisplayGated", kLogTrace | kLogStepCost, noDisplay, nullptr, CT_LINE "%s", never()},
      {"GlDeleteLength", kLogGl, deleteTooMany, "OpenGLDelete",
       CT_LINE "OpenGLDelete failed that a_ucBufferLength invalid", exactly(1)},
      {"GlInputIndex", kLogGl, inputIndex, "OpenGLInitTexturesInputConfig", CT_LINE "a_ucIndex failed", exactly(1)},
      {"GlTargetIndex", kLogGl, targetIndex, "OpenGLInitNativeTexturesBuffersConfig", CT_LINE "a_ucIndex failed",
       exactly(1)},
      {"GlDataDump", kLogGl, dataDump, "OpenGLDumpData", CT_LINE "*OpenGLDumpData Failed!!!", exactly(1)},
  };
  r.insert(r.end(), gl.begin(), gl.end());
#endif
  return r;
}

void PrintTo(const InnerRow& row, std::ostream* os) {
  *os << row.pattern;
}

class InnerContract : public ::testing::TestWithParam<InnerRow> {};

TEST_P(InnerContract, Row) {
  const InnerRow& row = GetParam();
  std::vector<std::string> lines;
  {
    LogCapture log;
    logFlags = row.logFlags;
    row.call();
    logFlags = 0;
    lines = log.lines();
  }
  // These messages are given as their text: the line may or may not end in a line feed.
  const size_t seen = contract::countMatching(lines, row.pattern, row.fn, true);
  const size_t want = row.count.times == contract::Times::kNever ? 0 : static_cast<size_t>(row.count.n);
  std::string all;
  for (const std::string& l : lines) all += "  " + l + "\n";
  EXPECT_EQ(seen, want) << "pattern: " << row.pattern << "\nfunction: " << (row.fn ? row.fn : "any") << "\nlines:\n"
                        << all;
}

std::string rowName(const ::testing::TestParamInfo<InnerRow>& info) {
  return info.param.label;
}

INSTANTIATE_TEST_SUITE_P(Lines, InnerContract, ::testing::ValuesIn(rows()), rowName);

}  // namespace
