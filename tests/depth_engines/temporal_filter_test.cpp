// temporal_filter_test.cpp - the reference temporal filter: noise is smoothed on still pixels,
// changes pass at once, invalid samples are never averaged in, Init resets the history.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <vector>

#include "engines.h"

namespace {

const int32_t DW = 40, DH = 30, MW = 160, MH = 120;

struct Frames {
  std::vector<uint8_t> guide = std::vector<uint8_t>(size_t(MW) * MH);
  std::vector<uint16_t> in = std::vector<uint16_t>(size_t(DW) * DH), out = std::vector<uint16_t>(size_t(DW) * DH);
};

uint32_t g_rng = 12345;
int32_t noise(int32_t amplitude) {
  g_rng = g_rng * 1664525u + 1013904223u;
  return int32_t((g_rng >> 16) % uint32_t(2 * amplitude + 1)) - amplitude;
}

void fill_guide(Frames& f, int32_t shift) {
  for (int32_t y = 0; y < MH; ++y)
    for (int32_t x = 0; x < MW; ++x) f.guide[size_t(y) * MW + size_t(x)] = uint8_t(((x + shift) * 7 + y * 3) & 0xFF);
}

int32_t run(Frames& f) {
  return vmZu_TemporalFilterU16_Run(f.out.data(), f.in.data(), DW, DH, f.guide.data(), MW, MH);
}

TEST(TemporalFilter, StillNoiseIsSmoothedAtLeastThreefold) {
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(MW, MH, DW, DH));
  Frames f;
  fill_guide(f, 0);
  std::vector<uint16_t> prevIn, prevOut;
  double changeIn = 0, changeOut = 0;
  for (int32_t frame = 0; frame < 30; ++frame) {
    for (size_t i = 0; i < f.in.size(); ++i) f.in[i] = uint16_t(400 + noise(12));
    ASSERT_EQ(0, run(f));
    if (frame >= 10) {
      for (size_t i = 0; i < f.in.size(); ++i) {
        changeIn += abs(int(f.in[i]) - int(prevIn[i]));
        changeOut += abs(int(f.out[i]) - int(prevOut[i]));
      }
    }
    prevIn = f.in;
    prevOut = f.out;
  }
  EXPECT_LT(changeOut * 3.0, changeIn);
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Close());
}

// A depth step (an object arriving) or a guide change passes on the next frame: no trail.
TEST(TemporalFilter, ChangesPassWithoutTrails) {
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(MW, MH, DW, DH));
  Frames f;
  fill_guide(f, 0);
  for (int32_t frame = 0; frame < 10; ++frame) {
    for (uint16_t& v : f.in) v = 300;
    ASSERT_EQ(0, run(f));
  }
  for (uint16_t& v : f.in) v = 700;
  ASSERT_EQ(0, run(f));
  for (uint16_t v : f.out) ASSERT_EQ(700, v);
  // A small depth change with a changed guide (the scene moved) is also taken as it is.
  fill_guide(f, 40);
  for (uint16_t& v : f.in) v = 690;
  ASSERT_EQ(0, run(f));
  for (uint16_t v : f.out) ASSERT_EQ(690, v);
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Close());
}

TEST(TemporalFilter, InvalidSamplesAreNeverAveragedAndInitResets) {
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(MW, MH, DW, DH));
  Frames f;
  fill_guide(f, 0);
  for (uint16_t& v : f.in) v = 200;
  ASSERT_EQ(0, run(f));
  // Invalid input: the history is held (the guide did not change), never mixed with 1023.
  for (uint16_t& v : f.in) v = 1023;
  f.in[5] = 0xFFFF;
  ASSERT_EQ(0, run(f));
  for (uint16_t v : f.out) ASSERT_EQ(200, v);
  // After Init there is no history: invalid stays invalid, valid passes unchanged.
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(MW, MH, DW, DH));
  f.in[0] = 500;
  ASSERT_EQ(0, run(f));
  EXPECT_EQ(500, f.out[0]);
  for (size_t i = 1; i < f.out.size(); ++i) ASSERT_EQ(1023, f.out[i]);
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Close());
}

TEST(TemporalFilter, Refusals) {
  char text[256];
  EXPECT_EQ(0, vmZu_VersionInfo_Get(text, sizeof(text)));
  EXPECT_EQ(1, vmZu_VersionInfo_Get(text, 0));
  Frames f;
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Close());
  EXPECT_EQ(3, run(f));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Init(0, MH, DW, DH));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Init(MW, MH, DW, -3));
  // The history is as large as the depth map: sides beyond the stereo engine's 8192 are refused
  // before anything is allocated; the guide may be as large as a calibration resolution.
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Init(MW, MH, 8193, 8));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Init(MW, MH, 16384, 16384));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Init(16385, MH, DW, DH));
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Init(16384, 16384, 8192, 1));
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(MW, MH, DW, DH));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Run(f.out.data(), f.in.data(), DW + 1, DH, f.guide.data(), MW, MH));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Run(f.out.data(), f.in.data(), DW, DH, f.guide.data(), MW, MH - 2));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Run(f.out.data(), f.in.data(), DW, DH, nullptr, MW, MH));
  EXPECT_EQ(1, vmZu_TemporalFilterU16_Run(nullptr, f.in.data(), DW, DH, f.guide.data(), MW, MH));
  // A guide smaller than the depth map still reads only inside the guide.
  ASSERT_EQ(0, vmZu_TemporalFilterU16_Init(1, 1, DW, DH));
  uint8_t one = 9;
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Run(f.out.data(), f.in.data(), DW, DH, &one, 1, 1));
  EXPECT_EQ(0, vmZu_TemporalFilterU16_Close());
}

}  // namespace
