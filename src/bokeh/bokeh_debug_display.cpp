// bokeh_debug_display.cpp - the debug pictures laid over the rendered preview (maps, histogram,
// status text, sample labels), the sub-preview paste and the focus marker; and the worker's
// depth statistics behind the histogram.
#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "bokeh/bokeh_manager.h"
#include "debug/debug_log.h"
#include "engines/engines.h"
#include "flow/session_context.h"
#include "image/depth_display.h"
#include "memory/buffer_manager.h"

namespace {

void keep(DebugHolds* holds, BufferHalf* h) {
  if (h != nullptr && holds->count < 4) holds->held[holds->count++] = h;
}

DebugPictureEntry* nextEntry(SessionContext* ctx, int32_t* used) {
  return &ctx->bokeh.table[(*used)++];
}

void setEntry(DebugPictureEntry* e, uint8_t* data, int32_t w, int32_t h, int32_t x, int32_t y, int32_t dw, int32_t dh) {
  e->data = data;
  e->width = w;
  e->height = h;
  e->x = x;
  e->y = y;
  e->displayWidth = dw;
  e->displayHeight = dh;
}

// Appends a line to the text block, after a line feed when the block is not empty.
void appendLine(char* block, const char* line) {
  size_t used = strlen(block);
  const size_t last = static_cast<size_t>(kDebugTextCapacity) - 1;  // room for the terminating zero
  if (used > 0 && used < last) block[used++] = '\n';
  // A block that would run past its capacity is cut there.
  for (const char* p = line; *p != '\0' && used < last; ++p) block[used++] = *p;
  block[used] = '\0';
}

// The main frame's luma is mainW x mainH bytes when the caller's frame holds at least that.
bool mainLumaUsable(const SessionContext* ctx) {
  const int64_t luma = static_cast<int64_t>(ctx->previewMainWidth2) * ctx->previewMainHeight2;
  return ctx->mainImageData != nullptr && luma > 0 && static_cast<int64_t>(ctx->mainImageSize) >= luma;
}

void pasteSubPreview(SessionContext* ctx) {
  BufferHalf* sub = buffer_manager_get_buffer(ctx, kSlotSub, kSlotFilled);
  const int32_t sw = session_preview_sub_width(ctx);
  const int32_t sh = session_preview_sub_height(ctx);
  const int32_t mw = ctx->previewMainWidth2;
  const int32_t mh = ctx->previewMainHeight2;
  if (sub == nullptr || sw <= 0 || sh <= 0 || sw > mw || sh > mh || !mainLumaUsable(ctx)) return;
  const size_t x0 = static_cast<size_t>(mw - sw);
  const size_t y0 = static_cast<size_t>(mh - sh);
  const size_t mainStride = static_cast<size_t>(mw), subStride = static_cast<size_t>(sw);
  for (size_t r = 0; r < static_cast<size_t>(sh); ++r)
    memcpy(ctx->mainImageData + (y0 + r) * mainStride + x0, sub->data + r * subStride, subStride);
  // The chroma plane is taken to be covered by the frame's size, as the frame copy takes it.
  const int64_t frameBytes = static_cast<int64_t>(mw) * mh * 3 / 2;
  if (ctx->mainImagePlane2 == nullptr || static_cast<int64_t>(ctx->mainImageSize) < frameBytes) return;
  // A second plane inside the frame's own block must leave room for the chroma plane within the
  // frame's size; one elsewhere is the caller's separate plane and is taken as whole.
  const uintptr_t block = reinterpret_cast<uintptr_t>(ctx->mainImageData);
  const uintptr_t plane2 = reinterpret_cast<uintptr_t>(ctx->mainImagePlane2);
  const uintptr_t blockEnd = block + ctx->mainImageSize;
  if (plane2 >= block && plane2 <= blockEnd &&
      blockEnd - plane2 < static_cast<uintptr_t>(mw) * static_cast<uintptr_t>(mh / 2))
    return;
  const uint8_t* subChroma = sub->data + subStride * static_cast<size_t>(sh);
  const size_t cy0 = y0 / 2;
  for (size_t r = 0; r < static_cast<size_t>(sh / 2); ++r)
    memcpy(ctx->mainImagePlane2 + (cy0 + r) * mainStride + x0, subChroma + r * subStride, subStride);
}

void composeText(SessionContext* ctx, int32_t display, int32_t info) {
  char* block = ctx->bokeh.textBlock;
  block[0] = '\0';
  char line[kDebugTextCapacity];
  if ((display & kDisplayStatistics) != 0) {
    pthread_mutex_lock(&ctx->bokeh.statsMutex);
    snprintf(line, sizeof line, "Depth Target[%5d] Min[%5d] Max[%5d]", ctx->bokeh.depthTarget, ctx->bokeh.depthMin,
             ctx->bokeh.depthMax);
    pthread_mutex_unlock(&ctx->bokeh.statsMutex);
    appendLine(block, line);
  }
  if ((info & kInfoLens) != 0) {
    snprintf(line, sizeof line, "VCM[%5d:%5d] FR(%4d,%4d)-(%4d,%4d)", ctx->vcmMain.load(), ctx->vcmSub.load(),
             ctx->regionLeft, ctx->regionTop, ctx->regionRight, ctx->regionBottom);
    appendLine(block, line);
  }
  if ((info & kInfoScene) != 0) {
    snprintf(line, sizeof line, "Scene[%2d] Status[%d]", ctx->policy.sceneValue, ctx->policyState.load());
    appendLine(block, line);
  }
  if ((info & kInfoVersions) != 0) {
    snprintf(line, sizeof line, "SC[%s] LV[%s] GL[%s]", ctx->versionText, ctx->depthEngineVersion,
             ctx->rendererVersion);
    appendLine(block, line);
  }
}

void sampleLabels(SessionContext* ctx, int32_t* used, DebugHolds* holds) {
  BufferHalf* depth = buffer_manager_hold_filled(ctx, kSlotDepth);
  BufferHalf* map = buffer_manager_hold_filled(ctx, kSlotRefocus);
  keep(holds, depth);
  keep(holds, map);
  if (depth == nullptr || map == nullptr) return;
  int32_t W, H;
  session_caller_depth_size(ctx, &W, &H);
  const int64_t mapBytes = static_cast<int64_t>(session_refocus_width(ctx)) * session_refocus_height(ctx);
  const int32_t points[kDebugLabelCount][2] = {
      {W / 4, H / 2}, {W / 2, (3 * H) / 4}, {W / 2, H / 2}, {W / 2, H / 4}, {(3 * W) / 4, H / 2}};
  for (int32_t k = 0; k < kDebugLabelCount; ++k) {
    const int32_t px = points[k][0], py = points[k][1];
    const int64_t d = static_cast<int64_t>(py) * W + px;
    // The map sample at half the coordinates assumes a map of half the depth size; a map of
    // another size is read only where that index lies inside it.
    const int64_t m = static_cast<int64_t>(py / 2) * (W / 2) + px / 2;
    if (d < 0 || d >= static_cast<int64_t>(W) * H || m < 0 || m >= mapBytes) continue;
    uint16_t sample;
    memcpy(&sample, depth->data + 2 * d, 2);
    char label[32];
    snprintf(label, sizeof label, "%5d/%3d", sample, map->data[m]);
    int32_t w = 0, h = 0;
    image_utility_text_size(label, &w, &h);
    image_utility_draw_text(ctx->bokeh.labelPictures[k], kDebugLabelBytes, label);
    setEntry(nextEntry(ctx, used), ctx->bokeh.labelPictures[k], w, h,
             static_cast<int32_t>(static_cast<int64_t>(ctx->previewMainWidth2) * px / W),
             static_cast<int32_t>(static_cast<int64_t>(ctx->previewMainHeight2) * py / H), 2 * w, 2 * h);
  }
}

}  // namespace

