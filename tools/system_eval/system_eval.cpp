// system_eval.cpp - vm_system_eval: end-to-end bokeh quality of the whole system (stereo depth
// engine or depth chip with the temporal filter, and renderer, behind the five exported functions)
// on synthetic sequences, against the scenes' depth-of-field oracle, beside the renderer alone fed
// the ground-truth refocus map (the map generator fed true disparity). Prints a table of luma PSNR,
// over the whole frame and in a band around depth edges, and per sequence a breakdown of the gap:
// the renderer alone fed, in turn, what each drawn map was made of, true depth at the lag the
// system had, the stereo engine's depth of the frame itself and true depth a fixed number of frames
// old; with the lag, the policy's states and hold-back verdicts, depth and focus errors.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "calib_block.h"
#include "engine_tap.h"
#include "engines.h"
#include "eval_scores.h"
#include "synth_scene.h"
#include "tool_cli.h"
#include "vmKtrRT_SC.h"
#include "vm_host_platform.h"

namespace {

const int32_t kMaxWidth = 1920;  // frames of every sequence are held at once: bounds the memory

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
  int32_t temporalFilter = 1;  // the temporal filter on chip depth (the system runs it on chip depth only)
  int32_t withChip = 1;        // also the moving figure with depth from the chip
  int32_t trace = 0;           // print, per measured frame, which depth frame drew it
  int32_t chip = 0;            // set per sequence: depth from the chip
};

struct Sequence {
  const char* name;
  int32_t motion;
  int32_t chip;  // depth from the depth chip: each frame's chip map is the stereo engine's depth of it
};

// The breakdown: the renderer alone fed, frame by frame, what the system's map was made of (its
// depth and focus point: "replay"), the true depth of the frame that depth came from ("truth at the
// system's lag"), and the stereo engine's depth of the frame itself ("engine in step").
struct Breakdown {
  ErrorSum replay, replayBand, lagged, laggedBand, engine, engineBand;
  ErrorSum lag1, lag1Band, lag2, lag2Band;  // true depth one and two frames old, focus point of the frame
  int32_t lagSum = 0, lagFrames = 0, lagMin = 1 << 30, lagMax = -1;
  int32_t stateFrames[6] = {0, 0, 0, 0, 0, 0};  // measured frames per policy state after the update
  int32_t mapChanges = 0;                       // measured frames drawn with another map than the frame before
  int32_t heldSimilar = 0;                      // new maps the hold-back check found like the drawn one (thrown away)
  int32_t differing = 0;                        // new maps it found different
  int32_t engineRuns = 0;                       // depth engine calls while the measured frames ran
  int32_t mapsMade = 0;                         // refocus maps made meanwhile
  int32_t filterRuns = 0;                       // temporal filter calls meanwhile
  int32_t unknown = 0;                          // measured frames drawn with a map the tap could not trace
  // Published depth against the true disparity of the frame it came from, in pixels of the depth
  // grid: all valid samples, and those near a depth edge.
  double depthErr = 0, depthErrBand = 0, depthN = 0, depthNBand = 0, depthBad = 0, depthBadBand = 0, invalid = 0;
  double focusErr = 0, focusN = 0;  // |system focus depth - true focus depth|, pixels
};

struct Result {
  ErrorSum system, truth, sharp, systemBand, truthBand, sharpBand;
  Breakdown b;
  int32_t rendered = 0;  // measured frames the system drew with a refocus map
  int32_t warmup = 0;    // calls before the first map
  bool ok = true;
};

// The system's trace lines tell the policy state and the hold-back check's verdicts.
struct PolicyWatch {
  std::atomic<int32_t> state{-1};
  std::atomic<int32_t> similar{0}, differing{0};
};
PolicyWatch g_watch;

void on_log_line(void*, int, const char*, const char* message) {
  const char* p = strstr(message, "current state [");
  int32_t v = 0;
  if (p != nullptr && sscanf(p, "current state [%d]", &v) == 1) g_watch.state.store(v);
  p = strstr(message, "RM check result = ");
  if (p != nullptr && sscanf(p, "RM check result = %d", &v) == 1) (v == 1 ? g_watch.similar : g_watch.differing)++;
}

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

struct Frame {
  std::vector<uint8_t> main, sub, oracle;
  std::vector<uint16_t> truthDepth;  // true disparity as depth samples (1/S pixel of the depth grid)
  std::vector<float> truthSmall;     // true disparity on the depth grid, pixels
  std::vector<uint8_t> band, bandSmall;
  std::vector<uint16_t> engineDepth;                 // the stereo engine's depth of this frame itself
  TapDraw draw;                                      // what the system drew this frame with
  int32_t left = 0, top = 0, right = 0, bottom = 0;  // focus region on the figure
};

