// Plane utilities and the frame copy, each beside memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "flow/session_context.h"
#include "image/image_utility.h"
#include "memory/buffer_manager.h"

namespace {

void BM_ScaleRotate1080pTo320x240(benchmark::State& state) {
  const int32_t code = static_cast<int32_t>(state.range(0));
  std::vector<uint8_t> src(1920 * 1080 * 3 / 2, 77);
  std::vector<uint8_t> p0(320 * 240), p1(320 * 240), p2(320 * 240);
  for (auto _ : state) {
    image_utility_nv12_scale_rotate(src.data(), p0.data(), p1.data(), p2.data(), 1920, 1080, 1920, 1080, 320, 240,
                                    plane_turn_from_layout(code), nullptr, 0);
    benchmark::DoNotOptimize(p0.data());
  }
  state.SetBytesProcessed(state.iterations() * 3 * 320 * 240);
}
BENCHMARK(BM_ScaleRotate1080pTo320x240)->DenseRange(1, 4);

// memcpy of the three output planes the scaler writes.
void BM_Memcpy3Planes320x240(benchmark::State& state) {
  std::vector<uint8_t> a(3 * 320 * 240, 1), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(a.size()));
}
BENCHMARK(BM_Memcpy3Planes320x240);

void BM_DepthTurn320x240(benchmark::State& state) {
  const int32_t direction = static_cast<int32_t>(state.range(0));
  const PlaneTurn turns[3] = {TURN_QUARTER_CW, TURN_QUARTER_CCW, TURN_HALF};
  std::vector<uint16_t> src(320 * 240, 5), dst(320 * 240);
  for (auto _ : state) {
    if (direction == 3)
      image_utility_rotate180(src.data(), 320, 240);
    else
      image_utility_rotate(dst.data(), src.data(), 320, 240, turns[direction]);
    benchmark::DoNotOptimize(dst.data());
    benchmark::DoNotOptimize(src.data());
  }
  state.SetBytesProcessed(state.iterations() * 320 * 240 * 2);
}
// 0 clockwise, 1 counter-clockwise, 2 half turn into another map, 3 half turn in place.
BENCHMARK(BM_DepthTurn320x240)->DenseRange(0, 3);

void BM_Memcpy320x240x2(benchmark::State& state) {
  std::vector<uint16_t> a(320 * 240, 1), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size() * 2);
    benchmark::DoNotOptimize(b.data());
  }
  state.SetBytesProcessed(state.iterations() * 320 * 240 * 2);
}
BENCHMARK(BM_Memcpy320x240x2);

void BM_CopyFrame1080p(benchmark::State& state) {
  const int32_t format = static_cast<int32_t>(state.range(0));
  const int32_t w = 1920, h = 1080;
  std::vector<uint8_t> frame(w * h * 3 / 2, 9), dstBlock(w * h * 2 + 16);
  ImageDesc src{};
  src.data = frame.data();
  src.plane2 = frame.data() + w * h;
  src.size = w * h * 3 / 2;
  BufferHalf dst;
  dst.data = dstBlock.data();
  dst.capacity = static_cast<int32_t>(dstBlock.size());
  for (auto _ : state) {
    dst.size = dst.capacity;
    buffer_manager_copy_buffer_from_trigger(&dst, &src, format, w, h, w, h);
    benchmark::DoNotOptimize(dst.data);
  }
  state.SetBytesProcessed(state.iterations() * src.size);
}
BENCHMARK(BM_CopyFrame1080p)->Arg(0)->Arg(2)->Arg(6);

void BM_MemcpyFrame1080p(benchmark::State& state) {
  std::vector<uint8_t> a(1920 * 1080 * 3 / 2, 1), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(a.size()));
}
BENCHMARK(BM_MemcpyFrame1080p);

}  // namespace

BENCHMARK_MAIN();
