// eval_scores.cpp - the quality tools' shared scores (see eval_scores.h).
#include "eval_scores.h"

#include <math.h>

#include <algorithm>

void ErrorSum::add(const uint8_t* a, const uint8_t* b, const std::vector<uint8_t>& mask) {
  for (size_t i = 0; i < mask.size(); ++i) {
    if (!mask[i]) continue;
    const double d = double(a[i]) - double(b[i]);
    se += d * d;
    n += 1;
  }
}

double ErrorSum::psnr() const {
  if (n == 0) return 0;
  return se == 0 ? 99.0 : 10.0 * log10(255.0 * 255.0 / (se / n));
}

void edge_band(const std::vector<float>& disparity, int32_t w, int32_t h, int32_t reach, std::vector<uint8_t>* band) {
  band->assign(size_t(w) * size_t(h), 0);
  auto at = [&](int32_t x, int32_t y) {
    const float d = disparity[size_t(y) * size_t(w) + size_t(x)];
    return isfinite(d) ? d : 0.0f;
  };
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const float a = at(x, y);
      const bool edge =
          (x + 1 < w && fabsf(a - at(x + 1, y)) >= 1.0f) || (y + 1 < h && fabsf(a - at(x, y + 1)) >= 1.0f);
      if (!edge) continue;
      for (int32_t yy = std::max(0, y - reach); yy <= std::min(h - 1, y + reach); ++yy)
        for (int32_t xx = std::max(0, x - reach); xx <= std::min(w - 1, x + reach); ++xx)
          (*band)[size_t(yy) * size_t(w) + size_t(xx)] = 1;
    }
}

void sample_plane(const std::vector<uint8_t>& nv21, int32_t w, int32_t h, int32_t wd, int32_t hd, int32_t channel,
                  uint8_t* out) {
  const size_t n = size_t(w) * size_t(h);
  for (int32_t y = 0; y < hd; ++y)
    for (int32_t x = 0; x < wd; ++x) {
      const int32_t sx = int32_t(int64_t(x) * w / wd), sy = int32_t(int64_t(y) * h / hd);
      uint8_t v;
      if (channel == 0)
        v = nv21[size_t(sy) * size_t(w) + size_t(sx)];
      else
        v = nv21[n + size_t(sy / 2) * size_t(w) + size_t(sx / 2) * 2 + (channel == 1 ? 1 : 0)];
      out[size_t(y) * size_t(wd) + size_t(x)] = v;
    }
}
