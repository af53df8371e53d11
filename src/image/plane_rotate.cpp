// plane_rotate.cpp - 8-bit plane turns (tiled and reference) and aligned plane memory.
#include "image/plane_rotate.h"

#include <algorithm>

#include "memory/heap.h"

void* plane_alloc(size_t size) {
  return heap_aligned_allocate(size, 16);
}
void plane_free(void* block) {
  heap_aligned_free(block);
}

namespace {

// Where source (y, x) lands in the destination, for each degree.
inline size_t destIndex(int32_t degree, int32_t x, int32_t y, int32_t w, int32_t h, int32_t dstStride) {
  switch (degree) {
    case kRotate90:
      return static_cast<size_t>(x) * static_cast<size_t>(dstStride) + static_cast<size_t>(h - 1 - y);
    case kRotate270:
      return static_cast<size_t>(w - 1 - x) * static_cast<size_t>(dstStride) + static_cast<size_t>(y);
    default:  // kRotate180
      return static_cast<size_t>(h - 1 - y) * static_cast<size_t>(dstStride) + static_cast<size_t>(w - 1 - x);
  }
}

bool usable(const uint8_t* src, int32_t w, int32_t h, const uint8_t* dst, int32_t degree) {
  return src != nullptr && dst != nullptr && w > 0 && h > 0 &&
         (degree == kRotate90 || degree == kRotate180 || degree == kRotate270);
}

// Tile edge: a 32 x 32 block of source and destination stays in L1 on every target.
constexpr int32_t kTile = 32;

}  // namespace

void plane_rotate_u8_reference(const uint8_t* src, int32_t w, int32_t h, int32_t srcStride, uint8_t* dst,
                               int32_t dstStride, int32_t degree) {
  if (!usable(src, w, h, dst, degree)) return;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x)
      dst[destIndex(degree, x, y, w, h, dstStride)] =
          src[static_cast<size_t>(y) * static_cast<size_t>(srcStride) + static_cast<size_t>(x)];
}

void plane_rotate_u8(const uint8_t* src, int32_t w, int32_t h, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                     int32_t degree) {
  if (!usable(src, w, h, dst, degree)) return;
  if (degree == kRotate180) {
    // Rows reversed end to end: contiguous on both sides, no tiling needed.
    for (int32_t y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<size_t>(y) * static_cast<size_t>(srcStride);
      uint8_t* d = dst + static_cast<size_t>(h - 1 - y) * static_cast<size_t>(dstStride);
      std::reverse_copy(s, s + w, d);
    }
    return;
  }
  const ptrdiff_t ds = dstStride;
  for (int32_t ty = 0; ty < h; ty += kTile) {
    const int32_t yEnd = std::min(h, ty + kTile);
    for (int32_t tx = 0; tx < w; tx += kTile) {
      const int32_t xEnd = std::min(w, tx + kTile);
      if (degree == kRotate90) {
        // Destination row x takes source column x read bottom-up.
        for (int32_t x = tx; x < xEnd; ++x) {
          uint8_t* d = dst + x * ds + (h - 1 - ty);
          const uint8_t* s = src + static_cast<ptrdiff_t>(ty) * srcStride + x;
          for (int32_t y = ty; y < yEnd; ++y, s += srcStride, --d) *d = *s;
        }
      } else {
        // Destination row w-1-x takes source column x read top-down.
        for (int32_t x = tx; x < xEnd; ++x) {
          uint8_t* d = dst + (w - 1 - x) * ds + ty;
          const uint8_t* s = src + static_cast<ptrdiff_t>(ty) * srcStride + x;
          for (int32_t y = ty; y < yEnd; ++y, s += srcStride, ++d) *d = *s;
        }
      }
    }
  }
}
