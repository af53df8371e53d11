// dpx_api.cpp - libvmDpx2_LV: the reference stereo depth engine behind the closed engine's C
// functions. One engine per process (a static record); calls are not reentrant.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "calib_block.h"
#include "engines.h"
#include "stereo_core.h"
#include "stereo_rectify.h"

#define DPX_EXPORT extern "C" __attribute__((visibility("default")))

// Result codes besides the calibration block's (0x601..0x608).
enum {
  DPX_OK = 0,
  DPX_ERR_ARGUMENT = 1,  // null pointer, bad size, bad mode, wrong image format
  DPX_ERR_MEMORY = 2,
  DPX_ERR_STATE = 3,      // run before init
  DPX_ERR_LAYOUT = 4,     // camera layout outside 1..4
  DPX_ERR_RANGE = 0x701,  // search range empty or too wide at the depth size
};

namespace {

struct DepthEngine {
  bool ready;
  int32_t layout;
  int32_t quality;
  int32_t width, height;
  CalibBlock calib;
  bool warpMain, warpSub, mirror;
  float hMain[9], hSub[9];  // depth-size rectified pixel -> depth-size raw pixel
  StereoBuffers stereo;
  uint8_t* rectMain;
  uint8_t* rectSub;
  int16_t* disparity;
};

DepthEngine g_engine = {false, 2, 1, 0, 0, {}, false, false, false, {}, {}, {}, nullptr, nullptr, nullptr};

void mat_mul(const float a[9], const float b[9], float out[9]) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) out[r * 3 + c] = a[r * 3] * b[c] + a[r * 3 + 1] * b[3 + c] + a[r * 3 + 2] * b[6 + c];
}

bool is_identity(const float h[9]) {
  for (int i = 0; i < 9; ++i)
    if (fabsf(h[i] - ((i % 4 == 0) ? 1.0f : 0.0f)) > 1e-6f) return false;
  return true;
}

// Homography at the depth size: depth -> calibration coordinates, H, calibration -> depth.
void scale_homography(const float h[9], int32_t calibW, int32_t calibH, int32_t w, int32_t hgt, float out[9]) {
  float sx = float(calibW) / float(w), sy = float(calibH) / float(hgt);
  const float toCalib[9] = {sx, 0, 0.5f * sx - 0.5f, 0, sy, 0.5f * sy - 0.5f, 0, 0, 1};
  const float toDepth[9] = {1 / sx, 0, 0.5f / sx - 0.5f, 0, 1 / sy, 0.5f / sy - 0.5f, 0, 0, 1};
  float t[9];
  mat_mul(h, toCalib, t);
  mat_mul(toDepth, t, out);
}

void release() {
  stereo_free(&g_engine.stereo);
  free(g_engine.rectMain);
  free(g_engine.rectSub);
  free(g_engine.disparity);
  g_engine.rectMain = g_engine.rectSub = nullptr;
  g_engine.disparity = nullptr;
  g_engine.ready = false;
}

}  // namespace

DPX_EXPORT int32_t vmDpx2_VersionInfo_Get_LV(char* text, int32_t size) {
  if (text == nullptr || size <= 0) return DPX_ERR_ARGUMENT;
  snprintf(text, size_t(size), "vmDpx2_LV reference 1.0 (census, semi-global matching, guided fill)");
  return DPX_OK;
}

DPX_EXPORT int32_t vmDpx2_CameraLayout_Set_LV(int32_t cameraLayout) {
  // The system turns the images into the sensor's orientation before they arrive, so the layout
  // is only checked and kept.
  if (cameraLayout < 1 || cameraLayout > 4) return DPX_ERR_LAYOUT;
  g_engine.layout = cameraLayout;
  return DPX_OK;
}

DPX_EXPORT int32_t vmDpx2RT_FieldofDepth_Set(int32_t mode) {
  if (mode != 1 && mode != 2) return DPX_ERR_ARGUMENT;
  g_engine.quality = mode;  // takes effect at the next run; the buffers fit both modes
  if (g_engine.ready) g_engine.stereo.params.quality = mode;
  if (g_engine.ready) {
    StereoParams p;
    stereo_params_default(&p, g_engine.width, g_engine.height, g_engine.stereo.params.minDisparity,
                          g_engine.stereo.params.disparities, mode);
    g_engine.stereo.params = p;
  }
  return DPX_OK;
}

