// scene_main.cpp - vm_scene: writes a synthetic stereo sequence (NV21 main and sub frames, a PPM
// of the main view, ground-truth disparity as PFM at the depth size, the calibration block, and
// optionally the depth-of-field oracle of each frame).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "image_io.h"
#include "synth_scene.h"

namespace {

bool parse_size(const char* s, int32_t* w, int32_t* h) {
  return sscanf(s, "%dx%d", w, h) == 2 && *w > 0 && *h > 0;
}

bool write_file(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return false;
  bool ok = fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok;
}

void usage() {
  fprintf(stderr,
          "usage: vm_scene --out DIR [--seed N] [--main WxH] [--sub WxH] [--depth WxH] [--frames N]\n"
          "                [--motion still|pan|dolly|object|focus] [--amount X] [--noise SIGMA] [--gain G]\n"
          "                [--aa N] [--dof FNUMBER] [--lens N]\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string out;
  uint32_t seed = 1;
  int32_t mw = 1920, mh = 1080, sw = 1280, sh = 720, dw = 320, dh = 240, frames = 1, aa = 2, lens = 8;
  float amount = 0, noise = 0, gain = 1, dof = 0;
  int32_t motion = SCENE_STILL;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    bool ok = v != nullptr;
    if (a == "--out" && ok)
      out = v;
    else if (a == "--seed" && ok)
      seed = uint32_t(strtoul(v, nullptr, 10));
    else if (a == "--main" && ok)
      ok = parse_size(v, &mw, &mh);
    else if (a == "--sub" && ok)
      ok = parse_size(v, &sw, &sh);
    else if (a == "--depth" && ok)
      ok = parse_size(v, &dw, &dh);
    else if (a == "--frames" && ok)
      frames = atoi(v);
    else if (a == "--amount" && ok)
      amount = float(atof(v));
    else if (a == "--noise" && ok)
      noise = float(atof(v));
    else if (a == "--gain" && ok)
      gain = float(atof(v));
    else if (a == "--aa" && ok)
      aa = atoi(v);
    else if (a == "--dof" && ok)
      dof = float(atof(v));
    else if (a == "--lens" && ok)
      lens = atoi(v);
    else if (a == "--motion" && ok) {
      std::string m = v;
      motion = m == "still"    ? SCENE_STILL
               : m == "pan"    ? SCENE_PAN
               : m == "dolly"  ? SCENE_DOLLY
               : m == "object" ? SCENE_OBJECT
               : m == "focus"  ? SCENE_FOCUS
                               : -1;
      ok = motion >= 0;
    } else
      ok = false;
    if (!ok) {
      usage();
      return 2;
    }
    ++i;
  }
  if (out.empty() || frames < 1 || frames > 10000) {
    usage();
    return 2;
  }
  mkdir(out.c_str(), 0755);
  SceneSpec desc;
  scene_default(&desc, seed);
  desc.motion = motion;
  desc.motionAmount = amount;
  desc.noiseSigma = noise;
  desc.subGain = gain;

  uint8_t calib[128];
  if (scene_calibration(&desc, mw, mh, sw, sh, calib, sizeof(calib)) != 0 ||
      !write_file(out + "/calib.bin", calib, sizeof(calib))) {
    fprintf(stderr, "vm_scene: cannot write the calibration block\n");
    return 1;
  }
  std::vector<uint8_t> mainNv21(size_t(mw) * size_t(mh) * 3 / 2), subNv21(size_t(sw) * size_t(sh) * 3 / 2);
  Image8 rgb;
  rgb.width = mw, rgb.height = mh, rgb.channels = 3;
  rgb.data.resize(size_t(mw) * size_t(mh) * 3);
  ImageF truth;
  truth.width = dw, truth.height = dh;
  truth.data.resize(size_t(dw) * size_t(dh));
  for (int32_t f = 0; f < frames; ++f) {
    char name[64];
    if (scene_render_rgb(&desc, f, 0, mw, mh, aa, rgb.data.data()) != 0 ||
        scene_render_nv21(&desc, f, 1, sw, sh, aa, subNv21.data()) != 0 ||
        scene_truth_disparity(&desc, f, dw, dh, truth.data.data()) != 0) {
      fprintf(stderr, "vm_scene: bad sizes (NV21 sizes must be even)\n");
      return 1;
    }
    scene_rgb_to_nv21(rgb.data.data(), mw, mh, mainNv21.data());
    snprintf(name, sizeof(name), "/main_%03d.nv21", f);
    bool ok = write_file(out + name, mainNv21.data(), mainNv21.size());
    snprintf(name, sizeof(name), "/sub_%03d.nv21", f);
    ok = ok && write_file(out + name, subNv21.data(), subNv21.size());
    snprintf(name, sizeof(name), "/main_%03d.ppm", f);
    ok = ok && image_write_pnm(out + name, rgb);
    snprintf(name, sizeof(name), "/truth_%03d.pfm", f);
    ok = ok && image_write_pfm(out + name, truth);
    if (ok && dof > 0) {
      Image8 dofImage = rgb;
      ok = scene_render_dof_rgb(&desc, f, mw, mh, scene_focus_distance(&desc, f), dof, lens, dofImage.data.data()) == 0;
      snprintf(name, sizeof(name), "/dof_%03d.ppm", f);
      ok = ok && image_write_pnm(out + name, dofImage);
    }
    if (!ok) {
      fprintf(stderr, "vm_scene: cannot write frame %d into %s\n", f, out.c_str());
      return 1;
    }
  }
  printf("vm_scene: %d frame(s) of seed %u in %s (main %dx%d, sub %dx%d, truth %dx%d)\n", frames, seed, out.c_str(), mw,
         mh, sw, sh, dw, dh);
  return 0;
}
