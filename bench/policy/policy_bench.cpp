// Scene measures on a 1920 x 1080 preview, each beside memcpy of one NV21 frame of that size.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "policy/policy_manager.h"
#include "policy/scene_measure.h"

namespace {

constexpr int kW = 1920;
constexpr int kH = 1080;
constexpr size_t kFrame = static_cast<size_t>(kW) * kH * 3 / 2;

std::vector<uint8_t> frame(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> p(kFrame);
  for (auto& b : p) b = static_cast<uint8_t>(rng());
  return p;
}

// The stored frame moved by (3, 2) pixels: what a slowly panning scene looks like.
std::vector<uint8_t> shifted(const std::vector<uint8_t>& src) {
  std::vector<uint8_t> p(src);
  for (int y = 2; y < kH; ++y) memcpy(&p[y * kW + 3], &src[(y - 2) * kW], kW - 3);
  return p;
}

void BM_MemcpyFrame1080p(benchmark::State& state) {
  std::vector<uint8_t> a = frame(1), b(kFrame);
  for (auto _ : state) {
    memcpy(b.data(), a.data(), kFrame);
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrame));
}
BENCHMARK(BM_MemcpyFrame1080p);

void BM_Census1080p(benchmark::State& state) {
  std::vector<uint8_t> a = frame(2), b = shifted(a);
  for (auto _ : state) {
    int32_t r = policy_manager_scene_change_detection(a.data(), b.data(), 860, 1060, 440, 640, kW, kH);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_Census1080p);

void BM_CensusReference1080p(benchmark::State& state) {
  std::vector<uint8_t> a = frame(2), b = shifted(a);
  for (auto _ : state) {
    int32_t r = scene_measure_census_reference(a.data(), b.data(), 960, 540, kW, kH);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_CensusReference1080p);

// One 320 x 240 refocus map.
void BM_Memcpy320x240(benchmark::State& state) {
  std::vector<uint8_t> a(320 * 240, 1), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(a.size()));
}
BENCHMARK(BM_Memcpy320x240);

// Refocus-map check: the fixed 320 x 240 census.
void BM_Census320x240(benchmark::State& state) {
  std::vector<uint8_t> a(320 * 240), b(320 * 240);
  std::mt19937 rng(3);
  for (size_t i = 0; i < a.size(); ++i) a[i] = b[i] = static_cast<uint8_t>(rng());
  for (auto _ : state) {
    int32_t r = policy_manager_scene_change_detection_320x240(a.data(), b.data());
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_Census320x240);

// range(0): 0 a panned scene (true match near the centre of the search), 1 unrelated frames
// (no match anywhere: the costliest search).
void BM_MotionEstimation1080p(benchmark::State& state) {
  std::vector<uint8_t> a = frame(4);
  std::vector<uint8_t> b = state.range(0) == 0 ? shifted(a) : frame(5);
  for (auto _ : state) {
    int32_t r = policy_manager_estimate_motion(a.data(), b.data(), 860, 1060, 440, 640, kW, kH);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_MotionEstimation1080p)->Arg(0)->Arg(1);

void BM_MotionEstimationReference1080p(benchmark::State& state) {
  std::vector<uint8_t> a = frame(4);
  std::vector<uint8_t> b = state.range(0) == 0 ? shifted(a) : frame(5);
  int32_t v[5][2];
  for (auto _ : state) {
    int32_t r = scene_measure_motion_search_reference(a.data(), b.data(), 860, 1060, 440, 640, kW, kH, v);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_MotionEstimationReference1080p)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
