// lightfield_eval.cpp - vm_lightfield_eval: depth and bokeh measured against real light fields.
// On a 9 x 9 light-field folder: the stereo pair cut from it (centre view and the view n columns
// right, pre-shifted so every disparity is >= 0), the depth engine's scores in both modes (whole
// frame and the band around depth edges), and the whole system through its five exported functions
// on the pair held still, against the shift-and-add refocus of the light field at the aperture that
// matches the renderer's lens, beside the sharp input and a naive per-pixel Gaussian blur fed true
// depth. On a stereo sequence folder: per-frame error and frame-to-frame flicker of the depth the
// system publishes, with stereo and with chip depth, with and without the temporal filter.
#include <dirent.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calib_block.h"
#include "engine_tap.h"
#include "engines.h"
#include "eval_scores.h"
#include "host_outputs.h"
#include "host_sources.h"
#include "image_io.h"
#include "stereo_run.h"
#include "tool_cli.h"
#include "vmKtrRT_SC.h"

namespace {

const char kTool[] = "vm_lightfield_eval";
const int32_t kGrid = 9, kCentre = 40;
const int32_t kMinSide = 32, kMaxSide = 2048;
const int64_t kMaxPixels = int64_t(1024) * 1024;  // views are held as float planes: bounds the memory
const int32_t kMaxFrames = 500;
const int32_t kBandReach = 4;      // pixels around a true disparity jump of a pixel or more
const double kInFocusViews = 0.1;  // |d - d0| under this (view steps) is the in-focus region

struct Focus {
  int32_t x = 0, y = 0;
};

struct Options {
  std::string lightfield, sequence, out;
  std::vector<Focus> focus;
  int32_t apart = 4;  // views between the pair's two cameras
  int32_t depthWidth = 256, depthHeight = 256;
  double fNumber = 2.0;
  int32_t settle = 10;
  int32_t paceMs = 33;
  int32_t frames = 0;       // sequence frames to use (0: all)
  int32_t systemMode = 1;   // the system's depth mode (1 default, 2 high quality)
  double maxAperture = 4;   // largest aperture tried by the fit, view steps
  int32_t depthScores = 1;  // the engine's own depth scores (both modes)
};

// ---- input ----

std::string named(const std::string& path, const std::string& message) {
  return message.find(path) != std::string::npos ? message : path + ": " + message;
}

bool input_file(const std::string& path, std::string* error) {
  if (tool_is_regular_file(path)) return true;
  *error = path + (file_exists(path) ? ": not a regular file" : ": no such file");
  return false;
}

bool is_dir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string size_text(int32_t w, int32_t h) {
  return std::to_string(w) + "x" + std::to_string(h);
}

bool check_size(const std::string& path, int32_t w, int32_t h, std::string* error) {
  if (w >= kMinSide && h >= kMinSide && w <= kMaxSide && h <= kMaxSide && w % 2 == 0 && h % 2 == 0 &&
      int64_t(w) * h <= kMaxPixels)
    return true;
  *error = path + " is " + size_text(w, h) + "; the tool takes even sides of " + std::to_string(kMinSide) + ".." +
           std::to_string(kMaxSide) + " and at most " + std::to_string(kMaxPixels) + " pixels";
  return false;
}

bool read_rgb(const std::string& path, Image8* im, std::string* error) {
  if (!input_file(path, error)) return false;
  std::string e;
  if (!image_read8(path, im, &e)) {
    *error = named(path, e);
    return false;
  }
  if (im->channels == 1) {  // grey views stand for RGB
    std::vector<uint8_t> rgb(im->data.size() * 3);
    for (size_t i = 0; i < im->data.size(); ++i) rgb[3 * i] = rgb[3 * i + 1] = rgb[3 * i + 2] = im->data[i];
    im->data.swap(rgb);
    im->channels = 3;
  }
  return true;
}

bool read_pfm(const std::string& path, ImageF* im, std::string* error) {
  if (!input_file(path, error)) return false;
  std::string e;
  if (image_read_pfm(path, im, &e)) return true;
  *error = named(path, e);
  return false;
}

bool same_size(const std::string& a, int32_t aw, int32_t ah, const std::string& b, int32_t bw, int32_t bh,
               std::string* error) {
  if (aw == bw && ah == bh) return true;
  *error = b + " is " + size_text(bw, bh) + " but " + a + " is " + size_text(aw, ah);
  return false;
}

std::vector<float> luma_of(const Image8& im) {
  std::vector<float> y(size_t(im.width) * size_t(im.height));
  for (size_t i = 0; i < y.size(); ++i)
    y[i] = 0.299f * im.data[3 * i] + 0.587f * im.data[3 * i + 1] + 0.114f * im.data[3 * i + 2];
  return y;
}

uint8_t clamp8(double v) {
  return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v + 0.5);
}

// The image moved left by s whole pixels (out(u) = in(u + s)), edge columns repeated.
Image8 shift_left(const Image8& in, int32_t s) {
  Image8 out = in;
  for (int32_t y = 0; y < in.height; ++y)
    for (int32_t x = 0; x < in.width; ++x) {
      const int32_t sx = std::min(std::max(x + s, 0), in.width - 1);
      for (int32_t c = 0; c < 3; ++c)
        out.data[(size_t(y) * in.width + x) * 3 + c] = in.data[(size_t(y) * in.width + sx) * 3 + c];
    }
  return out;
}

// Median of the finite samples in a 5 x 5 window; NaN when there is none.
float window_median(const std::vector<float>& v, int32_t w, int32_t h, int32_t x, int32_t y) {
  std::vector<float> s;
  for (int32_t dy = -2; dy <= 2; ++dy)
    for (int32_t dx = -2; dx <= 2; ++dx) {
      const int32_t xx = x + dx, yy = y + dy;
      if (xx < 0 || yy < 0 || xx >= w || yy >= h) continue;
      const float d = v[size_t(yy) * w + xx];
      if (isfinite(d)) s.push_back(d);
    }
  if (s.empty()) return NAN;
  std::nth_element(s.begin(), s.begin() + s.size() / 2, s.end());
  return s[s.size() / 2];
}

// Every focus point inside the frame, else a message naming the first outside.
bool focus_inside(const std::vector<Focus>& points, int32_t w, int32_t h) {
  for (const Focus& f : points)
    if (f.x >= w || f.y >= h) {
      fprintf(stderr, "%s: --focus %d,%d lies outside the %s frame\n", kTool, f.x, f.y, size_text(w, h).c_str());
      return false;
    }
  return true;
}

// ---- scores ----

// Mean SSIM of two luma planes over 7 x 7 windows (constants of the usual 8-bit definition).
double ssim(const uint8_t* a, const uint8_t* b, int32_t w, int32_t h) {
  const int32_t r = 3;
  if (w <= 2 * r || h <= 2 * r) return 0;
  const size_t W = size_t(w) + 1;
  std::vector<double> sa(W * (h + 1)), sb(sa.size()), saa(sa.size()), sbb(sa.size()), sab(sa.size());
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      const double p = a[size_t(y) * w + x], q = b[size_t(y) * w + x];
      const size_t i = size_t(y + 1) * W + x + 1, up = size_t(y) * W + x + 1, left = i - 1, diag = up - 1;
      sa[i] = p + sa[up] + sa[left] - sa[diag];
      sb[i] = q + sb[up] + sb[left] - sb[diag];
      saa[i] = p * p + saa[up] + saa[left] - saa[diag];
      sbb[i] = q * q + sbb[up] + sbb[left] - sbb[diag];
      sab[i] = p * q + sab[up] + sab[left] - sab[diag];
    }
  const double c1 = (0.01 * 255) * (0.01 * 255), c2 = (0.03 * 255) * (0.03 * 255), n = (2 * r + 1) * (2 * r + 1);
  double sum = 0;
  int64_t count = 0;
  for (int32_t y = r; y < h - r; ++y)
    for (int32_t x = r; x < w - r; ++x) {
      const size_t i1 = size_t(y + r + 1) * W + x + r + 1, i2 = size_t(y - r) * W + x + r + 1,
                   i3 = size_t(y + r + 1) * W + x - r, i4 = size_t(y - r) * W + x - r;
      auto box = [&](const std::vector<double>& s) { return (s[i1] - s[i2] - s[i3] + s[i4]) / n; };
      const double ma = box(sa), mb = box(sb);
      const double va = box(saa) - ma * ma, vb = box(sbb) - mb * mb, cab = box(sab) - ma * mb;
      sum += (2 * ma * mb + c1) * (2 * cab + c2) / ((ma * ma + mb * mb + c1) * (va + vb + c2));
      ++count;
    }
  return sum / double(count);
}

