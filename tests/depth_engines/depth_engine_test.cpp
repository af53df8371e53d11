// depth_engine_test.cpp - the reference stereo engine through its C functions on synthetic
// scenes (quality bounds, mirrored and unrectified input), its refusals, and matcher stages.
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>

#include <functional>
#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "stereo_core.h"
#include "synth_scene.h"

namespace {

struct Pair {
  int32_t w, h;
  std::vector<uint8_t> main, sub;  // three planes each
  std::vector<float> truth;
  std::vector<uint8_t> calib;
};

std::vector<uint8_t> planes_from_nv21(const std::vector<uint8_t>& nv21, int32_t w, int32_t h) {
  size_t n = size_t(w) * size_t(h);
  std::vector<uint8_t> p(3 * n, 128);
  std::copy(nv21.begin(), nv21.begin() + long(n), p.begin());
  return p;
}

Pair make_pair(uint32_t seed, int32_t w, int32_t h, float noise = 0.0f) {
  SceneSpec s;
  scene_default(&s, seed);
  s.noiseSigma = noise;
  Pair p;
  p.w = w, p.h = h;
  std::vector<uint8_t> nv21(size_t(w) * size_t(h) * 3 / 2);
  EXPECT_EQ(0, scene_render_nv21(&s, 0, 0, w, h, 2, nv21.data()));
  p.main = planes_from_nv21(nv21, w, h);
  EXPECT_EQ(0, scene_render_nv21(&s, 0, 1, w, h, 2, nv21.data()));
  p.sub = planes_from_nv21(nv21, w, h);
  p.truth.resize(size_t(w) * size_t(h));
  EXPECT_EQ(0, scene_truth_disparity(&s, 0, w, h, p.truth.data()));
  p.calib.resize(CALIB_BLOCK_SIZE);
  EXPECT_EQ(0, scene_calibration(&s, 1920, 1080, 1280, 720, p.calib.data(), CALIB_BLOCK_SIZE));
  return p;
}

DpxImage image_of(std::vector<uint8_t>& planes, int32_t w, int32_t h) {
  size_t n = size_t(w) * size_t(h);
  return DpxImage{DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {planes.data(), planes.data() + n, planes.data() + 2 * n}};
}

std::vector<uint16_t> run_pair(Pair& p, int32_t mode, int32_t* result = nullptr) {
  EXPECT_EQ(0, vmDpx2_CameraLayout_Set_LV(2));
  EXPECT_EQ(0, vmDpx2RT_FieldofDepth_Set(mode));
  EXPECT_EQ(0, vmDpx2_Express_Init(p.calib.data(), int32_t(p.calib.size()), p.w, p.h, nullptr, 0));
  std::vector<uint16_t> out(size_t(p.w) * size_t(p.h), 0xBEEF);
  DpxImage m = image_of(p.main, p.w, p.h), s = image_of(p.sub, p.w, p.h);
  int32_t r = vmDpx2_Run_Express(out.data(), &m, &s, 100, 200);
  if (result) *result = r;
  EXPECT_EQ(0, r);
  EXPECT_EQ(0, vmDpx2_Express_Close());
  return out;
}

struct Quality {
  double bad, fill;
};

// Share of pixels off by more than `tol` pixels (no estimate counts as bad), over the whole map.
Quality score(const Pair& p, const std::vector<uint16_t>& out, int32_t scale, double tol) {
  size_t bad = 0, filled = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    if (out[i] >= 1023) {
      ++bad;
      continue;
    }
    ++filled;
    if (fabs(out[i] / double(scale) - p.truth[i]) > tol) ++bad;
  }
  return Quality{100.0 * double(bad) / double(out.size()), 100.0 * double(filled) / double(out.size())};
}

TEST(DepthEngine, SyntheticScenesAreDenseAndAccurateInBothModes) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    Pair p = make_pair(seed, 160, 96, 1.0f);
    for (int32_t mode : {1, 2}) {
      std::vector<uint16_t> out = run_pair(p, mode);
      Quality q = score(p, out, 16, 1.0);
      EXPECT_EQ(100.0, q.fill) << "seed " << seed << " mode " << mode;
      EXPECT_LT(q.bad, 8.0) << "seed " << seed << " mode " << mode;
      Quality fine = score(p, out, 16, 0.5);
      EXPECT_LT(fine.bad, 20.0) << "seed " << seed << " mode " << mode;
    }
  }
}

