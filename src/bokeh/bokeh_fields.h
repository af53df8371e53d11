// bokeh_fields.h - session fields owned by the refocus-map worker, per-frame rendering and debug display.
#ifndef VMKTRRT_BOKEH_FIELDS_H
#define VMKTRRT_BOKEH_FIELDS_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "engines/engines.h"
#include "flow/worker_thread.h"

struct SessionContext;

// Request reasons raised by the per-frame step.
constexpr uint32_t kReasonNewDepth = 0x1;
constexpr uint32_t kReasonFocusMoved = 0x2;
// Raised by the worker itself: the refocus-map thumbnail of the published map could not be drawn
// because the frame thread held the picture; the next wake draws it without making a map.
constexpr uint32_t kReasonThumbnail = 0x4;

constexpr int32_t kHistogramSide = 260;
constexpr int32_t kHistogramBins = 256;
constexpr int32_t kDebugTextCapacity = 1024;
constexpr int32_t kDebugTextPictureBytes = 393216;  // 1024 glyphs
constexpr int32_t kDebugLabelCount = 5;
constexpr int32_t kDebugLabelBytes = 7680;  // 20 glyphs

// The refocus-map worker: its thread and what the thread works with; the request words are
// shared without the thread's lock and are atomics.
struct RefocusWorker {
  WorkerThread thread;
  SessionContext* context;
  uint8_t* scratch;  // refocusMapWidth x refocusMapHeight bytes; its contents are never used
  int32_t scratchOwned;
  int32_t scratchSize;
  std::atomic<uint32_t> pendingReasons;
  std::atomic<int32_t> lastFocusX;
  std::atomic<int32_t> lastFocusY;
  std::atomic<int32_t> forcePublish;
  int32_t thumbnailX, thumbnailY;  // worker only: the marker of the thumbnail owed, in depth pixels
  int32_t rendererOpen;            // its set-up succeeded, so shut-down closes it
};

struct BokehFields {
  RefocusWorker worker;
  int32_t refocusCount;  // the worker's count of differing maps held back in a row
  std::atomic<int32_t> refocusUsingCounter;
  int32_t debugPictureShown;  // frame thread only

  // Debug statistics: made by the worker after each map, shown by the frame thread. The lock
  // guards them; the frame thread copies the picture out under it.
  pthread_mutex_t statsMutex;
  int32_t depthMin, depthMax, depthTarget;
  uint32_t depthHistogram[kHistogramBins];
  uint8_t histogramPicture[kHistogramSide * kHistogramSide * 4];

  // Per-frame storage of the debug display (frame thread only), valid through the render call.
  DebugPictureEntry table[DEBUG_PICTURE_TABLE_SIZE];
  char textBlock[kDebugTextCapacity];
  uint8_t textPicture[kDebugTextPictureBytes];
  uint8_t labelPictures[kDebugLabelCount][kDebugLabelBytes];
  uint8_t histogramShown[kHistogramSide * kHistogramSide * 4];
};

#endif  // VMKTRRT_BOKEH_FIELDS_H
