// bokeh_cpu_internal.h - what the CPU bokeh renderer's stage files share: tuning constants,
// chroma plane access, the disc table of the gathers and the four stages render_bokeh runs.
#ifndef VMKTR_REFERENCE_RENDERER_BOKEH_CPU_INTERNAL_H
#define VMKTR_REFERENCE_RENDERER_BOKEH_CPU_INTERNAL_H

#include <stdint.h>

#include "renderer_internal.h"

// Largest gather radius in grid pixels; keeps the 32-bit table sums exact (docs/renderer.md).
constexpr float kMaxGridRadius = 24.0f;
// Background weights and highlight gain: a sample weighs kCoverScale when fully blurred, times
// the highlight gain (16 = 1x .. 144 = 9x) of its luma.
constexpr uint32_t kCoverScale = 32;
// A background sample's weight grows with its own blur radius from 0.25 cells and is full
// kCoverRampCells later: a gather weighs the samples that reach it over those that do not (a
// ramp of 0.75 cells let the rims of slightly blurred objects glow into far backgrounds).
constexpr float kCoverRampCells = 3.0f;
constexpr float kHighlightStart = 200.0f;
constexpr float kHighlightGain = 8.0f;
// Range of the edge guide (luma levels) and the blend ramp of the radius between the pixel and
// the background layer, in grid cells: the layer's least blur is about a cell and a half, so a
// ramp in frame pixels would leave small radii on the 4 x 4 grid blurred twice as much as asked.
constexpr float kGuideSigma = 14.0f;
constexpr float kBlendStartCells = 0.25f;
constexpr float kBlendWidthCells = 1.25f;
// Grid-radius difference (grid pixels) between neighbouring samples above which the radius is
// edge-guided rather than interpolated.
constexpr float kGuideMinStep = 1.0f;

typedef float Vec4 __attribute__((vector_size(16)));
typedef int32_t Vec4i __attribute__((vector_size(16)));

inline float clampf(float v, float lo, float hi) {
  return v < lo ? lo : (v > hi ? hi : v);
}

// The two chroma channels of a frame, whatever their layout.
struct ChromaAccess {
  uint8_t* u;
  uint8_t* v;
  int32_t step;    // bytes between neighbouring samples of one channel
  int32_t stride;  // bytes between rows
};
ChromaAccess bokeh_chroma_access(uint8_t* chroma, int32_t width, int32_t height, int32_t layout);

// Per disc level: the squared radius of the round disc with the same spread as the level's shape
// (a disc of radius r has variance r^2 / 4 along an axis, the shape sum(x^2) / count) and the
// reciprocal of its sample count where the grid does not clip it.
constexpr int32_t kDiscLevels = 28;
struct DiscTable {
  float r2[kDiscLevels];
  float inv[kDiscLevels];
};
void bokeh_disc_table(DiscTable* t);

// Disc of fractional radius r: a mixture of the two levels around it whose spread is that of
// the round disc.
struct DiscLevel {
  int32_t n;
  float f;  // 0: level n alone, 1: level n + 1 alone, between: the mixture
};
// The last radius whose disc level was looked up, and that level: neighbours mostly share their
// radius. Each layer keeps its own (they map a radius to different discs).
struct DiscLevelCache {
  float radius;
  DiscLevel level;
};

// What the grid stage found: whether any sample is blurred, and whether any lies in front.
struct GridFindings {
  bool anyBlur;
  bool anyNear;
};

// Stage 1: the grid of S x S cells. Blur radius (coc), the least map value of the four map
// samples around each sample (lowestLevel), the near samples' own radius (nearRadius, when a near
// mask is given), mean colour (colour) and brightest luma (peak).
template <int32_t S>
GridFindings bokeh_grid_build(RenderWork* work, const uint8_t* luma, const ChromaAccess& ca, int32_t width,
                              int32_t height, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                              int32_t mapHeight, float radiusPerLevel);
// Stage 2: the background layer (blurred) from the grid, without the sharp subject and the
// foreground; highlights weigh more so that they bloom into discs.
void bokeh_background_layer(RenderWork* work, bool anyNear, float radiusPerLevel, const DiscTable& discs,
                            DiscLevelCache* cache);
// Stage 3: the foreground layer (front: premultiplied Y, U, V and alpha) of the near samples,
// spread over their neighbourhood by their own radius.
void bokeh_foreground_layer(RenderWork* work, const DiscTable& discs);
// Stage 4: the full-resolution composite of both layers over the frame, in place.
template <int32_t S>
void bokeh_composite(RenderWork* work, uint8_t* luma, const ChromaAccess& ca, int32_t width, int32_t height,
                     bool anyNear);

extern template GridFindings bokeh_grid_build<2>(RenderWork*, const uint8_t*, const ChromaAccess&, int32_t, int32_t,
                                                 const uint8_t*, const uint8_t*, int32_t, int32_t, float);
extern template GridFindings bokeh_grid_build<4>(RenderWork*, const uint8_t*, const ChromaAccess&, int32_t, int32_t,
                                                 const uint8_t*, const uint8_t*, int32_t, int32_t, float);
extern template void bokeh_composite<2>(RenderWork*, uint8_t*, const ChromaAccess&, int32_t, int32_t, bool);
extern template void bokeh_composite<4>(RenderWork*, uint8_t*, const ChromaAccess&, int32_t, int32_t, bool);

#endif  // VMKTR_REFERENCE_RENDERER_BOKEH_CPU_INTERNAL_H
