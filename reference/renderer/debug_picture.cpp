// debug_picture.cpp - draws one debug picture (32-bit Y, Cb, Cr, alpha pixels) over the frame at
// its position and display size, nearest-neighbour scaled and alpha-blended.
#include "renderer_internal.h"

namespace {

inline uint8_t blend(uint8_t under, uint8_t over, uint32_t alpha) {
  return static_cast<uint8_t>((alpha * over + (255 - alpha) * under + 127) / 255);
}

}  // namespace

void debug_picture_draw(uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height, int32_t chromaLayout,
                        const DebugPictureEntry* e) {
  if (e == nullptr || e->data == nullptr || e->width <= 0 || e->height <= 0 || e->width > kMaxPreviewSide ||
      e->height > kMaxPreviewSide || e->displayWidth <= 0 || e->displayHeight <= 0) {
    return;
  }
  const int64_t x0 = e->x < 0 ? 0 : e->x, y0 = e->y < 0 ? 0 : e->y;
  const int64_t x1 =
      static_cast<int64_t>(e->x) + e->displayWidth < width ? static_cast<int64_t>(e->x) + e->displayWidth : width;
  const int64_t y1 =
      static_cast<int64_t>(e->y) + e->displayHeight < height ? static_cast<int64_t>(e->y) + e->displayHeight : height;
  uint8_t *u = nullptr, *v = nullptr;
  int32_t step = 2, stride = width;
  if (chromaLayout == CHROMA_PLANAR) {
    u = chroma;
    v = chroma + static_cast<size_t>(width / 2) * (height / 2);
    step = 1;
    stride = width / 2;
  } else if (chromaLayout == CHROMA_UV_INTERLEAVED) {
    u = chroma;
    v = chroma + 1;
  } else {
    v = chroma;
    u = chroma + 1;
  }
  for (int64_t py = y0; py < y1; ++py) {
    const int64_t sy = (py - e->y) * e->height / e->displayHeight;
    const uint8_t* src = e->data + static_cast<size_t>(sy) * e->width * 4;
    uint8_t* row = luma + static_cast<size_t>(py) * width;
    const bool chromaRow = (py & 1) == 0 && py / 2 < height / 2;
    for (int64_t px = x0; px < x1; ++px) {
      const int64_t sx = (px - e->x) * e->width / e->displayWidth;
      const uint8_t* p = src + sx * 4;
      const uint32_t a = p[3];
      if (a == 0) continue;
      row[px] = blend(row[px], p[0], a);
      if (chromaRow && (px & 1) == 0 && px / 2 < width / 2) {
        const size_t off = static_cast<size_t>(py / 2) * stride + static_cast<size_t>(px / 2) * step;
        u[off] = blend(u[off], p[1], a);
        v[off] = blend(v[off], p[2], a);
      }
    }
  }
}
