// stereo_core.cpp - the plain reference matcher. Loops are written so that the compiler
// vectorises the per-disparity work (16-bit lanes); there is no separate SIMD path.
#include "stereo_core.h"

#include <stdlib.h>
#include <string.h>

namespace {

const int32_t kMaxPaths = 4;  // per pass
const uint16_t kSentinel = 0x3FFF;

inline uint16_t sat_add16(uint16_t a, uint16_t b) {
  uint16_t s = uint16_t(a + b);
  return s < a ? uint16_t(0xFFFF) : s;
}

inline uint32_t pop32(uint32_t v) {
  v = v - ((v >> 1) & 0x55555555u);
  v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
  return (((v + (v >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24;
}

inline uint32_t pop64(uint64_t v) {
  return pop32(uint32_t(v)) + pop32(uint32_t(v >> 32));
}

inline int32_t clampi(int32_t v, int32_t lo, int32_t hi) {
  return v < lo ? lo : v > hi ? hi : v;
}

// Costs of one row: census Hamming distance per disparity; disparities that fall outside the
// right view get the mean of the pixel's real costs, so that aggregation decides there.
template <bool kWide>
void cost_row(const StereoParams& p, const uint64_t* cl, const uint64_t* cr, uint16_t* cost) {
  const int32_t w = p.width, nd = p.disparities, dmin = p.minDisparity;
  for (int32_t x = 0; x < w; ++x) {
    uint16_t* c = cost + size_t(x) * size_t(nd);
    // Valid k: 0 <= x - dmin - k < w  <=>  x - dmin - w < k <= x - dmin.
    int32_t k0 = clampi(x - dmin - w + 1, 0, nd), k1 = clampi(x - dmin + 1, 0, nd);
    uint32_t total = 0;
    if (kWide) {
      const uint64_t l = cl[x];
      const uint64_t* r = cr + (x - dmin);
      for (int32_t k = k0; k < k1; ++k) {
        uint16_t v = uint16_t(pop64(l ^ r[-k]));
        c[k] = v;
        total += v;
      }
    } else {
      const uint32_t l = uint32_t(cl[x]);
      const uint64_t* r = cr + (x - dmin);
      for (int32_t k = k0; k < k1; ++k) {
        uint16_t v = uint16_t(pop32(l ^ uint32_t(r[-k])));
        c[k] = v;
        total += v;
      }
    }
    uint16_t fillCost = k1 > k0 ? uint16_t(total / uint32_t(k1 - k0)) : uint16_t(stereo_census_bits(p.quality) / 2);
    for (int32_t k = 0; k < k0; ++k) c[k] = fillCost;
    for (int32_t k = k1; k < nd; ++k) c[k] = fillCost;
  }
}

// One step of one path: L(p, k) = C(p, k) + min(L(q, k), L(q, k +- 1) + P1, min L(q) + P2) - min L(q).
// `prev` and `out` hold nd + 2 values with sentinels at both ends. Adds L into `acc`.
inline uint16_t path_step(const uint16_t* prev, uint16_t minPrev, const uint16_t* c, uint16_t* out, uint16_t* acc,
                          int32_t nd, uint16_t p1, uint16_t p2, bool first) {
  const uint16_t* lp = prev + 1;
  uint16_t* lo = out + 1;
  uint16_t bound = uint16_t(minPrev + p2);
  uint16_t newMin = 0xFFFF;
  for (int32_t k = 0; k < nd; ++k) {
    uint16_t a = lp[k] < bound ? lp[k] : bound;
    uint16_t nb = lp[k - 1] < lp[k + 1] ? lp[k - 1] : lp[k + 1];
    nb = uint16_t(nb + p1);
    uint16_t v = a < nb ? a : nb;
    uint16_t l = uint16_t(c[k] + v - minPrev);
    lo[k] = l;
    newMin = l < newMin ? l : newMin;
    acc[k] = first ? l : sat_add16(acc[k], l);
  }
  return newMin;
}

void reset_rows(uint16_t* rows, uint16_t* mins, int32_t paths, int32_t w, int32_t nd) {
  size_t stride = size_t(nd) + 2;
  for (int32_t i = 0; i < paths * (w + 2); ++i) {
    uint16_t* r = rows + size_t(i) * stride;
    memset(r, 0, stride * sizeof(uint16_t));
    r[0] = r[nd + 1] = kSentinel;
  }
  memset(mins, 0, size_t(paths) * size_t(w + 2) * sizeof(uint16_t));
}

// One pass over the image: forward (top to bottom, left to right) or backward, aggregating the
// paths whose previous pixel is at (x + dx, y + dy).
void aggregate_pass(StereoBuffers* b, const uint8_t* img, int32_t stride, bool forward, const int32_t (*dirs)[2],
                    int32_t paths, bool firstPass) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, nd = p.disparities;
  const size_t rowStride = size_t(nd) + 2, pathRows = size_t(w + 2) * rowStride;
  reset_rows(b->pathPrev, b->minPrev, paths, w, nd);
  reset_rows(b->pathCur, b->minCur, paths, w, nd);
  const uint16_t p1 = uint16_t(p.p1);
  for (int32_t yi = 0; yi < h; ++yi) {
    const int32_t y = forward ? yi : h - 1 - yi;
    for (int32_t xi = 0; xi < w; ++xi) {
      const int32_t x = forward ? xi : w - 1 - xi;
      const size_t at = size_t(y) * size_t(w) + size_t(x);
      const uint16_t* c = b->cost + at * size_t(nd);
      uint16_t* acc = b->sum + at * size_t(nd);
      const int32_t pix = img[size_t(y) * size_t(stride) + size_t(x)];
      for (int32_t r = 0; r < paths; ++r) {
        const int32_t dx = dirs[r][0], dy = dirs[r][1];
        const int32_t qx = x + dx, qy = y + dy;
        const bool inside = qx >= 0 && qx < w && qy >= 0 && qy < h;
        // Penalty for a jump shrinks across intensity edges, where depth edges are likely.
        uint16_t p2 = uint16_t(p.p2);
        if (inside) {
          int32_t g = pix - img[size_t(qy) * size_t(stride) + size_t(qx)];
          g = g < 0 ? -g : g;
          int32_t a = p.p2 * 24 / (24 + g);
          p2 = uint16_t(a > p.p1 + 1 ? a : p.p1 + 1);
        }
        const uint16_t* src =
            (dy == 0 ? b->pathCur : b->pathPrev) + size_t(r) * pathRows + size_t(x + 1 + dx) * rowStride;
        uint16_t minQ = (dy == 0 ? b->minCur : b->minPrev)[size_t(r) * size_t(w + 2) + size_t(x + 1 + dx)];
        if (!inside) {
          // Path start: the padding entries hold zeros, so L = C.
          src = b->pathPrev + size_t(r) * pathRows;  // column 0 of the previous rows is always zero
          minQ = 0;
        }
        uint16_t* dst = b->pathCur + size_t(r) * pathRows + size_t(x + 1) * rowStride;
        b->minCur[size_t(r) * size_t(w + 2) + size_t(x + 1)] =
            path_step(src, minQ, c, dst, acc, nd, p1, p2, firstPass && r == 0);
      }
    }
    uint16_t* t = b->pathPrev;
    b->pathPrev = b->pathCur;
    b->pathCur = t;
    t = b->minPrev;
    b->minPrev = b->minCur;
    b->minCur = t;
  }
}

// Winner-take-all with uniqueness and parabola sub-pixel; the right view's integer disparity from
// the same aggregated costs; then the left-right check.
void select_disparities(StereoBuffers* b) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, nd = p.disparities;
  for (int32_t y = 0; y < h; ++y) {
    int16_t* dl = b->dispL + size_t(y) * size_t(w);
    int16_t* dr = b->dispR + size_t(y) * size_t(w);
    uint8_t* kind = b->holeKind + size_t(y) * size_t(w);
    for (int32_t x = 0; x < w; ++x) {
      b->rowMin[x] = 0xFFFF;
      dr[x] = STEREO_INVALID;
    }
    for (int32_t x = 0; x < w; ++x) {
      const uint16_t* s = b->sum + (size_t(y) * size_t(w) + size_t(x)) * size_t(nd);
      int32_t best = 0;
      uint16_t bestCost = s[0];
      for (int32_t k = 1; k < nd; ++k) {
        if (s[k] < bestCost) {
          bestCost = s[k];
          best = k;
        }
      }
      // Right view: pixel x - dmin - k sees this cost at disparity k.
      int32_t k0 = clampi(x - p.minDisparity - w + 1, 0, nd), k1 = clampi(x - p.minDisparity + 1, 0, nd);
      for (int32_t k = k0; k < k1; ++k) {
        int32_t xr = x - p.minDisparity - k;
        if (s[k] < b->rowMin[xr]) {
          b->rowMin[xr] = s[k];
          dr[xr] = int16_t(k);
        }
      }
      bool unique = true;
      uint32_t limit = uint32_t(bestCost) * 100u;
      for (int32_t k = 0; k < nd; ++k) {
        if ((k < best - 1 || k > best + 1) && uint32_t(s[k]) * uint32_t(100 - p.uniqueness) < limit) {
          unique = false;
          break;
        }
      }
      if (!unique) {
        dl[x] = STEREO_INVALID;
        kind[x] = 2;
        continue;
      }
      int32_t sub = 0;
      if (best > 0 && best < nd - 1) {
        int32_t a = s[best - 1], c = s[best + 1], den = a + c - 2 * int32_t(bestCost);
        if (den > 0) {
          int32_t num = (a - c) * STEREO_SUBPIXEL;
          sub = (num >= 0 ? num + den : num - den) / (2 * den);
        }
        sub = clampi(sub, -STEREO_SUBPIXEL / 2, STEREO_SUBPIXEL / 2);
      }
      dl[x] = int16_t((p.minDisparity + best) * STEREO_SUBPIXEL + sub);
      kind[x] = 0;
    }
    for (int32_t x = 0; x < w; ++x) {
      if (dl[x] == STEREO_INVALID) continue;
      int32_t k = (dl[x] + STEREO_SUBPIXEL / 2) / STEREO_SUBPIXEL - p.minDisparity;
      int32_t xr = x - p.minDisparity - k;
      if (xr < 0 || xr >= w) {
        dl[x] = STEREO_INVALID;  // the sub view cannot see it: filled from neighbours later
        kind[x] = 1;
      } else if (dr[xr] == STEREO_INVALID || abs(dr[xr] - k) > 1) {
        dl[x] = STEREO_INVALID;
        kind[x] = 1;
      }
    }
  }
}

// Nearest valid pixel on each of four sides, then a choice per hole: similar luma, short
// distance, and for occlusions (left-right failures) the farther surface.
void fill_holes(StereoBuffers* b, const uint8_t* img, int32_t stride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height;
  int16_t* d = b->dispL;
  int16_t* cand = b->candidates;
  const int16_t kNone = STEREO_INVALID;
  // Row scans: left (slot 0) and right (slot 1).
  for (int32_t y = 0; y < h; ++y) {
    int16_t last = kNone;
    int32_t lastX = 0;
    for (int32_t x = 0; x < w; ++x) {
      size_t i = size_t(y) * size_t(w) + size_t(x);
      if (d[i] != kNone) last = d[i], lastX = x;
      cand[i * 8 + 0] = last;
      cand[i * 8 + 1] = int16_t(x - lastX);
    }
    last = kNone;
    for (int32_t x = w - 1; x >= 0; --x) {
      size_t i = size_t(y) * size_t(w) + size_t(x);
      if (d[i] != kNone) last = d[i], lastX = x;
      cand[i * 8 + 2] = last;
      cand[i * 8 + 3] = int16_t(lastX - x);
    }
  }
  // Column scans: up (slot 2) and down (slot 3), with per-column state kept in the labels.
  int32_t* lastY = b->labels;
  int32_t* lastV = b->stack;
  for (int32_t x = 0; x < w; ++x) lastV[x] = kNone, lastY[x] = 0;
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      size_t i = size_t(y) * size_t(w) + size_t(x);
      if (d[i] != kNone) lastV[x] = d[i], lastY[x] = y;
      cand[i * 8 + 4] = int16_t(lastV[x]);
      cand[i * 8 + 5] = int16_t(y - lastY[x]);
    }
  }
  for (int32_t x = 0; x < w; ++x) lastV[x] = kNone, lastY[x] = 0;
  for (int32_t y = h - 1; y >= 0; --y) {
    for (int32_t x = 0; x < w; ++x) {
      size_t i = size_t(y) * size_t(w) + size_t(x);
      if (d[i] != kNone) lastV[x] = d[i], lastY[x] = y;
      cand[i * 8 + 6] = int16_t(lastV[x]);
      cand[i * 8 + 7] = int16_t(lastY[x] - y);
    }
  }
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      size_t i = size_t(y) * size_t(w) + size_t(x);
      b->dispR[i] = kNone;
      if (d[i] != kNone) continue;
      const int16_t* c = cand + i * 8;
      int32_t vmin = 0x7FFF;
      for (int s = 0; s < 4; ++s)
        if (c[2 * s] != kNone && c[2 * s] < vmin) vmin = c[2 * s];
      if (vmin == 0x7FFF) continue;  // nothing valid in any direction
      const int32_t pix = img[size_t(y) * size_t(stride) + size_t(x)];
      int32_t bestScore = 0x7FFFFFFF, bestV = vmin;
      for (int s = 0; s < 4; ++s) {
        if (c[2 * s] == kNone) continue;
        int32_t dist = c[2 * s + 1];
        int32_t sx = x, sy = y;
        if (s == 0) sx -= dist;
        if (s == 1) sx += dist;
        if (s == 2) sy -= dist;
        if (s == 3) sy += dist;
        int32_t g = pix - img[size_t(sy) * size_t(stride) + size_t(sx)];
        g = g < 0 ? -g : g;
        int32_t score = 4 * g + 2 * dist;
        if (b->holeKind[i] == 1) score += (c[2 * s] - vmin) * 8 / STEREO_SUBPIXEL;
        if (score < bestScore) bestScore = score, bestV = c[2 * s];
      }
      b->dispR[i] = int16_t(bestV);  // staged: the choice must not feed later choices
    }
  }
  for (size_t i = 0; i < size_t(w) * size_t(h); ++i)
    if (d[i] == kNone) d[i] = b->dispR[i];
}

}  // namespace

