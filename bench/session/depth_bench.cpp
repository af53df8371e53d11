// Depth generation's own preparation and turning per camera layout at a 320 x 240 depth map from
// 1920 x 1080 and 1280 x 720 previews, with the fake engine (which only writes its pattern),
// beside memcpy of the depth map's bytes.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "depth/depth_manager.h"
#include "fakes.h"
#include "flow/session_context.h"
#include "memory/buffer_manager.h"

namespace {

void BM_MemcpyDepthMap320x240(benchmark::State& state) {
  std::vector<uint16_t> a(320 * 240, 1), b(320 * 240);
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size() * 2);
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_MemcpyDepthMap320x240);

void fill(SessionContext* c, int32_t slot) {
  BufferHalf* w = buffer_manager_get_writable(c, slot);
  memset(w->data, 90, static_cast<size_t>(w->capacity));
  buffer_manager_publish(w, buffer_manager_get_buffer(c, slot, kSlotFilled));
}

void BM_GenerateDepth320x240(benchmark::State& state) {
  const int32_t layout = static_cast<int32_t>(state.range(0));
  std::unique_ptr<SessionContext> ctx(new SessionContext());
  SessionContext* c = ctx.get();
  std::vector<uint8_t> otp(64, 1);
  c->cameraLayout = layout;
  c->slots[kSlotMain].width = 1920;
  c->slots[kSlotMain].height = 1080;
  c->slots[kSlotSub].width = 1280;
  c->slots[kSlotSub].height = 720;
  const bool turned = layout == 3 || layout == 4;
  c->slots[kSlotDepth].width = turned ? 240 : 320;
  c->slots[kSlotDepth].height = turned ? 320 : 240;
  c->slots[kSlotRefocus].width = 320;
  c->slots[kSlotRefocus].height = 240;
  c->otpCopy = otp.data();
  c->otpSize = 64;
  buffer_manager_allocate(c);
  fakes::reset();
  if (depth_manager_create_thread(c) != 0) {
    state.SkipWithError("worker set-up failed");
    return;
  }
  fill(c, kSlotMain);
  fill(c, kSlotSub);
  for (auto _ : state) {
    // The same frames again: their used marks are taken off outside the measured work.
    state.PauseTiming();
    buffer_manager_unmark(buffer_manager_get_buffer(c, kSlotMain, kSlotFilled), kSlotUsedByEngine);
    buffer_manager_unmark(buffer_manager_get_buffer(c, kSlotSub, kSlotFilled), kSlotUsedByEngine);
    state.ResumeTiming();
    benchmark::DoNotOptimize(depth_manager_generate_depth(c, &c->depth.worker));
  }
  depth_manager_deinit(c);
  buffer_manager_free(c);
}
BENCHMARK(BM_GenerateDepth320x240)->DenseRange(1, 4);

}  // namespace

int main(int argc, char** argv) {
  setenv("VM_HOST_LOG", "none", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
