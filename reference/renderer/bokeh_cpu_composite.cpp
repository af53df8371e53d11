// bokeh_cpu_composite.cpp - the CPU bokeh renderer's last stage: the edge-guided composite of the
// background and foreground layers over the frame at full resolution, leaving sharp pixels as
// they are.
#include <math.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "bokeh_cpu_internal.h"

namespace {

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
// Grid radius from which every weight is 1, interpolated or guided (both are weighted means of
// the radii around), with a margin for rounding.
constexpr float kFullBlurRadius = kBlendStartCells + kBlendWidthCells + 0.01f;

// Whether the radii around (their least lo, their largest hi) make an edge of the map the guide
// must resolve: they differ by more than kGuideMinStep and some lies inside the blend ramp.
inline bool guided(float lo, float hi) {
  return hi - lo > kGuideMinStep && lo < kFullBlurRadius;
}

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
    if (k0 == 0 && k1 == F && !in.front && (tGiven != nullptr || !guided(lo, hi))) {
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
      if (guided(lo, hi)) {
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
      if (!guided(lo, hi)) {
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
    // Where every radius is past the ramp any choice among them gives t = 1: fully blurred,
    // however steep the map (large blurs of a sloping surface are not an edge).
    const int32_t kind = hi <= kBlendStartCells  ? SPAN_SHARP
                         : lo >= kFullBlurRadius ? SPAN_FULL
                         : guided(lo, hi)        ? SPAN_EDGE + b + 1
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

// Per-frame row storage of the composite: padded interpolated grid rows (index -1 .. gw), the
// per-column radius range of the current grid row pair, and full-resolution row arrays.
struct CompositeRows {
  float* cv;        // blur radius
  float* bv;        // background (luma, a chroma channel, or the channel stored first)
  float* bvSecond;  // background of the channel stored second (interleaved chroma lines)
  float* av;        // foreground alpha
  float* fv;        // foreground premultiplied colour
  float* cmin;      // per grid column, over the two grid rows
  float* cmax;
  float* tRow;           // blend weight of the luma line
  float* cRow;           // blend weight of the chroma line
  float* bRow;           // background of the line
  float* aRow;           // foreground alpha of the line
  float* fRow;           // premultiplied foreground of the line
  float guideLut[256];   // edge-guide weight by luma difference
  int32_t firstChannel;  // plane index of the chroma channel stored first
  bool interleaved;
};

// What holds for every line between one pair of grid rows.
struct PairState {
  int32_t gy0;  // upper grid row of the pair the state is for; -1 before the first
  float rowMax;
  bool pairAlpha;  // the foreground reaches either grid row
  int32_t spanCount;
  bool edgeSpans;
};

void composite_rows_init(RenderWork* work, const ChromaAccess& ca, CompositeRows* r) {
  const int32_t pad = work->gridWidth + 2;
  r->cv = work->gridRows + 1;
  r->bv = r->cv + pad;
  r->av = r->bv + pad;
  r->fv = r->av + pad;
  r->cmin = r->fv + pad;
  r->cmax = r->cmin + pad;
  r->bvSecond = r->cmax + pad;
  r->tRow = work->rowT;
  r->cRow = work->rowC;
  r->bRow = work->rowB;
  r->aRow = work->rowA;
  r->fRow = work->rowF;
  for (int32_t d = 0; d < 256; ++d) r->guideLut[d] = expf(-0.5f * (d / kGuideSigma) * (d / kGuideSigma)) + 1e-4f;
  r->interleaved = ca.step == 2;
  r->firstChannel = ca.u < ca.v ? 1 : 2;
}

// Per grid row pair, not per pixel row: the radius range of each column, whether the foreground
// reaches either row (where it reaches neither, every interpolated alpha between them is 0) and,
// on the 4 x 4 grid, the line's spans.
template <int32_t S>
void composite_pair_setup(RenderWork* work, int32_t gy0, int32_t gy1, int32_t width, bool anyNear,
                          const CompositeRows& r, PairState* pair) {
  const int32_t gw = work->gridWidth;
  const float* coc = work->coc;
  pair->rowMax = 0.0f;
  for (int32_t g = 0; g < gw; ++g) {
    const float a = coc[static_cast<size_t>(gy0) * gw + g], b = coc[static_cast<size_t>(gy1) * gw + g];
    r.cmin[g] = a < b ? a : b;
    r.cmax[g] = a > b ? a : b;
    pair->rowMax = r.cmax[g] > pair->rowMax ? r.cmax[g] : pair->rowMax;
  }
  pair->pairAlpha = false;
  if (anyNear) {
    const float* f0 = work->front + static_cast<size_t>(gy0) * gw * 4 + 3;
    const float* f1 = work->front + static_cast<size_t>(gy1) * gw * 4 + 3;
    for (int32_t g = 0; g < gw && !pair->pairAlpha; ++g) pair->pairAlpha = f0[4 * g] > 0.0f || f1[4 * g] > 0.0f;
  }
  pair->gy0 = gy0;
  if (S == 4) {
    pair->spanCount = line_spans(width, gw, r.cmin, r.cmax, work->spans);
    pair->edgeSpans = false;
    for (int32_t i = 0; i < pair->spanCount; ++i)
      pair->edgeSpans = pair->edgeSpans || work->spans[3 * i + 2] >= SPAN_EDGE;
  }
}

// A luma line of the 4 x 4 grid without foreground, span by span; chroma bytes [from, to) of the
// even lines take the same spans. Returns whether the line's chroma is done (or has none).
bool composite_span_line(RenderWork* work, const ChromaAccess& ca, const CompositeRows& r, const RowInputs& row,
                         const PairState& pair, UpSlots* up, uint8_t* lumaRow, int32_t y, int32_t width, int32_t height,
                         int32_t gy0, int32_t gy1, float fy) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const int32_t ch = height / 2;
  const float* r0 = up_row(up, work, gy0, gy1, r.firstChannel);
  const float* r1 = up_row(up, work, gy1, gy0, r.firstChannel);
  const bool chromaLine = (y & 1) == 0 && y / 2 < ch;
  uint8_t* chromaRow =
      r.interleaved && chromaLine ? (ca.u < ca.v ? ca.u : ca.v) + static_cast<size_t>(y / 2) * ca.stride : nullptr;
  const float cfy = clampf((y / 2 + 0.5f) * 0.5f - 0.5f, 0.0f, static_cast<float>(gh - 1)) - gy0;
  float* tRow = r.tRow;
  for (int32_t i = 0; i < pair.spanCount; ++i) {
    const int32_t from = work->spans[3 * i], to = work->spans[3 * i + 1], kind = work->spans[3 * i + 2];
    if (kind == SPAN_SHARP) {
      for (int32_t x = from; x < to; ++x) tRow[x] = 0.0f;
      continue;
    }
    if (kind == SPAN_FULL) {
      stream_full(lumaRow + from, to - from, r0 + width + from, r1 + width + from, fy, tRow + from);
      if (chromaRow != nullptr)
        stream_full(chromaRow + from, to - from, r0 + 2 * width + from, r1 + 2 * width + from, cfy, r.cRow);
      continue;
    }
    if (kind == SPAN_PLAIN) {
      stream_luma(lumaRow + from, to - from, r0 + from, r1 + from, r0 + width + from, r1 + width + from, fy,
                  tRow + from);
      if (chromaRow != nullptr) stream_chroma(chromaRow, from, to, r0 + 2 * width, r1 + 2 * width, cfy, tRow);
      continue;
    }
    prepare_block<4, 1, 4>(kind - SPAN_EDGE - 1, width, gw, row, lumaRow, nullptr, r.guideLut, work->coc, work->colour,
                           gy0, gy1, fy, 0, tRow, r.bRow, nullptr, nullptr);
    blend_run(lumaRow + from, to - from, tRow + from, r.bRow + from, nullptr, nullptr);
    if (chromaRow != nullptr) stream_chroma(chromaRow, from, to, r0 + 2 * width, r1 + 2 * width, cfy, tRow);
  }
  return !chromaLine || chromaRow != nullptr;
}

// The chroma line under even luma line y: each sample takes the blend of its block's top-left
// luma pixel (tRow).
template <int32_t S>
void composite_chroma_line(RenderWork* work, const ChromaAccess& ca, const CompositeRows& r, const RowInputs& row,
                           int32_t y, int32_t width) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const size_t plane = static_cast<size_t>(gw) * gh;
  const int32_t cw = width / 2;
  const int32_t cy = y / 2;
  const float cyf = clampf((cy + 0.5f) * 2.0f / S - 0.5f, 0.0f, static_cast<float>(gh - 1));
  const int32_t cy0 = static_cast<int32_t>(cyf), cy1 = cy0 + 1 < gh ? cy0 + 1 : cy0;
  const float cfy = cyf - cy0;
  const bool interleaved = r.interleaved;
  uint8_t* firstStored = ca.u < ca.v ? ca.u : ca.v;
  if (row.front) lerp_rows(work->front + 3, gw, cy0, cy1, cfy, 4, r.av);
  // Interleaved chroma: both channels into one array, blended as one run of 2 x cw bytes.
  if (interleaved && !row.front) {
    lerp_rows(work->blurred + r.firstChannel * plane, gw, cy0, cy1, cfy, 1, r.bv);
    lerp_rows(work->blurred + (3 - r.firstChannel) * plane, gw, cy0, cy1, cfy, 1, r.bvSecond);
    prepare_chroma_line(cw, gw, r.bv, r.bvSecond, r.tRow, r.cRow, r.bRow);
    blend_run(firstStored + static_cast<size_t>(cy) * ca.stride, 2 * cw, r.cRow, r.bRow, nullptr, nullptr);
    return;
  }
  for (int32_t k = 0; k < 2; ++k) {
    uint8_t* line = (k == 0 ? ca.u : ca.v) + static_cast<size_t>(cy) * ca.stride;
    lerp_rows(work->blurred + (k + 1) * plane, gw, cy0, cy1, cfy, 1, r.bv);
    if (row.front) lerp_rows(work->front + 1 + k, gw, cy0, cy1, cfy, 4, r.fv);
    const int32_t off =
        interleaved ? static_cast<int32_t>(line - firstStored - static_cast<ptrdiff_t>(cy) * ca.stride) : 0;
    if (interleaved) {
      prepare_line<S / 2, 2, S>(cw, gw, row, nullptr, r.tRow, r.guideLut, work->coc, work->colour, cy0, cy1, cfy, off,
                                r.cRow, r.bRow, r.aRow, r.fRow);
    } else {
      prepare_line<S / 2, 1, S>(cw, gw, row, nullptr, r.tRow, r.guideLut, work->coc, work->colour, cy0, cy1, cfy, 0,
                                r.cRow, r.bRow, r.aRow, r.fRow);
    }
    if (!interleaved) blend_run(line, cw, r.cRow, r.bRow, row.front ? r.aRow : nullptr, r.fRow);
  }
  if (interleaved) {
    uint8_t* line = firstStored + static_cast<size_t>(cy) * ca.stride;
    blend_run(line, 2 * cw, r.cRow, r.bRow, row.front ? r.aRow : nullptr, r.fRow);
  }
}

}  // namespace

template <int32_t S>
void bokeh_composite(RenderWork* work, uint8_t* luma, const ChromaAccess& ca, int32_t width, int32_t height,
                     bool anyNear) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const int32_t ch = height / 2;
  const float* coc = work->coc;
  CompositeRows r;
  composite_rows_init(work, ca, &r);
  const RowInputs in{r.cv, r.bv, r.av, r.fv, r.cmin, r.cmax, false};
  PairState pair{-1, 0.0f, false, 0, true};
  UpSlots up{work->upRows, width, {-1, -1}};

