// The CPU renderer: untouched frames, blur where the map says, no bleeding of the sharp subject,
// highlights that bloom into discs, foreground spreading over the subject, chroma layouts.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "bokeh_cpu_internal.h"
#include "renderer_test_util.h"

namespace {

constexpr int32_t kW = 320, kH = 240, kMw = 80, kMh = 60;

class Render : public RendererFixture {
 protected:
  void SetUp() override { ASSERT_EQ(RGL_OK, init(kW, kH, kMw, kMh, kMw, kMh)); }
  int32_t render(Frame& f, const uint8_t* map, float fNumber = 1.4f, int32_t noMap = 0) {
    return vmKtrRT_GLStartV1(f.luma(), f.chroma(), map, kW / 2, kH / 2, fNumber, noMap, 0, 0, kW, kH);
  }
};

double luma_variance(Frame& f, int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
  double s = 0, s2 = 0;
  int n = 0;
  for (int32_t y = y0; y < y1; ++y)
    for (int32_t x = x0; x < x1; ++x, ++n) {
      s += f.y(x, y);
      s2 += f.y(x, y) * f.y(x, y);
    }
  return s2 / n - (s / n) * (s / n);
}

TEST_F(Render, NoMapFlagOrNullMapLeavesEveryByte) {
  Frame f = make_textured(kW, kH, 11);
  const std::vector<uint8_t> before = f.data;
  std::vector<uint8_t> map(kMw * kMh, 255);
  EXPECT_EQ(RGL_OK, render(f, map.data(), 1.4f, 1));
  EXPECT_EQ(before, f.data);
  EXPECT_EQ(RGL_OK, render(f, nullptr, 1.4f, 0));
  EXPECT_EQ(before, f.data);
}

TEST_F(Render, AllZeroMapKeepsTheFrameWithinOneLevel) {
  Frame f = make_textured(kW, kH, 12);
  const std::vector<uint8_t> before = f.data;
  std::vector<uint8_t> map(kMw * kMh, 0);
  ASSERT_EQ(RGL_OK, render(f, map.data()));
  for (size_t i = 0; i < before.size(); ++i) ASSERT_LE(std::abs(before[i] - f.data[i]), 1) << i;
}

TEST_F(Render, BlursWhereTheMapSaysAndKeepsTheSubjectSharp) {
  Frame f = make_textured(kW, kH, 13);
  const Frame before = f;
  // Left half blurred, right half in focus.
  std::vector<uint8_t> map(kMw * kMh, 0);
  for (int32_t y = 0; y < kMh; ++y)
    for (int32_t x = 0; x < kMw / 2; ++x) map[y * kMw + x] = 255;
  Frame copy = before;
  const double v0 = luma_variance(copy, 20, 20, 120, 220);
  ASSERT_EQ(RGL_OK, render(f, map.data()));
  EXPECT_LT(luma_variance(f, 20, 20, 120, 220), v0 / 20);
  // Sharp side, from the first pixel whose grid samples both lie past the map's step (x = 160):
  // untouched. Grid samples across the step take the nearest map sample's radius; a mix of both
  // sides blurred the in-focus edge.
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 162; x < kW; ++x) ASSERT_EQ(before.data[y * kW + x], f.y(x, y)) << x << "," << y;
  // Chroma on the blurred side changed too.
  const size_t c = static_cast<size_t>(kW) * kH + 60 * kW + 40;
  EXPECT_NE(before.data[c], f.data[c]);
}

TEST_F(Render, LargerFNumberBlursLess) {
  std::vector<uint8_t> map(kMw * kMh, 255);
  Frame a = make_textured(kW, kH, 14), b = a;
  ASSERT_EQ(RGL_OK, render(a, map.data(), 1.4f));
  ASSERT_EQ(RGL_OK, render(b, map.data(), 8.0f));
  EXPECT_LT(luma_variance(a, 40, 40, 280, 200), luma_variance(b, 40, 40, 280, 200));
}

