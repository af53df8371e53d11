// stereo_core.cpp - the stereo matcher: the order of the stages and the buffers. The row
// kernels (census, costs, aggregation, winner-take-all) come from stereo_kernels_*.cpp; the
// filtering stages after them are plain C++.
#include "stereo_core.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

const int32_t kMaxPaths = 5;  // path regions: 4 per pass, 5 for a pair of rows in one pass
const uint16_t kSentinel = 0x3FFF;
const int32_t kMaxRefineRadius = STEREO_MAX_REFINE_RADIUS;
const int32_t kPadX = 4, kPadY = 3, kPadSlack = 32;  // the widest census window and vector slack

inline int32_t clampi(int32_t v, int32_t lo, int32_t hi) {
  return v < lo ? lo : v > hi ? hi : v;
}

inline int32_t absi(int32_t v) {
  return v < 0 ? -v : v;
}

size_t padded_stride(int32_t w) {
  return size_t(w) + 2 * kPadX + kPadSlack;
}

size_t padded_bytes(int32_t w, int32_t h) {
  return padded_stride(w) * size_t(h + 2 * kPadY);
}

// Regions of at least planeMinSize pixels, so at most n / planeMinSize of them; none when off.
int32_t plane_count(const StereoParams& p) {
  if (p.planeMinSize <= 0) return 0;
  const int32_t minSize = p.planeMinSize < 8 ? 8 : p.planeMinSize;
  return int32_t(int64_t(p.width) * p.height / minSize);
}

// Margins of the reversed right row and of the right view's best-cost row (scratch for lanes
// whose pixel is outside the image).
size_t reversed_margin(const StereoParams& p) {
  return size_t(p.disparities) + size_t(absi(p.minDisparity)) + 32;
}

StereoCensusShape make_shape(bool sparse) {
  StereoCensusShape s;
  memset(&s, 0, sizeof(s));
  s.rx = 4;
  s.ry = 3;
  for (int32_t dy = -3; dy <= 3; ++dy) {
    for (int32_t dx = -4; dx <= 4; ++dx) {
      if (dx == 0 && dy == 0) continue;
      if (sparse && ((dx + dy) & 1) != 0) continue;  // checkerboard: half the comparisons, same reach
      s.dx[s.count] = int8_t(dx);
      s.dy[s.count] = int8_t(dy);
      ++s.count;
    }
  }
  return s;
}

// The image with kPadX / kPadY repeated border pixels, then one census row per image row
// (32-bit words for shapes of at most 32 bits, else 64-bit).
void census_image(const StereoKernels* k, const uint8_t* img, int32_t stride, int32_t w, int32_t h,
                  const StereoCensusShape* shape, uint8_t* padded, uint64_t* out) {
  const size_t ps = padded_stride(w);
  for (int32_t py = 0; py < h + 2 * kPadY; ++py) {
    const uint8_t* src = img + size_t(clampi(py - kPadY, 0, h - 1)) * size_t(stride);
    uint8_t* dst = padded + size_t(py) * ps;
    memset(dst, src[0], kPadX);
    memcpy(dst + kPadX, src, size_t(w));
    memset(dst + kPadX + w, src[w - 1], size_t(kPadX + kPadSlack));
  }
  const uint8_t* rows[2 * kPadY + 1];
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t j = 0; j <= 2 * shape->ry; ++j) rows[j] = padded + size_t(y + kPadY - shape->ry + j) * ps + kPadX;
    if (shape->count <= 32)
      k->census_row(rows, w, shape, reinterpret_cast<uint32_t*>(out) + size_t(y) * size_t(w));
    else
      k->census_row(rows, w, shape, out + size_t(y) * size_t(w));
  }
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

void reset_rows8(uint16_t* rows, uint16_t* mins, int32_t paths, int32_t w, int32_t nd) {
  size_t stride = size_t(nd) + 2;
  uint8_t* bytes = reinterpret_cast<uint8_t*>(rows);
  for (int32_t i = 0; i < paths * (w + 2); ++i) {
    uint8_t* r = bytes + size_t(i) * stride;
    memset(r, 0, stride);
    r[0] = r[nd + 1] = 0xFF;
  }
  memset(mins, 0, size_t(paths) * size_t(w + 2) * sizeof(uint16_t));
}

// Costs of row y as bytes: the right row reversed so that each pixel's disparities read
// forwards, then the kernel.
void costs_of_row(const StereoKernels* k, StereoBuffers* b, int32_t y, uint8_t* out) {
  const StereoParams& p = b->params;
  const int32_t w = p.width;
  const bool wide = p.quality >= 2;
  const size_t margin = reversed_margin(p);
  if (wide) {
    const uint64_t* cr = b->censusR + size_t(y) * size_t(w);
    uint64_t* rr = b->reversed + margin;
    for (int32_t t = 0; t < w; ++t) rr[t] = cr[w - 1 - t];
    k->cost_row(b->censusL + size_t(y) * size_t(w), rr, w, p.disparities, p.minDisparity, stereo_census_bits(p.quality),
                true, out);
  } else {
    // 32-bit words (the census of a narrow shape).
    const uint32_t* cr = reinterpret_cast<const uint32_t*>(b->censusR) + size_t(y) * size_t(w);
    uint32_t* rr = reinterpret_cast<uint32_t*>(b->reversed) + margin;
    for (int32_t t = 0; t < w; ++t) rr[t] = cr[w - 1 - t];
    k->cost_row(reinterpret_cast<const uint32_t*>(b->censusL) + size_t(y) * size_t(w), rr, w, p.disparities,
                p.minDisparity, stereo_census_bits(p.quality), false, out);
  }
}

// Winner-take-all of row y from b->rowSum, the right view's disparities, then the left-right
// check.
void select_row_and_check(const StereoKernels* k, StereoBuffers* b, int32_t y, const uint16_t* sum, bool small) {
  const StereoParams& p = b->params;
  const int32_t w = p.width;
  const size_t margin = reversed_margin(p), scratch = size_t(w) + 2 * margin;
  int16_t* dl = b->dispL + size_t(y) * size_t(w);
  int16_t* dr = b->dispR + size_t(y) * size_t(w);
  uint8_t* kind = b->holeKind + size_t(y) * size_t(w);
  for (size_t i = 0; i < scratch; ++i) b->rowMin[i] = 0xFFFF, b->rowDisp[i] = STEREO_INVALID;
  (small ? k->select_row_small : k->select_row)(sum, w, p.disparities, p.minDisparity, p.uniqueness, dl, kind,
                                                b->rowMin + margin, b->rowDisp + margin);
  memcpy(dr, b->rowDisp + margin, size_t(w) * sizeof(int16_t));
  for (int32_t x = 0; x < w; ++x) {
    const int32_t d = (dl[x] + STEREO_SUBPIXEL / 2) / STEREO_SUBPIXEL - p.minDisparity;
    const int32_t xr = x - p.minDisparity - d;
    // The right view disagrees or the match is right of it: filled from neighbours later. A
    // match left of the sub view stays: the sub camera never saw that strip, so there is no
    // check to make, and the aggregation (the right-to-left path above all, the outside
    // disparities costing the pixel's mean) carried the surface that continues into the frame;
    // the hole filler would take the farther surface as for an occlusion. Selections rather
    // than branches: on texture the outcome is close to random.
    const int32_t r = dr[clampi(xr, 0, w - 1)];
    const bool bad = dl[x] != STEREO_INVALID && xr >= 0 && (xr >= w || r == STEREO_INVALID || absi(r - d) > 1);
    dl[x] = bad ? int16_t(STEREO_INVALID) : dl[x];
    kind[x] = bad ? uint8_t(1) : kind[x];
  }
}

