// synth_scene_test.cpp - the synthetic scenes are deterministic and their ground truth agrees with
// what the two cameras see.
#include "synth_scene.h"

#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "calib_block.h"

namespace {

const int32_t W = 240, H = 136;

std::vector<uint8_t> render(const SceneSpec& s, int32_t frame, int32_t cam, int32_t w = W, int32_t h = H) {
  std::vector<uint8_t> nv21(size_t(w) * size_t(h) * 3 / 2);
  EXPECT_EQ(0, scene_render_nv21(&s, frame, cam, w, h, 1, nv21.data()));
  return nv21;
}

float bilinear(const uint8_t* y, int32_t w, float fx, int32_t row) {
  int32_t x0 = int32_t(floorf(fx));
  float t = fx - float(x0);
  return (1 - t) * y[row * w + x0] + t * y[row * w + x0 + 1];
}

// The four-point texture path against the one-point reference, bit for bit: fractions of both
// signs, whole numbers, values next to them, -0 and magnitudes past 2^23 where every float is whole.
TEST(SynthScene, FourPointNoiseEqualsThePlainNoise) {
  std::vector<float> values = {0.0f,       -0.0f,       0.5f,         -0.5f,      1.0f,
                               -1.0f,      0.99999994f, -0.99999994f, 8388607.5f, -8388607.5f,
                               8388608.0f, -8388608.0f, 16777216.0f,  -2.0e9f,    2.0e9f};
  uint32_t r = 12345u;
  auto next = [&r]() { return r = r * 1664525u + 1013904223u; };
  for (int i = 0; i < 4000; ++i) {
    const float scale = i < 2000 ? 64.0f : 4.0e6f;
    values.push_back((static_cast<float>(next() >> 8) / 16777216.0f - 0.5f) * scale);
  }
  for (size_t i = 0; i + 4 <= values.size() * 3; i += 4) {
    float x[4], y[4], z[4], out[4];
    uint32_t seed[4];
    for (size_t k = 0; k < 4; ++k) {
      x[k] = values[(i + k) % values.size()];
      y[k] = values[(i + k + 7) % values.size()];
      z[k] = values[(i * 3 + k) % values.size()];
      seed[k] = next();
    }
    scene_value_noise4(x, y, z, seed, out);
    for (size_t k = 0; k < 4; ++k) {
      const float want = scene_value_noise(x[k], y[k], z[k], seed[k]);
      ASSERT_EQ(memcmp(&want, &out[k], sizeof want), 0) << "at (" << x[k] << ", " << y[k] << ", " << z[k] << ") seed "
                                                        << seed[k] << ": " << out[k] << " against " << want;
    }
  }
}

TEST(SynthScene, SameSeedSameBytesOtherSeedOtherScene) {
  SceneSpec a, b, c;
  scene_default(&a, 7);
  scene_default(&b, 7);
  scene_default(&c, 8);
  a.noiseSigma = b.noiseSigma = c.noiseSigma = 2.0f;
  EXPECT_EQ(render(a, 3, 1), render(b, 3, 1));
  EXPECT_NE(render(a, 3, 1), render(c, 3, 1));
  // Noise differs from frame to frame of a still scene; the noiseless picture does not.
  EXPECT_NE(render(a, 0, 0), render(a, 1, 0));
  a.noiseSigma = 0;
  EXPECT_EQ(render(a, 0, 0), render(a, 1, 0));
}

// Main pixel (x, y) and sub pixel (x - d, y) show the same surface point, so their luma agrees
// where the truth says d, and not at d + 1.5.
TEST(SynthScene, TruthDisparityMatchesTheTwoViews) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    SceneSpec s;
    scene_default(&s, seed);
    std::vector<uint8_t> m = render(s, 0, 0), sub = render(s, 0, 1);
    std::vector<float> d(size_t(W) * H);
    ASSERT_EQ(0, scene_truth_disparity(&s, 0, W, H, d.data()));
    double errTrue = 0, errOff = 0;
    int n = 0;
    for (int32_t y = 2; y < H - 2; ++y) {
      for (int32_t x = 40; x < W - 2; ++x) {
        float dd = d[size_t(y) * W + size_t(x)];
        // Skip depth edges and occlusions: the truth must be smooth around the pixel.
        if (fabsf(d[size_t(y) * W + size_t(x) - 3] - dd) > 0.3f || fabsf(d[size_t(y) * W + size_t(x) + 3] - dd) > 0.3f)
          continue;
        if (x - dd - 3 < 0) continue;
        errTrue += fabsf(m[size_t(y) * W + size_t(x)] - bilinear(sub.data(), W, float(x) - dd, y));
        errOff += fabsf(m[size_t(y) * W + size_t(x)] - bilinear(sub.data(), W, float(x) - dd - 1.5f, y));
        ++n;
      }
    }
    ASSERT_GT(n, W * H / 3);
    EXPECT_LT(errTrue / n, 4.0) << seed;
    EXPECT_GT(errOff / n, 2.0 * errTrue / n) << seed;
  }
}