int32_t stereo_census_bits(int32_t quality) {
  return quality >= 2 ? 62 : 24;
}

bool stereo_params_default(StereoParams* p, int32_t width, int32_t height, int32_t minDisparity, int32_t disparities,
                           int32_t quality) {
  memset(p, 0, sizeof(*p));
  if (width < 8 || height < 8 || width > 8192 || height > 8192 || disparities < 8 || disparities > 1024 ||
      disparities % 8 != 0 || minDisparity < -1024 || minDisparity > 1024)
    return false;
  p->width = width;
  p->height = height;
  p->minDisparity = minDisparity;
  p->disparities = disparities;
  p->quality = quality >= 2 ? 2 : 1;
  p->p1 = p->quality == 2 ? 18 : 4;
  p->p2 = p->quality == 2 ? 200 : 48;
  p->uniqueness = 5;
  p->speckleSize = clampi(width * height / 800, 8, 400);
  p->fill = true;
  return true;
}

size_t stereo_bytes_needed(const StereoParams* p) {
  if (p == nullptr || p->width < 8 || p->height < 8 || p->width > 8192 || p->height > 8192 || p->disparities < 8 ||
      p->disparities > 1024)
    return 0;
  uint64_t n = uint64_t(p->width) * uint64_t(p->height);
  uint64_t volume = n * uint64_t(p->disparities);
  uint64_t rows = uint64_t(kMaxPaths) * uint64_t(p->width + 2) * uint64_t(p->disparities + 2);
  uint64_t total = n * 8 * 2 + volume * 2 * 2 + rows * 2 * 2 + uint64_t(kMaxPaths) * uint64_t(p->width + 2) * 2 * 2 +
                   uint64_t(p->width) * 2 + n * 8 * 2 + n * 2 * 2 + n * 4 * 2 + n;
  if (total > (uint64_t(1) << 31)) return 0;  // also keeps 32-bit builds' size_t safe
  return size_t(total);
}

