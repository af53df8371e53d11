// Set-up, validation and close of the reference renderer.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "calib_block.h"
#include "renderer_test_util.h"

namespace {

using RendererSetup = RendererFixture;

TEST_F(RendererSetup, VersionNeedsRoomForTheWholeText) {
  char text[64];
  memset(text, 'x', sizeof(text));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtr_GLVersionInfo_Get(text, 4));
  EXPECT_EQ('x', text[0]);
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtr_GLVersionInfo_Get(nullptr, 64));
  ASSERT_EQ(RGL_OK, vmKtr_GLVersionInfo_Get(text, sizeof(text)));
  EXPECT_GT(strlen(text), 0u);
  EXPECT_LT(strlen(text), sizeof(text));
}

TEST_F(RendererSetup, CameraLayoutOneToFourOnly) {
  for (int32_t l = 1; l <= 4; ++l) EXPECT_EQ(RGL_OK, vmKtrRT_CameraLayout_Set(l));
  for (int32_t l : {0, 5, -1, 0x13}) EXPECT_EQ(RGL_ERR_LAYOUT, vmKtrRT_CameraLayout_Set(l)) << l;
}

TEST_F(RendererSetup, RefusesBadSizes) {
  EXPECT_EQ(RGL_OK, init(1920, 1080, 320, 240, 320, 240));
  const int32_t bad[][6] = {{1921, 1080, 320, 240, 320, 240}, {1920, 1081, 320, 240, 320, 240},
                            {0, 1080, 320, 240, 320, 240},    {8194, 1080, 320, 240, 320, 240},
                            {1920, 1080, 0, 240, 320, 240},   {1920, 1080, 320, -1, 320, 240},
                            {1920, 1080, 320, 240, 3, 240},   {1920, 1080, 320, 240, 320, 5000}};
  for (const auto& b : bad) {
    EXPECT_EQ(RGL_ERR_SIZE, init(b[0], b[1], b[2], b[3], b[4], b[5])) << b[0] << "x" << b[1];
  }
  EXPECT_EQ(RGL_ERR_SIZE, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, 64, 64, 32, 32, 32, 32, -5, 10, 0, 0, 0, 0));
}

TEST_F(RendererSetup, ImageFormatCodes) {
  for (int32_t code : {0, 2, 3, 7}) EXPECT_EQ(RGL_OK, init(64, 48, 32, 24, 32, 24, 0, code)) << code;
  for (int32_t code : {1, 4, 5, 6, 8, -1}) EXPECT_EQ(RGL_ERR_FORMAT, init(64, 48, 32, 24, 32, 24, 0, code)) << code;
}

