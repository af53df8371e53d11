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

struct SceneOptions {
  std::string out;
  int64_t seed = 1;
  int32_t mw = 1920, mh = 1080, sw = 1280, sh = 720, dw = 320, dh = 240, frames = 1, aa = 2, lens = 8;
  double amount = 0, noise = 0, gain = 1, dof = 0;
  int32_t motion = SCENE_STILL;
};

// --motion's value; -1 for a name that is not a motion.
int32_t scene_motion_named(const std::string& m) {
  return m == "still"    ? SCENE_STILL
         : m == "pan"    ? SCENE_PAN
         : m == "dolly"  ? SCENE_DOLLY
         : m == "object" ? SCENE_OBJECT
         : m == "focus"  ? SCENE_FOCUS
                         : -1;
}

// The command line into *o; *help when it asks for the usage. False on bad usage (the message
// printed).
bool scene_parse_args(int argc, char** argv, SceneOptions* o, bool* help) {
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      *help = true;
      return true;
    } else if (args.is("--out")) {
      args.string_value(&o->out);
    } else if (args.is("--seed")) {
      args.int_value(0, UINT32_MAX, &o->seed);
    } else if (args.is("--main")) {
      even_size(&args, &o->mw, &o->mh);
    } else if (args.is("--sub")) {
      even_size(&args, &o->sw, &o->sh);
    } else if (args.is("--depth")) {
      args.size_value(1, kMaxSide, &o->dw, &o->dh);
    } else if (args.is("--frames")) {
      args.int_value(1, 10000, &o->frames);
    } else if (args.is("--amount")) {
      args.double_value(-1000.0, 1000.0, &o->amount);
    } else if (args.is("--noise")) {
      args.double_value(0.0, 255.0, &o->noise);
    } else if (args.is("--gain")) {
      args.double_value(0.01, 100.0, &o->gain);
    } else if (args.is("--aa")) {
      args.int_value(1, 8, &o->aa);
    } else if (args.is("--dof")) {
      if (args.double_value(0.0, 1000.0, &o->dof) && o->dof > 0 && o->dof < 0.1)
        args.fail("--dof: 0 (none) or 0.1..1000");
    } else if (args.is("--lens")) {
      args.int_value(1, 64, &o->lens);
    } else if (args.is("--motion")) {
      std::string m;
      if (!args.string_value(&m)) continue;
      o->motion = scene_motion_named(m);
      if (o->motion < 0) args.fail("--motion: '" + m + "' is not still, pan, dolly, object or focus");
    } else {
      args.unknown();
    }
  }
  if (!args.failed() && o->out.empty()) args.fail("--out DIR is required");
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return false;
  }
  return true;
}

// One run from its output folder to its last frame: what set-up, each frame and the outputs share.
struct SceneRun {
  SceneOptions o;
  SceneSpec desc;
  ToolReport report;
  std::string why;  // the latest failure's reason
  std::vector<uint8_t> mainNv21, subNv21;
  Image8 rgb;
  ImageF truth;
};

// Set-up: the output folder, the scene and its calibration block on disk, and the frame
// buffers. Returns kToolExitDone when the frames can be written, else the exit code.
int scene_set_up(SceneRun* r) {
  const SceneOptions& o = r->o;
  if (!tool_make_dirs(o.out, &r->why)) {
    fprintf(stderr, "%s: --out %s\n", kTool, r->why.c_str());
    return kToolExitWrite;
  }
  SceneSpec& desc = r->desc;
  scene_default(&desc, uint32_t(o.seed));
  desc.motion = o.motion;
  desc.motionAmount = float(o.amount);
  desc.noiseSigma = float(o.noise);
  desc.subGain = float(o.gain);

  r->report.tool = kTool;
  uint8_t calib[128];
  if (scene_calibration(&desc, o.mw, o.mh, o.sw, o.sh, calib, sizeof(calib)) != 0) {
    fprintf(stderr, "%s: the calibration block refused main %dx%d, sub %dx%d\n", kTool, o.mw, o.mh, o.sw, o.sh);
    return kToolExitRefused;
  }
  if (!tool_write_file(o.out + "/calib.bin", calib, sizeof(calib), &r->why)) {
    r->report.write_failed(o.out + "/calib.bin", r->why);
    return r->report.finish();
  }
  r->mainNv21.resize(size_t(o.mw) * size_t(o.mh) * 3 / 2), r->subNv21.resize(size_t(o.sw) * size_t(o.sh) * 3 / 2);
  r->rgb.width = o.mw, r->rgb.height = o.mh, r->rgb.channels = 3;
  r->rgb.data.resize(size_t(o.mw) * size_t(o.mh) * 3);
  r->truth.width = o.dw, r->truth.height = o.dh;
  r->truth.data.resize(size_t(o.dw) * size_t(o.dh));
  return kToolExitDone;
}