void bokeh_manager_debug_display(SessionContext* ctx, DebugHolds* holds) {
  BokehFields* b = &ctx->bokeh;
  const int32_t enable = debugEnable.load(std::memory_order_relaxed);
  const int32_t display = debugDisplay.load(std::memory_order_relaxed);
  const int32_t mw = ctx->previewMainWidth2;
  const int32_t mh = ctx->previewMainHeight2;
  if (enable == 0 || display == 0) {
    if (b->debugPictureShown == 1) {
      b->debugPictureShown = 0;
      vmKtrRT_GLShowDebugPicture(0, 0);
    }
  } else {
    memset(b->table, 0, sizeof b->table);
    int32_t used = 0;
    const bool overlay = debug_display_overlay(display);
    if (b->debugPictureShown == 0) {
      b->debugPictureShown = 1;
      vmKtrRT_GLShowDebugPicture(1, overlay ? 1 : 0);
    }
    if ((display & kDisplaySubPreview) != 0) pasteSubPreview(ctx);
    const int32_t rw = session_refocus_width(ctx);
    const int32_t rh = session_refocus_height(ctx);
    if ((display & kDisplayRefocusMap) != 0) {
      BufferHalf* pic = buffer_manager_hold_filled(ctx, kSlotRefocusWork);
      keep(holds, pic);
      if (pic != nullptr) {
        if (overlay)
          setEntry(nextEntry(ctx, &used), pic->data, rw, rh, 0, 0, mw, mh);
        else
          setEntry(nextEntry(ctx, &used), pic->data, rw, rh, 0, 0, rw / 4, rh / 4);
      }
    }
    if ((display & kDisplayStatistics) != 0) {
      pthread_mutex_lock(&b->statsMutex);
      memcpy(b->histogramShown, b->histogramPicture, sizeof b->histogramShown);
      pthread_mutex_unlock(&b->statsMutex);
      setEntry(nextEntry(ctx, &used), b->histogramShown, kHistogramSide, kHistogramSide, 0, rh / 4, 130, 390);
    }
    if ((display & kDisplayDepthMap) != 0) {
      BufferHalf* pic = buffer_manager_hold_filled(ctx, kSlotDepthWork);
      keep(holds, pic);
      if (pic != nullptr) {
        int32_t W, H;
        session_caller_depth_size(ctx, &W, &H);
        if (overlay)
          setEntry(nextEntry(ctx, &used), pic->data, W, H, 0, 0, mw, mh);
        else
          setEntry(nextEntry(ctx, &used), pic->data, W, H, 0, mh - H / 4, W / 4, H / 4);
      }
    }
    if ((display & kDisplayText) != 0) {
      const int32_t info = statusInfo.load(std::memory_order_relaxed);
      composeText(ctx, display, info);
      if (b->textBlock[0] != '\0') {
        int32_t w = 0, h = 0;
        // Text whose picture would not fit the picture's bytes gets no entry: the renderer must
        // never read a w x h picture beyond the buffer it is given.
        if (image_utility_text_size(b->textBlock, &w, &h) <= kDebugTextPictureBytes) {
          image_utility_draw_text(b->textPicture, kDebugTextPictureBytes, b->textBlock);
          setEntry(nextEntry(ctx, &used), b->textPicture, w, h, mw - 2 * w, mh - 2 * h, 2 * w, 2 * h);
        }
      }
      if ((info & kInfoSampleLabels) != 0) sampleLabels(ctx, &used, holds);
    }
    if (used > 0) vmKtrRT_GLSetDebugPicture(b->table);
  }
  if ((display & kDisplayFocusMarker) != 0 && mainLumaUsable(ctx))
    image_utility_draw_marker(ctx->mainImageData, mw, mh, 0, ctx->focusX.load(), ctx->focusY.load(), 5, 1);
}

