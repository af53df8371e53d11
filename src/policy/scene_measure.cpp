// scene_measure.cpp - scene measures on luma planes: the census scene-change count, block motion
// estimation and the mean absolute difference, with their plain reference forms.
#include "policy/scene_measure.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "debug/debug_log.h"
#include "policy/policy_manager.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

int32_t policyMotionVectors[5][2] = {{0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}};

namespace {

constexpr int kGridRows = 7;
constexpr int kGridCols = 9;
constexpr int kCellSize = 16;
constexpr int kCentreRow = 3;
constexpr int kCentreCol = 4;
constexpr int kGridReach = 128;  // the grid starts this far above and left of the centre

constexpr int kBlockSize = 8;
constexpr int kSearchRange = 16;
constexpr int kLeftBound = -8;  // candidates may start up to eight columns left of the image
constexpr int32_t kLargeMotionSquared = 49;
// Block offsets from the anchor (right, bottom), in units of the block spacing, in search order.
constexpr int kBlockOffsets[5][2] = {{-1, -1}, {1, -1}, {0, 0}, {-1, 1}, {1, 1}};

struct CensusCell {
  int32_t sum;
  int32_t count;
  int32_t mean;  // becomes the census bit
};

// Replaces each cell mean by 1 when it is above the centre cell's mean, else 0.
void censusBits(CensusCell cells[kGridRows][kGridCols]) {
  const int32_t centre = cells[kCentreRow][kCentreCol].mean;
  for (int r = 0; r < kGridRows; ++r)
    for (int c = 0; c < kGridCols; ++c) cells[r][c].mean = cells[r][c].mean > centre ? 1 : 0;
}

void censusMeans(CensusCell cells[kGridRows][kGridCols]) {
  for (int r = 0; r < kGridRows; ++r)
    for (int c = 0; c < kGridCols; ++c)
      if (cells[r][c].count > 0) cells[r][c].mean = cells[r][c].sum / cells[r][c].count;
}

int32_t censusHamming(CensusCell a[kGridRows][kGridCols], CensusCell b[kGridRows][kGridCols]) {
  censusMeans(a);
  censusMeans(b);
  censusBits(a);
  censusBits(b);
  int32_t changed = 0;
  for (int r = 0; r < kGridRows; ++r)
    for (int c = 0; c < kGridCols; ++c) changed += a[r][c].mean != b[r][c].mean ? 1 : 0;
  return changed;
}

// Sum of 16 consecutive bytes: one sum-of-absolute-differences against zero (SSE2) or a
// widening pairwise add (NEON); plain code elsewhere.
inline int32_t sum16(const uint8_t* p) {
#if defined(__SSE2__)
  const __m128i s = _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), _mm_setzero_si128());
  return _mm_cvtsi128_si32(s) + _mm_cvtsi128_si32(_mm_srli_si128(s, 8));
#elif defined(__ARM_NEON) && defined(__aarch64__)
  return static_cast<int32_t>(vaddlvq_u8(vld1q_u8(p)));
#elif defined(__ARM_NEON)
  const uint64x2_t s = vpaddlq_u32(vpaddlq_u16(vpaddlq_u8(vld1q_u8(p))));
  return static_cast<int32_t>(vgetq_lane_u64(s, 0) + vgetq_lane_u64(s, 1));
#else
  int32_t s = 0;
  for (int i = 0; i < 16; ++i) s += p[i];
  return s;
#endif
}

bool squaredNoLonger(int32_t dx, int32_t dy, int32_t vx, int32_t vy) {
  // Squared integer lengths below 2^31 order exactly as their double square roots do.
  return dx * dx + dy * dy <= vx * vx + vy * vy;
}

int64_t blockSpacing(int32_t left, int32_t right, int32_t top, int32_t bottom) {
  const int64_t w = static_cast<int64_t>(right) - left;
  const int64_t h = static_cast<int64_t>(bottom) - top;
  const int64_t m = h < w ? h : w;
  return m > kBlockSize ? m : kBlockSize;
}

// 8 x 8 block of a plane whose top-left pixel is (x, y), through the guarded accessor.
void readBlock(uint8_t out[kBlockSize * kBlockSize], const uint8_t* plane, int64_t x, int64_t y, int32_t width,
               int64_t planeSize) {
  for (int j = 0; j < kBlockSize; ++j)
    for (int i = 0; i < kBlockSize; ++i)
      out[j * kBlockSize + i] = scene_measure_read(plane, x + i, y + j, width, planeSize);
}

