// image_utility.cpp - NV12 scale-expand-turn, 16-bit turns, chroma re-layout copy.
#include "image/image_utility.h"

#include <algorithm>
#include <cstring>

#include "debug/debug_log.h"
#include "image/plane_rotate.h"
#include "memory/heap.h"

void image_utility_nv12_scale_rotate(const uint8_t* src, uint8_t* dstPlane0, uint8_t* dstPlane1, uint8_t* dstPlane2,
                                     int32_t srcWidth, int32_t srcHeight, int32_t stride, int32_t chromaRowStart,
                                     int32_t dstWidth, int32_t dstHeight, PlaneTurn turn, uint8_t* scratch,
                                     size_t scratchBytes) {
  // Sizes come from initialisation, which refuses these; still, never divide by zero or index
  // a plane with a negative size.
  if (src == nullptr || dstPlane0 == nullptr || dstPlane1 == nullptr || dstPlane2 == nullptr || srcWidth <= 0 ||
      srcHeight <= 0 || stride < srcWidth || chromaRowStart < 0 || dstWidth <= 0 || dstHeight <= 0) {
    VM_LOG("ERROR: scale src[%dx%d] stride[%d] dst[%dx%d]\n", srcWidth, srcHeight, stride, dstWidth, dstHeight);
    return;
  }
  const size_t planeBytes = static_cast<size_t>(dstWidth) * static_cast<size_t>(dstHeight);
  const bool own = scratch == nullptr || scratchBytes < 3 * planeBytes;
  uint8_t* block = own ? static_cast<uint8_t*>(plane_alloc(3 * planeBytes)) : scratch;
  if (block == nullptr) {
    VM_LOG("ERROR: Alloc [%zu]\n", 3 * planeBytes);
    return;
  }
  // The work area: the scaled luma and the two chroma channels expanded to full resolution,
  // each dstWidth x dstHeight, before they are turned into place.
  uint8_t* scaledLuma = block;
  uint8_t* expandedFirst = block + planeBytes;
  uint8_t* expandedSecond = block + 2 * planeBytes;
  image_utility_scale_plane(src, stride, srcWidth, srcHeight, scaledLuma, dstWidth, dstWidth, dstHeight);
  // Chroma rows hold ((w + 1) / 2) pairs: one byte more than the luma row when it is odd.
  const int32_t chromaStride = (stride + 1) & ~1;
  image_utility_expand_chroma(src + static_cast<size_t>(chromaRowStart) * static_cast<size_t>(stride), chromaStride,
                              srcWidth, srcHeight, expandedFirst, dstWidth, expandedSecond, dstWidth, dstWidth,
                              dstHeight);
  const int32_t turnedStride = plane_turn_is_quarter(turn) ? dstHeight : dstWidth;
  image_utility_turn_plane(scaledLuma, dstWidth, dstWidth, dstHeight, dstPlane0, turnedStride, turn);
  image_utility_turn_plane(expandedFirst, dstWidth, dstWidth, dstHeight, dstPlane1, turnedStride, turn);
  image_utility_turn_plane(expandedSecond, dstWidth, dstWidth, dstHeight, dstPlane2, turnedStride, turn);
  if (own) plane_free(block);
}

namespace {

// 16.16 step of the sampling grid; the extra 1/65536 per step is part of the grid.
int32_t grid_step(int32_t srcSize, int32_t dstSize) {
  return static_cast<int32_t>((static_cast<int64_t>(srcSize) << 16) / dstSize) + 1;
}

// The unsampled border (columns from cols, rows from rows) is left to the implementation: zero
// it so results are reproducible.
void zero_border(uint8_t* dst, int32_t dstStride, int32_t dstWidth, int32_t dstHeight, int32_t cols, int32_t rows) {
  for (int32_t r = 0; r < rows; ++r)
    memset(dst + static_cast<size_t>(r) * static_cast<size_t>(dstStride) + cols, 0,
           static_cast<size_t>(dstWidth - cols));
  for (int32_t r = rows; r < dstHeight; ++r)
    memset(dst + static_cast<size_t>(r) * static_cast<size_t>(dstStride), 0, static_cast<size_t>(dstWidth));
}

bool plane_sizes_valid(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight, const uint8_t* dst,
                       int32_t dstStride, int32_t dstWidth, int32_t dstHeight) {
  return src != nullptr && dst != nullptr && srcWidth > 0 && srcHeight > 0 && srcStride >= srcWidth && dstWidth > 0 &&
         dstHeight > 0 && dstStride >= dstWidth;
}

}  // namespace

