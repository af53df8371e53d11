// The CPU side without GL: the conversion back to NV21 on known colours, and the references'
// refusals of bad input.
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

TEST(GlCpuConversion, NV21ReferenceAndConversionRoundTripOnGrey) {
  std::vector<uint8_t> nv21(4 * 2 * 3 / 2, 128), rgba(4 * 2 * 4), back(nv21.size());
  for (int i = 0; i < 8; ++i) nv21[i] = static_cast<uint8_t>(i * 30);
  ASSERT_EQ(gl_reference_nv21_to_rgba(nv21.data(), 4, 2, rgba.data()), kGlOk);
  ASSERT_EQ(gl_pipeline_rgba_to_nv21(rgba.data(), 4, 2, 4, back.data()), kGlOk);
  for (size_t i = 0; i < nv21.size(); ++i) EXPECT_NEAR(back[i], nv21[i], 1) << i;
}

TEST(GlCpuReference, BadInputIsRefused) {
  std::vector<uint8_t> buf(64, 0);
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(buf.data(), 3, 2, 4, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(nullptr, 2, 2, 4, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(buf.data(), 0x40000000, 2, 4, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_reference_nv21_to_rgba(buf.data(), 2, 3, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_reference_gauss_x(buf.data(), 0, 2, buf.data() + 32), kGlErrArgument);
  EXPECT_EQ(gl_reference_gauss_y(buf.data(), 2, 2, buf.data()), kGlErrArgument);  // in place
  EXPECT_EQ(gl_reference_gauss_mask(buf.data(), 2, -1, buf.data() + 32), kGlErrArgument);
  EXPECT_EQ(gl_reference_scale_plane(buf.data(), 4, 4, 3, buf.data() + 32, 2, 2, 2), kGlErrArgument);
  EXPECT_EQ(gl_reference_scale_plane(buf.data(), 4, 4, 4, buf.data() + 32, 20000, 2, 20000), kGlErrArgument);
}

}  // namespace