// Costs of row y as bytes in `bytesOut` and, for the 16-bit aggregation, widened in `wide16`.
void costs_both(const StereoKernels* k, StereoBuffers* b, int32_t y, uint8_t* __restrict bytesOut,
                uint16_t* __restrict wide16) {
  costs_of_row(k, b, y, bytesOut);
  if (wide16 == nullptr) return;
  uint16_t* __restrict cost = wide16;
  const size_t cells = size_t(b->params.width) * size_t(b->params.disparities);
  for (size_t i = 0; i < cells; ++i) cost[i] = bytesOut[i];
}

// Semi-global aggregation and selection. Two passes: forward (top to bottom) sums its paths
// into the volume; backward adds its own into one row and selects that row at once, so the
// volume is written once and read once. One pass: the forward paths plus the right-to-left
// path of the same row, selected at once; no volume at all.
void aggregate_and_select(const StereoKernels* k, StereoBuffers* b, const uint8_t* img, int32_t stride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, nd = p.disparities;
  static const int32_t kForward[4][2] = {{-1, 0}, {0, -1}, {-1, -1}, {1, -1}};
  static const int32_t kBackward[4][2] = {{1, 0}, {0, 1}, {1, 1}, {-1, 1}};
  const int32_t paths = p.paths >= 8 ? 4 : 2;  // per pass
  const int32_t halving = p.p2Halving > 0 ? p.p2Halving : 24;
  for (int32_t g = 0; g < 256; ++g) {
    int32_t a = p.p2 * halving / (halving + g);
    b->p2ForStep[g] = uint16_t(a > p.p1 + 1 ? a : p.p1 + 1);
  }
  StereoAggregateRow row;
  memset(&row, 0, sizeof(row));
  row.width = w;
  row.height = h;
  row.nd = nd;
  row.img = img;
  row.stride = stride;
  row.cost = b->cost;
  row.p1 = p.p1;
  row.p2 = p.p2;
  row.p2ForStep = b->p2ForStep;
  // Bytes are exact while c + min(...) stays within 255: path costs never exceed cost + p2, and
  // a two-pass forward sum holds two of them.
  const int32_t p2Max = p.p2 > p.p1 + 1 ? p.p2 : p.p1 + 1;
  const int32_t passes = p.passes == 1 ? 1 : 2;
  const bool bytes = p.bytePaths && (paths == 2 || passes == 1) && p.p1 >= 0 && p.p2 >= 0 &&
                     2 * (stereo_census_bits(p.quality) + p2Max) <= 255 && nd % k->byteLanes == 0;
  // Byte paths never reach 128, and at most four of them are summed: the sums stay below 1023.
  const bool small = bytes && nd <= 64;
  if (passes == 1) {
    if (bytes) {
      reset_rows8(b->pathPrev, b->minPrev, 5, w, nd);
      reset_rows8(b->pathCur, b->minCur, 5, w, nd);
    } else {
      reset_rows(b->pathPrev, b->minPrev, 5, w, nd);
      reset_rows(b->pathCur, b->minCur, 5, w, nd);
    }
    row.cost8 = b->costs;
    row.accOut = b->rowSum;
    const size_t cells = size_t(w) * size_t(nd);
    for (int32_t y = 0; y < h;) {
      // Rows in pairs (one more serial chain per loop); a last odd row alone.
      const int32_t rows = y + 1 < h ? 2 : 1;
      for (int32_t r = 0; r < rows; ++r)
        costs_both(k, b, y + r, b->costs + size_t(r) * cells, bytes ? nullptr : b->cost + size_t(r) * cells);
      row.y = y;
      row.rows = rows;
      row.pathPrev = b->pathPrev;
      row.pathCur = b->pathCur;
      row.minPrev = b->minPrev;
      row.minCur = b->minCur;
      if (bytes)
        k->aggregate_one_pass8(&row);
      else
        k->aggregate_one_pass16(&row);
      if (rows == 1) {
        uint16_t* t = b->pathPrev;
        b->pathPrev = b->pathCur;
        b->pathCur = t;
        t = b->minPrev;
        b->minPrev = b->minCur;
        b->minCur = t;
      }
      for (int32_t r = 0; r < rows; ++r) select_row_and_check(k, b, y + r, b->rowSum + size_t(r) * cells, small);
      y += rows;
    }
    return;
  }
  const size_t rowCells = size_t(w) * size_t(nd);
  for (int pass = 0; pass < 2; ++pass) {
    const bool forward = pass == 0;
    const int32_t regions = paths;
    if (bytes) {
      reset_rows8(b->pathPrev, b->minPrev, regions, w, nd);
      reset_rows8(b->pathCur, b->minCur, regions, w, nd);
    } else {
      reset_rows(b->pathPrev, b->minPrev, regions, w, nd);
      reset_rows(b->pathCur, b->minCur, regions, w, nd);
    }
    for (int32_t yi = 0; yi < h; ++yi) {
      const int32_t y = forward ? yi : h - 1 - yi;
      uint16_t* volumeRow = b->sum + size_t(y) * rowCells;
      uint8_t* sums8 = reinterpret_cast<uint8_t*>(b->sum) + size_t(y) * rowCells;
      // Costs are computed once and kept as bytes for the way back.
      uint8_t* costRow = b->costs + size_t(y) * rowCells;
      if (forward) {
        costs_both(k, b, y, costRow, bytes ? nullptr : b->cost);
      } else if (!bytes) {
        for (size_t i = 0; i < rowCells; ++i) b->cost[i] = costRow[i];
      }
      row.y = y;
      row.forward = forward;
      row.dirs = forward ? kForward : kBackward;
      row.paths = paths;
      row.cost8 = costRow;
      row.pathPrev = b->pathPrev;
      row.pathCur = b->pathCur;
      row.minPrev = b->minPrev;
      row.minCur = b->minCur;
      if (bytes) {
        row.acc8In = forward ? nullptr : sums8;
        row.acc8Out = forward ? sums8 : nullptr;
        row.accIn = nullptr;
        row.accOut = forward ? nullptr : b->rowSum;
        k->aggregate_row8(&row);
      } else {
        row.accIn = forward ? nullptr : volumeRow;
        row.accOut = forward ? volumeRow : b->rowSum;
        k->aggregate_row(&row);
      }
      uint16_t* t = b->pathPrev;
      b->pathPrev = b->pathCur;
      b->pathCur = t;
      t = b->minPrev;
      b->minPrev = b->minCur;
      b->minCur = t;
      if (!forward) select_row_and_check(k, b, y, b->rowSum, small);
    }
  }
}

