// The CPU side without GL: the conversion back to NV21 on known colours, and refusals.
#include "gl/gl_reference.h"

#include <gtest/gtest.h>

#include <vector>

#include "gl/gl_context.h"
#include "gl/gl_passes.h"

namespace {

TEST(GlCpuConversion, KnownColoursGiveBt601FullRangeValues) {
  // 2 x 2 of one colour per call: Y of every pixel, then one V, U pair.
  struct Case {
    uint8_t r, g, b, y, v, u;
  } cases[] = {
      {0, 0, 0, 0, 128, 128},   {255, 255, 255, 255, 128, 128}, {128, 128, 128, 128, 128, 128},
      {255, 0, 0, 76, 255, 85}, {0, 255, 0, 150, 21, 44},       {0, 0, 255, 29, 107, 255},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> rgb = {c.r, c.g, c.b, c.r, c.g, c.b, c.r, c.g, c.b, c.r, c.g, c.b};
    std::vector<uint8_t> nv21(6, 0xEE);
    ASSERT_EQ(gl_pipeline_rgba_to_nv21(rgb.data(), 2, 2, 3, nv21.data()), kGlOk);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(nv21[i], c.y, 1) << int(c.r) << "," << int(c.g) << "," << int(c.b);
    EXPECT_NEAR(nv21[4], c.v, 1) << int(c.r) << "," << int(c.g) << "," << int(c.b);
    EXPECT_NEAR(nv21[5], c.u, 1) << int(c.r) << "," << int(c.g) << "," << int(c.b);
  }
}

TEST(GlCpuConversion, ChromaIsTheMeanOfEachBlockAndAlphaIsSkipped) {
  // Two red and two blue pixels in RGBA with varying alpha: the pair is that of their mean.
  std::vector<uint8_t> rgba = {255, 0, 0, 1, 0, 0, 255, 2, 255, 0, 0, 3, 0, 0, 255, 4};
  std::vector<uint8_t> mean = {128, 0, 128, 128, 0, 128, 128, 0, 128, 128, 0, 128};
  std::vector<uint8_t> a(6), b(6);
  ASSERT_EQ(gl_pipeline_rgba_to_nv21(rgba.data(), 2, 2, 4, a.data()), kGlOk);
  ASSERT_EQ(gl_pipeline_rgba_to_nv21(mean.data(), 2, 2, 3, b.data()), kGlOk);
  EXPECT_NEAR(a[4], b[4], 1);
  EXPECT_NEAR(a[5], b[5], 1);
  EXPECT_EQ(a[0], 76);
  EXPECT_EQ(a[1], 29);
}

TEST(GlCpuReference, BadInputIsRefused) {
  std::vector<uint8_t> buf(64, 0);
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(buf.data(), 3, 2, 4, buf.data()), kGlErrArgument);  // odd
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(buf.data(), 0x40000000, 2, 4, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_reference_gauss_y(buf.data(), 2, 2, buf.data()), kGlErrArgument);  // in place
  EXPECT_EQ(gl_reference_scale_plane(buf.data(), 4, 4, 3, buf.data() + 32, 2, 2, 2), kGlErrArgument);
}

}  // namespace