uint32_t absDiff(uint8_t a, uint8_t b) {
  return a > b ? static_cast<uint32_t>(a - b) : static_cast<uint32_t>(b - a);
}

bool badRegion(int32_t left, int32_t right, int32_t top, int32_t bottom) {
  return static_cast<int64_t>(right) - left < 1 || static_cast<int64_t>(bottom) - top < 1;
}

// The pointers are printed as the log line's 32-bit words.
unsigned pointerWord(const void* p) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

}  // namespace

uint32_t scene_measure_block_cost_plain(const uint8_t* ref, const uint8_t* candidate, int64_t stride, uint32_t limit) {
  uint32_t cost = 0;
  // Two rows at a time, stopping once the sum exceeds the limit; plain int differences so that
  // compilers vectorise the rows.
  for (int j = 0; j < kBlockSize && cost <= limit; j += 2) {
    const uint8_t* r = ref + j * kBlockSize;
    const uint8_t* c = candidate + j * stride;
    int32_t s = 0;
    for (int i = 0; i < kBlockSize; ++i) {
      const int32_t d = r[i] - c[i];
      s += d < 0 ? -d : d;
    }
    for (int i = 0; i < kBlockSize; ++i) {
      const int32_t d = r[kBlockSize + i] - c[stride + i];
      s += d < 0 ? -d : d;
    }
    cost += static_cast<uint32_t>(s);
  }
  return cost;
}

uint32_t scene_measure_block_cost(const uint8_t* ref, const uint8_t* candidate, int64_t stride, uint32_t limit) {
#if defined(__SSE2__)
  // Two candidate rows side by side against two reference rows: one sum-of-absolute-differences
  // instruction per pair; the whole block costs less than testing the limit between pairs.
  (void)limit;
  const ptrdiff_t s = static_cast<ptrdiff_t>(stride);
  __m128i acc = _mm_setzero_si128();
  for (int j = 0; j < kBlockSize; j += 2) {
    const __m128i c = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(candidate + j * s)),
                                         _mm_loadl_epi64(reinterpret_cast<const __m128i*>(candidate + (j + 1) * s)));
    const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ref + j * kBlockSize));
    acc = _mm_add_epi64(acc, _mm_sad_epu8(c, r));
  }
  return static_cast<uint32_t>(_mm_cvtsi128_si32(acc) + _mm_cvtsi128_si32(_mm_srli_si128(acc, 8)));
#elif defined(__ARM_NEON)
  (void)limit;
  const ptrdiff_t s = static_cast<ptrdiff_t>(stride);
  // Eight 16-bit lanes hold at most 8 x 255 each: no lane can overflow.
  uint16x8_t acc = vabdl_u8(vld1_u8(ref), vld1_u8(candidate));
  for (int j = 1; j < kBlockSize; ++j) acc = vabal_u8(acc, vld1_u8(ref + j * kBlockSize), vld1_u8(candidate + j * s));
#if defined(__aarch64__)
  return vaddvq_u16(acc);
#else
  const uint64x2_t sum = vpaddlq_u32(vpaddlq_u16(acc));
  return static_cast<uint32_t>(vgetq_lane_u64(sum, 0) + vgetq_lane_u64(sum, 1));
#endif
#else
  return scene_measure_block_cost_plain(ref, candidate, stride, limit);
#endif
}

int64_t scene_measure_plane_size(int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) return 0;
  return static_cast<int64_t>(width) * height;
}

// Reads outside a plane yield 0 in both planes alike: the missing bytes then add nothing to a
// difference between the planes, and a zero-filled guard band around a plane would read the same.
uint8_t scene_measure_read(const uint8_t* plane, int64_t x, int64_t y, int32_t width, int64_t planeSize) {
  int64_t index;
  if (__builtin_mul_overflow(y, static_cast<int64_t>(width), &index)) return kSceneOutsideValue;
  if (__builtin_add_overflow(index, x, &index)) return kSceneOutsideValue;
  if (index < 0 || index >= planeSize) return kSceneOutsideValue;
  return plane[index];
}