// The stereo engine run by the tool on each frame itself, set up as the system sets it up for a
// landscape session (layout 2). Leaves engineDepth empty when the engine refuses.
void engine_in_step(const Options& o, const std::vector<uint8_t>& calib, std::vector<Frame>* frames) {
  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  const size_t nd = size_t(Wd) * size_t(Hd);
  if (vmDpx2_CameraLayout_Set_LV(2) != 0 || vmDpx2RT_FieldofDepth_Set(1) != 0 ||
      vmDpx2_Express_Init(calib.data(), int32_t(calib.size()), Wd, Hd, nullptr, 0) != 0) {
    fprintf(stderr, "the stereo engine refused its set-up: no engine-in-step row\n");
    vmDpx2_Express_Close();
    return;
  }
  std::vector<uint8_t> planes[2];
  for (Frame& f : *frames) {
    DpxImage img[2];
    for (int32_t c = 0; c < 2; ++c) {
      planes[c].resize(nd * 3);
      const std::vector<uint8_t>& src = c == 0 ? f.main : f.sub;
      memset(&img[c], 0, sizeof img[c]);
      img[c].format = DPX_IMAGE_FORMAT_YUV444_PLANAR;
      for (int32_t p = 0; p < 3; ++p) {
        sample_plane(src, W, H, Wd, Hd, p, planes[c].data() + size_t(p) * nd);
        img[c].plane[p] = planes[c].data() + size_t(p) * nd;
      }
    }
    f.engineDepth.resize(nd);
    if (vmDpx2_Run_Express(f.engineDepth.data(), &img[0], &img[1], 300, 300) != 0) f.engineDepth.clear();
  }
  vmDpx2_Express_Close();
}

// Published depth against the true disparity of its own frame (pixels of the depth grid).
void depth_errors(const TapDraw& d, const Frame& src, int32_t scale, Breakdown* b) {
  if (d.depth.size() != src.truthSmall.size() || scale <= 0) return;
  for (size_t i = 0; i < d.depth.size(); ++i) {
    const float t = src.truthSmall[i];
    if (!isfinite(t)) continue;
    if (d.depth[i] >= 1023) {
      b->invalid += 1;
      continue;
    }
    const double e = fabs(double(d.depth[i]) / scale - double(t));
    b->depthErr += e, b->depthN += 1, b->depthBad += e > 1.0 ? 1 : 0;
    if (src.bandSmall[i]) b->depthErrBand += e, b->depthNBand += 1, b->depthBadBand += e > 1.0 ? 1 : 0;
  }
}

// A sequence's frames, oracle and truths, made once and measured in every depth mode.
struct Prepared {
  bool ok = false;
  std::vector<Frame> frames;
  std::vector<std::vector<uint8_t>> lumaSmall;  // each frame's luma as the depth engine sees it
  std::vector<uint8_t> calib;
  CalibBlock cb;
};

InitData init_data(const Options& o, const std::vector<uint8_t>& calib) {
  InitData init{};
  init.screenWidth = 1080;
  init.screenHeight = 2340;
  init.previewMainWidth = init.previewMainStride = init.previewSubWidth = init.previewSubStride = o.width;
  init.previewMainHeight = init.previewMainScanline = init.previewSubHeight = init.previewSubScanline = o.height;
  init.depthWidth = o.depthWidth;
  init.depthHeight = o.depthHeight;
  init.cameraLayout = o.chip ? 2 | 0x10 | 0x20 : 2;  // the chip's samples: 10-bit
  init.otpData = calib.data();
  init.otpSize = int32_t(calib.size());
  init.OffRender = 1;
  init.isUsingTemporalFilter = o.temporalFilter;
  return init;
}

TriggerData trigger(const Options& o, const Frame& f, uint8_t* work, const uint8_t* sub) {
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
  if (o.chip) {
    // The chip's map arrives in the sub image's place: 16-bit samples of the depth size.
    t.subImage.data = const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(f.engineDepth.data()));
    t.subImage.size = int32_t(f.engineDepth.size() * 2);
    return t;
  }
  t.subImage.data = const_cast<uint8_t*>(sub);
  t.subImage.plane2 = const_cast<uint8_t*>(sub) + n;
  t.subImage.size = int32_t(n * 3 / 2);
  return t;
}