TEST_F(Render, SharpSubjectDoesNotBleedIntoTheBackground) {
  // Bright in-focus square on a dark, blurred background.
  Frame f = make_frame(kW, kH, 30, 128);
  std::vector<uint8_t> map(kMw * kMh, 255);
  for (int32_t y = 80; y < 160; ++y)
    for (int32_t x = 120; x < 200; ++x) f.y(x, y) = 220;
  for (int32_t y = 20; y < 40; ++y)
    for (int32_t x = 30; x < 50; ++x) map[y * kMw + x] = 0;
  ASSERT_EQ(RGL_OK, render(f, map.data()));
  // Background a few pixels off the subject stays dark; the subject keeps its level.
  for (int32_t x : {100, 110, 212, 220}) EXPECT_LT(f.y(x, 120), 45) << x;
  EXPECT_EQ(220, f.y(160, 120));
  EXPECT_EQ(220, f.y(125, 85));
}

TEST_F(Render, HighlightsBloomIntoDiscs) {
  // One 4 x 4 highlight on a mid-grey blurred frame: a bright disc of about the blur radius.
  Frame f = make_frame(kW, kH, 60, 128);
  for (int32_t y = 118; y < 122; ++y)
    for (int32_t x = 158; x < 162; ++x) f.y(x, y) = 255;
  std::vector<uint8_t> map(kMw * kMh, 255);
  const float r = render_max_radius(kW, 1.4f);  // 13.4 px
  ASSERT_EQ(RGL_OK, render(f, map.data()));
  const int32_t inside = static_cast<int32_t>(0.5f * r), outside = static_cast<int32_t>(1.8f * r);
  EXPECT_GT(f.y(160 + inside, 120), 70);
  EXPECT_GT(f.y(160, 120 - inside), 70);
  EXPECT_LE(f.y(160 + outside, 120), 61);
  // Brighter than a plain average of the same disc would be: 16 of ~560 samples at 255.
  EXPECT_GT(f.y(160, 120), 60 + 195 * 16 / 560 + 10);
}

TEST_F(Render, ForegroundSpreadsOverTheSubject) {
  // Through the generator: a near bar (disparity 900) at the left of an in-focus subject (500)
  // on a far background (100). The bar's blur reaches over the subject's edge; the far
  // background's does not.
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(kMw * kMh, 100);
  Frame f = make_frame(kW, kH, 60, 128);
  for (int32_t y = 0; y < kH; ++y) {
    for (int32_t x = 0; x < kW; ++x) {
      if (x >= 100 && x < 220) f.y(x, y) = 200;  // subject
      if (x < 100) f.y(x, y) = 20;               // near bar
    }
  }
  for (int32_t y = 0; y < kMh; ++y)
    for (int32_t x = 0; x < kMw; ++x) depth[y * kMw + x] = x < 25 ? 900 : (x < 55 ? 500 : 100);
  std::vector<uint8_t> map(kMw * kMh);
  uint16_t lo, hi, target;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 40, 30, &lo, &hi, &target));
  ASSERT_EQ(500, target);
  ASSERT_EQ(RGL_OK, render(f, map.data()));
  EXPECT_LT(f.y(104, 120), 170);  // the dark near bar spreads over the subject's left edge
  EXPECT_EQ(200, f.y(160, 120));  // the middle of the subject stays
  EXPECT_GT(f.y(214, 120), 190);  // the far background does not spread over its right edge
}

TEST_F(Render, PlanarAndSwappedChromaLayoutsBlurTheirOwnPlanes) {
  std::vector<uint8_t> map(kMw * kMh, 255);
  for (int32_t format : {0, 2, 3}) {
    ASSERT_EQ(RGL_OK, init(kW, kH, kMw, kMh, kMw, kMh, 0, format));
    Frame f = make_frame(kW, kH, 100, 0);
    // Fill U with 60 and V with 200 in the format's own layout.
    uint8_t* c = f.chroma();
    const size_t n = static_cast<size_t>(kW / 2) * (kH / 2);
    for (size_t i = 0; i < n; ++i) {
      if (format == 2) {
        c[i] = 60, c[n + i] = 200;
      } else if (format == 3) {
        c[2 * i] = 60, c[2 * i + 1] = 200;
      } else {
        c[2 * i] = 200, c[2 * i + 1] = 60;
      }
    }
    const std::vector<uint8_t> before = f.data;
    ASSERT_EQ(RGL_OK, render(f, map.data()));
    // A flat frame stays flat in every plane.
    for (size_t i = 0; i < before.size(); ++i) ASSERT_LE(std::abs(before[i] - f.data[i]), 1) << format << " " << i;
  }
}

}  // namespace

