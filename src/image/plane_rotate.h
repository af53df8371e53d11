// plane_rotate.h - 8-bit plane turns, 16-bit quarter turns of depth maps and aligned plane memory,
// each fast path with a plain pixel-by-pixel reference beside it.
#ifndef VMKTRRT_IMAGE_PLANE_ROTATE_H
#define VMKTRRT_IMAGE_PLANE_ROTATE_H

#include <cstddef>
#include <cstdint>

// Degree codes as the depth road passes them.
constexpr int32_t kRotate90 = 1;  // clockwise
constexpr int32_t kRotate180 = 2;
constexpr int32_t kRotate270 = 3;  // clockwise (= 90 counter-clockwise)

// 16-byte aligned block; null on exhaustion. Free with plane_free.
void* plane_alloc(size_t size);
void plane_free(void* block);

// Turns one 8-bit plane of srcWidth x srcHeight (rows srcStride bytes apart) into dst (rows
// dstStride bytes apart). For 90 and 270 the result is srcHeight wide and srcWidth tall. Any
// other degree code does nothing. Tiled for cache use.
void plane_rotate_u8(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride, uint8_t* dst,
                     int32_t dstStride, int32_t degree);
// The same, one pixel at a time: the reference the tiled path is tested against.
void plane_rotate_u8_reference(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride, uint8_t* dst,
                               int32_t dstStride, int32_t degree);

// Quarter turn of a 16-bit map of width x height samples (rows contiguous) into dst, which is
// height wide and width tall: kRotate90 clockwise, kRotate270 counter-clockwise; any other degree
// code, a null plane or a side that is not positive does nothing. Whole 8 x 8 blocks go through a
// register transpose (SSE2 or NEON where the target has them, plain code otherwise).
void plane_rotate_u16(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, int32_t degree);
// The same, one sample at a time: the reference the fast path is tested against.
void plane_rotate_u16_reference(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, int32_t degree);

#endif  // VMKTRRT_IMAGE_PLANE_ROTATE_H