std::string scene_frame_path(const SceneRun& r, const char* prefix, int32_t f, const char* ext) {
  char number[16];
  snprintf(number, sizeof(number), "%03d", f);
  return r.o.out + "/" + prefix + number + ext;
}

// A failed write goes into the report; the caller ends the run (the disk is full or the folder
// went away).
bool scene_checked(SceneRun* r, const std::string& path, bool written) {
  if (!written) r->report.write_failed(path, r->why);
  return written;
}

bool scene_write_bytes(SceneRun* r, const char* prefix, int32_t f, const char* ext, const std::vector<uint8_t>& bytes) {
  const std::string path = scene_frame_path(*r, prefix, f, ext);
  return scene_checked(r, path, tool_write_file(path, bytes.data(), bytes.size(), &r->why));
}

bool scene_write_ppm(SceneRun* r, const char* prefix, int32_t f, const Image8& image) {
  const std::string path = scene_frame_path(*r, prefix, f, ".ppm");
  return scene_checked(r, path, image_write_pnm(path, image, &r->why));
}

bool scene_write_pfm(SceneRun* r, const char* prefix, int32_t f, const ImageF& image) {
  const std::string path = scene_frame_path(*r, prefix, f, ".pfm");
  return scene_checked(r, path, image_write_pfm(path, image, &r->why));
}

// Frame f rendered and written, with its oracle when asked. False ends the run with *code.
bool scene_write_frame(SceneRun* r, int32_t f, int* code) {
  const SceneOptions& o = r->o;
  if (scene_render_rgb(&r->desc, f, 0, o.mw, o.mh, o.aa, r->rgb.data.data()) != 0 ||
      scene_render_nv21(&r->desc, f, 1, o.sw, o.sh, o.aa, r->subNv21.data()) != 0 ||
      scene_truth_disparity(&r->desc, f, o.dw, o.dh, r->truth.data.data()) != 0) {
    fprintf(stderr, "%s: the scene refused frame %d (main %dx%d, sub %dx%d, depth %dx%d)\n", kTool, f, o.mw, o.mh, o.sw,
            o.sh, o.dw, o.dh);
    *code = kToolExitRefused;
    return false;
  }
  scene_rgb_to_nv21(r->rgb.data.data(), o.mw, o.mh, r->mainNv21.data());
  if (!scene_write_bytes(r, "main_", f, ".nv21", r->mainNv21) ||
      !scene_write_bytes(r, "sub_", f, ".nv21", r->subNv21) || !scene_write_ppm(r, "main_", f, r->rgb) ||
      !scene_write_pfm(r, "truth_", f, r->truth)) {
    *code = r->report.finish();
    return false;
  }
  if (o.dof > 0) {
    Image8 dofImage = r->rgb;
    if (scene_render_dof_rgb(&r->desc, f, o.mw, o.mh, scene_focus_distance(&r->desc, f), float(o.dof), o.lens,
                             dofImage.data.data()) != 0) {
      fprintf(stderr, "%s: the oracle refused frame %d at f/%g\n", kTool, f, o.dof);
      *code = kToolExitRefused;
      return false;
    }
    if (!scene_write_ppm(r, "dof_", f, dofImage)) {
      *code = r->report.finish();
      return false;
    }
  }
  ++r->report.processed;
  return true;
}

int body(int argc, char** argv) {
  SceneRun r;
  bool help = false;
  if (!scene_parse_args(argc, argv, &r.o, &help)) return kToolExitUsage;
  if (help) {
    usage(stdout);
    return kToolExitDone;
  }
  const int setUp = scene_set_up(&r);
  if (setUp != kToolExitDone) return setUp;
  const SceneOptions& o = r.o;
  int code = kToolExitDone;
  for (int32_t f = 0; f < o.frames; ++f)
    if (!scene_write_frame(&r, f, &code)) return code;
  printf("%s: %d frame(s) of seed %u in %s (main %dx%d, sub %dx%d, truth %dx%d)\n", kTool, o.frames, uint32_t(o.seed),
         o.out.c_str(), o.mw, o.mh, o.sw, o.sh, o.dw, o.dh);
  return r.report.finish();
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, body);
}