// Nearest valid pixel on each of four sides, then a choice per hole: similar luma, short
// distance, and for occlusions (left-right failures) the farther surface. Rows are walked
// top-down carrying the upward neighbour per column; the left one is carried along the row, the
// right one found once per run of holes and the downward one once per run down a column, so the
// work outside holes is one read per pixel. Choices are written in place: every candidate is an
// original value (the left / upward ones are taken before the pixel is written, the right /
// downward ones lie in pixels not yet reached), so no choice feeds a later one.
__attribute__((noinline)) void fill_holes(StereoBuffers* b, const uint8_t* img, int32_t stride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height;
  int16_t* d = b->dispL;
  const int16_t kNone = STEREO_INVALID;
  int32_t* lastY = b->labels;  // per column: row and value of the last valid pixel seen
  int32_t* lastV = b->stack;
  int32_t* nextY = b->labels + w;  // per column: row of the next valid pixel at or below, h if none
  for (int32_t x = 0; x < w; ++x) lastV[x] = kNone, lastY[x] = 0, nextY[x] = -1;
  for (int32_t y = 0; y < h; ++y) {
    int16_t* dr = d + size_t(y) * size_t(w);
    const uint8_t* imgRow = img + size_t(y) * size_t(stride);
    int32_t left = kNone, leftX = 0, rightX = -1;
    for (int32_t x = 0; x < w; ++x) {
      const int32_t v = dr[x];
      if (v != kNone) {
        left = v, leftX = x;
        lastV[x] = v, lastY[x] = y;
        continue;
      }
      if (rightX < x) {
        rightX = x + 1;
        while (rightX < w && dr[rightX] == kNone) ++rightX;
      }
      if (nextY[x] < y) {
        int32_t yy = y + 1;
        while (yy < h && d[size_t(yy) * size_t(w) + size_t(x)] == kNone) ++yy;
        nextY[x] = yy;
      }
      const size_t i = size_t(y) * size_t(w) + size_t(x);
      const int32_t below = nextY[x];
      // Candidates in the order left, right, up, down: (value, distance).
      const int16_t c[8] = {int16_t(left),
                            int16_t(x - leftX),
                            rightX < w ? dr[rightX] : kNone,
                            int16_t(rightX - x),
                            int16_t(lastV[x]),
                            int16_t(y - lastY[x]),
                            below < h ? d[size_t(below) * size_t(w) + size_t(x)] : kNone,
                            int16_t(below - y)};
      int32_t vmin = 0x7FFF;
      for (int s = 0; s < 4; ++s)
        if (c[2 * s] != kNone && c[2 * s] < vmin) vmin = c[2 * s];
      if (vmin == 0x7FFF) continue;              // nothing valid in any direction
      const int32_t xSub = x * STEREO_SUBPIXEL;  // values are disparities, not search indices
      bool unseen = false;
      for (int s = 0; s < 4; ++s) unseen |= c[2 * s] != kNone && c[2 * s] > xSub;
      const int32_t pix = imgRow[x];
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
        // Occlusions take the farther surface, except where a candidate would match left of
        // the sub view: that explains the failure without an occluder, so in the unseen strip
        // the candidates that would have been seen pay for how far inside the view they match.
        if (b->holeKind[i] == 1)
          score += (unseen ? (xSub > c[2 * s] ? xSub - c[2 * s] : 0) : c[2 * s] - vmin) * 8 / STEREO_SUBPIXEL;
        if (score < bestScore) bestScore = score, bestV = c[2 * s];
      }
      dr[x] = int16_t(bestV);
    }
  }
}

// Weights of the edge refinement: luma similarity exp(-|dI| / 12) and distance exp(-r^2 / 8),
// each in 1/256; their product >> 8 fits the low half of a sort key.
void refine_weights(StereoBuffers* b) {
  for (int32_t g = 0; g < 256; ++g) b->refineLuma[g] = int32_t(256.0 * exp(-double(g) / 12.0) + 0.5);
  for (int32_t dy = -kMaxRefineRadius; dy <= kMaxRefineRadius; ++dy)
    for (int32_t dx = -kMaxRefineRadius; dx <= kMaxRefineRadius; ++dx)
      b->refineSpace[dy + kMaxRefineRadius][dx + kMaxRefineRadius] =
          int32_t(256.0 * exp(-double(dx * dx + dy * dy) / 8.0) + 0.5);
}

}  // namespace

void stereo_fill_holes(StereoBuffers* b, const uint8_t* img, int32_t stride) {
  fill_holes(b, img, stride);
}

namespace {

// The first marked byte of in[x .. end), or end: eight bytes at a time, since on texture the
// marks are few and far apart.
inline int32_t next_marked(const uint8_t* in, int32_t x, int32_t end) {
  for (; x + 8 <= end; x += 8) {
    uint64_t v;
    memcpy(&v, in + x, sizeof(v));
    if (v != 0) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
      return x + (__builtin_ctzll(v) >> 3);
#else
      break;
#endif
    }
  }
  while (x < end && in[x] == 0) ++x;
  return x;
}

// A disparity in 1/STEREO_SUBPIXEL pixels rounded to whole pixels; negative ones round the same
// way (floor of the value plus a half), as the shift does.
inline int32_t whole_pixels(int32_t v) {
  static_assert(STEREO_SUBPIXEL == 16, "the shift below is log2(STEREO_SUBPIXEL)");
  return (v + STEREO_SUBPIXEL / 2) >> 4;
}

