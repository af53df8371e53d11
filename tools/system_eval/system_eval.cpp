// system_eval.cpp - vm_system_eval: end-to-end bokeh quality of the whole system (stereo depth
// engine, temporal filter and renderer behind the five exported functions) on synthetic
// sequences, against the scenes' depth-of-field oracle, beside the renderer alone fed the
// ground-truth refocus map (the map generator fed true disparity). Prints a table of luma PSNR,
// over the whole frame and in a band around depth edges.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calib_block.h"
#include "engines.h"
#include "synth_scene.h"
#include "vmKtrRT_SC.h"

namespace {

struct Options {
  int32_t width = 960, height = 540, depthWidth = 320, depthHeight = 180;
  int32_t frames = 12;
  int32_t lensSamples = 8;
  uint32_t seed = 3;
  float fNumber = 2.0f;
  int32_t paceMs = 33;         // frames arrive at camera pace: the depth engine runs beside them
  float objectSpeed = 12.0f;   // mm per frame the figure moves sideways in the motion sequence
  float maxGap = -1.0f;        // luma PSNR the system may lose against the ground-truth render
  float maxBandGap = -1.0f;    // the same in the edge band
  int32_t settle = 10;         // frames of the preview after the first map before measuring
  int32_t temporalFilter = 1;  // both reference depth engines: stereo engine and temporal filter
};

struct Sequence {
  const char* name;
  int32_t motion;
};

// Squared-error sums over all frames of a sequence: PSNR of the pooled mean.
struct ErrorSum {
  double se = 0;
  double n = 0;
  void add(const uint8_t* a, const uint8_t* b, const std::vector<uint8_t>& mask) {
    for (size_t i = 0; i < mask.size(); ++i) {
      if (!mask[i]) continue;
      const double d = double(a[i]) - double(b[i]);
      se += d * d;
      n += 1;
    }
  }
  double psnr() const {
    if (n == 0) return 0;
    return se == 0 ? 99.0 : 10.0 * log10(255.0 * 255.0 / (se / n));
  }
};

struct Result {
  ErrorSum system, truth, sharp, systemBand, truthBand, sharpBand;
  int32_t rendered = 0;  // measured frames the system drew with a refocus map
  int32_t warmup = 0;    // calls before the first map
  bool ok = true;
};

// The figure's torso centre in frame `frame`, projected into the main view (pixels).
bool figure_pixel(const SceneSpec& s, int32_t frame, int32_t w, int32_t h, float* px, float* py) {
  for (int32_t i = 0; i < s.objectCount; ++i) {
    const SceneObject& o = s.objects[i];
    if (o.kind != SCENE_FIGURE) continue;
    float X = o.center[0], Y = o.center[1] - 0.13f * o.size[1], Z = o.center[2];
    if (s.motion == SCENE_OBJECT) X += o.velocity[0] * s.motionAmount * float(frame);
    if (s.motion == SCENE_DOLLY) Z -= s.motionAmount * float(frame);
    if (s.motion == SCENE_PAN) {
      const float a = s.motionAmount * float(frame) * float(M_PI / 180.0);
      const float xc = cosf(a) * X - sinf(a) * Z, zc = sinf(a) * X + cosf(a) * Z;
      X = xc, Z = zc;
    }
    if (!(Z > 1.0f)) return false;
    const float th = tanf(s.hfovDeg * float(M_PI / 360.0));
    const float fx = 0.5f * float(w) / th, fy = 0.5f * float(h) * s.aspect / th;
    *px = fx * X / Z + 0.5f * float(w - 1);
    *py = fy * Y / Z + 0.5f * float(h - 1);
    return *px >= 0 && *px < float(w) && *py >= 0 && *py < float(h);
  }
  return false;
}

// Median of the finite true depths in a 5 x 5 window: the distance the focus region sits at.
float focus_depth(const std::vector<float>& depth, int32_t w, int32_t h, int32_t x, int32_t y) {
  std::vector<float> v;
  for (int32_t dy = -2; dy <= 2; ++dy)
    for (int32_t dx = -2; dx <= 2; ++dx) {
      const int32_t xx = std::min(std::max(x + dx, 0), w - 1), yy = std::min(std::max(y + dy, 0), h - 1);
      const float d = depth[size_t(yy) * size_t(w) + size_t(xx)];
      if (isfinite(d)) v.push_back(d);
    }
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

// Pixels within `reach` of a jump of at least a pixel in true disparity.
void edge_band(const std::vector<float>& disparity, int32_t w, int32_t h, int32_t reach, std::vector<uint8_t>* band) {
  band->assign(size_t(w) * size_t(h), 0);
  auto at = [&](int32_t x, int32_t y) {
    const float d = disparity[size_t(y) * size_t(w) + size_t(x)];
    return isfinite(d) ? d : 0.0f;
  };
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const float a = at(x, y);
      const bool edge =
          (x + 1 < w && fabsf(a - at(x + 1, y)) >= 1.0f) || (y + 1 < h && fabsf(a - at(x, y + 1)) >= 1.0f);
      if (!edge) continue;
      for (int32_t yy = std::max(0, y - reach); yy <= std::min(h - 1, y + reach); ++yy)
        for (int32_t xx = std::max(0, x - reach); xx <= std::min(w - 1, x + reach); ++xx)
          (*band)[size_t(yy) * size_t(w) + size_t(xx)] = 1;
    }
}

struct Frame {
  std::vector<uint8_t> main, sub, oracle;
  std::vector<uint16_t> truthDepth;  // true disparity as depth samples (1/S pixel of the depth grid)
  std::vector<uint8_t> band;
  int32_t left = 0, top = 0, right = 0, bottom = 0;  // focus region on the figure
};

InitData init_data(const Options& o, const std::vector<uint8_t>& calib) {
  InitData init{};
  init.screenWidth = 1080;
  init.screenHeight = 2340;
  init.previewMainWidth = init.previewMainStride = init.previewSubWidth = init.previewSubStride = o.width;
  init.previewMainHeight = init.previewMainScanline = init.previewSubHeight = init.previewSubScanline = o.height;
  init.depthWidth = o.depthWidth;
  init.depthHeight = o.depthHeight;
  init.cameraLayout = 2;
  init.otpData = calib.data();
  init.otpSize = int32_t(calib.size());
  init.OffRender = 1;
  init.isUsingTemporalFilter = o.temporalFilter;
  return init;
}

TriggerData trigger(const Options& o, const Frame& f, uint8_t* work, uint8_t* sub) {
  TriggerData t{};
  t.vcmMain = t.vcmSub = 300;
  t.fnumber = o.fNumber;
  t.regionLeft = f.left;
  t.regionRight = f.right;
  t.regionTop = f.top;
  t.regionBottom = f.bottom;
  const size_t n = size_t(o.width) * size_t(o.height);
  t.mainImage.data = work;
  t.mainImage.plane2 = work + n;
  t.mainImage.size = int32_t(n * 3 / 2);
  t.subImage.data = sub;
  t.subImage.plane2 = sub + n;
  t.subImage.size = int32_t(n * 3 / 2);
  return t;
}

Result run_sequence(const Options& o, const Sequence& q) {
  Result res;
  SceneSpec s;
  scene_default(&s, o.seed);
  s.noiseSigma = 1.0f;
  s.motion = q.motion;
  s.motionAmount = q.motion == SCENE_OBJECT ? o.objectSpeed : 0.0f;
  // The renderer's blur: radius = map / 255 x 0.03 W x 1.4 / f, the generator's map 255 at W_d / 40
  // depth pixels of disparity, so 1.68 / f frame pixels of blur per frame pixel of disparity. A
  // thin lens blurs (aperture radius / baseline) per pixel of disparity with aperture radius
  // lensFocalMm / (2 f): the two agree when lensFocalMm = 3.36 x baseline.
  s.lensFocalMm = 3.36f * s.baselineMm;

  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  const size_t n = size_t(W) * size_t(H), nd = size_t(Wd) * size_t(Hd);
  std::vector<uint8_t> calib(CALIB_BLOCK_SIZE);
  CalibBlock cb;
  if (scene_calibration(&s, W, H, W, H, calib.data(), CALIB_BLOCK_SIZE) != 0 ||
      calib_block_read(calib.data(), calib.size(), &cb) != CALIB_OK) {
    fprintf(stderr, "%s: no calibration block\n", q.name);
    res.ok = false;
    return res;
  }
  const int32_t reach = std::max(1, (16 * W + 1919) / 1920);  // 16 pixels at 1920 wide, scaled
  std::vector<Frame> frames(size_t(o.frames));
  std::vector<float> depthFull(n), dispFull(n), dispSmall(nd);
  for (int32_t i = 0; i < o.frames; ++i) {
    Frame& f = frames[size_t(i)];
    f.main.resize(n * 3 / 2);
    f.sub.resize(n * 3 / 2);
    f.oracle.resize(n * 3 / 2);
    scene_render_nv21(&s, i, 0, W, H, 2, f.main.data());
    scene_render_nv21(&s, i, 1, W, H, 2, f.sub.data());
    scene_truth_depth(&s, i, W, H, depthFull.data());
    scene_truth_disparity(&s, i, W, H, dispFull.data());
    scene_truth_disparity(&s, i, Wd, Hd, dispSmall.data());
    float fx, fy;
    if (!figure_pixel(s, i, W, H, &fx, &fy)) {
      fprintf(stderr, "%s: the figure leaves the frame at frame %d\n", q.name, i);
      res.ok = false;
      return res;
    }
    const int32_t cx = int32_t(fx), cy = int32_t(fy), half = std::max(2, W / 48);
    f.left = std::max(0, cx - half), f.right = std::min(W - 1, cx + half);
    f.top = std::max(0, cy - half), f.bottom = std::min(H - 1, cy + half);
    // The oracle focuses where the region's centre (the system's focus point) meets the figure.
    const int32_t px = f.left + ((f.right - f.left) >> 1), py = f.top + ((f.bottom - f.top) >> 1);
    const float focusMm = focus_depth(depthFull, W, H, px, py);
    if (!(focusMm > 0) || scene_render_dof_nv21(&s, i, W, H, focusMm, o.fNumber, o.lensSamples, f.oracle.data()) != 0) {
      fprintf(stderr, "%s: no oracle for frame %d\n", q.name, i);
      res.ok = false;
      return res;
    }
    f.truthDepth.resize(nd);
    for (size_t k = 0; k < nd; ++k) {
      const float d = isfinite(dispSmall[k]) ? dispSmall[k] * float(cb.disparityScale) + 0.5f : 0.0f;
      f.truthDepth[k] = uint16_t(std::min(1022.0f, std::max(0.0f, d)));
    }
    edge_band(dispFull, W, H, reach, &f.band);
  }
  const std::vector<uint8_t> all(n, 1);

  // (a) The whole system through its five exported functions. A preview runs before the
  // sequence starts: frame 0 repeats until the first frame drawn with a refocus map, then for
  // `settle` frames more (the temporal filter and the policy settle as on a phone's preview).
  if (vmKtrRT_SC_Init(init_data(o, calib)) != 0) {
    fprintf(stderr, "%s: vmKtrRT_SC_Init refused\n", q.name);
    res.ok = false;
    return res;
  }
  std::vector<uint8_t> work(n * 3 / 2);
  for (int32_t k = 0, after = -1; k < 400 && after < o.settle; ++k) {
    work = frames[0].main;
    const int32_t r = int32_t(vmKtrRT_SC_Run(trigger(o, frames[0], work.data(), frames[0].sub.data())));
    if (after < 0 && r == 0) res.warmup = k + 1, after = 0;
    if (after >= 0) ++after;
    usleep(useconds_t(o.paceMs) * 1000u);
  }
  for (int32_t i = 0; i < o.frames; ++i) {
    Frame& f = frames[size_t(i)];
    usleep(useconds_t(o.paceMs) * 1000u);
    work = f.main;
    const int32_t r = int32_t(vmKtrRT_SC_Run(trigger(o, f, work.data(), f.sub.data())));
    if (r < 0) fprintf(stderr, "%s: renderer code 0x%x at frame %d\n", q.name, unsigned(-r), i);
    res.rendered += r == 0 ? 1 : 0;
    res.system.add(work.data(), f.oracle.data(), all);
    res.systemBand.add(work.data(), f.oracle.data(), f.band);
    res.sharp.add(f.main.data(), f.oracle.data(), all);
    res.sharpBand.add(f.main.data(), f.oracle.data(), f.band);
  }
  vmKtrRT_SC_Deinit();

  // (b) The renderer alone, set up as the system sets it up, its generator fed true disparity.
  if (vmKtrRT_GLInitV1(calib.data(), int32_t(calib.size()), nullptr, 0, W, H, Wd, Hd, 320, 240, 1080, 2340, 0, 1, 0,
                       0) != 0 ||
      vmKtrRT_GenRefocusMap_init() != 0) {
    fprintf(stderr, "%s: the renderer refused its set-up\n", q.name);
    vmKtrRT_GLClose();
    res.ok = false;
    return res;
  }
  std::vector<uint8_t> map(320 * 240);
  for (int32_t i = 0; i < o.frames; ++i) {
    Frame& f = frames[size_t(i)];
    const int32_t px = f.left + ((f.right - f.left) >> 1), py = f.top + ((f.bottom - f.top) >> 1);
    // The system's own mapping of the focus point onto the depth grid (landscape session).
    const int32_t dx = int32_t(int64_t(px) * Wd / W), dy = int32_t(int64_t(py) * Hd / H);
    uint16_t lo, hi, target;
    work = f.main;
    if (vmKtrRT_GenRefocusMap(map.data(), f.truthDepth.data(), dx, dy, &lo, &hi, &target) != 0 ||
        vmKtrRT_GLStartV1(work.data(), work.data() + n, map.data(), px, py, o.fNumber, 0, f.left, f.top, f.right,
                          f.bottom) != 0) {
      fprintf(stderr, "%s: the ground-truth render failed at frame %d\n", q.name, i);
      res.ok = false;
    }
    res.truth.add(work.data(), f.oracle.data(), all);
    res.truthBand.add(work.data(), f.oracle.data(), f.band);
  }
  vmKtrRT_GenRefocusMap_Deinit();
  vmKtrRT_GLClose();
  return res;
}

bool parse(int argc, char** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto num = [&](double* out) {
      if (v == nullptr) return false;
      char* end = nullptr;
      *out = strtod(v, &end);
      ++i;
      return end != v && *end == 0 && isfinite(*out);
    };
    double x = 0;
    if (a == "--tiny") {
      o->width = 640, o->height = 360, o->depthWidth = 320, o->depthHeight = 180, o->frames = 3, o->lensSamples = 4;
      continue;
    }
    if (a == "--no-temporal") {
      o->temporalFilter = 0;
      continue;
    }
    if (!num(&x)) return false;
    if (a == "--size" || a == "--width") {
      o->width = int32_t(x), o->height = int32_t(x * 9 / 16);
      o->height -= o->height % 2;
    } else if (a == "--depth-width") {
      o->depthWidth = int32_t(x);
    } else if (a == "--depth-height") {
      o->depthHeight = int32_t(x);
    } else if (a == "--frames") {
      o->frames = int32_t(x);
    } else if (a == "--lens") {
      o->lensSamples = int32_t(x);
    } else if (a == "--seed") {
      o->seed = uint32_t(x);
    } else if (a == "--fnumber") {
      o->fNumber = float(x);
    } else if (a == "--pace-ms") {
      o->paceMs = int32_t(x);
    } else if (a == "--speed") {
      o->objectSpeed = float(x);
    } else if (a == "--settle") {
      o->settle = int32_t(x);
    } else if (a == "--max-gap") {
      o->maxGap = float(x);
    } else if (a == "--max-band-gap") {
      o->maxBandGap = float(x);
    } else {
      return false;
    }
  }
  return o->width >= 64 && o->width % 2 == 0 && o->height >= 36 && o->depthWidth >= 16 && o->depthHeight >= 16 &&
         o->frames >= 1 && o->frames <= 200 && o->lensSamples >= 1 && o->lensSamples <= 64 && o->fNumber > 0 &&
         o->paceMs >= 0 && o->paceMs <= 1000 && o->settle >= 0 && o->settle <= 300;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, &o)) {
    fprintf(stderr,
            "usage: vm_system_eval [--tiny] [--width W (height W x 9/16)] [--depth-width N] [--depth-height N]\n"
            "       [--frames N] [--lens N] [--seed N] [--fnumber F] [--pace-ms N] [--settle N]\n"
            "       [--speed MM_PER_FRAME] [--no-temporal] [--max-gap DB] [--max-band-gap DB]\n");
    return 2;
  }
  setenv("VM_HOST_LOG", "none", 0);
  const Sequence seqs[] = {{"still", SCENE_STILL}, {"moving figure", SCENE_OBJECT}};
  printf(
      "main/sub %dx%d, depth %dx%d, %d frames, f/%.1f, oracle %dx%d lens samples, pace %d ms, settle %d, "
      "temporal filter %s\n",
      o.width, o.height, o.depthWidth, o.depthHeight, o.frames, double(o.fNumber), o.lensSamples, o.lensSamples,
      o.paceMs, o.settle, o.temporalFilter ? "on" : "off");
  printf("luma PSNR against the depth-of-field oracle (dB); band: within %d px of a depth edge\n",
         std::max(1, (16 * o.width + 1919) / 1920));
  printf("%-14s %8s %8s %8s %8s %7s | %8s %8s %7s | %8s %8s\n", "sequence", "drawn", "warmup", "system", "gt-fed",
         "gap", "sys band", "gt band", "gap", "sharp", "sh band");
  bool pass = true;
  for (const Sequence& q : seqs) {
    const Result r = run_sequence(o, q);
    if (!r.ok) {
      pass = false;
      continue;
    }
    const double gap = r.truth.psnr() - r.system.psnr(), bandGap = r.truthBand.psnr() - r.systemBand.psnr();
    printf("%-14s %5d/%-2d %8d %8.2f %8.2f %7.2f | %8.2f %8.2f %7.2f | %8.2f %8.2f\n", q.name, r.rendered, o.frames,
           r.warmup, r.system.psnr(), r.truth.psnr(), gap, r.systemBand.psnr(), r.truthBand.psnr(), bandGap,
           r.sharp.psnr(), r.sharpBand.psnr());
    if (r.rendered == 0) {
      fprintf(stderr, "%s: the system drew no measured frame with a refocus map\n", q.name);
      pass = false;
    }
    if (o.maxGap >= 0 && gap > double(o.maxGap)) {
      fprintf(stderr, "%s: system %.2f dB under the ground-truth render (bound %.2f)\n", q.name, gap, double(o.maxGap));
      pass = false;
    }
    if (o.maxBandGap >= 0 && bandGap > double(o.maxBandGap)) {
      fprintf(stderr, "%s: edge band %.2f dB under the ground-truth render (bound %.2f)\n", q.name, bandGap,
              double(o.maxBandGap));
      pass = false;
    }
  }
  return pass ? 0 : 1;
}
