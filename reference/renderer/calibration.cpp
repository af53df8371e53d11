// calibration.cpp - the renderer's use of the reference engines' calibration block: it checks the
// block and takes the disparity scale S from it (docs/calibration_block.md).
#include "calib_block.h"
#include "renderer_internal.h"

int32_t renderer_read_calibration(const uint8_t* block, int32_t size, int32_t* disparityScale) {
  *disparityScale = kDefaultDisparityScale;
  if (block == nullptr && size == 0) return RGL_OK;  // no block: the default scale
  if (block == nullptr || size <= 0) return RGL_ERR_CALIBRATION;
  CalibBlock decoded;
  const int32_t r = calib_block_read(block, static_cast<size_t>(size), &decoded);
  if (r != CALIB_OK) return r;  // the block's own reason, passed on unchanged
  *disparityScale = decoded.disparityScale;
  return RGL_OK;
}