// Near a depth jump the census window holds both surfaces, and the nearer one's edge usually
// wins the match: that surface spreads over its neighbour by up to half the window. A pixel more
// than two pixels nearer than one of its four neighbours takes that neighbour's value when the
// far surface matches its support clearly better: the pixels within sideSupport of similar
// luma (weights exp(-|dI| / 12)), compared with the right view at each disparity (absolute
// differences, truncated). Only towards the far side, and never in an occlusion, whose
// background has no match: there the near surface would win.
void pick_sides(StereoBuffers* b, const uint8_t* img, int32_t stride, const uint8_t* right, int32_t rightStride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, sr = p.sideSupport;
  const int32_t kGap = 2 * STEREO_SUBPIXEL, kTruncate = 24, kMarginPercent = 30;
  int16_t* d = b->dispL;
  // Changes go straight into the map; a row that changes keeps its values as they were in one of
  // two row buffers, for its own remaining pixels and for the row below.
  uint8_t* flag = reinterpret_cast<uint8_t*>(b->labels);
  int16_t* saved[2] = {reinterpret_cast<int16_t*>(b->labels) + w, reinterpret_cast<int16_t*>(b->labels) + 2 * w};
  const int16_t* upKept = nullptr;
  const int32_t* lw = b->refineLuma;
  for (int32_t y = 0; y < h; ++y) {
    int16_t* mapRow = d + size_t(y) * size_t(w);
    const int16_t* row = mapRow;
    const int16_t* up = y > 0 ? (upKept != nullptr ? upKept : mapRow - w) : row;
    const int16_t* down = y + 1 < h ? mapRow + w : row;
    const uint8_t* kind = b->holeKind + size_t(y) * size_t(w);
    // Candidates in a plain loop the compiler vectorises (the two ends use themselves as their
    // missing neighbour); most rows have none.
    auto candidate = [&](int32_t x, int32_t l, int32_t r) {
      const int32_t lr = l < r ? l : r, ud = up[x] < down[x] ? up[x] : down[x];
      return uint8_t(int(row[x] - (lr < ud ? lr : ud) > kGap) & int(kind[x] != 1));
    };
    for (int32_t x = 1; x + 1 < w; ++x) flag[x] = candidate(x, row[x - 1], row[x + 1]);
    flag[0] = candidate(0, row[0], row[1]);
    flag[w - 1] = candidate(w - 1, row[w - 2], row[w - 1]);
    upKept = nullptr;
    for (int32_t x = next_marked(flag, 0, w); x < w; x = next_marked(flag, x + 1, w)) {
      const int32_t c = row[x];
      if (c == STEREO_INVALID) continue;
      // The far neighbour: along the row first (where the matcher's fattening lies), then the
      // column.
      const int32_t split = c - kGap;
      const int32_t n4[4] = {row[x > 0 ? x - 1 : x], row[x + 1 < w ? x + 1 : x], up[x], down[x]};
      int32_t far = STEREO_INVALID;
      for (int32_t k = 3; k >= 0; --k)
        if (n4[k] != STEREO_INVALID && n4[k] < split) far = n4[k];
      if (far == STEREO_INVALID) continue;
      // Support columns whose matches lie inside the right view at both disparities (which
      // may be negative); a centre seen at only one of them is left as it is.
      const int32_t sn = whole_pixels(c), sf = whole_pixels(far);
      const int32_t sMax = sn > sf ? sn : sf, sMin = sn < sf ? sn : sf;
      const int32_t xa = std::max(std::max(x - sr, 0), sMax), xb = std::min(std::min(x + sr, w - 1), w - 1 + sMin);
      if (xa > x || xb < x) continue;
      const int32_t ya = y - sr < 0 ? 0 : y - sr, yb = y + sr < h ? y + sr : h - 1;
      const int32_t centre = img[size_t(y) * size_t(stride) + size_t(x)];
      int64_t costNear = 0, costFar = 0;
      for (int32_t yy = ya; yy <= yb; ++yy) {
        const uint8_t* lrow = img + size_t(yy) * size_t(stride);
        const uint8_t* rrow = right + size_t(yy) * size_t(rightStride);
        for (int32_t xx = xa; xx <= xb; ++xx) {
          const int32_t l = lrow[xx], wt = lw[absi(l - centre)];
          const int32_t en = absi(l - rrow[xx - sn]), ef = absi(l - rrow[xx - sf]);
          costNear += wt * (en < kTruncate ? en : kTruncate);
          costFar += wt * (ef < kTruncate ? ef : kTruncate);
        }
      }
      if (costFar * (100 + kMarginPercent) >= costNear * 100) continue;
      if (upKept == nullptr) {
        int16_t* keep = saved[y & 1];
        memcpy(keep, mapRow, size_t(w) * sizeof(int16_t));
        row = upKept = keep;
      }
      mapRow[x] = int16_t(far);
    }
  }
}

}  // namespace

void stereo_pick_sides(StereoBuffers* b, const uint8_t* left, int32_t leftStride, const uint8_t* right,
                       int32_t rightStride) {
  const StereoParams& p = b->params;
  if (left == nullptr || right == nullptr || p.sideSupport <= 0 || p.sideSupport > kMaxRefineRadius) return;
  pick_sides(b, left, leftStride, right, rightStride);
}

