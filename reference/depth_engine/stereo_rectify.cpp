// stereo_rectify.cpp - the depth engine's rectifying warp: bilinear resampling of a plane through
// a homography, optionally mirrored.
#include "stereo_rectify.h"

#include <stddef.h>

#include "calib_block.h"

namespace {

// Clamps a source coordinate into [0, last]. Written so that NaN lands at 0: no coordinate that
// reaches an int conversion is NaN or beyond the plane.
inline float clamp_coord(float v, float last) {
  return v > 0.0f ? (v < last ? v : last) : 0.0f;
}

}  // namespace

void stereo_warp_plane(const uint8_t* src, int32_t w, int32_t h, const float hm[9], bool mirror, uint8_t* dst) {
  if (src == nullptr || dst == nullptr || w < 1 || h < 1) return;
  const float lastX = float(w - 1), lastY = float(h - 1);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      const int32_t rx = mirror ? w - 1 - x : x;
      float fx = float(rx), fy = float(y);
      // A point the homography sends to infinity or to a non-finite value reads as outside.
      if (hm != nullptr && !calib_homography_apply(hm, float(rx), float(y), &fx, &fy)) fx = -1.0f, fy = -1.0f;
      if (fx != fx || fy != fy) fx = -1.0f, fy = -1.0f;
      fx = clamp_coord(fx, lastX);
      fy = clamp_coord(fy, lastY);
      const int32_t x0 = int32_t(fx), y0 = int32_t(fy);
      const int32_t x1 = x0 + 1 < w ? x0 + 1 : x0, y1 = y0 + 1 < h ? y0 + 1 : y0;
      const float tx = fx - float(x0), ty = fy - float(y0);
      const uint8_t* r0 = src + size_t(y0) * size_t(w);
      const uint8_t* r1 = src + size_t(y1) * size_t(w);
      const float top = r0[x0] * (1 - tx) + r0[x1] * tx;
      const float bottom = r1[x0] * (1 - tx) + r1[x1] * tx;
      dst[size_t(y) * size_t(w) + size_t(x)] = uint8_t(top * (1 - ty) + bottom * ty + 0.5f);
    }
  }
}
