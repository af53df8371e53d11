// image_utility.h - plane scaling, expansion and turning for the depth road, 16-bit depth turns,
// and the chroma re-layout copy of the buffer manager. Plain functions on caller-owned memory;
// none keeps state.
#ifndef VMKTRRT_IMAGE_IMAGE_UTILITY_H
#define VMKTRRT_IMAGE_IMAGE_UTILITY_H

#include <cstddef>
#include <cstdint>

// Rotation codes (the depth road passes the camera layout): 1 half turn, 2 none, 3 quarter turn
// clockwise, 4 quarter turn counter-clockwise; any other value is a half turn.
// Scales an NV12 frame to dstWidth x dstHeight by nearest sample on a 16.16 grid, expands it
// to three full-resolution planes (luma, first chroma, second chroma) and turns them. Only the
// first dstWidth and dstHeight rounded down to 4 are sampled; the rest of each plane is zero.
// For codes 3 and 4 each destination plane is dstHeight wide and dstWidth tall.
// The planes are built in a work area of 3 x dstWidth x dstHeight bytes: the caller's scratch
// when it is given and large enough (the depth worker keeps one, so no frame allocates), else
// a block allocated for this call.
void image_utility_nv12_scale_rotate(const uint8_t* src, uint8_t* dstPlane0, uint8_t* dstPlane1, uint8_t* dstPlane2,
                                     int32_t srcWidth, int32_t srcHeight, int32_t stride, int32_t chromaRowStart,
                                     int32_t dstWidth, int32_t dstHeight, int32_t rotationCode,
                                     uint8_t* scratch = nullptr, size_t scratchBytes = 0);

// Half turn of a 16-bit map in place.
void image_utility_rotate180(uint16_t* depth, int32_t width, int32_t height);

// 16-bit turn from src (width x height) into dst: direction 0 clockwise, 1 counter-clockwise
// (both give a height-wide map), 2 half turn; any other direction does nothing.
void image_utility_rotate(uint16_t* dst, const uint16_t* src, int32_t width, int32_t height, int32_t direction);

// Copies width x height luma unchanged and re-lays the chroma: destination row y (of width
// rounded down to even bytes), pair k takes the source pair at (k rounded down to even) +
// (y >> 2) x 2 x width.
void image_utility_copy_nv12_rechroma(uint8_t* dstLuma, uint8_t* dstChroma, const uint8_t* srcLuma,
                                      const uint8_t* srcChroma, int32_t width, int32_t height);

// Chroma bytes image_utility_copy_nv12_rechroma reads: within width x height / 2 (one NV12
// chroma plane) for even sizes.
int64_t image_utility_rechroma_chroma_read_bytes(int32_t width, int32_t height);

// Bytes image_utility_copy_nv12_rechroma writes in all (luma and chroma).
int64_t image_utility_rechroma_output_bytes(int32_t width, int32_t height);

#endif  // VMKTRRT_IMAGE_IMAGE_UTILITY_H