bool stereo_alloc(StereoBuffers* b, const StereoParams* p) {
  memset(b, 0, sizeof(*b));
  size_t bytes = stereo_bytes_needed(p);
  if (bytes == 0) return false;
  b->params = *p;
  size_t n = size_t(p->width) * size_t(p->height), volume = n * size_t(p->disparities);
  size_t rows = size_t(kMaxPaths) * size_t(p->width + 2) * size_t(p->disparities + 2);
  size_t mins = size_t(kMaxPaths) * size_t(p->width + 2);
  b->censusL = static_cast<uint64_t*>(malloc(n * 8));
  b->censusR = static_cast<uint64_t*>(malloc(n * 8));
  b->cost = static_cast<uint16_t*>(malloc(volume * 2));
  b->sum = static_cast<uint16_t*>(malloc(volume * 2));
  b->pathPrev = static_cast<uint16_t*>(malloc(rows * 2));
  b->pathCur = static_cast<uint16_t*>(malloc(rows * 2));
  b->minPrev = static_cast<uint16_t*>(malloc(mins * 2));
  b->minCur = static_cast<uint16_t*>(malloc(mins * 2));
  b->rowMin = static_cast<uint16_t*>(malloc(size_t(p->width) * 2));
  b->candidates = static_cast<int16_t*>(malloc(n * 8 * 2));
  b->dispL = static_cast<int16_t*>(malloc(n * 2));
  b->dispR = static_cast<int16_t*>(malloc(n * 2));
  b->labels = static_cast<int32_t*>(malloc(n * 4));
  b->stack = static_cast<int32_t*>(malloc(n * 4));
  b->holeKind = static_cast<uint8_t*>(malloc(n));
  b->bytes = bytes;
  if (!b->censusL || !b->censusR || !b->cost || !b->sum || !b->pathPrev || !b->pathCur || !b->minPrev || !b->minCur ||
      !b->rowMin || !b->candidates || !b->dispL || !b->dispR || !b->labels || !b->stack || !b->holeKind) {
    stereo_free(b);
    return false;
  }
  return true;
}