DPX_EXPORT int32_t vmDpx2_Express_Init(const uint8_t* calibA, int32_t sizeA, int32_t depthWidth, int32_t depthHeight,
                                       const uint8_t* calibB, int32_t sizeB) {
  release();
  const uint8_t* block = calibA != nullptr && sizeA > 0 ? calibA : calibB;
  int32_t blockSize = calibA != nullptr && sizeA > 0 ? sizeA : sizeB;
  CalibBlock calib;
  int32_t r = calib_block_read(block, blockSize > 0 ? size_t(blockSize) : 0, &calib);
  if (r != CALIB_OK) return r;
  if (depthWidth < 8 || depthHeight < 8 || depthWidth > 8192 || depthHeight > 8192) return DPX_ERR_ARGUMENT;
  // The reader bounds the range to +-4096 px and the scale is at most 8192 / 1: the products stay
  // below 2^26, far inside an int.
  float scale = float(depthWidth) / float(calib.mainWidth);
  int32_t dmin = int32_t(floorf(calib.minDisparity * scale));
  int32_t dmax = int32_t(ceilf(calib.maxDisparity * scale)) + 1;  // one more for the sub-pixel fit
  int32_t count = (dmax - dmin + 1 + 7) / 8 * 8;
  if (count < 8) count = 8;
  if (count > 512) return DPX_ERR_RANGE;
  StereoParams p;
  if (!stereo_params_default(&p, depthWidth, depthHeight, dmin, count, g_engine.quality)) return DPX_ERR_RANGE;
  if (!stereo_alloc(&g_engine.stereo, &p)) return DPX_ERR_MEMORY;
  size_t n = size_t(depthWidth) * size_t(depthHeight);
  g_engine.rectMain = static_cast<uint8_t*>(malloc(n));
  g_engine.rectSub = static_cast<uint8_t*>(malloc(n));
  g_engine.disparity = static_cast<int16_t*>(malloc(n * sizeof(int16_t)));
  if (!g_engine.rectMain || !g_engine.rectSub || !g_engine.disparity) {
    release();
    return DPX_ERR_MEMORY;
  }
  g_engine.calib = calib;
  g_engine.width = depthWidth;
  g_engine.height = depthHeight;
  scale_homography(calib.homographyMain, calib.mainWidth, calib.mainHeight, depthWidth, depthHeight, g_engine.hMain);
  scale_homography(calib.homographySub, calib.subWidth, calib.subHeight, depthWidth, depthHeight, g_engine.hSub);
  g_engine.warpMain = !is_identity(calib.homographyMain);
  g_engine.warpSub = !is_identity(calib.homographySub);
  g_engine.mirror = (calib.flags & CALIB_FLAG_SUB_LEFT) != 0;
  g_engine.ready = true;
  return DPX_OK;
}

DPX_EXPORT int32_t vmDpx2_Run_Express(uint16_t* depthOut, DpxImage* mainImage, DpxImage* subImage, int32_t vcmMain,
                                      int32_t vcmSub) {
  (void)vcmMain;  // lens positions do not change the rectification of the reference engine
  (void)vcmSub;
  if (!g_engine.ready) return DPX_ERR_STATE;
  if (depthOut == nullptr || mainImage == nullptr || subImage == nullptr || mainImage->plane[0] == nullptr ||
      subImage->plane[0] == nullptr || mainImage->format != DPX_IMAGE_FORMAT_YUV444_PLANAR ||
      subImage->format != DPX_IMAGE_FORMAT_YUV444_PLANAR)
    return DPX_ERR_ARGUMENT;
  const int32_t w = g_engine.width, h = g_engine.height;
  const uint8_t* left = mainImage->plane[0];
  const uint8_t* right = subImage->plane[0];
  if (g_engine.warpMain || g_engine.mirror) {
    stereo_warp_plane(left, w, h, g_engine.warpMain ? g_engine.hMain : nullptr, g_engine.mirror, g_engine.rectMain);
    left = g_engine.rectMain;
  }
  if (g_engine.warpSub || g_engine.mirror) {
    stereo_warp_plane(right, w, h, g_engine.warpSub ? g_engine.hSub : nullptr, g_engine.mirror, g_engine.rectSub);
    right = g_engine.rectSub;
  }
  stereo_run(&g_engine.stereo, left, w, right, w, g_engine.disparity);
  const int32_t s = g_engine.calib.disparityScale;
  // Branch-free, one loop per direction, so that the compiler vectorises the common one.
  auto sample = [s](int32_t v) {
    const int32_t q = (v * s + STEREO_SUBPIXEL / 2) / STEREO_SUBPIXEL;
    return uint16_t(v == STEREO_INVALID ? 1023 : q < 0 ? 0 : q > 1022 ? 1022 : q);
  };
  for (int32_t y = 0; y < h; ++y) {
    const int16_t* d = g_engine.disparity + size_t(y) * size_t(w);
    uint16_t* out = depthOut + size_t(y) * size_t(w);
    if (g_engine.mirror) {
      for (int32_t x = 0; x < w; ++x) out[x] = sample(d[w - 1 - x]);
    } else {
      for (int32_t x = 0; x < w; ++x) out[x] = sample(d[x]);
    }
  }
  return DPX_OK;
}

DPX_EXPORT int32_t vmDpx2_Express_Close(void) {
  release();
  return DPX_OK;
}