// A scene's frame i: the pair, the focus region on the figure, the oracle focused where the
// region's centre meets the figure, and the truths on both grids. `scratch` holds the full and
// depth-grid truth planes between frames. False when the figure leaves the frame or there is no
// oracle (said on stderr).
struct PrepareScratch {
  std::vector<float> depthFull, dispFull, dispSmall;
  int32_t reach = 0, reachSmall = 0;  // the edge bands' reach on the two grids
};

bool prepare_frame(const Options& o, const char* name, const SceneSpec& s, const CalibBlock& cb, int32_t i,
                   PrepareScratch* scratch, Frame* frame, std::vector<uint8_t>* lumaSmall) {
  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  const size_t n = size_t(W) * size_t(H), nd = size_t(Wd) * size_t(Hd);
  std::vector<float>&depthFull = scratch->depthFull, &dispFull = scratch->dispFull, &dispSmall = scratch->dispSmall;
  Frame& f = *frame;
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
    fprintf(stderr, "%s: the figure leaves the frame at frame %d\n", name, i);
    return false;
  }
  const int32_t cx = int32_t(fx), cy = int32_t(fy), half = std::max(2, W / 48);
  f.left = std::max(0, cx - half), f.right = std::min(W - 1, cx + half);
  f.top = std::max(0, cy - half), f.bottom = std::min(H - 1, cy + half);
  // The oracle focuses where the region's centre (the system's focus point) meets the figure.
  const int32_t px = f.left + ((f.right - f.left) >> 1), py = f.top + ((f.bottom - f.top) >> 1);
  const float focusMm = focus_depth(depthFull, W, H, px, py);
  if (!(focusMm > 0) || scene_render_dof_nv21(&s, i, W, H, focusMm, o.fNumber, o.lensSamples, f.oracle.data()) != 0) {
    fprintf(stderr, "%s: no oracle for frame %d\n", name, i);
    return false;
  }
  f.truthDepth.resize(nd);
  for (size_t k = 0; k < nd; ++k) {
    const float d = isfinite(dispSmall[k]) ? dispSmall[k] * float(cb.disparityScale) + 0.5f : 0.0f;
    f.truthDepth[k] = uint16_t(std::min(1022.0f, std::max(0.0f, d)));
  }
  f.truthSmall = dispSmall;
  edge_band(dispFull, W, H, scratch->reach, &f.band);
  edge_band(dispSmall, Wd, Hd, scratch->reachSmall, &f.bandSmall);
  lumaSmall->resize(nd);
  sample_plane(f.main, W, H, Wd, Hd, 0, lumaSmall->data());
  return true;
}

// Renders the frames, their oracle and truths, and the stereo engine's depth of each frame.
bool prepare(const Options& o, const char* name, int32_t motion, Prepared* out) {
  SceneSpec s;
  scene_default(&s, o.seed);
  s.noiseSigma = 1.0f;
  s.motion = motion;
  s.motionAmount = motion == SCENE_OBJECT ? o.objectSpeed : 0.0f;
  // The renderer's blur: radius = map / 255 x 0.06 W x 1.4 / f, the generator's map 255 at W_d / 20
  // depth pixels of disparity, so 1.68 / f frame pixels of blur per frame pixel of disparity. A
  // thin lens blurs (aperture radius / baseline) per pixel of disparity with aperture radius
  // lensFocalMm / (2 f): the two agree when lensFocalMm = 3.36 x baseline.
  s.lensFocalMm = 3.36f * s.baselineMm;

  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  const size_t n = size_t(W) * size_t(H), nd = size_t(Wd) * size_t(Hd);
  std::vector<uint8_t>& calib = out->calib;
  CalibBlock& cb = out->cb;
  calib.resize(CALIB_BLOCK_SIZE);
  if (scene_calibration(&s, W, H, W, H, calib.data(), CALIB_BLOCK_SIZE) != 0 ||
      calib_block_read(calib.data(), calib.size(), &cb) != CALIB_OK) {
    fprintf(stderr, "%s: no calibration block\n", name);
    return false;
  }
  PrepareScratch scratch;
  scratch.reach = std::max(1, (16 * W + 1919) / 1920);  // 16 pixels at 1920 wide, scaled
  scratch.reachSmall = std::max(1, (scratch.reach * Wd + W - 1) / W);
  out->frames.assign(size_t(o.frames), Frame());
  out->lumaSmall.assign(size_t(o.frames), std::vector<uint8_t>());
  scratch.depthFull.resize(n), scratch.dispFull.resize(n), scratch.dispSmall.resize(nd);
  for (int32_t i = 0; i < o.frames; ++i)
    if (!prepare_frame(o, name, s, cb, i, &scratch, &out->frames[size_t(i)], &out->lumaSmall[size_t(i)])) return false;
  // The stereo engine alone on every frame: the engine-in-step row, and the depth chip's maps.
  engine_in_step(o, calib, &out->frames);
  out->ok = true;
  return true;
}

