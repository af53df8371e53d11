// temporal_eval.cpp - vm_temporal_eval: figures of the temporal filter on synthetic sequences
// run through the stereo engine: on a still scene with sensor noise, the mean frame-to-frame
// change of depth on static pixels with and without the filter; on a moving-object sequence,
// the mean error against ground truth with and without it.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "engines.h"
#include "synth_scene.h"

namespace {

const int32_t W = 320, H = 240, MW = 640, MH = 360;

struct Sequence {
  double changeRaw = 0, changeFiltered = 0, errorRaw = 0, errorFiltered = 0;
};

Sequence run(int32_t motion, float amount, int32_t frames, uint32_t seed) {
  SceneSpec s;
  scene_default(&s, seed);
  s.noiseSigma = 2.0f;
  s.motion = motion;
  s.motionAmount = amount;
  uint8_t calib[128];
  scene_calibration(&s, MW, MH, MW, MH, calib, sizeof(calib));
  vmDpx2_CameraLayout_Set_LV(2);
  vmDpx2RT_FieldofDepth_Set(1);
  vmDpx2_Express_Init(calib, sizeof(calib), W, H, nullptr, 0);
  vmZu_TemporalFilterU16_Init(MW, MH, W, H);
  const size_t n = size_t(W) * H;
  std::vector<uint8_t> nv21(n * 3 / 2), mainPlanes(3 * n, 128), subPlanes(3 * n, 128), guide(size_t(MW) * MH * 3 / 2);
  std::vector<uint16_t> raw(n), filtered(n), prevRaw(n), prevFiltered(n);
  std::vector<float> truth(n), prevTruth(n);
  Sequence q;
  size_t changeCount = 0, errorCount = 0;
  for (int32_t f = 0; f < frames; ++f) {
    scene_render_nv21(&s, f, 0, W, H, 1, nv21.data());
    memcpy(mainPlanes.data(), nv21.data(), n);
    scene_render_nv21(&s, f, 1, W, H, 1, nv21.data());
    memcpy(subPlanes.data(), nv21.data(), n);
    scene_render_nv21(&s, f, 0, MW, MH, 1, guide.data());
    scene_truth_disparity(&s, f, W, H, truth.data());
    DpxImage m{DPX_IMAGE_FORMAT_YUV444_PLANAR,
               {0, 0, 0},
               {mainPlanes.data(), mainPlanes.data() + n, mainPlanes.data() + 2 * n}};
    DpxImage sub{
        DPX_IMAGE_FORMAT_YUV444_PLANAR, {0, 0, 0}, {subPlanes.data(), subPlanes.data() + n, subPlanes.data() + 2 * n}};
    vmDpx2_Run_Express(raw.data(), &m, &sub, 0, 0);
    vmZu_TemporalFilterU16_Run(filtered.data(), raw.data(), W, H, guide.data(), MW, MH);
    for (size_t i = 0; i < n; ++i) {
      if (raw[i] >= 1023 || filtered[i] >= 1023) continue;
      if (f >= 3) {  // after the filter has settled
        q.errorRaw += fabs(raw[i] / 16.0 - truth[i]);
        q.errorFiltered += fabs(filtered[i] / 16.0 - truth[i]);
        ++errorCount;
      }
      if (f >= 3 && fabsf(truth[i] - prevTruth[i]) < 0.01f && prevRaw[i] < 1023 && prevFiltered[i] < 1023) {
        q.changeRaw += abs(int(raw[i]) - int(prevRaw[i])) / 16.0;
        q.changeFiltered += abs(int(filtered[i]) - int(prevFiltered[i])) / 16.0;
        ++changeCount;
      }
    }
    prevRaw = raw;
    prevFiltered = filtered;
    prevTruth = truth;
  }
  vmDpx2_Express_Close();
  vmZu_TemporalFilterU16_Close();
  if (changeCount) q.changeRaw /= double(changeCount), q.changeFiltered /= double(changeCount);
  if (errorCount) q.errorRaw /= double(errorCount), q.errorFiltered /= double(errorCount);
  return q;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t seed = argc > 1 ? uint32_t(strtoul(argv[1], nullptr, 10)) : 1;
  Sequence still = run(SCENE_STILL, 0.0f, 12, seed);
  printf("still, noise 2.0: frame-to-frame change on static pixels %.4f px unfiltered, %.4f px filtered (%.1fx)\n",
         still.changeRaw, still.changeFiltered, still.changeFiltered > 0 ? still.changeRaw / still.changeFiltered : 0);
  Sequence moving = run(SCENE_OBJECT, 25.0f, 12, seed);
  printf("moving object: mean error against truth %.4f px unfiltered, %.4f px filtered (%.3fx)\n", moving.errorRaw,
         moving.errorFiltered, moving.errorRaw > 0 ? moving.errorFiltered / moving.errorRaw : 0);
  return 0;
}
