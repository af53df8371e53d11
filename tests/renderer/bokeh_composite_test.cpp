// The full-resolution composite on the 4 x 4 grid, checked against a per-pixel recomputation from
// the grid the renderer left behind; and the plain and vector disc sums on the 2 x 2 grid.
#include <cmath>

#include "renderer_test_util.h"

namespace {

// Bilinear sample of a grid plane at grid position (gx, gy), clamped into the grid.
float grid_at(const float* plane, int32_t gw, int32_t gh, float gx, float gy) {
  gx = std::fmin(std::fmax(gx, 0.0f), static_cast<float>(gw - 1));
  gy = std::fmin(std::fmax(gy, 0.0f), static_cast<float>(gh - 1));
  const int32_t x0 = static_cast<int32_t>(gx), y0 = static_cast<int32_t>(gy);
  const int32_t x1 = x0 + 1 < gw ? x0 + 1 : x0, y1 = y0 + 1 < gh ? y0 + 1 : y0;
  const float fx = gx - x0, fy = gy - y0;
  auto at = [&](int32_t x, int32_t y) { return plane[static_cast<size_t>(y) * gw + x]; };
  const float top = at(x0, y0) + fx * (at(x1, y0) - at(x0, y0));
  const float bottom = at(x0, y1) + fx * (at(x1, y1) - at(x0, y1));
  return top + fy * (bottom - top);
}

// Spread of the four grid radii around a pixel: where it exceeds one cell the radius is
// edge-guided, which this recomputation leaves out.
float radius_spread(const float* coc, int32_t gw, int32_t gh, float gx, float gy) {
  gx = std::fmin(std::fmax(gx, 0.0f), static_cast<float>(gw - 1));
  gy = std::fmin(std::fmax(gy, 0.0f), static_cast<float>(gh - 1));
  const int32_t x0 = static_cast<int32_t>(gx), y0 = static_cast<int32_t>(gy);
  const int32_t x1 = x0 + 1 < gw ? x0 + 1 : x0, y1 = y0 + 1 < gh ? y0 + 1 : y0;
  const float r[4] = {coc[y0 * gw + x0], coc[y0 * gw + x1], coc[y1 * gw + x0], coc[y1 * gw + x1]};
  return std::fmax(std::fmax(r[0], r[1]), std::fmax(r[2], r[3])) -
         std::fmin(std::fmin(r[0], r[1]), std::fmin(r[2], r[3]));
}

// Away from edges of the map every pixel is p + t (B - p) with t from the bilinear radius and B
// the bilinear background layer; chroma takes t of its block's top-left pixel and B at its own
// position. Sharp, ramping and fully blurred stretches all occur, and the frame's width is no
// multiple of the cell so that the last partial block is seen.
TEST(RenderComposite, FourByFourGridMatchesAPerPixelRecomputation) {
  constexpr int32_t w = 1286, h = 724, mw = 160, mh = 90;
  std::vector<uint8_t> map(mw * mh);
  for (int32_t y = 0; y < mh; ++y)
    for (int32_t x = 0; x < mw; ++x)
      map[y * mw + x] = static_cast<uint8_t>(x < 40 ? 0 : (x < 100 ? (x - 40) * 4 : (y < 45 ? 255 : 120)));
  for (int32_t format : {0, 2, 3}) {
    ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
    ASSERT_EQ(4, g_renderer.work.scale);
    const Frame original = make_textured(w, h, 33);
    Frame f = original;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
    const RenderWork& work = g_renderer.work;
    const int32_t gw = work.gridWidth, gh = work.gridHeight;
    const size_t plane = static_cast<size_t>(gw) * gh;
    auto weight = [&](int32_t x, int32_t y) {
      const float c = grid_at(work.coc, gw, gh, (x + 0.5f) / 4 - 0.5f, (y + 0.5f) / 4 - 0.5f);
      return std::fmin(std::fmax((c - 0.25f) / 1.25f, 0.0f), 1.0f);  // ramp over 0.25 .. 1.5 cells
    };
    auto guided = [&](int32_t x, int32_t y) {
      return radius_spread(work.coc, gw, gh, (x + 0.5f) / 4 - 0.5f, (y + 0.5f) / 4 - 0.5f) > 0.9f;
    };
    int32_t sharp = 0, ramp = 0, full = 0, worst = 0;
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        if (guided(x, y)) continue;
        const float t = weight(x, y);
        const float b = grid_at(work.blurred, gw, gh, (x + 0.5f) / 4 - 0.5f, (y + 0.5f) / 4 - 0.5f);
        const float p = original.data[static_cast<size_t>(y) * w + x];
        const int32_t d =
            std::abs(f.data[static_cast<size_t>(y) * w + x] - static_cast<int32_t>(p + t * (b - p) + 0.5f));
        ASSERT_LE(d, 1) << "format " << format << " luma " << x << "," << y << " t " << t;
        worst = d > worst ? d : worst;
        (t == 0.0f ? sharp : (t == 1.0f ? full : ramp))++;
      }
    EXPECT_GT(sharp, w * h / 8);
    EXPECT_GT(full, w * h / 4);
    EXPECT_GT(ramp, w * h / 50);
    const int32_t cw = w / 2, ch = h / 2;
    const size_t cn = static_cast<size_t>(cw) * ch;
    for (int32_t y = 0; y < ch; ++y)
      for (int32_t x = 0; x < cw; ++x) {
        if (guided(2 * x, 2 * y)) continue;
        const float t = weight(2 * x, 2 * y);
        const size_t i = static_cast<size_t>(y) * cw + x;
        for (int32_t k = 0; k < 2; ++k) {  // k = 0: U, 1: V
          const float b = grid_at(work.blurred + (1 + k) * plane, gw, gh, (x + 0.5f) / 2 - 0.5f, (y + 0.5f) / 2 - 0.5f);
          const size_t at = format == 2 ? k * cn + i : 2 * i + (format == 3 ? k : 1 - k);
          const float p = original.data[static_cast<size_t>(w) * h + at];
          const int32_t got = f.data[static_cast<size_t>(w) * h + at];
          ASSERT_LE(std::abs(got - static_cast<int32_t>(p + t * (b - p) + 0.5f)), 1)
              << "format " << format << " chroma " << x << "," << y << " channel " << k;
        }
      }
    vmKtrRT_GLClose();
  }
}

