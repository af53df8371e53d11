// Every pass on small known images against its CPU reference, the one-call forms, the CPU
// conversion back to NV21, and the passes' refusals.
#include <gtest/gtest.h>

#include <cstdio>

#include "gl/gl_reference.h"
#include "gl_test_support.h"

namespace {

// Largest difference allowed per channel between a pass and its CPU reference. The software
// rasteriser filters with 8-bit weights and rounds its colour buffer; 2 leaves room for both.
constexpr int kTolerance = 2;

using GlPasses = GlFixture;

void expectWithin(const std::vector<uint8_t>& gpu, const std::vector<uint8_t>& cpu, int channels, const char* what) {
  ASSERT_EQ(gpu.size(), cpu.size());
  std::vector<int> d = maxDiffPerChannel(gpu, cpu, channels);
  printf("[ max diff ] %s: %s\n", what, describe(d).c_str());
  for (int v : d) EXPECT_LE(v, kTolerance) << what << ": " << describe(d);
}

TEST_F(GlPasses, NV21toRGBMatchesTheReference) {
  // 34 x 18: not a multiple of four (unpack alignment) and not a power of two.
  const int w = 34, h = 18;
  std::vector<uint8_t> nv21 = randomBytes(w * h * 3 / 2, 1), gpu(w * h * 4), cpu(w * h * 4);
  ASSERT_EQ(gl_pipeline_nv21_to_rgba(nv21.data(), w, h, gpu.data()), kGlOk);
  ASSERT_EQ(gl_reference_nv21_to_rgba(nv21.data(), w, h, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 4, "NV21toRGB");
}

TEST_F(GlPasses, NV21toRGBTakesVFirstAndGivesEachBlockItsOwnPair) {
  // Left 2 x 2 block: V 255, U 128 (red leaning); right block: V 128, U 255 (blue leaning).
  std::vector<uint8_t> nv21 = {128, 128, 128, 128, 128, 128, 128, 128, 255, 128, 128, 255};
  std::vector<uint8_t> rgba(4 * 2 * 4);
  ASSERT_EQ(gl_pipeline_nv21_to_rgba(nv21.data(), 4, 2, rgba.data()), kGlOk);
  for (int y = 0; y < 2; ++y) {
    const uint8_t* left = &rgba[(y * 4 + 1) * 4];
    const uint8_t* right = &rgba[(y * 4 + 2) * 4];
    EXPECT_GE(left[0], 250);  // 128/255 + 1.402 x 0.5 saturates red
    EXPECT_LE(left[2], 131);
    EXPECT_GE(right[2], 250);
    EXPECT_LE(right[0], 131);
    EXPECT_EQ(left[3], 255);
  }
}

TEST_F(GlPasses, GaussianPassesMatchTheirReferences) {
  const int w = 37, h = 23;
  std::vector<uint8_t> in = randomBytes(w * h * 4, 2), gpu(w * h * 4), cpu(w * h * 4), tmp(w * h * 4);
  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurX, gpu.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_x(in.data(), w, h, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 4, "shader_GaussX");
  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurY, gpu.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_y(in.data(), w, h, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 4, "shader_GaussY");
  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurMask, gpu.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_mask(in.data(), w, h, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 4, "shader_GaussMask");
  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurXY, gpu.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_x(in.data(), w, h, tmp.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_y(tmp.data(), w, h, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 4, "shader_GaussX then shader_GaussY");
}

// The weights themselves, worked by hand: a white dot on black. Half-texel taps share the dot
// between neighbours: centre w0 + w1, one away w2 + (w1 + w3) / 2, two away w4 + w3 / 2.
TEST_F(GlPasses, GaussianImpulseResponsesMatchTheWeightsWorkedByHand) {
  const int w = 9, h = 7;
  std::vector<uint8_t> in(w * h * 4, 0), out(w * h * 4);
  for (int i = 0; i < w * h; ++i) in[i * 4 + 3] = 255;
  const int cx = 4, cy = 3;
  for (int c = 0; c < 3; ++c) in[(cy * w + cx) * 4 + c] = 255;

  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurX, out.data()), kGlOk);
  const int row[9] = {0, 0, 4, 57, 134, 57, 4, 0, 0};
  for (int x = 0; x < w; ++x) EXPECT_NEAR(out[(cy * w + x) * 4], row[x], 1) << x;
  EXPECT_EQ(out[(cy * w + cx) * 4 + 3], 255);  // alpha: 0.99945 of 255
  EXPECT_EQ(out[((cy - 1) * w + cx) * 4], 0);

  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurY, out.data()), kGlOk);
  for (int y = 1; y < 6; ++y) EXPECT_NEAR(out[(y * w + cx) * 4 + 1], row[y + 1], 1) << y;

  ASSERT_EQ(gl_pipeline_blur_rgba(in.data(), w, h, kGlBlurMask, out.data()), kGlOk);
  EXPECT_NEAR(out[(cy * w + cx) * 4], 104, 1);          // 0.408076
  EXPECT_NEAR(out[(cy * w + cx + 1) * 4], 31, 1);       // 0.1209855
  EXPECT_NEAR(out[((cy + 1) * w + cx + 1) * 4], 7, 1);  // 0.0269955
  EXPECT_EQ(out[((cy + 2) * w + cx) * 4], 0);
}

