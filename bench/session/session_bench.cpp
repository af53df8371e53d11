// vmKtrRT_SC_Run's own cost at 1920 x 1080 with the recording fakes (their render call does next
// to nothing), while the scene is unsettled and once it is stable, beside memcpy of one frame.
// The fake engines sleep as real ones take time, so the workers do not compete for the cores.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "session_support.h"
#include "vm_host_platform.h"

namespace {

constexpr size_t kFrameBytes = 1920 * 1080 * 3 / 2;

void BM_MemcpyOneFrame1080p(benchmark::State& state) {
  std::vector<uint8_t> a(kFrameBytes, 1), b(kFrameBytes);
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_MemcpyOneFrame1080p);

// range(0): 0 unsettled (two scenes alternate), 1 stable (one still scene).
void BM_Run1080p(benchmark::State& state) {
  const bool stable = state.range(0) == 1;
  fakes::reset();
  fakes::setDelayMs("vmDpx2_Run_Express", 20);
  fakes::setDelayMs("vmKtrRT_GenRefocusMap", 10);
  Frames a(1920, 1080, 1280, 720, 320, 240);
  Frames b(1920, 1080, 1280, 720, 320, 240);
  b.paint(5);
  if (vmKtrRT_SC_Init(a.init()) != 0) {
    state.SkipWithError("Init failed");
    return;
  }
  const TriggerData ta = a.centred(), tb = b.centred();
  // Let a still scene settle before measuring it.
  if (stable)
    for (int i = 0; i < 20; ++i) vmKtrRT_SC_Run(ta);
  int64_t frame = 0;
  int64_t withMap = 0;
  for (auto _ : state) {
    const uint32_t r = vmKtrRT_SC_Run(stable || (frame & 1) == 0 ? ta : tb);
    withMap += r == 0 ? 1 : 0;
    ++frame;
  }
  vmKtrRT_SC_Deinit();
  state.counters["withMap"] = benchmark::Counter(static_cast<double>(withMap) / static_cast<double>(frame));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_Run1080p)->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  setenv("VM_HOST_LOG", "none", 1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