int32_t scene_measure_census_reference(const uint8_t* current, const uint8_t* stored, int32_t cx, int32_t cy,
                                       int32_t width, int32_t height) {
  CensusCell cells[2][kGridRows][kGridCols];
  memset(cells, 0, sizeof cells);
  const int64_t size = scene_measure_plane_size(width, height);
  const uint8_t* planes[2] = {current, stored};
  for (int p = 0; p < 2; ++p)
    for (int r = 0; r < kGridRows; ++r)
      for (int c = 0; c < kGridCols; ++c)
        for (int j = 0; j < kCellSize; ++j)
          for (int i = 0; i < kCellSize; ++i) {
            const int64_t y = static_cast<int64_t>(cy) - kGridReach + kCellSize * r + j;
            const int64_t x = static_cast<int64_t>(cx) - kGridReach + kCellSize * c + i;
            const int64_t index = y * width + x;
            if (index < 0 || index >= size) continue;
            cells[p][r][c].sum += planes[p][index];
            cells[p][r][c].count += 1;
          }
  return censusHamming(cells[0], cells[1]);
}

int32_t scene_measure_census(const uint8_t* current, const uint8_t* stored, int32_t cx, int32_t cy, int32_t width,
                             int32_t height) {
  CensusCell a[kGridRows][kGridCols];
  CensusCell b[kGridRows][kGridCols];
  memset(a, 0, sizeof a);
  memset(b, 0, sizeof b);
  const int64_t size = scene_measure_plane_size(width, height);
  for (int r = 0; r < kGridRows; ++r) {
    const int64_t y0 = static_cast<int64_t>(cy) - kGridReach + kCellSize * r;
    for (int c = 0; c < kGridCols; ++c) {
      const int64_t x0 = static_cast<int64_t>(cx) - kGridReach + kCellSize * c;
      int32_t sa = 0;
      int32_t sb = 0;
      int32_t n = 0;
      for (int j = 0; j < kCellSize; ++j) {
        // A cell row is a run of 16 consecutive linear indices; the linear-index rule keeps the
        // part of the run that lies in [0, size).
        const int64_t start = (y0 + j) * width + x0;
        const int64_t lo = start > 0 ? start : 0;
        const int64_t hi = start + kCellSize < size ? start + kCellSize : size;
        if (lo >= hi) continue;
        const uint8_t* pa = current + lo;
        const uint8_t* pb = stored + lo;
        const int len = static_cast<int>(hi - lo);
        if (len == kCellSize) {
          sa += sum16(pa);
          sb += sum16(pb);
        } else {
          for (int i = 0; i < len; ++i) {
            sa += pa[i];
            sb += pb[i];
          }
        }
        n += len;
      }
      a[r][c].sum = sa;
      a[r][c].count = n;
      b[r][c].sum = sb;
      b[r][c].count = n;
    }
  }
  return censusHamming(a, b);
}

int32_t policy_manager_scene_change_detection(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage,
                                              int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t width,
                                              int32_t height) {
  const long start = debug_time_ms();
  // The centre of the signed sums, shifted arithmetically; an int64 sum cannot overflow.
  const int32_t cx = static_cast<int32_t>((static_cast<int64_t>(left) + right) >> 1);
  const int32_t cy = static_cast<int32_t>((static_cast<int64_t>(top) + bottom) >> 1);
  int32_t result = 0;
  if (a_pucInputImage != nullptr && a_pucPreviewInputImage != nullptr)
    result = scene_measure_census(a_pucInputImage, a_pucPreviewInputImage, cx, cy, width, height);
  if (debug_log_on(kLogProfileMask)) {
    const int32_t cost = static_cast<int32_t>(debug_elapsed_ms(start));
    VM_PROFILE("Scene check result = %d cost %ld ms", result, static_cast<long>(cost));
  }
  return result;
}

int32_t policy_manager_scene_change_detection_320x240(const uint8_t* a_pucInputImage,
                                                      const uint8_t* a_pucPreviewInputImage) {
  const long start = debug_time_ms();
  // The whole plane is the region, so the grid sits at its centre; the grid's rows above the
  // frame have negative indices and are skipped, and it never reaches the end of the plane.
  int32_t result = 0;
  if (a_pucInputImage != nullptr && a_pucPreviewInputImage != nullptr)
    result = scene_measure_census(a_pucInputImage, a_pucPreviewInputImage, kPolicyPlaneWidth / 2,
                                  kPolicyPlaneHeight / 2, kPolicyPlaneWidth, kPolicyPlaneHeight);
  if (debug_log_on(kLogProfileMask)) {
    const int32_t cost = static_cast<int32_t>(debug_elapsed_ms(start));
    VM_PROFILE("Scene check result = %d cost %ld ms", result, static_cast<long>(cost));
  }
  return result;
}

