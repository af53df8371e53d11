// bokeh_cpu_blur.cpp - the CPU bokeh renderer's gathers: disc-shaped sums over a summed-area
// table of the grid, the background and foreground layers built from them, and the dilation of
// the foreground's radius.
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "bokeh_cpu_internal.h"

namespace {

// Box and disc sums over the summed-area table (4 words per entry: weight and weighted Y, U, V).
// The four words of an entry are one 4-lane vector (SSE2 / NEON) or, in the plain code, four
// scalars; unsigned sums wrap alike, so both give the same words.
struct Sums {
  uint32_t w, y, u, v;
};
typedef uint32_t Vec4u __attribute__((vector_size(16)));

inline void box_add(const uint32_t* sat, int32_t satW, int32_t x0, int32_t y0, int32_t x1, int32_t y1, int32_t sign,
                    Sums* s) {
  // Inclusive box [x0, x1] x [y0, y1]; the table has one leading zero row and column.
  const uint32_t* a = sat + (static_cast<size_t>(y0) * satW + x0) * 4;
  const uint32_t* b = sat + (static_cast<size_t>(y0) * satW + x1 + 1) * 4;
  const uint32_t* c = sat + (static_cast<size_t>(y1 + 1) * satW + x0) * 4;
  const uint32_t* d = sat + (static_cast<size_t>(y1 + 1) * satW + x1 + 1) * 4;
  const uint32_t sw = d[0] - b[0] - c[0] + a[0], sy = d[1] - b[1] - c[1] + a[1];
  const uint32_t su = d[2] - b[2] - c[2] + a[2], sv = d[3] - b[3] - c[3] + a[3];
  if (sign > 0) {
    s->w += sw, s->y += sy, s->u += su, s->v += sv;
  } else {
    s->w -= sw, s->y -= sy, s->u -= su, s->v -= sv;
  }
}

inline Vec4u sat_entry(const uint32_t* sat, int32_t satW, int32_t x, int32_t y) {
  Vec4u e;
  memcpy(&e, sat + (static_cast<size_t>(y) * satW + x) * 4, sizeof(e));
  return e;
}
inline Vec4u box_vector(const uint32_t* sat, int32_t satW, int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
  return sat_entry(sat, satW, x1 + 1, y1 + 1) - sat_entry(sat, satW, x1 + 1, y0) - sat_entry(sat, satW, x0, y1 + 1) +
         sat_entry(sat, satW, x0, y0);
}

// Disc of integer level n approximated by two crossed boxes (n x m and m x n, m = 0.6 n; a plus
// sign for n = 1), clipped to the grid.
inline int32_t disc_minor(int32_t n) {
  return n == 1 ? 0 : static_cast<int32_t>(0.6f * n + 0.5f);
}

constexpr float kSingleLevelRadius = 6.0f;

// Sums over the disc of level n around (x, y); returns the reciprocal of the samples covered.
float disc_sums(const uint32_t* sat, int32_t gw, int32_t gh, int32_t x, int32_t y, int32_t n, const DiscTable& table,
                bool plain, Sums* s) {
  const int32_t a = n;
  const int32_t b = disc_minor(n);
  const int32_t satW = gw + 1;
  auto lo = [](int32_t v) { return v < 0 ? 0 : v; };
  const int32_t ax0 = lo(x - a), ax1 = x + a < gw ? x + a : gw - 1;
  const int32_t ay0 = lo(y - a), ay1 = y + a < gh ? y + a : gh - 1;
  const int32_t bx0 = lo(x - b), bx1 = x + b < gw ? x + b : gw - 1;
  const int32_t by0 = lo(y - b), by1 = y + b < gh ? y + b : gh - 1;
  if (plain) {
    *s = Sums{0, 0, 0, 0};
    box_add(sat, satW, ax0, by0, ax1, by1, 1, s);
    if (b < a) {
      box_add(sat, satW, bx0, ay0, bx1, ay1, 1, s);
      box_add(sat, satW, bx0, by0, bx1, by1, -1, s);
    }
  } else {
    Vec4u v = box_vector(sat, satW, ax0, by0, ax1, by1);
    if (b < a) v += box_vector(sat, satW, bx0, ay0, bx1, ay1) - box_vector(sat, satW, bx0, by0, bx1, by1);
    memcpy(s, &v, sizeof(v));
  }
  if (x - a >= 0 && x + a < gw && y - a >= 0 && y + a < gh) return table.inv[n];
  int32_t count = (ax1 - ax0 + 1) * (by1 - by0 + 1);
  if (b < a) count += (bx1 - bx0 + 1) * (ay1 - ay0 + 1) - (bx1 - bx0 + 1) * (by1 - by0 + 1);
  return 1.0f / static_cast<float>(count);
}
// Disc of fractional radius r (the choice depends on r alone).
DiscLevel disc_level(float r, const DiscTable& table) {
  const float* r2 = table.r2;
  const float want = r * r;
  int32_t n = static_cast<int32_t>(0.7f * r);
  n = n > kDiscLevels - 2 ? kDiscLevels - 2 : n;
  while (n > 0 && r2[n] > want) --n;
  while (n + 2 < kDiscLevels && r2[n + 1] <= want) ++n;
  float f = (want - r2[n]) / (r2[n + 1] - r2[n]);
  f = f < 0.0f ? 0.0f : (f > 1.0f ? 1.0f : f);
  // Past a few samples the nearer level alone is close enough (and half the work).
  if (r >= kSingleLevelRadius) f = f < 0.5f ? 0.0f : 1.0f;
  return DiscLevel{n, f};
}

// The mixture's normalised float sums (w, wY, wU, wV).
struct DiscSums {
  float w, y, u, v;
};
DiscSums disc_sums_frac(const uint32_t* sat, int32_t gw, int32_t gh, int32_t x, int32_t y, DiscLevel level,
                        const DiscTable& table, bool plain) {
  const int32_t n = level.n;
  const float f = level.f;
  if (f >= 1.0f) {
    Sums c;
    const float k = disc_sums(sat, gw, gh, x, y, n + 1, table, plain, &c);
    return DiscSums{c.w * k, c.y * k, c.u * k, c.v * k};
  }
  Sums a, b;
  const float ia = disc_sums(sat, gw, gh, x, y, n, table, plain, &a);
  if (f <= 0.0f) return DiscSums{a.w * ia, a.y * ia, a.u * ia, a.v * ia};
  const float ib = disc_sums(sat, gw, gh, x, y, n + 1, table, plain, &b);
  // Each level normalised by its own sample count, so that f mixes the two kernels.
  const float ka = (1.0f - f) * ia, kb = f * ib;
  return DiscSums{ka * a.w + kb * b.w, ka * a.y + kb * b.y, ka * a.u + kb * b.u, ka * a.v + kb * b.v};
}

// Table of (w, w*Y, w*U, w*V) from per-sample weights and the grid colour.
void build_sat(uint32_t* sat, const uint32_t* weight, const float* colour, int32_t gw, int32_t gh) {
  const size_t plane = static_cast<size_t>(gw) * gh;
  const int32_t satW = gw + 1;
  memset(sat, 0, static_cast<size_t>(satW) * 4 * sizeof(uint32_t));
  for (int32_t y = 0; y < gh; ++y) {
    uint32_t* row = sat + static_cast<size_t>(y + 1) * satW * 4;
    const uint32_t* above = row - static_cast<size_t>(satW) * 4;
    row[0] = row[1] = row[2] = row[3] = 0;
    uint32_t rw = 0, ry = 0, ru = 0, rv = 0;
    for (int32_t x = 0; x < gw; ++x) {
      const size_t i = static_cast<size_t>(y) * gw + x;
      const uint32_t w = weight[i];
      rw += w;
      ry += w * static_cast<uint32_t>(colour[i] + 0.5f);
      ru += w * static_cast<uint32_t>(colour[plane + i] + 0.5f);
      rv += w * static_cast<uint32_t>(colour[2 * plane + i] + 0.5f);
      uint32_t* e = row + (x + 1) * 4;
      const uint32_t* up = above + (x + 1) * 4;
      e[0] = up[0] + rw, e[1] = up[1] + ry, e[2] = up[2] + ru, e[3] = up[3] + rv;
    }
  }
}

}  // namespace

