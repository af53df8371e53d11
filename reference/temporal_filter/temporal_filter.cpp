// temporal_filter.cpp - libvmZu_Utility: the reference guided temporal depth filter behind the
// closed filter's C functions. Per pixel a recursive average whose history weight falls where the
// guide luma or the depth changed, so moving objects leave no trails; invalid samples (1023 and
// above) are never averaged in. The history lives here and is reset by Init. One filter per
// process; calls are not reentrant.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "engines.h"

#define ZU_EXPORT extern "C" __attribute__((visibility("default")))

enum {
  ZU_OK = 0,
  ZU_ERR_ARGUMENT = 1,  // null pointer, or sizes other than those given to Init
  ZU_ERR_MEMORY = 2,
  ZU_ERR_STATE = 3,  // run before init
};

namespace {

const int32_t kInvalid = 1023;
const int32_t kFrac = 64;        // history precision: 1/64 of a depth sample
const int32_t kMaxWeight = 218;  // of 256: the history's share on a still, unchanged pixel
const int32_t kGuideRange = 20;  // guide change (levels) at which the history is dropped
const int32_t kDepthRange = 64;  // depth change (samples) at which the history is dropped

struct TemporalFilter {
  bool ready;
  int32_t mainWidth, mainHeight, depthWidth, depthHeight;
  int32_t* history;  // value x kFrac, or -1 when there is none
  uint8_t* guide;    // guide luma at the depth size, of the last valid sample
  int32_t* columns;  // guide column per depth column
  int32_t* rows;
};

TemporalFilter g_filter = {false, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr};

void release() {
  free(g_filter.history);
  free(g_filter.guide);
  free(g_filter.columns);
  free(g_filter.rows);
  memset(&g_filter, 0, sizeof(g_filter));
}

// The guide may be as large as a calibration resolution; the depth map, which sizes the history,
// is bounded as the stereo engine's output is (8192 a side keeps the history under 340 MB).
bool size_ok(int32_t w, int32_t h, int32_t largest) {
  return w > 0 && h > 0 && w <= largest && h <= largest;
}

}  // namespace

ZU_EXPORT int32_t vmZu_VersionInfo_Get(char* text, int32_t size) {
  if (text == nullptr || size <= 0) return ZU_ERR_ARGUMENT;
  snprintf(text, size_t(size), "vmZu_Utility reference 1.0 (guided recursive temporal filter)");
  return ZU_OK;
}

ZU_EXPORT int32_t vmZu_TemporalFilterU16_Init(int32_t mainWidth, int32_t mainHeight, int32_t depthWidth,
                                              int32_t depthHeight) {
  release();
  if (!size_ok(mainWidth, mainHeight, 16384) || !size_ok(depthWidth, depthHeight, 8192)) return ZU_ERR_ARGUMENT;
  size_t n = size_t(depthWidth) * size_t(depthHeight);
  g_filter.history = static_cast<int32_t*>(malloc(n * sizeof(int32_t)));
  g_filter.guide = static_cast<uint8_t*>(malloc(n));
  g_filter.columns = static_cast<int32_t*>(malloc(size_t(depthWidth) * sizeof(int32_t)));
  g_filter.rows = static_cast<int32_t*>(malloc(size_t(depthHeight) * sizeof(int32_t)));
  if (!g_filter.history || !g_filter.guide || !g_filter.columns || !g_filter.rows) {
    release();
    return ZU_ERR_MEMORY;
  }
  for (size_t i = 0; i < n; ++i) g_filter.history[i] = -1;
  memset(g_filter.guide, 0, n);
  // Top-left of a 2x2 guide block around each depth pixel's centre.
  for (int32_t x = 0; x < depthWidth; ++x) {
    int64_t c = (int64_t(2 * x + 1) * mainWidth) / (2 * int64_t(depthWidth)) - 1;
    g_filter.columns[x] = int32_t(c < 0 ? 0 : c + 1 >= mainWidth ? (mainWidth > 1 ? mainWidth - 2 : 0) : c);
  }
  for (int32_t y = 0; y < depthHeight; ++y) {
    int64_t r = (int64_t(2 * y + 1) * mainHeight) / (2 * int64_t(depthHeight)) - 1;
    g_filter.rows[y] = int32_t(r < 0 ? 0 : r + 1 >= mainHeight ? (mainHeight > 1 ? mainHeight - 2 : 0) : r);
  }
  g_filter.mainWidth = mainWidth;
  g_filter.mainHeight = mainHeight;
  g_filter.depthWidth = depthWidth;
  g_filter.depthHeight = depthHeight;
  g_filter.ready = true;
  return ZU_OK;
}

ZU_EXPORT int32_t vmZu_TemporalFilterU16_Run(uint16_t* depthOut, const uint16_t* depthIn, int32_t depthWidth,
                                             int32_t depthHeight, const uint8_t* guideLuma, int32_t mainWidth,
                                             int32_t mainHeight) {
  if (!g_filter.ready) return ZU_ERR_STATE;
  if (depthOut == nullptr || depthIn == nullptr || guideLuma == nullptr || depthWidth != g_filter.depthWidth ||
      depthHeight != g_filter.depthHeight || mainWidth != g_filter.mainWidth || mainHeight != g_filter.mainHeight)
    return ZU_ERR_ARGUMENT;
  const size_t mw = size_t(mainWidth);
  const int32_t x1 = mainWidth > 1 ? 1 : 0;
  const size_t y1 = mainHeight > 1 ? mw : 0;
  for (int32_t y = 0; y < depthHeight; ++y) {
    const uint8_t* g0 = guideLuma + size_t(g_filter.rows[y]) * mw;
    const size_t row = size_t(y) * size_t(depthWidth);
    for (int32_t x = 0; x < depthWidth; ++x) {
      const size_t i = row + size_t(x);
      const uint8_t* g = g0 + g_filter.columns[x];
      const int32_t guide = (g[0] + g[x1] + g[y1] + g[y1 + size_t(x1)] + 2) >> 2;
      const int32_t in = depthIn[i];
      int32_t hist = g_filter.history[i];
      int32_t dg = guide - g_filter.guide[i];
      dg = dg < 0 ? -dg : dg;
      if (in >= kInvalid) {
        // Never averaged in: hold the history while the guide says nothing changed.
        depthOut[i] = uint16_t(hist >= 0 && dg < kGuideRange ? (hist + kFrac / 2) / kFrac : kInvalid);
        continue;
      }
      if (hist < 0) {
        hist = in * kFrac;
      } else {
        int32_t dd = in - hist / kFrac;
        dd = dd < 0 ? -dd : dd;
        int32_t fg = dg >= kGuideRange ? 0 : 256 - dg * 256 / kGuideRange;
        int32_t fd = dd >= kDepthRange ? 0 : 256 - dd * 256 / kDepthRange;
        int32_t w = (kMaxWeight * ((fg * fd) >> 8)) >> 8;
        hist = (w * hist + (256 - w) * in * kFrac + 128) >> 8;
      }
      g_filter.history[i] = hist;
      g_filter.guide[i] = uint8_t(guide);
      int32_t v = (hist + kFrac / 2) / kFrac;
      depthOut[i] = uint16_t(v > kInvalid - 1 ? kInvalid - 1 : v);
    }
  }
  return ZU_OK;
}

ZU_EXPORT int32_t vmZu_TemporalFilterU16_Close(void) {
  release();
  return ZU_OK;
}
