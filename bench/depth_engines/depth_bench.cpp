// depth_bench.cpp - the reference depth engines at 320x240 with a 64-pixel search range beside
// memcpy of the input bytes, and (when built with OpenCV) StereoSGBM on the same pair, so that
// results read as ratios from one run.
#include <benchmark/benchmark.h>
#include <string.h>

#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "synth_scene.h"

#ifdef VM_BENCH_OPENCV
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#endif

namespace {

const int32_t W = 320, H = 240;

struct Input {
  std::vector<uint8_t> mainNv21, subNv21, mainPlanes, subPlanes, mainRgb, subRgb;
  uint8_t calib[CALIB_BLOCK_SIZE];
};

const Input& input() {
  static Input in;
  static bool made = false;
  if (!made) {
    SceneSpec s;
    scene_default(&s, 1);
    s.noiseSigma = 1.5f;
    in.mainRgb.resize(size_t(W) * H * 3);
    in.subRgb.resize(size_t(W) * H * 3);
    scene_render_rgb(&s, 0, 0, W, H, 2, in.mainRgb.data());
    scene_render_rgb(&s, 0, 1, W, H, 2, in.subRgb.data());
    in.mainNv21.resize(size_t(W) * H * 3 / 2);
    in.subNv21.resize(size_t(W) * H * 3 / 2);
    scene_rgb_to_nv21(in.mainRgb.data(), W, H, in.mainNv21.data());
    scene_rgb_to_nv21(in.subRgb.data(), W, H, in.subNv21.data());
    in.mainPlanes.assign(size_t(W) * H * 3, 128);
    in.subPlanes.assign(size_t(W) * H * 3, 128);
    memcpy(in.mainPlanes.data(), in.mainNv21.data(), size_t(W) * H);
    memcpy(in.subPlanes.data(), in.subNv21.data(), size_t(W) * H);
    CalibBlock cb;
    calib_block_defaults(&cb, W, H, W, H, 0.0f, 62.0f);  // 64 disparities searched
    calib_block_write(&cb, in.calib, sizeof(in.calib));
    made = true;
  }
  return in;
}

void BM_Memcpy_InputPair(benchmark::State& state) {
  const Input& in = input();
  std::vector<uint8_t> dst(in.mainPlanes.size() * 2);
  for (auto _ : state) {
    memcpy(dst.data(), in.mainPlanes.data(), in.mainPlanes.size());
    memcpy(dst.data() + in.mainPlanes.size(), in.subPlanes.data(), in.subPlanes.size());
    benchmark::DoNotOptimize(dst.data());
  }
}
BENCHMARK(BM_Memcpy_InputPair);

void BM_Dpx2_Run_Express(benchmark::State& state) {
  Input in = input();
  vmDpx2_CameraLayout_Set_LV(2);
  vmDpx2RT_FieldofDepth_Set(int32_t(state.range(0)));
  if (vmDpx2_Express_Init(in.calib, sizeof(in.calib), W, H, nullptr, 0) != 0) {
    state.SkipWithError("init failed");
    return;
  }
  const size_t n = size_t(W) * H;
  DpxImage m{DPX_IMAGE_FORMAT_YUV444_PLANAR,
             {0, 0, 0},
             {in.mainPlanes.data(), in.mainPlanes.data() + n, in.mainPlanes.data() + 2 * n}};
  DpxImage s{DPX_IMAGE_FORMAT_YUV444_PLANAR,
             {0, 0, 0},
             {in.subPlanes.data(), in.subPlanes.data() + n, in.subPlanes.data() + 2 * n}};
  std::vector<uint16_t> out(n);
  for (auto _ : state) {
    vmDpx2_Run_Express(out.data(), &m, &s, 0, 0);
    benchmark::DoNotOptimize(out.data());
  }
  vmDpx2_Express_Close();
}
BENCHMARK(BM_Dpx2_Run_Express)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_Memcpy_Depth(benchmark::State& state) {
  std::vector<uint16_t> a(size_t(W) * H, 3), b(a.size());
  for (auto _ : state) {
    memcpy(b.data(), a.data(), a.size() * 2);
    benchmark::DoNotOptimize(b.data());
  }
}
BENCHMARK(BM_Memcpy_Depth);

void BM_Zu_TemporalFilter(benchmark::State& state) {
  const int32_t mw = 1920, mh = 1080;
  std::vector<uint8_t> guide(size_t(mw) * mh);
  for (size_t i = 0; i < guide.size(); ++i) guide[i] = uint8_t(i * 7);
  std::vector<uint16_t> in(size_t(W) * H), out(in.size());
  for (size_t i = 0; i < in.size(); ++i) in[i] = uint16_t(300 + (i * 13) % 17);
  vmZu_TemporalFilterU16_Init(mw, mh, W, H);
  for (auto _ : state) {
    vmZu_TemporalFilterU16_Run(out.data(), in.data(), W, H, guide.data(), mw, mh);
    benchmark::DoNotOptimize(out.data());
  }
  vmZu_TemporalFilterU16_Close();
}
BENCHMARK(BM_Zu_TemporalFilter)->Unit(benchmark::kMicrosecond);

#ifdef VM_BENCH_OPENCV
// StereoSGBM with its recommended settings on the same pair (colour), single-threaded.
void BM_OpenCV_StereoSGBM(benchmark::State& state) {
  const Input& in = input();
  cv::setNumThreads(1);
  cv::Mat left(H, W, CV_8UC3, const_cast<uint8_t*>(in.mainRgb.data()));
  cv::Mat right(H, W, CV_8UC3, const_cast<uint8_t*>(in.subRgb.data()));
  auto sgbm = cv::StereoSGBM::create(0, 64, 5, 8 * 3 * 25, 32 * 3 * 25, 1, 0, 10, 100, 32);
  cv::Mat disp;
  for (auto _ : state) {
    sgbm->compute(left, right, disp);
    benchmark::DoNotOptimize(disp.data);
  }
}
BENCHMARK(BM_OpenCV_StereoSGBM)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