void bokeh_disc_table(DiscTable* t) {
  auto boxMoment = [](double a, double b) { return (2 * b + 1) * a * (a + 1) * (2 * a + 1) / 3; };
  for (int32_t n = 0; n < kDiscLevels; ++n) {
    const int32_t a = n, b = disc_minor(n);
    const int32_t count = (2 * a + 1) * (2 * b + 1) * 2 - (2 * b + 1) * (2 * b + 1);
    const double moment = boxMoment(a, b) + boxMoment(b, a) - boxMoment(b, b);
    t->r2[n] = static_cast<float>(4.0 * moment / count);
    t->inv[n] = 1.0f / static_cast<float>(count);
  }
}

namespace {

// Background gather weights: sharp samples and the foreground weigh nothing (no bleeding of the
// subject), slightly blurred samples little (a gather of a larger radius would spread them beyond
// their own reach), and the highlight gain comes from the cell's brightest pixel so that small
// lights do not average away.
void background_weights(RenderWork* work, bool anyNear, float radiusPerLevel) {
  const size_t plane = static_cast<size_t>(work->gridWidth) * work->gridHeight;
  uint32_t highlight[256];
  for (int32_t v = 0; v < 256; ++v) {
    const float e = v > kHighlightStart ? (v - kHighlightStart) / (255.0f - kHighlightStart) : 0.0f;
    highlight[v] = static_cast<uint32_t>(16.0f * (1.0f + kHighlightGain * e * e) + 0.5f);
  }
  for (size_t i = 0; i < plane; ++i) {
    const float lowestRadius = work->lowestLevel[i] * radiusPerLevel;
    const float cover = clampf((lowestRadius - 0.25f) / kCoverRampCells, 0.0f, 1.0f);
    const bool isNear = anyNear && work->nearRadius[i] > 0.0f;
    const uint32_t w = isNear ? 0 : static_cast<uint32_t>(cover * kCoverScale + 0.5f);
    work->weight[i] = w * highlight[work->peak[i]];
  }
}

// Largest radius of each sample and its two row neighbours.
void radius_max3_rows(const float* coc, int32_t gw, int32_t gh, float* radiusMax3) {
  for (int32_t gy = 0; gy < gh; ++gy) {
    const float* c = coc + static_cast<size_t>(gy) * gw;
    float* o = radiusMax3 + static_cast<size_t>(gy) * gw;
    for (int32_t gx = 0; gx < gw; ++gx) {
      const float l = c[gx > 0 ? gx - 1 : 0], r = c[gx + 1 < gw ? gx + 1 : gx];
      const float m = l > r ? l : r;
      o[gx] = c[gx] > m ? c[gx] : m;
    }
  }
}

// Foreground gather weights: the near samples alone, by how far past the blend start they are.
void foreground_weights(RenderWork* work) {
  const size_t plane = static_cast<size_t>(work->gridWidth) * work->gridHeight;
  const float* nearRadius = work->nearRadius;
  for (size_t i = 0; i < plane; ++i) {
    const float cover = clampf((nearRadius[i] - 0.25f) / 0.75f, 0.0f, 1.0f);
    work->weight[i] = nearRadius[i] > 0.0f ? static_cast<uint32_t>(cover * kCoverScale + 0.5f) : 0;
  }
}

}  // namespace

