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
// Range of the edge guide (luma levels) and the blend ramp of the radius between the pixel and
// the background layer, in grid cells: the layer's least blur is about a cell and a half, so a
// ramp in frame pixels would leave small radii on the 4 x 4 grid blurred twice as much as asked.
constexpr float kGuideSigma = 14.0f;
constexpr float kBlendStartCells = 0.25f;
constexpr float kBlendWidthCells = 1.25f;
// Grid-radius difference (grid pixels) between neighbouring samples above which the radius is
// edge-guided rather than interpolated.
constexpr float kGuideMinStep = 1.0f;

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

inline float clampf(float v, float lo, float hi) {
  return v < lo ? lo : (v > hi ? hi : v);
}

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

// Per level: the squared radius of the round disc with the same spread as the level's shape (a
// disc of radius r has variance r^2 / 4 along an axis, the shape sum(x^2) / count) and the
// reciprocal of its sample count where the grid does not clip it.
constexpr int32_t kDiscLevels = 28;
constexpr float kSingleLevelRadius = 6.0f;
struct DiscTable {
  float r2[kDiscLevels];
  float inv[kDiscLevels];
};
void disc_table(DiscTable* t) {
  auto boxMoment = [](double a, double b) { return (2 * b + 1) * a * (a + 1) * (2 * a + 1) / 3; };
  for (int32_t n = 0; n < kDiscLevels; ++n) {
    const int32_t a = n, b = disc_minor(n);
    const int32_t count = (2 * a + 1) * (2 * b + 1) * 2 - (2 * b + 1) * (2 * b + 1);
    const double moment = boxMoment(a, b) + boxMoment(b, a) - boxMoment(b, b);
    t->r2[n] = static_cast<float>(4.0 * moment / count);
    t->inv[n] = 1.0f / static_cast<float>(count);
  }
}

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

// Disc of fractional radius r: a mixture of the two levels around it whose spread is that of
// the round disc. The choice depends on r alone (callers keep it while r repeats).
struct DiscLevel {
  int32_t n;
  float f;  // 0: level n alone, 1: level n + 1 alone, between: the mixture
};
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

// Vertical interpolation of one grid row pair into out[-1 .. gw] (the ends repeat the border).
void lerp_rows(const float* plane, int32_t gw, int32_t gy0, int32_t gy1, float fy, int32_t stride, float* out) {
  const float* a = plane + static_cast<size_t>(gy0) * gw * stride;
  const float* b = plane + static_cast<size_t>(gy1) * gw * stride;
  for (int32_t g = 0; g < gw; ++g) out[g] = a[g * stride] + fy * (b[g * stride] - a[g * stride]);
  out[-1] = out[0];
  out[gw] = out[gw - 1];
}

// Full-resolution composite, block by block: a block is the `factor` output samples between two
// grid columns. The blur weight t of a pixel is the bilinear blend of the four grid radii around
// it; where those differ by more than kGuideMinStep (an edge of the map) each is weighted by how
// close its grid colour is to the pixel's, so that the radius steps at the frame's edges rather
// than along the coarse map's. Blocks whose four radii are all below the blend start and that no
// foreground reaches are skipped: their pixels come out unchanged.
struct RowInputs {
  const float* cv;  // padded, interpolated grid rows: radius, background, fg alpha, fg premultiplied
  const float* bv;
  const float* av;
  const float* fv;
  const float* cmin;  // per grid column, over the two grid rows
  const float* cmax;
  bool front;
};