// With the sub camera on the left, the mirrored pair gives the mirrored map, sample for sample.
TEST(DepthEngine, SubCameraOnTheLeftIsTheMirroredCase) {
  Pair p = make_pair(4, 96, 64);
  std::vector<uint16_t> normal = run_pair(p, 1);
  Pair m = p;
  for (int32_t c = 0; c < 3; ++c) {
    for (int32_t y = 0; y < p.h; ++y) {
      for (int32_t x = 0; x < p.w; ++x) {
        size_t src = size_t(c) * p.w * p.h + size_t(y) * p.w + size_t(p.w - 1 - x);
        size_t dst = size_t(c) * p.w * p.h + size_t(y) * p.w + size_t(x);
        // The sub camera's mirrored image becomes the main one and vice versa.
        m.main[dst] = p.main[src];
        m.sub[dst] = p.sub[src];
      }
    }
  }
  std::swap(m.main, m.sub);
  std::swap(m.main, m.sub);  // main stays main: mirroring both puts the sub camera on the left
  CalibBlock cb;
  ASSERT_EQ(CALIB_OK, calib_block_read(p.calib.data(), p.calib.size(), &cb));
  cb.flags = CALIB_FLAG_SUB_LEFT;
  ASSERT_EQ(CALIB_OK, calib_block_write(&cb, m.calib.data(), m.calib.size()));
  std::vector<uint16_t> mirrored = run_pair(m, 1);
  size_t differ = 0;
  for (int32_t y = 0; y < p.h; ++y)
    for (int32_t x = 0; x < p.w; ++x)
      differ += normal[size_t(y) * p.w + size_t(x)] != mirrored[size_t(y) * p.w + size_t(p.w - 1 - x)];
  EXPECT_EQ(0u, differ);
}

// A sub view that is off by a vertical shift is rectified by the calibration's homography.
TEST(DepthEngine, HomographyRectifiesAShiftedSubView) {
  Pair p = make_pair(5, 160, 96);
  const int32_t shift = 3;  // sub rows moved down by 3 depth pixels
  Pair q = p;
  for (int32_t y = 0; y < p.h; ++y)
    for (int32_t x = 0; x < p.w; ++x)
      q.sub[size_t(y) * p.w + size_t(x)] = p.sub[size_t(y - shift < 0 ? 0 : y - shift) * p.w + size_t(x)];
  std::vector<uint16_t> unrectified = run_pair(q, 1);
  CalibBlock cb;
  ASSERT_EQ(CALIB_OK, calib_block_read(p.calib.data(), p.calib.size(), &cb));
  cb.homographySub[5] = float(shift) * float(cb.subHeight) / float(p.h);  // rectified -> raw: y + shift
  ASSERT_EQ(CALIB_OK, calib_block_write(&cb, q.calib.data(), q.calib.size()));
  std::vector<uint16_t> rectified = run_pair(q, 1);
  double badRect = score(p, rectified, 16, 1.0).bad, badRaw = score(p, unrectified, 16, 1.0).bad;
  EXPECT_LT(badRect, 10.0);
  EXPECT_LT(badRect * 2.0, badRaw);
}