struct Scores {
  double whole = 0, band = 0, inFocus = 0, ssim = 0;  // in-focus: against the sharp input
};

Scores score(const std::vector<uint8_t>& img, const std::vector<uint8_t>& oracle, const std::vector<uint8_t>& input,
             const std::vector<uint8_t>& all, const std::vector<uint8_t>& band, const std::vector<uint8_t>& focus,
             int32_t w, int32_t h) {
  ErrorSum whole, b, f;
  whole.add(img.data(), oracle.data(), all);
  b.add(img.data(), oracle.data(), band);
  f.add(img.data(), input.data(), focus);
  Scores s;
  s.whole = whole.psnr(), s.band = b.psnr(), s.inFocus = f.psnr();
  s.ssim = ssim(img.data(), oracle.data(), w, h);
  return s;
}

// ---- the refocus oracle ----

double lanczos3(double x) {
  x = fabs(x);
  if (x < 1e-9) return 1;
  if (x >= 3) return 0;
  const double px = M_PI * x;
  return 3 * sin(px) * sin(px / 3) / (px * px);
}

// out(x, y) = in(x + tx, y + ty), Lanczos-3 separable, edges repeated.
void shift_plane(const std::vector<float>& in, int32_t w, int32_t h, double tx, double ty, std::vector<float>* out) {
  auto weights = [](double t, int32_t* base, double wt[6]) {
    const double fl = floor(t);
    *base = int32_t(fl) - 2;
    double sum = 0;
    for (int32_t j = 0; j < 6; ++j) sum += wt[j] = lanczos3(double(j - 2) - (t - fl));
    for (int32_t j = 0; j < 6; ++j) wt[j] /= sum;
  };
  int32_t bx, by;
  double wx[6], wy[6];
  weights(tx, &bx, wx);
  weights(ty, &by, wy);
  std::vector<float> tmp(in.size());
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      double s = 0;
      for (int32_t j = 0; j < 6; ++j) s += wx[j] * in[size_t(y) * w + std::min(std::max(x + bx + j, 0), w - 1)];
      tmp[size_t(y) * w + x] = float(s);
    }
  out->resize(in.size());
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      double s = 0;
      for (int32_t j = 0; j < 6; ++j) s += wy[j] * tmp[size_t(std::min(std::max(y + by + j, 0), h - 1)) * w + x];
      (*out)[size_t(y) * w + x] = float(s);
    }
}

// The light field refocused at one disparity, summed per ring k^2 + r^2 of the aperture so that
// every aperture up to the largest loaded is a sum of rings.
struct Refocus {
  std::vector<std::vector<double>> ring;  // index k^2 + r^2
  std::vector<int32_t> count;
  void make(const std::vector<std::vector<float>>& views, int32_t w, int32_t h, double d0) {
    ring.assign(2 * 16 + 1, std::vector<double>());
    count.assign(ring.size(), 0);
    std::vector<float> shifted;
    for (int32_t r = -4; r <= 4; ++r)
      for (int32_t k = -4; k <= 4; ++k) {
        const std::vector<float>& v = views[size_t(kCentre + kGrid * r + k)];
        if (v.empty()) continue;
        shift_plane(v, w, h, -k * d0, -r * d0, &shifted);
        std::vector<double>& acc = ring[size_t(k * k + r * r)];
        if (acc.empty()) acc.assign(shifted.size(), 0.0);
        for (size_t i = 0; i < shifted.size(); ++i) acc[i] += shifted[i];
        count[size_t(k * k + r * r)] += 1;
      }
  }
  // The photograph through a round aperture of radius A view steps.
  std::vector<uint8_t> at(double A, size_t n) const {
    std::vector<double> sum(n, 0.0);
    int32_t c = 0;
    for (size_t q = 0; q < ring.size(); ++q)
      if (double(q) <= A * A + 1e-9 && count[q] > 0) {
        for (size_t i = 0; i < n; ++i) sum[i] += ring[q][i];
        c += count[q];
      }
    std::vector<uint8_t> out(n);
    for (size_t i = 0; i < n; ++i) out[i] = clamp8(sum[i] / std::max(1, c));
    return out;
  }
};

// ---- the naive baseline ----

// Per-pixel Gaussian of sigma = scale x |D - D0| (pixels of pair disparity), gathered with the
// target pixel's own sigma, rows then columns: no occlusion handling.
std::vector<uint8_t> naive_blur(const std::vector<uint8_t>& in, const std::vector<float>& D, double D0, double scale,
                                int32_t w, int32_t h) {
  std::vector<float> sigma(in.size()), tmp(in.size());
  for (size_t i = 0; i < in.size(); ++i)
    sigma[i] = isfinite(D[i]) ? float(std::min(24.0, scale * fabs(double(D[i]) - D0))) : 0.0f;
  auto pass = [&](bool rows, const auto& src, std::vector<float>* dst) {
    dst->resize(in.size());
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const size_t i = size_t(y) * w + x;
        const double s = sigma[i];
        if (s < 0.3) {
          (*dst)[i] = float(src[i]);
          continue;
        }
        const int32_t reach = int32_t(ceil(3 * s));
        double sum = 0, wsum = 0;
        for (int32_t j = -reach; j <= reach; ++j) {
          const int32_t xx = rows ? std::min(std::max(x + j, 0), w - 1) : x;
          const int32_t yy = rows ? y : std::min(std::max(y + j, 0), h - 1);
          const double g = exp(-0.5 * j * j / (s * s));
          sum += g * double(src[size_t(yy) * w + xx]), wsum += g;
        }
        (*dst)[i] = float(sum / wsum);
      }
  };
  std::vector<float> out;
  pass(true, in, &tmp);
  pass(false, tmp, &out);
  std::vector<uint8_t> r(in.size());
  for (size_t i = 0; i < r.size(); ++i) r[i] = clamp8(out[i]);
  return r;
}

double sq_error(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double s = 0;
  for (size_t i = 0; i < a.size(); ++i) s += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  return s;
}

// ---- the system through its five functions ----

InitData init_data(int32_t w, int32_t h, int32_t wd, int32_t hd, const std::vector<uint8_t>& calib, bool chip,
                   int32_t temporal, int32_t mode) {
  InitData init{};
  init.screenWidth = 1080;
  init.screenHeight = 2340;
  init.previewMainWidth = init.previewMainStride = init.previewSubWidth = init.previewSubStride = w;
  init.previewMainHeight = init.previewMainScanline = init.previewSubHeight = init.previewSubScanline = h;
  init.depthWidth = wd;
  init.depthHeight = hd;
  init.cameraLayout = chip ? 2 | 0x10 | 0x20 : 2;  // the chip's samples: 10-bit
  init.otpData = calib.data();
  init.otpSize = int32_t(calib.size());
  init.OffRender = 1;
  init.isUsingTemporalFilter = temporal;
  init.ishighDepthQuality = mode == 2 ? 1 : 0;
  return init;
}

