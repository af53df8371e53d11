// renderer_api.cpp - the renderer library's C interface: version, camera layout, set-up and
// close, the effect switch, debug pictures, the refocus-map generator calls and the frame call.
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "renderer_internal.h"

#define RGL_EXPORT extern "C" __attribute__((visibility("default")))

RendererState g_renderer;
pthread_mutex_t g_nearLock = PTHREAD_MUTEX_INITIALIZER;

namespace {

const char kVersionText[] = "KtrRT_GL-ref 1.0 cpu";

bool in_range(int32_t v, int32_t lo, int32_t hi) {
  return v >= lo && v <= hi;
}

void release_all() {
  RendererState& s = g_renderer;
  render_work_free(&s.work);
  free(s.fillScratch);
  s.fillScratch = nullptr;
  pthread_mutex_lock(&g_nearLock);
  for (int32_t i = 0; i < kNearRecords; ++i) {
    free(s.nearRecords[i].nearMask);
    s.nearRecords[i] = NearRecord{nullptr, 0, 0, nullptr};
  }
  pthread_mutex_unlock(&g_nearLock);
  s.initialised = 0;
  s.generatorReady = 0;
  s.debugShown = 0;
  s.debugEntries = 0;
}

int32_t gl_init(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB, int32_t previewWidth,
                int32_t previewHeight, int32_t depthWidth, int32_t depthHeight, int32_t refocusWidth,
                int32_t refocusHeight, int32_t screenWidth, int32_t screenHeight, int32_t isPortrait,
                int32_t isOffRender, int32_t imageFormat, int32_t isGB, uint32_t extraParam) {
  if (!in_range(previewWidth, kMinPreviewSide, kMaxPreviewSide) ||
      !in_range(previewHeight, kMinPreviewSide, kMaxPreviewSide) || (previewWidth & 1) || (previewHeight & 1) ||
      !in_range(depthWidth, kMinMapSide, kMaxMapSide) || !in_range(depthHeight, kMinMapSide, kMaxMapSide) ||
      !in_range(refocusWidth, kMinMapSide, kMaxMapSide) || !in_range(refocusHeight, kMinMapSide, kMaxMapSide) ||
      !in_range(screenWidth, 0, 2 * kMaxPreviewSide) || !in_range(screenHeight, 0, 2 * kMaxPreviewSide)) {
    RGL_LOG("ERROR: sizes preview[%dx%d] depth[%dx%d] refocus[%dx%d] screen[%dx%d]\n", previewWidth, previewHeight,
            depthWidth, depthHeight, refocusWidth, refocusHeight, screenWidth, screenHeight);
    return RGL_ERR_SIZE;
  }
  if (renderer_chroma_layout(imageFormat) < 0) {
    RGL_LOG("ERROR: image format code %d\n", imageFormat);
    return RGL_ERR_FORMAT;
  }
  // Pair A first; an address without a positive size, or a size without an address, is refused.
  if ((calibA != nullptr && sizeA <= 0) || (calibB != nullptr && sizeB <= 0) || (calibA == nullptr && sizeA != 0) ||
      (calibB == nullptr && sizeB != 0)) {
    RGL_LOG("ERROR: calibration pairs A[%p %d] B[%p %d]\n", static_cast<const void*>(calibA), sizeA,
            static_cast<const void*>(calibB), sizeB);
    return RGL_ERR_CALIBRATION;
  }
  const uint8_t* block = calibA != nullptr ? calibA : calibB;
  const int32_t blockSize = calibA != nullptr ? sizeA : sizeB;
  int32_t scale = kDefaultDisparityScale;
  const int32_t calibResult = renderer_read_calibration(block, blockSize, &scale);
  if (calibResult != RGL_OK) {
    RGL_LOG("ERROR: calibration block refused [%x]\n", calibResult);
    return calibResult;
  }

  RendererState& s = g_renderer;
  if (s.initialised) release_all();
  const int32_t layout = s.cameraLayout;
  memset(static_cast<void*>(&s), 0, sizeof(s));
  s.cameraLayout = layout;
  s.effectOn = 1;
  s.previewWidth = previewWidth, s.previewHeight = previewHeight;
  s.depthWidth = depthWidth, s.depthHeight = depthHeight;
  s.refocusWidth = refocusWidth, s.refocusHeight = refocusHeight;
  s.screenWidth = screenWidth, s.screenHeight = screenHeight;
  s.isPortrait = isPortrait == 1, s.isOffRender = isOffRender == 1, s.isGB = isGB == 1;
  s.imageFormat = imageFormat;
  s.extraParam = extraParam;
  s.disparityScale = scale;
  s.hasCalibration = block != nullptr;

  const size_t mapSize = static_cast<size_t>(refocusWidth) * refocusHeight;
  bool ok = render_work_alloc(&s.work, previewWidth, previewHeight, refocusWidth, refocusHeight) == RGL_OK;
  s.fillScratch = static_cast<uint16_t*>(malloc(mapSize * sizeof(uint16_t)));
  ok = ok && s.fillScratch != nullptr;
  pthread_mutex_lock(&g_nearLock);
  for (int32_t i = 0; i < kNearRecords; ++i) {
    s.nearRecords[i].nearMask = static_cast<uint8_t*>(malloc(mapSize));
    ok = ok && s.nearRecords[i].nearMask != nullptr;
  }
  pthread_mutex_unlock(&g_nearLock);
  if (!ok) {
    RGL_LOG("ERROR: out of memory for preview[%dx%d] refocus[%dx%d]\n", previewWidth, previewHeight, refocusWidth,
            refocusHeight);
    release_all();
    return RGL_ERR_MEMORY;
  }
  s.initialised = 1;
  return RGL_OK;
}

}  // namespace