TEST(DepthEngine, RefusalsGiveCodesAndNoOutput) {
  char text[256];
  EXPECT_EQ(0, vmDpx2_VersionInfo_Get_LV(text, sizeof(text)));
  EXPECT_NE(nullptr, strstr(text, "vmDpx2_LV"));
  EXPECT_EQ(1, vmDpx2_VersionInfo_Get_LV(nullptr, 256));
  EXPECT_EQ(4, vmDpx2_CameraLayout_Set_LV(0));
  EXPECT_EQ(4, vmDpx2_CameraLayout_Set_LV(5));
  for (int32_t layout = 1; layout <= 4; ++layout) EXPECT_EQ(0, vmDpx2_CameraLayout_Set_LV(layout));
  EXPECT_EQ(1, vmDpx2RT_FieldofDepth_Set(3));

  Pair p = make_pair(6, 64, 48);
  std::vector<uint16_t> out(size_t(p.w) * p.h, 7);
  DpxImage m = image_of(p.main, p.w, p.h), s = image_of(p.sub, p.w, p.h);
  EXPECT_EQ(3, vmDpx2_Run_Express(out.data(), &m, &s, 0, 0));  // before Init

  std::vector<uint8_t> bad = p.calib;
  bad[20] ^= 1;
  EXPECT_EQ(CALIB_ERR_CHECKSUM, vmDpx2_Express_Init(bad.data(), int32_t(bad.size()), p.w, p.h, nullptr, 0));
  std::vector<uint8_t> shortBlock(p.calib.begin(), p.calib.begin() + 40);
  EXPECT_EQ(CALIB_ERR_TRUNCATED,
            vmDpx2_Express_Init(shortBlock.data(), int32_t(shortBlock.size()), p.w, p.h, nullptr, 0));
  EXPECT_EQ(CALIB_ERR_MISSING, vmDpx2_Express_Init(nullptr, 0, p.w, p.h, nullptr, 0));
  EXPECT_EQ(CALIB_ERR_MISSING, vmDpx2_Express_Init(p.calib.data(), -5, p.w, p.h, nullptr, 0));
  EXPECT_EQ(1, vmDpx2_Express_Init(p.calib.data(), int32_t(p.calib.size()), 4, p.h, nullptr, 0));
  EXPECT_EQ(1, vmDpx2_Express_Init(p.calib.data(), int32_t(p.calib.size()), p.w, 1 << 20, nullptr, 0));
  EXPECT_EQ(3, vmDpx2_Run_Express(out.data(), &m, &s, 0, 0));  // failed Init leaves no engine

  // The block may come in the second pair.
  ASSERT_EQ(0, vmDpx2_Express_Init(nullptr, 0, p.w, p.h, p.calib.data(), int32_t(p.calib.size())));
  DpxImage wrong = m;
  wrong.format = 0x0F01;
  EXPECT_EQ(1, vmDpx2_Run_Express(out.data(), &wrong, &s, 0, 0));
  DpxImage missing = s;
  missing.plane[0] = nullptr;
  EXPECT_EQ(1, vmDpx2_Run_Express(out.data(), &m, &missing, 0, 0));
  EXPECT_EQ(1, vmDpx2_Run_Express(nullptr, &m, &s, 0, 0));
  for (uint16_t v : out) ASSERT_EQ(7, v);
  EXPECT_EQ(0, vmDpx2_Run_Express(out.data(), &m, &s, 0, 0));
  for (uint16_t v : out) ASSERT_LE(v, 1023);
  EXPECT_EQ(0, vmDpx2_Express_Close());
  EXPECT_EQ(0, vmDpx2_Express_Close());
}

// A search range too wide for the depth size is refused rather than allocated.
TEST(DepthEngine, AbsurdRangeIsRefused) {
  CalibBlock cb;
  calib_block_defaults(&cb, 64, 48, 64, 48, 0.0f, 4000.0f);
  uint8_t block[CALIB_BLOCK_SIZE];
  ASSERT_EQ(CALIB_OK, calib_block_write(&cb, block, sizeof(block)));
  EXPECT_EQ(0x701, vmDpx2_Express_Init(block, sizeof(block), 64, 48, nullptr, 0));
}