TriggerData trigger(double fNumber, const Focus& f, int32_t w, int32_t h, uint8_t* work, const uint8_t* sub,
                    const std::vector<uint16_t>* chip) {
  TriggerData t{};
  t.vcmMain = t.vcmSub = 300;
  t.fnumber = float(fNumber);
  const int32_t half = std::max(2, w / 48);
  t.regionLeft = std::max(0, f.x - half), t.regionRight = std::min(w - 1, f.x + half);
  t.regionTop = std::max(0, f.y - half), t.regionBottom = std::min(h - 1, f.y + half);
  const size_t n = size_t(w) * size_t(h);
  t.mainImage.data = work;
  t.mainImage.plane2 = work + n;
  t.mainImage.size = int32_t(n * 3 / 2);
  if (chip != nullptr) {
    t.subImage.data = const_cast<uint8_t*>(reinterpret_cast<const uint8_t*>(chip->data()));
    t.subImage.size = int32_t(chip->size() * 2);
    return t;
  }
  t.subImage.data = const_cast<uint8_t*>(sub);
  t.subImage.plane2 = const_cast<uint8_t*>(sub) + n;
  t.subImage.size = int32_t(n * 3 / 2);
  return t;
}

// A calibration block for a rectified pair with disparities in [0, maxD] frame pixels; the depth
// scale S keeps the largest disparity on the depth grid under the engine's code 1023.
bool pair_calibration(int32_t w, int32_t h, int32_t wd, float maxD, std::vector<uint8_t>* calib, int32_t* scale,
                      std::string* error) {
  CalibBlock cb;
  calib_block_defaults(&cb, w, h, w, h, 0.0f, std::max(1.0f, ceilf(maxD) + 1.0f));
  const double small = double(maxD) * wd / w + 2.0;
  cb.disparityScale = uint16_t(std::max(1, std::min(16, int32_t(1022.0 / small))));
  calib->assign(CALIB_BLOCK_SIZE, 0);
  if (calib_block_write(&cb, calib->data(), calib->size()) != CALIB_OK) {
    *error = "the calibration block refused the disparity range 0.." + std::to_string(maxD);
    return false;
  }
  *scale = cb.disparityScale;
  return true;
}

// Runs frame `main`/`sub` repeatedly at camera pace until the first frame drawn with a refocus map
// and `settle` frames more; the last frame's output in *out. False when the system refused or
// never drew with a map.
bool system_still(const Options& o, const std::vector<uint8_t>& main, const std::vector<uint8_t>& sub, int32_t w,
                  int32_t h, const std::vector<uint8_t>& calib, const Focus& f, std::vector<uint8_t>* out,
                  std::string* error) {
  if (vmKtrRT_SC_Init(init_data(w, h, o.depthWidth, o.depthHeight, calib, false, 1, o.systemMode)) != 0) {
    *error = "vmKtrRT_SC_Init refused the session";
    return false;
  }
  int32_t after = -1, last = -1;
  for (int32_t k = 0; k < 400 && after < o.settle; ++k) {
    *out = main;
    last = int32_t(vmKtrRT_SC_Run(trigger(o.fNumber, f, w, h, out->data(), sub.data(), nullptr)));
    if (after < 0 && last == 0) after = 0;
    if (after >= 0) ++after;
    if (after < o.settle) usleep(useconds_t(o.paceMs) * 1000u);
  }
  vmKtrRT_SC_Deinit();
  if (last != 0) {
    *error = after < 0 ? "the system drew no frame with a refocus map in 400 frames"
                       : "the system's last frame returned " + std::to_string(last);
    return false;
  }
  return true;
}

// ---- pictures ----

bool write_strip(const std::string& path, const std::vector<const std::vector<uint8_t>*>& panels, int32_t w, int32_t h,
                 ToolReport* report) {
  const int32_t W = w * int32_t(panels.size());
  std::vector<uint8_t> rgb(size_t(W) * h * 3);
  for (size_t p = 0; p < panels.size(); ++p)
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const uint8_t v = (*panels[p])[size_t(y) * w + x];
        uint8_t* q = &rgb[(size_t(y) * W + size_t(p) * w + x) * 3];
        q[0] = q[1] = q[2] = v;
      }
  std::string written, error;
  if (host_write_rgb(path, rgb.data(), W, h, 6, &written, &error)) {
    printf("  picture: %s\n", written.c_str());
    return true;
  }
  report->write_failed(path, error);
  return false;
}

// ---- light-field mode ----

struct DepthScore {
  double bad1 = 0, bad2 = 0, mae = 0, bandBad1 = 0, bandBad2 = 0, bandMae = 0, ms = 0;
  double objBad1 = 0;  // bad 1.0 over the pixels nearer than the farthest plane by more than a pixel
};

// Pixels with no estimate count as bad in both bad figures and are left out of the mean error.
DepthScore depth_score(const ImageF& est, const std::vector<float>& truth, const std::vector<uint8_t>& band,
                       float objectsAbove) {
  DepthScore s;
  double no = 0;
  double n = 0, nb = 0, e = 0, eb = 0, ne = 0, neb = 0;
  for (size_t i = 0; i < truth.size(); ++i) {
    if (!isfinite(truth[i])) continue;
    const bool has = isfinite(est.data[i]);
    const double err = has ? fabs(double(est.data[i]) - truth[i]) : INFINITY;
    n += 1, s.bad1 += err > 1.0, s.bad2 += err > 2.0;
    if (truth[i] > objectsAbove) no += 1, s.objBad1 += err > 1.0;
    if (has) e += err, ne += 1;
    if (band[i]) {
      nb += 1, s.bandBad1 += err > 1.0, s.bandBad2 += err > 2.0;
      if (has) eb += err, neb += 1;
    }
  }
  s.bad1 = n > 0 ? 100 * s.bad1 / n : 0, s.bad2 = n > 0 ? 100 * s.bad2 / n : 0, s.mae = ne > 0 ? e / ne : 0;
  s.bandBad1 = nb > 0 ? 100 * s.bandBad1 / nb : 0, s.bandBad2 = nb > 0 ? 100 * s.bandBad2 / nb : 0;
  s.bandMae = neb > 0 ? eb / neb : 0;
  s.objBad1 = no > 0 ? 100 * s.objBad1 / no : 0;
  return s;
}