void stereo_refine_edges(StereoBuffers* b, const uint8_t* img, int32_t stride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, r = p.refineRadius, jump = STEREO_SUBPIXEL;
  if (r <= 0 || r > kMaxRefineRadius) return;
  const size_t n = size_t(w) * size_t(h);
  const int16_t* d = b->dispL;
  // Pixels within r of a jump of more than one pixel between neighbours; elsewhere the window
  // holds one surface and the median would only smooth it.
  // jumps: a pixel whose right or lower neighbour differs by more than a pixel; near: the jumps
  // widened along the row to [x - r, x + r]; marked: near widened down the columns to rows
  // [y - r, y + r]. Separable, so each pixel reads a few bytes whatever r is. A marked window
  // whose values all lie within a pixel (a jump pair with one end outside) is then left alone.
  uint8_t* jumps = reinterpret_cast<uint8_t*>(b->labels);
  uint8_t* near = jumps + n;
  uint8_t* marked = near + n;
  for (int32_t y = 0; y < h; ++y) {
    const int16_t* row = d + size_t(y) * size_t(w);
    const int16_t* below = y + 1 < h ? row + w : row;
    uint8_t* jr = jumps + size_t(y) * size_t(w);
    // Plain loops of fixed shape, so that the compiler vectorises them.
    for (int32_t x = 0; x + 1 < w; ++x)
      jr[x] = uint8_t(int(absi(row[x + 1] - row[x]) > jump) | int(absi(below[x] - row[x]) > jump));
    jr[w - 1] = uint8_t(absi(below[w - 1] - row[w - 1]) > jump);
    uint8_t* nr = near + size_t(y) * size_t(w);
    memcpy(nr, jr, size_t(w));
    for (int32_t t = 1; t <= r; ++t)
      for (int32_t x = 0; x + t < w; ++x) nr[x] |= jr[x + t];
    for (int32_t t = 1; t <= r; ++t)
      for (int32_t x = t; x < w; ++x) nr[x] |= jr[x - t];
  }
  for (int32_t y = 0; y < h; ++y) {
    uint8_t* mr = marked + size_t(y) * size_t(w);
    memset(mr, 0, size_t(w));
    for (int32_t yy = y - r < 0 ? 0 : y - r, ye = y + r < h ? y + r : h - 1; yy <= ye; ++yy) {
      const uint8_t* nr = near + size_t(yy) * size_t(w);
      for (int32_t x = 0; x < w; ++x) mr[x] |= nr[x];
    }
  }
  int16_t* out = b->dispR;
  memcpy(out, d, n * sizeof(int16_t));
  uint32_t keys[(2 * kMaxRefineRadius + 1) * (2 * kMaxRefineRadius + 1)];
  for (int32_t y = 0; y < h; ++y) {
    const uint8_t* mr = marked + size_t(y) * size_t(w);
    for (int32_t x = 0; x < w; ++x) {
      if (!mr[x]) {
        // Most of the map is far from any jump: step over eight unmarked pixels at once.
        uint64_t eight = 1;
        if ((x & 7) == 0 && x + 8 <= w) memcpy(&eight, mr + x, 8);
        if (eight == 0) x += 7;
        continue;
      }
      const size_t i = size_t(y) * size_t(w) + size_t(x);
      const int32_t c = img[size_t(y) * size_t(stride) + size_t(x)];
      // Keys: the value in the high half, the weight (at most 256) in the low one; equal values
      // order by weight, which leaves the median. Weightless entries never hold it (the centre
      // weighs 256), so the sorting network may keep them.
      // A window of one surface stays as it is.
      const int32_t y0 = clampi(y - r, 0, h - 1), y1 = clampi(y + r, 0, h - 1);
      const int32_t x0 = clampi(x - r, 0, w - 1), x1 = clampi(x + r, 0, w - 1);
      int32_t lo = d[i], hi = d[i];
      for (int32_t yy = y0; yy <= y1; ++yy)
        for (int32_t xx = x0; xx <= x1; ++xx) {
          const int32_t v = d[size_t(yy) * size_t(w) + size_t(xx)];
          lo = v < lo ? v : lo;
          hi = v > hi ? v : hi;
        }
      if (hi - lo <= jump) continue;
      int32_t m = 0, total = 0;
      if (r == 1 && x > 0 && x + 1 < w && y > 0 && y + 1 < h) {
        for (int32_t dy = -1; dy <= 1; ++dy) {
          const uint8_t* irow = img + size_t(y + dy) * size_t(stride) + size_t(x);
          const int16_t* drow = d + i + ptrdiff_t(dy) * w;
          const int32_t* sw = b->refineSpace[dy + kMaxRefineRadius] + kMaxRefineRadius;
          for (int32_t dx = -1; dx <= 1; ++dx) {
            const uint32_t wt = uint32_t(b->refineLuma[absi(irow[dx] - c)] * sw[dx]) >> 8;
            keys[m++] = (uint32_t(drow[dx] + 0x8000) << 16) | wt;
            total += int32_t(wt);
          }
        }
        // An optimal 25-exchange network for nine keys: no data-dependent branches.
        static const uint8_t kNet[25][2] = {{0, 3}, {1, 7}, {2, 5}, {4, 8}, {0, 7}, {2, 4}, {3, 8}, {5, 6}, {0, 2},
                                            {1, 3}, {4, 5}, {7, 8}, {1, 4}, {3, 6}, {5, 7}, {0, 1}, {2, 4}, {3, 5},
                                            {6, 8}, {2, 3}, {4, 5}, {6, 7}, {1, 2}, {3, 4}, {5, 6}};
        for (const auto& e : kNet) {
          const uint32_t a = keys[e[0]], v = keys[e[1]];
          keys[e[0]] = a < v ? a : v;
          keys[e[1]] = a < v ? v : a;
        }
      } else {
        for (int32_t yy = y0; yy <= y1; ++yy) {
          const uint8_t* irow = img + size_t(yy) * size_t(stride);
          const int16_t* drow = d + size_t(yy) * size_t(w);
          const int32_t* sw = b->refineSpace[yy - y + kMaxRefineRadius] + kMaxRefineRadius;
          for (int32_t xx = x0; xx <= x1; ++xx) {
            const uint32_t wt = uint32_t(b->refineLuma[absi(irow[xx] - c)] * sw[xx - x]) >> 8;
            if (wt == 0) continue;
            const uint32_t key = (uint32_t(drow[xx] + 0x8000) << 16) | wt;
            int32_t k = m++;
            while (k > 0 && keys[k - 1] > key) keys[k] = keys[k - 1], --k;
            keys[k] = key;
            total += int32_t(wt);
          }
        }
      }
      if (total == 0) continue;  // weights not made (buffers not from stereo_alloc)
      int32_t acc = 0, k = 0;
      while (k < m - 1 && 2 * (acc + int32_t(keys[k] & 0xFFFF)) < total) acc += int32_t(keys[k++] & 0xFFFF);
      out[i] = int16_t(int32_t(keys[k] >> 16) - 0x8000);
    }
  }
  memcpy(b->dispL, out, n * sizeof(int16_t));
}

const StereoCensusShape* stereo_census_shape(int32_t quality) {
  static const StereoCensusShape kSparse = make_shape(true), kFull = make_shape(false);
  return quality >= 2 ? &kFull : &kSparse;
}

int32_t stereo_census_bits(int32_t quality) {
  return stereo_census_shape(quality)->count;
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
  p->paths = 4;
  // Standard: one pass (left-right, right-left, top-down paths), no cost volume; high quality:
  // two passes and the full window.
  p->passes = p->quality == 2 ? 2 : 1;
  // Penalties in census bits: tuned on real scenes (more paths did not pay for themselves).
  // The standard mode's P2 falls steeply at luma steps (halved at a step of 3 levels): a larger
  // P2 keeps flat faces whole, the steep fall lets depth edges sit on image edges instead of
  // spreading the nearer surface over its neighbour. Its byte paths hold up to P2 = 97.
  p->p1 = p->quality == 2 ? 32 : 12;
  p->p2 = p->quality == 2 ? 128 : 96;
  p->p2Halving = p->quality == 2 ? 24 : 3;
  p->uniqueness = 5;
  p->speckleSize = clampi(width * height / 800, 8, 400);
  // Uniform regions (neighbours within 2 levels, the region within 2) of 48 pixels or more get
  // a plane: inside them the paths only carry what the region's edges matched, as steps of
  // constant disparity, where the surface is usually a slanted plane.
  p->planeStep = 2;
  p->planeRange = 2;
  p->planeMinSize = 48;
  p->fill = true;
  // A 3 x 3 window in both modes (about 6% of the standard mode's time at 320 x 240); 5 x 5
  // gained a little more for far more time.
  p->refineRadius = 1;
  // Sides of jumps chosen over a 5 x 5 support: 3 x 3 scored the same depth but blurred more of
  // an in-focus face's rim in the bokeh; 7 x 7 did no better.
  p->sideSupport = 2;
  p->simd = true;
  p->bytePaths = true;
  return true;
}

size_t stereo_bytes_needed(const StereoParams* p) {
  if (p == nullptr || p->width < 8 || p->height < 8 || p->width > 8192 || p->height > 8192 || p->disparities < 8 ||
      p->disparities > 1024 || p->minDisparity < -1024 || p->minDisparity > 1024)
    return 0;
  const uint64_t n = uint64_t(p->width) * uint64_t(p->height), w = uint64_t(p->width), nd = uint64_t(p->disparities);
  const uint64_t margin = reversed_margin(*p), scratch = w + 2 * margin;
  uint64_t rows = uint64_t(kMaxPaths) * (w + 2) * (nd + 2);
  uint64_t total = n * 8 * 2 + uint64_t(padded_bytes(p->width, p->height)) + scratch * 8 + w * nd * 2 * 4 + n * nd * 3 +
                   rows * 2 * 2 + uint64_t(kMaxPaths) * (w + 2) * 2 * 2 + scratch * 2 * 2 + n * 2 * 2 + n * 4 * 2 + n;
  total += uint64_t(plane_count(*p)) * sizeof(StereoPlane);
  if (total > (uint64_t(1) << 31)) return 0;  // also keeps 32-bit builds' size_t safe
  return size_t(total);
}