TEST(StereoCore, SpecklesSmallerThanTheLimitAreRemoved) {
  const int32_t w = 12, h = 8;
  std::vector<int16_t> d(size_t(w) * h, 160);
  // A 2x2 island of another depth and a 4x3 one; limit 6 keeps only the larger.
  for (int32_t y = 1; y < 3; ++y)
    for (int32_t x = 1; x < 3; ++x) d[size_t(y) * w + size_t(x)] = 480;
  for (int32_t y = 4; y < 7; ++y)
    for (int32_t x = 6; x < 10; ++x) d[size_t(y) * w + size_t(x)] = 800;
  // A U whose arms (2 and 3 pixels, the right one starting higher) meet only in its last row:
  // one region of 8, kept.
  for (int32_t y = 4; y < 7; ++y) d[size_t(y) * w + 3] = 1200;
  for (int32_t y = 5; y < 7; ++y) d[size_t(y) * w + 1] = 1200;
  for (int32_t x = 1; x < 4; ++x) d[size_t(7) * w + size_t(x)] = 1200;
  d[0] = STEREO_INVALID;
  std::vector<int32_t> labels(d.size()), stack(d.size());
  stereo_remove_speckles(d.data(), w, h, 6, STEREO_SUBPIXEL, labels.data(), stack.data());
  EXPECT_EQ(STEREO_INVALID, d[size_t(1) * w + 1]);
  EXPECT_EQ(STEREO_INVALID, d[size_t(2) * w + 2]);
  EXPECT_EQ(800, d[size_t(5) * w + 7]);
  EXPECT_EQ(160, d[size_t(7) * w + 0]);
  EXPECT_EQ(STEREO_INVALID, d[0]);
  EXPECT_EQ(1200, d[size_t(5) * w + 1]);
  EXPECT_EQ(1200, d[size_t(4) * w + 3]);
  EXPECT_EQ(1200, d[size_t(7) * w + 2]);
}

TEST(StereoCore, CensusBitsCompareNeighboursWithTheCentre) {
  const int32_t w = 9, h = 7;
  std::vector<uint8_t> img(size_t(w) * h, 100);
  img[size_t(3) * w + 4] = 50;  // darker centre: no neighbour is darker
  std::vector<uint64_t> c(img.size());
  stereo_census(img.data(), w, w, h, 2, c.data());
  EXPECT_EQ(0u, c[size_t(3) * w + 4]);
  img[size_t(3) * w + 4] = 150;  // brighter centre: every neighbour is darker
  stereo_census(img.data(), w, w, h, 2, c.data());
  EXPECT_EQ((uint64_t(1) << stereo_census_bits(2)) - 1, c[size_t(3) * w + 4]);
  stereo_census(img.data(), w, w, h, 1, c.data());
  EXPECT_EQ((uint64_t(1) << stereo_census_bits(1)) - 1, c[size_t(3) * w + 4]);
}

// Extreme input (random noise against a blank view) must still give bounded, dense output:
// path costs saturate instead of wrapping.
TEST(StereoCore, ExtremeInputStaysBounded) {
  StereoParams p;
  ASSERT_TRUE(stereo_params_default(&p, 64, 40, 0, 64, 2));
  p.p2 = 60000;  // large enough that unsaturated sums would wrap
  StereoBuffers b;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  std::vector<uint8_t> noise(size_t(64) * 40), flat(size_t(64) * 40, 90);
  uint32_t r = 1;
  for (uint8_t& v : noise) v = uint8_t((r = r * 1664525u + 1013904223u) >> 24);
  std::vector<int16_t> d(noise.size());
  stereo_run(&b, noise.data(), 64, flat.data(), 64, d.data());
  for (int16_t v : d) {
    if (v == STEREO_INVALID) continue;
    EXPECT_GE(v, 0);
    EXPECT_LT(v, 64 * STEREO_SUBPIXEL);
  }
  stereo_free(&b);
}