TEST_F(RendererSetup, CalibrationPairsMustBeConsistent) {
  const uint8_t block[4] = {1, 2, 3, 4};
  EXPECT_EQ(RGL_ERR_CALIBRATION, vmKtrRT_GLInitV1(block, 0, nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_CALIBRATION, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 16, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  EXPECT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
}

TEST_F(RendererSetup, AcceptsTheCalibrationBlockAndRefusesBrokenOnes) {
  CalibBlock c;
  calib_block_defaults(&c, 1920, 1080, 1920, 1080, 0.0f, 64.0f);
  uint8_t block[CALIB_BLOCK_SIZE + 16] = {};
  ASSERT_EQ(CALIB_OK, calib_block_write(&c, block, sizeof(block)));
  EXPECT_EQ(RGL_OK, vmKtrRT_GLInitV1(block, sizeof(block), nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  EXPECT_EQ(RGL_OK,
            vmKtrRT_GLInitV1_1(nullptr, 0, block, CALIB_BLOCK_SIZE, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0, 0x55));
  EXPECT_EQ(CALIB_ERR_TRUNCATED,
            vmKtrRT_GLInitV1(block, CALIB_BLOCK_SIZE - 1, nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  block[40] ^= 0x10;
  EXPECT_EQ(CALIB_ERR_CHECKSUM,
            vmKtrRT_GLInitV1(nullptr, 0, block, CALIB_BLOCK_SIZE, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  const uint8_t otherMaker[256] = {1, 2, 3};
  EXPECT_EQ(CALIB_ERR_MAGIC,
            vmKtrRT_GLInitV1(otherMaker, sizeof(otherMaker), nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
}

TEST_F(RendererSetup, UnusableHomographiesAreRefusedWithTheBlocksCode) {
  // Sealed and regular, but a corner maps out of any usable range: the reader's own code, in
  // either pair; the block as the generator writes it is accepted.
  CalibBlock c;
  calib_block_defaults(&c, 1920, 1080, 1280, 720, 0.0f, 64.0f);
  uint8_t block[CALIB_BLOCK_SIZE];
  ASSERT_EQ(CALIB_OK, calib_block_write(&c, block, sizeof(block)));
  EXPECT_EQ(RGL_OK, vmKtrRT_GLInitV1(block, sizeof(block), nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  vmKtrRT_GLClose();
  const float huge = 3e36f;
  memcpy(block + 32, &huge, 4);  // main homography h[0]
  memcpy(block + 48, &huge, 4);  // main homography h[4]
  memset(block + 12, 0, 4);
  const uint32_t crc = calib_block_crc32(block, CALIB_BLOCK_SIZE);
  memcpy(block + 12, &crc, 4);  // little-endian host
  EXPECT_EQ(CALIB_ERR_GEOMETRY,
            vmKtrRT_GLInitV1(block, sizeof(block), nullptr, 0, 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0));
  EXPECT_EQ(CALIB_ERR_GEOMETRY,
            vmKtrRT_GLInitV1_1(nullptr, 0, block, sizeof(block), 64, 48, 32, 24, 32, 24, 64, 48, 0, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_STATE, vmKtrRT_GenRefocusMap_init());  // a refused set-up leaves nothing set up
}

TEST_F(RendererSetup, DisparityScaleComesFromTheBlock) {
  // The same disparity difference in pixels gives the same map whatever S the depth is stored in.
  uint8_t maps[2][40 * 30];
  const int32_t scales[2] = {16, 8};
  for (int32_t k = 0; k < 2; ++k) {
    CalibBlock c;
    calib_block_defaults(&c, 640, 480, 640, 480, 0.0f, 64.0f);
    c.disparityScale = static_cast<uint16_t>(scales[k]);
    uint8_t block[CALIB_BLOCK_SIZE];
    ASSERT_EQ(CALIB_OK, calib_block_write(&c, block, sizeof(block)));
    ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(block, sizeof(block), nullptr, 0, 64, 48, 40, 30, 40, 30, 64, 48, 0, 0, 0, 0));
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
    std::vector<uint16_t> depth(40 * 30);
    for (int32_t i = 0; i < 40 * 30; ++i) depth[i] = static_cast<uint16_t>(scales[k] * (1 + (i % 40) / 8));
    uint16_t lo, hi, target;
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(maps[k], depth.data(), 0, 0, &lo, &hi, &target));
  }
  EXPECT_EQ(0, memcmp(maps[0], maps[1], sizeof(maps[0])));
  EXPECT_GT(maps[0][39], 0);
}

TEST_F(RendererSetup, CallsOutOfOrderAreRefused) {
  Frame f = make_frame(64, 48, 100, 128);
  std::vector<uint8_t> map(32 * 24, 255);
  EXPECT_EQ(RGL_ERR_STATE, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 2.0f, 0, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_STATE, vmKtrRT_GenRefocusMap_init());
  EXPECT_EQ(RGL_OK, vmKtrRT_GLClose());
  EXPECT_EQ(RGL_OK, vmKtrRT_GLClose());  // closing twice is harmless
  ASSERT_EQ(RGL_OK, init(64, 48, 32, 24, 32, 24));
  std::vector<uint16_t> depth(32 * 24, 100);
  uint16_t lo, hi, target;
  EXPECT_EQ(RGL_ERR_STATE, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 1, 1, &lo, &hi, &target));
  EXPECT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  EXPECT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 1, 1, &lo, &hi, &target));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 1, 1, nullptr, &hi, &target));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GLStartV1(nullptr, f.chroma(), map.data(), 0, 0, 2.0f, 0, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 2.0f, 2, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 0.0f, 0, 0, 0, 0, 0));
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, NAN, 0, 0, 0, 0, 0));
  EXPECT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_Deinit());
}

TEST_F(RendererSetup, ParameterTwoSwitchesTheEffect) {
  ASSERT_EQ(RGL_OK, init(64, 48, 32, 24, 32, 24));
  KtrRTParameter p{};
  p.word[4] = 0;
  EXPECT_EQ(RGL_OK, vmKtrRT_SetParameter(2, p));
  Frame f = make_textured(64, 48, 3);
  const std::vector<uint8_t> before = f.data;
  std::vector<uint8_t> map(32 * 24, 255);
  EXPECT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, 0, 0));
  EXPECT_EQ(before, f.data);
  p.word[4] = 1;
  EXPECT_EQ(RGL_OK, vmKtrRT_SetParameter(2, p));
  EXPECT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, 0, 0));
  EXPECT_NE(before, f.data);
  p.word[4] = 7;
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_SetParameter(2, p));
  p.word[4] = 1;
  EXPECT_EQ(RGL_ERR_ARGUMENT, vmKtrRT_SetParameter(3, p));
}