TEST_F(GlPasses, BypassScalesPlanesLikeTheBilinearReference) {
  struct Case {
    int sw, sh, sstride, dw, dh, dstride;
  } cases[] = {
      {64, 48, 64, 20, 14, 20},             // down
      {7, 5, 9, 30, 17, 33},                // up, padded rows on both sides
      {13, 11, 13, 13, 11, 13},             // same size: exact copy
      {1920, 1080, 1920, 1280, 720, 1280},  // read back in several bands
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> src = randomBytes(static_cast<size_t>(c.sstride) * c.sh, c.sw);
    std::vector<uint8_t> gpu(static_cast<size_t>(c.dstride) * c.dh, 0xEE), cpu(gpu.size(), 0xEE);
    ASSERT_EQ(gl_pipeline_scale_plane(src.data(), c.sw, c.sh, c.sstride, gpu.data(), c.dw, c.dh, c.dstride), kGlOk);
    ASSERT_EQ(gl_reference_scale_plane(src.data(), c.sw, c.sh, c.sstride, cpu.data(), c.dw, c.dh, c.dstride), kGlOk);
    char what[64];
    snprintf(what, sizeof what, "shader_ScalerBypass %dx%d to %dx%d", c.sw, c.sh, c.dw, c.dh);
    expectWithin(gpu, cpu, 1, what);
    for (int y = 0; y < c.dh; ++y)
      for (int x = c.dw; x < c.dstride; ++x) ASSERT_EQ(gpu[static_cast<size_t>(y) * c.dstride + x], 0xEE);
    if (c.sw == c.dw && c.sh == c.dh) {
      for (int y = 0; y < c.dh; ++y)
        for (int x = 0; x < c.dw; ++x) ASSERT_EQ(gpu[y * c.dstride + x], src[y * c.sstride + x]);
    }
  }
}

TEST_F(GlPasses, RgbToNV21InvertsTheShaderMatrix) {
  // Colours constant over each 2 x 2 block, inside the gamut: NV21 and back loses nothing
  // beyond rounding.
  const int w = 16, h = 8;
  std::vector<uint8_t> rgb(w * h * 3);
  std::vector<uint8_t> colours = randomBytes((w / 2) * (h / 2) * 3, 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c) rgb[(y * w + x) * 3 + c] = colours[((y / 2) * (w / 2) + x / 2) * 3 + c];
  std::vector<uint8_t> nv21(w * h * 3 / 2), rgba(w * h * 4);
  ASSERT_EQ(gl_pipeline_rgba_to_nv21(rgb.data(), w, h, 3, nv21.data()), kGlOk);
  ASSERT_EQ(gl_pipeline_nv21_to_rgba(nv21.data(), w, h, rgba.data()), kGlOk);
  std::vector<uint8_t> back(w * h * 3);
  for (int i = 0; i < w * h; ++i)
    for (int c = 0; c < 3; ++c) back[i * 3 + c] = rgba[i * 4 + c];
  expectWithin(back, rgb, 3, "RGB to NV21 (CPU) and back (GPU)");
}

