// plane_rotate.cpp - 8-bit plane turns (tiled and reference), 16-bit quarter turns (8 x 8 register
// transposes and reference) and aligned plane memory.
#include "image/plane_rotate.h"

#include <algorithm>

#if defined(__SSE2__)
#include <immintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#include "memory/heap.h"

void* plane_alloc(size_t size) {
  return heap_aligned_allocate(size, 16);
}
void plane_free(void* block) {
  heap_aligned_free(block);
}

namespace {

// Where source (y, x) lands in the destination, for each turn.
inline size_t destIndex(PlaneTurn turn, int32_t x, int32_t y, int32_t w, int32_t h, int32_t dstStride) {
  switch (turn) {
    case TURN_QUARTER_CW:
      return static_cast<size_t>(x) * static_cast<size_t>(dstStride) + static_cast<size_t>(h - 1 - y);
    case TURN_QUARTER_CCW:
      return static_cast<size_t>(w - 1 - x) * static_cast<size_t>(dstStride) + static_cast<size_t>(y);
    default:  // TURN_HALF
      return static_cast<size_t>(h - 1 - y) * static_cast<size_t>(dstStride) + static_cast<size_t>(w - 1 - x);
  }
}

bool usable(const uint8_t* src, int32_t w, int32_t h, const uint8_t* dst, PlaneTurn turn) {
  return src != nullptr && dst != nullptr && w > 0 && h > 0 &&
         (turn == TURN_QUARTER_CW || turn == TURN_HALF || turn == TURN_QUARTER_CCW);
}

// Tile edge: a 32 x 32 block of source and destination stays in L1 on every target.
constexpr int32_t kTile = 32;

}  // namespace

void plane_rotate_u8_reference(const uint8_t* src, int32_t w, int32_t h, int32_t srcStride, uint8_t* dst,
                               int32_t dstStride, PlaneTurn turn) {
  if (!usable(src, w, h, dst, turn)) return;
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x)
      dst[destIndex(turn, x, y, w, h, dstStride)] =
          src[static_cast<size_t>(y) * static_cast<size_t>(srcStride) + static_cast<size_t>(x)];
}

void plane_rotate_u8(const uint8_t* src, int32_t w, int32_t h, int32_t srcStride, uint8_t* dst, int32_t dstStride,
                     PlaneTurn turn) {
  if (!usable(src, w, h, dst, turn)) return;
  if (turn == TURN_HALF) {
    // Rows reversed end to end: contiguous on both sides, no tiling needed.
    for (int32_t y = 0; y < h; ++y) {
      const uint8_t* s = src + static_cast<size_t>(y) * static_cast<size_t>(srcStride);
      uint8_t* d = dst + static_cast<size_t>(h - 1 - y) * static_cast<size_t>(dstStride);
      std::reverse_copy(s, s + w, d);
    }
    return;
  }
  const ptrdiff_t ds = dstStride;
  for (int32_t ty = 0; ty < h; ty += kTile) {
    const int32_t yEnd = std::min(h, ty + kTile);
    for (int32_t tx = 0; tx < w; tx += kTile) {
      const int32_t xEnd = std::min(w, tx + kTile);
      if (turn == TURN_QUARTER_CW) {
        // Destination row x takes source column x read bottom-up.
        for (int32_t x = tx; x < xEnd; ++x) {
          uint8_t* d = dst + x * ds + (h - 1 - ty);
          const uint8_t* s = src + static_cast<ptrdiff_t>(ty) * srcStride + x;
          for (int32_t y = ty; y < yEnd; ++y, s += srcStride, --d) *d = *s;
        }
      } else {
        // Destination row w-1-x takes source column x read top-down.
        for (int32_t x = tx; x < xEnd; ++x) {
          uint8_t* d = dst + (w - 1 - x) * ds + ty;
          const uint8_t* s = src + static_cast<ptrdiff_t>(ty) * srcStride + x;
          for (int32_t y = ty; y < yEnd; ++y, s += srcStride, ++d) *d = *s;
        }
      }
    }
  }
}