void stereo_free(StereoBuffers* b) {
  free(b->censusL);
  free(b->censusR);
  free(b->cost);
  free(b->sum);
  free(b->pathPrev);
  free(b->pathCur);
  free(b->minPrev);
  free(b->minCur);
  free(b->rowMin);
  free(b->candidates);
  free(b->dispL);
  free(b->dispR);
  free(b->labels);
  free(b->stack);
  free(b->holeKind);
  memset(b, 0, sizeof(*b));
}

void stereo_census(const uint8_t* img, int32_t stride, int32_t width, int32_t height, int32_t quality, uint64_t* out) {
  const int32_t rx = quality >= 2 ? 4 : 2, ry = quality >= 2 ? 3 : 2;
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      const int32_t centre = img[size_t(y) * size_t(stride) + size_t(x)];
      uint64_t bits = 0;
      for (int32_t dy = -ry; dy <= ry; ++dy) {
        // Borders repeat the edge pixels.
        const uint8_t* row = img + size_t(clampi(y + dy, 0, height - 1)) * size_t(stride);
        for (int32_t dx = -rx; dx <= rx; ++dx) {
          if (dx == 0 && dy == 0) continue;
          bits = (bits << 1) | (row[clampi(x + dx, 0, width - 1)] < centre ? 1u : 0u);
        }
      }
      out[size_t(y) * size_t(width) + size_t(x)] = bits;
    }
  }
}