// One sequence measured in one depth mode: what the system's run and the renderer's replays
// share.
struct Measure {
  const Options* o = nullptr;
  const Sequence* q = nullptr;
  Prepared* prep = nullptr;
  size_t n = 0;               // frame pixels
  std::vector<uint8_t> work;  // the frame the system or the renderer draws on
  std::vector<uint8_t> all;   // every pixel: the whole-frame mask
  Result res;
};

// The preview before the sequence starts: frame 0 repeats until the first frame drawn with a
// refocus map, then for `settle` frames more (the temporal filter and the policy settle as on a
// phone's preview).
void measure_preview(Measure* m) {
  const Options& o = *m->o;
  const Frame& f0 = m->prep->frames[0];
  tap_submit(0);
  for (int32_t k = 0, after = -1; k < 400 && after < o.settle; ++k) {
    m->work = f0.main;
    const int32_t r = int32_t(vmKtrRT_SC_Run(trigger(o, f0, m->work.data(), f0.sub.data())));
    if (after < 0 && r == 0) m->res.warmup = k + 1, after = 0;
    if (after >= 0) ++after;
    usleep(useconds_t(o.paceMs) * 1000u);
  }
}

// Measured frame i through the system at camera pace: what it was drawn with, the policy's state
// and the frame's scores (the trace line when asked).
void measure_system_frame(Measure* m, int32_t i) {
  const Options& o = *m->o;
  std::vector<Frame>& frames = m->prep->frames;
  Result& res = m->res;
  Frame& f = frames[size_t(i)];
  usleep(useconds_t(o.paceMs) * 1000u);
  m->work = f.main;
  tap_submit(i);
  const int32_t r = int32_t(vmKtrRT_SC_Run(trigger(o, f, m->work.data(), f.sub.data())));
  f.draw = tap_last_draw();
  const int32_t state = g_watch.state.load();
  if (state >= 0 && state <= 5) res.b.stateFrames[state] += 1;
  if (i > 0 && f.draw.mapHash != frames[size_t(i - 1)].draw.mapHash) res.b.mapChanges += 1;
  if (o.trace) {
    const std::vector<int32_t> ran = tap_take_engine_frames();
    printf("  %s frame %d: region %d..%d x %d..%d, code %d, policy state %d, drawn from depth of frame %d;", m->q->name,
           i, f.left, f.right, f.top, f.bottom, r, state, f.draw.depthFrame);
    for (int32_t e : ran) printf(" engine ran on %d", e);
    printf("\n");
  }
  if (r < 0) fprintf(stderr, "%s: renderer code 0x%x at frame %d\n", m->q->name, unsigned(-r), i);
  res.rendered += r == 0 ? 1 : 0;
  res.system.add(m->work.data(), f.oracle.data(), m->all);
  res.systemBand.add(m->work.data(), f.oracle.data(), f.band);
  res.sharp.add(f.main.data(), f.oracle.data(), m->all);
  res.sharpBand.add(f.main.data(), f.oracle.data(), f.band);
}

// (a) The whole system through its five exported functions: the preview, then every measured
// frame, with the engines' and the policy's counts over the measured frames. False when the
// system refused the session.
bool measure_system(Measure* m) {
  const Options& o = *m->o;
  Prepared* prep = m->prep;
  tap_begin(&prep->lumaSmall, o.depthWidth, o.depthHeight);
  if (o.chip)
    for (int32_t i = 0; i < o.frames; ++i) tap_remember_depth(prep->frames[size_t(i)].engineDepth.data(), i);
  g_watch.state.store(-1), g_watch.similar.store(0), g_watch.differing.store(0);
  vm_host_log_set_hook(on_log_line, nullptr);
  vm_host_property_set("persist.vm.log.ktrrt.sc", "2");  // trace lines, read at Init
  if (vmKtrRT_SC_Init(init_data(o, prep->calib)) != 0) {
    fprintf(stderr, "%s: vmKtrRT_SC_Init refused\n", m->q->name);
    tap_end();
    return false;
  }
  m->work.resize(m->n * 3 / 2);
  measure_preview(m);
  const TapCounts before = tap_counts();
  const int32_t similarBefore = g_watch.similar.load(), differingBefore = g_watch.differing.load();
  tap_take_engine_frames();  // the preview's own runs are not traced
  for (int32_t i = 0; i < o.frames; ++i) measure_system_frame(m, i);
  const TapCounts after = tap_counts();
  vmKtrRT_SC_Deinit();
  tap_end();
  vm_host_log_set_hook(nullptr, nullptr);
  vm_host_property_set("persist.vm.log.ktrrt.sc", nullptr);
  Breakdown& b = m->res.b;
  b.heldSimilar = g_watch.similar.load() - similarBefore;
  b.differing = g_watch.differing.load() - differingBefore;
  b.engineRuns = after.engineRuns - before.engineRuns;
  b.mapsMade = after.mapsMade - before.mapsMade;
  b.filterRuns = after.filterRuns - before.filterRuns;
  return true;
}

