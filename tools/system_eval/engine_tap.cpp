// engine_tap.cpp - the measuring tap of engine_tap.h: definitions of the watched engine functions
// in the executable, each forwarding to the engine library's own (found with RTLD_NEXT).
#include "engine_tap.h"

#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

#include "engines.h"

namespace {

const int32_t kDepthRing = 1024;  // every frame's chip map besides the outputs made since
const int32_t kMapRing = 16;

struct DepthRecord {
  uint64_t hash = 0;
  int32_t frame = -1;
};

struct MapRecord {
  uint64_t hash = 0;
  int32_t depthFrame = -1;
  int32_t focusX = 0, focusY = 0;
  uint16_t target = 0;
  std::vector<uint16_t> depth;
};

struct Tap {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<int32_t> active{0};
  std::atomic<int32_t> submitted{0};
  const std::vector<std::vector<uint8_t>>* lumaSmall = nullptr;
  int32_t depthWidth = 0, depthHeight = 0;
  int32_t refocusWidth = 0, refocusHeight = 0;  // from the renderer's set-up
  DepthRecord depths[kDepthRing];
  int32_t depthNext = 0;
  MapRecord maps[kMapRing];
  int32_t mapNext = 0;
  TapDraw last;
  std::vector<int32_t> engineFrames;
  TapCounts counts;
};

Tap g_tap;

uint64_t hash_bytes(const void* data, size_t size) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < size; ++i) h = (h ^ p[i]) * 1099511628211ull;
  return h;
}

size_t depth_samples() {
  return size_t(g_tap.depthWidth) * size_t(g_tap.depthHeight);
}

// The engine library's own definition of `name`.
void* next_symbol(const char* name) {
  void* f = dlsym(RTLD_NEXT, name);
  if (f == nullptr) {
    fprintf(stderr, "engine tap: %s not found in the engine libraries\n", name);
    abort();  // a tool-only failure: without the engine nothing can be measured
  }
  return f;
}

// The frame whose small luma is nearest the engine's input: the latest submitted frame unless an
// earlier one is clearly nearer (5%: the tool's box average is not the system's scaler, and on a
// still scene only noise tells frames apart).
int32_t identify_frame(const uint8_t* luma) {
  const int32_t last = g_tap.submitted.load();
  if (g_tap.lumaSmall == nullptr || luma == nullptr) return last;
  const size_t n = depth_samples();
  double sad[4] = {0, 0, 0, 0};
  double best = -1;
  for (int32_t k = 0; k < 4 && last - k >= 0; ++k) {
    const std::vector<uint8_t>& ref = (*g_tap.lumaSmall)[size_t(last - k)];
    if (ref.size() != n) return last;
    double s = 0;
    for (size_t i = 0; i < n; ++i) s += abs(int(luma[i]) - int(ref[i]));
    sad[k] = s;
    if (best < 0 || s < best) best = s;
  }
  for (int32_t k = 0; k < 4 && last - k >= 0; ++k)
    if (sad[k] <= best * 1.05) return last - k;
  return last;
}

int32_t depth_frame_of(const uint16_t* depth) {
  if (depth == nullptr) return -1;
  const uint64_t h = hash_bytes(depth, depth_samples() * 2);
  for (const DepthRecord& r : g_tap.depths)
    if (r.frame >= 0 && r.hash == h) return r.frame;
  return -1;
}

void remember_depth(const uint16_t* depth, int32_t frame) {
  DepthRecord& r = g_tap.depths[g_tap.depthNext];
  g_tap.depthNext = (g_tap.depthNext + 1) % kDepthRing;
  r.hash = hash_bytes(depth, depth_samples() * 2);
  r.frame = frame;
}

void remember_map(const uint8_t* map, const uint16_t* depth, int32_t focusX, int32_t focusY, uint16_t target) {
  const size_t mapSize = size_t(g_tap.refocusWidth) * size_t(g_tap.refocusHeight);
  if (map == nullptr || depth == nullptr || mapSize == 0) return;
  pthread_mutex_lock(&g_tap.mutex);
  MapRecord& r = g_tap.maps[g_tap.mapNext];
  g_tap.mapNext = (g_tap.mapNext + 1) % kMapRing;
  r.hash = hash_bytes(map, mapSize);
  r.depthFrame = depth_frame_of(depth);
  r.focusX = focusX, r.focusY = focusY, r.target = target;
  r.depth.assign(depth, depth + depth_samples());
  g_tap.counts.mapsMade += 1;
  if (r.depthFrame < 0) g_tap.counts.unknownDepth += 1;
  pthread_mutex_unlock(&g_tap.mutex);
}

