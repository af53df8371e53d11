// stereo_core.h - the stereo matcher behind the reference depth engine: census costs,
// semi-global aggregation with 16-bit saturating path costs, winner-take-all with uniqueness,
// left-right check, sub-pixel refinement, speckle removal, luma-guided dense hole filling and an
// edge-aware weighted median at depth edges.
// All buffers come from stereo_alloc; stereo_run allocates nothing.
#ifndef VM_STEREO_CORE_H
#define VM_STEREO_CORE_H

#include <stddef.h>
#include <stdint.h>

#include "stereo_kernels.h"

// Disparities inside the matcher are fixed point with this many steps per pixel.
#define STEREO_SUBPIXEL 16
#define STEREO_INVALID (-1)
#define STEREO_MAX_REFINE_RADIUS 4

struct StereoParams {
  int32_t width, height;
  int32_t minDisparity;  // pixels; the search covers minDisparity .. minDisparity + disparities - 1
  int32_t disparities;   // a multiple of 8
  int32_t quality;       // 1: sparse 9x7 census (30 bits); 2: full 9x7 census (62 bits)
  int32_t paths;         // 4 (horizontal and vertical) or 8 (plus diagonals)
  int32_t passes;        // 2: all paths; 1: one top-to-bottom pass, the bottom-to-top paths left out
  int32_t p1, p2;        // smoothness penalties (0 = the mode's defaults)
  int32_t p2Halving;     // luma step (levels) between neighbours at which P2 is halved (0 = 24)
  int32_t uniqueness;    // percent
  int32_t speckleSize;   // components smaller than this (pixels) are removed; 0 = by image size
  int32_t planeStep;     // plane fitting over uniform regions: largest luma step between neighbours
  int32_t planeRange;    // and across a region (levels); planeMinSize 0 turns it off
  int32_t planeMinSize;  // regions smaller than this (pixels) keep the matcher's values
  bool fill;             // fill holes so that the output is dense
  int32_t refineRadius;  // edge refinement after filling: window radius 0 (off) .. STEREO_MAX_REFINE_RADIUS
  int32_t sideSupport;   // before it, the side of each jump from the right view: support radius 0 (off) .. 4
  bool simd;             // the fastest kernels this processor runs; false: the plain reference
  bool bytePaths;        // path costs in bytes where that is exact (same results, faster)
};

// One uniform region's plane: sums over the pixels of the current fit, then d = (a x + b y + c)
// / 2^16 in 1/STEREO_SUBPIXEL pixels.
struct StereoPlane {
  int64_t n, sx, sy, sxx, sxy, syy, sd, sxd, syd;
  int64_t a, b, c;
  int32_t size;     // the region's pixels
  int32_t matched;  // and how many of them were matched
  int32_t ok;       // the fit holds so far
};

struct StereoBuffers {
  StereoParams params;
  const StereoKernels* kernels;  // a kernel set forced by tests; null: chosen by params.simd
  size_t bytes;                  // total of everything below
  uint64_t* censusL;
  uint64_t* censusR;
  uint8_t* padded;     // (width + 2 x 4 + 32) x (height + 2 x 3): the image with repeated borders
  uint64_t* reversed;  // one right-view row reversed, with zero margins (see StereoCostRowFn)
  uint16_t* cost;      // 2 x width x disparities: the costs of the rows being aggregated (16-bit form)
  uint8_t* costs;      // width x height x disparities: the costs, kept for the backward pass
  uint16_t* sum;       // width x height x disparities: forward paths, summed
  uint16_t* rowSum;    // 2 x width x disparities: all paths of the rows being selected
  uint16_t p2ForStep[256];
  uint16_t* pathPrev;  // per path: (width + 2) x (disparities + 2), previous row / pixel
  uint16_t* pathCur;
  uint16_t* minPrev;  // per path: (width + 2) minima of the rows above
  uint16_t* minCur;
  uint16_t* rowMin;  // best aggregated cost per right-view pixel, with scratch margins
  int16_t* rowDisp;  // its disparity index
  int16_t* dispL;    // fixed point, STEREO_INVALID where unknown
  int16_t* dispR;    // integer pixels of the right view (for the left-right check)
  int32_t* labels;
  int32_t* stack;
  uint8_t* holeKind;    // 0 valid, 1 mismatch / occlusion, 2 other
  StereoPlane* planes;  // n / planeMinSize of them (null when plane fitting is off)
  int32_t maxPlanes;
  int32_t refineLuma[256];  // edge refinement weights (1/256) by luma difference and by offset
  int32_t refineSpace[2 * STEREO_MAX_REFINE_RADIUS + 1][2 * STEREO_MAX_REFINE_RADIUS + 1];
};