std::string base_name(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  const size_t slash = p.find_last_of('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

// One light field as the depth scores and every focus point see it: read and checked once.
struct Lf {
  std::string dir, scene;
  std::vector<int32_t> needed;  // the views the largest aperture and the pair need
  Image8 centre, right, rightShifted;
  int32_t w = 0, h = 0;
  size_t n = 0;
  std::vector<Focus> points;
  std::vector<std::vector<float>> views;  // luma of the needed views, empty for the others
  ImageF gt;
  float dLo = INFINITY, dHi = -INFINITY;  // the truth's range, view steps
  int32_t s = 0;                          // the right view's move to the left, pixels
  std::vector<float> D;                   // the pair's true disparity, pixels
  float maxD = 0;
  std::vector<uint8_t> band;
  std::vector<uint8_t> mainNv, subNv, calib;
  int32_t scale = 16;
  double aMatch = 0;                // the aperture matching the renderer's lens, view steps
  std::vector<uint8_t> input, all;  // the sharp input's luma, and a mask of the whole frame
};

std::string lf_view_path(const std::string& dir, int32_t i) {
  char name[32];
  snprintf(name, sizeof name, "/input_Cam%03d.png", i);
  return dir + name;
}

// The views the largest aperture and the pair need are regular files; false names them all (up
// to 20).
bool lf_views_present(const Options& o, Lf* lf) {
  const int32_t reach = int32_t(floor(o.maxAperture + 1e-9));
  for (int32_t r = -4; r <= 4; ++r)
    for (int32_t k = -4; k <= 4; ++k)
      if (k * k + r * r <= reach * reach || (r == 0 && k == o.apart)) lf->needed.push_back(kCentre + kGrid * r + k);
  std::vector<std::string> missing;
  for (int32_t i : lf->needed)
    if (!tool_is_regular_file(lf_view_path(lf->dir, i))) missing.push_back(lf_view_path(lf->dir, i));
  if (missing.empty()) return true;
  fprintf(stderr, "%s: %zu view%s missing or not regular files:", kTool, missing.size(),
          missing.size() == 1 ? "" : "s");
  for (size_t i = 0; i < missing.size() && i < 20; ++i) fprintf(stderr, " %s", missing[i].c_str());
  fprintf(stderr, missing.size() > 20 ? " ...\n" : "\n");
  return false;
}

// The centre view sets the size every other input must have; the depth size and the focus
// points are checked against it before the other views are read. False on the first bad input
// (the message printed).
bool lf_read_views(const Options& o, Lf* lf) {
  std::string error;
  const std::string centrePath = lf_view_path(lf->dir, kCentre);
  if (!read_rgb(centrePath, &lf->centre, &error) ||
      !check_size(centrePath, lf->centre.width, lf->centre.height, &error)) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return false;
  }
  const int32_t w = lf->w = lf->centre.width, h = lf->h = lf->centre.height;
  lf->n = size_t(w) * size_t(h);
  if (o.depthWidth > w || o.depthHeight > h) {
    fprintf(stderr, "%s: --depth-size %s is larger than the views (%s)\n", kTool,
            size_text(o.depthWidth, o.depthHeight).c_str(), size_text(w, h).c_str());
    return false;
  }
  lf->points = o.focus;
  if (lf->points.empty()) lf->points.push_back(Focus{w / 2, h / 2});
  if (!focus_inside(lf->points, w, h)) return false;
  lf->views.resize(size_t(kGrid * kGrid));
  for (int32_t i : lf->needed) {
    Image8 v;
    const std::string p = lf_view_path(lf->dir, i);
    if (!read_rgb(p, &v, &error) || !same_size(centrePath, w, h, p, v.width, v.height, &error)) {
      fprintf(stderr, "%s: %s\n", kTool, error.c_str());
      return false;
    }
    if (i == kCentre + o.apart) lf->right = v;
    lf->views[size_t(i)] = luma_of(v);
  }
  return true;
}

// The ground truth, the centre view's size, with a finite range. False when not (the message
// printed).
bool lf_read_truth(Lf* lf) {
  std::string error;
  const std::string centrePath = lf_view_path(lf->dir, kCentre), gtPath = lf->dir + "/gt_disp_lowres.pfm";
  if (!read_pfm(gtPath, &lf->gt, &error) ||
      !same_size(centrePath, lf->w, lf->h, gtPath, lf->gt.width, lf->gt.height, &error)) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return false;
  }
  for (float d : lf->gt.data)
    if (isfinite(d)) lf->dLo = std::min(lf->dLo, d), lf->dHi = std::max(lf->dHi, d);
  if (!(lf->dHi >= lf->dLo) || lf->dHi - lf->dLo > 100.0f || fabsf(lf->dLo) > 100.0f) {
    fprintf(stderr, "%s: %s: no finite disparity within +-100 views\n", kTool, gtPath.c_str());
    return false;
  }
  return true;
}

// The pair: its disparity n d + s, made >= 0 by moving the right view left by s, and the band
// around its depth edges; both described on stdout.
void lf_form_pair(const Options& o, Lf* lf) {
  const size_t n = lf->n;
  lf->s = int32_t(ceil(-double(lf->dLo) * o.apart - 1e-6));
  lf->D.resize(n);
  for (size_t i = 0; i < n; ++i) {
    lf->D[i] = isfinite(lf->gt.data[i]) ? lf->gt.data[i] * float(o.apart) + float(lf->s) : NAN;
    if (isfinite(lf->D[i])) lf->maxD = std::max(lf->maxD, lf->D[i]);
  }
  lf->rightShifted = shift_left(lf->right, lf->s);
  edge_band(lf->D, lf->w, lf->h, kBandReach, &lf->band);
  size_t bandCount = 0;
  for (uint8_t b : lf->band) bandCount += b;
  lf->scene = base_name(lf->dir);
  printf(
      "%s: %dx%d, views 40 and %d (%d apart), view disparity %.2f..%.2f, right view moved left by %d px: pair "
      "disparity 0..%.1f px\n",
      lf->scene.c_str(), lf->w, lf->h, kCentre + o.apart, o.apart, double(lf->dLo), double(lf->dHi), lf->s,
      double(lf->maxD));
  printf(
      "edge band: within %d px of a true jump of 1 px or more, %.1f%% of the frame; objects: pair disparity over "
      "1 px (the farthest plane left out)\n",
      kBandReach, 100.0 * double(bandCount) / double(n));
}

// Set-up: the folder's views and truth read and checked, and the pair formed. Returns
// kToolExitDone when the measurements can start, else the exit code (the message printed).
int lf_set_up(const Options& o, Lf* lf) {
  lf->dir = o.lightfield;
  if (!is_dir(lf->dir)) {
    fprintf(stderr, "%s: %s: not a folder\n", kTool, lf->dir.c_str());
    return kToolExitUsage;
  }
  if (!lf_views_present(o, lf) || !lf_read_views(o, lf) || !lf_read_truth(lf)) return kToolExitUsage;
  lf_form_pair(o, lf);
  return kToolExitDone;
}

// A disparity as grey over the truth's range, 0 where there is no estimate.
std::vector<uint8_t> disparity_grey(const std::vector<float>& d, float maxD) {
  std::vector<uint8_t> g(d.size(), 0);
  const float k = maxD > 0 ? 254.0f / maxD : 0.0f;
  for (size_t i = 0; i < d.size(); ++i)
    if (isfinite(d[i])) g[i] = uint8_t(1.0f + std::min(254.0f, std::max(0.0f, d[i] * k)));
  return g;
}

// Depth: the engine on the full-resolution pair in both modes. With --out, a picture per scene:
// input | mode 1 | mode 2 | truth | mode 1's errors (grey over 1 px, white over 2 px, black in
// between the others).
void lf_depth_scores(const Options& o, const Lf& lf, ToolReport* report) {
  std::string error;
  printf("\ndepth (pair pixels)  %8s %8s %8s | %9s %9s %9s | %9s | %8s\n", "bad 1.0", "bad 2.0", "MAE", "band b1.0",
         "band b2.0", "band MAE", "obj b1.0", "ms");
  std::vector<std::vector<uint8_t>> greys(2);
  std::vector<uint8_t> errors(lf.n, 0);
  bool complete = true;
  for (int32_t q = 1; q <= 2; ++q) {
    ImageF est;
    double ms = 0;
    if (!run_engine(lf.centre, lf.rightShifted, 0.0f, lf.maxD, q, &est, &ms, &error)) {
      report->skip(lf.scene + " depth mode " + std::to_string(q), error);
      complete = false;
      continue;
    }
    const DepthScore ds = depth_score(est, lf.D, lf.band, 1.0f);
    printf("  mode %d             %7.2f%% %7.2f%% %8.3f | %8.2f%% %8.2f%% %9.3f | %8.2f%% | %8.1f\n", q, ds.bad1,
           ds.bad2, ds.mae, ds.bandBad1, ds.bandBad2, ds.bandMae, ds.objBad1, ms);
    report->processed++;
    greys[size_t(q - 1)] = disparity_grey(est.data, lf.maxD);
    if (q == 1)
      for (size_t i = 0; i < lf.n; ++i) {
        if (!isfinite(lf.D[i])) continue;
        const float e = isfinite(est.data[i]) ? fabsf(est.data[i] - lf.D[i]) : INFINITY;
        errors[i] = e > 2.0f ? 255 : e > 1.0f ? 128 : 0;
      }
  }
  if (o.out.empty() || !complete) return;
  const std::vector<uint8_t> truth = disparity_grey(lf.D, lf.maxD);
  const std::vector<float> luma = luma_of(lf.centre);
  std::vector<uint8_t> input(lf.n);
  for (size_t i = 0; i < lf.n; ++i) input[i] = clamp8(luma[i]);
  write_strip(o.out + "/" + lf.scene + "_depth.png", {&input, &greys[0], &greys[1], &truth, &errors}, lf.w, lf.h,
              report);
}