// Per output sample of one line: the blur weight T, the background B and, when a foreground
// reaches the line, its alpha A and premultiplied colour Fp; samples land at index
// x * ostride + ooff so that interleaved chroma lines fill one array for both channels.
template <int32_t F, int32_t ostride, int32_t S>
void prepare_block(int32_t b, int32_t count, int32_t gw, const RowInputs& in, const uint8_t* lumaRow,
                   const float* tGiven, const float* guide, const float* coc, const float* colour, int32_t gy0,
                   int32_t gy1, float fy, int32_t ooff, float* T, float* B, float* A, float* Fp) {
  constexpr float kTScale = 1.0f / kBlendWidthCells, kTOffset = kBlendStartCells / kBlendWidthCells;
  // Sample x of a line with F samples per grid cell sits at grid position (x + 0.5) / F - 0.5.
  // With F even the block's samples fall between two cells at (k + 0.5) / F; with F = 1 (chroma
  // on the 2 x 2 grid) each sample sits on its cell.
  float weights[F];
  for (int32_t k = 0; k < F; ++k) weights[k] = F % 2 == 0 ? (k + 0.5f) / F : static_cast<float>(k) / F;
  {
    const int32_t x0 = b * F + F / 2;
    const int32_t k0 = x0 < 0 ? -x0 : 0;
    const int32_t k1 = x0 + F <= count ? F : count - x0;
    if (k1 <= k0) return;
    const int32_t g0 = b < 0 ? 0 : b, g1 = b + 1 < gw ? b + 1 : gw - 1;
    const float hi = in.cmax[g0] > in.cmax[g1] ? in.cmax[g0] : in.cmax[g1];
    const bool front = in.front && (in.av[b] > 0.0f || in.av[b + 1] > 0.0f);
    const float lo = in.cmin[g0] < in.cmin[g1] ? in.cmin[g0] : in.cmin[g1];
    if (k0 == 0 && k1 == F && !in.front && (tGiven != nullptr || hi - lo <= kGuideMinStep)) {
      // The common block: F samples, plain interpolation (constant trip counts so that it
      // compiles to vector code).
      const float c0 = in.cv[b], dc = in.cv[b + 1] - in.cv[b];
      const float b0 = in.bv[b], db = in.bv[b + 1] - in.bv[b];
      float* to = T + static_cast<size_t>(x0) * ostride + ooff;
      float* bo = B + static_cast<size_t>(x0) * ostride + ooff;
      if (tGiven != nullptr) {
        for (int32_t k = 0; k < F; ++k) to[k * ostride] = tGiven[2 * (x0 + k)];
      } else {
        for (int32_t k = 0; k < F; ++k) {
          const float v = (c0 + weights[k] * dc) * kTScale - kTOffset;
          to[k * ostride] = v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v);
        }
      }
      for (int32_t k = 0; k < F; ++k) bo[k * ostride] = b0 + weights[k] * db;
      return;
    }
    float t[F];
    if (tGiven != nullptr) {
      for (int32_t k = k0; k < k1; ++k) t[k] = tGiven[2 * (x0 + k)];
    } else if (hi <= kBlendStartCells && !front) {
      for (int32_t k = k0; k < k1; ++k) t[k] = 0.0f;
    } else {
      if (hi - lo > kGuideMinStep) {
        const size_t i00 = static_cast<size_t>(gy0) * gw + g0, i01 = static_cast<size_t>(gy0) * gw + g1;
        const size_t i10 = static_cast<size_t>(gy1) * gw + g0, i11 = static_cast<size_t>(gy1) * gw + g1;
        const int32_t y00 = static_cast<int32_t>(colour[i00]), y01 = static_cast<int32_t>(colour[i01]);
        const int32_t y10 = static_cast<int32_t>(colour[i10]), y11 = static_cast<int32_t>(colour[i11]);
        for (int32_t k = k0; k < k1; ++k) {
          const float fx = b < 0 || b + 1 >= gw ? 0.0f : weights[k];
          const int32_t p = lumaRow[x0 + k];
          const float g00 = (1 - fx) * (1 - fy) * guide[abs(p - y00)];
          const float g01 = fx * (1 - fy) * guide[abs(p - y01)];
          const float g10 = (1 - fx) * fy * guide[abs(p - y10)];
          const float g11 = fx * fy * guide[abs(p - y11)];
          const float r = (g00 * coc[i00] + g01 * coc[i01] + g10 * coc[i10] + g11 * coc[i11]) / (g00 + g01 + g10 + g11);
          t[k] = clampf(r * kTScale - kTOffset, 0.0f, 1.0f);
        }
      } else {
        const float c0 = in.cv[b], dc = in.cv[b + 1] - in.cv[b];
        for (int32_t k = k0; k < k1; ++k) t[k] = clampf((c0 + weights[k] * dc) * kTScale - kTOffset, 0.0f, 1.0f);
      }
    }
    const float b0 = in.bv[b], db = in.bv[b + 1] - in.bv[b];
    for (int32_t k = k0; k < k1; ++k) {
      const size_t o = static_cast<size_t>(x0 + k) * ostride + ooff;
      T[o] = t[k];
      B[o] = b0 + weights[k] * db;
    }
    if (in.front) {
      const float a0 = front ? in.av[b] : 0.0f, da = front ? in.av[b + 1] - a0 : 0.0f;
      const float f0 = front ? in.fv[b] : 0.0f, df = front ? in.fv[b + 1] - f0 : 0.0f;
      for (int32_t k = k0; k < k1; ++k) {
        const size_t o = static_cast<size_t>(x0 + k) * ostride + ooff;
        A[o] = a0 + weights[k] * da;
        Fp[o] = f0 + weights[k] * df;
      }
    }
  }
}

template <int32_t F, int32_t ostride, int32_t S>
void prepare_line(int32_t count, int32_t gw, const RowInputs& in, const uint8_t* lumaRow, const float* tGiven,
                  const float* guide, const float* coc, const float* colour, int32_t gy0, int32_t gy1, float fy,
                  int32_t ooff, float* T, float* B, float* A, float* Fp) {
  for (int32_t b = -1; b < gw; ++b)
    prepare_block<F, ostride, S>(b, count, gw, in, lumaRow, tGiven, guide, coc, colour, gy0, gy1, fy, ooff, T, B, A,
                                 Fp);
}

// The interior block of a luma line with plain interpolation (the common case): 4 samples of
// T and B. Two versions that give identical results: plain scalar code (the reference) and
// 4-lane vector code through the compiler's generic vector types (SSE2 / NEON).
inline void luma_block_plain(float c0, float dc, float b0, float db, float* to, float* bo) {
  constexpr float kTScale = 1.0f / kBlendWidthCells, kTOffset = kBlendStartCells / kBlendWidthCells;
  for (int32_t k = 0; k < 4; ++k) {
    const float w = (k + 0.5f) / 4;
    const float v = (c0 + w * dc) * kTScale - kTOffset;
    to[k] = v > 0.0f ? (v > 1.0f ? 1.0f : v) : 0.0f;
    bo[k] = b0 + w * db;
  }
}

typedef float Vec4 __attribute__((vector_size(16)));
typedef int32_t Vec4i __attribute__((vector_size(16)));

inline void luma_block_vector(float c0, float dc, float b0, float db, float* to, float* bo) {
  constexpr float kTScale = 1.0f / kBlendWidthCells, kTOffset = kBlendStartCells / kBlendWidthCells;
  const Vec4 w = {0.125f, 0.375f, 0.625f, 0.875f};
  const Vec4 zero = {0.0f, 0.0f, 0.0f, 0.0f}, one = {1.0f, 1.0f, 1.0f, 1.0f};
  Vec4 v = (c0 + w * dc) * kTScale - kTOffset;
  const Vec4i positive = v > zero;
  v = reinterpret_cast<Vec4>(reinterpret_cast<Vec4i>(v) & positive);
  const Vec4i above = v > one;
  v = reinterpret_cast<Vec4>((reinterpret_cast<Vec4i>(v) & ~above) | (reinterpret_cast<Vec4i>(one) & above));
  const Vec4 b = b0 + w * db;
  memcpy(to, &v, sizeof(v));
  memcpy(bo, &b, sizeof(b));
}