namespace {

bool usable16(const uint16_t* src, int32_t w, int32_t h, const uint16_t* dst, PlaneTurn turn) {
  return src != nullptr && dst != nullptr && w > 0 && h > 0 && (turn == TURN_QUARTER_CW || turn == TURN_QUARTER_CCW);
}

// Where source (y, x) of a w x h map lands in the turned map (h wide).
inline size_t destIndex16(bool clockwise, size_t x, size_t y, size_t w, size_t h) {
  return clockwise ? x * h + (h - 1 - y) : (w - 1 - x) * h + y;
}

// Transposes the 8 x 8 block whose row r starts at src + r x srcStep into the 8 samples at
// dst + c x dstStep (column c of the block, top to bottom). Steps may be negative.
#if defined(__SSE2__)
inline void transpose8x8(const uint16_t* src, ptrdiff_t srcStep, uint16_t* dst, ptrdiff_t dstStep) {
  __m128i r[8];
  for (int i = 0; i < 8; ++i) r[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i * srcStep));
  const __m128i a0 = _mm_unpacklo_epi16(r[0], r[1]), a1 = _mm_unpackhi_epi16(r[0], r[1]);
  const __m128i a2 = _mm_unpacklo_epi16(r[2], r[3]), a3 = _mm_unpackhi_epi16(r[2], r[3]);
  const __m128i a4 = _mm_unpacklo_epi16(r[4], r[5]), a5 = _mm_unpackhi_epi16(r[4], r[5]);
  const __m128i a6 = _mm_unpacklo_epi16(r[6], r[7]), a7 = _mm_unpackhi_epi16(r[6], r[7]);
  const __m128i b0 = _mm_unpacklo_epi32(a0, a2), b1 = _mm_unpackhi_epi32(a0, a2);
  const __m128i b2 = _mm_unpacklo_epi32(a1, a3), b3 = _mm_unpackhi_epi32(a1, a3);
  const __m128i b4 = _mm_unpacklo_epi32(a4, a6), b5 = _mm_unpackhi_epi32(a4, a6);
  const __m128i b6 = _mm_unpacklo_epi32(a5, a7), b7 = _mm_unpackhi_epi32(a5, a7);
  const __m128i c[8] = {_mm_unpacklo_epi64(b0, b4), _mm_unpackhi_epi64(b0, b4), _mm_unpacklo_epi64(b1, b5),
                        _mm_unpackhi_epi64(b1, b5), _mm_unpacklo_epi64(b2, b6), _mm_unpackhi_epi64(b2, b6),
                        _mm_unpacklo_epi64(b3, b7), _mm_unpackhi_epi64(b3, b7)};
  for (int i = 0; i < 8; ++i) _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i * dstStep), c[i]);
}
#elif defined(__ARM_NEON)
inline void transpose8x8(const uint16_t* src, ptrdiff_t srcStep, uint16_t* dst, ptrdiff_t dstStep) {
  uint16x8_t r[8];
  for (int i = 0; i < 8; ++i) r[i] = vld1q_u16(src + i * srcStep);
  // Pairs of rows interleaved by sample, then by sample pair: each 32-bit lane pair of the result
  // holds a column's four rows, columns c and c + 4 in the low and high halves.
  const uint16x8x2_t t01 = vtrnq_u16(r[0], r[1]), t23 = vtrnq_u16(r[2], r[3]);
  const uint16x8x2_t t45 = vtrnq_u16(r[4], r[5]), t67 = vtrnq_u16(r[6], r[7]);
  const uint32x4x2_t u02 = vtrnq_u32(vreinterpretq_u32_u16(t01.val[0]), vreinterpretq_u32_u16(t23.val[0]));
  const uint32x4x2_t u13 = vtrnq_u32(vreinterpretq_u32_u16(t01.val[1]), vreinterpretq_u32_u16(t23.val[1]));
  const uint32x4x2_t v02 = vtrnq_u32(vreinterpretq_u32_u16(t45.val[0]), vreinterpretq_u32_u16(t67.val[0]));
  const uint32x4x2_t v13 = vtrnq_u32(vreinterpretq_u32_u16(t45.val[1]), vreinterpretq_u32_u16(t67.val[1]));
  // Top four rows (u) and bottom four (v) of columns 0, 1, 2, 3 in the low halves, 4..7 high.
  const uint16x8_t top[4] = {vreinterpretq_u16_u32(u02.val[0]), vreinterpretq_u16_u32(u13.val[0]),
                             vreinterpretq_u16_u32(u02.val[1]), vreinterpretq_u16_u32(u13.val[1])};
  const uint16x8_t bottom[4] = {vreinterpretq_u16_u32(v02.val[0]), vreinterpretq_u16_u32(v13.val[0]),
                                vreinterpretq_u16_u32(v02.val[1]), vreinterpretq_u16_u32(v13.val[1])};
  for (int c = 0; c < 4; ++c) {
    vst1q_u16(dst + c * dstStep, vcombine_u16(vget_low_u16(top[c]), vget_low_u16(bottom[c])));
    vst1q_u16(dst + (c + 4) * dstStep, vcombine_u16(vget_high_u16(top[c]), vget_high_u16(bottom[c])));
  }
}
#else
inline void transpose8x8(const uint16_t* src, ptrdiff_t srcStep, uint16_t* dst, ptrdiff_t dstStep) {
  for (int c = 0; c < 8; ++c)
    for (int r = 0; r < 8; ++r) dst[c * dstStep + r] = src[r * srcStep + c];
}
#endif