void bokeh_background_layer(RenderWork* work, bool anyNear, float radiusPerLevel, const DiscTable& discs,
                            DiscLevelCache* cache) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const size_t plane = static_cast<size_t>(gw) * gh;
  const bool plain = work->plainOnly != 0;
  const float* coc = work->coc;
  const float* colour = work->colour;
  const float* radiusMax3 = work->radiusMax3;
  float* blurred = work->blurred;
  background_weights(work, anyNear, radiusPerLevel);
  build_sat(work->sat, work->weight, colour, gw, gh);
  radius_max3_rows(coc, gw, gh, work->radiusMax3);
  for (int32_t gy = 0; gy < gh; ++gy) {
    for (int32_t gx = 0; gx < gw; ++gx) {
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      // The grid's own averaging and the upsampling blur by about one grid sample already;
      // the gather supplies the rest (radii add in quadrature). At least radius 1, so that the
      // subject's samples learn the background colour next to them.
      const float c = coc[i];
      // Only where some grid sample around is blurred does anyone read this one's background.
      const float* up = radiusMax3 + static_cast<size_t>(gy > 0 ? gy - 1 : 0) * gw;
      const float* down = radiusMax3 + static_cast<size_t>(gy + 1 < gh ? gy + 1 : gy) * gw;
      float around = radiusMax3[i] > up[gx] ? radiusMax3[i] : up[gx];
      around = down[gx] > around ? down[gx] : around;
      if (around <= kBlendStartCells) {
        blurred[i] = colour[i], blurred[plane + i] = colour[plane + i], blurred[2 * plane + i] = colour[2 * plane + i];
        continue;
      }
      if (c != cache->radius) {
        cache->radius = c;
        cache->level = disc_level(c > 1.4142f ? sqrtf(c * c - 1.0f) : 1.0f, discs);
      }
      const DiscSums d = disc_sums_frac(work->sat, gw, gh, gx, gy, cache->level, discs, plain);
      if (d.w <= 0.0f) {
        blurred[i] = colour[i], blurred[plane + i] = colour[plane + i], blurred[2 * plane + i] = colour[2 * plane + i];
      } else {
        const float inv = 1.0f / d.w;
        blurred[i] = d.y * inv, blurred[plane + i] = d.u * inv, blurred[2 * plane + i] = d.v * inv;
      }
    }
  }
}

