// gl_reference.cpp - CPU references of the GPU passes.
#include "gl/gl_reference.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "debug/debug_log.h"
#include "gl/gl_context.h"

namespace {

constexpr float kTapWeights[5] = {0.2992067f, 0.2258531f, 0.0971382f, 0.0238047f, 0.0033239f};
constexpr float kMaskCentre = 0.408076f;
constexpr float kMaskEdge = 0.1209855f;
constexpr float kMaskCorner = 0.0269955f;

// The largest side the passes accept; keeps every byte count within 32 bits.
constexpr int32_t kMaxSide = 16384;

bool sizeUsable(int32_t width, int32_t height) {
  return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide;
}

// A normalised value written to an 8-bit colour buffer: clamped, rounded to nearest.
uint8_t toUnorm8(float v) {
  if (!(v > 0.0f)) return 0;
  if (v >= 1.0f) return 255;
  return static_cast<uint8_t>(v * 255.0f + 0.5f);
}

int32_t clampIndex(int32_t i, int32_t n) {
  return i < 0 ? 0 : (i >= n ? n - 1 : i);
}

// Sample of one channel at texel-centre position c + half/2 along a row or column of n texels
// (element step `step` bytes), linear filtering between neighbours, edges clamped.
float sampleHalf(const uint8_t* line, int32_t n, int32_t step, int32_t c, int32_t halfSteps) {
  // Position in texel units: c + halfSteps / 2. Whole steps hit one texel; odd ones average two.
  int32_t lower = c + (halfSteps >= 0 ? halfSteps / 2 : -((-halfSteps + 1) / 2));
  float a = line[static_cast<ptrdiff_t>(clampIndex(lower, n)) * step] / 255.0f;
  if ((halfSteps & 1) == 0) return a;
  float b = line[static_cast<ptrdiff_t>(clampIndex(lower + 1, n)) * step] / 255.0f;
  return 0.5f * (a + b);
}

// Nine-tap blur along one direction: lines of n texels, `step` bytes between texels and `pitch`
// bytes between lines.
void gauss1d(const uint8_t* src, uint8_t* dst, int32_t lines, int32_t n, int32_t step, int32_t pitch) {
  for (int32_t l = 0; l < lines; ++l) {
    for (int32_t ch = 0; ch < 4; ++ch) {
      const uint8_t* line = src + static_cast<ptrdiff_t>(l) * pitch + ch;
      uint8_t* out = dst + static_cast<ptrdiff_t>(l) * pitch + ch;
      for (int32_t c = 0; c < n; ++c) {
        float sum = kTapWeights[0] * sampleHalf(line, n, step, c, 0);
        for (int32_t k = 1; k <= 4; ++k)
          sum += kTapWeights[k] * (sampleHalf(line, n, step, c, -k) + sampleHalf(line, n, step, c, k));
        out[static_cast<ptrdiff_t>(c) * step] = toUnorm8(sum);
      }
    }
  }
}

}  // namespace

