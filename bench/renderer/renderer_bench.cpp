// The reference renderer's frame call and map generator, each beside memcpy of one NV21 frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "renderer_internal.h"

namespace {

constexpr int32_t kW = 1920, kH = 1080, kMw = 320, kMh = 240;

// A portrait-like scene: textured frame, a round in-focus subject in the middle of a blurred
// background (map 255 outside, 0 inside), with a soft ramp between them.
struct Scene {
  std::vector<uint8_t> frame, original, map;
  std::vector<uint16_t> depth;
  Scene() : frame(kW * kH * 3 / 2), map(kMw * kMh), depth(kMw * kMh) {
    uint32_t s = 1;
    for (size_t i = 0; i < frame.size(); ++i) {
      s = s * 1664525u + 1013904223u;
      frame[i] = static_cast<uint8_t>(60 + ((s >> 24) % 120) + (i % 97 == 0 ? 75 : 0));
    }
    original = frame;
    for (int32_t y = 0; y < kMh; ++y)
      for (int32_t x = 0; x < kMw; ++x) {
        const float d = std::hypot(static_cast<float>(x - kMw / 2), static_cast<float>(y - kMh / 2) * 1.2f);
        const float m = std::fmin(255.0f, std::fmax(0.0f, (d - 70.0f) * 8.0f));
        map[y * kMw + x] = static_cast<uint8_t>(m);
        depth[y * kMw + x] = static_cast<uint16_t>(d < 70.0f ? 600 : ((x * 7 + y) % 50 == 0 ? 1023 : 150));
      }
  }
};

// Disparity of the near object: a little nearer than the subject (600) at its far edge, much
// nearer at the frame's corner, so that its blur radius ramps up to the largest.
int32_t near_disparity(int32_t x, int32_t y) {
  return 650 + (kMw / 3 - x) * 2 + (y - kMh * 3 / 4) * 2;
}

void setup() {
  vmKtrRT_GLClose();
  vmKtrRT_GLInitV1(nullptr, 0, nullptr, 0, kW, kH, kMw, kMh, kMw, kMh, kW, kH, 0, 0, 0, 0);
  vmKtrRT_GenRefocusMap_init();
}

// Renders the scene's frame with map at fNumber once per iteration, restoring the frame between
// iterations outside the timing, and closes the renderer.
void renderLoop(benchmark::State& state, Scene& scene, const uint8_t* map, float fNumber) {
  for (auto _ : state) {
    state.PauseTiming();
    memcpy(scene.frame.data(), scene.original.data(), scene.frame.size());
    state.ResumeTiming();
    const int32_t r = vmKtrRT_GLStartV1(scene.frame.data(), scene.frame.data() + kW * kH, map, kW / 2, kH / 2, fNumber,
                                        0, 0, 0, kW, kH);
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(scene.frame.size()));
  vmKtrRT_GLClose();
}

void BM_StartV1_1080p_Map320x240(benchmark::State& state) {
  static Scene scene;
  setup();
  const float fNumber = static_cast<float>(state.range(0)) / 10.0f;
  renderLoop(state, scene, scene.map.data(), fNumber);
}
BENCHMARK(BM_StartV1_1080p_Map320x240)->Arg(14)->Arg(28)->Unit(benchmark::kMillisecond);

// The same with a map the generator made (its foreground record is found and used).
void BM_StartV1_1080p_GeneratedMap(benchmark::State& state) {
  static Scene scene;
  setup();
  uint16_t lo, hi, target;
  vmKtrRT_GenRefocusMap(scene.map.data(), scene.depth.data(), kMw / 2, kMh / 2, &lo, &hi, &target);
  renderLoop(state, scene, scene.map.data(), 1.4f);
}
BENCHMARK(BM_StartV1_1080p_GeneratedMap)->Unit(benchmark::kMillisecond);

// The same with something nearer than the subject (lower left quarter, as a table edge or a
// hand before the camera): the foreground layer is spread and composited too.
void BM_StartV1_1080p_GeneratedMapNear(benchmark::State& state) {
  static Scene scene;
  static std::vector<uint16_t> depth = [] {
    std::vector<uint16_t> d = scene.depth;
    for (int32_t y = kMh * 3 / 4; y < kMh; ++y)
      for (int32_t x = 0; x < kMw / 3; ++x) d[y * kMw + x] = static_cast<uint16_t>(near_disparity(x, y));
    return d;
  }();
  setup();
  const float fNumber = static_cast<float>(state.range(0)) / 10.0f;
  std::vector<uint8_t> map(kMw * kMh);
  uint16_t lo, hi, target;
  vmKtrRT_GenRefocusMap(map.data(), depth.data(), kMw / 2, kMh / 2, &lo, &hi, &target);
  renderLoop(state, scene, map.data(), fNumber);
}
BENCHMARK(BM_StartV1_1080p_GeneratedMapNear)->Arg(14)->Arg(28)->Unit(benchmark::kMillisecond);

// The same with a depth map from a run of the host tool (a 320 x 240 16-bit "depth" dump named
// by VMKTR_BENCH_DEPTH), the generator's map from it, focus in the middle; skipped without one.
void BM_StartV1_1080p_DepthFile(benchmark::State& state) {
  static Scene scene;
  const char* path = getenv("VMKTR_BENCH_DEPTH");
  std::vector<uint16_t> depth(kMw * kMh);
  FILE* f = path ? fopen(path, "rb") : nullptr;
  const size_t got = f ? fread(depth.data(), sizeof(uint16_t), depth.size(), f) : 0;
  if (f) fclose(f);
  if (got != depth.size()) {
    state.SkipWithError("VMKTR_BENCH_DEPTH names no 320x240 16-bit depth file");
    for (auto _ : state) {
    }
    return;
  }
  setup();
  const float fNumber = static_cast<float>(state.range(0)) / 10.0f;
  std::vector<uint8_t> map(kMw * kMh);
  uint16_t lo, hi, target;
  vmKtrRT_GenRefocusMap(map.data(), depth.data(), kMw / 2, kMh / 2, &lo, &hi, &target);
  renderLoop(state, scene, map.data(), fNumber);
}
BENCHMARK(BM_StartV1_1080p_DepthFile)->Arg(14)->Unit(benchmark::kMillisecond);

void BM_MemcpyFrame1080p(benchmark::State& state) {
  std::vector<uint8_t> a(kW * kH * 3 / 2, 1), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(a.size()));
}
BENCHMARK(BM_MemcpyFrame1080p)->Unit(benchmark::kMillisecond);

void BM_GenRefocusMap_320x240(benchmark::State& state) {
  static Scene scene;
  setup();
  std::vector<uint8_t> map(kMw * kMh);
  uint16_t lo, hi, target;
  for (auto _ : state) {
    const int32_t r = vmKtrRT_GenRefocusMap(map.data(), scene.depth.data(), kMw / 2, kMh / 2, &lo, &hi, &target);
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  vmKtrRT_GLClose();
}
BENCHMARK(BM_GenRefocusMap_320x240)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