void bokeh_foreground_layer(RenderWork* work, const DiscTable& discs) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const bool plain = work->plainOnly != 0;
  float* front = work->front;
  const float* dil = work->nearDilated;
  render_near_dilate(work->nearRadius, gw, gh, work->dilateScratch, work->nearDilated, work->plainOnly != 0);
  foreground_weights(work);
  build_sat(work->sat, work->weight, work->colour, gw, gh);
  // A cache of its own: the background maps a radius to a smaller gather disc (the grid's own
  // blur taken out), and near and far samples equally far from the focus plane share a radius.
  DiscLevelCache cache{-1.0f, DiscLevel{0, 0.0f}};
  for (int32_t gy = 0; gy < gh; ++gy) {
    for (int32_t gx = 0; gx < gw; ++gx) {
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      float* f = front + 4 * i;
      if (dil[i] < 0.5f) {
        f[0] = f[1] = f[2] = f[3] = 0.0f;
        continue;
      }
      if (dil[i] != cache.radius) {
        cache.radius = dil[i];
        cache.level = disc_level(dil[i], discs);
      }
      const DiscSums d = disc_sums_frac(work->sat, gw, gh, gx, gy, cache.level, discs, plain);
      if (d.w <= 0.0f) {
        f[0] = f[1] = f[2] = f[3] = 0.0f;
        continue;
      }
      // Colour premultiplied by alpha, ready to lay over the background. Alpha is the covered
      // share of the disc as it is: boosted, the near object's blur covered the in-focus subject
      // and the background behind it more than a lens does (1.5 x lost 2 to 4 dB by near edges
      // against the light-field refocus).
      const float alpha = clampf(d.w / kCoverScale, 0.0f, 1.0f);
      const float scale = alpha / d.w;
      f[0] = d.y * scale, f[1] = d.u * scale, f[2] = d.v * scale, f[3] = alpha;
    }
  }
}