using RunExpress = int32_t (*)(uint16_t*, DpxImage*, DpxImage*, int32_t, int32_t);
using FilterRun = int32_t (*)(uint16_t*, const uint16_t*, int32_t, int32_t, const uint8_t*, int32_t, int32_t);
using GenMap = int32_t (*)(uint8_t*, const uint16_t*, int32_t, int32_t, uint16_t*, uint16_t*, uint16_t*);
using Start = int32_t (*)(uint8_t*, uint8_t*, const uint8_t*, int32_t, int32_t, float, int32_t, int32_t, int32_t,
                          int32_t, int32_t);
using Init = int32_t (*)(const uint8_t*, int32_t, const uint8_t*, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                         int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t);
using Init11 = int32_t (*)(const uint8_t*, int32_t, const uint8_t*, int32_t, int32_t, int32_t, int32_t, int32_t,
                           int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t, uint32_t);

int32_t gen_map(GenMap next, uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY, uint16_t* depthMin,
                uint16_t* depthMax, uint16_t* depthTarget) {
  const int32_t r = next(mapOut, depth, focusX, focusY, depthMin, depthMax, depthTarget);
  if (r == 0 && g_tap.active.load() != 0 && depthTarget != nullptr)
    remember_map(mapOut, depth, focusX, focusY, *depthTarget);
  return r;
}

}  // namespace

void tap_begin(const std::vector<std::vector<uint8_t>>* lumaSmall, int32_t depthWidth, int32_t depthHeight) {
  pthread_mutex_lock(&g_tap.mutex);
  g_tap.lumaSmall = lumaSmall;
  g_tap.depthWidth = depthWidth;
  g_tap.depthHeight = depthHeight;
  for (DepthRecord& r : g_tap.depths) r = DepthRecord();
  for (MapRecord& r : g_tap.maps) r = MapRecord();
  g_tap.depthNext = g_tap.mapNext = 0;
  g_tap.last = TapDraw();
  g_tap.engineFrames.clear();
  g_tap.counts = TapCounts();
  g_tap.submitted.store(0);
  g_tap.active.store(1);
  pthread_mutex_unlock(&g_tap.mutex);
}

void tap_remember_depth(const uint16_t* depth, int32_t frame) {
  if (depth == nullptr) return;
  pthread_mutex_lock(&g_tap.mutex);
  remember_depth(depth, frame);
  pthread_mutex_unlock(&g_tap.mutex);
}

void tap_submit(int32_t frame) {
  g_tap.submitted.store(frame);
}

TapDraw tap_last_draw() {
  pthread_mutex_lock(&g_tap.mutex);
  TapDraw d = g_tap.last;
  pthread_mutex_unlock(&g_tap.mutex);
  return d;
}

std::vector<int32_t> tap_take_engine_frames() {
  pthread_mutex_lock(&g_tap.mutex);
  std::vector<int32_t> v;
  v.swap(g_tap.engineFrames);
  pthread_mutex_unlock(&g_tap.mutex);
  return v;
}

TapCounts tap_counts() {
  pthread_mutex_lock(&g_tap.mutex);
  const TapCounts c = g_tap.counts;
  pthread_mutex_unlock(&g_tap.mutex);
  return c;
}

void tap_end() {
  g_tap.active.store(0);
}

// ---- the watched engine functions ----

extern "C" int32_t vmDpx2_Run_Express(uint16_t* depthOut, DpxImage* mainImage, DpxImage* subImage, int32_t vcmMain,
                                      int32_t vcmSub) {
  static const RunExpress next = reinterpret_cast<RunExpress>(next_symbol("vmDpx2_Run_Express"));
  const bool watch = g_tap.active.load() != 0 && depthOut != nullptr && mainImage != nullptr;
  const int32_t frame = watch ? identify_frame(mainImage->plane[0]) : -1;
  const int32_t r = next(depthOut, mainImage, subImage, vcmMain, vcmSub);
  if (watch) {
    pthread_mutex_lock(&g_tap.mutex);
    remember_depth(depthOut, frame);
    g_tap.engineFrames.push_back(frame);
    g_tap.counts.engineRuns += 1;
    pthread_mutex_unlock(&g_tap.mutex);
  }
  return r;
}

extern "C" int32_t vmZu_TemporalFilterU16_Run(uint16_t* depthOut, const uint16_t* depthIn, int32_t depthWidth,
                                              int32_t depthHeight, const uint8_t* guideLuma, int32_t mainWidth,
                                              int32_t mainHeight) {
  static const FilterRun next = reinterpret_cast<FilterRun>(next_symbol("vmZu_TemporalFilterU16_Run"));
  const bool watch = g_tap.active.load() != 0 && depthOut != nullptr && depthIn != nullptr &&
                     size_t(depthWidth) * size_t(depthHeight) == depth_samples();
  int32_t frame = -1;
  if (watch) {
    pthread_mutex_lock(&g_tap.mutex);
    frame = depth_frame_of(depthIn);
    pthread_mutex_unlock(&g_tap.mutex);
  }
  const int32_t r = next(depthOut, depthIn, depthWidth, depthHeight, guideLuma, mainWidth, mainHeight);
  if (watch) {
    pthread_mutex_lock(&g_tap.mutex);
    remember_depth(depthOut, frame);
    g_tap.counts.filterRuns += 1;
    pthread_mutex_unlock(&g_tap.mutex);
  }
  return r;
}

