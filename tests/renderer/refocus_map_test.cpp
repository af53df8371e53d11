// The refocus-map generator: focus target, hole filling, map shape, portrait focus, chip depth.
#include <pthread.h>

#include "renderer_test_util.h"

namespace {

TEST(FocusTarget, SkipsInvalidSamplesAroundThePoint) {
  // 9 x 9 map of 1023 with a few valid samples in the 5 x 5 window: the median of the valid ones.
  std::vector<uint16_t> d(81, kDepthInvalid);
  d[4 * 9 + 3] = 300;
  d[4 * 9 + 5] = 320;
  d[3 * 9 + 4] = 310;
  d[0] = 900;  // outside the window
  uint16_t t = 0;
  ASSERT_TRUE(refocus_focus_target(d.data(), 9, 9, 4, 4, &t));
  EXPECT_EQ(310, t);
}

TEST(FocusTarget, WidensWhenTheWindowIsEmptyAndFailsWithoutDepth) {
  std::vector<uint16_t> d(64 * 64, kDepthInvalid);
  d[60 * 64 + 60] = 500;  // far corner only
  uint16_t t = 0;
  ASSERT_TRUE(refocus_focus_target(d.data(), 64, 64, 2, 2, &t));
  EXPECT_EQ(500, t);
  d[60 * 64 + 60] = kDepthInvalid;
  EXPECT_FALSE(refocus_focus_target(d.data(), 64, 64, 2, 2, &t));
  // A point outside the map is clamped into it.
  d[63 * 64 + 63] = 700;
  ASSERT_TRUE(refocus_focus_target(d.data(), 64, 64, 1000, -5, &t));
  EXPECT_EQ(700, t);
}

TEST(ResampleFill, HolesTakeTheFartherSide) {
  // One row: near (800) | hole | far (200): the hole belongs to the far side (occlusion).
  const uint16_t row[8] = {800, 800, 800, kDepthInvalid, kDepthInvalid, 200, 200, 200};
  uint16_t out[8];
  refocus_resample_fill(out, 8, 1, row, 8, 1);
  EXPECT_EQ(200, out[3]);
  EXPECT_EQ(200, out[4]);
  EXPECT_EQ(800, out[2]);
  // A row with no valid sample is filled from its column.
  const uint16_t grid[6] = {kDepthInvalid, kDepthInvalid, kDepthInvalid, 400, 1023, 600};
  uint16_t g[6];
  refocus_resample_fill(g, 3, 2, grid, 3, 2);
  EXPECT_EQ(400, g[0]);
  EXPECT_EQ(400, g[1]);  // row pass gave min(400, 600) to the middle of row 1
  EXPECT_EQ(600, g[2]);
}

TEST(MapValue, BandThenMonotonicInTheDifference) {
  EXPECT_EQ(0, refocus_map_value(0, 8, 128));
  EXPECT_EQ(0, refocus_map_value(8, 8, 128));
  EXPECT_EQ(0, refocus_map_value(-8, 8, 128));
  uint8_t prev = 0;
  for (int32_t d = 0; d <= 1022; ++d) {
    const uint8_t v = refocus_map_value(d, 8, 128);
    EXPECT_GE(v, prev) << d;
    EXPECT_EQ(v, refocus_map_value(-d, 8, 128));
    prev = v;
  }
  EXPECT_EQ(255, refocus_map_value(8 + 128, 8, 128));
  EXPECT_EQ(128, refocus_map_value(8 + 64, 8, 128));
}

using Generator = RendererFixture;

TEST_F(Generator, MapFollowsTheDisparityDifferenceAndReportsTheRange) {
  // Depth 320 x 240 with a ramp in x; map the same size.
  ASSERT_EQ(RGL_OK, init(640, 480, 320, 240, 320, 240));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(320 * 240);
  for (int32_t y = 0; y < 240; ++y)
    for (int32_t x = 0; x < 320; ++x) depth[y * 320 + x] = static_cast<uint16_t>(100 + 2 * x);
  depth[5] = kDepthInvalid;
  std::vector<uint8_t> map(320 * 240);
  uint16_t lo = 0, hi = 0, target = 0;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 100, 120, &lo, &hi, &target));
  EXPECT_EQ(100, lo);
  EXPECT_EQ(100 + 2 * 319, hi);
  EXPECT_EQ(300, target);
  EXPECT_EQ(0, map[120 * 320 + 100]);
  for (int32_t x = 100; x < 319; ++x) EXPECT_LE(map[120 * 320 + x], map[120 * 320 + x + 1]) << x;
  for (int32_t x = 1; x <= 100; ++x) EXPECT_LE(map[120 * 320 + x], map[120 * 320 + x - 1]) << x;
  EXPECT_EQ(255, map[120 * 320 + 319]);
}

TEST_F(Generator, AllInvalidDepthIsRefused) {
  ASSERT_EQ(RGL_OK, init(64, 48, 32, 24, 32, 24));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(32 * 24, 0xFFFF);
  std::vector<uint8_t> map(32 * 24, 9);
  uint16_t lo, hi, target;
  EXPECT_EQ(RGL_ERR_NO_DEPTH, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 3, 3, &lo, &hi, &target));
}

TEST_F(Generator, PortraitFocusLandsWhereTheUserTouched) {
  // The system turns a depth point (x, y) into (y, H - x) for portrait frames; the generator must
  // focus on the original point. Depth 320 x 240, preview centre -> (160, 120) -> (120, 80).
  ASSERT_EQ(RGL_OK, init(1920, 1080, 320, 240, 320, 240, /*portrait=*/1));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(320 * 240, 200);
  for (int32_t y = 110; y < 130; ++y)
    for (int32_t x = 150; x < 170; ++x) depth[y * 320 + x] = 700;  // the touched subject
  std::vector<uint8_t> map(320 * 240);
  uint16_t lo, hi, target;
  const int32_t x = 160, y = 120;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), y, 240 - x, &lo, &hi, &target));
  EXPECT_EQ(700, target);
  EXPECT_EQ(0, map[120 * 320 + 160]);
  EXPECT_EQ(255, map[10 * 320 + 10]);
}

