// refocus_map.cpp - the refocus-map generator: focus target, depth range, hole filling and the
// map linear in the disparity difference, plus the foreground record the renderer reads back.
#include <string.h>

#include "renderer_internal.h"

namespace {

// Insertion sort of a small window's samples (at most a few hundred).
void sort_small(uint16_t* v, int32_t n) {
  for (int32_t i = 1; i < n; ++i) {
    const uint16_t key = v[i];
    int32_t j = i - 1;
    while (j >= 0 && v[j] > key) {
      v[j + 1] = v[j];
      --j;
    }
    v[j + 1] = key;
  }
}

// Fills the invalid runs of one line (count samples, step apart) with the farther (smaller) of
// the valid samples at the run's two ends, or the one that exists.
void fill_line(uint16_t* line, int32_t count, int32_t step) {
  int32_t lastValid = -1;
  int32_t i = 0;
  while (i < count) {
    if (line[i * step] < kDepthInvalid) {
      lastValid = i++;
      continue;
    }
    int32_t end = i;
    while (end < count && line[end * step] >= kDepthInvalid) ++end;
    const uint16_t left = lastValid >= 0 ? line[lastValid * step] : kDepthInvalid;
    const uint16_t right = end < count ? line[end * step] : kDepthInvalid;
    const uint16_t fill = left < right ? left : right;
    if (fill < kDepthInvalid) {
      for (int32_t k = i; k < end; ++k) line[k * step] = fill;
    }
    i = end;
  }
}

}  // namespace

bool refocus_focus_target(const uint16_t* depth, int32_t width, int32_t height, int32_t x, int32_t y,
                          uint16_t* target) {
  if (depth == nullptr || width <= 0 || height <= 0) return false;
  x = x < 0 ? 0 : (x >= width ? width - 1 : x);
  y = y < 0 ? 0 : (y >= height ? height - 1 : y);
  // A 5 x 5 window first; widened (doubling) while it holds no valid sample. The median is taken
  // from at most 15 x 15 samples, strided when the window is larger.
  uint16_t values[225];
  const int32_t largest = width > height ? width : height;
  for (int32_t radius = 2;; radius *= 2) {
    const int32_t step = radius <= 7 ? 1 : (radius + 6) / 7;
    int32_t n = 0;
    for (int32_t dy = -radius; dy <= radius; dy += step) {
      const int32_t yy = y + dy;
      if (yy < 0 || yy >= height) continue;
      for (int32_t dx = -radius; dx <= radius && n < 225; dx += step) {
        const int32_t xx = x + dx;
        if (xx < 0 || xx >= width) continue;
        const uint16_t v = depth[static_cast<size_t>(yy) * width + xx];
        if (v < kDepthInvalid) values[n++] = v;
      }
    }
    if (n > 0) {
      sort_small(values, n);
      *target = values[n / 2];
      return true;
    }
    if (radius >= largest) break;
  }
  // The strided search may step over isolated samples: take any valid one nearest in scan order.
  const size_t total = static_cast<size_t>(width) * height;
  for (size_t i = 0; i < total; ++i) {
    if (depth[i] < kDepthInvalid) {
      *target = depth[i];
      return true;
    }
  }
  return false;
}

void refocus_resample_fill(uint16_t* out, int32_t mapWidth, int32_t mapHeight, const uint16_t* depth, int32_t width,
                           int32_t height) {
  // Nearest sample at each map sample's centre: no mixing across depth edges.
  for (int32_t j = 0; j < mapHeight; ++j) {
    const int32_t sy = static_cast<int32_t>((2 * static_cast<int64_t>(j) + 1) * height / (2 * mapHeight));
    const uint16_t* row = depth + static_cast<size_t>(sy) * width;
    uint16_t* o = out + static_cast<size_t>(j) * mapWidth;
    for (int32_t i = 0; i < mapWidth; ++i) {
      const int32_t sx = static_cast<int32_t>((2 * static_cast<int64_t>(i) + 1) * width / (2 * mapWidth));
      o[i] = row[sx] > kDepthInvalid ? kDepthInvalid : row[sx];
    }
  }
  for (int32_t j = 0; j < mapHeight; ++j) fill_line(out + static_cast<size_t>(j) * mapWidth, mapWidth, 1);
  for (int32_t i = 0; i < mapWidth; ++i) fill_line(out + i, mapHeight, mapWidth);
}

uint8_t refocus_map_value(int32_t difference, int32_t band, int32_t span) {
  if (difference < 0) difference = -difference;
  if (difference <= band || span <= 0) return 0;
  const int64_t v = (static_cast<int64_t>(difference - band) * 255 + span / 2) / span;
  return static_cast<uint8_t>(v > 255 ? 255 : v);
}

