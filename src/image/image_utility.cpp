// image_utility.cpp - NV12 scale-expand-turn, 16-bit turns, chroma re-layout copy.
#include "image/image_utility.h"

#include <algorithm>
#include <cstring>

#include "debug/debug_log.h"
#include "image/plane_rotate.h"
#include "memory/heap.h"

void image_utility_nv12_scale_rotate(const uint8_t* src, uint8_t* dstPlane0, uint8_t* dstPlane1, uint8_t* dstPlane2,
                                     int32_t srcWidth, int32_t srcHeight, int32_t stride, int32_t chromaRowStart,
                                     int32_t dstWidth, int32_t dstHeight, int32_t rotationCode, uint8_t* scratch,
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
  uint8_t* t0 = block;
  uint8_t* t1 = block + planeBytes;
  uint8_t* t2 = block + 2 * planeBytes;

  // 16.16 steps; the extra 1/65536 per step is part of the sampling grid.
  const int32_t stepX = static_cast<int32_t>((static_cast<int64_t>(srcWidth) << 16) / dstWidth) + 1;
  const int32_t stepY = static_cast<int32_t>((static_cast<int64_t>(srcHeight) << 16) / dstHeight) + 1;
  const int32_t rows = dstHeight & ~3;
  const int32_t cols = dstWidth & ~3;
  // Upscaling by a large factor can carry the grid one sample past the last row or column:
  // such positions repeat the edge sample instead of reading outside the frame.
  const int32_t lastX = srcWidth - 1;
  const int32_t lastY = srcHeight - 1;
  const int32_t lastPair = (srcWidth - 1) >> 1;
  const int32_t chromaStride = (stride + 1) & ~1;

  // Positions are accumulated, not multiplied, exactly as the grid is defined.
  int64_t posY = 0;
  for (int32_t r = 0; r < rows; ++r, posY += stepY) {
    const int32_t sy = std::min(static_cast<int32_t>(posY >> 16), lastY);
    const uint8_t* luma = src + static_cast<size_t>(sy) * static_cast<size_t>(stride);
    uint8_t* o0 = t0 + static_cast<size_t>(r) * static_cast<size_t>(dstWidth);
    int64_t posX = 0;
    for (int32_t c = 0; c < cols; c += 4) {
      o0[c] = luma[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      o0[c + 1] = luma[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      o0[c + 2] = luma[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
      o0[c + 3] = luma[std::min(static_cast<int32_t>(posX >> 16), lastX)];
      posX += stepX;
    }
    if ((r & 1) != 0) continue;
    // Chroma only on even rows and columns, replicated over the 2 x 2 block.
    // Chroma rows hold ((w + 1) / 2) pairs: one byte more than the luma row when it is odd.
    const int32_t chromaRow = std::min(static_cast<int32_t>(posY >> 17), lastY >> 1);
    const uint8_t* chroma = src + static_cast<size_t>(chromaRowStart) * static_cast<size_t>(stride) +
                            static_cast<size_t>(chromaRow) * static_cast<size_t>(chromaStride);
    uint8_t* a1 = t1 + static_cast<size_t>(r) * static_cast<size_t>(dstWidth);
    uint8_t* a2 = t2 + static_cast<size_t>(r) * static_cast<size_t>(dstWidth);
    uint8_t* b1 = a1 + dstWidth;
    uint8_t* b2 = a2 + dstWidth;
    posX = 0;
    for (int32_t c = 0; c < cols; c += 2, posX += 2 * static_cast<int64_t>(stepX)) {
      const int32_t pair = std::min(static_cast<int32_t>(posX >> 17), lastPair);
      const uint8_t u = chroma[2 * pair];
      const uint8_t v = chroma[2 * pair + 1];
      a1[c] = a1[c + 1] = b1[c] = b1[c + 1] = u;
      a2[c] = a2[c + 1] = b2[c] = b2[c + 1] = v;
    }
  }
  // The unsampled border is left to the implementation: zero it so results are reproducible.
  for (uint8_t* t : {t0, t1, t2}) {
    for (int32_t r = 0; r < rows; ++r)
      memset(t + static_cast<size_t>(r) * static_cast<size_t>(dstWidth) + cols, 0,
             static_cast<size_t>(dstWidth - cols));
    memset(t + static_cast<size_t>(rows) * static_cast<size_t>(dstWidth), 0,
           static_cast<size_t>(dstHeight - rows) * static_cast<size_t>(dstWidth));
  }

  uint8_t* dst[3] = {dstPlane0, dstPlane1, dstPlane2};
  const uint8_t* tmp[3] = {t0, t1, t2};
  for (int p = 0; p < 3; ++p) {
    switch (rotationCode) {
      case 2:
        memcpy(dst[p], tmp[p], planeBytes);
        break;
      case 3:
        plane_rotate_u8(tmp[p], dstWidth, dstHeight, dstWidth, dst[p], dstHeight, kRotate90);
        break;
      case 4:
        plane_rotate_u8(tmp[p], dstWidth, dstHeight, dstWidth, dst[p], dstHeight, kRotate270);
        break;
      default:
        plane_rotate_u8(tmp[p], dstWidth, dstHeight, dstWidth, dst[p], dstWidth, kRotate180);
        break;
    }
  }
  if (own) plane_free(block);
}

void image_utility_rotate180(uint16_t* depth, int32_t width, int32_t height) {
  if (depth == nullptr || width <= 0 || height <= 0) return;
  // Reversing the samples in place gives the same map as going through the scratch and back.
  std::reverse(depth, depth + static_cast<size_t>(width) * static_cast<size_t>(height));
}

void image_utility_rotate(uint16_t* dst, const uint16_t* src, int32_t width, int32_t height, int32_t direction) {
  if (dst == nullptr || src == nullptr || width <= 0 || height <= 0) return;
  switch (direction) {
    case 0:  // clockwise: (y, x) -> row x, column h-1-y
      plane_rotate_u16(src, width, height, dst, kRotate90);
      break;
    case 1:  // counter-clockwise: (y, x) -> row w-1-x, column y
      plane_rotate_u16(src, width, height, dst, kRotate270);
      break;
    case 2:
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