extern "C" int32_t vmKtrRT_GenRefocusMap(uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY,
                                         uint16_t* depthMin, uint16_t* depthMax, uint16_t* depthTarget) {
  static const GenMap next = reinterpret_cast<GenMap>(next_symbol("vmKtrRT_GenRefocusMap"));
  return gen_map(next, mapOut, depth, focusX, focusY, depthMin, depthMax, depthTarget);
}

extern "C" int32_t vmKtrRT_GenRefocusMap_VX4810_DispartyBase(uint8_t* mapOut, const uint16_t* depth, int32_t focusX,
                                                             int32_t focusY, uint16_t* depthMin, uint16_t* depthMax,
                                                             uint16_t* depthTarget) {
  static const GenMap next = reinterpret_cast<GenMap>(next_symbol("vmKtrRT_GenRefocusMap_VX4810_DispartyBase"));
  return gen_map(next, mapOut, depth, focusX, focusY, depthMin, depthMax, depthTarget);
}

extern "C" int32_t vmKtrRT_GLStartV1(uint8_t* mainLuma, uint8_t* mainChroma, const uint8_t* refocusMap, int32_t focusX,
                                     int32_t focusY, float fNumber, int32_t noMapFlag, int32_t regionLeft,
                                     int32_t regionTop, int32_t regionRight, int32_t regionBottom) {
  static const Start next = reinterpret_cast<Start>(next_symbol("vmKtrRT_GLStartV1"));
  if (g_tap.active.load() != 0) {
    const size_t mapSize = size_t(g_tap.refocusWidth) * size_t(g_tap.refocusHeight);
    pthread_mutex_lock(&g_tap.mutex);
    TapDraw d;
    d.submitted = g_tap.submitted.load();
    if (refocusMap != nullptr && noMapFlag == 0 && mapSize > 0) {
      const uint64_t h = hash_bytes(refocusMap, mapSize);
      d.mapHash = h;
      bool found = false;
      for (const MapRecord& r : g_tap.maps)
        if (!r.depth.empty() && r.hash == h) {
          d.depthFrame = r.depthFrame;
          d.focusX = r.focusX, d.focusY = r.focusY, d.target = r.target;
          d.depth = r.depth;
          found = true;
          break;
        }
      // A map held for long may have left the ring of made maps; the last frame drew it too.
      if (!found && g_tap.last.mapHash == h) {
        const int32_t submitted = d.submitted;
        d = g_tap.last;
        d.submitted = submitted;
      }
    }
    g_tap.last = d;
    pthread_mutex_unlock(&g_tap.mutex);
  }
  return next(mainLuma, mainChroma, refocusMap, focusX, focusY, fNumber, noMapFlag, regionLeft, regionTop, regionRight,
              regionBottom);
}

extern "C" int32_t vmKtrRT_GLInitV1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                                    int32_t previewWidth, int32_t previewHeight, int32_t depthWidth,
                                    int32_t depthHeight, int32_t refocusWidth, int32_t refocusHeight,
                                    int32_t screenWidth, int32_t screenHeight, int32_t isPortrait, int32_t isOffRender,
                                    int32_t imageFormat, int32_t isGB) {
  static const Init next = reinterpret_cast<Init>(next_symbol("vmKtrRT_GLInitV1"));
  g_tap.refocusWidth = refocusWidth, g_tap.refocusHeight = refocusHeight;
  return next(calibA, sizeA, calibB, sizeB, previewWidth, previewHeight, depthWidth, depthHeight, refocusWidth,
              refocusHeight, screenWidth, screenHeight, isPortrait, isOffRender, imageFormat, isGB);
}

extern "C" int32_t vmKtrRT_GLInitV1_1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                                      int32_t previewWidth, int32_t previewHeight, int32_t depthWidth,
                                      int32_t depthHeight, int32_t refocusWidth, int32_t refocusHeight,
                                      int32_t screenWidth, int32_t screenHeight, int32_t isPortrait,
                                      int32_t isOffRender, int32_t imageFormat, int32_t isGB, uint32_t extraParam) {
  static const Init11 next = reinterpret_cast<Init11>(next_symbol("vmKtrRT_GLInitV1_1"));
  g_tap.refocusWidth = refocusWidth, g_tap.refocusHeight = refocusHeight;
  return next(calibA, sizeA, calibB, sizeB, previewWidth, previewHeight, depthWidth, depthHeight, refocusWidth,
              refocusHeight, screenWidth, screenHeight, isPortrait, isOffRender, imageFormat, isGB, extraParam);
}