void stereo_remove_speckles(int16_t* disp, int32_t width, int32_t height, int32_t maxSize, int32_t maxDiff,
                            int32_t* labels, int32_t* stack) {
  const size_t n = size_t(width) * size_t(height);
  for (size_t i = 0; i < n; ++i) labels[i] = 0;
  int32_t label = 0;
  for (size_t start = 0; start < n; ++start) {
    if (labels[start] != 0 || disp[start] == STEREO_INVALID) continue;
    ++label;
    // Flood fill; `stack` first holds the frontier, the component is re-walked to clear it.
    size_t top = 0, count = 0;
    stack[top++] = int32_t(start);
    labels[start] = label;
    size_t head = 0;
    // Breadth-first with the stack array used as a queue: every member stays in it.
    while (head < top) {
      int32_t i = stack[head++];
      ++count;
      int32_t x = i % width, y = i / width;
      const int32_t nb[4][2] = {{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}};
      for (const auto& q : nb) {
        if (q[0] < 0 || q[0] >= width || q[1] < 0 || q[1] >= height) continue;
        int32_t j = q[1] * width + q[0];
        if (labels[j] != 0 || disp[j] == STEREO_INVALID || abs(disp[j] - disp[i]) > maxDiff) continue;
        labels[j] = label;
        stack[top++] = j;
      }
    }
    if (count < size_t(maxSize))
      for (size_t k = 0; k < top; ++k) disp[stack[k]] = STEREO_INVALID;
  }
}

