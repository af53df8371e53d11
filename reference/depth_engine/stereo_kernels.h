// stereo_kernels.h - the row kernels of the stereo matcher (census, matching costs, one row of
// semi-global aggregation, winner-take-all). Each kernel set is built from one source
// (stereo_kernels_impl.h): a plain scalar reference, 128-bit vectors (SSE2 / NEON) and, on x86,
// 256-bit vectors (AVX2) chosen at run time. Every set gives the same results bit for bit.
#ifndef VM_STEREO_KERNELS_H
#define VM_STEREO_KERNELS_H

#include <stddef.h>
#include <stdint.h>

#define STEREO_CENSUS_MAX_BITS 64

// Census window: the comparisons in bit order (first offset -> most significant bit).
struct StereoCensusShape {
  int32_t count;   // bits, at most 64
  int32_t rx, ry;  // half sizes of the window
  int8_t dx[STEREO_CENSUS_MAX_BITS], dy[STEREO_CENSUS_MAX_BITS];
};

// One row of census words: 32-bit words when the shape has at most 32 bits, else 64-bit.
// `rows[j]` is image row y - ry + j with rx repeated pixels on both sides: rows[j][-rx .. width
// + rx - 1] readable, plus 32 bytes of slack at the right end.
typedef void (*StereoCensusRowFn)(const uint8_t* const* rows, int32_t width, const StereoCensusShape* shape, void* out);

// Costs of one row (bytes: at most 64): cost[x * nd + k] = popcount(left[x] ^ right[x - dmin - k]) for the
// disparities whose right pixel exists; the others get the mean of the pixel's real costs (or
// bits / 2 when there is none). `rightReversed[t]` holds right[width - 1 - t] for t in
// 0..width-1 and zeros for t in -nd - |dmin| .. width + nd + |dmin| + 32. Words are 32 bits when
// `wide` is false, else 64.
typedef void (*StereoCostRowFn)(const void* left, const void* rightReversed, int32_t width, int32_t nd, int32_t dmin,
                                int32_t bits, bool wide, uint8_t* cost);

// One row of path aggregation for `paths` directions whose previous pixel is (x + dx, y + dy)
// with dy in {0, -1} seen in the pass's order (dx, dy already turned for a backward pass).
struct StereoAggregateRow {
  int32_t width, height, nd, y;
  bool forward;  // forward: x ascending; backward: x descending
  const int32_t (*dirs)[2];
  int32_t paths;
  const uint8_t* img;  // guide luma for the penalty of jumps
  int32_t stride;
  const uint16_t* cost;   // width x nd
  const uint16_t* accIn;  // sums to add to (width x nd), or null to start from zero
  uint16_t* accOut;       // width x nd; may equal accIn
  uint16_t* pathPrev;     // per path (width + 2) x (nd + 2), the rows / pixels already done
  uint16_t* pathCur;
  uint16_t* minPrev;  // per path (width + 2) minima
  uint16_t* minCur;
  int32_t p1, p2;             // p2 where the previous pixel is outside the image
  const uint16_t* p2ForStep;  // 256 entries: p2 by |luma step| between the pixel and its predecessor
  // Byte form (aggregate_row8): path costs, their rows and the forward sums in bytes, exact
  // when 2 x (census bits + largest p2) <= 255 with two paths per pass, since a path cost never
  // exceeds the cost plus p2. Forward pass: cost8 -> acc8Out; backward pass: acc8In plus the
  // paths -> accOut (16-bit). pathPrev / pathCur then hold bytes, with sentinels of 255.
  const uint8_t* cost8;
  const uint8_t* acc8In;
  uint8_t* acc8Out;
  int32_t rows;  // one-pass form: 2 walks rows y and y + 1 together (costs and sums: two rows each)
};
typedef void (*StereoAggregateRowFn)(const StereoAggregateRow* a);

// Winner-take-all of one row of summed costs with uniqueness and parabola sub-pixel fit.
// Writes disp (fixed point, STEREO_INVALID when not unique) and kind (0 or 2), and updates
// the right view's best cost / disparity: rowMin[j] / rowDisp[j] for right pixel j, indexed
// from -(nd + |dmin|) to width + nd + |dmin| (entries outside 0..width-1 are scratch).
typedef void (*StereoSelectRowFn)(const uint16_t* sum, int32_t width, int32_t nd, int32_t dmin, int32_t uniqueness,
                                  int16_t* disp, uint8_t* kind, uint16_t* rowMin, int16_t* rowDisp);

struct StereoKernels {
  const char* name;
  int32_t lanes;      // 16-bit lanes per vector; nd must be a multiple of this
  int32_t byteLanes;  // 8-bit lanes; aggregate_row8 needs nd to be a multiple of this
  StereoCensusRowFn census_row;
  StereoCostRowFn cost_row;
  StereoAggregateRowFn aggregate_row;
  StereoAggregateRowFn aggregate_row8;
  // One pass (left to right, top-down, right to left) of row y (and y + 1 when rows is 2) into
  // accOut, 16-bit or byte form (cost / cost8 and the path rows accordingly); regions 0..4 of
  // the path rows.
  StereoAggregateRowFn aggregate_one_pass16;
  StereoAggregateRowFn aggregate_one_pass8;
  StereoSelectRowFn select_row;
  // select_row's results where every sum is below 1023 and nd <= 64 (the byte path forms): the
  // same disp, kind and real rowMin / rowDisp entries, by a shorter route.
  StereoSelectRowFn select_row_small;
};

// The plain reference, the portable 128-bit set, and the best set this processor runs for a
// disparity count (falls back to narrower sets when nd is not a multiple of their lanes).
const StereoKernels* stereo_kernels_plain(void);
const StereoKernels* stereo_kernels_v128(void);
const StereoKernels* stereo_kernels_avx2(void);  // null when not built or not supported
const StereoKernels* stereo_kernels_best(int32_t nd);

#endif  // VM_STEREO_KERNELS_H