TEST_F(Generator, FocusPointsOfAnyValueClampToTheMap) {
  // Quadrants of distinct depth; a focus point beyond the map, up to the ends of the int range,
  // focuses on the nearest corner in both orientations (the portrait turn must not overflow).
  std::vector<uint16_t> depth(32 * 24);
  for (int32_t y = 0; y < 24; ++y)
    for (int32_t x = 0; x < 32; ++x)
      depth[y * 32 + x] = static_cast<uint16_t>((y < 12 ? 100 : 400) + (x < 16 ? 0 : 100));
  std::vector<uint8_t> map(32 * 24);
  uint16_t lo, hi, target;
  const struct {
    int32_t x, y;
    uint16_t corner;
  } cases[] = {{INT32_MIN, INT32_MIN, 100},
               {INT32_MAX, INT32_MIN, 200},
               {INT32_MIN, INT32_MAX, 400},
               {INT32_MAX, INT32_MAX, 500}};
  for (int32_t portrait : {0, 1}) {
    ASSERT_EQ(RGL_OK, init(64, 48, 32, 24, 32, 24, portrait));
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
    for (const auto& c : cases) {
      // Portrait frames receive the point turned as (y, H - x): H - x beyond either end of the
      // int range is what INT32_MIN / INT32_MAX stand for here.
      const int32_t fx = portrait ? c.y : c.x;
      const int32_t fy = portrait ? (c.x == INT32_MIN ? INT32_MAX : INT32_MIN) : c.y;
      ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), fx, fy, &lo, &hi, &target));
      EXPECT_EQ(c.corner, target) << "portrait " << portrait;
    }
    vmKtrRT_GLClose();
  }
}

TEST_F(Generator, ChipDepthMeansWhatStereoDepthMeansAtAnySampleRange) {
  // Without a calibration block both variants take 16 samples per pixel; a map whose samples all
  // stay under 256 (little disparity, or a chip sending 8-bit samples) is read as it is.
  ASSERT_EQ(RGL_OK, init(640, 480, 80, 60, 80, 60));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  for (const int32_t top : {250, 1000}) {
    std::vector<uint16_t> depth(80 * 60);
    for (int32_t i = 0; i < 80 * 60; ++i) depth[i] = static_cast<uint16_t>((i * 7) % top);
    std::vector<uint8_t> chip(80 * 60), stereo(80 * 60);
    uint16_t lo, hi, tc, ts;
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_VX4810_DispartyBase(chip.data(), depth.data(), 40, 30, &lo, &hi, &tc));
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(stereo.data(), depth.data(), 40, 30, &lo, &hi, &ts));
    EXPECT_EQ(ts, tc) << top;
    EXPECT_EQ(stereo, chip) << top;
  }
}

TEST_F(Generator, ResamplesDepthToTheMapSize) {
  ASSERT_EQ(RGL_OK, init(640, 480, 160, 120, 320, 240));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(160 * 120, 100);
  for (int32_t y = 0; y < 120; ++y)
    for (int32_t x = 80; x < 160; ++x) depth[y * 160 + x] = 900;
  std::vector<uint8_t> map(320 * 240);
  uint16_t lo, hi, target;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 20, 60, &lo, &hi, &target));
  EXPECT_EQ(0, map[100 * 320 + 159]);
  EXPECT_EQ(255, map[100 * 320 + 160]);
}

}  // namespace

namespace {

// The generator runs on the refocus worker while frames render on the caller's thread; they
// share only the foreground records (under their lock). Run under ThreadSanitizer.
struct WorkerArgs {
  std::vector<uint16_t>* depth;
  uint8_t* maps[2];
};

void* generate_maps(void* p) {
  auto* a = static_cast<WorkerArgs*>(p);
  vmKtrRT_GenRefocusMap_init();
  uint16_t lo, hi, target;
  for (int32_t i = 0; i < 40; ++i) vmKtrRT_GenRefocusMap(a->maps[i & 1], a->depth->data(), 20, 15, &lo, &hi, &target);
  vmKtrRT_GenRefocusMap_Deinit();
  return nullptr;
}

TEST_F(Generator, MapsMadeOnAWorkerWhileFramesRender) {
  ASSERT_EQ(RGL_OK, init(160, 120, 40, 30, 40, 30));
  std::vector<uint16_t> depth(40 * 30);
  for (int32_t i = 0; i < 40 * 30; ++i) depth[i] = static_cast<uint16_t>(i % 40 < 10 ? 900 : (i % 40 < 25 ? 500 : 100));
  std::vector<uint8_t> a(40 * 30), b(40 * 30);
  WorkerArgs args{&depth, {a.data(), b.data()}};
  pthread_t worker;
  ASSERT_EQ(0, pthread_create(&worker, nullptr, generate_maps, &args));
  Frame f = make_textured(160, 120, 5);
  for (int32_t i = 0; i < 40; ++i) {
    // Frames render from the map the worker is not writing in the real system; here the
    // renderer only reads the records and a stable copy of a map.
    std::vector<uint8_t> copy(40 * 30, static_cast<uint8_t>(i * 6));
    EXPECT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), copy.data(), 0, 0, 2.0f, 0, 0, 0, 160, 120));
  }
  pthread_join(worker, nullptr);
}

}  // namespace
