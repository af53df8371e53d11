// Command-line checks and dump-name parsing of the host tool.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host_config.h"
#include "host_sources.h"

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
               {{"--format", "9"}, "0..6"},
               {{"--fnumber", "2:abc"}, "ramp"},
               {{"--frames", "0"}, "at least 1"},
               {{"--setprop", "novalue"}, "NAME=VALUE"},
               {{"--pair", "x", "--motion", "dolly"}, "still or as a slow pan"},
               {{"--focus", "-3,4"}, "X,Y"},
               {{"--main"}, "WxH"}};
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
  ASSERT_TRUE(parse({"--main", "640x480", "--fnumber", "2.8", "--focus", "100,50", "--setprop",
                     "persist.vm.ktrrt.sc.dump=3", "--layout", "0x32", "--temporal-filter", "on"},
                    &c, &error))
      << error;
  EXPECT_EQ(c.mainWidth, 640);
  EXPECT_FLOAT_EQ(c.fStart, 2.8f);
  EXPECT_FLOAT_EQ(c.fEnd, 2.8f);
  EXPECT_EQ(c.focus, FocusMode::kFixed);
  EXPECT_EQ(c.focusX, 100);
  EXPECT_EQ(c.cameraLayout, 0x32u);
  EXPECT_TRUE(c.temporalFilter);
  ASSERT_EQ(c.properties.size(), 1u);
  EXPECT_EQ(c.properties[0].second, "3");
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
  ASSERT_TRUE(host_parse_dump_name("0012-preview-sub-1280x720-310.nv21", &d));
  EXPECT_FALSE(d.isMain);
  EXPECT_EQ(d.vcm, 310);
  for (const char* bad : {"0007-preview-main-1920x1080-300-2.80-960x540.nv21.tmp", "preview-main.nv21",
                          "0001-preview-main-1921x1080-300-2.80-960x540.nv21", "0003-depth-320x240-1-2-2.80-1x1.raw",
                          "0001-preview-sub-0x720-3.nv21"})
    EXPECT_FALSE(host_parse_dump_name(bad, &d)) << bad;
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

}  // namespace