// Defaults for a size and range; returns false when the sizes are unusable.
bool stereo_params_default(StereoParams* p, int32_t width, int32_t height, int32_t minDisparity, int32_t disparities,
                           int32_t quality);

// Bytes stereo_alloc would take, or 0 when the sizes overflow or are out of range.
size_t stereo_bytes_needed(const StereoParams* p);
bool stereo_alloc(StereoBuffers* b, const StereoParams* p);
void stereo_free(StereoBuffers* b);

// Left (main) and right (sub) luma, rectified, width x height with the given strides. Writes
// the left view's disparity in 1/STEREO_SUBPIXEL pixels (STEREO_INVALID where unknown; with
// `fill` set every pixel gets a value when any pixel was matched).
void stereo_run(StereoBuffers* b, const uint8_t* left, int32_t leftStride, const uint8_t* right, int32_t rightStride,
                int16_t* disparity);

// Stages, exposed for tests. `kernels` null means the plain reference.
void stereo_census(const uint8_t* img, int32_t stride, int32_t width, int32_t height, int32_t quality, uint64_t* out);
void stereo_census_with(const StereoKernels* kernels, const uint8_t* img, int32_t stride, int32_t width, int32_t height,
                        int32_t quality, uint64_t* out);
// The census window of a quality mode (30 or 62 bits).
const StereoCensusShape* stereo_census_shape(int32_t quality);
int32_t stereo_census_bits(int32_t quality);
// Dense hole filling of b->dispL guided by the main luma (b->holeKind says which holes are
// left-right failures). Fills in place; uses labels and stack as scratch; allocates nothing.
void stereo_fill_holes(StereoBuffers* b, const uint8_t* img, int32_t stride);
// Planes over the uniform regions of the main image (regions of planeMinSize or more pixels whose
// luma stays within planeRange): where one plane explains at least half of a region's matched
// pixels to within a pixel, the region's values near it and its holes other than occlusions take
// the plane. Uses labels, stack and dispR as scratch; allocates nothing.
void stereo_fit_planes(StereoBuffers* b, const uint8_t* img, int32_t stride);
// Edge refinement of the filled map in b->dispL: where the window of radius params.refineRadius
// holds a jump of more than one pixel, each pixel takes the weighted median of its window (weights from luma
// similarity to the centre and from distance), so depth edges follow the main image's edges.
// Uses dispR and labels as scratch; allocates nothing.
void stereo_refine_edges(StereoBuffers* b, const uint8_t* img, int32_t stride);
// Before it: a pixel more than two pixels nearer than a neighbour takes the neighbour's value
// where the right view says the far surface matches its support (params.sideSupport) better, so
// that the nearer surface does not spread over its neighbour. Occlusions (holeKind 1) are left
// alone. Uses dispR and labels as scratch; allocates nothing.
void stereo_pick_sides(StereoBuffers* b, const uint8_t* left, int32_t leftStride, const uint8_t* right,
                       int32_t rightStride);
void stereo_remove_speckles(int16_t* disp, int32_t width, int32_t height, int32_t maxSize, int32_t maxDiff,
                            int32_t* labels, int32_t* stack);

#endif  // VM_STEREO_CORE_H
