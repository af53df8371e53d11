// plane_rotate.h - 8-bit plane turns, 16-bit quarter turns of depth maps and aligned plane memory,
// each fast path with a plain pixel-by-pixel reference beside it.
#ifndef VMKTRRT_IMAGE_PLANE_ROTATE_H
#define VMKTRRT_IMAGE_PLANE_ROTATE_H

#include <cstddef>
#include <cstdint>

// A turn of a plane, counted in clockwise quarter turns: the one encoding every turning function
// takes. A camera layout becomes a turn in plane_turn_from_layout and nowhere else.
enum PlaneTurn : int32_t {
  TURN_NONE = 0,
  TURN_QUARTER_CW = 1,
  TURN_HALF = 2,
  TURN_QUARTER_CCW = 3,
};

// The turn that brings a camera layout's frames into the depth engine's orientation: layout 2
// none, 3 a quarter turn clockwise, 4 counter-clockwise, any other value a half turn.
PlaneTurn plane_turn_from_layout(int32_t cameraLayout);
// The turn that undoes `turn` (values outside the enum come back as they are).
PlaneTurn plane_turn_inverse(PlaneTurn turn);
// Whether the turn swaps width and height.
inline bool plane_turn_is_quarter(PlaneTurn turn) {
  return turn == TURN_QUARTER_CW || turn == TURN_QUARTER_CCW;
}

// 16-byte aligned block; null on exhaustion. Free with plane_free.
void* plane_alloc(size_t size);
void plane_free(void* block);

// Turns one 8-bit plane of srcWidth x srcHeight (rows srcStride bytes apart) into dst (rows
// dstStride bytes apart). For quarter turns the result is srcHeight wide and srcWidth tall.
// TURN_NONE and values outside the enum do nothing. Tiled for cache use.
void plane_rotate_u8(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride, uint8_t* dst,
                     int32_t dstStride, PlaneTurn turn);
// The same, one pixel at a time: the reference the tiled path is tested against.
void plane_rotate_u8_reference(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride, uint8_t* dst,
                               int32_t dstStride, PlaneTurn turn);

// Quarter turn of a 16-bit map of width x height samples (rows contiguous) into dst, which is
// height wide and width tall: TURN_QUARTER_CW clockwise, TURN_QUARTER_CCW counter-clockwise; any other turn,
// a null plane or a side that is not positive does nothing. Whole 8 x 8 blocks go through a
// register transpose (SSE2 or NEON where the target has them, plain code otherwise).
void plane_rotate_u16(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, PlaneTurn turn);
// The same, one sample at a time: the reference the fast path is tested against.
void plane_rotate_u16_reference(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, PlaneTurn turn);

#endif  // VMKTRRT_IMAGE_PLANE_ROTATE_H
