// stereo_run.cpp - one run of the stereo depth engine on a rectified pair (see stereo_run.h).
#include "stereo_run.h"

#include <math.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>

#include "calib_block.h"
#include "engines.h"

namespace {

double now_ms() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return double(t.tv_sec) * 1000.0 + double(t.tv_nsec) / 1e6;
}

}  // namespace

void to_planes(const Image8& im, std::vector<uint8_t>* planes) {
  size_t n = size_t(im.width) * size_t(im.height);
  planes->resize(3 * n);
  for (size_t i = 0; i < n; ++i) {
    float r, g, b;
    if (im.channels == 3) {
      r = im.data[3 * i], g = im.data[3 * i + 1], b = im.data[3 * i + 2];
    } else {
      r = g = b = im.data[i];
    }
    auto byte = [](float v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v + 0.5f); };
    (*planes)[i] = byte(0.299f * r + 0.587f * g + 0.114f * b);
    (*planes)[n + i] = byte(128.0f - 0.168736f * r - 0.331264f * g + 0.5f * b);
    (*planes)[2 * n + i] = byte(128.0f + 0.5f * r - 0.418688f * g - 0.081312f * b);
  }
}

bool run_engine(const Image8& left, const Image8& right, float dmin, float dmax, int32_t quality, ImageF* disp,
                double* ms, std::string* error) {
  const int32_t w = left.width, h = left.height;
  // A flat truth (one plane) still needs a range of at least a pixel.
  dmin = floorf(dmin);
  dmax = std::max(ceilf(dmax), dmin + 1.0f);
  CalibBlock cb;
  calib_block_defaults(&cb, w, h, w, h, dmin, dmax);
  int32_t scale = int32_t(1022.0f / (dmax + 2.0f));
  cb.disparityScale = uint16_t(std::max(1, std::min(16, scale)));
  uint8_t block[CALIB_BLOCK_SIZE];
  if (calib_block_write(&cb, block, sizeof(block)) != CALIB_OK) {
    *error = "the calibration block refused the range " + std::to_string(dmin) + ".." + std::to_string(dmax);
    return false;
  }
  std::vector<uint8_t> lp, rp;
  to_planes(left, &lp);
  to_planes(right, &rp);
  size_t n = size_t(w) * size_t(h);
  DpxImage mainImage = {DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {lp.data(), lp.data() + n, lp.data() + 2 * n}};
  DpxImage subImage = {DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {rp.data(), rp.data() + n, rp.data() + 2 * n}};
  vmDpx2_CameraLayout_Set_LV(2);
  vmDpx2RT_FieldofDepth_Set(quality);
  int32_t r = vmDpx2_Express_Init(block, sizeof(block), w, h, nullptr, 0);
  if (r != 0) {
    char text[96];
    snprintf(text, sizeof(text), "vmDpx2_Express_Init refused %dx%d, disparity %.0f..%.0f: %x", w, h, double(dmin),
             double(dmax), unsigned(r));
    *error = text;
    return false;
  }
  std::vector<uint16_t> out(n);
  double t0 = now_ms();
  r = vmDpx2_Run_Express(out.data(), &mainImage, &subImage, 0, 0);
  *ms = now_ms() - t0;
  vmDpx2_Express_Close();
  if (r != 0) {
    char text[64];
    snprintf(text, sizeof(text), "vmDpx2_Run_Express failed: %x", unsigned(r));
    *error = text;
    return false;
  }
  disp->width = w;
  disp->height = h;
  disp->data.resize(n);
  for (size_t i = 0; i < n; ++i) disp->data[i] = out[i] >= 1023 ? INFINITY : float(out[i]) / float(cb.disparityScale);
  return true;
}