// The weighted median at depth edges follows the luma: a one-pixel spur of near disparity on
// background-coloured pixels goes, a one-pixel line of near disparity on its own dark pixels
// stays (a plain median would take it), and away from jumps sub-pixel detail is left as it is.
TEST(StereoCore, EdgeRefinementFollowsLumaAndKeepsThinStructures) {
  const int32_t w = 40, h = 24;
  StereoParams p;
  ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 32, 2));
  EXPECT_EQ(1, p.refineRadius);
  ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 32, 1));
  EXPECT_EQ(1, p.refineRadius);  // both modes
  StereoBuffers b;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  std::vector<uint8_t> img(size_t(w) * h, 200);
  std::vector<int16_t> in(size_t(w) * h);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) in[size_t(y) * w + size_t(x)] = int16_t(80 + (x + 3 * y) % 12);  // within 1 px
  for (int32_t y = 0; y < h; ++y) {
    img[size_t(y) * w + 10] = 40;  // the thin line, near
    in[size_t(y) * w + 10] = 320;
  }
  in[size_t(12) * w + 25] = 320;  // a spur on background luma
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  stereo_refine_edges(&b, img.data(), w);
  for (int32_t y = 0; y < h; ++y) EXPECT_EQ(320, b.dispL[size_t(y) * w + 10]) << y;
  const int16_t spur = b.dispL[size_t(12) * w + 25];
  EXPECT_GE(spur, 80);
  EXPECT_LE(spur, 91);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const bool nearJump = (x >= 8 && x <= 12) || (x >= 23 && x <= 27 && y >= 10 && y <= 14);
      if (!nearJump) {
        EXPECT_EQ(in[size_t(y) * w + size_t(x)], b.dispL[size_t(y) * w + size_t(x)]) << x << "," << y;
      }
    }
  // Radius 0 turns the step off.
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  b.params.refineRadius = 0;
  stereo_refine_edges(&b, img.data(), w);
  EXPECT_EQ(0, memcmp(b.dispL, in.data(), in.size() * sizeof(int16_t)));
  stereo_free(&b);
}

// A textured square at 12 px before a textured background at 4 px, the map a pixel too wide on
// the square's right: that pixel gives way to the background, which the right view shows there;
// the square's true edge stays (the background is hidden there), and so does a pixel marked as
// an occlusion. Nothing else moves, and support 0 turns the step off.
TEST(StereoCore, NearSideGivesWayWhereTheRightViewShowsTheFarSurface) {
  const int32_t w = 56, h = 16, near = 12 * STEREO_SUBPIXEL, far = 4 * STEREO_SUBPIXEL;
  StereoParams p;
  ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 32, 1));
  EXPECT_EQ(2, p.sideSupport);
  StereoBuffers b;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  uint32_t seed = 7;
  auto texture = [&seed]() { return uint8_t((seed = seed * 1664525u + 1013904223u) >> 24); };
  std::vector<uint8_t> bg(size_t(w + 16) * h), obj(size_t(w) * h), left(size_t(w) * h), right(size_t(w) * h);
  for (uint8_t& v : bg) v = uint8_t(texture() / 4);  // the surfaces differ in luma, as the weights assume
  for (uint8_t& v : obj) v = uint8_t(150 + texture() / 4);
  const auto inSquare = [](int32_t x) { return x >= 24 && x < 36; };
  std::vector<int16_t> in(size_t(w) * h);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      left[i] = inSquare(x) ? obj[i] : bg[size_t(y) * (w + 16) + size_t(x)];
      right[i] = inSquare(x + 12) ? obj[i + 12] : bg[size_t(y) * (w + 16) + size_t(x + 4)];
      in[i] = int16_t(inSquare(x) || x == 36 ? near : far);
    }
  memset(b.holeKind, 0, size_t(w) * h);
  b.holeKind[size_t(5) * w + 36] = 1;
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  stereo_pick_sides(&b, left.data(), w, right.data(), w);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      const int16_t want = x == 36 && y != 5 ? int16_t(far) : in[i];
      EXPECT_EQ(want, b.dispL[i]) << x << "," << y;
    }
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  b.params.sideSupport = 0;
  stereo_pick_sides(&b, left.data(), w, right.data(), w);
  EXPECT_EQ(0, memcmp(b.dispL, in.data(), in.size() * sizeof(int16_t)));
  stereo_free(&b);
}