void stereo_run(StereoBuffers* b, const uint8_t* left, int32_t leftStride, const uint8_t* right, int32_t rightStride,
                int16_t* disparity) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, nd = p.disparities;
  stereo_census(left, leftStride, w, h, p.quality, b->censusL);
  stereo_census(right, rightStride, w, h, p.quality, b->censusR);
  for (int32_t y = 0; y < h; ++y) {
    const uint64_t* cl = b->censusL + size_t(y) * size_t(w);
    const uint64_t* cr = b->censusR + size_t(y) * size_t(w);
    uint16_t* cost = b->cost + size_t(y) * size_t(w) * size_t(nd);
    if (p.quality >= 2)
      cost_row<true>(p, cl, cr, cost);
    else
      cost_row<false>(p, cl, cr, cost);
  }
  static const int32_t kForward8[4][2] = {{-1, 0}, {0, -1}, {-1, -1}, {1, -1}};
  static const int32_t kBackward8[4][2] = {{1, 0}, {0, 1}, {1, 1}, {-1, 1}};
  const int32_t paths = p.quality >= 2 ? 4 : 2;
  aggregate_pass(b, left, leftStride, true, kForward8, paths, true);
  aggregate_pass(b, left, leftStride, false, kBackward8, paths, false);
  select_disparities(b);
  stereo_remove_speckles(b->dispL, w, h, p.speckleSize, STEREO_SUBPIXEL, b->labels, b->stack);
  const size_t n = size_t(w) * size_t(h);
  for (size_t i = 0; i < n; ++i)
    if (b->dispL[i] == STEREO_INVALID && b->holeKind[i] == 0) b->holeKind[i] = 2;
  if (p.fill) fill_holes(b, left, leftStride);
  memcpy(disparity, b->dispL, n * sizeof(int16_t));
}