#if defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__))
#define VMKTR_ROTATE_AVX2 1
// Two 8 x 8 blocks stacked (rows 0..7 then 8..15) in the two halves of 256-bit registers:
// the same unpack network as above, lane by lane, gives each column's 16 samples in one
// register, half the shuffles a sample of the 128-bit form. Chosen at run time.
__attribute__((target("avx2"))) inline void transpose16x8(const uint16_t* src, ptrdiff_t srcStep, uint16_t* dst,
                                                          ptrdiff_t dstStep) {
  __m256i r[8];
  for (int i = 0; i < 8; ++i)
    r[i] = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i * srcStep))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + (i + 8) * srcStep)), 1);
  const __m256i a0 = _mm256_unpacklo_epi16(r[0], r[1]), a1 = _mm256_unpackhi_epi16(r[0], r[1]);
  const __m256i a2 = _mm256_unpacklo_epi16(r[2], r[3]), a3 = _mm256_unpackhi_epi16(r[2], r[3]);
  const __m256i a4 = _mm256_unpacklo_epi16(r[4], r[5]), a5 = _mm256_unpackhi_epi16(r[4], r[5]);
  const __m256i a6 = _mm256_unpacklo_epi16(r[6], r[7]), a7 = _mm256_unpackhi_epi16(r[6], r[7]);
  const __m256i b0 = _mm256_unpacklo_epi32(a0, a2), b1 = _mm256_unpackhi_epi32(a0, a2);
  const __m256i b2 = _mm256_unpacklo_epi32(a1, a3), b3 = _mm256_unpackhi_epi32(a1, a3);
  const __m256i b4 = _mm256_unpacklo_epi32(a4, a6), b5 = _mm256_unpackhi_epi32(a4, a6);
  const __m256i b6 = _mm256_unpacklo_epi32(a5, a7), b7 = _mm256_unpackhi_epi32(a5, a7);
  const __m256i c[8] = {_mm256_unpacklo_epi64(b0, b4), _mm256_unpackhi_epi64(b0, b4), _mm256_unpacklo_epi64(b1, b5),
                        _mm256_unpackhi_epi64(b1, b5), _mm256_unpacklo_epi64(b2, b6), _mm256_unpackhi_epi64(b2, b6),
                        _mm256_unpacklo_epi64(b3, b7), _mm256_unpackhi_epi64(b3, b7)};
  for (int i = 0; i < 8; ++i) _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i * dstStep), c[i]);
}

