// bokeh_cpu_grid.cpp - the CPU bokeh renderer's first stage: the grid of S x S cells with each
// cell's blur radius from the refocus map, its mean colour and its brightest luma.
#include <stddef.h>

#include "bokeh_cpu_internal.h"

namespace {

// Map column (bilinear position, clamped) of each grid column's centre.
template <int32_t S>
void grid_map_columns(int32_t gw, int32_t width, int32_t mapWidth, float* mapColumn) {
  const float mxScale = static_cast<float>(mapWidth) / width;
  for (int32_t gx = 0; gx < gw; ++gx) {
    const float cx = static_cast<float>(gx * S) + 0.5f * S;
    mapColumn[gx] = clampf(cx * mxScale - 0.5f, 0.0f, static_cast<float>(mapWidth - 1));
  }
}

// Column sums and peaks of `rows` luma rows from row y0, a whole line at a time (vectorises).
void grid_luma_columns(const uint8_t* luma, int32_t width, int32_t y0, int32_t rows, uint16_t* lineSum,
                       uint8_t* linePeak) {
  const uint8_t* first = luma + static_cast<size_t>(y0) * width;
  for (int32_t x = 0; x < width; ++x) lineSum[x] = first[x], linePeak[x] = first[x];
  for (int32_t dy = 1; dy < rows; ++dy) {
    const uint8_t* row = first + static_cast<size_t>(dy) * width;
    for (int32_t x = 0; x < width; ++x) {
      lineSum[x] = static_cast<uint16_t>(lineSum[x] + row[x]);
      linePeak[x] = row[x] > linePeak[x] ? row[x] : linePeak[x];
    }
  }
}

// One grid row of the map at map row position my: blur radius (bilinear, or the nearest sample
// across a depth edge), the least of the four map samples around, and the near samples' own
// radius.
void grid_radius_row(RenderWork* work, int32_t gy, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                     int32_t mapHeight, float my, float radiusPerLevel, GridFindings* found) {
  const int32_t gw = work->gridWidth;
  const int32_t my0 = static_cast<int32_t>(my), my1 = my0 + 1 < mapHeight ? my0 + 1 : my0;
  const float fmy = my - my0;
  const uint8_t* mapRow0 = map + static_cast<size_t>(my0) * mapWidth;
  const uint8_t* mapRow1 = map + static_cast<size_t>(my1) * mapWidth;
  for (int32_t gx = 0; gx < gw; ++gx) {
    const float mx = work->mapColumn[gx];
    const int32_t mx0 = static_cast<int32_t>(mx), mx1 = mx0 + 1 < mapWidth ? mx0 + 1 : mx0;
    const float fmx = mx - mx0;
    const uint8_t m00 = mapRow0[mx0], m01 = mapRow0[mx1], m10 = mapRow1[mx0], m11 = mapRow1[mx1];
    uint8_t lowest = m00 < m01 ? m00 : m01, highest = m00 > m01 ? m00 : m01;
    lowest = m10 < lowest ? m10 : lowest, highest = m10 > highest ? m10 : highest;
    lowest = m11 < lowest ? m11 : lowest, highest = m11 > highest ? m11 : highest;
    float level;
    if ((highest - lowest) * radiusPerLevel > kGuideMinStep) {
      // A depth edge of the map: the nearest sample, not a mix. A mixed radius is wrong on both
      // sides (an in-focus sample by the background would take half its blur), and the
      // composite's edge guide can only choose among the radii it is given.
      level = fmy < 0.5f ? (fmx < 0.5f ? m00 : m01) : (fmx < 0.5f ? m10 : m11);
    } else {
      const float top = m00 + fmx * (m01 - m00), bottom = m10 + fmx * (m11 - m10);
      level = top + fmy * (bottom - top);
    }
    float c = level * radiusPerLevel;
    c = c > kMaxGridRadius ? kMaxGridRadius : c;
    const size_t i = static_cast<size_t>(gy) * gw + gx;
    work->coc[i] = c;
    // The gather weight trusts a sample as blurred only when all four map samples around it
    // are: samples by the subject's edge must not carry its colour into the background.
    work->lowestLevel[i] = lowest;
    found->anyBlur = found->anyBlur || c > 0.0f;
    if (nearMask) {
      const int32_t nx = fmx < 0.5f ? mx0 : mx1, ny = fmy < 0.5f ? my0 : my1;
      const bool isNear = nearMask[static_cast<size_t>(ny) * mapWidth + nx] != 0 && c > 0.25f;
      work->nearRadius[i] = isNear ? c : 0.0f;
      found->anyNear = found->anyNear || isNear;
    }
  }
}

// One grid row's mean luma and brightest pixel from the column sums of its `rows` luma rows.
template <int32_t S>
void grid_luma_row(RenderWork* work, int32_t gy, int32_t width, int32_t rows) {
  const int32_t gw = work->gridWidth;
  const uint16_t* lineSum = work->lineSum;
  const uint8_t* linePeak = work->linePeak;
  float* colour = work->colour;
  uint8_t* peakOut = work->peak;
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
      peakOut[rowStart + gx] = static_cast<uint8_t>(peak);
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
    peakOut[rowStart + gx] = static_cast<uint8_t>(peak);
  }
}