bool image_utility_scale_plane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight, uint8_t* dst,
                               int32_t dstStride, int32_t dstWidth, int32_t dstHeight) {
  if (!plane_sizes_valid(src, srcStride, srcWidth, srcHeight, dst, dstStride, dstWidth, dstHeight)) return false;
  const int32_t stepX = grid_step(srcWidth, dstWidth);
  const int32_t stepY = grid_step(srcHeight, dstHeight);
  const int32_t rows = dstHeight & ~3;
  const int32_t cols = dstWidth & ~3;
  // Upscaling by a large factor can carry the grid one sample past the last row or column:
  // such positions repeat the edge sample instead of reading outside the frame.
  const int32_t lastX = srcWidth - 1;
  const int32_t lastY = srcHeight - 1;
  // Positions are accumulated, not multiplied, exactly as the grid is defined.
  int64_t posY = 0;
  for (int32_t r = 0; r < rows; ++r, posY += stepY) {
    const int32_t sy = std::min(static_cast<int32_t>(posY >> 16), lastY);
    const uint8_t* srcRow = src + static_cast<size_t>(sy) * static_cast<size_t>(srcStride);
    uint8_t* dstRow = dst + static_cast<size_t>(r) * static_cast<size_t>(dstStride);
    int64_t posX = 0;
    for (int32_t c = 0; c < cols; c += 4) {
      dstRow[c] = srcRow[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      dstRow[c + 1] = srcRow[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      dstRow[c + 2] = srcRow[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      dstRow[c + 3] = srcRow[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
    }
  }
  zero_border(dst, dstStride, dstWidth, dstHeight, cols, rows);
  return true;
}

bool image_utility_expand_chroma(const uint8_t* srcPairs, int32_t srcStridePairs, int32_t srcWidth, int32_t srcHeight,
                                 uint8_t* dstFirst, int32_t dstStrideFirst, uint8_t* dstSecond, int32_t dstStrideSecond,
                                 int32_t dstWidth, int32_t dstHeight) {
  if (!plane_sizes_valid(srcPairs, srcStridePairs, (srcWidth + 1) & ~1, (srcHeight + 1) / 2, dstFirst, dstStrideFirst,
                         dstWidth, dstHeight) ||
      dstSecond == nullptr || dstStrideSecond < dstWidth)
    return false;
  const int32_t stepX = grid_step(srcWidth, dstWidth);
  const int32_t stepY = grid_step(srcHeight, dstHeight);
  const int32_t rows = dstHeight & ~3;
  const int32_t cols = dstWidth & ~3;
  const int32_t lastY = srcHeight - 1;
  const int32_t lastPair = (srcWidth - 1) >> 1;
  // Chroma only on even rows and columns of the luma grid, replicated over the 2 x 2 block.
  int64_t posY = 0;
  for (int32_t r = 0; r < rows; r += 2, posY += 2 * static_cast<int64_t>(stepY)) {
    const int32_t pairRow = std::min(static_cast<int32_t>(posY >> 17), lastY >> 1);
    const uint8_t* pairs = srcPairs + static_cast<size_t>(pairRow) * static_cast<size_t>(srcStridePairs);
    uint8_t* a1 = dstFirst + static_cast<size_t>(r) * static_cast<size_t>(dstStrideFirst);
    uint8_t* a2 = dstSecond + static_cast<size_t>(r) * static_cast<size_t>(dstStrideSecond);
    uint8_t* b1 = a1 + dstStrideFirst;
    uint8_t* b2 = a2 + dstStrideSecond;
    int64_t posX = 0;
    for (int32_t c = 0; c < cols; c += 2, posX += 2 * static_cast<int64_t>(stepX)) {
      const int32_t pair = std::min(static_cast<int32_t>(posX >> 17), lastPair);
      const uint8_t first = pairs[2 * pair];
      const uint8_t second = pairs[2 * pair + 1];
      a1[c] = a1[c + 1] = b1[c] = b1[c + 1] = first;
      a2[c] = a2[c + 1] = b2[c] = b2[c + 1] = second;
    }
  }
  zero_border(dstFirst, dstStrideFirst, dstWidth, dstHeight, cols, rows);
  zero_border(dstSecond, dstStrideSecond, dstWidth, dstHeight, cols, rows);
  return true;
}

bool image_utility_turn_plane(const uint8_t* src, int32_t srcStride, int32_t srcWidth, int32_t srcHeight, uint8_t* dst,
                              int32_t dstStride, PlaneTurn turn) {
  const bool quarter = plane_turn_is_quarter(turn);
  if (!plane_sizes_valid(src, srcStride, srcWidth, srcHeight, dst, dstStride, quarter ? srcHeight : srcWidth,
                         quarter ? srcWidth : srcHeight))
    return false;
  switch (turn) {
    case TURN_NONE:
      for (int32_t r = 0; r < srcHeight; ++r)
        memcpy(dst + static_cast<size_t>(r) * static_cast<size_t>(dstStride),
               src + static_cast<size_t>(r) * static_cast<size_t>(srcStride), static_cast<size_t>(srcWidth));
      break;
    case TURN_QUARTER_CW:
    case TURN_QUARTER_CCW:
    case TURN_HALF:
      plane_rotate_u8(src, srcWidth, srcHeight, srcStride, dst, dstStride, turn);
      break;
    default:
      return false;
  }
  return true;
}

void image_utility_rotate180(uint16_t* depth, int32_t width, int32_t height) {
  if (depth == nullptr || width <= 0 || height <= 0) return;
  // Reversing the samples in place gives the same map as going through the scratch and back.
  std::reverse(depth, depth + static_cast<size_t>(width) * static_cast<size_t>(height));
}

void image_utility_rotate(uint16_t* dst, const uint16_t* src, int32_t width, int32_t height, PlaneTurn turn) {
  if (dst == nullptr || src == nullptr || width <= 0 || height <= 0) return;
  switch (turn) {
    case TURN_QUARTER_CW:   // (y, x) -> row x, column h-1-y
    case TURN_QUARTER_CCW:  // (y, x) -> row w-1-x, column y
      plane_rotate_u16(src, width, height, dst, turn);
      break;
    case TURN_HALF:
      std::reverse_copy(src, src + static_cast<size_t>(width) * static_cast<size_t>(height), dst);
      break;
    default:
      break;
  }
}

void image_utility_copy_nv12_rechroma(uint8_t* dstLuma, uint8_t* dstChroma, const uint8_t* srcLuma,
                                      const uint8_t* srcChroma, int32_t width, int32_t height) {
  if (dstLuma == nullptr || dstChroma == nullptr || srcLuma == nullptr || srcChroma == nullptr || width <= 0 ||
      height <= 0)
    return;
  const size_t w = static_cast<size_t>(width);
  memcpy(dstLuma, srcLuma, w * static_cast<size_t>(height));
  const size_t rowBytes = w & ~static_cast<size_t>(1);
  const size_t pairs = w / 2;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* s = srcChroma + static_cast<size_t>(y >> 2) * 2 * w;
    uint8_t* d = dstChroma + static_cast<size_t>(y) * rowBytes;
    // Pairs k and k + 1 (k even) both take the source pair at k: one 16-bit value written twice.
    size_t k = 0;
    for (; k + 1 < pairs; k += 2) {
      uint16_t v;
      memcpy(&v, s + k, 2);
      memcpy(d + 2 * k, &v, 2);
      memcpy(d + 2 * k + 2, &v, 2);
    }
    if (k < pairs) {
      d[2 * k] = s[k];
      d[2 * k + 1] = s[k + 1];
    }
  }
}

int64_t image_utility_rechroma_chroma_read_bytes(int32_t width, int32_t height) {
  if (width < 2 || height <= 0) return 0;
  const int64_t lastPair = ((width / 2 - 1) & ~1);
  return static_cast<int64_t>((height - 1) >> 2) * 2 * width + lastPair + 2;
}

int64_t image_utility_rechroma_output_bytes(int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) return 0;
  return static_cast<int64_t>(width) * height + static_cast<int64_t>(height) * (width & ~1);
}