using GenerateMap = decltype(&vmKtrRT_GenRefocusMap);

// One frame of the renderer-alone replays: the frame, its focus point and the generator.
struct AloneFrame {
  Measure* m;
  const Frame* f;
  int32_t i;
  int32_t px, py;  // the focus point in frame pixels
  std::vector<uint8_t>* map;
  GenerateMap generate;
};

// The renderer alone on the frame: its map generated from `depth` focused at (x, y) of the
// depth grid, scored against the oracle; a null depth leaves the frame sharp, as the system
// leaves a frame it has no map for.
void alone_render(const AloneFrame& a, const uint16_t* depth, int32_t x, int32_t y, ErrorSum* whole, ErrorSum* band,
                  uint16_t* target) {
  Measure* m = a.m;
  const Frame& f = *a.f;
  const Options& o = *m->o;
  uint16_t lo, hi, t = 0;
  m->work = f.main;
  if (depth != nullptr && (a.generate(a.map->data(), depth, x, y, &lo, &hi, &t) != 0 ||
                           vmKtrRT_GLStartV1(m->work.data(), m->work.data() + m->n, a.map->data(), a.px, a.py,
                                             o.fNumber, 0, f.left, f.top, f.right, f.bottom) != 0)) {
    fprintf(stderr, "%s: a render of the renderer alone failed at frame %d\n", m->q->name, a.i);
    m->res.ok = false;
  }
  whole->add(m->work.data(), f.oracle.data(), m->all);
  band->add(m->work.data(), f.oracle.data(), f.band);
  if (target != nullptr) *target = t;
}

// Frame i's rows of the breakdown: the renderer alone fed true depth, then what the system's map
// was made of, true depth at the system's lag, the engine's depth in step and true depth one and
// two frames old; with the lag, depth and focus errors of the drawn map.
void alone_frame(Measure* m, int32_t i, std::vector<uint8_t>* map, GenerateMap generate) {
  const Options& o = *m->o;
  const std::vector<Frame>& frames = m->prep->frames;
  const CalibBlock& cb = m->prep->cb;
  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  Result& res = m->res;
  Breakdown& b = res.b;
  const Frame& f = frames[size_t(i)];
  const int32_t px = f.left + ((f.right - f.left) >> 1), py = f.top + ((f.bottom - f.top) >> 1);
  // The system's own mapping of the focus point onto the depth grid (landscape session).
  const int32_t dx = int32_t(int64_t(px) * Wd / W), dy = int32_t(int64_t(py) * Hd / H);
  const AloneFrame a{m, &f, i, px, py, map, generate};
  uint16_t truthTarget = 0;
  alone_render(a, f.truthDepth.data(), dx, dy, &res.truth, &res.truthBand, &truthTarget);

  const TapDraw& d = f.draw;
  const bool drawn = !d.depth.empty();
  if (drawn && d.depthFrame < 0) b.unknown += 1;
  const bool traced = drawn && d.depthFrame >= 0 && d.depthFrame <= i;
  if (traced) {
    const int32_t lag = i - d.depthFrame;
    b.lagSum += lag, b.lagFrames += 1, b.lagMin = std::min(b.lagMin, lag), b.lagMax = std::max(b.lagMax, lag);
    depth_errors(d, frames[size_t(d.depthFrame)], cb.disparityScale, &b);
  }
  if (drawn) {
    b.focusErr += fabs(double(d.target) - double(truthTarget)) / double(cb.disparityScale), b.focusN += 1;
  }
  alone_render(a, drawn ? d.depth.data() : nullptr, d.focusX, d.focusY, &b.replay, &b.replayBand, nullptr);
  const Frame& src = traced ? frames[size_t(d.depthFrame)] : f;
  alone_render(a, drawn ? src.truthDepth.data() : nullptr, d.focusX, d.focusY, &b.lagged, &b.laggedBand, nullptr);
  alone_render(a, f.engineDepth.empty() ? nullptr : f.engineDepth.data(), dx, dy, &b.engine, &b.engineBand, nullptr);
  // Before frame 0 the preview showed frame 0.
  alone_render(a, frames[size_t(std::max(0, i - 1))].truthDepth.data(), dx, dy, &b.lag1, &b.lag1Band, nullptr);
  alone_render(a, frames[size_t(std::max(0, i - 2))].truthDepth.data(), dx, dy, &b.lag2, &b.lag2Band, nullptr);
}

