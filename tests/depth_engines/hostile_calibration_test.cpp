// hostile_calibration_test.cpp - calibration blocks that pass the checksum but carry homographies
// no engine can use: refused by the engine with their own code, and the rectifying warp stays
// inside its planes whatever homography it is handed. The generator's blocks stay accepted.
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "stereo_rectify.h"
#include "synth_scene.h"

namespace {

std::vector<uint8_t> generator_block(int32_t mw, int32_t mh, int32_t sw, int32_t sh, uint32_t seed = 1) {
  SceneSpec s;
  scene_default(&s, seed);
  std::vector<uint8_t> block(CALIB_BLOCK_SIZE);
  EXPECT_EQ(0, scene_calibration(&s, mw, mh, sw, sh, block.data(), CALIB_BLOCK_SIZE));
  return block;
}

// Writes a homography into a generator block and seals it again, as a foreign tool would.
std::vector<uint8_t> with_homography(std::vector<uint8_t> block, size_t offset, const float h[9]) {
  memcpy(block.data() + offset, h, 9 * sizeof(float));
  memset(block.data() + 12, 0, 4);
  const uint32_t crc = calib_block_crc32(block.data(), CALIB_BLOCK_SIZE);
  for (int i = 0; i < 4; ++i) block[size_t(12 + i)] = uint8_t(crc >> (8 * i));
  return block;
}

const size_t kMainH = 32, kSubH = 68;  // homography offsets in the block

TEST(HostileCalibration, GeneratorBlocksAreAccepted) {
  const int32_t sizes[][4] = {{1920, 1080, 1280, 720}, {320, 240, 320, 240}, {1, 1, 1, 1}, {16384, 16384, 8, 6}};
  for (const auto& z : sizes) {
    for (uint32_t seed : {1u, 7u}) {
      std::vector<uint8_t> block = generator_block(z[0], z[1], z[2], z[3], seed);
      CalibBlock b;
      EXPECT_EQ(CALIB_OK, calib_block_read(block.data(), block.size(), &b)) << z[0] << "x" << z[1];
    }
  }
}

TEST(HostileCalibration, EngineRefusesUnusableHomographiesWithTheirOwnCode) {
  const int32_t w = 32, h = 24;
  const std::vector<uint8_t> good = generator_block(320, 240, 320, 240);
  const float scale3e36[9] = {3e36f, 0, 0, 0, 3e36f, 0, 3e36f, 0, 1};
  const float cancelling[9] = {3e36f, -3e36f, 0, 3e36f, 3e36f, 0, 0, 0, 1};
  const float infinityAtRight[9] = {1, 0, 0, 0, 1, 0, -1.0f / 319.5f, 0, 1};
  const float negativeW[9] = {1, 0, 0, 0, 1, 0, 0, -0.01f, 1};
  const struct {
    const char* what;
    size_t offset;
    const float* h;
  } cases[] = {{"3e36 main", kMainH, scale3e36},
               {"3e36 sub", kSubH, cancelling},
               {"corner at infinity", kMainH, infinityAtRight},
               {"negative w", kSubH, negativeW}};
  std::vector<uint8_t> planes(size_t(3) * w * h, 90);
  DpxImage m{DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {planes.data(), planes.data(), planes.data()}};
  std::vector<uint16_t> out(size_t(w) * h);
  for (const auto& c : cases) {
    std::vector<uint8_t> block = with_homography(good, c.offset, c.h);
    EXPECT_EQ(CALIB_ERR_GEOMETRY, vmDpx2_Express_Init(block.data(), CALIB_BLOCK_SIZE, w, h, nullptr, 0)) << c.what;
    EXPECT_EQ(CALIB_ERR_GEOMETRY, vmDpx2_Express_Init(nullptr, 0, w, h, block.data(), CALIB_BLOCK_SIZE)) << c.what;
    EXPECT_EQ(3, vmDpx2_Run_Express(out.data(), &m, &m, 0, 0)) << c.what;  // no engine left to run
  }
  // The untouched block still sets the engine up and runs.
  ASSERT_EQ(0, vmDpx2_Express_Init(good.data(), CALIB_BLOCK_SIZE, w, h, nullptr, 0));
  EXPECT_EQ(0, vmDpx2_Run_Express(out.data(), &m, &m, 0, 0));
  EXPECT_EQ(0, vmDpx2_Express_Close());
}

// A plane whose top-left pixel is 11, the rest of its border 7 and its inside 200: whatever the
// homography, a point outside the plane reads its border, one sent to infinity its top-left.
TEST(HostileCalibration, WarpReadsHostileHomographiesAsOutside) {
  const int32_t w = 24, h = 16;
  std::vector<uint8_t> src(size_t(w) * h, 200);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x)
      if (x == 0 || y == 0 || x == w - 1 || y == h - 1) src[size_t(y) * w + size_t(x)] = 7;
  src[0] = 11;
  const float nan = NAN;
  const float hostile[][9] = {
      {3e36f, -3e36f, 0, 3e36f, 3e36f, 0, 0, 0, 1},  // inf - inf: NaN
      {INFINITY, 0, 0, 0, INFINITY, 0, 0, 0, 1},     // inf x 0: NaN, else infinite
      {nan, nan, nan, nan, nan, nan, nan, nan, nan},
      {1, 0, 1e30f, 0, 1, -1e30f, 0, 0, 1},  // finite, far beyond int range
      {1, 0, 0, 0, 1, 0, 0, 0, 0},           // w = 0 everywhere
  };
  for (const auto& hm : hostile) {
    for (bool mirror : {false, true}) {
      std::vector<uint8_t> dst(size_t(w) * h, 0);
      stereo_warp_plane(src.data(), w, h, hm, mirror, dst.data());
      size_t inside = 0;
      for (uint8_t v : dst) inside += v != 7 && v != 11;
      EXPECT_EQ(0u, inside) << hm[0] << " mirror " << mirror;
    }
  }
  // The same warp does read the inside for a usable homography (a one-pixel shift).
  const float shift[9] = {1, 0, 1, 0, 1, 1, 0, 0, 1};
  std::vector<uint8_t> dst(size_t(w) * h, 0);
  stereo_warp_plane(src.data(), w, h, shift, false, dst.data());
  EXPECT_EQ(200, dst[0]);                        // (0, 0) reads (1, 1)
  EXPECT_EQ(7, dst[size_t(w) * size_t(h) - 1]);  // past the corner: the border
}

}  // namespace