// A luma line on a 4 x 4 grid that the foreground reaches: interior blocks whose four radii agree
// and where the foreground's alpha is 0 take the block kernel, the rest (ends, edges of the map,
// the foreground) the general per-block code. (Lines it does not reach go run by run.)
template <bool kFront>
void prepare_luma_line(int32_t count, int32_t gw, const RowInputs& in, const uint8_t* lumaRow, const float* guide,
                       const float* coc, const float* colour, int32_t gy0, int32_t gy1, float fy, float* T, float* B,
                       float* A, float* Fp, bool plain) {
  const int32_t last = count - 6 < 0 ? -1 : (count - 6) / 4;
  for (int32_t b = -1; b < gw; ++b) {
    if (b >= 0 && b <= last && !(kFront && (in.av[b] > 0.0f || in.av[b + 1] > 0.0f))) {
      const float hi = in.cmax[b] > in.cmax[b + 1] ? in.cmax[b] : in.cmax[b + 1];
      const float lo = in.cmin[b] < in.cmin[b + 1] ? in.cmin[b] : in.cmin[b + 1];
      if (hi - lo <= kGuideMinStep) {
        const float c0 = in.cv[b], dc = in.cv[b + 1] - in.cv[b];
        const float b0 = in.bv[b], db = in.bv[b + 1] - in.bv[b];
        if (plain) {
          luma_block_plain(c0, dc, b0, db, T + b * 4 + 2, B + b * 4 + 2);
        } else {
          luma_block_vector(c0, dc, b0, db, T + b * 4 + 2, B + b * 4 + 2);
        }
        if (kFront) {
          for (int32_t k = 0; k < 4; ++k) A[b * 4 + 2 + k] = 0.0f, Fp[b * 4 + 2 + k] = 0.0f;
        }
        continue;
      }
    }
    prepare_block<4, 1, 4>(b, count, gw, in, lumaRow, nullptr, guide, coc, colour, gy0, gy1, fy, 0, T, B,
                           kFront ? A : nullptr, kFront ? Fp : nullptr);
  }
}

// An interleaved chroma line without foreground on the 2 x 2 grid: T and B for both channels in
// one array (byte order of the frame), T from the luma line's even pixels. first, second: padded
// interpolated grid rows of the channel stored first and second; chroma sample x sits on grid
// cell x and takes its value as it is. (The 4 x 4 grid's chroma goes with its luma runs.)
void prepare_chroma_line(int32_t cw, int32_t gw, const float* first, const float* second, const float* tLuma, float* T,
                         float* B) {
  const int32_t n = cw < gw ? cw : gw;
  for (int32_t x = 0; x < n; ++x) {
    T[2 * x] = T[2 * x + 1] = tLuma[2 * x];
    B[2 * x] = first[x];
    B[2 * x + 1] = second[x];
  }
}

// out = p + T (B - p), then the foreground over it; one contiguous run, written so that it
// vectorises. T = 0 gives back p exactly.
void blend_run(uint8_t* px, int32_t n, const float* T, const float* B, const float* A, const float* Fp) {
  if (A == nullptr) {
    for (int32_t x = 0; x < n; ++x) {
      const float p = px[x];
      px[x] = static_cast<uint8_t>(static_cast<int32_t>(p + T[x] * (B[x] - p) + 0.5f));
    }
    return;
  }
  for (int32_t x = 0; x < n; ++x) {
    const float p = px[x];
    const float v = (p + T[x] * (B[x] - p)) * (1.0f - A[x]) + Fp[x] + 0.5f;
    px[x] = static_cast<uint8_t>(static_cast<int32_t>(v < 0.0f ? 0.0f : (v > 255.0f ? 255.0f : v)));
  }
}

// The 4 x 4 grid's lines without foreground are composited span by span. Per grid row pair the
// blocks between two grid columns fall into runs: sharp (all four radii below the blend start:
// pixels kept), plain (radii agree: bilinear weight and background, streamed along the run from
// grid rows upsampled once per grid row), and single edge blocks (the guided per-block code).
// Fully blurred runs (all radii past the blend ramp: t = 1) take the background alone.
enum SpanKind : int32_t { SPAN_SHARP = 0, SPAN_PLAIN = 1, SPAN_FULL = 2, SPAN_EDGE = 3 };
// Grid radius (4 x 4 cells) from which every interpolated weight is 1, with a margin for rounding.
constexpr float kFullBlurRadius = kBlendStartCells + kBlendWidthCells + 0.01f;

// Spans of pixels [from, to) of a line `count` wide, 3 words each (from, to, kind or, for an edge
// block, SPAN_EDGE + block index + 1); returns their number.
int32_t line_spans(int32_t count, int32_t gw, const float* cmin, const float* cmax, int32_t* spans) {
  int32_t n = 0;
  for (int32_t b = -1; b < gw; ++b) {
    const int32_t from = b * 4 + 2 < 0 ? 0 : b * 4 + 2, to = b * 4 + 6 < count ? b * 4 + 6 : count;
    if (to <= from) continue;
    const int32_t g0 = b < 0 ? 0 : b, g1 = b + 1 < gw ? b + 1 : gw - 1;
    const float hi = cmax[g0] > cmax[g1] ? cmax[g0] : cmax[g1];
    const float lo = cmin[g0] < cmin[g1] ? cmin[g0] : cmin[g1];
    const int32_t kind = hi <= kBlendStartCells    ? SPAN_SHARP
                         : hi - lo > kGuideMinStep ? SPAN_EDGE + b + 1
                         : lo >= kFullBlurRadius   ? SPAN_FULL
                                                   : SPAN_PLAIN;
    if (kind < SPAN_EDGE && n > 0 && spans[3 * n - 1] == kind && spans[3 * n - 2] == from) {
      spans[3 * n - 2] = to;  // extends the previous run
      continue;
    }
    spans[3 * n] = from, spans[3 * n + 1] = to, spans[3 * n + 2] = kind;
    ++n;
  }
  return n;
}

