// calib_block.h - the reference engines' calibration block: a versioned, checksummed binary record
// with each camera's calibration resolution and rectifying homography, the disparity scale and
// search range, and optionally focal length x baseline. Layout and rules: docs/calibration_block.md.
#ifndef VM_CALIB_BLOCK_H
#define VM_CALIB_BLOCK_H

#include <stddef.h>
#include <stdint.h>

#define CALIB_BLOCK_MAGIC "VMCB"
#define CALIB_BLOCK_VERSION 1
#define CALIB_BLOCK_SIZE 128
#define CALIB_MAX_DIMENSION 16384
#define CALIB_MAX_SCALE 64
#define CALIB_MAX_RANGE 4096.0f
// Usable homographies: over the whole image area at calibration resolution (pixel edges
// -0.5 .. size - 0.5) the denominator w stays within [CALIB_MIN_W, CALIB_MAX_W] and every pixel
// maps at most CALIB_MAX_REACH image sizes outside the image, so the engines' float arithmetic
// stays finite and no coordinate is beyond what an int holds.
#define CALIB_MIN_W 1e-3
#define CALIB_MAX_W 1e3
#define CALIB_MAX_REACH 2

// Result codes of calib_block_read. Engines pass them on from their init call.
enum CalibResult {
  CALIB_OK = 0,
  CALIB_ERR_MISSING = 0x601,    // null pointer or no bytes
  CALIB_ERR_TRUNCATED = 0x602,  // fewer bytes than the header or than the block claims
  CALIB_ERR_MAGIC = 0x603,
  CALIB_ERR_VERSION = 0x604,
  CALIB_ERR_SIZE = 0x605,  // size field is not the version's block size
  CALIB_ERR_CHECKSUM = 0x606,
  CALIB_ERR_VALUE = 0x607,     // a field out of its range (sizes, scale, homography, range)
  CALIB_ERR_GEOMETRY = 0x608,  // a homography whose w or mapped corners leave the usable range
};

// Flag bits.
#define CALIB_FLAG_SUB_LEFT 0x1  // the sub camera sits left of the main camera

struct CalibBlock {
  int32_t mainWidth, mainHeight;  // calibration resolution of the main camera
  int32_t subWidth, subHeight;    // calibration resolution of the sub camera
  // Row-major 3x3 maps from a rectified pixel to the same camera's raw pixel, both at that
  // camera's calibration resolution. Identity for input that is already rectified.
  float homographyMain[9];
  float homographySub[9];
  uint16_t disparityScale;  // S: depth samples per pixel of disparity (16 by default)
  uint16_t flags;           // CALIB_FLAG_*
  float minDisparity;       // search range in pixels at the main calibration resolution
  float maxDisparity;
  float focalBaseline;  // focal length (main calibration pixels) x baseline (mm); 0 = unknown
};

// A block with identity homographies, S = 16 and the given sizes and search range.
void calib_block_defaults(CalibBlock* block, int32_t mainWidth, int32_t mainHeight, int32_t subWidth, int32_t subHeight,
                          float minDisparity, float maxDisparity);

// Checks and decodes `size` bytes at `data`. Never reads past `size` bytes; bytes beyond the
// block's own size are ignored. Returns CALIB_OK or a CalibResult code; `out` is written only on
// success.
int32_t calib_block_read(const uint8_t* data, size_t size, CalibBlock* out);

// Checks the fields (as the reader does) and encodes them into `out` (at least CALIB_BLOCK_SIZE
// bytes). Returns CALIB_OK or CALIB_ERR_VALUE / CALIB_ERR_GEOMETRY / CALIB_ERR_MISSING /
// CALIB_ERR_TRUNCATED.
int32_t calib_block_write(const CalibBlock* block, uint8_t* out, size_t size);

// CRC-32 (IEEE, reflected) of `size` bytes.
uint32_t calib_block_crc32(const uint8_t* data, size_t size);

// Applies a homography to a point; false when the point maps to infinity or to a non-finite value.
bool calib_homography_apply(const float h[9], float x, float y, float* outX, float* outY);

#endif  // VM_CALIB_BLOCK_H