uint32_t gl_reference_nv21_to_rgba(const uint8_t* nv21, int32_t width, int32_t height, uint8_t* rgba) {
  if (nv21 == nullptr || rgba == nullptr || !sizeUsable(width, height) || (width & 1) != 0 || (height & 1) != 0) {
    VM_LOG_IF(kLogGl, "NV21 frame %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  const uint8_t* vuPlane = nv21 + static_cast<size_t>(width) * static_cast<size_t>(height);
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* luma = nv21 + static_cast<size_t>(width) * static_cast<size_t>(y);
    const uint8_t* vu = vuPlane + static_cast<size_t>(width) * static_cast<size_t>(y / 2);
    uint8_t* out = rgba + static_cast<size_t>(width) * 4 * static_cast<size_t>(y);
    for (int32_t x = 0; x < width; ++x) {
      float yy = luma[x] / 255.0f;
      float v = vu[x & ~1] / 255.0f - 0.5f;
      float u = vu[(x & ~1) + 1] / 255.0f - 0.5f;
      out[4 * x] = toUnorm8(yy + 1.40200f * v);
      out[4 * x + 1] = toUnorm8(yy - 0.34414f * u - 0.71414f * v);
      out[4 * x + 2] = toUnorm8(yy + 1.77200f * u);
      out[4 * x + 3] = 255;
    }
  }
  return kGlOk;
}

uint32_t gl_reference_gauss_x(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out) {
  if (rgba == nullptr || out == nullptr || rgba == out || !sizeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "blur %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  gauss1d(rgba, out, height, width, 4, width * 4);
  return kGlOk;
}

uint32_t gl_reference_gauss_y(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out) {
  if (rgba == nullptr || out == nullptr || rgba == out || !sizeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "blur %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  // Columns are the lines: texels one row apart, lines one pixel apart.
  gauss1d(rgba, out, width, height, width * 4, 4);
  return kGlOk;
}

uint32_t gl_reference_gauss_mask(const uint8_t* rgba, int32_t width, int32_t height, uint8_t* out) {
  if (rgba == nullptr || out == nullptr || rgba == out || !sizeUsable(width, height)) {
    VM_LOG_IF(kLogGl, "mask %dx%d invalid\n", width, height);
    return kGlErrArgument;
  }
  const size_t pitch = static_cast<size_t>(width) * 4;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* rows[3] = {rgba + pitch * static_cast<size_t>(clampIndex(y - 1, height)),
                              rgba + pitch * static_cast<size_t>(y),
                              rgba + pitch * static_cast<size_t>(clampIndex(y + 1, height))};
    for (int32_t x = 0; x < width; ++x) {
      const size_t cols[3] = {static_cast<size_t>(clampIndex(x - 1, width)) * 4, static_cast<size_t>(x) * 4,
                              static_cast<size_t>(clampIndex(x + 1, width)) * 4};
      for (size_t ch = 0; ch < 4; ++ch) {
        // Sums of four bytes are exact in a float.
        const float corner = static_cast<float>(rows[0][cols[0] + ch] + rows[0][cols[2] + ch] + rows[2][cols[0] + ch] +
                                                rows[2][cols[2] + ch]);
        const float edge = static_cast<float>(rows[0][cols[1] + ch] + rows[2][cols[1] + ch] + rows[1][cols[0] + ch] +
                                              rows[1][cols[2] + ch]);
        const float sum =
            kMaskCentre * rows[1][cols[1] + ch] / 255.0f + kMaskEdge * edge / 255.0f + kMaskCorner * corner / 255.0f;
        out[pitch * static_cast<size_t>(y) + static_cast<size_t>(x) * 4 + ch] = toUnorm8(sum);
      }
    }
  }
  return kGlOk;
}

uint32_t gl_reference_scale_plane(const uint8_t* src, int32_t srcWidth, int32_t srcHeight, int32_t srcStride,
                                  uint8_t* dst, int32_t dstWidth, int32_t dstHeight, int32_t dstStride) {
  if (src == nullptr || dst == nullptr || !sizeUsable(srcWidth, srcHeight) || !sizeUsable(dstWidth, dstHeight) ||
      srcStride < srcWidth || dstStride < dstWidth) {
    VM_LOG_IF(kLogGl, "scale %dx%d to %dx%d invalid\n", srcWidth, srcHeight, dstWidth, dstHeight);
    return kGlErrArgument;
  }
  const float sx = static_cast<float>(srcWidth) / static_cast<float>(dstWidth);
  const float sy = static_cast<float>(srcHeight) / static_cast<float>(dstHeight);
  for (int32_t y = 0; y < dstHeight; ++y) {
    float fy = (static_cast<float>(y) + 0.5f) * sy - 0.5f;
    if (fy < 0.0f) fy = 0.0f;
    int32_t y0 = static_cast<int32_t>(fy);
    float wy = fy - static_cast<float>(y0);
    if (y0 >= srcHeight - 1) {
      y0 = srcHeight - 1;
      wy = 0.0f;
    }
    const uint8_t* r0 = src + static_cast<size_t>(srcStride) * static_cast<size_t>(y0);
    const uint8_t* r1 = src + static_cast<size_t>(srcStride) * static_cast<size_t>(clampIndex(y0 + 1, srcHeight));
    uint8_t* out = dst + static_cast<size_t>(dstStride) * static_cast<size_t>(y);
    for (int32_t x = 0; x < dstWidth; ++x) {
      float fx = (static_cast<float>(x) + 0.5f) * sx - 0.5f;
      if (fx < 0.0f) fx = 0.0f;
      int32_t x0 = static_cast<int32_t>(fx);
      float wx = fx - static_cast<float>(x0);
      if (x0 >= srcWidth - 1) {
        x0 = srcWidth - 1;
        wx = 0.0f;
      }
      int32_t x1 = clampIndex(x0 + 1, srcWidth);
      float top = r0[x0] + wx * (r0[x1] - r0[x0]);
      float bottom = r1[x0] + wx * (r1[x1] - r1[x0]);
      out[x] = toUnorm8((top + wy * (bottom - top)) / 255.0f);
    }
  }
  return kGlOk;
}