// One grid row upsampled along the row, F samples per cell (sample x at grid position
// (x + 0.5) / F - 0.5, the ends repeating the border), written at out[x * ostride].
template <int32_t F, int32_t ostride>
void upsample_row(const float* row, int32_t gw, int32_t count, float* out) {
  // Interior cells (both ends inside the row and the line) without tests, so that it vectorises.
  int32_t inner = (count - F / 2) / F;  // cells b whose F samples all lie inside the line
  inner = inner < gw - 1 ? inner : gw - 1;
  inner = inner < 0 ? 0 : inner;
  float* o = out + (F / 2) * ostride;
  for (int32_t b = 0; b < inner; ++b) {
    const float v0 = row[b], d = row[b + 1] - row[b];
    for (int32_t k = 0; k < F; ++k) o[(b * F + k) * ostride] = v0 + (k + 0.5f) / F * d;
  }
  auto cell = [&](int32_t b) {
    const int32_t g0 = b < 0 ? 0 : b, g1 = b + 1 < gw ? b + 1 : gw - 1;
    const float v0 = row[g0], d = row[g1] - row[g0];
    for (int32_t k = 0; k < F; ++k) {
      const int32_t x = b * F + F / 2 + k;
      if (x >= 0 && x < count) out[x * ostride] = v0 + (k + 0.5f) / F * d;
    }
  };
  cell(-1);
  for (int32_t b = inner; b < gw; ++b) cell(b);
}

// A plain run of a luma line: weight and background interpolated between the two upsampled grid
// rows, blended, T kept for the chroma line. Written so that it vectorises.
void stream_luma(uint8_t* px, int32_t n, const float* c0, const float* c1, const float* b0, const float* b1, float fy,
                 float* T) {
  constexpr float kTScale = 1.0f / kBlendWidthCells, kTOffset = kBlendStartCells / kBlendWidthCells;
  for (int32_t x = 0; x < n; ++x) {
    float t = (c0[x] + fy * (c1[x] - c0[x])) * kTScale - kTOffset;
    t = t > 0.0f ? (t > 1.0f ? 1.0f : t) : 0.0f;
    const float b = b0[x] + fy * (b1[x] - b0[x]);
    const float p = px[x];
    px[x] = static_cast<uint8_t>(static_cast<int32_t>(p + t * (b - p) + 0.5f));
    T[x] = t;
  }
}

// A fully blurred run: t = 1, so p + t (b - p) is b exactly and the pixel is not read.
void stream_full(uint8_t* px, int32_t n, const float* b0, const float* b1, float fy, float* T) {
  for (int32_t x = 0; x < n; ++x) {
    px[x] = static_cast<uint8_t>(static_cast<int32_t>(b0[x] + fy * (b1[x] - b0[x]) + 0.5f));
    T[x] = 1.0f;
  }
}

// The same for interleaved chroma bytes [from, to) (from even): each pair takes the weight of
// the luma pixel above its block's top-left.
void stream_chroma(uint8_t* line, int32_t from, int32_t to, const float* u0, const float* u1, float fy,
                   const float* T) {
  for (int32_t j = from; j < to; j += 2) {
    const float t = T[j];
    const float b0 = u0[j] + fy * (u1[j] - u0[j]), b1 = u0[j + 1] + fy * (u1[j + 1] - u0[j + 1]);
    const float p0 = line[j], p1 = line[j + 1];
    line[j] = static_cast<uint8_t>(static_cast<int32_t>(p0 + t * (b0 - p0) + 0.5f));
    line[j + 1] = static_cast<uint8_t>(static_cast<int32_t>(p1 + t * (b1 - p1) + 0.5f));
  }
}

// Two slots of upsampled grid rows, found by grid row and made when missing.
struct UpSlots {
  float* base;
  int32_t width;
  int32_t gy[2];
};
// Radius, background luma and background chroma (first stored channel at even bytes) of row gy;
// the slot holding row `keep` stays.
const float* up_row(UpSlots* u, const RenderWork* work, int32_t gy, int32_t keep, int32_t firstChannel) {
  const int32_t gw = work->gridWidth, w = u->width;
  const size_t plane = static_cast<size_t>(gw) * work->gridHeight;
  for (int32_t s = 0; s < 2; ++s)
    if (u->gy[s] == gy) return u->base + static_cast<size_t>(s) * 3 * w;
  const int32_t s = u->gy[0] == keep ? 1 : 0;
  u->gy[s] = gy;
  float* out = u->base + static_cast<size_t>(s) * 3 * w;
  const size_t row = static_cast<size_t>(gy) * gw;
  upsample_row<4, 1>(work->coc + row, gw, w, out);
  upsample_row<4, 1>(work->blurred + row, gw, w, out + w);
  upsample_row<2, 2>(work->blurred + firstChannel * plane + row, gw, w / 2, out + 2 * w);
  upsample_row<2, 2>(work->blurred + (3 - firstChannel) * plane + row, gw, w / 2, out + 2 * w + 1);
  return out;
}