// (b) The renderer alone, set up as the system sets it up, its generator fed true disparity and
// then each of the breakdown's inputs. False when the renderer refused its set-up.
bool measure_renderer_alone(Measure* m) {
  const Options& o = *m->o;
  const std::vector<uint8_t>& calib = m->prep->calib;
  const int32_t W = o.width, H = o.height, Wd = o.depthWidth, Hd = o.depthHeight;
  // The renderer as the system sets it up: chip sessions make maps of the depth size.
  const int32_t mapW = o.chip ? Wd : 320, mapH = o.chip ? Hd : 240;
  if (vmKtrRT_GLInitV1(calib.data(), int32_t(calib.size()), nullptr, 0, W, H, Wd, Hd, mapW, mapH, 1080, 2340, 0, 1, 0,
                       0) != 0 ||
      vmKtrRT_GenRefocusMap_init() != 0) {
    fprintf(stderr, "%s: the renderer refused its set-up\n", m->q->name);
    vmKtrRT_GLClose();
    return false;
  }
  std::vector<uint8_t> map(size_t(mapW) * size_t(mapH));
  const GenerateMap generate = o.chip ? vmKtrRT_GenRefocusMap_VX4810_DispartyBase : vmKtrRT_GenRefocusMap;
  for (int32_t i = 0; i < o.frames; ++i) alone_frame(m, i, &map, generate);
  vmKtrRT_GenRefocusMap_Deinit();
  vmKtrRT_GLClose();
  return true;
}

Result run_sequence(const Options& o, const Sequence& q, Prepared* prep) {
  Measure m;
  m.o = &o, m.q = &q, m.prep = prep;
  m.n = size_t(o.width) * size_t(o.height);
  if (o.chip && prep->frames[0].engineDepth.empty()) {
    fprintf(stderr, "%s: no stereo depth for the chip's maps\n", q.name);
    m.res.ok = false;
    return m.res;
  }
  for (Frame& f : prep->frames) f.draw = TapDraw();
  m.all.assign(m.n, 1);
  if (!measure_system(&m) || !measure_renderer_alone(&m)) m.res.ok = false;
  return m.res;
}

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_system_eval [--tiny] [--width W] [--depth-width N] [--depth-height N] [--frames N] [--lens N]\n"
          "                      [--seed N] [--fnumber F] [--pace-ms N] [--settle N] [--speed MM_PER_FRAME]\n"
          "                      [--no-temporal] [--no-chip] [--max-gap DB] [--max-band-gap DB] [--trace]\n"
          "The whole system on synthetic sequences against the depth-of-field oracle, beside the renderer\n"
          "fed the ground-truth map.\n"
          "  --tiny              640x360, depth 320x180, 3 frames, 4 lens samples (later options override)\n"
          "  --width W           main and sub width, even, 64..%d; height W x 9/16 (--size says the same)\n"
          "  --depth-width N     16..4096 (default 320)   --depth-height N  16..4096 (default 180)\n"
          "  --frames N          measured frames, 1..200 (default 12)\n"
          "  --lens N            oracle lens samples per side, 1..64 (default 8)\n"
          "  --seed N            0..4294967295 (default 3)   --fnumber F  0.1..1000 (default 2.0)\n"
          "  --pace-ms N         0..1000 ms between frames (default 33)\n"
          "  --settle N          preview frames after the first map before measuring, 0..300 (default 10)\n"
          "  --speed MM          the moving figure's mm per frame, -1000..1000 (default 12)\n"
          "  --no-temporal       no temporal filter on chip depth   --no-chip  no depth-chip sequence\n"
          "  --max-gap DB        fail (exit 1) when the system is more than DB under the ground-truth render\n"
          "  --max-band-gap DB   the same in the edge band (-1000..1000; negative: no bound, the default)\n"
          "  --trace             per measured frame, which depth frame drew it\n"
          "%s"
          "  1 a bound of --max-gap or --max-band-gap was missed, or a check of the measurement failed\n",
          kMaxWidth, kToolExitCodesHelp);
}