// A uniform rectangle on texture, slanted in depth, as the matcher leaves it: whole-pixel steps,
// half of it a pixel off either way, a patch of another surface, holes. The plane comes back to within a
// quarter pixel everywhere in it except the other surface and the occlusion holes; the texture
// around it, and a uniform region whose values no plane explains, keep their values.
TEST(StereoCore, UniformRegionsTakeThePlaneTheirMatchesFit) {
  const int32_t w = 64, h = 40, x0 = 16, x1 = 48, y0 = 8, y1 = 32;
  StereoParams p;
  ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 32, 1));
  ASSERT_GT(p.planeMinSize, 0);
  StereoBuffers b;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  std::vector<uint8_t> img(size_t(w) * h);
  std::vector<int16_t> in(img.size());
  std::vector<uint8_t> kind(img.size(), 0);
  const auto truth = [&](int32_t x, int32_t y) {
    return (10.0 + 0.25 * (x - x0) + 0.125 * (y - y0)) * STEREO_SUBPIXEL;
  };
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      const bool inside = x >= x0 && x < x1 && y >= y0 && y < y1;
      img[i] = inside ? 120 : ((x + y) & 1) != 0 ? 60 : 180;  // a checkerboard outside: no uniform region
      in[i] = int16_t(5 * STEREO_SUBPIXEL);
      if (!inside) continue;
      in[i] = int16_t(lround(truth(x, y) / STEREO_SUBPIXEL) * STEREO_SUBPIXEL);
      if ((x + 2 * y) % 4 == 0) in[i] = int16_t(in[i] + STEREO_SUBPIXEL);
      if ((x + 2 * y) % 4 == 2) in[i] = int16_t(in[i] - STEREO_SUBPIXEL);
      if (x >= 40 && y >= 26) in[i] = int16_t(28 * STEREO_SUBPIXEL);  // another surface
      if (y == 12 && x < 30) in[i] = STEREO_INVALID, kind[i] = 2;     // a hole
      if (y == 20 && x < 24) in[i] = STEREO_INVALID, kind[i] = 1;     // an occlusion
    }
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  memcpy(b.holeKind, kind.data(), kind.size());
  stereo_fit_planes(&b, img.data(), w);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      const bool inside = x >= x0 && x < x1 && y >= y0 && y < y1;
      if (!inside || (x >= 40 && y >= 26) || kind[i] == 1) {
        EXPECT_EQ(in[i], b.dispL[i]) << x << "," << y;
        continue;
      }
      EXPECT_NEAR(truth(x, y), b.dispL[i], STEREO_SUBPIXEL / 4) << x << "," << y;
      EXPECT_EQ(0, b.holeKind[i]) << x << "," << y;
    }
  // Values no plane explains: the region keeps them.
  for (int32_t y = y0; y < y1; ++y)
    for (int32_t x = x0; x < x1; ++x)
      in[size_t(y) * w + size_t(x)] = int16_t(((x * 7 + y * 13) % 29) * STEREO_SUBPIXEL);
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  stereo_fit_planes(&b, img.data(), w);
  EXPECT_EQ(0, memcmp(b.dispL, in.data(), in.size() * sizeof(int16_t)));
  // A uniform line one pixel high through the texture has no uniform 2x2 block, so it is no
  // region, however long: its steps stay.
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      img[i] = y == 4 ? 120 : ((x + y) & 1) != 0 ? 60 : 180;
      in[i] = int16_t((y == 4 ? 10 + x / 8 + (x % 3 == 0 ? 1 : 0) : 5) * STEREO_SUBPIXEL);
    }
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  stereo_fit_planes(&b, img.data(), w);
  EXPECT_EQ(0, memcmp(b.dispL, in.data(), in.size() * sizeof(int16_t)));
  stereo_free(&b);
  // Turned off, the step allocates nothing and changes nothing.
  p.planeMinSize = 0;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  EXPECT_EQ(nullptr, b.planes);
  memcpy(b.dispL, in.data(), in.size() * sizeof(int16_t));
  stereo_fit_planes(&b, img.data(), w);
  EXPECT_EQ(0, memcmp(b.dispL, in.data(), in.size() * sizeof(int16_t)));
  stereo_free(&b);
}