namespace {

// The vector kernels (4-lane luma and chroma blocks) give exactly the plain code's bytes, on a
// frame whose size is no multiple of the grid so that partial blocks are exercised too.
TEST(RenderVectorKernels, EqualToThePlainPath) {
  constexpr int32_t w = 1286, h = 724, mw = 160, mh = 90;
  for (int32_t format : {0, 3}) {
    ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
    ASSERT_EQ(4, g_renderer.work.scale);
    std::vector<uint8_t> map(mw * mh);
    for (int32_t y = 0; y < mh; ++y)
      for (int32_t x = 0; x < mw; ++x)
        map[y * mw + x] = static_cast<uint8_t>(x < 40 ? 0 : (x < 100 ? (x - 40) * 4 : (y < 45 ? 255 : 120)));
    Frame a = make_textured(w, h, 21);
    Frame b = a;
    g_renderer.work.plainOnly = 0;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(a.luma(), a.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
    g_renderer.work.plainOnly = 1;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(b.luma(), b.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
    EXPECT_TRUE(a.data == b.data) << "format " << format;
    const Frame original = make_textured(w, h, 21);
    EXPECT_FALSE(a.data == original.data);
    vmKtrRT_GLClose();
  }
}

// The same with a foreground (a near corner through the generator): the fast spread and the
// luma blocks on lines the foreground reaches give the plain code's bytes too.
TEST(RenderVectorKernels, EqualToThePlainPathWithAForeground) {
  constexpr int32_t w = 1286, h = 724, mw = 160, mh = 90;
  for (int32_t format : {0, 2}) {
    ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
    std::vector<uint16_t> depth(mw * mh);
    for (int32_t y = 0; y < mh; ++y)
      for (int32_t x = 0; x < mw; ++x) {
        const bool subject = std::abs(x - mw / 2) < 30 && std::abs(y - mh / 2) < 25;
        const bool near = x < 50 && y > 55;
        depth[y * mw + x] = static_cast<uint16_t>(near ? 620 + (50 - x) * 4 : (subject ? 600 : 150));
      }
    std::vector<uint8_t> map(mw * mh);
    uint16_t lo, hi, target;
    ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), mw / 2, mh / 2, &lo, &hi, &target));
    ASSERT_EQ(600, target);
    Frame a = make_textured(w, h, 5);
    Frame b = a;
    const Frame original = a;
    g_renderer.work.plainOnly = 0;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(a.luma(), a.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
    // The foreground layer was made (some alpha), so its paths ran.
    const RenderWork& work = g_renderer.work;
    float alpha = 0.0f;
    for (size_t i = 0; i < static_cast<size_t>(work.gridWidth) * work.gridHeight; ++i)
      alpha = work.front[4 * i + 3] > alpha ? work.front[4 * i + 3] : alpha;
    EXPECT_GT(alpha, 0.5f);
    g_renderer.work.plainOnly = 1;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(b.luma(), b.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
    EXPECT_TRUE(a.data == b.data) << "format " << format;
    EXPECT_FALSE(a.data == original.data);
    g_renderer.work.plainOnly = 0;
    vmKtrRT_GLClose();
  }
}

// Near and far samples the same distance from the focus plane get the same radius; the near layer
// must still use its own disc for it, not the one the far layer last looked up for that radius.
TEST(RenderLayers, ForegroundDiscDoesNotDependOnTheBackgroundLayer) {
  constexpr int32_t w = 320, h = 240, mw = 80, mh = 60;
  ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, 0, 0));
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap_init());
  std::vector<uint16_t> depth(mw * mh, 540);  // far, 60 below the focus plane
  for (int32_t y = 20; y < 40; ++y)
    for (int32_t x = 30; x < 50; ++x) depth[y * mw + x] = 600;  // the subject in focus
  for (int32_t y = 44; y < mh; ++y)
    for (int32_t x = 0; x < 24; ++x) depth[y * mw + x] = 660;  // near, 60 above it
  std::vector<uint8_t> map(mw * mh);
  uint16_t lo, hi, target;
  ASSERT_EQ(RGL_OK, vmKtrRT_GenRefocusMap(map.data(), depth.data(), 40, 30, &lo, &hi, &target));
  ASSERT_EQ(map[0], map[(mh - 1) * mw]);  // both sides of the focus plane at one radius
  Frame f = make_textured(w, h, 8);
  ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
  RenderWork& work = g_renderer.work;
  const size_t n = static_cast<size_t>(work.gridWidth) * work.gridHeight * 4;
  const std::vector<float> rendered(work.front, work.front + n);
  // The same layer made on its own, from the same grid.
  DiscTable discs;
  bokeh_disc_table(&discs);
  bokeh_foreground_layer(&work, discs);
  float alpha = 0.0f;
  for (size_t i = 0; i < n; i += 4) alpha = work.front[i + 3] > alpha ? work.front[i + 3] : alpha;
  EXPECT_GT(alpha, 0.5f);
  EXPECT_TRUE(std::equal(rendered.begin(), rendered.end(), work.front));
  vmKtrRT_GLClose();
}