// Largest near radius within reach, separably (rows, then columns): out = the largest r of the
// samples s along the axis with r >= |distance to s|. The plain code gathers over the whole reach
// at every sample; the fast code spreads each near sample over its own reach along the row (near
// samples are few and mostly small), and then whole rows at once over the column (4 lanes, rows
// without a near sample skipped). Both take maxima of the same values, so they agree exactly.
void render_near_dilate(const float* nearRadius, int32_t gw, int32_t gh, float* tmp, float* out, int32_t plain) {
  const int32_t reach = static_cast<int32_t>(kMaxGridRadius + 0.5f);
  const size_t plane = static_cast<size_t>(gw) * gh;
  if (plain) {
    for (int32_t gy = 0; gy < gh; ++gy) {
      for (int32_t gx = 0; gx < gw; ++gx) {
        float m = 0.0f;
        const int32_t x0 = gx - reach < 0 ? 0 : gx - reach, x1 = gx + reach >= gw ? gw - 1 : gx + reach;
        for (int32_t x = x0; x <= x1; ++x) {
          const float r = nearRadius[static_cast<size_t>(gy) * gw + x];
          if (r >= static_cast<float>(abs(x - gx)) && r > m) m = r;
        }
        tmp[static_cast<size_t>(gy) * gw + gx] = m;
      }
    }
    for (int32_t gy = 0; gy < gh; ++gy) {
      for (int32_t gx = 0; gx < gw; ++gx) {
        float m = 0.0f;
        const int32_t y0 = gy - reach < 0 ? 0 : gy - reach, y1 = gy + reach >= gh ? gh - 1 : gy + reach;
        for (int32_t y = y0; y <= y1; ++y) {
          const float r = tmp[static_cast<size_t>(y) * gw + gx];
          if (r >= static_cast<float>(abs(y - gy)) && r > m) m = r;
        }
        out[static_cast<size_t>(gy) * gw + gx] = m;
      }
    }
    return;
  }
  memset(out, 0, plane * sizeof(float));
  for (int32_t gy = 0; gy < gh; ++gy) {
    const float* src = nearRadius + static_cast<size_t>(gy) * gw;
    float* t = tmp + static_cast<size_t>(gy) * gw;
    memset(t, 0, static_cast<size_t>(gw) * sizeof(float));
    float rowMax = 0.0f;
    for (int32_t x = 0; x < gw; ++x) {
      const float r = src[x];
      if (!(r > 0.0f)) continue;  // zero (not near) and NaN never count
      // r >= d for a whole distance d exactly when floor(r) >= d; clamped before converting.
      const int32_t k = r >= static_cast<float>(reach) ? reach : static_cast<int32_t>(r);
      const int32_t lo = x - k < 0 ? 0 : x - k, hi = x + k >= gw ? gw - 1 : x + k;
      for (int32_t g = lo; g <= hi; ++g) t[g] = r > t[g] ? r : t[g];
      rowMax = r > rowMax ? r : rowMax;
    }
    if (rowMax <= 0.0f) continue;
    // Spread this row over the rows within its largest radius: a sample reaches the row d away
    // when its value is at least d.
    const int32_t k = rowMax >= static_cast<float>(reach) ? reach : static_cast<int32_t>(rowMax);
    const int32_t y0 = gy - k < 0 ? 0 : gy - k, y1 = gy + k >= gh ? gh - 1 : gy + k;
    for (int32_t y = y0; y <= y1; ++y) {
      const float d = static_cast<float>(abs(y - gy));
      float* o = out + static_cast<size_t>(y) * gw;
      const Vec4 dv = {d, d, d, d};
      int32_t x = 0;
      for (; x + 4 <= gw; x += 4) {
        Vec4 v, m;
        memcpy(&v, t + x, sizeof(v));
        memcpy(&m, o + x, sizeof(m));
        // v where v >= d, else 0; then the larger of that and what is there (all values >= 0).
        const Vec4 reached = reinterpret_cast<Vec4>(reinterpret_cast<Vec4i>(v) & (v >= dv));
        const Vec4i larger = reached > m;
        m = reinterpret_cast<Vec4>((reinterpret_cast<Vec4i>(reached) & larger) |
                                   (reinterpret_cast<Vec4i>(m) & ~larger));
        memcpy(o + x, &m, sizeof(m));
      }
      for (; x < gw; ++x) {
        const float v = t[x] >= d ? t[x] : 0.0f;
        o[x] = v > o[x] ? v : o[x];
      }
    }
  }
}