// The system's inputs for the pair held still: the two frames in NV21 and the calibration.
// False when the calibration block refuses the pair (the message printed).
bool lf_system_inputs(const Options& o, Lf* lf) {
  const size_t n = lf->n;
  lf->mainNv.resize(n * 3 / 2), lf->subNv.resize(n * 3 / 2);
  host_rgb_to_nv21(lf->centre.data.data(), lf->w, lf->h, lf->mainNv.data());
  host_rgb_to_nv21(lf->rightShifted.data.data(), lf->w, lf->h, lf->subNv.data());
  std::string error;
  if (!pair_calibration(lf->w, lf->h, o.depthWidth, lf->maxD, &lf->calib, &lf->scale, &error)) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return false;
  }
  return true;
}

// The aperture that matches the renderer's lens, described with the bokeh settings.
void lf_match_lens(const Options& o, Lf* lf) {
  // The renderer's radius is map/255 x 0.084 W / f (f clamped to 0.95..32) and its map reaches
  // 255 at W/20 pixels of disparity: b = 1.68 / f frame pixels of blur per pixel of disparity, and
  // a pair n views apart matches an aperture of A = b n view steps, up to saturation.
  const double fClamped = std::min(32.0, std::max(0.95, o.fNumber));
  const double b = 1.68 / fClamped;
  lf->aMatch = b * o.apart;
  const int32_t w = lf->w;
  printf(
      "\nbokeh at f/%.2f: the renderer's lens is %.3f px of blur per px of disparity = aperture %.2f views; its map "
      "saturates at %.1f px of pair disparity (%.2f views)\n",
      o.fNumber, b, lf->aMatch, w / 20.0, w / 20.0 / o.apart);
  printf(
      "system depth %dx%d (mode %d), settle %d frames; in-focus region |d - d0| < %.1f view, scored against the "
      "input\n",
      o.depthWidth, o.depthHeight, o.systemMode, o.settle, kInFocusViews);
  lf->input.assign(lf->mainNv.begin(), lf->mainNv.begin() + ptrdiff_t(lf->n));
  lf->all.assign(lf->n, 1);
}

// The aperture that fits the system best, on a grid of quarter views; its score in *best.
double lf_best_aperture(const Options& o, const Lf& lf, const Refocus& rf, const std::vector<uint8_t>& sys,
                        double* best) {
  double aBest = 0;
  *best = -1;
  for (double A = 0.5; A <= o.maxAperture + 1e-9; A += 0.25) {
    ErrorSum e;
    const std::vector<uint8_t> orc = rf.at(A, lf.n);
    e.add(sys.data(), orc.data(), lf.all);
    if (e.psnr() > *best) *best = e.psnr(), aBest = A;
  }
  return aBest;
}

// The naive blur's scale, fitted to the oracle (golden section on squared error).
double lf_fit_naive(const Lf& lf, double D0, const std::vector<uint8_t>& oracle) {
  const int32_t w = lf.w, h = lf.h;
  const std::vector<uint8_t>& input = lf.input;
  const std::vector<float>& D = lf.D;
  double lo = 0, hi = 1.5;
  const double g = (sqrt(5.0) - 1) / 2;
  double c1 = hi - g * (hi - lo), c2 = lo + g * (hi - lo);
  double e1 = sq_error(naive_blur(input, D, D0, c1, w, h), oracle),
         e2 = sq_error(naive_blur(input, D, D0, c2, w, h), oracle);
  for (int32_t it = 0; it < 14; ++it) {
    if (e1 < e2)
      hi = c2, c2 = c1, e2 = e1, c1 = hi - g * (hi - lo), e1 = sq_error(naive_blur(input, D, D0, c1, w, h), oracle);
    else
      lo = c1, c1 = c2, e1 = e2, c2 = lo + g * (hi - lo), e2 = sq_error(naive_blur(input, D, D0, c2, w, h), oracle);
  }
  return e1 < e2 ? c1 : c2;
}

// The picture input | system | oracle | 4 x error of one focus point.
void lf_write_point_strip(const Options& o, const Lf& lf, const Focus& f, const std::vector<uint8_t>& sys,
                          const std::vector<uint8_t>& oracle, ToolReport* report) {
  std::vector<uint8_t> err(lf.n);
  for (size_t i = 0; i < lf.n; ++i) err[i] = clamp8(4.0 * fabs(double(sys[i]) - oracle[i]));
  char file[64];
  snprintf(file, sizeof file, "_focus_%d_%d.png", f.x, f.y);
  write_strip(o.out + "/" + lf.scene + file, {&lf.input, &sys, &oracle, &err}, lf.w, lf.h, report);
}

// One focus point: the system on the pair held still against the refocus at the matching
// aperture, beside the sharp input and the fitted naive blur. No truth or no system frame is a
// skipped point.
void lf_focus_point(const Options& o, const Lf& lf, const Focus& f, ToolReport* report) {
  const int32_t w = lf.w, h = lf.h;
  const size_t n = lf.n;
  const std::string name = lf.scene + " focus (" + std::to_string(f.x) + "," + std::to_string(f.y) + ")";
  const float d0 = window_median(lf.gt.data, w, h, f.x, f.y);
  if (!isfinite(d0)) {
    report->skip(name, "no ground truth around the focus point");
    return;
  }
  std::vector<uint8_t> inFocus(n, 0);
  size_t focusCount = 0;
  for (size_t i = 0; i < n; ++i) {
    inFocus[i] = isfinite(lf.gt.data[i]) && fabs(double(lf.gt.data[i]) - d0) < kInFocusViews;
    focusCount += inFocus[i];
  }
  std::vector<uint8_t> sys;
  std::string error;
  if (!system_still(o, lf.mainNv, lf.subNv, w, h, lf.calib, f, &sys, &error)) {
    report->skip(name, error);
    return;
  }
  sys.resize(n);
  Refocus rf;
  rf.make(lf.views, w, h, d0);
  const std::vector<uint8_t> oracle = rf.at(lf.aMatch, n);
  // The oracle's own check: in focus it must give back the centre view.
  ErrorSum self;
  self.add(oracle.data(), lf.input.data(), inFocus);
  double best = -1;
  const double aBest = lf_best_aperture(o, lf, rf, sys, &best);
  const double D0 = double(d0) * o.apart + lf.s;
  const double cFit = lf_fit_naive(lf, D0, oracle);
  const std::vector<uint8_t> naive = naive_blur(lf.input, lf.D, D0, cFit, w, h);
  printf("\n%s: d0 %.3f views (pair %.2f px), in focus %.1f%% of the frame; oracle in focus vs input %.2f dB\n",
         name.c_str(), double(d0), D0, 100.0 * double(focusCount) / double(n), self.psnr());
  printf("  vs oracle A=%.2f   %8s %8s %9s %7s\n", lf.aMatch, "whole", "band", "in-focus", "SSIM");
  auto row = [&](const char* what, const std::vector<uint8_t>& img) {
    const Scores sc = score(img, oracle, lf.input, lf.all, lf.band, inFocus, w, h);
    printf("  %-18s %8.2f %8.2f %9.2f %7.4f\n", what, sc.whole, sc.band, sc.inFocus, sc.ssim);
  };
  row("sharp input", lf.input);
  row("system", sys);
  char naiveName[40];
  snprintf(naiveName, sizeof naiveName, "naive gt (s=%.3f)", cFit);
  row(naiveName, naive);
  printf("  best-fitting aperture for the system: %.2f views (whole %.2f dB)\n", aBest, best);
  report->processed++;
  if (!o.out.empty()) lf_write_point_strip(o, lf, f, sys, oracle, report);
}