TEST(SynthScene, DisparityScalesWithWidthAndRangeFitsTheCalibration) {
  SceneSpec s;
  scene_default(&s, 4);
  std::vector<float> small(size_t(80) * 60), big(size_t(320) * 60);
  ASSERT_EQ(0, scene_truth_disparity(&s, 0, 80, 60, small.data()));
  ASSERT_EQ(0, scene_truth_disparity(&s, 0, 320, 60, big.data()));
  // Same pixel centre: x_small = (x_big + 0.5) / 4 - 0.5 at x_big = 4k + 1.5; compare a flat spot.
  EXPECT_NEAR(4.0f * small[30 * 80 + 40], big[30 * 320 + 161], 0.05f * big[30 * 320 + 161] + 0.2f);
  uint8_t block[CALIB_BLOCK_SIZE];
  ASSERT_EQ(0, scene_calibration(&s, 1920, 1080, 1280, 720, block, sizeof(block)));
  CalibBlock cb;
  ASSERT_EQ(CALIB_OK, calib_block_read(block, sizeof(block), &cb));
  std::vector<float> full(size_t(192) * 108);
  ASSERT_EQ(0, scene_truth_disparity(&s, 0, 192, 108, full.data()));
  for (float v : full) {
    EXPECT_LE(v * 10.0f, cb.maxDisparity);
    EXPECT_GE(v * 10.0f, cb.minDisparity);
  }
}

TEST(SynthScene, MotionMovesTheViewAndBadArgumentsAreRefused) {
  SceneSpec s;
  scene_default(&s, 5);
  for (int32_t motion : {SCENE_PAN, SCENE_DOLLY, SCENE_OBJECT}) {
    s.motion = motion;
    s.motionAmount = motion == SCENE_PAN ? 1.0f : 40.0f;
    EXPECT_NE(render(s, 0, 0, 64, 36), render(s, 2, 0, 64, 36)) << motion;
  }
  s.motion = SCENE_FOCUS;
  EXPECT_EQ(render(s, 0, 0, 64, 36), render(s, 2, 0, 64, 36));
  EXPECT_NE(scene_focus_distance(&s, 0), scene_focus_distance(&s, 4));
  uint8_t buf[64 * 36 * 3];
  EXPECT_NE(0, scene_render_nv21(&s, 0, 0, 63, 36, 1, buf));
  EXPECT_NE(0, scene_render_nv21(&s, 0, 2, 64, 36, 1, buf));
  EXPECT_NE(0, scene_render_rgb(&s, 0, 0, 0, 36, 1, buf));
  EXPECT_NE(0, scene_render_dof_rgb(&s, 0, 64, 36, 1000.0f, 0.0f, 2, buf));
}

// The oracle with one lens sample is the pinhole view; a wide aperture blurs the background
// (the wall loses contrast) while the in-focus figure keeps its detail.
TEST(SynthScene, DepthOfFieldOracleBlursOutOfFocusOnly) {
  SceneSpec s;
  scene_default(&s, 1);
  const int32_t w = 96, h = 54;
  std::vector<uint8_t> pin(size_t(w) * h * 3), one(size_t(w) * h * 3), wide(size_t(w) * h * 3);
  ASSERT_EQ(0, scene_render_rgb(&s, 0, 0, w, h, 1, pin.data()));
  float focus = scene_focus_distance(&s, 0);
  ASSERT_EQ(0, scene_render_dof_rgb(&s, 0, w, h, focus, 2.0f, 1, one.data()));
  int maxDiff = 0;  // the same rays up to rounding through the focal plane
  for (size_t i = 0; i < pin.size(); ++i) maxDiff = std::max(maxDiff, abs(int(pin[i]) - int(one[i])));
  EXPECT_LE(maxDiff, 1);
  // An aperture wide enough (about 7 px of blur on the wall) to make the drop unmistakable.
  ASSERT_EQ(0, scene_render_dof_rgb(&s, 0, w, h, focus, 0.25f, 8, wide.data()));
  std::vector<float> depth(size_t(w) * h);
  ASSERT_EQ(0, scene_truth_depth(&s, 0, w, h, depth.data()));
  double gradPinFar = 0, gradWideFar = 0, gradPinNear = 0, gradWideNear = 0;
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 1; x < w; ++x) {
      size_t i = size_t(y) * w + size_t(x);
      if (fabsf(depth[i] - depth[i - 1]) > 10.0f) continue;
      double gp = fabs(double(pin[3 * i + 1]) - pin[3 * i - 2]), gw = fabs(double(wide[3 * i + 1]) - wide[3 * i - 2]);
      // Far pixels well away from nearer objects, whose blur spreads over the background.
      bool farAround = true;
      for (int32_t yy = std::max(0, y - 8); yy < std::min(h, y + 9) && farAround; ++yy)
        for (int32_t xx = std::max(0, x - 8); xx < std::min(w, x + 9); ++xx)
          if (depth[size_t(yy) * w + size_t(xx)] < 3000.0f) farAround = false;
      if (farAround) gradPinFar += gp, gradWideFar += gw;
      if (fabsf(depth[i] - focus) < 150.0f) gradPinNear += gp, gradWideNear += gw;
    }
  }
  EXPECT_LT(gradWideFar, 0.5 * gradPinFar);
  EXPECT_GT(gradWideNear, 0.6 * gradPinNear);
}

}  // namespace