TEST_F(GlPasses, BlurOfAnNV21FrameMatchesTheCpuChain) {
  const int w = 40, h = 30;
  std::vector<uint8_t> nv21 = randomBytes(w * h * 3 / 2, 4), gpu(nv21.size());
  ASSERT_EQ(gl_pipeline_blur_nv21(nv21.data(), w, h, kGlBlurXY, gpu.data()), kGlOk);
  std::vector<uint8_t> rgba(w * h * 4), tmp(w * h * 4), blurred(w * h * 4), cpu(nv21.size());
  ASSERT_EQ(gl_reference_nv21_to_rgba(nv21.data(), w, h, rgba.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_x(rgba.data(), w, h, tmp.data()), kGlOk);
  ASSERT_EQ(gl_reference_gauss_y(tmp.data(), w, h, blurred.data()), kGlOk);
  ASSERT_EQ(gl_pipeline_rgba_to_nv21(blurred.data(), w, h, 4, cpu.data()), kGlOk);
  expectWithin(gpu, cpu, 1, "NV21 blur, GPU against CPU chain");
}

TEST_F(GlPasses, RefusalsLeaveTheCallerWithACode) {
  std::vector<uint8_t> buf(64 * 64 * 4, 1);
  // Target never prepared, source never uploaded, source is the target.
  EXPECT_EQ(shader_GaussX(kGlPoolInput, 5, 5), kGlErrIndex);
  ASSERT_EQ(gl_pipeline_upload(5, buf.data(), 8, 8, 32, GL_RGBA), kGlOk);
  EXPECT_EQ(shader_GaussX(kGlPoolInput, 5, 5), kGlErrIndex);
  ASSERT_EQ(gl_pipeline_prepare_target(5, 8, 8), kGlOk);
  EXPECT_EQ(shader_GaussX(kGlPoolTarget, 5, 5), kGlErrArgument);
  EXPECT_EQ(shader_GaussX(static_cast<GlPool>(7), 5, 5), kGlErrIndex);
  EXPECT_EQ(shader_GaussX(kGlPoolInput, 5, 10), kGlErrIndex);
  EXPECT_EQ(shader_GaussX(kGlPoolInput, 5, 5), kGlOk);
  // Sizes: zero, negative, beyond the limit, odd NV21, short stride, short read-back buffer.
  EXPECT_EQ(gl_pipeline_prepare_target(5, 0, 8), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_prepare_target(5, gl_pipeline_max_size() + 1, 8), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_upload(5, buf.data(), -3, 8, 32, GL_RGBA), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_upload(5, buf.data(), 8, 8, 31, GL_RGBA), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_upload(5, buf.data(), 8, 8, 32, GL_FLOAT), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_upload(5, nullptr, 8, 8, 32, GL_RGBA), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_nv21_to_rgba(buf.data(), 7, 8, buf.data() + 1000), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_read_rgba(5, buf.data(), 8 * 8 * 4 - 1), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_blur_rgba(buf.data(), 8, 8, static_cast<GlBlur>(9), buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_rgba_to_nv21(buf.data(), 8, 8, 2, buf.data()), kGlErrArgument);
  EXPECT_EQ(gl_pipeline_scale_plane(buf.data(), 8, 8, 8, buf.data(), 4, 4, 3), kGlErrArgument);
  // Chroma that is not half the luma cannot pair with it.
  ASSERT_EQ(gl_pipeline_upload(6, buf.data(), 3, 4, 6, GL_LUMINANCE_ALPHA), kGlOk);
  EXPECT_EQ(NV21toRGB(5, 6, 4), kGlErrArgument);
  EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
  // After all that the pipeline still works.
  std::vector<uint8_t> out(8 * 8 * 4);
  EXPECT_EQ(gl_pipeline_blur_rgba(buf.data(), 8, 8, kGlBlurMask, out.data()), kGlOk);
  EXPECT_EQ(out[0], 1);
}

}  // namespace