int lightfield(const Options& o, ToolReport* report) {
  Lf lf;
  const int setUp = lf_set_up(o, &lf);
  if (setUp != kToolExitDone) return setUp;
  std::string error;
  if (!o.out.empty() && !tool_make_dirs(o.out, &error)) {
    report->write_failed(o.out, error);
    return report->finish();
  }
  if (o.depthScores) lf_depth_scores(o, lf, report);
  // Bokeh: the whole system on the pair held still, against the shift-and-add refocus.
  if (!lf_system_inputs(o, &lf)) return kToolExitRefused;
  lf_match_lens(o, &lf);
  for (const Focus& f : lf.points) lf_focus_point(o, lf, f, report);
  return report->finish();
}

// ---- sequence mode ----

struct SeqFrame {
  std::vector<uint8_t> main, sub;
  std::vector<float> truthSmall;  // pair disparity on the depth grid, frame pixels
  std::vector<uint16_t> chip;     // truth as the chip's 10-bit samples (S = 16, depth-grid pixels)
};

struct SeqRun {
  const char* name;
  bool chip;
  int32_t temporal;
  std::vector<double> mae, flicker, invalid;
  std::vector<int32_t> lag;
  bool ok = false;
};

// One sequence as every run sees it: read, checked and converted once before anything runs.
struct Seq {
  std::string dir;
  std::vector<std::string> stems;
  std::vector<SeqFrame> frames;
  std::vector<std::vector<uint8_t>> lumaSmall;  // each frame's luma on the depth grid, for the tap
  int32_t w = 0, h = 0;
  int32_t s = 0;  // the right views' move to the left, frame pixels
  int32_t Wd = 0, Hd = 0;
  float maxD = 0;
  size_t n = 0, nd = 0;
  double toSmall = 0;  // depth-grid pixels per frame pixel
  std::vector<uint8_t> calib;
  int32_t scale = 16;
  Focus focus;
};

// The frames NNNN of left/NNNN.png, sorted and cut to --frames. Returns kToolExitDone when there
// are at least two, else the exit code (the message printed).
int seq_list_frames(const Options& o, Seq* q) {
  const std::string& dir = q->dir;
  std::vector<std::string>& stems = q->stems;
  if (!is_dir(dir + "/left")) {
    fprintf(stderr, "%s: %s/left: not a folder\n", kTool, dir.c_str());
    return kToolExitUsage;
  }
  DIR* d = opendir((dir + "/left").c_str());
  if (d == nullptr) {
    fprintf(stderr, "%s: %s/left: cannot be read\n", kTool, dir.c_str());
    return kToolExitUsage;
  }
  while (dirent* e = readdir(d)) {
    const std::string nm = e->d_name;
    if (nm.size() > 4 && nm.compare(nm.size() - 4, 4, ".png") == 0) stems.push_back(nm.substr(0, nm.size() - 4));
    if (stems.size() > size_t(kMaxFrames)) break;
  }
  closedir(d);
  if (stems.size() > size_t(kMaxFrames)) {
    fprintf(stderr, "%s: %s/left holds more than %d frames\n", kTool, dir.c_str(), kMaxFrames);
    return kToolExitUsage;
  }
  std::sort(stems.begin(), stems.end());
  if (o.frames > 0 && stems.size() > size_t(o.frames)) stems.resize(size_t(o.frames));
  if (stems.size() < 2) {
    fprintf(stderr, "%s: %s/left: fewer than two frames (NNNN.png)\n", kTool, dir.c_str());
    return kToolExitUsage;
  }
  return kToolExitDone;
}

// Every frame's right view and truth are regular files; false names them all (up to 20).
bool seq_files_present(const Seq& q) {
  std::vector<std::string> missing;
  for (const std::string& st : q.stems)
    for (const std::string& p : {q.dir + "/right/" + st + ".png", q.dir + "/disp_left/" + st + ".pfm"})
      if (!tool_is_regular_file(p)) missing.push_back(p);
  if (missing.empty()) return true;
  fprintf(stderr, "%s: %zu file%s missing or not regular:", kTool, missing.size(), missing.size() == 1 ? "" : "s");
  for (size_t i = 0; i < missing.size() && i < 20; ++i) fprintf(stderr, " %s", missing[i].c_str());
  fprintf(stderr, missing.size() > 20 ? " ...\n" : "\n");
  return false;
}

// The sequence's files as read, before the pair is formed.
struct SeqFiles {
  std::vector<Image8> lefts, rights;
  std::vector<ImageF> truths;
  float dLo = INFINITY, dHi = -INFINITY;  // the truth's range over the whole sequence
};

// Every frame read and checked against the first one's size. False on the first bad file
// (the message printed).
bool seq_read_frames(Seq* q, SeqFiles* in) {
  const std::vector<std::string>& stems = q->stems;
  const std::string& dir = q->dir;
  std::string error;
  in->lefts.resize(stems.size()), in->rights.resize(stems.size());
  in->truths.resize(stems.size());
  const std::string first = dir + "/left/" + stems[0] + ".png";
  for (size_t i = 0; i < stems.size(); ++i) {
    const std::string lp = dir + "/left/" + stems[i] + ".png", rp = dir + "/right/" + stems[i] + ".png",
                      tp = dir + "/disp_left/" + stems[i] + ".pfm";
    Image8 &left = in->lefts[i], &right = in->rights[i];
    ImageF& truth = in->truths[i];
    if (!read_rgb(lp, &left, &error) || !read_rgb(rp, &right, &error) || !read_pfm(tp, &truth, &error)) {
      fprintf(stderr, "%s: %s\n", kTool, error.c_str());
      return false;
    }
    if (i == 0) {
      q->w = left.width, q->h = left.height;
      if (!check_size(lp, q->w, q->h, &error)) {
        fprintf(stderr, "%s: %s\n", kTool, error.c_str());
        return false;
      }
    }
    if (!same_size(first, q->w, q->h, lp, left.width, left.height, &error) ||
        !same_size(first, q->w, q->h, rp, right.width, right.height, &error) ||
        !same_size(first, q->w, q->h, tp, truth.width, truth.height, &error)) {
      fprintf(stderr, "%s: %s\n", kTool, error.c_str());
      return false;
    }
    for (float v : truth.data)
      if (isfinite(v)) in->dLo = std::min(in->dLo, v), in->dHi = std::max(in->dHi, v);
  }
  return true;
}

