// scene_main.cpp - vm_scene: writes a synthetic stereo sequence (NV21 main and sub frames, a PPM
// of the main view, ground-truth disparity as PFM at the depth size, the calibration block, and
// optionally the depth-of-field oracle of each frame).
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "image_io.h"
#include "synth_scene.h"
#include "tool_cli.h"

namespace {

const char kTool[] = "vm_scene";
const int32_t kMaxSide = 8192;

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_scene --out DIR [--seed N] [--main WxH] [--sub WxH] [--depth WxH] [--frames N]\n"
          "                [--motion still|pan|dolly|object|focus] [--amount X] [--noise SIGMA] [--gain G]\n"
          "                [--aa N] [--dof FNUMBER] [--lens N]\n"
          "Writes a synthetic stereo sequence into DIR (made when missing): calib.bin, and per frame\n"
          "main_NNN.nv21, sub_NNN.nv21, main_NNN.ppm, truth_NNN.pfm (disparity at the depth size) and,\n"
          "with --dof, the depth-of-field oracle dof_NNN.ppm.\n"
          "  --seed N          0..4294967295 (default 1)\n"
          "  --main/--sub WxH  even sides of 2..%d (default 1920x1080 and 1280x720)\n"
          "  --depth WxH       sides of 1..%d (default 320x240)\n"
          "  --frames N        1..10000 (default 1)\n"
          "  --motion M        still (default), pan (degrees per frame), dolly (mm per frame), object (mm\n"
          "                    per frame), focus; --amount X sets the per-frame amount (-1000..1000)\n"
          "  --noise SIGMA     sensor noise, 0..255 (default 0)   --gain G  sub camera gain, 0.01..100\n"
          "  --aa N            samples per pixel side, 1..8 (default 2)\n"
          "  --dof FNUMBER     also the oracle at this f-number, 0.1..1000 (0: none)\n"
          "  --lens N          oracle lens samples per side, 1..64 (default 8)\n"
          "%s",
          kMaxSide, kMaxSide, kToolExitCodesHelp);
}

bool even_size(ToolArgs* args, int32_t* w, int32_t* h) {
  if (!args->size_value(2, kMaxSide, w, h)) return false;
  if ((*w | *h) & 1) {
    args->fail(args->option() + ": NV21 frames need even sides, not " + std::to_string(*w) + "x" + std::to_string(*h));
    return false;
  }
  return true;
}