bool parse(int argc, char** argv, Options* o, bool* help) {
  ToolArgs args(argc, argv);
  double x = 0;
  while (args.next()) {
    if (args.is_help()) {
      *help = true;
      return true;
    } else if (args.is("--tiny")) {
      o->width = 640, o->height = 360, o->depthWidth = 320, o->depthHeight = 180, o->frames = 3, o->lensSamples = 4;
    } else if (args.is("--no-temporal")) {
      o->temporalFilter = 0;
    } else if (args.is("--no-chip")) {
      o->withChip = 0;
    } else if (args.is("--trace")) {
      o->trace = 1;
    } else if (args.is("--size") || args.is("--width")) {
      if (!args.int_value(64, kMaxWidth, &o->width)) break;
      if (o->width % 2 != 0) args.fail(args.option() + ": the width must be even, not " + std::to_string(o->width));
      o->height = o->width * 9 / 16;
      o->height -= o->height % 2;
    } else if (args.is("--depth-width")) {
      args.int_value(16, 4096, &o->depthWidth);
    } else if (args.is("--depth-height")) {
      args.int_value(16, 4096, &o->depthHeight);
    } else if (args.is("--frames")) {
      args.int_value(1, 200, &o->frames);
    } else if (args.is("--lens")) {
      args.int_value(1, 64, &o->lensSamples);
    } else if (args.is("--seed")) {
      int64_t seed = 0;
      if (args.int_value(0, UINT32_MAX, &seed)) o->seed = uint32_t(seed);
    } else if (args.is("--fnumber")) {
      if (args.double_value(0.1, 1000.0, &x)) o->fNumber = float(x);
    } else if (args.is("--pace-ms")) {
      args.int_value(0, 1000, &o->paceMs);
    } else if (args.is("--speed")) {
      if (args.double_value(-1000.0, 1000.0, &x)) o->objectSpeed = float(x);
    } else if (args.is("--settle")) {
      args.int_value(0, 300, &o->settle);
    } else if (args.is("--max-gap")) {
      if (args.double_value(-1000.0, 1000.0, &x)) o->maxGap = float(x);
    } else if (args.is("--max-band-gap")) {
      if (args.double_value(-1000.0, 1000.0, &x)) o->maxBandGap = float(x);
    } else {
      args.unknown();
    }
  }
  if (args.failed()) {
    fprintf(stderr, "vm_system_eval: %s\n", args.error().c_str());
    return false;
  }
  return true;
}

void print_breakdown(const Result& r) {
  const Breakdown& b = r.b;
  auto row = [&](const char* what, const ErrorSum& whole, const ErrorSum& band) {
    printf("  %-34s %8.2f %7.2f | %8.2f %7.2f\n", what, whole.psnr(), r.truth.psnr() - whole.psnr(), band.psnr(),
           r.truthBand.psnr() - band.psnr());
  };
  printf("  %-34s %8s %7s | %8s %7s\n", "renderer alone fed", "whole", "gap", "band", "gap");
  row("(the system)", r.system, r.systemBand);
  row("the system's depth and focus point", b.replay, b.replayBand);
  row("true depth at the system's lag", b.lagged, b.laggedBand);
  row("the stereo engine's depth in step", b.engine, b.engineBand);
  row("true depth one frame old", b.lag1, b.lag1Band);
  row("true depth two frames old", b.lag2, b.lag2Band);
  row("true depth in step", r.truth, r.truthBand);
  if (b.lagFrames > 0)
    printf("  lag (frames from depth to drawing): mean %.2f, %d..%d over %d frames\n", double(b.lagSum) / b.lagFrames,
           b.lagMin, b.lagMax, b.lagFrames);
  if (b.unknown > 0) printf("  %d frames drawn with a map whose depth could not be traced\n", b.unknown);
  printf("  while measuring: %d depth engine runs, %d temporal filter runs, %d refocus maps made", b.engineRuns,
         b.filterRuns, b.mapsMade);
  printf(" (hold-back check: %d alike, thrown away; %d different), %d changes of the drawn map\n", b.heldSimilar,
         b.differing, b.mapChanges);
  printf("  policy state after each measured frame's update:");
  for (int32_t k = 0; k < 6; ++k)
    if (b.stateFrames[k] > 0) printf(" %d in state %d", b.stateFrames[k], k);
  printf("\n");
  if (b.depthN > 0)
    printf(
        "  published depth vs the truth of its frame: mean |error| %.2f px (%.1f%% over 1 px), near depth edges "
        "%.2f px (%.1f%%), invalid %.1f%%\n",
        b.depthErr / b.depthN, 100.0 * b.depthBad / b.depthN, b.depthNBand > 0 ? b.depthErrBand / b.depthNBand : 0.0,
        b.depthNBand > 0 ? 100.0 * b.depthBadBand / b.depthNBand : 0.0, 100.0 * b.invalid / (b.depthN + b.invalid));
  if (b.focusN > 0) printf("  focus depth: mean |system - truth| %.3f px\n", b.focusErr / b.focusN);
}