int32_t scene_measure_motion_search_reference(const uint8_t* current, const uint8_t* stored, int32_t left,
                                              int32_t right, int32_t top, int32_t bottom, int32_t width, int32_t height,
                                              int32_t vectors[5][2]) {
  const int64_t size = scene_measure_plane_size(width, height);
  const int64_t d = blockSpacing(left, right, top, bottom);
  uint32_t best = std::numeric_limits<uint32_t>::max();
  int32_t vx = 32;
  int32_t vy = 32;
  int32_t large = 0;
  for (int k = 0; k < 5; ++k) {
    const int64_t bx = right + kBlockOffsets[k][0] * d;
    const int64_t by = bottom + kBlockOffsets[k][1] * d;
    for (int64_t y = by - kSearchRange; y <= by + kSearchRange; ++y)
      for (int64_t x = bx - kSearchRange; x <= bx + kSearchRange; ++x) {
        if (y < 0 || y + 7 >= height || x < kLeftBound || x + 7 >= width) continue;
        uint32_t cost = 0;
        for (int j = 0; j < kBlockSize; ++j)
          for (int i = 0; i < kBlockSize; ++i)
            cost += absDiff(scene_measure_read(current, bx + i, by + j, width, size),
                            scene_measure_read(stored, x + i, y + j, width, size));
        if (cost <= best) {
          best = cost;
          const int32_t dx = static_cast<int32_t>(x - bx);
          const int32_t dy = static_cast<int32_t>(y - by);
          if (std::sqrt(static_cast<double>(dx * dx + dy * dy)) <= std::sqrt(static_cast<double>(vx * vx + vy * vy))) {
            vx = dx;
            vy = dy;
          }
        }
      }
    vectors[k][0] = vx;
    vectors[k][1] = vy;
    if (vx * vx + vy * vy >= kLargeMotionSquared) ++large;
  }
  return large;
}

int32_t scene_measure_motion_search(const uint8_t* current, const uint8_t* stored, int32_t left, int32_t right,
                                    int32_t top, int32_t bottom, int32_t width, int32_t height, int32_t vectors[5][2]) {
  const int64_t size = scene_measure_plane_size(width, height);
  const int64_t d = blockSpacing(left, right, top, bottom);
  // Carried from block to block on purpose: never reset between blocks.
  uint32_t best = std::numeric_limits<uint32_t>::max();
  int32_t vx = 32;
  int32_t vy = 32;
  int32_t large = 0;
  uint8_t ref[kBlockSize * kBlockSize];
  uint8_t cand[kBlockSize * kBlockSize];
  for (int k = 0; k < 5; ++k) {
    const int64_t bx = right + kBlockOffsets[k][0] * d;
    const int64_t by = bottom + kBlockOffsets[k][1] * d;
    readBlock(ref, current, bx, by, width, size);
    // Candidate rows and columns that pass the bounds test, as one range each.
    int64_t y0 = by - kSearchRange;
    int64_t y1 = by + kSearchRange;
    if (y0 < 0) y0 = 0;
    if (y1 > static_cast<int64_t>(height) - kBlockSize) y1 = static_cast<int64_t>(height) - kBlockSize;
    int64_t x0 = bx - kSearchRange;
    int64_t x1 = bx + kSearchRange;
    if (x0 < kLeftBound) x0 = kLeftBound;
    if (x1 > static_cast<int64_t>(width) - kBlockSize) x1 = static_cast<int64_t>(width) - kBlockSize;
    for (int64_t y = y0; y <= y1; ++y) {
      for (int64_t x = x0; x <= x1; ++x) {
        const int64_t base = y * width + x;  // 0 <= y < height keeps this inside 64 bits
        const uint8_t* p;
        if (base >= 0) {
          p = stored + base;
        } else {
          // A candidate starting before the plane (row 0 with x < 0, or a plane narrower than a
          // block) reads through the guarded accessor.
          for (int j = 0; j < kBlockSize; ++j)
            for (int i = 0; i < kBlockSize; ++i)
              cand[j * kBlockSize + i] = scene_measure_read(stored, x + i, y + j, width, size);
          p = nullptr;
        }
        const uint8_t* c = p != nullptr ? p : cand;
        const int64_t stride = p != nullptr ? width : kBlockSize;
        // A sum stopped early already exceeds the best cost and is ignored like the full one.
        const uint32_t cost = scene_measure_block_cost(ref, c, stride, best);
        if (cost <= best) {
          best = cost;
          const int32_t dx = static_cast<int32_t>(x - bx);
          const int32_t dy = static_cast<int32_t>(y - by);
          if (squaredNoLonger(dx, dy, vx, vy)) {
            vx = dx;
            vy = dy;
          }
        }
      }
    }
    vectors[k][0] = vx;
    vectors[k][1] = vy;
    if (vx * vx + vy * vy >= kLargeMotionSquared) ++large;
  }
  return large;
}