void bokeh_manager_debug_statistics(SessionContext* ctx, const uint16_t* depth, uint16_t depthMin, uint16_t depthMax,
                                    uint16_t depthTarget) {
  BokehFields* b = &ctx->bokeh;
  const size_t n = static_cast<size_t>(session_depth_width(ctx)) * static_cast<size_t>(session_depth_height(ctx));
  pthread_mutex_lock(&b->statsMutex);
  memset(b->depthHistogram, 0, sizeof b->depthHistogram);
  uint32_t highest = 0;
  for (size_t i = 0; i < n; ++i) {
    // 10-bit samples fill the 256 bins; anything larger goes to the last bin.
    const uint32_t bin = depth[i] >> 2 < kHistogramBins ? depth[i] >> 2 : kHistogramBins - 1;
    if (++b->depthHistogram[bin] > highest) highest = b->depthHistogram[bin];
  }
  const float scale = highest > 0 ? 255.0f / static_cast<float>(highest) : 0.0f;
  for (uint32_t& bin : b->depthHistogram) bin = static_cast<uint32_t>(static_cast<float>(bin) * scale);
  b->depthTarget = depthTarget;
  b->depthMin = depthMin;
  b->depthMax = depthMax;
  image_utility_draw_histogram(b->histogramPicture, kHistogramSide, kHistogramSide, b->depthHistogram, kHistogramBins,
                               256, depthTarget >> 2, depthMax >> 2, depthMin >> 2);
  pthread_mutex_unlock(&b->statsMutex);
}