template <int32_t S>
void composite(RenderWork* work, uint8_t* luma, const ChromaAccess& ca, int32_t width, int32_t height, bool anyNear) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const size_t plane = static_cast<size_t>(gw) * gh;
  const int32_t cw = width / 2, ch = height / 2;
  const int32_t pad = gw + 2;
  float* cv = work->gridRows + 1;
  float* bv = cv + pad;
  float* av = bv + pad;
  float* fv = av + pad;
  float* cmin = fv + pad;
  float* cmax = cmin + pad;
  float* tRow = work->rowT;
  float* cRow = work->rowC;
  float* bRow = work->rowB;
  float* aRow = work->rowA;
  float* fRow = work->rowF;
  const float* coc = work->coc;
  const float* colour = work->colour;
  float guideLut[256];
  for (int32_t d = 0; d < 256; ++d) guideLut[d] = expf(-0.5f * (d / kGuideSigma) * (d / kGuideSigma)) + 1e-4f;
  const RowInputs in{cv, bv, av, fv, cmin, cmax, false};
  int32_t minMaxRow = -1;
  float rowMax = 0.0f;
  bool pairAlpha = false;
  const bool interleaved = ca.step == 2;
  const int32_t firstChannel = ca.u < ca.v ? 1 : 2;  // plane index of the channel stored first
  UpSlots up{work->upRows, width, {-1, -1}};
  int32_t spanCount = 0;
  bool edgeSpans = true;

  for (int32_t y = 0; y < height; ++y) {
    const float gyf = clampf((y + 0.5f) / S - 0.5f, 0.0f, static_cast<float>(gh - 1));
    const int32_t gy0 = static_cast<int32_t>(gyf), gy1 = gy0 + 1 < gh ? gy0 + 1 : gy0;
    const float fy = gyf - gy0;
    if (minMaxRow != gy0) {  // per grid row pair, not per pixel row
      rowMax = 0.0f;
      for (int32_t g = 0; g < gw; ++g) {
        const float a = coc[static_cast<size_t>(gy0) * gw + g], b = coc[static_cast<size_t>(gy1) * gw + g];
        cmin[g] = a < b ? a : b;
        cmax[g] = a > b ? a : b;
        rowMax = cmax[g] > rowMax ? cmax[g] : rowMax;
      }
      // Whether the foreground reaches either grid row: where it reaches neither, every
      // interpolated alpha of the lines between them is 0.
      pairAlpha = false;
      if (anyNear) {
        const float* f0 = work->front + static_cast<size_t>(gy0) * gw * 4 + 3;
        const float* f1 = work->front + static_cast<size_t>(gy1) * gw * 4 + 3;
        for (int32_t g = 0; g < gw && !pairAlpha; ++g) pairAlpha = f0[4 * g] > 0.0f || f1[4 * g] > 0.0f;
      }
      minMaxRow = gy0;
      if (S == 4) {
        spanCount = line_spans(width, gw, cmin, cmax, work->spans);
        edgeSpans = false;
        for (int32_t i = 0; i < spanCount; ++i) edgeSpans = edgeSpans || work->spans[3 * i + 2] >= SPAN_EDGE;
      }
    }
    RowInputs row = in;
    if (pairAlpha) {
      lerp_rows(work->front + 3, gw, gy0, gy1, fy, 4, av);
      for (int32_t g = 0; g < gw && !row.front; ++g) row.front = av[g] > 0.0f;
    }
    if (!(rowMax > kBlendStartCells || row.front)) continue;  // the row and its chroma stay
    if (S != 4 || row.front || edgeSpans) {                   // the per-block code reads the interpolated grid rows
      lerp_rows(coc, gw, gy0, gy1, fy, 1, cv);
      lerp_rows(work->blurred, gw, gy0, gy1, fy, 1, bv);
    }
    if (row.front) lerp_rows(work->front, gw, gy0, gy1, fy, 4, fv);
    uint8_t* lumaRow = luma + static_cast<size_t>(y) * width;
    if (S == 4 && !row.front) {
      // Span by span; chroma bytes [from, to) of the even lines take the same spans.
      const float* r0 = up_row(&up, work, gy0, gy1, firstChannel);
      const float* r1 = up_row(&up, work, gy1, gy0, firstChannel);
      const bool chromaLine = (y & 1) == 0 && y / 2 < ch;
      uint8_t* chromaRow =
          interleaved && chromaLine ? (ca.u < ca.v ? ca.u : ca.v) + static_cast<size_t>(y / 2) * ca.stride : nullptr;
      const float cfy = clampf((y / 2 + 0.5f) * 0.5f - 0.5f, 0.0f, static_cast<float>(gh - 1)) - gy0;
      for (int32_t i = 0; i < spanCount; ++i) {
        const int32_t from = work->spans[3 * i], to = work->spans[3 * i + 1], kind = work->spans[3 * i + 2];
        if (kind == SPAN_SHARP) {
          for (int32_t x = from; x < to; ++x) tRow[x] = 0.0f;
          continue;
        }
        if (kind == SPAN_FULL) {
          stream_full(lumaRow + from, to - from, r0 + width + from, r1 + width + from, fy, tRow + from);
          if (chromaRow != nullptr)
            stream_full(chromaRow + from, to - from, r0 + 2 * width + from, r1 + 2 * width + from, cfy, cRow);
          continue;
        }
        if (kind == SPAN_PLAIN) {
          stream_luma(lumaRow + from, to - from, r0 + from, r1 + from, r0 + width + from, r1 + width + from, fy,
                      tRow + from);
          if (chromaRow != nullptr) stream_chroma(chromaRow, from, to, r0 + 2 * width, r1 + 2 * width, cfy, tRow);
          continue;
        }
        prepare_block<4, 1, 4>(kind - SPAN_EDGE - 1, width, gw, row, lumaRow, nullptr, guideLut, coc, colour, gy0, gy1,
                               fy, 0, tRow, bRow, nullptr, nullptr);
        blend_run(lumaRow + from, to - from, tRow + from, bRow + from, nullptr, nullptr);
        if (chromaRow != nullptr) stream_chroma(chromaRow, from, to, r0 + 2 * width, r1 + 2 * width, cfy, tRow);
      }
      if (!chromaLine || chromaRow != nullptr) continue;
    } else if (S == 4) {
      prepare_luma_line<true>(width, gw, row, lumaRow, guideLut, coc, colour, gy0, gy1, fy, tRow, bRow, aRow, fRow,
                              work->plainOnly != 0);
    } else {
      prepare_line<S, 1, S>(width, gw, row, lumaRow, nullptr, guideLut, coc, colour, gy0, gy1, fy, 0, tRow, bRow, aRow,
                            fRow);
    }
    if (S != 4 || row.front) blend_run(lumaRow, width, tRow, bRow, row.front ? aRow : nullptr, fRow);
    // Chroma rows follow the even luma rows and take the blend of each block's top-left pixel.
    if ((y & 1) != 0 || y / 2 >= ch) continue;
    const int32_t cy = y / 2;
    const float cyf = clampf((cy + 0.5f) * 2.0f / S - 0.5f, 0.0f, static_cast<float>(gh - 1));
    const int32_t cy0 = static_cast<int32_t>(cyf), cy1 = cy0 + 1 < gh ? cy0 + 1 : cy0;
    const float cfy = cyf - cy0;
    if (row.front) lerp_rows(work->front + 3, gw, cy0, cy1, cfy, 4, av);
    // Interleaved chroma: both channels into one array, blended as one run of 2 x cw bytes.
    if (interleaved && !row.front) {
      lerp_rows(work->blurred + firstChannel * plane, gw, cy0, cy1, cfy, 1, bv);
      lerp_rows(work->blurred + (3 - firstChannel) * plane, gw, cy0, cy1, cfy, 1, fv);
      prepare_chroma_line(cw, gw, bv, fv, tRow, cRow, bRow);
      blend_run((ca.u < ca.v ? ca.u : ca.v) + static_cast<size_t>(cy) * ca.stride, 2 * cw, cRow, bRow, nullptr,
                nullptr);
      continue;
    }
    for (int32_t k = 0; k < 2; ++k) {
      uint8_t* line = (k == 0 ? ca.u : ca.v) + static_cast<size_t>(cy) * ca.stride;
      lerp_rows(work->blurred + (k + 1) * plane, gw, cy0, cy1, cfy, 1, bv);
      if (row.front) lerp_rows(work->front + 1 + k, gw, cy0, cy1, cfy, 4, fv);
      const int32_t off =
          interleaved
              ? static_cast<int32_t>(line - (ca.u < ca.v ? ca.u : ca.v) - static_cast<ptrdiff_t>(cy) * ca.stride)
              : 0;
      if (interleaved) {
        prepare_line<S / 2, 2, S>(cw, gw, row, nullptr, tRow, guideLut, coc, colour, cy0, cy1, cfy, off, cRow, bRow,
                                  aRow, fRow);
      } else {
        prepare_line<S / 2, 1, S>(cw, gw, row, nullptr, tRow, guideLut, coc, colour, cy0, cy1, cfy, 0, cRow, bRow, aRow,
                                  fRow);
      }
      if (!interleaved) blend_run(line, cw, cRow, bRow, row.front ? aRow : nullptr, fRow);
    }
    if (interleaved) {
      uint8_t* line = (ca.u < ca.v ? ca.u : ca.v) + static_cast<size_t>(cy) * ca.stride;
      blend_run(line, 2 * cw, cRow, bRow, row.front ? aRow : nullptr, fRow);
    }
  }
}

}  // namespace

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