int body(int argc, char** argv) {
  std::string out;
  int64_t seed = 1;
  int32_t mw = 1920, mh = 1080, sw = 1280, sh = 720, dw = 320, dh = 240, frames = 1, aa = 2, lens = 8;
  double amount = 0, noise = 0, gain = 1, dof = 0;
  int32_t motion = SCENE_STILL;
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      usage(stdout);
      return kToolExitDone;
    } else if (args.is("--out")) {
      args.string_value(&out);
    } else if (args.is("--seed")) {
      args.int_value(0, UINT32_MAX, &seed);
    } else if (args.is("--main")) {
      even_size(&args, &mw, &mh);
    } else if (args.is("--sub")) {
      even_size(&args, &sw, &sh);
    } else if (args.is("--depth")) {
      args.size_value(1, kMaxSide, &dw, &dh);
    } else if (args.is("--frames")) {
      args.int_value(1, 10000, &frames);
    } else if (args.is("--amount")) {
      args.double_value(-1000.0, 1000.0, &amount);
    } else if (args.is("--noise")) {
      args.double_value(0.0, 255.0, &noise);
    } else if (args.is("--gain")) {
      args.double_value(0.01, 100.0, &gain);
    } else if (args.is("--aa")) {
      args.int_value(1, 8, &aa);
    } else if (args.is("--dof")) {
      if (args.double_value(0.0, 1000.0, &dof) && dof > 0 && dof < 0.1) args.fail("--dof: 0 (none) or 0.1..1000");
    } else if (args.is("--lens")) {
      args.int_value(1, 64, &lens);
    } else if (args.is("--motion")) {
      std::string m;
      if (!args.string_value(&m)) continue;
      motion = m == "still"    ? SCENE_STILL
               : m == "pan"    ? SCENE_PAN
               : m == "dolly"  ? SCENE_DOLLY
               : m == "object" ? SCENE_OBJECT
               : m == "focus"  ? SCENE_FOCUS
                               : -1;
      if (motion < 0) args.fail("--motion: '" + m + "' is not still, pan, dolly, object or focus");
    } else {
      args.unknown();
    }
  }
  if (!args.failed() && out.empty()) args.fail("--out DIR is required");
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return kToolExitUsage;
  }
  std::string why;
  if (!tool_make_dirs(out, &why)) {
    fprintf(stderr, "%s: --out %s\n", kTool, why.c_str());
    return kToolExitWrite;
  }
  SceneSpec desc;
  scene_default(&desc, uint32_t(seed));
  desc.motion = motion;
  desc.motionAmount = float(amount);
  desc.noiseSigma = float(noise);
  desc.subGain = float(gain);

  ToolReport report;
  report.tool = kTool;
  uint8_t calib[128];
  if (scene_calibration(&desc, mw, mh, sw, sh, calib, sizeof(calib)) != 0) {
    fprintf(stderr, "%s: the calibration block refused main %dx%d, sub %dx%d\n", kTool, mw, mh, sw, sh);
    return kToolExitRefused;
  }
  if (!tool_write_file(out + "/calib.bin", calib, sizeof(calib), &why)) {
    report.write_failed(out + "/calib.bin", why);
    return report.finish();
  }
  std::vector<uint8_t> mainNv21(size_t(mw) * size_t(mh) * 3 / 2), subNv21(size_t(sw) * size_t(sh) * 3 / 2);
  Image8 rgb;
  rgb.width = mw, rgb.height = mh, rgb.channels = 3;
  rgb.data.resize(size_t(mw) * size_t(mh) * 3);
  ImageF truth;
  truth.width = dw, truth.height = dh;
  truth.data.resize(size_t(dw) * size_t(dh));
  // Writes one file; a failure ends the run (the disk is full or the folder went away).
  auto name = [&](const char* prefix, int32_t f, const char* ext) {
    char number[16];
    snprintf(number, sizeof(number), "%03d", f);
    return out + "/" + prefix + number + ext;
  };
  auto checked = [&](const std::string& path, bool written) {
    if (!written) report.write_failed(path, why);
    return written;
  };
  auto write = [&](const char* prefix, int32_t f, const char* ext, const std::vector<uint8_t>& bytes) {
    const std::string path = name(prefix, f, ext);
    return checked(path, tool_write_file(path, bytes.data(), bytes.size(), &why));
  };
  auto writePpm = [&](const char* prefix, int32_t f, const Image8& image) {
    const std::string path = name(prefix, f, ".ppm");
    return checked(path, image_write_pnm(path, image, &why));
  };
  auto writePfm = [&](const char* prefix, int32_t f, const ImageF& image) {
    const std::string path = name(prefix, f, ".pfm");
    return checked(path, image_write_pfm(path, image, &why));
  };
  for (int32_t f = 0; f < frames; ++f) {
    if (scene_render_rgb(&desc, f, 0, mw, mh, aa, rgb.data.data()) != 0 ||
        scene_render_nv21(&desc, f, 1, sw, sh, aa, subNv21.data()) != 0 ||
        scene_truth_disparity(&desc, f, dw, dh, truth.data.data()) != 0) {
      fprintf(stderr, "%s: the scene refused frame %d (main %dx%d, sub %dx%d, depth %dx%d)\n", kTool, f, mw, mh, sw, sh,
              dw, dh);
      return kToolExitRefused;
    }
    scene_rgb_to_nv21(rgb.data.data(), mw, mh, mainNv21.data());
    if (!write("main_", f, ".nv21", mainNv21) || !write("sub_", f, ".nv21", subNv21) || !writePpm("main_", f, rgb) ||
        !writePfm("truth_", f, truth))
      return report.finish();
    if (dof > 0) {
      Image8 dofImage = rgb;
      if (scene_render_dof_rgb(&desc, f, mw, mh, scene_focus_distance(&desc, f), float(dof), lens,
                               dofImage.data.data()) != 0) {
        fprintf(stderr, "%s: the oracle refused frame %d at f/%g\n", kTool, f, dof);
        return kToolExitRefused;
      }
      if (!writePpm("dof_", f, dofImage)) return report.finish();
    }
    ++report.processed;
  }
  printf("%s: %d frame(s) of seed %u in %s (main %dx%d, sub %dx%d, truth %dx%d)\n", kTool, frames, uint32_t(seed),
         out.c_str(), mw, mh, sw, sh, dw, dh);
  return report.finish();
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, body);
}