bool stereo_alloc(StereoBuffers* b, const StereoParams* p) {
  memset(b, 0, sizeof(*b));
  size_t bytes = stereo_bytes_needed(p);
  if (bytes == 0) return false;
  b->params = *p;
  const size_t w = size_t(p->width), nd = size_t(p->disparities);
  const size_t n = w * size_t(p->height), volume = n * nd;
  const size_t rows = size_t(kMaxPaths) * (w + 2) * (nd + 2), mins = size_t(kMaxPaths) * (w + 2);
  const size_t scratch = w + 2 * reversed_margin(*p);
  b->censusL = static_cast<uint64_t*>(malloc(n * 8));
  b->censusR = static_cast<uint64_t*>(malloc(n * 8));
  b->padded = static_cast<uint8_t*>(malloc(padded_bytes(p->width, p->height)));
  b->reversed = static_cast<uint64_t*>(calloc(scratch, 8));
  b->cost = static_cast<uint16_t*>(malloc(w * nd * 2 * 2));
  b->costs = static_cast<uint8_t*>(malloc(volume));
  b->sum = static_cast<uint16_t*>(malloc(volume * 2));
  b->rowSum = static_cast<uint16_t*>(malloc(w * nd * 2 * 2));
  b->pathPrev = static_cast<uint16_t*>(malloc(rows * 2));
  b->pathCur = static_cast<uint16_t*>(malloc(rows * 2));
  b->minPrev = static_cast<uint16_t*>(malloc(mins * 2));
  b->minCur = static_cast<uint16_t*>(malloc(mins * 2));
  b->rowMin = static_cast<uint16_t*>(malloc(scratch * 2));
  b->rowDisp = static_cast<int16_t*>(malloc(scratch * 2));
  b->dispL = static_cast<int16_t*>(malloc(n * 2));
  b->dispR = static_cast<int16_t*>(malloc(n * 2));
  b->labels = static_cast<int32_t*>(malloc(n * 4));
  b->stack = static_cast<int32_t*>(malloc(n * 4));
  b->holeKind = static_cast<uint8_t*>(malloc(n));
  b->maxPlanes = plane_count(*p);
  b->planes =
      b->maxPlanes > 0 ? static_cast<StereoPlane*>(malloc(size_t(b->maxPlanes) * sizeof(StereoPlane))) : nullptr;
  b->bytes = bytes;
  refine_weights(b);
  if (!b->censusL || !b->censusR || !b->padded || !b->reversed || !b->cost || !b->costs || !b->sum || !b->rowSum ||
      !b->pathPrev || !b->pathCur || !b->minPrev || !b->minCur || !b->rowMin || !b->rowDisp || !b->dispL || !b->dispR ||
      !b->labels || !b->stack || !b->holeKind || (b->maxPlanes > 0 && !b->planes)) {
    stereo_free(b);
    return false;
  }
  return true;
}

void stereo_free(StereoBuffers* b) {
  free(b->censusL);
  free(b->censusR);
  free(b->padded);
  free(b->reversed);
  free(b->cost);
  free(b->costs);
  free(b->sum);
  free(b->rowSum);
  free(b->pathPrev);
  free(b->pathCur);
  free(b->minPrev);
  free(b->minCur);
  free(b->rowMin);
  free(b->rowDisp);
  free(b->dispL);
  free(b->dispR);
  free(b->labels);
  free(b->stack);
  free(b->holeKind);
  free(b->planes);
  memset(b, 0, sizeof(*b));
}

void stereo_census_with(const StereoKernels* kernels, const uint8_t* img, int32_t stride, int32_t width, int32_t height,
                        int32_t quality, uint64_t* out) {
  if (img == nullptr || out == nullptr || width < 1 || height < 1 || width > 8192 || height > 8192) return;
  // A tool and test entry: the engine's runs use the padded image allocated with the buffers.
  uint8_t* padded = static_cast<uint8_t*>(malloc(padded_bytes(width, height)));
  if (padded == nullptr) return;
  const StereoCensusShape* shape = stereo_census_shape(quality);
  census_image(kernels != nullptr ? kernels : stereo_kernels_plain(), img, stride, width, height, shape, padded, out);
  free(padded);
  if (shape->count <= 32) {
    // Widen the 32-bit words in place, from the end so that no word is overwritten unread.
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(out);
    for (size_t i = size_t(width) * size_t(height); i-- > 0;) {
      uint32_t v;
      memcpy(&v, bytes + 4 * i, sizeof(v));
      out[i] = v;
    }
  }
}

void stereo_census(const uint8_t* img, int32_t stride, int32_t width, int32_t height, int32_t quality, uint64_t* out) {
  stereo_census_with(nullptr, img, stride, width, height, quality, out);
}

void stereo_remove_speckles(int16_t* disp, int32_t width, int32_t height, int32_t maxSize, int32_t maxDiff,
                            int32_t* labels, int32_t* stack) {
  if (width < 1 || height < 1 || width > 8192 || height > 8192) return;
  const int32_t n = width * height;  // at most 2^26
  // Components by union-find over the left and upper neighbours in three linear passes (a
  // flood fill hops through memory and mispredicts at every pixel). `labels` holds parents,
  // -1 for unknown pixels; every root is its component's first pixel in scan order, since
  // unions keep the lower root. `stack` holds the sizes, by root.
  int32_t* parent = labels;
  int32_t* size = stack;
  for (int32_t y = 0, i = 0; y < height; ++y) {
    int32_t leftRoot = -1;  // the left pixel's root, kept in a register rather than re-read
    for (int32_t x = 0; x < width; ++x, ++i) {
      const int32_t v = disp[i];
      if (v == STEREO_INVALID) {
        parent[i] = -1;
        leftRoot = -1;
        continue;
      }
      int32_t root = leftRoot >= 0 && abs(disp[i - 1] - v) <= maxDiff ? leftRoot : i;
      int32_t up = y > 0 ? parent[i - width] : -1;
      if (up >= 0 && abs(disp[i - width] - v) <= maxDiff) {
        while (parent[up] != up) up = parent[up];
        if (up < root) {
          parent[root] = up;
          root = up;
        } else if (up > root) {
          parent[up] = root;
        }
      }
      parent[i] = root;
      leftRoot = root;
    }
  }
  // In scan order every earlier pixel already points at its root, so one step reaches it. Sizes
  // are summed over runs of one root: an increment per pixel in memory would chain every pixel
  // to the previous one's store.
  int32_t runRoot = -1, run = 0;
  for (int32_t i = 0; i < n; ++i) {
    if (parent[i] < 0) continue;
    const int32_t r = parent[parent[i]];
    parent[i] = r;
    if (r == runRoot) {
      ++run;
      continue;
    }
    if (runRoot >= 0) size[runRoot] += run;
    if (r == i) size[r] = 0;
    runRoot = r;
    run = 1;
  }
  if (runRoot >= 0) size[runRoot] += run;
  for (int32_t i = 0; i < n; ++i)
    if (parent[i] >= 0 && size_t(size[parent[i]]) < size_t(maxSize)) disp[i] = STEREO_INVALID;
}