// The pair's geometry: the one shift that makes every disparity >= 0 over the whole sequence, as a
// fixed rig would be calibrated, and the depth grid. False when the truth or the depth size does
// not fit (the message printed).
bool seq_pair_geometry(const Options& o, const SeqFiles& in, Seq* q) {
  const float dLo = in.dLo, dHi = in.dHi;
  const int32_t w = q->w, h = q->h;
  if (!(dHi >= dLo) || dHi - dLo > 500.0f || fabsf(dLo) > 500.0f) {
    fprintf(stderr, "%s: %s/disp_left: no finite disparity within +-500 px\n", kTool, q->dir.c_str());
    return false;
  }
  if (o.depthWidth > w || o.depthHeight > h) {
    fprintf(stderr, "%s: --depth-size %s is larger than the frames (%s)\n", kTool,
            size_text(o.depthWidth, o.depthHeight).c_str(), size_text(w, h).c_str());
    return false;
  }
  q->s = int32_t(ceil(-double(dLo) - 1e-6)), q->Wd = o.depthWidth, q->Hd = o.depthHeight;
  q->maxD = dHi + float(q->s);
  q->n = size_t(w) * size_t(h), q->nd = size_t(q->Wd) * size_t(q->Hd);
  q->toSmall = double(q->Wd) / w;
  if (q->maxD * q->toSmall * 16 > 1022) {
    fprintf(stderr, "%s: pair disparity up to %.1f px is beyond the chip's 10-bit samples at depth width %d\n", kTool,
            double(q->maxD), q->Wd);
    return false;
  }
  return true;
}

// Each frame as the system takes it: NV21 main and shifted sub, the truth on the depth grid in
// pair pixels and as the chip's samples, and the luma the tap compares against.
void seq_convert_frames(const SeqFiles& in, Seq* q) {
  const int32_t w = q->w, h = q->h, Wd = q->Wd, Hd = q->Hd, s = q->s;
  q->frames.resize(q->stems.size());
  q->lumaSmall.resize(q->stems.size());
  for (size_t i = 0; i < q->stems.size(); ++i) {
    SeqFrame& f = q->frames[i];
    f.main.resize(q->n * 3 / 2), f.sub.resize(q->n * 3 / 2);
    host_rgb_to_nv21(in.lefts[i].data.data(), w, h, f.main.data());
    const Image8 shifted = shift_left(in.rights[i], s);
    host_rgb_to_nv21(shifted.data.data(), w, h, f.sub.data());
    f.truthSmall.resize(q->nd), f.chip.resize(q->nd);
    for (int32_t y = 0; y < Hd; ++y)
      for (int32_t x = 0; x < Wd; ++x) {
        const int32_t sx = int32_t(int64_t(x) * w / Wd), sy = int32_t(int64_t(y) * h / Hd);
        const float t = in.truths[i].data[size_t(sy) * w + sx];
        const size_t k = size_t(y) * Wd + x;
        f.truthSmall[k] = isfinite(t) ? t + float(s) : NAN;
        f.chip[k] = isfinite(t) ? uint16_t(std::min(1022.0, std::max(0.0, (t + s) * q->toSmall * 16 + 0.5))) : 1023;
      }
    q->lumaSmall[i].resize(q->nd);
    sample_plane(f.main, w, h, Wd, Hd, 0, q->lumaSmall[i].data());
  }
}

// Set-up: the frames listed, read, checked and converted, the calibration and the focus point.
// Returns kToolExitDone when the runs can start, else the exit code (the message printed).
int seq_set_up(const Options& o, Seq* q) {
  q->dir = o.sequence;
  const int listed = seq_list_frames(o, q);
  if (listed != kToolExitDone) return listed;
  if (!seq_files_present(*q)) return kToolExitUsage;
  SeqFiles in;
  if (!seq_read_frames(q, &in) || !seq_pair_geometry(o, in, q)) return kToolExitUsage;
  seq_convert_frames(in, q);
  std::string error;
  if (!pair_calibration(q->w, q->h, q->Wd, q->maxD, &q->calib, &q->scale, &error)) {
    fprintf(stderr, "%s: %s\n", kTool, error.c_str());
    return kToolExitRefused;
  }
  q->focus = o.focus.empty() ? Focus{q->w / 2, q->h / 2} : o.focus[0];
  if (!focus_inside({q->focus}, q->w, q->h)) return kToolExitUsage;
  return kToolExitDone;
}

// Frame i through the system (the tap told which frame it is); the system's result.
int32_t seq_call(const Options& o, const Seq& q, const SeqRun& run, size_t i, std::vector<uint8_t>* work) {
  *work = q.frames[i].main;
  tap_submit(int32_t(i));
  return int32_t(vmKtrRT_SC_Run(trigger(o.fNumber, q.focus, q.w, q.h, work->data(), q.frames[i].sub.data(),
                                        run.chip ? &q.frames[i].chip : nullptr)));
}

// The first frame repeated at camera pace until one is drawn with a map and --settle more.
void seq_settle(const Options& o, const Seq& q, const SeqRun& run, std::vector<uint8_t>* work) {
  for (int32_t k = 0, after = -1; k < 400 && after < o.settle; ++k) {
    // Chip sessions return 0 before their first map: the tap tells a frame drawn with one.
    if (seq_call(o, q, run, 0, work) == 0 && after < 0 && !tap_last_draw().depth.empty()) after = 0;
    if (after >= 0) ++after;
    usleep(useconds_t(o.paceMs) * 1000u);
  }
}

// Frame i's figures from the depth it was drawn with, against the truth of the frame that depth
// came from; *prevErr holds the frame before's error for the flicker and takes this one's.
void seq_score_frame(const Seq& q, size_t i, int32_t runScale, SeqRun* run, std::vector<double>* prevErr) {
  const size_t nd = q.nd;
  const TapDraw draw = tap_last_draw();
  std::vector<double> err(nd, NAN);
  double sum = 0, cnt = 0, bad = 0;
  if (draw.depth.size() == nd) {
    const SeqFrame& src =
        q.frames[size_t(draw.depthFrame >= 0 && size_t(draw.depthFrame) <= i ? draw.depthFrame : int32_t(i))];
    for (size_t k = 0; k < nd; ++k) {
      if (!isfinite(src.truthSmall[k])) continue;
      if (draw.depth[k] >= 1023) {
        bad += 1;
        continue;
      }
      err[k] = double(draw.depth[k]) / runScale / q.toSmall - src.truthSmall[k];
      sum += fabs(err[k]), cnt += 1;
    }
  }
  double fl = 0, fc = 0;
  if (!prevErr->empty())
    for (size_t k = 0; k < nd; ++k)
      if (isfinite(err[k]) && isfinite((*prevErr)[k])) fl += fabs(err[k] - (*prevErr)[k]), fc += 1;
  run->mae.push_back(cnt > 0 ? sum / cnt : NAN);
  run->invalid.push_back(cnt + bad > 0 ? 100 * bad / (cnt + bad) : NAN);
  run->flicker.push_back(fc > 0 ? fl / fc : NAN);
  run->lag.push_back(draw.depthFrame >= 0 ? int32_t(i) - draw.depthFrame : -1);
  *prevErr = err;
}

// One run: a session of its own over the whole sequence, settled on the first frame, then every
// frame at camera pace and scored. A refused session is a skipped run.
void seq_measure_run(const Options& o, Seq* q, SeqRun* run, ToolReport* report) {
  std::vector<uint8_t> work(q->n * 3 / 2);
  tap_begin(&q->lumaSmall, q->Wd, q->Hd);
  if (run->chip)
    for (size_t i = 0; i < q->frames.size(); ++i) tap_remember_depth(q->frames[i].chip.data(), int32_t(i));
  if (vmKtrRT_SC_Init(init_data(q->w, q->h, q->Wd, q->Hd, q->calib, run->chip, run->temporal, o.systemMode)) != 0) {
    tap_end();
    report->skip(run->name, "vmKtrRT_SC_Init refused the session");
    return;
  }
  const int32_t runScale = run->chip ? 16 : q->scale;
  seq_settle(o, *q, *run, &work);
  std::vector<double> prevErr;
  for (size_t i = 0; i < q->frames.size(); ++i) {
    seq_call(o, *q, *run, i, &work);
    seq_score_frame(*q, i, runScale, run, &prevErr);
    usleep(useconds_t(o.paceMs) * 1000u);
  }
  vmKtrRT_SC_Deinit();
  tap_end();
  run->ok = true;
  report->processed++;
}