// The run's settings and the table's head.
void print_header(const Options& o) {
  printf(
      "main/sub %dx%d, depth %dx%d, %d frames, f/%.1f, oracle %dx%d lens samples, pace %d ms, settle %d, "
      "temporal filter on chip depth %s\n",
      o.width, o.height, o.depthWidth, o.depthHeight, o.frames, double(o.fNumber), o.lensSamples, o.lensSamples,
      o.paceMs, o.settle, o.temporalFilter ? "on" : "off");
  printf("luma PSNR against the depth-of-field oracle (dB); band: within %d px of a depth edge\n",
         std::max(1, (16 * o.width + 1919) / 1920));
  printf("%-14s %8s %8s %8s %8s %7s | %8s %8s %7s | %8s %8s\n", "sequence", "drawn", "warmup", "system", "gt-fed",
         "gap", "sys band", "gt band", "gap", "sharp", "sh band");
}

// A measured sequence's row and breakdown, and its checks: false when one failed (said on stderr).
bool report_sequence(const Options& o, const Sequence& q, const Result& r) {
  bool pass = true;
  const double gap = r.truth.psnr() - r.system.psnr(), bandGap = r.truthBand.psnr() - r.systemBand.psnr();
  printf("%-14s %5d/%-2d %8d %8.2f %8.2f %7.2f | %8.2f %8.2f %7.2f | %8.2f %8.2f\n", q.name, r.rendered, o.frames,
         r.warmup, r.system.psnr(), r.truth.psnr(), gap, r.systemBand.psnr(), r.truthBand.psnr(), bandGap,
         r.sharp.psnr(), r.sharpBand.psnr());
  print_breakdown(r);
  if (r.rendered == 0) {
    fprintf(stderr, "%s: the system drew no measured frame with a refocus map\n", q.name);
    pass = false;
  }
  // The breakdown stands on the replay: fed what each drawn map was made of, the renderer alone
  // must draw what the system drew.
  const double replayOff = fabs(r.b.replay.psnr() - r.system.psnr());
  if (r.b.unknown > 0 || replayOff > 0.05) {
    fprintf(stderr, "%s: the replay of the system's maps is %.2f dB off (%d drawn maps not traced)\n", q.name,
            replayOff, r.b.unknown);
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
  return pass;
}

int body(int argc, char** argv) {
  Options o;
  bool help = false;
  if (!parse(argc, argv, &o, &help)) return kToolExitUsage;
  if (help) {
    usage(stdout);
    return kToolExitDone;
  }
  setenv("VM_HOST_LOG", "none", 0);
  const Sequence seqs[] = {
      {"still", SCENE_STILL, 0}, {"moving figure", SCENE_OBJECT, 0}, {"moving, chip", SCENE_OBJECT, 1}};
  print_header(o);
  bool pass = true;
  int32_t refused = 0, measured = 0;  // sequences the engines or the system would not run; run
  Prepared prep;
  int32_t prepared = -1;  // the motion `prep` holds
  for (const Sequence& q : seqs) {
    if (q.chip && !o.withChip) continue;
    if (prepared != q.motion) {
      prepared = q.motion;
      if (!prepare(o, q.name, q.motion, &prep)) prep.ok = false;
    }
    if (!prep.ok) {
      ++refused;
      continue;
    }
    Options oq = o;
    oq.chip = q.chip;
    const Result r = run_sequence(oq, q, &prep);
    if (!r.ok) {
      ++refused;
      continue;
    }
    ++measured;
    if (!report_sequence(o, q, r)) pass = false;
  }
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "vm_system_eval: could not write the table to standard output\n");
    return kToolExitWrite;
  }
  if (refused > 0) {
    fprintf(stderr, "vm_system_eval: %d sequence%s could not be run\n", refused, refused == 1 ? "" : "s");
    return measured == 0 ? kToolExitNothing : kToolExitRefused;
  }
  return pass ? kToolExitDone : 1;
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main("vm_system_eval", argc, argv, body);
}
