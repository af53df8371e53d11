// calib_block.cpp - reading, checking and writing the calibration block (little-endian fields).
#include "calib_block.h"

#include <math.h>
#include <string.h>

namespace {

// Field offsets of version 1.
enum {
  OFF_MAGIC = 0,
  OFF_VERSION = 4,
  OFF_RESERVED16 = 6,
  OFF_SIZE = 8,
  OFF_CHECKSUM = 12,
  OFF_MAIN_W = 16,
  OFF_MAIN_H = 20,
  OFF_SUB_W = 24,
  OFF_SUB_H = 28,
  OFF_H_MAIN = 32,
  OFF_H_SUB = 68,
  OFF_SCALE = 104,
  OFF_FLAGS = 106,
  OFF_MIN_D = 108,
  OFF_MAX_D = 112,
  OFF_FB = 116,
  OFF_END = 120,  // 120..127 reserved, zero
};
static_assert(OFF_END <= CALIB_BLOCK_SIZE, "calibration block fields overflow the block");

uint32_t get_u32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t get_u16(const uint8_t* p) {
  return uint16_t(p[0] | p[1] << 8);
}
float get_f32(const uint8_t* p) {
  uint32_t u = get_u32(p);
  float f;
  memcpy(&f, &u, 4);
  return f;
}
void put_u32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}
void put_u16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
void put_f32(uint8_t* p, float f) {
  uint32_t u;
  memcpy(&u, &f, 4);
  put_u32(p, u);
}

bool homography_ok(const float h[9]) {
  for (int i = 0; i < 9; ++i)
    if (!isfinite(h[i])) return false;
  double det = double(h[0]) * (double(h[4]) * h[8] - double(h[5]) * h[7]) -
               double(h[1]) * (double(h[3]) * h[8] - double(h[5]) * h[6]) +
               double(h[2]) * (double(h[3]) * h[7] - double(h[4]) * h[6]);
  return fabs(det) > 1e-9;
}

// w over a rectangle is affine, so it lies between its corner values; with w positive throughout,
// the image of the rectangle is the convex hull of its mapped corners. Checking the four corners
// of the pixel area therefore bounds every point the engines can ask for, at any depth size.
bool geometry_ok(const float h[9], int32_t width, int32_t height) {
  const double right = double(width) - 0.5, bottom = double(height) - 0.5;
  const double xs[2] = {-0.5, right}, ys[2] = {-0.5, bottom};
  const double loX = -0.5 - CALIB_MAX_REACH * double(width), hiX = right + CALIB_MAX_REACH * double(width);
  const double loY = -0.5 - CALIB_MAX_REACH * double(height), hiY = bottom + CALIB_MAX_REACH * double(height);
  for (double y : ys) {
    for (double x : xs) {
      const double w = double(h[6]) * x + double(h[7]) * y + double(h[8]);
      if (!(w >= CALIB_MIN_W && w <= CALIB_MAX_W)) return false;
      const double mx = (double(h[0]) * x + double(h[1]) * y + double(h[2])) / w;
      const double my = (double(h[3]) * x + double(h[4]) * y + double(h[5])) / w;
      if (!(mx >= loX && mx <= hiX && my >= loY && my <= hiY)) return false;
    }
  }
  return true;
}

bool fields_ok(const CalibBlock& b) {
  if (b.mainWidth < 1 || b.mainHeight < 1 || b.subWidth < 1 || b.subHeight < 1) return false;
  if (b.mainWidth > CALIB_MAX_DIMENSION || b.mainHeight > CALIB_MAX_DIMENSION || b.subWidth > CALIB_MAX_DIMENSION ||
      b.subHeight > CALIB_MAX_DIMENSION)
    return false;
  if (b.disparityScale < 1 || b.disparityScale > CALIB_MAX_SCALE) return false;
  if ((b.flags & ~uint16_t(CALIB_FLAG_SUB_LEFT)) != 0) return false;
  if (!isfinite(b.minDisparity) || !isfinite(b.maxDisparity) || !isfinite(b.focalBaseline)) return false;
  if (b.minDisparity < -CALIB_MAX_RANGE || b.maxDisparity > CALIB_MAX_RANGE) return false;
  if (!(b.maxDisparity > b.minDisparity) || b.maxDisparity - b.minDisparity > CALIB_MAX_RANGE) return false;
  if (b.focalBaseline < 0.0f) return false;
  return homography_ok(b.homographyMain) && homography_ok(b.homographySub);
}

// CALIB_OK, or the first reason a decoded block cannot be used.
int32_t check_fields(const CalibBlock& b) {
  if (!fields_ok(b)) return CALIB_ERR_VALUE;
  if (!geometry_ok(b.homographyMain, b.mainWidth, b.mainHeight) ||
      !geometry_ok(b.homographySub, b.subWidth, b.subHeight))
    return CALIB_ERR_GEOMETRY;
  return CALIB_OK;
}

}  // namespace