// One grid row's chroma: the column sums of its chroma rows (both channels a whole line at a
// time, like the luma), then each cell's mean.
template <int32_t S>
void grid_chroma_row(RenderWork* work, int32_t gy, const ChromaAccess& ca, int32_t width, int32_t height) {
  const int32_t gw = work->gridWidth;
  const size_t plane = static_cast<size_t>(gw) * work->gridHeight;
  const int32_t cw = width / 2, ch = height / 2;
  const size_t rowStart = static_cast<size_t>(gy) * gw;
  const int32_t cy0 = gy * S / 2, crows = ch - cy0 < S / 2 ? ch - cy0 : S / 2;
  uint16_t* chromaSum = work->chromaSum;  // U samples then V samples, cw each
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
  float* colour = work->colour;
  for (int32_t gx = 0; gx < gw; ++gx) {
    const int32_t cx0 = gx * S / 2, ccols = cw - cx0 < S / 2 ? cw - cx0 : S / 2;
    uint32_t su = 0, sv = 0;
    for (int32_t dx = 0; dx < ccols; ++dx) su += chromaSum[cx0 + dx], sv += chromaSum[cw + cx0 + dx];
    const int32_t m = ccols * crows;
    colour[plane + rowStart + gx] = m > 0 ? static_cast<float>(su) / static_cast<float>(m) : 128.0f;
    colour[2 * plane + rowStart + gx] = m > 0 ? static_cast<float>(sv) / static_cast<float>(m) : 128.0f;
  }
}

}  // namespace

template <int32_t S>
GridFindings bokeh_grid_build(RenderWork* work, const uint8_t* luma, const ChromaAccess& ca, int32_t width,
                              int32_t height, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                              int32_t mapHeight, float radiusPerLevel) {
  const int32_t gw = work->gridWidth, gh = work->gridHeight;
  const float myScale = static_cast<float>(mapHeight) / height;
  GridFindings found{false, false};
  grid_map_columns<S>(gw, width, mapWidth, work->mapColumn);
  for (int32_t gy = 0; gy < gh; ++gy) {
    const int32_t y0 = gy * S;
    const float cy = static_cast<float>(y0) + 0.5f * S;
    const float my = clampf(cy * myScale - 0.5f, 0.0f, static_cast<float>(mapHeight - 1));
    const int32_t rows = height - y0 < S ? height - y0 : S;
    grid_luma_columns(luma, width, y0, rows, work->lineSum, work->linePeak);
    grid_radius_row(work, gy, map, nearMask, mapWidth, mapHeight, my, radiusPerLevel, &found);
    grid_luma_row<S>(work, gy, width, rows);
    grid_chroma_row<S>(work, gy, ca, width, height);
  }
  return found;
}

template GridFindings bokeh_grid_build<2>(RenderWork*, const uint8_t*, const ChromaAccess&, int32_t, int32_t,
                                          const uint8_t*, const uint8_t*, int32_t, int32_t, float);
template GridFindings bokeh_grid_build<4>(RenderWork*, const uint8_t*, const ChromaAccess&, int32_t, int32_t,
                                          const uint8_t*, const uint8_t*, int32_t, int32_t, float);
