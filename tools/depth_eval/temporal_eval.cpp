// temporal_eval.cpp - vm_temporal_eval: figures of the temporal filter on synthetic sequences
// run through the stereo engine: on a still scene with sensor noise, the mean frame-to-frame
// change of depth on static pixels with and without the filter; on a moving-object sequence,
// the mean error against ground truth with and without it.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "engines.h"
#include "synth_scene.h"
#include "tool_cli.h"

namespace {

const char kTool[] = "vm_temporal_eval";
// Frames 0..2 let the filter settle, so five frames give the first frame-to-frame change.
const int32_t kMinFrames = 5, kMaxFrames = 1000;
const int32_t W = 320, H = 240, MW = 640, MH = 360;

struct Sequence {
  double changeRaw = 0, changeFiltered = 0, errorRaw = 0, errorFiltered = 0;
};

// False with the refusing call in *error when an engine or the scene refuses its set-up.
bool run(int32_t motion, float amount, int32_t frames, uint32_t seed, Sequence* result, std::string* error) {
  SceneSpec s;
  scene_default(&s, seed);
  s.noiseSigma = 2.0f;
  s.motion = motion;
  s.motionAmount = amount;
  uint8_t calib[128];
  if (scene_calibration(&s, MW, MH, MW, MH, calib, sizeof(calib)) != 0) {
    *error = "the scene made no calibration block";
    return false;
  }
  vmDpx2_CameraLayout_Set_LV(2);
  vmDpx2RT_FieldofDepth_Set(1);
  int32_t r = vmDpx2_Express_Init(calib, sizeof(calib), W, H, nullptr, 0);
  if (r != 0) {
    *error = "vmDpx2_Express_Init refused: " + std::to_string(r);
    return false;
  }
  r = vmZu_TemporalFilterU16_Init(MW, MH, W, H);
  if (r != 0) {
    vmDpx2_Express_Close();
    *error = "vmZu_TemporalFilterU16_Init refused: " + std::to_string(r);
    return false;
  }
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
    r = vmDpx2_Run_Express(raw.data(), &m, &sub, 0, 0);
    if (r == 0) r = vmZu_TemporalFilterU16_Run(filtered.data(), raw.data(), W, H, guide.data(), MW, MH);
    if (r != 0) {
      vmDpx2_Express_Close();
      vmZu_TemporalFilterU16_Close();
      *error = "the engines refused frame " + std::to_string(f) + ": " + std::to_string(r);
      return false;
    }
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
  *result = q;
  return true;
}

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_temporal_eval [--seed N | N] [--frames N]\n"
          "Figures of the temporal filter on synthetic sequences run through the stereo engine: the\n"
          "frame-to-frame change of depth on a still noisy scene and the error against truth with a\n"
          "moving object, each with and without the filter.\n"
          "  --seed N     the scene's seed (0..4294967295, default 1); a bare N says the same\n"
          "  --frames N   frames per sequence (%d..%d, default 12); the first three let the filter settle\n"
          "%s",
          kMinFrames, kMaxFrames, kToolExitCodesHelp);
}

int body(int argc, char** argv) {
  int64_t seed = 1;
  int32_t frames = 12;
  bool seedGiven = false;
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      usage(stdout);
      return kToolExitDone;
    } else if (args.is("--seed")) {
      seedGiven = args.int_value(0, UINT32_MAX, &seed);
    } else if (args.is("--frames")) {
      args.int_value(kMinFrames, kMaxFrames, &frames);
    } else if (!seedGiven && !args.option().empty() && args.option()[0] != '-') {
      // The seed as the only bare argument, as the tool always took it.
      seedGiven = tool_parse_int(args.option().c_str(), 0, UINT32_MAX, &seed);
      if (!seedGiven) args.fail("'" + args.option() + "' is not a seed (a decimal number in 0..4294967295)");
    } else {
      args.unknown();
    }
  }
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return kToolExitUsage;
  }
  Sequence still, moving;
  std::string error;
  if (!run(SCENE_STILL, 0.0f, frames, uint32_t(seed), &still, &error) ||
      !run(SCENE_OBJECT, 25.0f, frames, uint32_t(seed), &moving, &error)) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return kToolExitRefused;
  }
  printf("still, noise 2.0: frame-to-frame change on static pixels %.4f px unfiltered, %.4f px filtered (%.1fx)\n",
         still.changeRaw, still.changeFiltered, still.changeFiltered > 0 ? still.changeRaw / still.changeFiltered : 0);
  printf("moving object: mean error against truth %.4f px unfiltered, %.4f px filtered (%.3fx)\n", moving.errorRaw,
         moving.errorFiltered, moving.errorRaw > 0 ? moving.errorFiltered / moving.errorRaw : 0);
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "%s: could not write the figures to standard output\n", kTool);
    return kToolExitWrite;
  }
  return kToolExitDone;
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, body);
}