float render_max_radius(int32_t frameWidth, float fNumber) {
  if (!(fNumber == fNumber)) fNumber = kReferenceFNumber;  // NaN
  fNumber = clampf(fNumber, kMinFNumber, kMaxFNumber);
  return kMaxRadiusFraction * static_cast<float>(frameWidth) * kReferenceFNumber / fNumber;
}

int32_t render_work_alloc(RenderWork* work, int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight) {
  memset(work, 0, sizeof(*work));
  // Large frames use a 4 x 4 grid cell, smaller ones 2 x 2 (their blur radii are small).
  const int32_t scale = width >= kScaleFourWidth ? 4 : 2;
  const int32_t gw = (width + scale - 1) / scale, gh = (height + scale - 1) / scale;
  const size_t plane = static_cast<size_t>(gw) * gh;
  work->scale = scale;
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
  work->rowB = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->rowC = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->lineSum = static_cast<uint16_t*>(malloc(static_cast<size_t>(width) * 2 * sizeof(uint16_t)));
  work->linePeak = static_cast<uint8_t*>(malloc(static_cast<size_t>(width)));
  work->rowF = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->gridRows = static_cast<float*>(malloc(static_cast<size_t>(6 * (gw + 2) + 2) * sizeof(float)));
  work->weight = static_cast<uint32_t*>(malloc(plane * sizeof(uint32_t)));
  work->upRows = static_cast<float*>(malloc(static_cast<size_t>(width) * 6 * sizeof(float)));
  work->spans = static_cast<int32_t*>(malloc(static_cast<size_t>(gw + 2) * 3 * sizeof(int32_t)));
  if (!work->upRows || !work->spans || !work->coc || !work->colour || !work->blurred || !work->front || !work->sat ||
      !work->nearDilated || !work->nearMap || !work->rowT || !work->rowA || !work->weight || !work->rowB ||
      !work->rowC || !work->lineSum || !work->linePeak || !work->rowF || !work->gridRows) {
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
  free(work->rowB);
  free(work->rowC);
  free(work->lineSum);
  free(work->linePeak);
  free(work->rowF);
  free(work->gridRows);
  free(work->weight);
  free(work->upRows);
  free(work->spans);
  memset(work, 0, sizeof(*work));
}

namespace {

template <int32_t S>
void render_scaled(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height,
                   int32_t chromaLayout, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                   int32_t mapHeight, float fNumber) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const size_t plane = static_cast<size_t>(gw) * gh;
  const float radiusPerLevel = render_max_radius(width, fNumber) / S / 255.0f;
  DiscTable discs;
  disc_table(&discs);
  const bool plain = work->plainOnly != 0;
  const ChromaAccess ca = chroma_access(chroma, width, height, chromaLayout);
  const int32_t cw = width / 2, ch = height / 2;
  float* coc = work->coc;
  float* colour = work->colour;
  uint32_t* weight = work->weight;

  // 1. Grid: blur radius from the map at each grid sample's centre, colour as the 4 x 4 luma and
  //    2 x 2 chroma average.
  const float mxScale = static_cast<float>(mapWidth) / width, myScale = static_cast<float>(mapHeight) / height;
  bool anyBlur = false, anyNear = false;
  // Map columns of the grid columns (bilinear), kept in the composite's row storage.
  float* mapX = work->gridRows;  // mx clamped, per grid column
  for (int32_t gx = 0; gx < gw; ++gx) {
    const float cx = static_cast<float>(gx * S) + 0.5f * S;
    mapX[gx] = clampf(cx * mxScale - 0.5f, 0.0f, static_cast<float>(mapWidth - 1));
  }
  for (int32_t gy = 0; gy < gh; ++gy) {
    const int32_t y0 = gy * S;
    const float cy = static_cast<float>(y0) + 0.5f * S;
    const float my = clampf(cy * myScale - 0.5f, 0.0f, static_cast<float>(mapHeight - 1));
    const int32_t my0 = static_cast<int32_t>(my), my1 = my0 + 1 < mapHeight ? my0 + 1 : my0;
    const float fmy = my - my0;
    const uint8_t* mapRow0 = map + static_cast<size_t>(my0) * mapWidth;
    // Column sums and peaks of this grid row's luma rows, a whole line at a time (vectorises).
    const int32_t rows = height - y0 < S ? height - y0 : S;
    uint16_t* lineSum = work->lineSum;
    uint8_t* linePeak = work->linePeak;
    const uint8_t* first = luma + static_cast<size_t>(y0) * width;
    for (int32_t x = 0; x < width; ++x) lineSum[x] = first[x], linePeak[x] = first[x];
    for (int32_t dy = 1; dy < rows; ++dy) {
      const uint8_t* row = first + static_cast<size_t>(dy) * width;
      for (int32_t x = 0; x < width; ++x) {
        lineSum[x] = static_cast<uint16_t>(lineSum[x] + row[x]);
        linePeak[x] = row[x] > linePeak[x] ? row[x] : linePeak[x];
      }
    }
    const uint8_t* mapRow1 = map + static_cast<size_t>(my1) * mapWidth;
    for (int32_t gx = 0; gx < gw; ++gx) {
      const float mx = mapX[gx];
      const int32_t mx0 = static_cast<int32_t>(mx), mx1 = mx0 + 1 < mapWidth ? mx0 + 1 : mx0;
      const float fmx = mx - mx0;
      const float top = mapRow0[mx0] + fmx * (mapRow0[mx1] - mapRow0[mx0]);
      const float bottom = mapRow1[mx0] + fmx * (mapRow1[mx1] - mapRow1[mx0]);
      float c = (top + fmy * (bottom - top)) * radiusPerLevel;
      c = c > kMaxGridRadius ? kMaxGridRadius : c;
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      coc[i] = c;
      // The gather weight trusts a sample as blurred only when all four map samples around it
      // are: samples by the subject's edge must not carry its colour into the background.
      uint8_t lowest = mapRow0[mx0] < mapRow0[mx1] ? mapRow0[mx0] : mapRow0[mx1];
      lowest = mapRow1[mx0] < lowest ? mapRow1[mx0] : lowest;
      lowest = mapRow1[mx1] < lowest ? mapRow1[mx1] : lowest;
      work->front[i] = lowest * radiusPerLevel;  // until step 3
      anyBlur = anyBlur || c > 0.0f;
      if (nearMask) {
        const int32_t nx = fmx < 0.5f ? mx0 : mx1, ny = fmy < 0.5f ? my0 : my1;
        const bool isNear = nearMask[static_cast<size_t>(ny) * mapWidth + nx] != 0 && c > 0.25f;
        work->nearDilated[plane + i] = isNear ? c : 0.0f;  // the near samples' own radius
        anyNear = anyNear || isNear;
      }
    }
    // Colour: the cell's mean luma and brightest pixel from the column sums, its chroma from the
    // column sums of its chroma rows (both channels a whole line at a time, like the luma).
    const int32_t full = width / S < gw ? width / S : gw;  // cells S pixels wide
    const size_t rowStart = static_cast<size_t>(gy) * gw;
    if (rows == S) {
      for (int32_t gx = 0; gx < full; ++gx) {
        uint32_t sum = 0, peak = 0;
        for (int32_t dx = 0; dx < S; ++dx) {
          sum += lineSum[gx * S + dx];
          peak = linePeak[gx * S + dx] > peak ? linePeak[gx * S + dx] : peak;
        }
        colour[rowStart + gx] = static_cast<float>(sum) * (1.0f / (S * S));  // exact: S * S is a power of 2
        work->blurred[rowStart + gx] = static_cast<float>(peak);  // the block's brightest pixel, until step 2
      }
    }
    for (int32_t gx = rows == S ? full : 0; gx < gw; ++gx) {
      const int32_t x0 = gx * S, cols = width - x0 < S ? width - x0 : S;
      uint32_t sum = 0, peak = 0;
      for (int32_t dx = 0; dx < cols; ++dx) {
        sum += lineSum[x0 + dx];
        peak = linePeak[x0 + dx] > peak ? linePeak[x0 + dx] : peak;
      }
      colour[rowStart + gx] = static_cast<float>(sum) / static_cast<float>(cols * rows);
      work->blurred[rowStart + gx] = static_cast<float>(peak);
    }
    const int32_t cy0 = y0 / 2, crows = ch - cy0 < S / 2 ? ch - cy0 : S / 2;
    uint16_t* chromaSum = lineSum + width;  // U samples then V samples, cw each
    for (int32_t x = 0; x < cw; ++x) chromaSum[x] = chromaSum[cw + x] = 0;
    for (int32_t dy = 0; dy < crows; ++dy) {
      const uint8_t* u = ca.u + static_cast<size_t>(cy0 + dy) * ca.stride;
      const uint8_t* v = ca.v + static_cast<size_t>(cy0 + dy) * ca.stride;
      if (ca.step == 2) {
        for (int32_t x = 0; x < cw; ++x) {
          chromaSum[x] = static_cast<uint16_t>(chromaSum[x] + u[2 * x]);
          chromaSum[cw + x] = static_cast<uint16_t>(chromaSum[cw + x] + v[2 * x]);
        }
      } else {
        for (int32_t x = 0; x < cw; ++x) {
          chromaSum[x] = static_cast<uint16_t>(chromaSum[x] + u[x]);
          chromaSum[cw + x] = static_cast<uint16_t>(chromaSum[cw + x] + v[x]);
        }
      }
    }
    for (int32_t gx = 0; gx < gw; ++gx) {
      const int32_t cx0 = gx * S / 2, ccols = cw - cx0 < S / 2 ? cw - cx0 : S / 2;
      uint32_t su = 0, sv = 0;
      for (int32_t dx = 0; dx < ccols; ++dx) su += chromaSum[cx0 + dx], sv += chromaSum[cw + cx0 + dx];
      const int32_t m = ccols * crows;
      colour[plane + rowStart + gx] = m > 0 ? static_cast<float>(su) / static_cast<float>(m) : 128.0f;
      colour[2 * plane + rowStart + gx] = m > 0 ? static_cast<float>(sv) / static_cast<float>(m) : 128.0f;
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
    const float cover = clampf((work->front[i] - 0.25f) / 0.75f, 0.0f, 1.0f);
    const bool isNear = anyNear && nearRadius[i] > 0.0f;
    const uint32_t w = isNear ? 0 : static_cast<uint32_t>(cover * kCoverScale + 0.5f);
    // Highlight gain from the block's brightest pixel: small lights must not average away.
    weight[i] = w * highlight[static_cast<uint32_t>(work->blurred[i]) & 255];
  }
  build_sat(work->sat, weight, colour, gw, gh);
  float* blurred = work->blurred;
  float levelRadius = -1.0f;
  DiscLevel level{0, 0.0f};
  // Largest radius of each sample and its two row neighbours (scratch until step 3).
  float* rowMax3 = work->nearDilated;
  for (int32_t gy = 0; gy < gh; ++gy) {
    const float* c = coc + static_cast<size_t>(gy) * gw;
    float* o = rowMax3 + static_cast<size_t>(gy) * gw;
    for (int32_t gx = 0; gx < gw; ++gx) {
      const float l = c[gx > 0 ? gx - 1 : 0], r = c[gx + 1 < gw ? gx + 1 : gx];
      const float m = l > r ? l : r;
      o[gx] = c[gx] > m ? c[gx] : m;
    }
  }
  for (int32_t gy = 0; gy < gh; ++gy) {
    for (int32_t gx = 0; gx < gw; ++gx) {
      const size_t i = static_cast<size_t>(gy) * gw + gx;
      // The grid's own averaging and the upsampling blur by about one grid sample already;
      // the gather supplies the rest (radii add in quadrature). At least radius 1, so that the
      // subject's samples learn the background colour next to them.
      const float c = coc[i];
      // Only where some grid sample around is blurred does anyone read this one's background.
      const float* up = rowMax3 + static_cast<size_t>(gy > 0 ? gy - 1 : 0) * gw;
      const float* down = rowMax3 + static_cast<size_t>(gy + 1 < gh ? gy + 1 : gy) * gw;
      float around = rowMax3[i] > up[gx] ? rowMax3[i] : up[gx];
      around = down[gx] > around ? down[gx] : around;
      if (around <= kBlendStartCells) {
        blurred[i] = colour[i], blurred[plane + i] = colour[plane + i], blurred[2 * plane + i] = colour[2 * plane + i];
        continue;
      }
      if (c != levelRadius) {  // neighbours mostly share their radius
        levelRadius = c;
        level = disc_level(c > 1.4142f ? sqrtf(c * c - 1.0f) : 1.0f, discs);
      }
      const DiscSums d = disc_sums_frac(work->sat, gw, gh, gx, gy, level, discs, plain);
      if (d.w <= 0.0f) {
        blurred[i] = colour[i], blurred[plane + i] = colour[plane + i], blurred[2 * plane + i] = colour[2 * plane + i];
      } else {
        const float inv = 1.0f / d.w;
        blurred[i] = d.y * inv, blurred[plane + i] = d.u * inv, blurred[2 * plane + i] = d.v * inv;
      }
    }
  }

  // 3. Foreground layer: samples nearer than the focus plane spread over their neighbourhood by
  //    their own radius; its alpha is the covered share of each sample's disc.
  float* front = work->front;
  if (anyNear) {
    float* dil = work->nearDilated;
    render_near_dilate(nearRadius, gw, gh, front, dil, work->plainOnly != 0);  // front: row-pass scratch
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
        if (dil[i] != levelRadius) {
          levelRadius = dil[i];
          level = disc_level(dil[i], discs);
        }
        const DiscSums d = disc_sums_frac(work->sat, gw, gh, gx, gy, level, discs, plain);
        if (d.w <= 0.0f) {
          f[0] = f[1] = f[2] = f[3] = 0.0f;
          continue;
        }
        // Colour premultiplied by alpha, ready to lay over the background.
        const float alpha = clampf(d.w / kCoverScale * 1.5f, 0.0f, 1.0f);
        const float scale = alpha / d.w;
        f[0] = d.y * scale, f[1] = d.u * scale, f[2] = d.v * scale, f[3] = alpha;
      }
    }
  }

  // 4. Full resolution.
  composite<S>(work, luma, ca, width, height, anyNear);
}

}  // namespace

void render_bokeh(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height, int32_t chromaLayout,
                  const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth, int32_t mapHeight, float fNumber) {
  if (work->scale == 4) {
    render_scaled<4>(work, luma, chroma, width, height, chromaLayout, map, nearMask, mapWidth, mapHeight, fNumber);
  } else {
    render_scaled<2>(work, luma, chroma, width, height, chromaLayout, map, nearMask, mapWidth, mapHeight, fNumber);
  }
}