uint32_t refocus_map_hash(const uint8_t* map, size_t size) {
  uint32_t h = 2166136261u;
  size_t i = 0;
  for (; i + 4 <= size; i += 4) {
    uint32_t w;
    memcpy(&w, map + i, 4);
    h = (h ^ w) * 16777619u;
  }
  for (; i < size; ++i) h = (h ^ map[i]) * 16777619u;
  return h;
}

int32_t refocus_generate(uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY, uint16_t* depthMin,
                         uint16_t* depthMax, uint16_t* depthTarget, bool chip) {
  RendererState& s = g_renderer;
  if (mapOut == nullptr || depth == nullptr || depthMin == nullptr || depthMax == nullptr || depthTarget == nullptr) {
    RGL_LOG("ERROR: null argument map[%p] depth[%p]\n", static_cast<void*>(mapOut), static_cast<const void*>(depth));
    return RGL_ERR_ARGUMENT;
  }
  if (!s.initialised || !s.generatorReady) {
    RGL_LOG("ERROR: generator not initialised\n");
    return RGL_ERR_STATE;
  }
  const int32_t w = s.depthWidth, h = s.depthHeight;
  // The system turned the focus point for portrait frames as (x, y) -> (y, H - x); undo it.
  // In 64 bits and clamped: any focus point the system passes (even INT32_MIN) stays defined.
  int64_t fx = focusX, fy = focusY;
  if (s.isPortrait == 1) {
    fx = static_cast<int64_t>(h) - focusY;
    fy = focusX;
  }
  const int32_t x = static_cast<int32_t>(fx < 0 ? 0 : (fx >= w ? w - 1 : fx));
  const int32_t y = static_cast<int32_t>(fy < 0 ? 0 : (fy >= h ? h - 1 : fy));
  const size_t total = static_cast<size_t>(w) * h;
  uint16_t lo = kDepthInvalid, hi = 0;
  for (size_t i = 0; i < total; ++i) {
    const uint16_t v = depth[i];
    if (v >= kDepthInvalid) continue;
    lo = v < lo ? v : lo;
    hi = v > hi ? v : hi;
  }
  uint16_t target = 0;
  if (lo == kDepthInvalid || !refocus_focus_target(depth, w, h, x, y, &target)) {
    RGL_LOG("ERROR: no valid depth in %dx%d\n", w, h);
    return RGL_ERR_NO_DEPTH;
  }
  *depthMin = lo;
  *depthMax = hi;
  *depthTarget = target;

  // Chip disparity keeps the depth sample's meaning whether the chip sent 8-bit or 10-bit samples:
  // the system widens 8-bit samples as they are, and the sample width cannot be told from the
  // values (a 10-bit map of a scene with little disparity holds only values under 256).
  const int32_t scale = chip ? kDefaultDisparityScale : s.disparityScale;
  const int32_t band = scale / 2;
  const int32_t span = scale * w / kFullBlurDivisor > 0 ? scale * w / kFullBlurDivisor : 1;
  const int32_t focusValue = target;

  const int32_t mw = s.refocusWidth, mh = s.refocusHeight;
  uint16_t* filled = s.fillScratch;
  refocus_resample_fill(filled, mw, mh, depth, w, h);
  const size_t mapSize = static_cast<size_t>(mw) * mh;

  NearRecord* rec = refocus_near_record_claim(&s, mapOut);
  refocus_map_from_depth(filled, mapSize, focusValue, band, span, mapOut, rec->nearMask);
  refocus_near_record_publish(&s, rec, mapOut, mapSize);
  return RGL_OK;
}

NearRecord* refocus_near_record_claim(RendererState* s, const uint8_t* mapOut) {
  // The same address again, else the least recently written.
  pthread_mutex_lock(&g_nearLock);
  NearRecord* rec = &s->nearRecords[0];
  for (int32_t i = 0; i < kNearRecords; ++i) {
    if (s->nearRecords[i].map == mapOut) {
      rec = &s->nearRecords[i];
      break;
    }
    if (s->nearRecords[i].used < rec->used) rec = &s->nearRecords[i];
  }
  rec->map = nullptr;  // invalid while being rewritten
  pthread_mutex_unlock(&g_nearLock);
  return rec;
}

void refocus_map_from_depth(const uint16_t* filled, size_t mapSize, int32_t focusValue, int32_t band, int32_t span,
                            uint8_t* mapOut, uint8_t* nearMask) {
  for (size_t i = 0; i < mapSize; ++i) {
    const int32_t d = filled[i];
    const int32_t diff = d - focusValue;
    mapOut[i] = refocus_map_value(diff, band, span);
    nearMask[i] = diff > band ? 1 : 0;
  }
}

void refocus_near_record_publish(RendererState* s, NearRecord* rec, const uint8_t* mapOut, size_t mapSize) {
  const uint32_t hash = refocus_map_hash(mapOut, mapSize);
  pthread_mutex_lock(&g_nearLock);
  rec->map = mapOut;
  rec->hash = hash;
  rec->used = ++s->nearClock;
  pthread_mutex_unlock(&g_nearLock);
}