  for (int32_t y = 0; y < height; ++y) {
    const float gyf = clampf((y + 0.5f) / S - 0.5f, 0.0f, static_cast<float>(gh - 1));
    const int32_t gy0 = static_cast<int32_t>(gyf), gy1 = gy0 + 1 < gh ? gy0 + 1 : gy0;
    const float fy = gyf - gy0;
    if (pair.gy0 != gy0) composite_pair_setup<S>(work, gy0, gy1, width, anyNear, r, &pair);
    RowInputs row = in;
    if (pair.pairAlpha) {
      lerp_rows(work->front + 3, gw, gy0, gy1, fy, 4, r.av);
      for (int32_t g = 0; g < gw && !row.front; ++g) row.front = r.av[g] > 0.0f;
    }
    if (!(pair.rowMax > kBlendStartCells || row.front)) continue;  // the row and its chroma stay
    if (S != 4 || row.front || pair.edgeSpans) {  // the per-block code reads the interpolated grid rows
      lerp_rows(coc, gw, gy0, gy1, fy, 1, r.cv);
      lerp_rows(work->blurred, gw, gy0, gy1, fy, 1, r.bv);
    }
    if (row.front) lerp_rows(work->front, gw, gy0, gy1, fy, 4, r.fv);
    uint8_t* lumaRow = luma + static_cast<size_t>(y) * width;
    if (S == 4 && !row.front) {
      if (composite_span_line(work, ca, r, row, pair, &up, lumaRow, y, width, height, gy0, gy1, fy)) continue;
    } else if (S == 4) {
      prepare_luma_line<true>(width, gw, row, lumaRow, r.guideLut, coc, work->colour, gy0, gy1, fy, r.tRow, r.bRow,
                              r.aRow, r.fRow, work->plainOnly != 0);
    } else {
      prepare_line<S, 1, S>(width, gw, row, lumaRow, nullptr, r.guideLut, coc, work->colour, gy0, gy1, fy, 0, r.tRow,
                            r.bRow, r.aRow, r.fRow);
    }
    if (S != 4 || row.front) blend_run(lumaRow, width, r.tRow, r.bRow, row.front ? r.aRow : nullptr, r.fRow);
    // Chroma rows follow the even luma rows.
    if ((y & 1) != 0 || y / 2 >= ch) continue;
    composite_chroma_line<S>(work, ca, r, row, y, width);
  }
}

template void bokeh_composite<2>(RenderWork*, uint8_t*, const ChromaAccess&, int32_t, int32_t, bool);
template void bokeh_composite<4>(RenderWork*, uint8_t*, const ChromaAccess&, int32_t, int32_t, bool);