// Hole filling on flat luma, so that only the rule decides: a near surface (rows 14..33, from
// nearX on) before a far one, with left-right failures (holeKind 1) in the columns `holes` marks.
std::vector<int16_t> fill_occlusions(int32_t minDisparity, int16_t nearD, int16_t farD, int32_t nearX0, int32_t nearX1,
                                     const std::function<bool(int32_t)>& holes) {
  const int32_t w = 96, h = 48;
  StereoParams p;
  EXPECT_TRUE(stereo_params_default(&p, w, h, minDisparity, 32, 1));
  StereoBuffers b;
  if (!stereo_alloc(&b, &p)) return {};
  std::vector<uint8_t> img(size_t(w) * h, 100);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      const bool nearRows = y >= 14 && y < 34;
      b.dispL[i] = nearRows && x >= nearX0 && x < nearX1 ? nearD : farD;
      b.holeKind[i] = 0;
      if (nearRows && holes(x)) b.dispL[i] = STEREO_INVALID, b.holeKind[i] = 1;
    }
  stereo_fill_holes(&b, img.data(), w);
  std::vector<int16_t> out(b.dispL, b.dispL + size_t(w) * h);
  stereo_free(&b);
  return out;
}

// Left-right failures take the farther surface, except in the strip left of the search range's
// reach, where a near candidate that would match left of the sub view explains the failure: a near
// surface at the left border continues into the strip instead of taking the background above and
// below it. The strip is bounded by the disparity itself, not by its index in a range that does
// not start at 0: there the holes left of a near surface whose match lies inside the sub view are
// an occlusion.
TEST(StereoCore, HoleFillingTakesBackgroundForOcclusionsButNotInTheUnseenStrip) {
  const int32_t w = 96;
  const int16_t nearD = 20 * STEREO_SUBPIXEL;
  const auto border =
      fill_occlusions(0, nearD, 4 * STEREO_SUBPIXEL, 20, 50, [](int32_t x) { return x < 20 || (x >= 60 && x < 66); });
  ASSERT_FALSE(border.empty());
  for (int32_t y = 17; y < 31; ++y) {
    for (int32_t x = 10; x < 20; ++x) EXPECT_EQ(nearD, border[size_t(y) * w + size_t(x)]) << x << "," << y;
    for (int32_t x = 60; x < 66; ++x)
      EXPECT_EQ(4 * STEREO_SUBPIXEL, border[size_t(y) * w + size_t(x)]) << x << "," << y;
  }
  const auto shifted =
      fill_occlusions(8, nearD, 12 * STEREO_SUBPIXEL, 30, 60, [](int32_t x) { return x >= 22 && x < 30; });
  ASSERT_FALSE(shifted.empty());
  for (int32_t y = 17; y < 31; ++y)
    for (int32_t x = 22; x < 30; ++x)
      EXPECT_EQ(12 * STEREO_SUBPIXEL, shifted[size_t(y) * w + size_t(x)]) << x << "," << y;
}

// Filled values never act as candidates: across a block of holes (flat luma, no occlusion) each
// pixel takes the nearer of its original neighbours, so the block splits in the middle rather than
// the left value running through it.
TEST(StereoCore, HoleFillingChoosesFromOriginalValuesOnly) {
  const int32_t w = 24, h = 48;
  const int16_t leftD = 8 * STEREO_SUBPIXEL, rightD = 12 * STEREO_SUBPIXEL;
  StereoParams p;
  ASSERT_TRUE(stereo_params_default(&p, w, h, 0, 16, 1));
  StereoBuffers b;
  ASSERT_TRUE(stereo_alloc(&b, &p));
  std::vector<uint8_t> img(size_t(w) * h, 100);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const size_t i = size_t(y) * w + size_t(x);
      b.dispL[i] = x < 14 ? leftD : rightD;
      b.holeKind[i] = 0;
      if (y >= 20 && y < 28 && x >= 10 && x < 14) b.dispL[i] = STEREO_INVALID, b.holeKind[i] = 2;
    }
  stereo_fill_holes(&b, img.data(), w);
  const int16_t* row = b.dispL + size_t(23) * w;
  EXPECT_EQ(leftD, row[10]);
  EXPECT_EQ(leftD, row[11]);
  EXPECT_EQ(rightD, row[12]);
  EXPECT_EQ(rightD, row[13]);
  stereo_free(&b);
}

}  // namespace
