// GPU passes at 1920x1080 beside their CPU references. "Pass" cases time the draw alone
// (finished with glFinish), "Call" cases the one-call form with upload and read-back; memcpy
// of one RGBA frame is the yardstick for ratios.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "debug/debug_log.h"
#include "gl/gl_context.h"
#include "gl/gl_passes.h"
#include "gl/gl_reference.h"

namespace {

constexpr int kW = 1920;
constexpr int kH = 1080;

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  uint32_t s = 12345;
  for (auto& b : v) {
    s = s * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(s >> 24);
  }
  return v;
}

// The pipeline lives for the whole run, on the benchmark thread.
bool pipelineUp() {
  static bool up = [] {
    init_GL();
    return glContextRecord.isCreated == 1;
  }();
  return up;
}

bool skipWithoutGl(benchmark::State& state) {
  if (pipelineUp()) return false;
  state.SkipWithError(
      "no EGL display with window-capable configs (bench/run.sh runs this under xvfb-run -a -s \"-screen 0 640x480x24 "
      "-noreset\")");
  return true;
}

void BM_MemcpyRgbaFrame(benchmark::State& state) {
  std::vector<uint8_t> a = pattern(kW * kH * 4), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size());
    benchmark::DoNotOptimize(b.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(a.size()));
}
BENCHMARK(BM_MemcpyRgbaFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

// Inputs and targets are prepared once; each iteration draws one pass and waits for it.
enum PassKind { kNV21 = 0, kBypass = 1, kGaussX = 2, kGaussY = 3, kMask = 4 };

uint32_t drawPass(PassKind kind) {
  switch (kind) {
    case kNV21:
      return NV21toRGB(0, 1, 7);
    case kBypass:
      return shader_ScalerBypass(kGlPoolInput, 2, 7);
    case kGaussX:
      return shader_GaussX(kGlPoolInput, 2, 7);
    case kGaussY:
      return shader_GaussY(kGlPoolInput, 2, 7);
    case kMask:
      return shader_GaussMask(kGlPoolInput, 2, 7);
  }
  return 1;
}

void BM_GpuPass(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  const auto kind = static_cast<PassKind>(state.range(0));
  std::vector<uint8_t> nv21 = pattern(kW * kH * 3 / 2), rgba = pattern(kW * kH * 4);
  gl_pipeline_upload_nv21(0, 1, nv21.data(), kW, kH);
  gl_pipeline_upload(2, rgba.data(), kW, kH, kW * 4, GL_RGBA);
  gl_pipeline_prepare_target(7, kW, kH);
  drawPass(kind);  // warm-up: the driver compiles on first draw
  glFinish();
  for (auto _ : state) {
    if (drawPass(kind) != 0) state.SkipWithError("pass failed");
    glFinish();
  }
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_GpuPass)
    ->DenseRange(0, 4)
    ->ArgName("nv21_bypass_gx_gy_mask")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_CpuReference(benchmark::State& state) {
  const auto kind = static_cast<PassKind>(state.range(0));
  std::vector<uint8_t> nv21 = pattern(kW * kH * 3 / 2), rgba = pattern(kW * kH * 4), out(kW * kH * 4);
  for (auto _ : state) {
    switch (kind) {
      case kNV21:
        gl_reference_nv21_to_rgba(nv21.data(), kW, kH, out.data());
        break;
      case kBypass:  // same-size pass through the bilinear scaler over the frame's bytes
        gl_reference_scale_plane(rgba.data(), kW * 4, kH, kW * 4, out.data(), kW * 4, kH, kW * 4);
        break;
      case kGaussX:
        gl_reference_gauss_x(rgba.data(), kW, kH, out.data());
        break;
      case kGaussY:
        gl_reference_gauss_y(rgba.data(), kW, kH, out.data());
        break;
      case kMask:
        gl_reference_gauss_mask(rgba.data(), kW, kH, out.data());
        break;
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_CpuReference)
    ->DenseRange(0, 4)
    ->ArgName("nv21_bypass_gx_gy_mask")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Transfers alone: one RGBA frame up into a texture, and one back from a target.
void BM_GpuUploadRgba(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  std::vector<uint8_t> rgba = pattern(kW * kH * 4);
  for (auto _ : state) {
    if (gl_pipeline_upload(2, rgba.data(), kW, kH, kW * 4, GL_RGBA) != 0) state.SkipWithError("upload failed");
    glFinish();
  }
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_GpuUploadRgba)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GpuReadRgba(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  std::vector<uint8_t> out(kW * kH * 4);
  gl_pipeline_prepare_target(7, kW, kH);
  for (auto _ : state)
    if (gl_pipeline_read_rgba(7, out.data(), static_cast<int64_t>(out.size())) != 0) state.SkipWithError("failed");
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_GpuReadRgba)->Unit(benchmark::kMillisecond)->UseRealTime();

// One-call forms: upload, pass(es), read-back (and CPU conversion for the NV21 blur).
void BM_GpuCallNV21ToRgba(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  std::vector<uint8_t> nv21 = pattern(kW * kH * 3 / 2), out(kW * kH * 4);
  gl_pipeline_nv21_to_rgba(nv21.data(), kW, kH, out.data());  // warm-up: the driver compiles on first draw
  for (auto _ : state)
    if (gl_pipeline_nv21_to_rgba(nv21.data(), kW, kH, out.data()) != 0) state.SkipWithError("call failed");
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_GpuCallNV21ToRgba)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GpuCallBlurRgba(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  const auto blur = static_cast<GlBlur>(state.range(0));
  std::vector<uint8_t> rgba = pattern(kW * kH * 4), out(kW * kH * 4);
  gl_pipeline_blur_rgba(rgba.data(), kW, kH, blur, out.data());  // warm-up
  for (auto _ : state)
    if (gl_pipeline_blur_rgba(rgba.data(), kW, kH, blur, out.data()) != 0) state.SkipWithError("call failed");
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_GpuCallBlurRgba)->DenseRange(0, 3)->ArgName("x_y_xy_mask")->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GpuCallBlurNV21XY(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  std::vector<uint8_t> nv21 = pattern(kW * kH * 3 / 2), out(nv21.size());
  gl_pipeline_blur_nv21(nv21.data(), kW, kH, kGlBlurXY, out.data());  // warm-up
  for (auto _ : state)
    if (gl_pipeline_blur_nv21(nv21.data(), kW, kH, kGlBlurXY, out.data()) != 0) state.SkipWithError("call failed");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(nv21.size()));
}
BENCHMARK(BM_GpuCallBlurNV21XY)->Unit(benchmark::kMillisecond)->UseRealTime();

// The GPU scaling path against the CPU bilinear reference: 1920x1080 plane to 640x360.
void BM_GpuCallScalePlane(benchmark::State& state) {
  if (skipWithoutGl(state)) return;
  std::vector<uint8_t> src = pattern(kW * kH), dst(640 * 360);
  gl_pipeline_scale_plane(src.data(), kW, kH, kW, dst.data(), 640, 360, 640);  // warm-up
  for (auto _ : state)
    if (gl_pipeline_scale_plane(src.data(), kW, kH, kW, dst.data(), 640, 360, 640) != 0)
      state.SkipWithError("call failed");
  state.SetBytesProcessed(state.iterations() * kW * kH);
}
BENCHMARK(BM_GpuCallScalePlane)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CpuScalePlane(benchmark::State& state) {
  std::vector<uint8_t> src = pattern(kW * kH), dst(640 * 360);
  for (auto _ : state) {
    gl_reference_scale_plane(src.data(), kW, kH, kW, dst.data(), 640, 360, 640);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() * kW * kH);
}
BENCHMARK(BM_CpuScalePlane)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CpuRgbaToNV21(benchmark::State& state) {
  std::vector<uint8_t> rgba = pattern(kW * kH * 4), out(kW * kH * 3 / 2);
  for (auto _ : state) {
    gl_pipeline_rgba_to_nv21(rgba.data(), kW, kH, 4, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * kW * kH * 4);
}
BENCHMARK(BM_CpuRgbaToNV21)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