namespace {

// Pixels that lie in a 2x2 block within `range` levels: a region of uniform luma covers whole
// blocks, while texture, where neighbours join and split at random, has almost none. Only these
// pixels enter the regions, which keeps the union-find's unpredictable branches off texture.
// `in` is w x h bytes; `rows` 2 x (w + 1) bytes of scratch: two rows of block flags, each with a
// clear flag in front so that every pixel reads the blocks at x - 1 and x alike.
void uniform_mask(const uint8_t* img, int32_t stride, int32_t w, int32_t h, int32_t range, uint8_t* in, uint8_t* rows) {
  uint8_t* above = rows;
  uint8_t* below = rows + w + 1;
  memset(rows, 0, 2 * (size_t(w) + 1));  // no blocks above the first row
  for (int32_t y = 0; y < h; ++y) {
    if (y + 1 < h) {
      const uint8_t* a = img + size_t(y) * size_t(stride);
      const uint8_t* c = a + stride;
      for (int32_t x = 0; x + 1 < w; ++x) {
        const uint8_t a0 = a[x], a1 = a[x + 1], c0 = c[x], c1 = c[x + 1];
        const uint8_t l0 = a0 < a1 ? a0 : a1, l1 = c0 < c1 ? c0 : c1;
        const uint8_t h0 = a0 > a1 ? a0 : a1, h1 = c0 > c1 ? c0 : c1;
        const uint8_t lo = l0 < l1 ? l0 : l1, hi = h0 > h1 ? h0 : h1;
        below[x + 1] = uint8_t(hi - lo) <= range ? 1 : 0;
      }
      below[w] = 0;
    } else {
      memset(below, 0, size_t(w) + 1);  // no blocks below the last row
    }
    uint8_t* o = in + size_t(y) * size_t(w);
    for (int32_t x = 0; x < w; ++x) o[x] = above[x] | above[x + 1] | below[x] | below[x + 1];
    uint8_t* t = above;
    above = below, below = t;
  }
}

// Uniform regions by union-find over the left and upper neighbours, among the pixels `in`
// marks: a neighbour within `step` levels joins when the joined region's luma stays within
// `range` (a bound on the region, not only on the steps, so that a slow ramp of shading does
// not chain into one region). Roots are each region's first pixel in scan order; lohi holds a
// root's luma bounds. On return every marked pixel points at its root and `size` holds each
// root's pixel count; nothing is written for the other pixels.
void uniform_regions(const uint8_t* img, int32_t stride, int32_t w, int32_t h, int32_t step, int32_t range,
                     const uint8_t* in, int32_t* parent, uint8_t* lohi, int32_t* size) {
  for (int32_t y = 0; y < h; ++y) {
    const uint8_t* row = img + size_t(y) * size_t(stride);
    const uint8_t* up = y > 0 ? row - stride : row;
    const uint8_t* rowIn = in + size_t(y) * size_t(w);
    int32_t leftRoot = -1;           // the left pixel's root: nothing merges it away before this pixel
    int32_t leftLo = 0, leftHi = 0;  // and its luma bounds, kept here rather than re-read
    for (int32_t x = next_marked(rowIn, 0, w); x < w; ++x) {
      if (!rowIn[x]) {
        leftRoot = -1;
        x = next_marked(rowIn, x, w) - 1;
        continue;
      }
      const int32_t i = y * w + x;
      const int32_t v = row[x];
      parent[i] = i;
      const int32_t lo1 = v < leftLo ? v : leftLo, hi1 = v > leftHi ? v : leftHi;
      const bool joinL = leftRoot >= 0 && absi(v - row[x - 1]) <= step && hi1 - lo1 <= range;
      int32_t root = joinL ? leftRoot : i;
      int32_t lo = joinL ? lo1 : v, hi = joinL ? hi1 : v;
      if (y > 0 && in[i - w] && absi(v - up[x]) <= step) {
        int32_t u = parent[i - w];
        while (parent[u] != u) u = parent[u] = parent[parent[u]];
        const int32_t ulo = lohi[2 * u], uhi = lohi[2 * u + 1];
        const int32_t mlo = ulo < lo ? ulo : lo, mhi = uhi > hi ? uhi : hi;
        if (u != root && mhi - mlo <= range) {
          const int32_t keep = u < root ? u : root, drop = u < root ? root : u;
          parent[drop] = keep;
          root = keep, lo = mlo, hi = mhi;
        }
      }
      lohi[2 * root] = uint8_t(lo), lohi[2 * root + 1] = uint8_t(hi);
      parent[i] = root;
      leftRoot = root, leftLo = lo, leftHi = hi;
    }
  }
  // Every link points to a lower index, so in scan order one step reaches the root.
  const int32_t n = w * h;
  for (int32_t i = next_marked(in, 0, n); i < n; i = next_marked(in, i + 1, n)) {
    const int32_t root = parent[parent[i]];
    parent[i] = root;
    size[i] = 0;
    ++size[root];
  }
}

// Least squares over the sums (a small ridge on the slopes keeps one-row regions solvable, with
// no slope across the rows); the plane in 1/2^16 of a disparity step. False when degenerate or
// steeper than a pixel of disparity per pixel.
bool solve_plane(StereoPlane* q) {
  if (q->n < 6) return false;
  const double n = double(q->n), mx = double(q->sx) / n, my = double(q->sy) / n, md = double(q->sd) / n;
  const double cxx = double(q->sxx) / n - mx * mx + 0.05, cyy = double(q->syy) / n - my * my + 0.05;
  const double cxy = double(q->sxy) / n - mx * my;
  const double cxd = double(q->sxd) / n - mx * md, cyd = double(q->syd) / n - my * md;
  const double det = cxx * cyy - cxy * cxy;
  if (!(det > 1e-9)) return false;
  const double a = (cxd * cyy - cyd * cxy) / det, b = (cyd * cxx - cxd * cxy) / det;
  if (fabs(a) > STEREO_SUBPIXEL || fabs(b) > STEREO_SUBPIXEL) return false;
  const double c = md - a * mx - b * my;
  if (fabs(c) > 1e9) return false;
  q->a = llround(a * 65536.0), q->b = llround(b * 65536.0), q->c = llround(c * 65536.0);
  return true;
}

}  // namespace