uint32_t calib_block_crc32(const uint8_t* data, size_t size) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void calib_block_defaults(CalibBlock* block, int32_t mainWidth, int32_t mainHeight, int32_t subWidth, int32_t subHeight,
                          float minDisparity, float maxDisparity) {
  memset(block, 0, sizeof(*block));
  block->mainWidth = mainWidth;
  block->mainHeight = mainHeight;
  block->subWidth = subWidth;
  block->subHeight = subHeight;
  for (int i = 0; i < 9; ++i) {
    block->homographyMain[i] = (i % 4 == 0) ? 1.0f : 0.0f;
    block->homographySub[i] = (i % 4 == 0) ? 1.0f : 0.0f;
  }
  block->disparityScale = 16;
  block->minDisparity = minDisparity;
  block->maxDisparity = maxDisparity;
}

int32_t calib_block_read(const uint8_t* data, size_t size, CalibBlock* out) {
  if (data == nullptr || size == 0 || out == nullptr) return CALIB_ERR_MISSING;
  if (size < OFF_CHECKSUM + 4) return CALIB_ERR_TRUNCATED;
  if (memcmp(data + OFF_MAGIC, CALIB_BLOCK_MAGIC, 4) != 0) return CALIB_ERR_MAGIC;
  if (get_u16(data + OFF_VERSION) != CALIB_BLOCK_VERSION) return CALIB_ERR_VERSION;
  uint32_t claimed = get_u32(data + OFF_SIZE);
  if (claimed != CALIB_BLOCK_SIZE) return CALIB_ERR_SIZE;
  if (size < claimed) return CALIB_ERR_TRUNCATED;

  uint8_t copy[CALIB_BLOCK_SIZE];
  memcpy(copy, data, CALIB_BLOCK_SIZE);
  uint32_t stored = get_u32(copy + OFF_CHECKSUM);
  put_u32(copy + OFF_CHECKSUM, 0);
  if (calib_block_crc32(copy, CALIB_BLOCK_SIZE) != stored) return CALIB_ERR_CHECKSUM;

  CalibBlock b;
  b.mainWidth = int32_t(get_u32(copy + OFF_MAIN_W));
  b.mainHeight = int32_t(get_u32(copy + OFF_MAIN_H));
  b.subWidth = int32_t(get_u32(copy + OFF_SUB_W));
  b.subHeight = int32_t(get_u32(copy + OFF_SUB_H));
  for (int i = 0; i < 9; ++i) {
    b.homographyMain[i] = get_f32(copy + OFF_H_MAIN + 4 * i);
    b.homographySub[i] = get_f32(copy + OFF_H_SUB + 4 * i);
  }
  b.disparityScale = get_u16(copy + OFF_SCALE);
  b.flags = get_u16(copy + OFF_FLAGS);
  b.minDisparity = get_f32(copy + OFF_MIN_D);
  b.maxDisparity = get_f32(copy + OFF_MAX_D);
  b.focalBaseline = get_f32(copy + OFF_FB);
  const int32_t r = check_fields(b);
  if (r != CALIB_OK) return r;
  *out = b;
  return CALIB_OK;
}

int32_t calib_block_write(const CalibBlock* block, uint8_t* out, size_t size) {
  if (block == nullptr || out == nullptr) return CALIB_ERR_MISSING;
  if (size < CALIB_BLOCK_SIZE) return CALIB_ERR_TRUNCATED;
  const int32_t r = check_fields(*block);
  if (r != CALIB_OK) return r;
  memset(out, 0, CALIB_BLOCK_SIZE);
  memcpy(out + OFF_MAGIC, CALIB_BLOCK_MAGIC, 4);
  put_u16(out + OFF_VERSION, CALIB_BLOCK_VERSION);
  put_u16(out + OFF_RESERVED16, 0);
  put_u32(out + OFF_SIZE, CALIB_BLOCK_SIZE);
  put_u32(out + OFF_MAIN_W, uint32_t(block->mainWidth));
  put_u32(out + OFF_MAIN_H, uint32_t(block->mainHeight));
  put_u32(out + OFF_SUB_W, uint32_t(block->subWidth));
  put_u32(out + OFF_SUB_H, uint32_t(block->subHeight));
  for (int i = 0; i < 9; ++i) {
    put_f32(out + OFF_H_MAIN + 4 * i, block->homographyMain[i]);
    put_f32(out + OFF_H_SUB + 4 * i, block->homographySub[i]);
  }
  put_u16(out + OFF_SCALE, block->disparityScale);
  put_u16(out + OFF_FLAGS, block->flags);
  put_f32(out + OFF_MIN_D, block->minDisparity);
  put_f32(out + OFF_MAX_D, block->maxDisparity);
  put_f32(out + OFF_FB, block->focalBaseline);
  put_u32(out + OFF_CHECKSUM, calib_block_crc32(out, CALIB_BLOCK_SIZE));
  return CALIB_OK;
}

bool calib_homography_apply(const float h[9], float x, float y, float* outX, float* outY) {
  const float w = h[6] * x + h[7] * y + h[8];
  if (!(fabsf(w) > 1e-12f)) return false;
  const float mx = (h[0] * x + h[1] * y + h[2]) / w, my = (h[3] * x + h[4] * y + h[5]) / w;
  if (!isfinite(mx) || !isfinite(my)) return false;
  *outX = mx;
  *outY = my;
  return true;
}
