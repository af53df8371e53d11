// bokeh_cpu.cpp - the CPU bokeh renderer: a quarter-resolution grid of colour and blur radius,
// disc-shaped gathers over a summed-area table (background layer without the sharp subject,
// foreground layer spread over what lies behind it), then an edge-guided composite at full
// resolution that leaves sharp pixels untouched. This file holds the working storage and runs
// the stages; each stage has a file of its own (bokeh_cpu_grid, _blur, _composite).
#include <stdlib.h>
#include <string.h>

#include "bokeh_cpu_internal.h"

ChromaAccess bokeh_chroma_access(uint8_t* chroma, int32_t width, int32_t height, int32_t layout) {
  ChromaAccess a;
  if (layout == CHROMA_PLANAR) {
    a.u = chroma;
    a.v = chroma + static_cast<size_t>(width / 2) * (height / 2);
    a.step = 1;
    a.stride = width / 2;
  } else {
    a.v = layout == CHROMA_VU_INTERLEAVED ? chroma : chroma + 1;
    a.u = layout == CHROMA_VU_INTERLEAVED ? chroma + 1 : chroma;
    a.step = 2;
    a.stride = width;
  }
  return a;
}

float render_max_radius(int32_t frameWidth, float fNumber) {
  if (!(fNumber == fNumber)) fNumber = kReferenceFNumber;  // NaN
  fNumber = clampf(fNumber, kMinFNumber, kMaxFNumber);
  return kMaxRadiusFraction * static_cast<float>(frameWidth) * kReferenceFNumber / fNumber;
}

int32_t render_work_alloc(RenderWork* work, int32_t width, int32_t height, int32_t mapWidth, int32_t mapHeight) {
  memset(work, 0, sizeof(*work));
  // Large frames use a 4 x 4 grid cell, smaller ones 2 x 2 (their blur radii are small).
  const int32_t scale = width >= kScaleFourWidth ? 4 : 2;
  const int32_t gw = (width + scale - 1) / scale, gh = (height + scale - 1) / scale;
  const size_t plane = static_cast<size_t>(gw) * gh;
  work->scale = scale;
  work->gridWidth = gw;
  work->gridHeight = gh;
  work->coc = static_cast<float*>(malloc(plane * sizeof(float)));
  work->colour = static_cast<float*>(malloc(3 * plane * sizeof(float)));
  work->blurred = static_cast<float*>(malloc(3 * plane * sizeof(float)));
  work->front = static_cast<float*>(malloc(4 * plane * sizeof(float)));
  work->sat = static_cast<uint32_t*>(malloc(static_cast<size_t>(gw + 1) * (gh + 1) * 4 * sizeof(uint32_t)));
  work->nearDilated = static_cast<float*>(malloc(plane * sizeof(float)));
  work->nearRadius = static_cast<float*>(malloc(plane * sizeof(float)));
  work->lowestLevel = static_cast<uint8_t*>(malloc(plane));
  work->peak = static_cast<uint8_t*>(malloc(plane));
  work->radiusMax3 = static_cast<float*>(malloc(plane * sizeof(float)));
  work->dilateScratch = static_cast<float*>(malloc(plane * sizeof(float)));
  work->mapColumn = static_cast<float*>(malloc(static_cast<size_t>(gw) * sizeof(float)));
  work->nearMap = static_cast<uint8_t*>(malloc(static_cast<size_t>(mapWidth) * mapHeight));
  work->rowT = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->rowA = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->rowB = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->rowC = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->lineSum = static_cast<uint16_t*>(malloc(static_cast<size_t>(width) * sizeof(uint16_t)));
  work->chromaSum = static_cast<uint16_t*>(malloc(static_cast<size_t>(width) * sizeof(uint16_t)));
  work->linePeak = static_cast<uint8_t*>(malloc(static_cast<size_t>(width)));
  work->rowF = static_cast<float*>(malloc(static_cast<size_t>(width) * sizeof(float)));
  work->gridRows = static_cast<float*>(malloc(static_cast<size_t>(7 * (gw + 2) + 2) * sizeof(float)));
  work->weight = static_cast<uint32_t*>(malloc(plane * sizeof(uint32_t)));
  work->upRows = static_cast<float*>(malloc(static_cast<size_t>(width) * 6 * sizeof(float)));
  work->spans = static_cast<int32_t*>(malloc(static_cast<size_t>(gw + 2) * 3 * sizeof(int32_t)));
  if (!work->upRows || !work->spans || !work->coc || !work->colour || !work->blurred || !work->front || !work->sat ||
      !work->nearDilated || !work->nearMap || !work->rowT || !work->rowA || !work->weight || !work->rowB ||
      !work->rowC || !work->lineSum || !work->linePeak || !work->rowF || !work->gridRows || !work->nearRadius ||
      !work->lowestLevel || !work->peak || !work->radiusMax3 || !work->dilateScratch || !work->mapColumn ||
      !work->chromaSum) {
    render_work_free(work);
    return RGL_ERR_MEMORY;
  }
  return RGL_OK;
}

void render_work_free(RenderWork* work) {
  free(work->coc);
  free(work->colour);
  free(work->blurred);
  free(work->front);
  free(work->sat);
  free(work->nearDilated);
  free(work->nearRadius);
  free(work->lowestLevel);
  free(work->peak);
  free(work->radiusMax3);
  free(work->dilateScratch);
  free(work->mapColumn);
  free(work->nearMap);
  free(work->rowT);
  free(work->rowA);
  free(work->rowB);
  free(work->rowC);
  free(work->lineSum);
  free(work->chromaSum);
  free(work->linePeak);
  free(work->rowF);
  free(work->gridRows);
  free(work->weight);
  free(work->upRows);
  free(work->spans);
  memset(work, 0, sizeof(*work));
}

namespace {

template <int32_t S>
void render_scaled(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height,
                   int32_t chromaLayout, const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth,
                   int32_t mapHeight, float fNumber) {
  const float radiusPerLevel = render_max_radius(width, fNumber) / S / 255.0f;
  DiscTable discs;
  bokeh_disc_table(&discs);
  const ChromaAccess ca = bokeh_chroma_access(chroma, width, height, chromaLayout);
  const GridFindings found =
      bokeh_grid_build<S>(work, luma, ca, width, height, map, nearMask, mapWidth, mapHeight, radiusPerLevel);
  if (!found.anyBlur) return;  // nothing to blur: the frame stays as it is
  DiscLevelCache cache{-1.0f, DiscLevel{0, 0.0f}};
  bokeh_background_layer(work, found.anyNear, radiusPerLevel, discs, &cache);
  if (found.anyNear) bokeh_foreground_layer(work, discs);
  bokeh_composite<S>(work, luma, ca, width, height, found.anyNear);
}

}  // namespace

void render_bokeh(RenderWork* work, uint8_t* luma, uint8_t* chroma, int32_t width, int32_t height, int32_t chromaLayout,
                  const uint8_t* map, const uint8_t* nearMask, int32_t mapWidth, int32_t mapHeight, float fNumber) {
  if (work->scale == 4) {
    render_scaled<4>(work, luma, chroma, width, height, chromaLayout, map, nearMask, mapWidth, mapHeight, fNumber);
  } else {
    render_scaled<2>(work, luma, chroma, width, height, chromaLayout, map, nearMask, mapWidth, mapHeight, fNumber);
  }
}