int32_t policy_manager_estimate_motion(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage,
                                       int32_t left, int32_t right, int32_t top, int32_t bottom, int32_t width,
                                       int32_t height) {
  const long start = debug_time_ms();
  if (badRegion(left, right, top, bottom)) {
    VM_LOG_IF(kLogTrace, "invalid FACE RECT in Motion Estimation");
    return -1;
  }
  if (a_pucInputImage == nullptr || a_pucPreviewInputImage == nullptr) {
    VM_LOG_IF(kLogTrace, "input data is NULL, a_pucInputImage = 0x%x, a_pucPreviewInputImage = 0x%x",
              pointerWord(a_pucInputImage), pointerWord(a_pucPreviewInputImage));
    return -1;
  }
  int32_t vectors[5][2];
  const int32_t large = scene_measure_motion_search(a_pucInputImage, a_pucPreviewInputImage, left, right, top, bottom,
                                                    width, height, vectors);
  for (int k = 0; k < 5; ++k) {
    // Wrapping sums: the accumulator is never cleared and may run long.
    policyMotionVectors[k][0] =
        static_cast<int32_t>(static_cast<uint32_t>(policyMotionVectors[k][0]) + static_cast<uint32_t>(vectors[k][0]));
    policyMotionVectors[k][1] =
        static_cast<int32_t>(static_cast<uint32_t>(policyMotionVectors[k][1]) + static_cast<uint32_t>(vectors[k][1]));
  }
  if (debug_log_on(kLogProfileMask)) {
    const int32_t cost = static_cast<int32_t>(debug_elapsed_ms(start));
    VM_PROFILE("MV Large count = %d cost %ld ms", large, static_cast<long>(cost));
  }
  return large;
}

float policy_manager_calculate_SAD(const uint8_t* a_pucInputImage, const uint8_t* a_pucPreviewInputImage, int32_t left,
                                   int32_t right, int32_t top, int32_t bottom, int32_t width, int32_t height) {
  const long start = debug_time_ms();
  if (badRegion(left, right, top, bottom)) {
    VM_LOG_IF(kLogTrace, "invalid FACE RECT in CalculateSAD");
    return -1.0f;
  }
  if (a_pucInputImage == nullptr || a_pucPreviewInputImage == nullptr) {
    VM_LOG_IF(kLogTrace, "input data is NULL, a_pucInputImage = 0x%x, a_pucPreviewInputImage = 0x%x",
              pointerWord(a_pucInputImage), pointerWord(a_pucPreviewInputImage));
    return -1.0f;
  }
  // The region's bounds are inclusive; clip them to the plane before walking it (in 64 bits, so
  // that no bound can overflow).
  const int64_t y0 = top > 0 ? top : 0;
  const int64_t y1 = bottom < static_cast<int64_t>(height) - 1 ? bottom : static_cast<int64_t>(height) - 1;
  const int64_t x0 = left > 0 ? left : 0;
  const int64_t x1 = right < static_cast<int64_t>(width) - 1 ? right : static_cast<int64_t>(width) - 1;
  uint32_t sum = 0;
  uint32_t count = 0;
  for (int64_t y = y0; y <= y1; ++y) {
    const uint8_t* a = a_pucInputImage + y * width;
    const uint8_t* b = a_pucPreviewInputImage + y * width;
    for (int64_t x = x0; x <= x1; ++x) sum += absDiff(a[x], b[x]);
    if (x1 >= x0) count += static_cast<uint32_t>(x1 - x0 + 1);
  }
  // No pixel inside: the mean is 0 / 0, a quiet NaN, spelled out rather than divided.
  const float result =
      count == 0 ? std::numeric_limits<float>::quiet_NaN()
                 : static_cast<float>(static_cast<int32_t>(sum)) / static_cast<float>(static_cast<int32_t>(count));
  if (debug_log_on(kLogProfileMask)) {
    const int32_t cost = static_cast<int32_t>(debug_elapsed_ms(start));
    VM_PROFILE("Average Pixel Diff = %f cost %ld ms", static_cast<double>(result), static_cast<long>(cost));
  }
  return result;
}