int32_t renderer_chroma_layout(int32_t imageFormat) {
  switch (imageFormat) {
    case 0:
    case 7:
      return CHROMA_VU_INTERLEAVED;
    case 3:
      return CHROMA_UV_INTERLEAVED;
    case 2:
      return CHROMA_PLANAR;
    default:
      return -1;
  }
}

RGL_EXPORT int32_t vmKtr_GLVersionInfo_Get(char* text, int32_t size) {
  if (text == nullptr || size < static_cast<int32_t>(sizeof(kVersionText))) {
    RGL_LOG("ERROR: version buffer [%p] size %d\n", static_cast<void*>(text), size);
    return RGL_ERR_ARGUMENT;
  }
  memcpy(text, kVersionText, sizeof(kVersionText));
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_CameraLayout_Set(int32_t cameraLayout) {
  if (!in_range(cameraLayout, 1, 4)) {
    RGL_LOG("ERROR: camera layout %d\n", cameraLayout);
    return RGL_ERR_LAYOUT;
  }
  g_renderer.cameraLayout = cameraLayout;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GLInitV1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                                    int32_t previewWidth, int32_t previewHeight, int32_t depthWidth,
                                    int32_t depthHeight, int32_t refocusWidth, int32_t refocusHeight,
                                    int32_t screenWidth, int32_t screenHeight, int32_t isPortrait, int32_t isOffRender,
                                    int32_t imageFormat, int32_t isGB) {
  return gl_init(calibA, sizeA, calibB, sizeB, previewWidth, previewHeight, depthWidth, depthHeight, refocusWidth,
                 refocusHeight, screenWidth, screenHeight, isPortrait, isOffRender, imageFormat, isGB, 0);
}

RGL_EXPORT int32_t vmKtrRT_GLInitV1_1(const uint8_t* calibA, int32_t sizeA, const uint8_t* calibB, int32_t sizeB,
                                      int32_t previewWidth, int32_t previewHeight, int32_t depthWidth,
                                      int32_t depthHeight, int32_t refocusWidth, int32_t refocusHeight,
                                      int32_t screenWidth, int32_t screenHeight, int32_t isPortrait,
                                      int32_t isOffRender, int32_t imageFormat, int32_t isGB, uint32_t extraParam) {
  // The extra word is recorded; this renderer has no extended mode that reads it.
  return gl_init(calibA, sizeA, calibB, sizeB, previewWidth, previewHeight, depthWidth, depthHeight, refocusWidth,
                 refocusHeight, screenWidth, screenHeight, isPortrait, isOffRender, imageFormat, isGB, extraParam);
}

RGL_EXPORT int32_t vmKtrRT_SetParameter(int32_t id, KtrRTParameter parameter) {
  if (id != 2 || (parameter.word[4] != 0 && parameter.word[4] != 1)) {
    RGL_LOG("ERROR: parameter %d word4 %d\n", id, parameter.word[4]);
    return RGL_ERR_ARGUMENT;
  }
  g_renderer.effectOn = parameter.word[4];
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GLShowDebugPicture(int32_t enable, int32_t overlayMode) {
  g_renderer.debugShown = enable != 0;
  g_renderer.debugOverlayMode = overlayMode != 0;
  if (!enable) g_renderer.debugEntries = 0;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GLSetDebugPicture(DebugPictureEntry* table) {
  if (table == nullptr) {
    RGL_LOG("ERROR: null debug picture table\n");
    return RGL_ERR_ARGUMENT;
  }
  // The pictures stay the caller's; they are drawn by the frame call that follows.
  memcpy(g_renderer.debugTable, table, sizeof(g_renderer.debugTable));
  g_renderer.debugEntries = DEBUG_PICTURE_TABLE_SIZE;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GenRefocusMap_init(void) {
  if (!g_renderer.initialised) {
    RGL_LOG("ERROR: renderer not initialised\n");
    return RGL_ERR_STATE;
  }
  g_renderer.generatorReady = 1;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GenRefocusMap(uint8_t* mapOut, const uint16_t* depth, int32_t focusX, int32_t focusY,
                                         uint16_t* depthMin, uint16_t* depthMax, uint16_t* depthTarget) {
  return refocus_generate(mapOut, depth, focusX, focusY, depthMin, depthMax, depthTarget, false);
}

RGL_EXPORT int32_t vmKtrRT_GenRefocusMap_VX4810_DispartyBase(uint8_t* mapOut, const uint16_t* depth, int32_t focusX,
                                                             int32_t focusY, uint16_t* depthMin, uint16_t* depthMax,
                                                             uint16_t* depthTarget) {
  return refocus_generate(mapOut, depth, focusX, focusY, depthMin, depthMax, depthTarget, true);
}

RGL_EXPORT int32_t vmKtrRT_GenRefocusMap_Deinit(void) {
  g_renderer.generatorReady = 0;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GLStartV1(uint8_t* mainLuma, uint8_t* mainChroma, const uint8_t* refocusMap, int32_t focusX,
                                     int32_t focusY, float fNumber, int32_t noMapFlag, int32_t regionLeft,
                                     int32_t regionTop, int32_t regionRight, int32_t regionBottom) {
  // The focus point and region are already in the map; the renderer needs neither.
  (void)focusX, (void)focusY, (void)regionLeft, (void)regionTop, (void)regionRight, (void)regionBottom;
  RendererState& s = g_renderer;
  if (!s.initialised) {
    RGL_LOG("ERROR: renderer not initialised\n");
    return RGL_ERR_STATE;
  }
  if (mainLuma == nullptr || (noMapFlag != 0 && noMapFlag != 1) || !(fNumber > 0.0f) || isinf(fNumber)) {
    RGL_LOG("ERROR: luma[%p] noMapFlag %d fNumber %f\n", static_cast<void*>(mainLuma), noMapFlag,
            static_cast<double>(fNumber));
    return RGL_ERR_ARGUMENT;
  }
  const int32_t w = s.previewWidth, h = s.previewHeight;
  // A null chroma address means the chroma plane follows the luma plane.
  uint8_t* chroma = mainChroma != nullptr ? mainChroma : mainLuma + static_cast<size_t>(w) * h;
  const int32_t layout = renderer_chroma_layout(s.imageFormat);

  if (s.effectOn && noMapFlag == 0 && refocusMap != nullptr) {
    const size_t mapSize = static_cast<size_t>(s.refocusWidth) * s.refocusHeight;
    const uint32_t hash = refocus_map_hash(refocusMap, mapSize);
    const uint8_t* nearMask = nullptr;
    pthread_mutex_lock(&g_nearLock);
    for (int32_t i = 0; i < kNearRecords; ++i) {
      const NearRecord& r = s.nearRecords[i];
      if (r.map == refocusMap && r.hash == hash) {
        memcpy(s.work.nearMap, r.nearMask, mapSize);
        nearMask = s.work.nearMap;
        break;
      }
    }
    pthread_mutex_unlock(&g_nearLock);
    render_bokeh(&s.work, mainLuma, chroma, w, h, layout, refocusMap, nearMask, s.refocusWidth, s.refocusHeight,
                 fNumber);
  }
  if (s.debugShown) {
    for (int32_t i = 0; i < s.debugEntries; ++i) debug_picture_draw(mainLuma, chroma, w, h, layout, &s.debugTable[i]);
  }
  // Pictures are handed over per frame: never draw a table whose storage may be gone.
  s.debugEntries = 0;
  return RGL_OK;
}

RGL_EXPORT int32_t vmKtrRT_GLClose(void) {
  release_all();
  g_renderer.effectOn = 1;
  return RGL_OK;
}
