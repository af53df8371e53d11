// scene_measure.h - the cores of the scene measures, each with a plain per-pixel reference that
// the tests and benchmarks hold the fast form against.
#ifndef VMKTRRT_POLICY_SCENE_MEASURE_H
#define VMKTRRT_POLICY_SCENE_MEASURE_H

#include <cstdint>

// The value a read outside a plane yields (see scene_measure_read).
constexpr uint8_t kSceneOutsideValue = 0;

// Number of bytes of a width x height plane; 0 when either side is not positive.
int64_t scene_measure_plane_size(int32_t width, int32_t height);

// Byte at linear index y * width + x of a plane of planeSize bytes, or kSceneOutsideValue when
// that index is outside [0, planeSize) or does not fit 64 bits.
uint8_t scene_measure_read(const uint8_t* plane, int64_t x, int64_t y, int32_t width, int64_t planeSize);

// Census Hamming count for a grid centred on (cx, cy). The fast form clips each cell row to the
// plane as one run; the reference visits every pixel with the linear-index test.
int32_t scene_measure_census(const uint8_t* current, const uint8_t* stored, int32_t cx, int32_t cy, int32_t width,
                             int32_t height);
int32_t scene_measure_census_reference(const uint8_t* current, const uint8_t* stored, int32_t cx, int32_t cy,
                                       int32_t width, int32_t height);

// Sum of absolute differences between an 8 x 8 reference block (64 contiguous bytes) and the
// candidate block whose rows start stride bytes apart. The vector form (SSE2 or NEON where the
// target has them) sums the whole block; the plain form stops once the sum exceeds limit. Both
// answer the same whenever the sum is at most limit, and something above limit otherwise.
uint32_t scene_measure_block_cost(const uint8_t* ref, const uint8_t* candidate, int64_t stride, uint32_t limit);
uint32_t scene_measure_block_cost_plain(const uint8_t* ref, const uint8_t* candidate, int64_t stride, uint32_t limit);

// The motion search over a checked region: writes each block's final vector to vectors (search
// order) and returns the number of blocks with a squared length of 49 or more. The fast form
// reads unguarded wherever a block lies inside the plane and sums candidates with
// scene_measure_block_cost; the reference evaluates every candidate pixel by pixel.
int32_t scene_measure_motion_search(const uint8_t* current, const uint8_t* stored, int32_t left, int32_t right,
                                    int32_t top, int32_t bottom, int32_t width, int32_t height, int32_t vectors[5][2]);
int32_t scene_measure_motion_search_reference(const uint8_t* current, const uint8_t* stored, int32_t left,
                                              int32_t right, int32_t top, int32_t bottom, int32_t width, int32_t height,
                                              int32_t vectors[5][2]);

#endif  // VMKTRRT_POLICY_SCENE_MEASURE_H