void stereo_fit_planes(StereoBuffers* b, const uint8_t* img, int32_t stride) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height, n = w * h;
  if (b->planes == nullptr || b->maxPlanes <= 0 || p.planeMinSize <= 0) return;
  int32_t* region = b->labels;  // each marked pixel's root
  int32_t* size = b->stack;     // by root: the region's size, then its plane or -1
  uint8_t* in = b->padded;      // free once the census is taken; it holds w x h + 2 x (w + 1) bytes
  uniform_mask(img, stride, w, h, p.planeRange, in, in + size_t(n));
  uniform_regions(img, stride, w, h, p.planeStep, p.planeRange, in, region, reinterpret_cast<uint8_t*>(b->dispR), size);
  // Roots come first in their regions, so one scan numbers the planes and lists the pixels of
  // the regions that get one (size[] of a pixel that is not a root is never read). The list
  // (x and y packed, then the plane) goes where the census was, free once the costs are taken;
  // it has room for two words per pixel.
  uint32_t* list = reinterpret_cast<uint32_t*>(b->censusL);
  int32_t planes = 0, listed = 0;
  for (int32_t y = 0; y < h; ++y) {
    const uint8_t* rowIn = in + size_t(y) * size_t(w);
    for (int32_t x = next_marked(rowIn, 0, w); x < w; x = next_marked(rowIn, x + 1, w)) {
      const int32_t i = y * w + x, r = region[i];
      const bool isRoot = r == i;
      const bool take = isRoot && size[i] >= p.planeMinSize && planes < b->maxPlanes;
      if (take) {
        memset(&b->planes[planes], 0, sizeof(StereoPlane));
        b->planes[planes].ok = 1;
        b->planes[planes].size = size[i];
      }
      size[i] = isRoot ? (take ? planes : -1) : size[i];
      planes += take ? 1 : 0;
      const int32_t plane = size[r];
      list[2 * listed] = uint32_t(y) << 16 | uint32_t(x);
      list[2 * listed + 1] = uint32_t(plane);
      listed += plane >= 0 ? 1 : 0;
    }
  }
  if (planes == 0) return;
  const int16_t* d = b->dispL;
  // Three fits: every matched pixel, then those within 3 and within 1 pixel of the fit before
  // (mismatches and the neighbour's surface at the region's edges drop out).
  const int64_t reach[3] = {INT64_MAX, int64_t(3 * STEREO_SUBPIXEL) << 16, int64_t(STEREO_SUBPIXEL) << 16};
  for (int32_t round = 0; round < 3; ++round) {
    for (int32_t s = 0; s < planes; ++s) {
      StereoPlane& q = b->planes[s];
      q.n = q.sx = q.sy = q.sxx = q.sxy = q.syy = q.sd = q.sxd = q.syd = 0;
      if (round == 0) q.matched = 0;
    }
    for (int32_t k = 0; k < listed; ++k) {
      const int32_t x = int32_t(list[2 * k] & 0xFFFF), y = int32_t(list[2 * k] >> 16);
      const int32_t i = y * w + x;
      if (d[i] == STEREO_INVALID) continue;
      StereoPlane& q = b->planes[list[2 * k + 1]];
      if (!q.ok) continue;
      if (round == 0) {
        ++q.matched;
      } else {
        const int64_t r = q.a * x + q.b * y + q.c - int64_t(d[i]) * 65536;  // d may be negative: no shift
        if (r > reach[round] || -r > reach[round]) continue;
      }
      const int64_t v = d[i];
      q.n += 1, q.sx += x, q.sy += y, q.sxx += int64_t(x) * x, q.sxy += int64_t(x) * y, q.syy += int64_t(y) * y;
      q.sd += v, q.sxd += v * x, q.syd += v * y;
    }
    for (int32_t s = 0; s < planes; ++s) {
      StereoPlane& q = b->planes[s];
      if (q.ok) q.ok = solve_plane(&q) ? 1 : 0;
    }
  }
  // A plane holds when at least half the region's matched pixels lie within a pixel of it and at
  // least a fifth of the region was matched.
  for (int32_t s = 0; s < planes; ++s) {
    StereoPlane& q = b->planes[s];
    if (q.ok && (2 * q.n < q.matched || 5 * int64_t(q.matched) < q.size)) q.ok = 0;
  }
  const int64_t lo = int64_t(p.minDisparity) * STEREO_SUBPIXEL;
  const int64_t hi = int64_t(p.minDisparity + p.disparities - 1) * STEREO_SUBPIXEL;
  const int64_t near = int64_t(3 * STEREO_SUBPIXEL) << 16;
  int16_t* out = b->dispL;
  for (int32_t k = 0; k < listed; ++k) {
    const StereoPlane& q = b->planes[list[2 * k + 1]];
    if (!q.ok) continue;
    const int32_t x = int32_t(list[2 * k] & 0xFFFF), y = int32_t(list[2 * k] >> 16);
    const int32_t i = y * w + x;
    const int64_t v = q.a * x + q.b * y + q.c;
    const int64_t o = int64_t(out[i]) * 65536;
    if (out[i] == STEREO_INVALID ? b->holeKind[i] == 1 : (v - o > near || o - v > near)) continue;
    int64_t r = (v + 32768) >> 16;
    r = r < lo ? lo : r > hi ? hi : r;
    out[i] = int16_t(r);
    b->holeKind[i] = 0;
  }
}

void stereo_run(StereoBuffers* b, const uint8_t* left, int32_t leftStride, const uint8_t* right, int32_t rightStride,
                int16_t* disparity) {
  const StereoParams& p = b->params;
  const int32_t w = p.width, h = p.height;
  const StereoKernels* k = b->kernels;
  if (k == nullptr || p.disparities % k->lanes != 0)
    k = p.simd ? stereo_kernels_best(p.disparities) : stereo_kernels_plain();
  const StereoCensusShape* shape = stereo_census_shape(p.quality);
  census_image(k, left, leftStride, w, h, shape, b->padded, b->censusL);
  census_image(k, right, rightStride, w, h, shape, b->padded, b->censusR);
  aggregate_and_select(k, b, left, leftStride);
  stereo_remove_speckles(b->dispL, w, h, p.speckleSize, STEREO_SUBPIXEL, b->labels, b->stack);
  const size_t n = size_t(w) * size_t(h);
  for (size_t i = 0; i < n; ++i)
    b->holeKind[i] = b->dispL[i] == STEREO_INVALID && b->holeKind[i] == 0 ? uint8_t(2) : b->holeKind[i];
  stereo_fit_planes(b, left, leftStride);
  if (p.fill) {
    fill_holes(b, left, leftStride);
    stereo_pick_sides(b, left, leftStride, right, rightStride);
    stereo_refine_edges(b, left, leftStride);
  }
  memcpy(disparity, b->dispL, n * sizeof(int16_t));
}
