// bokeh_cpu.cpp - the CPU bokeh renderer: a quarter-resolution grid of colour and blur radius,
// disc-shaped gathers over a summed-area table (background layer without the sharp subject,
// foreground layer spread over what lies behind it), then an edge-guided composite at full
// resolution that leaves sharp pixels untouched.
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "renderer_internal.h"

namespace {

// Largest gather radius in grid pixels; keeps the 32-bit table sums exact (docs/renderer.md).
constexpr float kMaxGridRadius = 24.0f;
// Background weights and highlight gain: a sample weighs kCoverScale when fully blurred, times
// the highlight gain (16 = 1x .. 144 = 9x) of its luma.
constexpr uint32_t kCoverScale = 32;
constexpr float kHighlightStart = 200.0f;
constexpr float kHighlightGain = 8.0f;
// Range of the edge guide (luma levels) and the blend ramp of the full-resolution radius.
constexpr float kGuideSigma = 14.0f;
constexpr float kBlendStart = 0.5f;  // full-resolution pixels
constexpr float kBlendWidth = 2.5f;

struct ChromaAccess {
  uint8_t* u;
  uint8_t* v;
  int32_t step;    // bytes between neighbouring samples of one channel
  int32_t stride;  // bytes between rows
};

ChromaAccess chroma_access(uint8_t* chroma, int32_t width, int32_t height, int32_t layout) {
  ChromaAccess a;
  if (layout == CHROMA_PLANAR) {
    a.u = chroma;
    a.v = chroma + static_cast<size_t>(width / 2) * (height / 2);
    a.step = 1;
    a.stride = width / 2;
  } else {
    a.v = layout == CHROMA_VU_INTERLEAVED ? chroma : chroma + 1;
    a.u = layout == CHROMA_VU_INTERLEAVED ? chroma + 1 : chroma;
    a.step = 2;
    a.stride = width;
  }
  return a;
}

inline float clampf(float v, float lo, float hi) { return v < lo ? lo : (v > hi ? hi : v); }
inline uint8_t to_u8(float v) { return static_cast<uint8_t>(clampf(v + 0.5f, 0.0f, 255.0f)); }

// Bilinear sample of an 8-bit map at continuous map coordinates.
float map_sample(const uint8_t* map, int32_t mw, int32_t mh, float mx, float my) {
  mx = clampf(mx, 0.0f, static_cast<float>(mw - 1));
  my = clampf(my, 0.0f, static_cast<float>(mh - 1));
  const int32_t x0 = static_cast<int32_t>(mx), y0 = static_cast<int32_t>(my);
  const int32_t x1 = x0 + 1 < mw ? x0 + 1 : x0, y1 = y0 + 1 < mh ? y0 + 1 : y0;
  const float fx = mx - x0, fy = my - y0;
  const float top = map[y0 * mw + x0] + fx * (map[y0 * mw + x1] - map[y0 * mw + x0]);
  const float bottom = map[y1 * mw + x0] + fx * (map[y1 * mw + x1] - map[y1 * mw + x0]);
  return top + fy * (bottom - top);
}

// Box and disc sums over the summed-area table (4 words per entry: weight and weighted Y, U, V).
struct Sums {
  uint32_t w, y, u, v;
};

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

// Disc of radius r approximated by two crossed boxes (a x b and b x a, b = 0.6 a), clipped to
// the grid. Returns the number of grid samples covered.
int32_t disc_sums(const uint32_t* sat, int32_t gw, int32_t gh, int32_t x, int32_t y, float r, Sums* s) {
  const int32_t a = static_cast<int32_t>(r + 0.5f);
  const int32_t b = static_cast<int32_t>(0.6f * r + 0.5f);
  const int32_t satW = gw + 1;
  auto lo = [](int32_t v) { return v < 0 ? 0 : v; };
  const int32_t ax0 = lo(x - a), ax1 = x + a < gw ? x + a : gw - 1;
  const int32_t ay0 = lo(y - a), ay1 = y + a < gh ? y + a : gh - 1;
  const int32_t bx0 = lo(x - b), bx1 = x + b < gw ? x + b : gw - 1;
  const int32_t by0 = lo(y - b), by1 = y + b < gh ? y + b : gh - 1;
  *s = Sums{0, 0, 0, 0};
  box_add(sat, satW, ax0, by0, ax1, by1, 1, s);
  int32_t count = (ax1 - ax0 + 1) * (by1 - by0 + 1);
  if (b < a) {
    box_add(sat, satW, bx0, ay0, bx1, ay1, 1, s);
    box_add(sat, satW, bx0, by0, bx1, by1, -1, s);
    count += (bx1 - bx0 + 1) * (ay1 - ay0 + 1) - (bx1 - bx0 + 1) * (by1 - by0 + 1);
  }
  return count;
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

float render_max_radius(int32_t frameWidth, float fNumber) {
  if (!(fNumber == fNumber)) fNumber = kReferenceFNumber;  // NaN
  fNumber = clampf(fNumber, kMinFNumber, kMaxFNumber);
  return kMaxRadiusFraction * static_cast<float>(frameWidth) * kReferenceFNumber / fNumber;
}

int32_t render_work_alloc(RenderWork* work, int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight) {
  memset(work, 0, sizeof(*work));
  const int32_t gw = (width + kGridScale - 1) / kGridScale, gh = (height + kGridScale - 1) / kGridScale;
  const size_t plane = static_cast<size_t>(gw) * gh;
  work->gridWidth = gw;
  work->gridHeight = gh;
  work->coc = static_cast<float*>(malloc(plane * sizeof(float)));
  work->colour = static_cast<float*>(malloc(3 * plane * sizeof(float)));
  work->blurred = static_cast<float*>(malloc(3 * plane * sizeof(float)));
  work->front = static_cast<float*>(malloc(4 * plane * sizeof(float)));
  work->sat = static_cast<uint32_t*>(malloc(static_cast<size_t>(gw + 1) * (gh + 1) * 4 * sizeof(uint32_t)));
  work->nearDilated = static_cast<float*>(malloc(2 * plane * sizeof(float)));
  work->nearMap = static_cast<uint8_t*>(malloc(static_cast<size_t>(mapWidth) * mapHeight));
  work->rowT = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->rowA = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->weight = static_cast<uint32_t*>(malloc(plane * sizeof(uint32_t)));
  if (!work->coc || !work->colour || !work->blurred || !work->front || !work->sat || !work->nearDilated ||
      !work->nearMap || !work->rowT || !work->rowA || !work->weight) {
    render_work_free(work);
    return RGL_ERR_MEMORY;
  }
  return RGL_OK;
}

void render_work_free(RenderWork* work) {
  free(work->coc);
  free(work->colour);
  free(work->blurred);
  free(work->front);
  free(work->sat);
  free(work->nearDilated);
  free(work->nearMap);
  free(work->rowT);
  free(work->rowA);
  free(work->weight);
  memset(work, 0, sizeof(*work));
}

void render_bokeh(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height,
                  int32_t chromaLayout, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                  int32_t mapHeight, float fNumber) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const size_t plane = static_cast<size_t>(gw) * gh;
  const float radiusPerLevel = render_max_radius(width, fNumber) / kGridScale / 255.0f;
  const ChromaAccess ca = chroma_access(chroma, width, height, chromaLayout);
  const int32_t cw = width / 2, ch = height / 2;
  float* coc = work->coc;
  float* colour = work->colour;
  uint32_t* weight = work->weight;

  // 1. Grid: blur radius from the map at each grid sample's centre, colour as the 4 x 4 luma and
  //    2 x 2 chroma average.
  const float mxScale = static_cast<float>(mapWidth) / width, myScale = static_cast<float>(mapHeight) / height;
  bool anyBlur = false, anyNear = false;
  for (int32_t gy = 0; gy < gh; ++gy) {
    const int32_t y0 = gy * kGridScale;
    for (int32_t gx = 0; gx < gw; ++gx) {
      const int32_t x0 = gx * kGridScale;
      const float cx = static_cast<float>(x0) + 0.5f * kGridScale, cy = static_cast<float>(y0) + 0.5f * kGridScale;
      const float mx = cx * mxScale - 0.5f, my = cy * myScale - 0.5f;
      float c = map_sample(map, mapWidth, mapHeight, mx, my) * radiusPerLevel;
      c = c > kMaxGridRadius ? kMaxGridRadius : c;
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      coc[i] = c;
      anyBlur = anyBlur || c > 0.0f;
      uint32_t sum = 0, peak = 0;
      int32_t n = 0;
      for (int32_t dy = 0; dy < kGridScale && y0 + dy < height; ++dy) {
        const uint8_t* row = luma + static_cast<size_t>(y0 + dy) * width;
        for (int32_t dx = 0; dx < kGridScale && x0 + dx < width; ++dx, ++n) {
          sum += row[x0 + dx];
          peak = row[x0 + dx] > peak ? row[x0 + dx] : peak;
        }
      }
      colour[i] = static_cast<float>(sum) / static_cast<float>(n);
      work->blurred[i] = static_cast<float>(peak);  // the block's brightest pixel, until step 2
      uint32_t su = 0, sv = 0;
      int32_t m = 0;
      for (int32_t dy = 0; dy < kGridScale / 2 && y0 / 2 + dy < ch; ++dy) {
        const size_t rowOff = static_cast<size_t>(y0 / 2 + dy) * ca.stride;
        for (int32_t dx = 0; dx < kGridScale / 2 && x0 / 2 + dx < cw; ++dx, ++m) {
          su += ca.u[rowOff + static_cast<size_t>(x0 / 2 + dx) * ca.step];
          sv += ca.v[rowOff + static_cast<size_t>(x0 / 2 + dx) * ca.step];
        }
      }
      colour[plane + i] = m ? static_cast<float>(su) / m : 128.0f;
      colour[2 * plane + i] = m ? static_cast<float>(sv) / m : 128.0f;
      if (nearMask) {
        const int32_t nx = static_cast<int32_t>(clampf(mx + 0.5f, 0.0f, mapWidth - 1.0f));
        const int32_t ny = static_cast<int32_t>(clampf(my + 0.5f, 0.0f, mapHeight - 1.0f));
        const bool isNear = nearMask[static_cast<size_t>(ny) * mapWidth + nx] != 0 && c > 0.25f;
        work->nearDilated[plane + i] = isNear ? c : 0.0f;  // the near samples' own radius
        anyNear = anyNear || isNear;
      }
    }
  }
  if (!anyBlur) return;  // nothing to blur: the frame stays as it is
  const float* nearRadius = work->nearDilated + plane;

  // 2. Background layer: weights exclude sharp samples (no bleeding of the subject) and the
  //    foreground; highlights weigh more so that they bloom into discs.
  uint32_t highlight[256];
  for (int32_t v = 0; v < 256; ++v) {
    const float e = v > kHighlightStart ? (v - kHighlightStart) / (255.0f - kHighlightStart) : 0.0f;
    highlight[v] = static_cast<uint32_t>(16.0f * (1.0f + kHighlightGain * e * e) + 0.5f);
  }
  for (size_t i = 0; i < plane; ++i) {
    const float cover = clampf((coc[i] - 0.25f) / 0.75f, 0.0f, 1.0f);
    const bool isNear = anyNear && nearRadius[i] > 0.0f;
    const uint32_t w = isNear ? 0 : static_cast<uint32_t>(cover * kCoverScale + 0.5f);
    // Highlight gain from the block's brightest pixel: small lights must not average away.
    weight[i] = w * highlight[static_cast<uint32_t>(work->blurred[i]) & 255];
  }
  build_sat(work->sat, weight, colour, gw, gh);
  float* blurred = work->blurred;
  for (int32_t gy = 0; gy < gh; ++gy) {
    for (int32_t gx = 0; gx < gw; ++gx) {
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      Sums s;
      disc_sums(work->sat, gw, gh, gx, gy, coc[i] > 1.0f ? coc[i] : 1.0f, &s);
      if (s.w == 0) {
        blurred[i] = colour[i], blurred[plane + i] = colour[plane + i], blurred[2 * plane + i] = colour[2 * plane + i];
      } else {
        const float inv = 1.0f / static_cast<float>(s.w);
        blurred[i] = s.y * inv, blurred[plane + i] = s.u * inv, blurred[2 * plane + i] = s.v * inv;
      }
    }
  }

  // 3. Foreground layer: samples nearer than the focus plane spread over their neighbourhood by
  //    their own radius; its alpha is the covered share of each sample's disc.
  float* front = work->front;
  if (anyNear) {
    float* dil = work->nearDilated;
    // Largest near radius within reach, separably (rows, then columns).
    const int32_t reach = static_cast<int32_t>(kMaxGridRadius + 0.5f);
    float* tmp = front;  // scratch for the row pass
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
        dil[static_cast<size_t>(gy) * gw + gx] = m;
      }
    }
    for (size_t i = 0; i < plane; ++i) {
      const float cover = clampf((nearRadius[i] - 0.25f) / 0.75f, 0.0f, 1.0f);
      weight[i] = nearRadius[i] > 0.0f ? static_cast<uint32_t>(cover * kCoverScale + 0.5f) : 0;
    }
    build_sat(work->sat, weight, colour, gw, gh);
    for (int32_t gy = 0; gy < gh; ++gy) {
      for (int32_t gx = 0; gx < gw; ++gx) {
        const size_t i = static_cast<size_t>(gy) * gw + gx;
        float* f = front + 4 * i;
        if (dil[i] < 0.5f) {
          f[0] = f[1] = f[2] = f[3] = 0.0f;
          continue;
        }
        Sums s;
        const int32_t count = disc_sums(work->sat, gw, gh, gx, gy, dil[i], &s);
        if (s.w == 0 || count <= 0) {
          f[0] = f[1] = f[2] = f[3] = 0.0f;
          continue;
        }
        const float inv = 1.0f / static_cast<float>(s.w);
        f[0] = s.y * inv, f[1] = s.u * inv, f[2] = s.v * inv;
        f[3] = clampf(static_cast<float>(s.w) / (static_cast<float>(count) * kCoverScale) * 1.5f, 0.0f, 1.0f);
      }
    }
  }

  // 4. Full resolution. Per pixel the radius comes from the four surrounding grid samples,
  //    weighted by how close their colour is to the pixel's (so that the radius steps at the
  //    frame's edges, not at the coarse map's); sharp pixels are left as they are.
  const float invScale = 1.0f / kGridScale;
  float guideLut[256];
  for (int32_t d = 0; d < 256; ++d) guideLut[d] = expf(-0.5f * (d / kGuideSigma) * (d / kGuideSigma)) + 1e-4f;
  for (int32_t y = 0; y < height; ++y) {
    const float gyf = clampf((y + 0.5f) * invScale - 0.5f, 0.0f, static_cast<float>(gh - 1));
    const int32_t gy0 = static_cast<int32_t>(gyf), gy1 = gy0 + 1 < gh ? gy0 + 1 : gy0;
    const float fy = gyf - gy0;
    uint8_t* row = luma + static_cast<size_t>(y) * width;
    float* rowT = work->rowT;
    float* rowA = work->rowA;
    for (int32_t x = 0; x < width; ++x) {
      const float gxf = clampf((x + 0.5f) * invScale - 0.5f, 0.0f, static_cast<float>(gw - 1));
      const int32_t gx0 = static_cast<int32_t>(gxf), gx1 = gx0 + 1 < gw ? gx0 + 1 : gx0;
      const float fx = gxf - gx0;
      const size_t i00 = static_cast<size_t>(gy0) * gw + gx0, i01 = static_cast<size_t>(gy0) * gw + gx1;
      const size_t i10 = static_cast<size_t>(gy1) * gw + gx0, i11 = static_cast<size_t>(gy1) * gw + gx1;
      const float w00 = (1 - fx) * (1 - fy), w01 = fx * (1 - fy), w10 = (1 - fx) * fy, w11 = fx * fy;
      const float c00 = coc[i00], c01 = coc[i01], c10 = coc[i10], c11 = coc[i11];
      float cmin = c00 < c01 ? c00 : c01, cmax = c00 > c01 ? c00 : c01;
      cmin = c10 < cmin ? c10 : cmin, cmax = c10 > cmax ? c10 : cmax;
      cmin = c11 < cmin ? c11 : cmin, cmax = c11 > cmax ? c11 : cmax;
      float alpha = 0.0f;
      if (anyNear) {
        alpha = w00 * front[4 * i00 + 3] + w01 * front[4 * i01 + 3] + w10 * front[4 * i10 + 3] +
                w11 * front[4 * i11 + 3];
      }
      rowA[x] = alpha;
      float r;
      if (cmax - cmin > 0.3f) {
        const int32_t p = row[x];
        const float g00 = w00 * guideLut[abs(p - static_cast<int32_t>(colour[i00]))];
        const float g01 = w01 * guideLut[abs(p - static_cast<int32_t>(colour[i01]))];
        const float g10 = w10 * guideLut[abs(p - static_cast<int32_t>(colour[i10]))];
        const float g11 = w11 * guideLut[abs(p - static_cast<int32_t>(colour[i11]))];
        const float gs = g00 + g01 + g10 + g11;
        r = gs > 0.0f ? (g00 * c00 + g01 * c01 + g10 * c10 + g11 * c11) / gs : cmin;
      } else {
        r = w00 * c00 + w01 * c01 + w10 * c10 + w11 * c11;
      }
      const float t = clampf((r * kGridScale - kBlendStart) / kBlendWidth, 0.0f, 1.0f);
      rowT[x] = t;
      if (t <= 0.0f && alpha <= 0.0f) continue;
      const float b = w00 * blurred[i00] + w01 * blurred[i01] + w10 * blurred[i10] + w11 * blurred[i11];
      float out = row[x] + t * (b - row[x]);
      if (alpha > 0.0f) {
        const float fv = (w00 * front[4 * i00] * front[4 * i00 + 3] + w01 * front[4 * i01] * front[4 * i01 + 3] +
                          w10 * front[4 * i10] * front[4 * i10 + 3] + w11 * front[4 * i11] * front[4 * i11 + 3]) /
                         alpha;
        out += clampf(alpha, 0.0f, 1.0f) * (fv - out);
      }
      row[x] = to_u8(out);
    }
    // Chroma rows follow the even luma rows, with the blend of the block's top-left pixel.
    if ((y & 1) != 0 || y / 2 >= ch) continue;
    const int32_t cy = y / 2;
    const float gcyf = clampf((cy + 0.5f) * 2.0f * invScale - 0.5f, 0.0f, static_cast<float>(gh - 1));
    const int32_t cgy0 = static_cast<int32_t>(gcyf), cgy1 = cgy0 + 1 < gh ? cgy0 + 1 : cgy0;
    const float cfy = gcyf - cgy0;
    uint8_t* urow = ca.u + static_cast<size_t>(cy) * ca.stride;
    uint8_t* vrow = ca.v + static_cast<size_t>(cy) * ca.stride;
    for (int32_t cx = 0; cx < cw; ++cx) {
      const float t = rowT[2 * cx];
      const float alpha = rowA[2 * cx];
      if (t <= 0.0f && alpha <= 0.0f) continue;
      const float gxf = clampf((cx + 0.5f) * 2.0f * invScale - 0.5f, 0.0f, static_cast<float>(gw - 1));
      const int32_t gx0 = static_cast<int32_t>(gxf), gx1 = gx0 + 1 < gw ? gx0 + 1 : gx0;
      const float fx = gxf - gx0;
      const size_t i00 = static_cast<size_t>(cgy0) * gw + gx0, i01 = static_cast<size_t>(cgy0) * gw + gx1;
      const size_t i10 = static_cast<size_t>(cgy1) * gw + gx0, i11 = static_cast<size_t>(cgy1) * gw + gx1;
      const float w00 = (1 - fx) * (1 - cfy), w01 = fx * (1 - cfy), w10 = (1 - fx) * cfy, w11 = fx * cfy;
      for (int32_t k = 0; k < 2; ++k) {
        uint8_t* px = (k == 0 ? urow : vrow) + static_cast<size_t>(cx) * ca.step;
        const float* bp = blurred + (k + 1) * plane;
        const float b = w00 * bp[i00] + w01 * bp[i01] + w10 * bp[i10] + w11 * bp[i11];
        float out = *px + t * (b - *px);
        if (alpha > 0.0f) {
          const float fv = (w00 * front[4 * i00 + 1 + k] * front[4 * i00 + 3] +
                            w01 * front[4 * i01 + 1 + k] * front[4 * i01 + 3] +
                            w10 * front[4 * i10 + 1 + k] * front[4 * i10 + 3] +
                            w11 * front[4 * i11 + 1 + k] * front[4 * i11 + 3]) /
                           alpha;
          out += clampf(alpha, 0.0f, 1.0f) * (fv - out);
        }
        *px = to_u8(out);
      }
    }
  }
}