// Outputs: a row per frame and the means, one column per run that ran.
void seq_print_table(const Seq& q, const SeqRun (&runs)[4]) {
  printf(
      "published depth against the truth of the frame it came from, frame pixels: MAE / flicker (mean |change "
      "of the error| from the frame before) / lag in frames\n");
  printf("%5s", "frame");
  for (const SeqRun& r : runs)
    if (r.ok) printf(" | %-24s", r.name);
  printf("\n");
  for (size_t i = 0; i < q.frames.size(); ++i) {
    printf("%5s", q.stems[i].c_str());
    for (const SeqRun& r : runs)
      if (r.ok) printf(" | %7.3f %7.3f %3d       ", r.mae[i], r.flicker[i], r.lag[i]);
    printf("\n");
  }
  printf("%5s", "mean");
  int32_t noMap = 0;
  for (const SeqRun& r : runs) {
    if (!r.ok) continue;
    double m = 0, fl = 0, inv = 0, mc = 0, fc = 0;
    for (size_t i = 0; i < r.mae.size(); ++i) {
      if (isfinite(r.mae[i])) m += r.mae[i], mc += 1, inv += r.invalid[i];
      if (isfinite(r.flicker[i])) fl += r.flicker[i], fc += 1;
    }
    printf(" | %7.3f %7.3f %3d nomap", mc > 0 ? m / mc : NAN, fc > 0 ? fl / fc : NAN,
           int32_t(r.mae.size() - size_t(mc)));
    noMap += int32_t(r.mae.size()) - int32_t(mc);
  }
  printf("\n");
  if (noMap > 0)
    printf("%d measured frames over the runs were drawn without a refocus map (nan: nothing to score)\n", noMap);
}

int sequence(const Options& o, ToolReport* report) {
  Seq q;
  const int setUp = seq_set_up(o, &q);
  if (setUp != kToolExitDone) return setUp;
  printf(
      "%s: %zu frames %dx%d, right views moved left by %d px: pair disparity 0..%.1f px; depth %dx%d, focus (%d,%d), "
      "f/%.2f, pace %d ms\n",
      base_name(q.dir).c_str(), q.stems.size(), q.w, q.h, q.s, double(q.maxD), q.Wd, q.Hd, q.focus.x, q.focus.y,
      o.fNumber, o.paceMs);
  SeqRun runs[4] = {{"stereo, filter on", false, 1, {}, {}, {}, {}, false},
                    {"stereo, filter off", false, 0, {}, {}, {}, {}, false},
                    {"chip, filter on", true, 1, {}, {}, {}, {}, false},
                    {"chip, filter off", true, 0, {}, {}, {}, {}, false}};
  for (SeqRun& run : runs) seq_measure_run(o, &q, &run, report);
  seq_print_table(q, runs);
  return report->finish();
}

void usage(FILE* f) {
  fprintf(f,
          "usage: vm_lightfield_eval --lightfield DIR [--focus X,Y]... [--out DIR] [options]\n"
          "       vm_lightfield_eval --sequence DIR [--focus X,Y] [--frames N] [options]\n"
          "Depth and bokeh against real light fields (the shared data's README describes the layouts).\n"
          "  --lightfield DIR  9 x 9 views input_Cam000.png..input_Cam080.png and gt_disp_lowres.pfm: depth\n"
          "                    scores of both engine modes on the pair (view 40, view 40+n), and the whole\n"
          "                    system on the pair held still against the shift-and-add refocus\n"
          "  --sequence DIR    left/NNNN.png, right/NNNN.png, disp_left/NNNN.pfm: per-frame error and flicker\n"
          "                    of the depth the system publishes, stereo and chip depth, filter on and off\n"
          "  --focus X,Y       a focus point in frame pixels (repeatable, up to 16; default the centre)\n"
          "  --out DIR         pictures input | system | oracle | 4 x error per focus point, and\n"
          "                    input | mode 1 | mode 2 | truth | mode 1's errors for the depth (PNG)\n"
          "  --apart N         views between the pair's cameras, 1..4 (default 4)\n"
          "  --depth-size WxH  the system's depth map, 16..4096 a side (default 256x256)\n"
          "  --fnumber F       0.95..32 (default 2)\n"
          "  --settle N        frames drawn after the first map before measuring, 0..300 (default 10)\n"
          "  --pace-ms N       0..1000 ms between frames (default 33)\n"
          "  --frames N        sequence frames to use, 2..%d (default all)\n"
          "  --system-mode N   the system's depth mode, 1 or 2 (default 1)\n"
          "  --max-aperture A  largest aperture the fit tries and whose views are read, 1..4 (default 4)\n"
          "  --no-depth        skip the engine's own depth scores\n"
          "%s",
          kMaxFrames, kToolExitCodesHelp);
}

bool parse(int argc, char** argv, Options* o, bool* help) {
  ToolArgs args(argc, argv);
  while (args.next()) {
    if (args.is_help()) {
      *help = true;
      return true;
    } else if (args.is("--lightfield")) {
      args.string_value(&o->lightfield);
    } else if (args.is("--sequence")) {
      args.string_value(&o->sequence);
    } else if (args.is("--out")) {
      args.string_value(&o->out);
    } else if (args.is("--focus")) {
      const char* v = nullptr;
      int64_t x = 0, y = 0;
      if (!args.value(&v)) break;
      if (!tool_parse_int_pair(v, ',', 0, kMaxSide - 1, &x, &y)) {
        args.fail(std::string("--focus: expected X,Y in 0..") + std::to_string(kMaxSide - 1) + ", not '" + v + "'");
        break;
      }
      if (o->focus.size() >= 16) {
        args.fail("--focus: at most 16 points");
        break;
      }
      o->focus.push_back(Focus{int32_t(x), int32_t(y)});
    } else if (args.is("--apart")) {
      args.int_value(1, 4, &o->apart);
    } else if (args.is("--depth-size")) {
      args.size_value(16, 4096, &o->depthWidth, &o->depthHeight);
    } else if (args.is("--fnumber")) {
      args.double_value(0.95, 32.0, &o->fNumber);
    } else if (args.is("--settle")) {
      args.int_value(0, 300, &o->settle);
    } else if (args.is("--pace-ms")) {
      args.int_value(0, 1000, &o->paceMs);
    } else if (args.is("--frames")) {
      args.int_value(2, kMaxFrames, &o->frames);
    } else if (args.is("--system-mode")) {
      args.int_value(1, 2, &o->systemMode);
    } else if (args.is("--max-aperture")) {
      args.double_value(1.0, 4.0, &o->maxAperture);
    } else if (args.is("--no-depth")) {
      o->depthScores = 0;
    } else {
      args.unknown();
    }
  }
  if (!args.failed() && o->lightfield.empty() == o->sequence.empty())
    args.fail("give exactly one of --lightfield DIR and --sequence DIR");
  if (args.failed()) {
    fprintf(stderr, "%s: %s\n", kTool, args.error().c_str());
    return false;
  }
  return true;
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
  ToolReport report;
  report.tool = kTool;
  const int code = o.lightfield.empty() ? sequence(o, &report) : lightfield(o, &report);
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "%s: could not write the results to standard output\n", kTool);
    return kToolExitWrite;
  }
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  return tool_main(kTool, argc, argv, body);
}