// The disc sums' 4-lane table reads give the plain code's bytes on the 2 x 2 grid as well (the
// 4 x 4 grid is covered with the other vector kernels).
TEST(RenderVectorKernels, EqualToThePlainPathOnTheSmallGrid) {
  constexpr int32_t w = 646, h = 362, mw = 160, mh = 90;
  ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, 0, 0));
  ASSERT_EQ(2, g_renderer.work.scale);
  std::vector<uint8_t> map(mw * mh);
  for (int32_t y = 0; y < mh; ++y)
    for (int32_t x = 0; x < mw; ++x)
      map[y * mw + x] = static_cast<uint8_t>(x < 50 ? 0 : (x < 110 ? (x - 50) * 4 : 255));
  for (float f : {1.0f, 1.4f, 4.0f}) {
    Frame a = make_textured(w, h, 8);
    Frame b = a;
    const Frame original = a;
    g_renderer.work.plainOnly = 0;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(a.luma(), a.chroma(), map.data(), 0, 0, f, 0, 0, 0, w, h));
    g_renderer.work.plainOnly = 1;
    ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(b.luma(), b.chroma(), map.data(), 0, 0, f, 0, 0, 0, w, h));
    g_renderer.work.plainOnly = 0;
    EXPECT_TRUE(a.data == b.data) << "f/" << f;
    EXPECT_FALSE(a.data == original.data);
  }
  vmKtrRT_GLClose();
}

}  // namespace
