// The renderer's chroma lands where its luma does: on both grid scales and every chroma layout,
// no colour from outside a pixel's blur disc reaches it, and the layouts agree sample for sample.
#include <cmath>

#include "renderer_test_util.h"

namespace {

struct Planes {
  std::vector<uint8_t> u, v;
};

// Writes U and V planes (cw x ch each) into a frame's chroma in the layout of the format code.
void put_chroma(Frame& f, int32_t format, const Planes& p) {
  uint8_t* c = f.chroma();
  const size_t n = p.u.size();
  for (size_t i = 0; i < n; ++i) {
    if (format == 2) {
      c[i] = p.u[i], c[n + i] = p.v[i];
    } else if (format == 3) {
      c[2 * i] = p.u[i], c[2 * i + 1] = p.v[i];
    } else {
      c[2 * i] = p.v[i], c[2 * i + 1] = p.u[i];
    }
  }
}

Planes get_chroma(Frame& f, int32_t format) {
  const size_t n = static_cast<size_t>(f.width / 2) * (f.height / 2);
  Planes p{std::vector<uint8_t>(n), std::vector<uint8_t>(n)};
  const uint8_t* c = f.chroma();
  for (size_t i = 0; i < n; ++i) {
    if (format == 2) {
      p.u[i] = c[i], p.v[i] = c[n + i];
    } else if (format == 3) {
      p.u[i] = c[2 * i], p.v[i] = c[2 * i + 1];
    } else {
      p.v[i] = c[2 * i], p.u[i] = c[2 * i + 1];
    }
  }
  return p;
}

// A sharp coloured column (map 0) at the left of a blurred grey background (map 255). Every
// chroma sample farther right than the largest blur reach from the column must stay grey; a
// displaced gather shows the column's colour there (a ghost of the subject).
TEST(RenderChroma, NoColourFromOutsideTheDiscOnEitherGridScale) {
  for (int32_t w : {320, 1280}) {
    constexpr int32_t h = 32;
    const int32_t mw = w / 4, mh = 8;
    const int32_t subjectStart = w / 10, subjectEnd = w / 4;  // luma columns, a multiple of 4
    for (int32_t format : {0, 2, 3}) {
      ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
      ASSERT_EQ(w >= 1280 ? 4 : 2, g_renderer.work.scale);
      std::vector<uint8_t> map(static_cast<size_t>(mw) * mh, 255);
      Frame f = make_frame(w, h, 100, 128);
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) f.y(x, y) = x % 2 ? 80 : 120;  // stripes the blur smooths
      Planes p{std::vector<uint8_t>(static_cast<size_t>(w / 2) * (h / 2), 128),
               std::vector<uint8_t>(static_cast<size_t>(w / 2) * (h / 2), 128)};
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = subjectStart; x < subjectEnd; ++x) {
          f.y(x, y) = 120;
          map[static_cast<size_t>(y * mh / h) * mw + x / 4] = 0;
          p.u[static_cast<size_t>(y / 2) * (w / 2) + x / 2] = 60;
          p.v[static_cast<size_t>(y / 2) * (w / 2) + x / 2] = 220;
        }
      put_chroma(f, format, p);
      ASSERT_EQ(RGL_OK, vmKtrRT_GLStartV1(f.luma(), f.chroma(), map.data(), 0, 0, 1.4f, 0, 0, 0, w, h));
      const Planes out = get_chroma(f, format);
      // Twice the largest radius at f/1.4 plus two grid cells bounds any disc, its shape and the
      // upsampling.
      const int32_t reach = static_cast<int32_t>(2 * render_max_radius(w, 1.4f) + 1) + 2 * g_renderer.work.scale;
      for (int32_t cy = 0; cy < h / 2; ++cy)
        for (int32_t cx = (subjectEnd + reach) / 2; cx < w / 2; ++cx) {
          const size_t i = static_cast<size_t>(cy) * (w / 2) + cx;
          ASSERT_LE(std::abs(out.u[i] - 128), 1) << w << " format " << format << " at " << 2 * cx << "," << 2 * cy;
          ASSERT_LE(std::abs(out.v[i] - 128), 1) << w << " format " << format << " at " << 2 * cx << "," << 2 * cy;
        }
      // The blur did happen there (the stripes are gone), and the sharp column kept its colour.
      for (int32_t x = subjectEnd + reach; x < w; ++x) ASSERT_LE(std::abs(f.y(x, h / 2) - 100), 6) << w << " at " << x;
      const size_t mid = static_cast<size_t>(h / 4) * (w / 2) + (subjectStart + subjectEnd) / 4;
      EXPECT_EQ(60, out.u[mid]) << w << " format " << format;
      EXPECT_EQ(220, out.v[mid]) << w << " format " << format;
      vmKtrRT_GLClose();
    }
  }
}

// The three chroma layouts render one textured picture to the same U and V planes, with and
// without a foreground layer, on both grid scales: interleaved rows take their own fast path,
// planar ones the general code, and both must sample the background layer at the same places.
TEST(RenderChroma, LayoutsGiveTheSamePlanes) {
  const int32_t sizes[][2] = {{322, 40}, {1290, 24}};
  for (const auto& sz : sizes) {
    const int32_t w = sz[0], h = sz[1], mw = 80, mh = 10;
    std::vector<uint8_t> map(static_cast<size_t>(mw) * mh), nearMask(map.size(), 0);
    for (int32_t y = 0; y < mh; ++y)
      for (int32_t x = 0; x < mw; ++x)
        map[static_cast<size_t>(y) * mw + x] = static_cast<uint8_t>((x * 7 + y * 13) & 255);
    for (int32_t x = 60; x < 64; ++x) nearMask[static_cast<size_t>(mh / 2) * mw + x] = 1;  // one near patch
    const Frame source = make_textured(w, h, 5);
    const uint8_t* masks[] = {nullptr, nearMask.data()};
    for (const uint8_t* mask : masks) {
      Planes reference;
      for (int32_t format : {2, 0, 3}) {
        ASSERT_EQ(RGL_OK, vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, w, h, mw, mh, mw, mh, w, h, 0, 0, format, 0));
        Frame f = source;
        Frame planar = source;
        put_chroma(f, format, get_chroma(planar, 2));  // the same picture in this layout
        render_bokeh(&g_renderer.work, f.luma(), f.chroma(), w, h, renderer_chroma_layout(format), map.data(), mask, mw,
                     mh, 1.4f);
        const Planes out = get_chroma(f, format);
        if (format == 2) {
          reference = out;
          EXPECT_FALSE(out.v == get_chroma(planar, 2).v) << w;  // something was blurred
        } else {
          for (size_t i = 0; i < out.u.size(); ++i) {
            ASSERT_LE(std::abs(out.u[i] - reference.u[i]), 1)
                << w << " format " << format << " mask " << (mask != nullptr) << " at " << i;
            ASSERT_LE(std::abs(out.v[i] - reference.v[i]), 1)
                << w << " format " << format << " mask " << (mask != nullptr) << " at " << i;
          }
        }
        vmKtrRT_GLClose();
      }
    }
  }
}

}  // namespace