// The foreground spread: the fast code (row scatter, 4-lane column pass) gives exactly the
// plain gather's values, on planes of exactly the given size (narrower than one vector too),
// with radii on whole numbers (the reach boundary), past the largest reach, zero and NaN.
TEST(RenderNearDilate, FastEqualsPlain) {
  const int32_t sizes[][2] = {{1, 1}, {3, 5}, {7, 2}, {37, 29}, {64, 61}, {130, 9}};
  uint32_t seed = 99;
  auto next = [&seed] {
    seed = seed * 1664525u + 1013904223u;
    return seed >> 8;
  };
  for (const auto& sz : sizes) {
    const int32_t gw = sz[0], gh = sz[1];
    const size_t n = static_cast<size_t>(gw) * gh;
    for (int32_t density : {1, 5, 30, 100}) {
      std::vector<float> radius(n, 0.0f);
      for (float& r : radius) {
        if (static_cast<int32_t>(next() % 100) >= density) continue;
        const uint32_t kind = next() % 8;
        // Mostly small radii (as in frames) so that the reach's boundaries are seen, not covered
        // by larger neighbours; some whole numbers, a few large ones.
        r = kind == 0   ? static_cast<float>(next() % 26)  // up to past the reach
            : kind == 1 ? (next() % 16 == 0 ? 40.0f : NAN)
            : kind <= 3 ? static_cast<float>(1 + next() % 4)
                        : 0.25f + static_cast<float>(next() % 400) / 100.0f;
      }
      std::vector<float> tmpA(n), outA(n, -1.0f), tmpB(n), outB(n, -2.0f);
      render_near_dilate(radius.data(), gw, gh, tmpA.data(), outA.data(), 0);
      render_near_dilate(radius.data(), gw, gh, tmpB.data(), outB.data(), 1);
      ASSERT_EQ(0, memcmp(outA.data(), outB.data(), n * sizeof(float))) << gw << "x" << gh << " " << density;
      // Not trivially zero: a sample's own radius is always reached.
      for (size_t i = 0; i < n; ++i) {
        if (radius[i] > 0.0f) {
          ASSERT_GE(outA[i], radius[i]) << i;
        }
      }
    }
  }
}

}  // namespace

namespace {

// Odd sizes, both grid scales, every chroma layout and the f-number limits, with random maps:
// each frame is written only inside its buffer (checked under AddressSanitizer) and a flat frame
// stays flat.
TEST(RenderSizes, SmallAndUnevenFramesStayInsideTheirBuffers) {
  const int32_t sizes[][4] = {{16, 16, 4, 4}, {18, 20, 5, 7}, {34, 22, 40, 30}, {1282, 20, 9, 4}, {1290, 42, 33, 5}};
  uint32_t seed = 7;
  for (const auto& sz : sizes) {
    for (int32_t format : {0, 2, 3}) {
      for (float f : {0.5f, 1.4f, 64.0f}) {
        const int32_t w = sz[0], h = sz[1], mw = sz[2], mh = sz[3];
        ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
        std::vector<uint8_t> map(static_cast<size_t>(mw) * mh);
        for (auto& m : map) {
          seed = seed * 1664525u + 1013904223u;
          m = static_cast<uint8_t>(seed >> 24);
        }
        Frame flat = make_frame(w, h, 90, 140);
        const std::vector<uint8_t> before = flat.data;
        ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(flat.luma(), flat.chroma(), map.data(), 0, 0, f, 0, 0, 0, w, h));
        for (size_t i = 0; i < before.size(); ++i)
          ASSERT_LE(std::abs(before[i] - flat.data[i]), 1) << w << "x" << h << " format " << format << " at " << i;
        Frame textured = make_textured(w, h, seed);
        ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(textured.luma(), textured.chroma(), map.data(), 0, 0, f, 0, 0, 0, w, h));
        vmKtrRT_GLClose();
      }
    }
  }
}

}  // namespace