// The generator's map and the renderer's radius together are one lens: 1.68 / f frame pixels of
// blur per frame pixel of disparity past the half-pixel band, whatever the map's saturation
// point, and followed up to a disparity difference of a twentieth of the depth width.
TEST_F(RendererSetup, MapAndRadiusFollowOneLensUpToATwentiethOfTheDepthWidth) {
  constexpr int32_t W = 1920, H = 1080, Wd = 320, Hd = 240;
  ASSERT_EQ(RGL_OK, init(W, H, Wd, Hd, Wd, Hd));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  // Focus on a strip at the left (disparity 40 px); column 8 + k lies k / 16 px farther.
  std::vector<uint16_t> depth(static_cast<size_t>(Wd) * Hd);
  for (int32_t y = 0; y < Hd; ++y)
    for (int32_t x = 0; x < Wd; ++x)
      depth[static_cast<size_t>(y) * Wd + x] = static_cast<uint16_t>(640 - std::max(0, x - 8));
  std::vector<uint8_t> map(depth.size());
  uint16_t lo, hi, target;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 0, Hd / 2, &lo, &hi, &target));
  ASSERT_EQ(640, target);
  for (float f : {1.4f, 2.0f, 4.0f}) {
    const float rmax = render_max_radius(W, f), step = rmax / 255.0f;
    for (int32_t x = 24; x < Wd; x += 16) {
      const float disparity = (x - 8) / 16.0f;  // depth pixels from the focus plane
      const float lens = 1.68f / f * (disparity - 0.5f) * W / Wd;
      const float radius = map[static_cast<size_t>(Hd / 2) * Wd + x] / 255.0f * rmax;
      if (disparity + 0.5f < Wd / 20.0f)
        EXPECT_NEAR(lens, radius, step) << "f/" << f << " disparity " << disparity;
      else
        EXPECT_NEAR(std::min(lens, rmax), radius, step) << "f/" << f << " disparity " << disparity;
    }
  }
  EXPECT_NEAR(render_max_radius(W, kMaxFNumber), render_max_radius(W, 1000.0f), 1e-6f);
  EXPECT_NEAR(render_max_radius(W, kMinFNumber), render_max_radius(W, 0.5f), 1e-6f);
}

}  // namespace
