// image_utility.h - plane scaling, expansion and turning for the depth road, 16-bit depth turns,
// and the chroma re-layout copy of the buffer manager. Plain functions on caller-owned memory;
// none keeps state.
#ifndef VMKTRRT_IMAGE_IMAGE_UTILITY_H
#define VMKTRRT_IMAGE_IMAGE_UTILITY_H

#include <cstddef>
#include <cstdint>

#include "image/plane_rotate.h"

// The depth road's NV12 preparation: image_utility_scale_plane on the luma,
// image_utility_expand_chroma on the chroma pairs (which start chromaRowStart rows of `stride`
// bytes into src), then image_utility_turn_plane of all three into dstPlane0..2 (luma, first
// chroma, second chroma). For quarter turns each destination plane is dstHeight wide and dstWidth
// tall. The planes are built in a work area of 3 x dstWidth x dstHeight bytes: the caller's
// scratch when it is given and large enough (the depth worker keeps one, so no frame allocates),
// else a block allocated for this call.
void image_utility_nv12_scale_rotate(const uint8_t* src, uint8_t* dstPlane0, uint8_t* dstPlane1, uint8_t* dstPlane2,
                                     int32_t srcWidth, int32_t srcHeight, int32_t stride, int32_t chromaRowStart,
                                     int32_t dstWidth, int32_t dstHeight, PlaneTurn turn, uint8_t* scratch,
                                     size_t scratchBytes);

// Scales an 8-bit plane to dstWidth x dstHeight by nearest sample on a 16.16 grid (step
// (srcSize << 16) / dstSize + 1, positions accumulated). Only the first dstWidth and dstHeight
// rounded down to 4 are sampled; the rest of dst is zeroed. False (nothing written) for a null
// plane, a size that is not positive or a stride shorter than its row.
bool image_utility_scale_plane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight, uint8_t* dst,
                               int32_t dstStride, int32_t dstWidth, int32_t dstHeight);

// Expands the interleaved chroma pairs of a srcWidth x srcHeight frame (((srcWidth + 1) / 2)
// pairs a row, rows srcStridePairs bytes apart) onto the same grid as image_utility_scale_plane at
// full resolution: each pair's first byte into dstFirst, its second into dstSecond, sampled at the
// grid's even rows and columns and repeated over the 2 x 2 block; the unsampled border is zeroed.
// False (nothing written) for the same bad arguments.
bool image_utility_expand_chroma(const uint8_t* srcPairs, int32_t srcStridePairs, int32_t srcWidth, int32_t srcHeight,
                                 uint8_t* dstFirst, int32_t dstStrideFirst, uint8_t* dstSecond, int32_t dstStrideSecond,
                                 int32_t dstWidth, int32_t dstHeight);

// Turns an 8-bit plane of srcWidth x srcHeight into dst (TURN_NONE copies it). False (nothing
// written) for the same bad arguments, dst's sides being the turned ones, or a value outside the
// enum.
bool image_utility_turn_plane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight, uint8_t* dst,
                              int32_t dstStride, PlaneTurn turn);

// Half turn of a 16-bit map in place.
void image_utility_rotate180(uint16_t* depth, int32_t width, int32_t height);

// 16-bit turn from src (width x height) into dst: quarter turns give a height-wide map; TURN_NONE
// and values outside the enum do nothing.
void image_utility_rotate(uint16_t* dst, const uint16_t* src, int32_t width, int32_t height, PlaneTurn turn);

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