__attribute__((target("avx2"))) void turnBlocks16(const uint16_t* src, size_t w, size_t h, size_t w8, size_t h16,
                                                  uint16_t* dst, bool clockwise) {
  const ptrdiff_t sw = static_cast<ptrdiff_t>(w), sh = static_cast<ptrdiff_t>(h);
  for (size_t x0 = 0; x0 < w8; x0 += 8) {
    for (size_t y0 = 0; y0 < h16; y0 += 16) {
      transpose16x8(src + (clockwise ? y0 + 15 : y0) * w + x0, clockwise ? -sw : sw,
                    dst + (clockwise ? x0 * h + (h - 16 - y0) : (w - 1 - x0) * h + y0), clockwise ? sh : -sh);
    }
  }
}

bool haveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2") != 0;
  return have;
}
#endif

}  // namespace

void plane_rotate_u16_reference(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, PlaneTurn turn) {
  if (!usable16(src, width, height, dst, turn)) return;
  const size_t w = static_cast<size_t>(width);
  const size_t h = static_cast<size_t>(height);
  for (size_t y = 0; y < h; ++y)
    for (size_t x = 0; x < w; ++x) dst[destIndex16(turn == TURN_QUARTER_CW, x, y, w, h)] = src[y * w + x];
}

void plane_rotate_u16(const uint16_t* src, int32_t width, int32_t height, uint16_t* dst, PlaneTurn turn) {
  if (!usable16(src, width, height, dst, turn)) return;
  const bool clockwise = turn == TURN_QUARTER_CW;
  const size_t w = static_cast<size_t>(width);
  const size_t h = static_cast<size_t>(height);
  const size_t w8 = w & ~static_cast<size_t>(7);
  const size_t h8 = h & ~static_cast<size_t>(7);
  const ptrdiff_t sw = static_cast<ptrdiff_t>(w), sh = static_cast<ptrdiff_t>(h);
  // Rows done by 16-row blocks where the processor has 256-bit vectors.
  size_t yDone = 0;
#if defined(VMKTR_ROTATE_AVX2)
  if (haveAvx2()) {
    yDone = h & ~static_cast<size_t>(15);
    turnBlocks16(src, w, h, w8, yDone, dst, clockwise);
  }
#endif
  // Column strips of blocks, walked down the source: the strip's source lines serve the next
  // strips from L1 and each destination row is written front to back.
  for (size_t x0 = 0; x0 < w8; x0 += 8) {
    for (size_t y0 = yDone; y0 < h8; y0 += 8) {
      // Clockwise a destination row reads its column bottom-up: the block's rows go in reversed.
      // Counter-clockwise the block's columns land on rows in reversed order.
      transpose8x8(src + (clockwise ? y0 + 7 : y0) * w + x0, clockwise ? -sw : sw,
                   dst + (clockwise ? x0 * h + (h - 8 - y0) : (w - 1 - x0) * h + y0), clockwise ? sh : -sh);
    }
  }
  // The right strip narrower than a block and the bottom strip shorter than one.
  for (size_t y = 0; y < h; ++y) {
    const size_t xFrom = y < h8 ? w8 : 0;
    for (size_t x = xFrom; x < w; ++x) dst[destIndex16(clockwise, x, y, w, h)] = src[y * w + x];
  }
}

PlaneTurn plane_turn_from_layout(int32_t cameraLayout) {
  switch (cameraLayout) {
    case 2:
      return TURN_NONE;
    case 3:
      return TURN_QUARTER_CW;
    case 4:
      return TURN_QUARTER_CCW;
    default:
      return TURN_HALF;
  }
}

PlaneTurn plane_turn_inverse(PlaneTurn turn) {
  switch (turn) {
    case TURN_QUARTER_CW:
      return TURN_QUARTER_CCW;
    case TURN_QUARTER_CCW:
      return TURN_QUARTER_CW;
    default:
      return turn;
  }
}
